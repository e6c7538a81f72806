// The logical write state machine on a mounted chip of a test rig.
#include "TarnRegFile/LogicalSms.h"

#include "TarnRegFile/platform/Trace.h"
#include "support/ChipRig.h"

#include <gtest/gtest.h>

#include <vector>

using namespace TarnRegFile;
using TarnTest::ChipRig;

namespace {

// Records the keys the configuration announces.
struct ConfigWrites : ShadowFieldsConfig::Notifiee {
  explicit ConfigWrites(Kiv::Ptr<ShadowFieldsConfig> const& config) { notifierIs(config); }
  void onField(ShadowFieldKey const& key) override { keys.push_back(key); }
  std::vector<ShadowFieldKey> keys;
};

class LogicalWriteSmTest : public ::testing::Test {
protected:
  ChipRig rig_{4};
  Kiv::Ptr<Kiv::Shm::EntityManager> em_ = rig_.entityManager();
  Kiv::Ptr<LogicalChip> chip_ = rig_.mountedChip(em_);
  Kiv::Ptr<LogicalWriteSm> sm_;
};

TEST_F(LogicalWriteSmTest, CreationPushesTheFieldsThatDifferFromTheConfiguration) {
  // Values changed before the machine exists are in the chip only.
  chip_->readyIs(true);
  chip_->fieldWrite("R1", "f2", 5);
  ConfigWrites writes(chip_->shadowFieldsConfig());
  sm_ = logicalWriteSmFactory(chip_);
  EXPECT_EQ(sm_->chipName(), "chip0");
  EXPECT_EQ(writes.keys, std::vector<ShadowFieldKey>{ChipRig::key(1, 2)});
  EXPECT_EQ(chip_->shadowFieldsConfig()->field(ChipRig::key(1, 2)).value, 5u);
}

TEST_F(LogicalWriteSmTest, WritesOnlyRealChangesOfAReadyChip) {
  sm_ = logicalWriteSmFactory(chip_);
  ConfigWrites writes(chip_->shadowFieldsConfig());
  Kiv::TraceCapture trace("TarnRegFile/LogicalSms");

  // Not ready: ignored, and becoming ready does not replay it.
  chip_->populateLogicalField("R0", "f0", 0, 8, 7);
  chip_->readyIs(true);
  EXPECT_TRUE(writes.keys.empty());

  chip_->fieldWrite("R2", "f1", 0x44);
  EXPECT_EQ(writes.keys, std::vector<ShadowFieldKey>{ChipRig::key(2, 1)});
  EXPECT_EQ(trace.count("maybeWriteField"), 1u);


  // The configuration already holds the value: looked at, not written.
  chip_->shadowFieldsConfig()->fieldIs(ShadowFieldValue(ChipRig::key(3, 0), 9));
  writes.keys.clear();
  chip_->fieldWrite("R3", "f0", 9);
  EXPECT_EQ(trace.count("maybeWriteField"), 2u);
  EXPECT_TRUE(writes.keys.empty());
  chip_->fieldWrite("R3", "f0", 0);  // back to 0, while the configuration holds 9: written
  EXPECT_EQ(writes.keys.size(), 1u);
}

TEST_F(LogicalWriteSmTest, AFieldWhosePhysicalFieldIsMissingIsSkippedWithATrace) {
  chip_->populateLogicalField("L", "ghost", 0, 4, 0);
  chip_->translationIs()->populate("L", "ghost", "NOPE", "ghost");
  chip_->readyIs(true);
  sm_ = logicalWriteSmFactory(chip_);
  Kiv::TraceCapture trace("TarnRegFile/LogicalSms", Kiv::Trace::upTo(0));
  ConfigWrites writes(chip_->shadowFieldsConfig());
  chip_->fieldWrite("L", "ghost", 3);
  EXPECT_TRUE(trace.contains("No physicalField mapping to chip0-NOPE-ghost", 0));
  EXPECT_TRUE(writes.keys.empty());
}

TEST_F(LogicalWriteSmTest, AConfigurationThatCannotBeWrittenFailsTheWriteAndAFullPassCatchesUp) {
  chip_->readyIs(true);
  sm_ = logicalWriteSmFactory(chip_);
  ASSERT_TRUE(em_->unmount(rig_.configPath()));
  EXPECT_THROW(chip_->fieldWrite("R0", "f1", 0x21), std::runtime_error) << "the caller learns of it";
  EXPECT_EQ(chip_->fieldGetLastWritten("R0", "f1"), 0x21u) << "the chip keeps the value written";
  // Mounted again, the desired value is pushed by the next full pass.
  auto group = em_->mountGroup();
  group.mount(rig_.configPath(), "TarnRegFile::ShadowFieldsConfig",
              Kiv::Shm::MountDescription().collectionIs("field", 4 * rig_.registers()));
  group.close();
  chip_->shadowFieldsConfigIs(Kiv::ptr_cast<ShadowFieldsConfig>(em_->entity(rig_.configPath())));
  sm_->handleLogicalField();
  EXPECT_EQ(chip_->shadowFieldsConfig()->field(ChipRig::key(0, 1)).value, 0x21u);
}

using LogicalWriteSmDeathTest = LogicalWriteSmTest;

TEST_F(LogicalWriteSmDeathTest, DeletingAFieldUnderARunningMachineIsFatal) {
  chip_->readyIs(true);
  sm_ = logicalWriteSmFactory(chip_);
  EXPECT_DEATH(chip_->logicalFieldDel(LogicalFieldName(LogicalRegisterName("chip0", "R1"), "f1")),
               "condition: logicalToPhysicalHas\\( lfName \\)\n  message:   No physicalField name mapping to --");
}

}  // namespace
