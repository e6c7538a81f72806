// The shared-memory entity manager: the tree of mounted entities, mount groups,
// errors, modes, lifetime of mounted collections, the control object and the
// corruption handler.

#include "ShmEntityManager.h"
#include "ShmTable.h"
#include "TarnRegFile/ShadowTypes.h"
#include "KivGeneric.h"
#include "Trace.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Kiv::Shm::EntityManager;
using Kiv::Shm::MountDescription;
using Kiv::Shm::MountMode;
using Kiv::Shm::MountStatus;
using TarnRegFile::ShadowFieldKey;
using TarnRegFile::ShadowFieldsConfig;
using TarnRegFile::ShadowFieldsStatus;
using TarnRegFile::ShadowFieldValue;

constexpr char const* kConfigType = "TarnRegFile::ShadowFieldsConfig";
constexpr char const* kStatusType = "TarnRegFile::ShadowFieldsStatus";
constexpr char const* kChip0 = "TarnRegFile/shadowFieldsConfig/chip0";

/// A private root in tmpfs, removed afterwards.
class ShmEntityManagerTest : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/dev/shm/tarn-em-test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    base_ = pattern;
    rootDir_ = base_ + "/root";
  }
  void TearDown() override { std::filesystem::remove_all(base_); }

  Kiv::Shm::Root root() const { return Kiv::Shm::Root(rootDir_); }
  Kiv::Ptr<EntityManager> manager(MountMode mode = MountMode::writer) const {
    return EntityManager::EntityManagerIs(root(), mode);
  }
  static MountDescription fields(U32 capacity) { return MountDescription().collectionIs("field", capacity); }

  /// Mounts one path through its own group and returns the entity as T.
  template <class T>
  static Kiv::Ptr<T> mountOne(Kiv::Ptr<EntityManager> const& em, std::string const& path, char const* type,
                              U32 capacity) {
    auto group = em->mountGroup();
    group.mount(path, type, fields(capacity));
    auto entity = Kiv::ptr_cast<T>(em->entity(path));
    group.close();
    return entity;
  }

  std::string base_;
  std::string rootDir_;
};

/// A plain entity type (no collection control) that records where it was placed.
class PlainThing : public Kiv::Entity {
public:
  explicit PlainThing(Kiv::String name) : Kiv::Entity(std::move(name)) { ++alive; }
  ~PlainThing() override { --alive; }
  char const* fwkType() const override { return "ShmTest::PlainThing"; }
  void handleParent(Kiv::Entity* parent) override { placedUnder.push_back(parent ? parent->name().str() : "-"); }
  std::vector<std::string> placedUnder;
  static inline int alive = 0;
};

bool const kPlainRegistered = [] {
  Kiv::TypeRegistry::instance().typeIs("ShmTest::PlainThing").factory = [](Kiv::String const& n) {
    return Kiv::Ptr<Kiv::Entity>(Kiv::create<PlainThing>(n));
  };
  return true;
}();

