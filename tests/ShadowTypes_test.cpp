// Shadow-field collections: notifications, zero-copy commits, lookups with absent
// keys, removal, damage in the shared table, a table that a process of this or the
// other architecture writes while this one reads it.

#include "TarnRegFile/ShadowTypes.h"

#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "helpers/ShmTestTraits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace TarnRegFile;
using Keys = std::vector<ShadowFieldKey>;

constexpr char const* kConfigPath = "TarnRegFile/shadowFieldsConfig/chip0";

/// Records every notification of a ShadowFieldsConfig.
struct Recorder : ShadowFieldsConfig::Notifiee {
  Keys keys;
  void onField(ShadowFieldKey const& key) override { keys.push_back(key); }
  /// The keys notified since the last call.
  Keys taken() { return std::exchange(keys, {}); }
};

/// A config collection of capacity 16 mounted in a private root, observed by recorder_.
class ShadowTypesTest : public ShmTest::RootTest {
protected:
  void SetUp() override {
    RootTest::SetUp();
    em_ = Kiv::Shm::EntityManager::EntityManagerIs(root());
    config_ = mountConfig(kConfigPath, 16);
    recorder_.notifierIs(config_);
  }
  void TearDown() override {
    recorder_.notifierIs(nullptr);
    config_ = nullptr;
    em_ = nullptr;
    Kiv::Shm::corruptionHandlerIs(nullptr);
    RootTest::TearDown();
  }
  Kiv::Ptr<ShadowFieldsConfig> mountConfig(std::string const& path, U32 capacity) {
    auto group = em_->mountGroup();
    group.mount(path, "TarnRegFile::ShadowFieldsConfig", Kiv::Shm::MountDescription().collectionIs("field", capacity));
    group.close();
    return Kiv::ptr_cast<ShadowFieldsConfig>(em_->entity(path));
  }

  /// Writes 0x5EED0000 + i for keys {i, 0, 8}, then flips a bit of the stored value of key @p victim in the file.
  void writeAndDamage(U32 count, U32 victim) {
    for (U32 i = 0; i < count; ++i)
      config_->fieldIs(ShadowFieldValue(ShadowFieldKey(i, 0, 8), 0x5EED0000 + i));
    std::fstream file(this->file(kConfigPath), std::ios::in | std::ios::out | std::ios::binary);
    std::string const bytes((std::istreambuf_iterator<char>(file)), {});
    U32 const value = 0x5EED0000 + victim;
    std::size_t const at = bytes.find(std::string(reinterpret_cast<char const*>(&value), 4), 192);  // past the header
    ASSERT_NE(at, std::string::npos);
    file.clear();
    file.seekp(std::streamoff(at));
    file.put(static_cast<char>(bytes[at] ^ 0x40));
  }

  Kiv::Ptr<Kiv::Shm::EntityManager> em_;
  Kiv::Ptr<ShadowFieldsConfig> config_;
  Recorder recorder_;
};

TEST_F(ShadowTypesTest, EveryWriteAndRemovalNotifiesItsKeyButDelAllOnlyWhatWasThere) {
  ShadowFieldKey const a(4, 0, 8), b(4, 8, 8), never(9, 9, 9);
  U32 const changes = config_->fieldChangeCounter();
  config_->fieldIs(ShadowFieldValue(a, 1));
  config_->fieldIs(ShadowFieldValue(a, 2));  // replaces
  config_->fieldIs(ShadowFieldValue(b, 7));
  config_->fieldIs(ShadowFieldValue(b, 7));  // announced again, but the table does not change
  config_->fieldNotify(a);                   // announces without a change
  EXPECT_EQ(recorder_.taken(), (Keys{a, a, b, b, a}));
  EXPECT_EQ(config_->fieldChangeCounter(), changes + 3) << "other processes are not woken for the same value";
  EXPECT_EQ(config_->field(a), ShadowFieldValue(a, 2));
  EXPECT_EQ(config_->fieldCount(), 2u);

  EXPECT_EQ(config_->field(never), ShadowFieldValue());  // absent keys read as value 0
  EXPECT_TRUE(config_->fieldDel(a));
  EXPECT_FALSE(config_->fieldDel(never));  // nothing removed, still announced
  EXPECT_FALSE(config_->fieldHas(a));
  EXPECT_EQ(config_->field(a).value, 0u);
  EXPECT_EQ(recorder_.taken(), (Keys{a, never}));
  config_->fieldDelAll();
  EXPECT_EQ(recorder_.taken(), Keys{b});
  config_->fieldDelAll();  // empty: nothing to tell
  EXPECT_TRUE(recorder_.keys.empty());
  EXPECT_EQ(config_->fieldCount(), 0u);
}

