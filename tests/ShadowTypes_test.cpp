// Shadow-field collections: notifications, zero-copy commits, lookups with absent
// keys, removal, other processes reading, damage in the shared table.

#include "TarnRegFile/ShadowTypes.h"

#include "KivGeneric.h"
#include "ShmEntityManager.h"
#include "Trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Kiv::Shm::EntityManager;
using Kiv::Shm::MountDescription;
using TarnRegFile::ShadowFieldKey;
using TarnRegFile::ShadowFields;
using TarnRegFile::ShadowFieldsConfig;
using TarnRegFile::ShadowFieldsStatus;
using TarnRegFile::ShadowFieldTraits;
using TarnRegFile::ShadowFieldValue;

constexpr char const* kConfigPath = "TarnRegFile/shadowFieldsConfig/chip0";

/// Records every notification of a ShadowFieldsConfig.
struct Recorder : ShadowFieldsConfig::Notifiee {
  std::vector<ShadowFieldKey> keys;
  int controlChanges = 0;
  void onField(ShadowFieldKey const& key) override { keys.push_back(key); }
  void onFieldControl() override { ++controlChanges; }
};

class ShadowTypesTest : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/dev/shm/tarn-shadow-test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    base_ = pattern;
    em_ = EntityManager::EntityManagerIs(root());
    config_ = mount<ShadowFieldsConfig>(kConfigPath, "TarnRegFile::ShadowFieldsConfig", 16);
    ASSERT_TRUE(config_);
    recorder_.notifierIs(config_);
  }
  void TearDown() override {
    recorder_.notifierIs(nullptr);
    config_ = nullptr;
    em_ = nullptr;
    Kiv::Shm::corruptionHandlerIs(nullptr);
    std::filesystem::remove_all(base_);
  }

  Kiv::Shm::Root root() const { return Kiv::Shm::Root(base_ + "/root"); }
  std::string fileOf(std::string const& path) const { return base_ + "/root/" + path; }

  template <class T>
  Kiv::Ptr<T> mount(std::string const& path, char const* type, U32 capacity) {
    auto group = em_->mountGroup();
    group.mount(path, type, MountDescription().collectionIs("field", capacity));
    auto entity = Kiv::ptr_cast<T>(em_->entity(path));
    group.close();
    return entity;
  }

  /// Flips one byte of the stored value @p value in the table file (the damage a stray write would do).
  void damageStoredValue(std::string const& path, U32 value) {
    std::string const file = fileOf(path);
    std::ifstream in(file, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    char pattern[4];
    std::memcpy(pattern, &value, 4);
    auto const at = std::search(bytes.begin() + 192, bytes.end(), pattern, pattern + 4);  // past header and slot
    ASSERT_NE(at, bytes.end()) << "value not found in " << file;
    int const fd = ::open(file.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    char const flipped = static_cast<char>(*at ^ 0x40);
    ASSERT_EQ(::pwrite(fd, &flipped, 1, at - bytes.begin()), 1);
    ::close(fd);
  }

  void dumpWhileWriterRuns(std::string const& helper);

  std::string base_;
  Kiv::Ptr<EntityManager> em_;
  Kiv::Ptr<ShadowFieldsConfig> config_;
  Recorder recorder_;
};

TEST_F(ShadowTypesTest, WritesNotifyTheirKeyEveryTime) {
  ShadowFieldKey const a(4, 0, 8), b(4, 8, 8);
  config_->fieldIs(ShadowFieldValue(a, 1));
  config_->fieldIs(ShadowFieldValue(a, 2));  // replace
  EXPECT_EQ(recorder_.keys, (std::vector<ShadowFieldKey>{a, a}));
  EXPECT_EQ(config_->field(a).value, 2u);
  EXPECT_EQ(config_->fieldCount(), 1u);

  recorder_.keys.clear();
  config_->fieldIs(ShadowFieldValue(b, 7));
  config_->fieldIs(ShadowFieldValue(b, 7));  // no change detection
  EXPECT_EQ(recorder_.keys, (std::vector<ShadowFieldKey>{b, b}));

  recorder_.keys.clear();
  config_->fieldNotify(a);  // announces without a change
  EXPECT_EQ(recorder_.keys, std::vector<ShadowFieldKey>{a});
  EXPECT_EQ(config_->field(a).value, 2u);
}

TEST_F(ShadowTypesTest, AbsentKeysReadAsZeroAndRemovalNotifiesOnlyWhatWasThere) {
  ShadowFieldKey const a(1, 0, 32), b(2, 3, 5), never(9, 9, 9);
  EXPECT_EQ(config_->field(never), ShadowFieldValue());
  EXPECT_FALSE(config_->fieldHas(never));

  config_->fieldIs(ShadowFieldValue(a, 0xFFFFFFFF));
  config_->fieldIs(ShadowFieldValue(b, 5));
  recorder_.keys.clear();
  EXPECT_TRUE(config_->fieldDel(a));
  EXPECT_EQ(config_->field(a).value, 0u);
  EXPECT_FALSE(config_->fieldHas(a));
  EXPECT_FALSE(config_->fieldDel(never));
  EXPECT_EQ(recorder_.keys, std::vector<ShadowFieldKey>{a});

  recorder_.keys.clear();
  config_->fieldDelAll();
  EXPECT_EQ(recorder_.keys, std::vector<ShadowFieldKey>{b});
  EXPECT_EQ(config_->fieldCount(), 0u);

  recorder_.keys.clear();
  config_->fieldDelAll();  // empty: nothing to tell
  EXPECT_TRUE(recorder_.keys.empty());
}

TEST_F(ShadowTypesTest, IterationYieldsEveryEntryOnce) {
  std::vector<ShadowFieldValue> written;
  for (U32 i = 0; i < 16; ++i)
    written.emplace_back(ShadowFieldKey(i / 4, static_cast<U8>((i % 4) * 8), 8), i * 3);
  for (auto const& v : written)
    config_->fieldIs(v);
  std::vector<ShadowFieldValue> seen;
  for (ShadowFieldValue const& v : config_->fields())
    seen.push_back(v);
  auto const byKey = [](ShadowFieldValue const& x, ShadowFieldValue const& y) { return x.key < y.key; };
  std::sort(seen.begin(), seen.end(), byKey);
  EXPECT_EQ(seen, written);
  EXPECT_EQ(ShadowFields::readShadowTable(root(), kConfigPath), written);
}

TEST_F(ShadowTypesTest, CommitPublishesTheValueBuiltInTheSlot) {
  ShadowFieldKey const key(0x10, 4, 4);
  ShadowFieldValue* slot = config_->fieldSlot();
  std::memset(static_cast<void*>(slot), 0xEE, sizeof *slot);  // leftovers in the unused key bytes
  slot->key = key;
  slot->value = 0xA;
  config_->fieldCommit(slot);
  EXPECT_EQ(recorder_.keys, std::vector<ShadowFieldKey>{key});
  EXPECT_EQ(config_->field(key).value, 0xAu);  // found by its key despite the leftovers

  ShadowFieldValue copy(key, 0xB);
  EXPECT_THROW(config_->fieldCommit(&copy), std::invalid_argument);
  EXPECT_EQ(config_->field(key).value, 0xAu);
}

TEST_F(ShadowTypesTest, RecordIsFixedWidthLittleEndian) {
  std::byte out[ShadowFieldTraits::valueSize];
  std::memset(out, 0x55, sizeof out);
  ShadowFieldTraits::encode(ShadowFieldValue(ShadowFieldKey(0x04030201, 0x1F, 0x20), 0xDDCCBBAA), out);
  unsigned char const expected[] = {0x01, 0x02, 0x03, 0x04, 0x1F, 0x20, 0, 0, 0xAA, 0xBB, 0xCC, 0xDD};
  EXPECT_EQ(std::memcmp(out, expected, sizeof expected), 0);
  EXPECT_EQ(ShadowFieldTraits::decode(out), ShadowFieldValue(ShadowFieldKey(0x04030201, 0x1F, 0x20), 0xDDCCBBAA));
}

TEST_F(ShadowTypesTest, ControlReflectsMountStatusAndQuiescing) {
  auto control = config_->fieldControl();
  ASSERT_TRUE(control);
  EXPECT_EQ(control->mountStatus(), Kiv::Shm::MountStatus::mounted);
  config_->fieldNotifyQuiesced(true);
  EXPECT_TRUE(control->quiesced());
  config_->fieldNotifyQuiesced(false);
  EXPECT_FALSE(control->quiesced());

  auto replacement = Kiv::Shm::CollectionControl::CollectionControlIs("replacement");
  config_->fieldControlIs(replacement);
  config_->fieldControlIs(replacement);
  EXPECT_EQ(recorder_.controlChanges, 1);
  EXPECT_EQ(replacement->mountStatus(), Kiv::Shm::MountStatus::unmounted);
  config_->fieldNotifyMountStatus();
  EXPECT_EQ(replacement->mountStatus(), Kiv::Shm::MountStatus::mounted);
}

TEST_F(ShadowTypesTest, UnattachedCollectionsRefuseWithAClearError) {
  auto loose = ShadowFieldsStatus::ShadowFieldsStatusIs("loose");
  try {
    loose->fieldIs(ShadowFieldValue(ShadowFieldKey(1, 0, 1), 1));
    FAIL();
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "TarnRegFile::ShadowFieldsStatus 'loose' is not attached to shared memory; cannot write "
                           "a field");
  }
  EXPECT_THROW(loose->field(ShadowFieldKey()), std::runtime_error);
  // Placed under an entity that no manager holds: nothing to attach to.
  auto stranger = ShadowFieldsStatus::ShadowFieldsStatusIs("stranger");
  EXPECT_THROW(loose->parentIs(stranger.ptr()), std::runtime_error);
  loose->parentIs(nullptr);
  EXPECT_THROW(ShadowFieldsStatus::attachReader(root(), "../escape"), std::invalid_argument);
  EXPECT_THROW(ShadowFieldsStatus::attachReader(root(), "TarnRegFile/none"), std::runtime_error);
}

