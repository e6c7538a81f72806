// The shared-memory entity manager: the tree of mounted entities, mount groups,
// errors, modes and the lifetime of mounted collections.

#include "TarnRegFile/platform/ShmTable.h"
#include "TarnRegFile/platform/Trace.h"
#include "helpers/ShmTestTraits.h"

#include <gmock/gmock.h>

#include <tuple>
#include <vector>

namespace {

using namespace Kiv::Shm;
using namespace TarnRegFile;
using ::testing::HasSubstr;

constexpr char const* kConfigType = "TarnRegFile::ShadowFieldsConfig";
constexpr char const* kStatusType = "TarnRegFile::ShadowFieldsStatus";
constexpr char const* kChip0 = "TarnRegFile/shadowFieldsConfig/chip0";

class ShmEntityManagerTest : public ShmTest::RootTest {
protected:
  Kiv::Ptr<EntityManager> manager(MountMode mode = MountMode::writer) const {
    return EntityManager::EntityManagerIs(root(), mode);
  }
  static MountDescription fields(U32 capacity) { return MountDescription().collectionIs("field", capacity); }

  /// Mounts one path through its own group and returns the entity as T.
  template <class T = ShadowFieldsConfig>
  static Kiv::Ptr<T> mountOne(Kiv::Ptr<EntityManager> const& em, std::string const& path, U32 capacity,
                              char const* type = kConfigType) {
    auto group = em->mountGroup();
    group.mount(path, type, fields(capacity));
    auto entity = Kiv::ptr_cast<T>(em->entity(path));
    group.close();
    return entity;
  }
};

/// What the runtime error of @p action says.
auto errorOf(auto&& action) { return ShmTest::errorOf<std::runtime_error>(action); }

TEST_F(ShmEntityManagerTest, MountBuildsTheTreeAndCloseAttachesWithTheDescribedCapacity) {
  auto em = manager();
  auto group = em->mountGroup();
  group.mount(kChip0, kConfigType, fields(3));
  // Fetched before close, as a chip's mount does; attached by close.
  auto config = Kiv::ptr_cast<ShadowFieldsConfig>(em->entity(kChip0));
  ASSERT_TRUE(config);
  EXPECT_EQ(em->mountStatus(kChip0), MountStatus::mounting);
  EXPECT_FALSE(config->attached());
  group.close();
  EXPECT_EQ(em->mountStatus(kChip0), MountStatus::mounted);
  EXPECT_EQ(config->fieldCapacity(), 3u);

  // Directory entities for the intermediate components, the manager at the top.
  auto dir = em->entity("TarnRegFile/shadowFieldsConfig");
  EXPECT_EQ(config->parent(), dir.ptr());
  EXPECT_EQ(em->entity("TarnRegFile")->parent(), em.ptr());
}

TEST_F(ShmEntityManagerTest, BadOrClashingOrUnclosedMountsAreClearErrorsThatLeaveNothing) {
  auto em = manager();
  EXPECT_THROW(em->mountGroup().mount("a/../../outside", kConfigType, fields(1)), std::invalid_argument);
  EXPECT_FALSE(std::filesystem::exists(base_ + "/root"));
  {  // a group not closed takes its entities back, and their directories
    auto group = em->mountGroup();
    group.mount(kChip0, kConfigType, fields(2));
    group.mount("Other/thing", kStatusType, fields(2));
    EXPECT_TRUE(em->entity(kChip0));
  }
  for (char const* path : {kChip0, "TarnRegFile", "Other"})
    EXPECT_FALSE(em->entity(path)) << path;
  EXPECT_FALSE(std::filesystem::exists(file(kChip0)));

  mountOne(em, kChip0, 2);
  std::tuple<std::string, std::string, std::string> const clashes[] = {
      {kChip0, kStatusType, "it is mounted as TarnRegFile::ShadowFieldsConfig"},
      {std::string(kChip0) + "/below", kConfigType, "cannot hold other mounts"},
      {"TarnRegFile/shadowFieldsConfig", kConfigType, "it is a directory holding other mounts"},
      {"TarnRegFile/other", "No::SuchType", "no entity type 'No::SuchType' is registered"},
  };
  for (auto const& [path, type, message] : clashes)
    EXPECT_THAT(errorOf([&] { em->mountGroup().mount(path, type, fields(2)); }), HasSubstr(message));
  EXPECT_FALSE(em->entity("TarnRegFile/other"));
  EXPECT_EQ(em->mountedPaths(), std::vector<std::string>{kChip0});
  EXPECT_THROW(MountDescription().collectionIs("", 1), std::invalid_argument);
}

TEST_F(ShmEntityManagerTest, RemountKeepsTheEntityAndGrowsButNeverShrinksItsTable) {
  auto em = manager();
  auto config = mountOne(em, kChip0, 2);
  config->fieldIs(ShadowFieldValue(ShadowFieldKey(0, 0, 4), 10));
  config->fieldIs(ShadowFieldValue(ShadowFieldKey(1, 0, 4), 11));
  EXPECT_EQ(mountOne(em, kChip0, 5), config);
  EXPECT_EQ(config->fieldCapacity(), 5u);
  EXPECT_EQ(config->field(ShadowFieldKey(1, 0, 4)).value, 11u);
  for (U32 i = 2; i < 5; ++i)
    config->fieldIs(ShadowFieldValue(ShadowFieldKey(i, 0, 4), 10 + i));
  mountOne(em, kChip0, 1);
  EXPECT_EQ(config->fieldCapacity(), 5u);
  EXPECT_EQ(config->fieldCount(), 5u);
}

TEST_F(ShmEntityManagerTest, ReaderModeSeesTheWriterAndCannotWrite) {
  auto writerEm = manager();
  auto written = mountOne<ShadowFieldsStatus>(writerEm, "TarnRegFile/status/chip0", 4, kStatusType);
  written->fieldIs(ShadowFieldValue(ShadowFieldKey(7, 3, 2), 0x2));

  auto readerEm = manager(MountMode::reader);
  auto group = readerEm->mountGroup();
  group.mount("TarnRegFile/status/chip0", kStatusType, MountDescription());
  group.mount("TarnRegFile/status/missing", kStatusType, MountDescription());
  auto read = Kiv::ptr_cast<ShadowFieldsStatus>(readerEm->entity("TarnRegFile/status/chip0"));
  EXPECT_THAT(errorOf([&] { group.close(); }), HasSubstr("'TarnRegFile/status/missing' does not exist"));
  EXPECT_EQ(readerEm->mountStatus("TarnRegFile/status/missing"), MountStatus::failed);
  ASSERT_TRUE(read->attached());  // the other mount of the group went through
  EXPECT_FALSE(read->writer());
  EXPECT_EQ(read->field(ShadowFieldKey(7, 3, 2)).value, 0x2u);
  EXPECT_THROW(read->fieldIs(ShadowFieldValue(ShadowFieldKey(8, 0, 1), 1)), std::runtime_error);
  EXPECT_EQ(written->fieldCount(), 1u);
}

TEST_F(ShmEntityManagerTest, AMountedCollectionOutlivesItsUsersUntilUnmountedAndAUserKeepsItDetached) {
  auto em = manager();
  Kiv::Ptr<CollectionControl> control;
  {
    auto config = mountOne(em, kChip0, 4);
    config->fieldIs(ShadowFieldValue(ShadowFieldKey(3, 1, 2), 3));
    control = config->fieldControl();
    EXPECT_FALSE(control->entity());
  }
  // The last user reference went: the control holds the entity, still attached.
  auto again = Kiv::ptr_cast<ShadowFieldsConfig>(em->entity(kChip0));
  EXPECT_EQ(control->entity(), again);
  EXPECT_EQ(again->field(ShadowFieldKey(3, 1, 2)).value, 3u);
  again = nullptr;
  EXPECT_THROW(Table::openWriter(root(), kChip0, {12, 8, 4}), std::runtime_error);  // still the writer

  Kiv::TraceCapture trace("TarnRegFile/ShadowTypes");
  EXPECT_THROW(em->unmount("TarnRegFile/shadowFieldsConfig"), std::runtime_error);  // a directory holding a mount
  EXPECT_TRUE(em->unmount(kChip0));
  EXPECT_FALSE(control->entity());
  EXPECT_EQ(control->mountStatus(), MountStatus::unmounted);
  EXPECT_TRUE(trace.contains("it is now an orphan", 1));
  EXPECT_FALSE(em->entity("TarnRegFile"));  // empty directories go with it
  // The entity is gone with its attachment: the table can have a new writer, and kept its entry.
  EXPECT_EQ(Table::openWriter(root(), kChip0, {12, 8, 4}).size(), 1u);

  // A user's reference keeps a collection alive; the manager's end detaches it.
  auto status = mountOne<ShadowFieldsStatus>(em, "chip2", 4, kStatusType);
  em = nullptr;
  EXPECT_FALSE(status->attached());
}

}  // namespace