TEST_F(ShadowTypesTest, IterationAndTheDumpYieldEveryEntryOnce) {
  std::vector<ShadowFieldValue> written;
  for (U32 i = 0; i < 16; ++i)  // four fields per address: keys that differ in start only
    config_->fieldIs(written.emplace_back(ShadowFieldKey(i / 4, static_cast<U8>((i % 4) * 8), 8), i * 3));
  ShadowFields const& readOnly = *config_;  // reads need no mutable reference
  std::vector<ShadowFieldValue> seen(readOnly.fieldBegin(), readOnly.fieldEnd());
  std::sort(seen.begin(), seen.end(), [](auto const& x, auto const& y) { return x.key < y.key; });
  EXPECT_EQ(seen, written);
  EXPECT_EQ(ShadowFields::readShadowTable(root(), kConfigPath), written);
  EXPECT_EQ(ShadowFieldsConfig::attachReader(root(), kConfigPath)->field(written[13].key), written[13]);
}

// Keys carry register byte addresses, so a chip's capacity follows its highest register:
// a huge capacity costs nothing until used (growth with the entries: ShmTable_test).
TEST_F(ShadowTypesTest, TheTableFollowsTheFieldsNotTheirAddresses) {
  EXPECT_EQ(mountConfig("TarnRegFile/shadowFieldsConfig/wide", 1u << 25)->fieldCapacity(), 1u << 25);
  EXPECT_LT(std::filesystem::file_size(file("TarnRegFile/shadowFieldsConfig/wide")), 4096u);
}

TEST_F(ShadowTypesTest, CommitPublishesTheValueBuiltInTheSlotAndNoCopy) {
  ShadowFieldKey const key(0x10, 4, 4);
  ShadowFieldValue* slot = config_->fieldSlot();
  std::memset(static_cast<void*>(slot), 0xEE, sizeof *slot);  // leftovers in the unused key bytes
  slot->key = key;
  slot->value = 0xA;
  config_->fieldCommit(slot);
  EXPECT_EQ(recorder_.taken(), Keys{key});
  EXPECT_EQ(config_->field(key).value, 0xAu);  // found by its key despite the leftovers
  ShadowFieldValue copy(key, 0xB);
  EXPECT_THROW(config_->fieldCommit(&copy), std::invalid_argument);
  EXPECT_EQ(config_->field(key).value, 0xAu);
}

// The record is the file format: tables outlive the processes (and versions) that wrote them.
TEST(ShadowFieldTraits, RecordIsFixedWidthLittleEndian) {
  std::byte out[ShadowFieldTraits::valueSize];
  std::memset(out, 0x55, sizeof out);
  ShadowFieldTraits::encode(ShadowFieldValue(ShadowFieldKey(0x04030201, 0x1F, 0x20), 0xDDCCBBAA), out);
  unsigned char const expected[] = {0x01, 0x02, 0x03, 0x04, 0x1F, 0x20, 0, 0, 0xAA, 0xBB, 0xCC, 0xDD};
  EXPECT_EQ(std::memcmp(out, expected, sizeof expected), 0);
  EXPECT_EQ(ShadowFieldTraits::decode(out), ShadowFieldValue(ShadowFieldKey(0x04030201, 0x1F, 0x20), 0xDDCCBBAA));
}

TEST_F(ShadowTypesTest, UnattachedCollectionsRefuseWithAClearErrorAndOperationsAreCalledByNameWithTheirArguments) {
  auto loose = ShadowFieldsStatus::ShadowFieldsStatusIs("loose");
  EXPECT_THAT([&] { loose->fieldIs(ShadowFieldValue(ShadowFieldKey(1, 0, 1), 1)); },
              ::testing::ThrowsMessage<std::runtime_error>(
                  "TarnRegFile::ShadowFieldsStatus 'loose' is not attached to shared memory; cannot write a field"));
  EXPECT_THROW(loose->field(ShadowFieldKey()), std::runtime_error);
  // Placed under an entity that no manager holds: nothing to attach to.
  EXPECT_THROW(loose->parentIs(ShadowFieldsStatus::ShadowFieldsStatusIs("stranger").ptr()), std::runtime_error);

  Kiv::TypeRegistry::instance().call(
      *config_, "fieldIs",
      {"Value('TarnRegFile::ShadowFieldValue', ** {'key': Value('TarnRegFile::ShadowFieldKey', ** "
       "{'address': 5, 'start': 0, 'size': 4}), 'value': 9})"});
  EXPECT_EQ(config_->field(ShadowFieldKey(5, 0, 4)).value, 9u);
  EXPECT_EQ(Kiv::TypeRegistry::instance().attribute(*config_, "fieldCount"), "1");
  EXPECT_THROW(Kiv::TypeRegistry::instance().call(*config_, "fieldIs", {}), std::runtime_error);
  EXPECT_THROW(Kiv::TypeRegistry::instance().call(*config_, "nothing", {}), std::runtime_error);
}