TEST_F(ShadowTypesTest, RegisteredTypesAreBuiltAndDrivenByName) {
  auto& registry = Kiv::TypeRegistry::instance();
  auto status = registry.create("TarnRegFile::ShadowFieldsStatus", "chipX");
  ASSERT_TRUE(Kiv::ptr_cast<ShadowFieldsStatus>(status));
  EXPECT_EQ(status->name(), Kiv::String("chipX"));
  registry.call(*config_, "fieldIs",
                {"Value('TarnRegFile::ShadowFieldValue', ** {'key': Value('TarnRegFile::ShadowFieldKey', ** "
                 "{'address': 5, 'start': 0, 'size': 4}), 'value': 9})"});
  EXPECT_EQ(config_->field(ShadowFieldKey(5, 0, 4)).value, 9u);
  EXPECT_EQ(registry.attribute(*config_, "fieldCount"), "1");
}

TEST_F(ShadowTypesTest, AReaderInAnotherProcessSeesEachCommittedValueAtOnce) {
  int toChild[2], toParent[2];
  ASSERT_EQ(::pipe(toChild), 0);
  ASSERT_EQ(::pipe(toParent), 0);
  config_->fieldIs(ShadowFieldValue(ShadowFieldKey(1, 0, 8), 0));
  pid_t const child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // For each round: wait for the parent's go, read, answer with what was seen.
    int code = 0;
    try {
      auto reader = ShadowFieldsConfig::attachReader(root(), kConfigPath);
      U32 first = 0;
      for (U32 round = 1; round <= 50; ++round) {
        char go;
        if (::read(toChild[0], &go, 1) != 1)
          ::_exit(3);
        if (round == 1)
          first = reader->fieldChangeCounter();
        U32 const seen = reader->field(ShadowFieldKey(1, 0, 8)).value;
        if (::write(toParent[1], &seen, sizeof seen) != sizeof seen)
          ::_exit(3);
      }
      code = reader->fieldChangeCounter() - first == 49 ? 0 : 4;  // one change per later round
    } catch (std::exception const& e) {
      std::fprintf(stderr, "reader: %s\n", e.what());
      code = 2;
    }
    ::_exit(code);
  }
  ::close(toChild[0]);
  ::close(toParent[1]);
  for (U32 round = 1; round <= 50; ++round) {
    config_->fieldIs(ShadowFieldValue(ShadowFieldKey(1, 0, 8), round * 1000));
    char const go = 'g';
    ASSERT_EQ(::write(toChild[1], &go, 1), 1);
    U32 seen = 0;
    ASSERT_EQ(::read(toParent[0], &seen, sizeof seen), static_cast<ssize_t>(sizeof seen));
    EXPECT_EQ(seen, round * 1000);
  }
  ::close(toChild[1]);
  ::close(toParent[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

/// Runs the shadow_writer program @p helper on a table and checks what the dump reads meanwhile.
void ShadowTypesTest::dumpWhileWriterRuns(std::string const& helper) {
  std::string const path = "TarnRegFile/shadowFieldsStatus/chip7";
  int out[2], in[2];
  ASSERT_EQ(::pipe(out), 0);
  ASSERT_EQ(::pipe(in), 0);
  pid_t const child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::dup2(out[1], STDOUT_FILENO);
    ::dup2(in[0], STDIN_FILENO);
    ::close(out[0]);
    ::close(in[1]);
    std::string const dir = base_ + "/root";
    ::execl(helper.c_str(), helper.c_str(), dir.c_str(), path.c_str(), "40", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(out[1]);
  ::close(in[0]);
  char line[16] = {};
  ssize_t const got = ::read(out[0], line, sizeof line - 1);
  EXPECT_STREQ(line, "ready\n");
  if (got > 0 && std::string(line) == "ready\n") {
    std::vector<ShadowFieldValue> const values = ShadowFields::readShadowTable(root(), path);
    ASSERT_EQ(values.size(), 40u);
    for (U32 i = 0; i < 40; ++i) {  // sorted by key; the writer wrote them in reverse
      EXPECT_EQ(values[i].key, ShadowFieldKey(i, static_cast<U8>(i % 32), static_cast<U8>(1 + i % 32)));
      EXPECT_EQ(values[i].value, 0x1000 + 7 * i);
    }
    // While it runs, nobody else can write that table.
    auto group = em_->mountGroup();
    group.mount(path, "TarnRegFile::ShadowFieldsStatus", MountDescription().collectionIs("field", 40));
    EXPECT_THROW(group.close(), std::runtime_error);
  }
  ::close(in[1]);  // lets the writer finish
  ::close(out[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ShadowTypesTest, TheDumpReadsATableThatAnotherProcessIsWriting) {
  dumpWhileWriterRuns(TARN_BINARY_DIR "/tests/shadow_writer");
}

TEST_F(ShadowTypesTest, TheDumpReadsATableWrittenByTheOtherArchitecture) {
  std::string const helper = std::string(TARN_SOURCE_DIR) + (sizeof(void*) == 8 ? "/build/i386/tests/shadow_writer"
                                                                                 : "/build/amd64/tests/shadow_writer");
  if (::access(helper.c_str(), X_OK) != 0)
    GTEST_SKIP() << "the other architecture's " << helper << " is missing; build that preset first";
  dumpWhileWriterRuns(helper);
}

TEST_F(ShadowTypesTest, DamageFoundByALookupIsRaisedAndByDelAllIsReported) {
  std::vector<std::string> reports;
  Kiv::Shm::corruptionHandlerIs([&reports](std::string const& m) { reports.push_back(m); });
  for (U32 i = 0; i < 6; ++i)
    config_->fieldIs(ShadowFieldValue(ShadowFieldKey(i, 0, 8), 0x5EED0000 + i));
  damageStoredValue(kConfigPath, 0x5EED0003);

  EXPECT_THROW(config_->field(ShadowFieldKey(3, 0, 8)), Kiv::Shm::CorruptionException);
  EXPECT_THROW(ShadowFields::readShadowTable(root(), kConfigPath), Kiv::Shm::CorruptionException);
  EXPECT_TRUE(reports.empty());  // a lookup leaves the reporting to its caller

  recorder_.keys.clear();
  config_->fieldDelAll();  // stops at the damage, having reported it
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].find("'" + std::string(kConfigPath) + "' is corrupt"), std::string::npos) << reports[0];
  EXPECT_LT(recorder_.keys.size(), 6u);
  EXPECT_GT(config_->fieldCount(), 0u);
}

TEST_F(ShadowTypesTest, DamageFoundByAWriteIsReportedThenFatal) {
  for (U32 i = 0; i < 4; ++i)
    config_->fieldIs(ShadowFieldValue(ShadowFieldKey(i, 0, 8), 0x5EED0000 + i));
  damageStoredValue(kConfigPath, 0x5EED0002);
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