TEST_F(ShmEntityManagerTest, MountBuildsTheTreeAndAttachesWithTheDescribedCapacity) {
  auto em = manager();
  auto group = em->mountGroup();
  EXPECT_EQ(group.mode(), MountMode::writer);
  group.mount(kChip0, kConfigType, fields(3));
  group.mount("TarnRegFile/shadowFieldsStatus/chip0", kStatusType, fields(3));

  // Fetched before close, as a chip's mount does; attached by close.
  auto config = Kiv::ptr_cast<ShadowFieldsConfig>(em->entity(kChip0));
  ASSERT_TRUE(config);
  EXPECT_EQ(config->name(), Kiv::String("chip0"));
  EXPECT_EQ(em->mountStatus(kChip0), MountStatus::mounting);
  EXPECT_FALSE(config->attached());
  EXPECT_FALSE(Kiv::ptr_cast<ShadowFieldsStatus>(em->entity(kChip0)));  // another type converts to null
  group.close();
  EXPECT_EQ(em->mountStatus(kChip0), MountStatus::mounted);
  ASSERT_TRUE(config->attached());
  EXPECT_TRUE(config->writer());
  EXPECT_EQ(config->path(), kChip0);
  EXPECT_EQ(config->fieldCapacity(), 3u);
  EXPECT_EQ(config->fieldControl()->mountStatus(), MountStatus::mounted);

  // Parents: directory entities for the intermediate components, the manager at the top.
  auto dir = em->entity("TarnRegFile/shadowFieldsConfig");
  ASSERT_TRUE(dir);
  EXPECT_STREQ(dir->fwkType(), "Kiv::Shm::Directory");
  EXPECT_EQ(config->parent(), dir.ptr());
  EXPECT_EQ(dir->parent(), em->entity("TarnRegFile").ptr());
  EXPECT_EQ(em->entity("TarnRegFile")->parent(), em.ptr());
  EXPECT_EQ(em->fullName(config.ptr()), kChip0);
  EXPECT_EQ(em->fullName(dir.ptr()), "TarnRegFile/shadowFieldsConfig");
  EXPECT_EQ(EntityManager::managerOf(config.ptr()), em.ptr());
  EXPECT_EQ(em->mountedPaths(),
            (std::vector<std::string>{kChip0, "TarnRegFile/shadowFieldsStatus/chip0"}));

  // A write beyond the capacity is a clear error and changes nothing.
  for (U32 i = 0; i < 3; ++i)
    config->fieldIs(ShadowFieldValue(ShadowFieldKey(i, 0, 8), i + 1));
  try {
    config->fieldIs(ShadowFieldValue(ShadowFieldKey(99, 0, 8), 5));
    FAIL() << "a fourth key fitted into a table of three";
  } catch (std::runtime_error const& e) {
    EXPECT_NE(std::string(e.what()).find("is full (capacity 3)"), std::string::npos) << e.what();
  }
  EXPECT_EQ(config->fieldCount(), 3u);
  EXPECT_EQ(config->field(ShadowFieldKey(99, 0, 8)).value, 0u);
}