// The shadow_writer helper (built for each architecture) mounts a status table as
// its writer, writes 40 values, prints "ready" and holds the table until its input closes.
// Agents of both architectures share one table, so its layout must not depend on either.
class ShadowWriterProcess : public ShadowTypesTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(ShadowWriterProcess, TablesOfAnotherProcessAreReadWhileItWrites) {
  std::string const& helper = GetParam();
  if (::access(helper.c_str(), X_OK) != 0)
    GTEST_SKIP() << helper << " is missing; build that preset first";
  std::string const path = "TarnRegFile/shadowFieldsStatus/chip7";
  int in[2];  // the writer's input: only its reading end goes to the writer
  ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);
  ::fcntl(in[0], F_SETFD, 0);
  FILE* const out = ::popen(fmt::format("exec {} {}/root {} 40 <&{}", helper, base_, path, in[0]).c_str(), "r");
  ::close(in[0]);
  ASSERT_NE(out, nullptr);
  char line[16] = {};
  EXPECT_TRUE(std::fgets(line, sizeof line, out));
  EXPECT_STREQ(line, "ready\n");
  if (std::string(line) == "ready\n") {
    std::vector<ShadowFieldValue> written;
    for (U32 i = 0; i < 40; ++i)
      written.emplace_back(ShadowFieldKey(i, U8(i % 32), U8(1 + i % 32)), 0x1000 + 7 * i);
    EXPECT_EQ(ShadowFields::readShadowTable(root(), path), written);  // sorted by key; written in reverse
    EXPECT_EQ(ShadowFieldsStatus::attachReader(root(), path)->field(ShadowFieldKey(39, 7, 8)).value, 0x1000u + 7 * 39);
  }
  ::close(in[1]);  // lets the writer finish
  EXPECT_EQ(::pclose(out), 0) << "the writer's exit status";
}

INSTANTIATE_TEST_SUITE_P(ThisAndTheOtherArchitecture, ShadowWriterProcess,
                         ::testing::Values(std::string(TARN_BINARY_DIR "/tests/shadow_writer"),
                                           std::string(TARN_SOURCE_DIR) + (sizeof(void*) == 8 ? "/build/i386" : "/build/amd64") +
                                               "/tests/shadow_writer"));

TEST_F(ShadowTypesTest, DamageFoundByALookupIsRaisedAndByDelAllIsReported) {
  std::vector<std::string> reports;
  Kiv::Shm::corruptionHandlerIs([&reports](std::string const& m) { reports.push_back(m); });
  writeAndDamage(6, 3);
  EXPECT_THROW(config_->field(ShadowFieldKey(3, 0, 8)), Kiv::Shm::CorruptionException);
  EXPECT_THROW(ShadowFields::readShadowTable(root(), kConfigPath), Kiv::Shm::CorruptionException);
  EXPECT_TRUE(reports.empty());  // a lookup leaves the reporting to its caller

  recorder_.keys.clear();
  config_->fieldDelAll();  // stops at the damage, having reported it
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_THAT(reports[0], ::testing::HasSubstr("'" + std::string(kConfigPath) + "' is corrupt"));
  EXPECT_LT(recorder_.keys.size(), 6u);
  EXPECT_GT(config_->fieldCount(), 0u);
}

TEST_F(ShadowTypesTest, DamageFoundByAWriteIsReportedThenFatal) {
  writeAndDamage(4, 2);
  Kiv::Shm::corruptionHandlerIs([](std::string const& m) { std::fprintf(stderr, "handler got: %s\n", m.c_str()); });
  EXPECT_DEATH(config_->fieldIs(ShadowFieldValue(ShadowFieldKey(2, 0, 8), 1)),
               "handler got: shared-memory table '.*chip0' is corrupt(.|\n)*tableConsistent(.|\n)*fieldIs found the "
               "shared-memory table inconsistent(.|\n)*TarnRegFile::ShadowFields::writeFailed");
  ShadowFieldValue* slot = config_->fieldSlot();
  slot->key = ShadowFieldKey(2, 0, 8);
  slot->value = 1;
  EXPECT_DEATH(config_->fieldCommit(slot), "handler got:(.|\n)*fieldCommit found the shared-memory table inconsistent");
}

}  // namespace