TEST_F(ShmEntityManagerTest, TablesAndDirectoriesAreCreatedPrivate) {
  auto em = manager();
  auto config = mountOne<ShadowFieldsConfig>(em, kChip0, kConfigType, 4);
  struct stat st {};
  ASSERT_EQ(::stat((rootDir_ + "/" + kChip0).c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  for (std::string const& dir : {rootDir_, rootDir_ + "/TarnRegFile", rootDir_ + "/TarnRegFile/shadowFieldsConfig"}) {
    ASSERT_EQ(::stat(dir.c_str(), &st), 0) << dir;
    EXPECT_EQ(st.st_mode & 07777, 0700u) << dir;
  }
}

TEST_F(ShmEntityManagerTest, BadPathsAreRejectedBeforeAnythingIsCreated) {
  auto em = manager();
  for (std::string const& path : std::vector<std::string>{"", "/etc/passwd", "../outside", "a/../../outside", "a//b", ".hidden", "a/./b",
                                 "a/.x", "a/b/", std::string("a\0b", 3)}) {
    auto group = em->mountGroup();
    EXPECT_THROW(group.mount(path, kConfigType, fields(1)), std::invalid_argument) << path;
  }
  EXPECT_TRUE(em->mountedPaths().empty());
  EXPECT_FALSE(std::filesystem::exists(rootDir_));
  EXPECT_FALSE(std::filesystem::exists(base_ + "/outside"));
}

TEST_F(ShmEntityManagerTest, ClashingMountsAreClearErrors) {
  auto em = manager();
  mountOne<ShadowFieldsConfig>(em, kChip0, kConfigType, 2);
  struct Case {
    std::string path;
    std::string type;
    std::string message;
  };
  for (Case const& c : std::vector<Case>{
           {kChip0, kStatusType, "it is mounted as TarnRegFile::ShadowFieldsConfig"},
           {std::string(kChip0) + "/below", kConfigType, "cannot hold other mounts"},
           {"TarnRegFile/shadowFieldsConfig", kConfigType, "it is a directory holding other mounts"},
           {"TarnRegFile/other", "No::SuchType", "no entity type 'No::SuchType' is registered"},
       }) {
    auto group = em->mountGroup();
    try {
      group.mount(c.path, c.type, fields(2));
      FAIL() << c.path << " was accepted";
    } catch (std::runtime_error const& e) {
      EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
    }
  }
  EXPECT_FALSE(em->entity("TarnRegFile/other"));
  EXPECT_EQ(em->mountedPaths(), std::vector<std::string>{kChip0});

  EXPECT_THROW(MountDescription().collectionIs("field", Kiv::Shm::Table::kMaxCapacity + 1), std::invalid_argument);
  EXPECT_THROW(MountDescription().collectionIs("", 1), std::invalid_argument);

  // A description without the collection: the mount fails at close, naming both.
  auto group = em->mountGroup();
  group.mount("TarnRegFile/shadowFieldsConfig/chip1", kConfigType, MountDescription().collectionIs("other", 4));
  try {
    group.close();
    FAIL() << "mounted without a capacity";
  } catch (std::runtime_error const& e) {
    std::string const what = e.what();
    EXPECT_NE(what.find("chip1"), std::string::npos) << what;
    EXPECT_NE(what.find("no capacity for collection 'field'"), std::string::npos) << what;
  }
  EXPECT_EQ(em->mountStatus("TarnRegFile/shadowFieldsConfig/chip1"), MountStatus::failed);
  auto failed = Kiv::ptr_cast<ShadowFieldsConfig>(em->entity("TarnRegFile/shadowFieldsConfig/chip1"));
  ASSERT_TRUE(failed);
  EXPECT_FALSE(failed->attached());
  EXPECT_EQ(failed->parent(), nullptr);
  EXPECT_EQ(failed->fieldControl()->mountStatus(), MountStatus::failed);
}

TEST_F(ShmEntityManagerTest, AGroupNotClosedTakesItsEntitiesBack) {
  auto em = manager();
  {
    auto group = em->mountGroup();
    group.mount(kChip0, kConfigType, fields(2));
    group.mount("Other/thing", "ShmTest::PlainThing", fields(2));
    EXPECT_TRUE(em->entity(kChip0));
  }
  EXPECT_FALSE(em->entity(kChip0));
  EXPECT_FALSE(em->entity("TarnRegFile"));  // its directories too
  EXPECT_FALSE(em->entity("Other"));
  EXPECT_EQ(PlainThing::alive, 0);
  EXPECT_FALSE(std::filesystem::exists(rootDir_ + "/" + kChip0));
}

TEST_F(ShmEntityManagerTest, PlainEntitiesArePlacedUnderTheirParentsAndHeldByTheManager) {
  auto em = manager();
  {
    auto group = em->mountGroup();
    group.mount("a/b/thing", "ShmTest::PlainThing", MountDescription());
    group.close();
  }
  auto thing = Kiv::ptr_cast<PlainThing>(em->entity("a/b/thing"));
  ASSERT_TRUE(thing);
  EXPECT_EQ(thing->placedUnder, std::vector<std::string>{"b"});
  thing = nullptr;
  EXPECT_EQ(PlainThing::alive, 1);  // the tree keeps it
  EXPECT_THROW(em->modeOf("a/b"), std::invalid_argument);
  EXPECT_THROW(em->unmount("a/b"), std::runtime_error);  // a directory that still holds a mount
  EXPECT_TRUE(em->unmount("a/b/thing"));
  EXPECT_EQ(PlainThing::alive, 0);
  EXPECT_FALSE(em->entity("a"));  // empty directories go with it
  EXPECT_FALSE(em->unmount("a/b/thing"));
}

TEST_F(ShmEntityManagerTest, RemountWithALargerCapacityKeepsTheEntityAndItsEntries) {
  auto em = manager();
  auto config = mountOne<ShadowFieldsConfig>(em, kChip0, kConfigType, 2);
  config->fieldIs(ShadowFieldValue(ShadowFieldKey(0, 0, 4), 10));
  config->fieldIs(ShadowFieldValue(ShadowFieldKey(1, 0, 4), 11));
  EXPECT_THROW(config->fieldIs(ShadowFieldValue(ShadowFieldKey(2, 0, 4), 12)), std::runtime_error);

  auto again = mountOne<ShadowFieldsConfig>(em, kChip0, kConfigType, 5);
  EXPECT_EQ(again, config);
  EXPECT_EQ(config->fieldCapacity(), 5u);
  EXPECT_EQ(config->field(ShadowFieldKey(0, 0, 4)).value, 10u);
  EXPECT_EQ(config->field(ShadowFieldKey(1, 0, 4)).value, 11u);
  for (U32 i = 2; i < 5; ++i)
    config->fieldIs(ShadowFieldValue(ShadowFieldKey(i, 0, 4), 10 + i));
  EXPECT_EQ(config->fieldCount(), 5u);

  // A smaller capacity keeps the table as it is.
  mountOne<ShadowFieldsConfig>(em, kChip0, kConfigType, 1);
  EXPECT_EQ(config->fieldCapacity(), 5u);
  EXPECT_EQ(config->fieldCount(), 5u);
}

TEST_F(ShmEntityManagerTest, ReaderModeSeesTheWriterAndCannotWrite) {
  auto writerEm = manager();
  auto written = mountOne<ShadowFieldsStatus>(writerEm, "TarnRegFile/status/chip0", kStatusType, 4);
  written->fieldIs(ShadowFieldValue(ShadowFieldKey(7, 3, 2), 0x2));

  auto readerEm = manager(MountMode::reader);
  auto group = readerEm->mountGroup();
  EXPECT_EQ(group.mode(), MountMode::reader);
  group.mount("TarnRegFile/status/chip0", kStatusType, MountDescription());
  group.mount("TarnRegFile/status/missing", kStatusType, MountDescription());
  auto read = Kiv::ptr_cast<ShadowFieldsStatus>(readerEm->entity("TarnRegFile/status/chip0"));
  try {
    group.close();
    FAIL() << "a reader mounted a table nobody created";
  } catch (std::runtime_error const& e) {
    EXPECT_NE(std::string(e.what()).find("'TarnRegFile/status/missing' does not exist"), std::string::npos)
        << e.what();
  }
  ASSERT_TRUE(read && read->attached());  // the other mount of the group went through
  EXPECT_FALSE(read->writer());
  EXPECT_EQ(readerEm->modeOf("TarnRegFile/status/chip0"), MountMode::reader);
  EXPECT_EQ(read->field(ShadowFieldKey(7, 3, 2)).value, 0x2u);
  written->fieldIs(ShadowFieldValue(ShadowFieldKey(7, 3, 2), 0x1));
  EXPECT_EQ(read->field(ShadowFieldKey(7, 3, 2)).value, 0x1u);
  EXPECT_THROW(read->fieldIs(ShadowFieldValue(ShadowFieldKey(8, 0, 1), 1)), std::runtime_error);
  EXPECT_EQ(written->fieldCount(), 1u);
}

TEST_F(ShmEntityManagerTest, ASecondWriterProcessGetsAClearError) {
  auto em = manager();
  auto config = mountOne<ShadowFieldsConfig>(em, kChip0, kConfigType, 4);
  config->fieldIs(ShadowFieldValue(ShadowFieldKey(1, 0, 1), 1));

  pid_t const child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // A fresh process with its own manager: exit 0 only for the expected refusal.
    int code = 1;
    try {
      auto other = EntityManager::EntityManagerIs(root());
      auto group = other->mountGroup();
      group.mount(kChip0, kConfigType, fields(4));
      group.close();
    } catch (std::runtime_error const& e) {
      std::string const what = e.what();
      bool const clear = what.find("already has a writer (pid " + std::to_string(::getppid()) + ")") !=
                         std::string::npos;
      if (!clear)
        std::fprintf(stderr, "unexpected message: %s\n", what.c_str());
      code = clear ? 0 : 2;
    }
    ::_exit(code);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: the second writer was accepted; 2: unclear message";
  EXPECT_EQ(config->field(ShadowFieldKey(1, 0, 1)).value, 1u);  // the first writer is untouched
}

TEST_F(ShmEntityManagerTest, AMountedCollectionOutlivesItsUsersUntilUnmounted) {
  auto em = manager();
  Kiv::Ptr<Kiv::Shm::CollectionControl> control;
  {
    auto config = mountOne<ShadowFieldsConfig>(em, kChip0, kConfigType, 4);
    config->fieldIs(ShadowFieldValue(ShadowFieldKey(3, 1, 2), 3));
    control = config->fieldControl();
    EXPECT_FALSE(control->entity());
  }
  // The last user reference went: the control holds the entity, still attached.
  ASSERT_TRUE(control->entity());
  auto again = Kiv::ptr_cast<ShadowFieldsConfig>(em->entity(kChip0));
  EXPECT_EQ(control->entity(), again);
  EXPECT_EQ(again->field(ShadowFieldKey(3, 1, 2)).value, 3u);
  again = nullptr;
  EXPECT_THROW(Kiv::Shm::Table::openWriter(root(), kChip0, {12, 8, 4}), std::runtime_error);  // still the writer

  Kiv::TraceCapture trace("TarnRegFile/ShadowTypes");
  EXPECT_TRUE(em->unmount(kChip0));
  EXPECT_FALSE(control->entity());
  EXPECT_EQ(control->mountStatus(), MountStatus::unmounted);
  EXPECT_TRUE(trace.contains("it is now an orphan", 1));
  EXPECT_FALSE(em->entity(kChip0));
  EXPECT_EQ(em->mountStatus(kChip0), MountStatus::unmounted);
  // The entity is gone with its attachment: the table can have a new writer, and kept its entry.
  auto table = Kiv::Shm::Table::openWriter(root(), kChip0, {12, 8, 4});
  EXPECT_EQ(table.size(), 1u);
}

TEST_F(ShmEntityManagerTest, AUserKeepsAnUnmountedCollectionAsAnOrphan) {
  auto em = manager();
  auto config = mountOne<ShadowFieldsConfig>(em, kChip0, kConfigType, 4);
  auto status = mountOne<ShadowFieldsStatus>(em, "TarnRegFile/shadowFieldsStatus/chip0", kStatusType, 4);
  ASSERT_TRUE(em->unmount(kChip0));
  EXPECT_FALSE(config->attached());
  EXPECT_EQ(config->parent(), nullptr);
  EXPECT_EQ(config->fieldMountStatus(), MountStatus::unmounted);
  EXPECT_THROW(config->fieldIs(ShadowFieldValue(ShadowFieldKey(1, 0, 1), 1)), std::runtime_error);

  // The manager going away detaches what is left.
  em = nullptr;
  EXPECT_FALSE(status->attached());
  EXPECT_EQ(status->parent(), nullptr);
}

TEST_F(ShmEntityManagerTest, ControlAttributesNotifyOnlyOnChange) {
  struct Counter : Kiv::Shm::CollectionControl::Notifiee {
    int status = 0, quiesced = 0, entity = 0;
    void onMountStatus() override { ++status; }
    void onQuiesced() override { ++quiesced; }
    void onEntity() override { ++entity; }
  } counter;
  auto control = Kiv::Shm::CollectionControl::CollectionControlIs("c");
  counter.notifierIs(control);
  control->mountStatusIs(MountStatus::mounting);
  control->mountStatusIs(MountStatus::mounting);
  control->quiescedIs(true);
  control->quiescedIs(true);
  auto other = Kiv::Shm::CollectionControl::CollectionControlIs("held");
  control->entityIs(other);
  control->entityIs(other);
  control->entityIs(nullptr);
  EXPECT_EQ(counter.status, 1);
  EXPECT_EQ(counter.quiesced, 1);
  EXPECT_EQ(counter.entity, 2);
  EXPECT_EQ(Kiv::TypeRegistry::instance().attribute(*control, "mountStatus"), "mounting");
  EXPECT_EQ(Kiv::TypeRegistry::instance().attribute(*control, "quiesced"), "True");
}

TEST_F(ShmEntityManagerTest, CorruptionHandlerIsReplaceable) {
  {
    Kiv::TraceCapture trace("Shm/*");
    Kiv::Shm::reportCorruption("table 'x' is corrupt");
    EXPECT_TRUE(trace.contains("table 'x' is corrupt", 0));
  }
  std::vector<std::string> seen;
  Kiv::Shm::corruptionHandlerIs([&seen](std::string const& m) { seen.push_back(m); });
  {
    Kiv::TraceCapture trace("Shm/*");
    Kiv::Shm::reportCorruption("second");
    EXPECT_FALSE(trace.contains("second"));
  }
  EXPECT_EQ(seen, std::vector<std::string>{"second"});
  Kiv::Shm::corruptionHandlerIs(nullptr);
  EXPECT_FALSE(Kiv::Shm::corruptionHandler());
  Kiv::TraceCapture trace("Shm/*");
  Kiv::Shm::reportCorruption("third");
  EXPECT_TRUE(trace.contains("third", 0));
  EXPECT_EQ(seen.size(), 1u);
}

}  // namespace
