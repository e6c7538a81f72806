// The shadow-fields state machine against real shared-memory collections and a PCI
// transport over a mapped file that counts the writes it passes on.
#include "TarnRegFile/ShadowSms.h"

#include "TarnRegFile/platform/ShmTable.h"
#include "TarnRegFile/platform/Trace.h"
#include "support/ChipRig.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

using namespace TarnRegFile;
using TarnTest::ChipRig;
using TarnTest::CountingPciTransport;

namespace {

TEST(BitStreamSet, MergesOneFieldIntoTheLittleEndianImage) {
  for (auto [image, start, len, value, expected] : {
           std::tuple<U32, U16, U8, U64, U32>{0x00000000, 6, 4, 0xF, 0x000003C0},  // spans bytes 0 and 1
           {0x00000000, 28, 8, 0xFF, 0xF0000000},                                 // only the bits below 32 count
           {0xFFFFFFFF, 4, 8, 0x00, 0xFFFFF00F},                                  // the other bits are kept
           {0x12345678, 0, 32, 0xCAFEF00D, 0xCAFEF00D},                           // a whole register
           {0x12345678, 0, 0, 0xFF, 0x12345678},                                  // an empty field changes nothing
           {0x00000000, 1, 63, ~U64{0}, 0xFFFFFFFE},                              // the widest field still merges
       })
    EXPECT_EQ(ChipRig::merged(image, start, len, value), expected)
        << "start " << start << " len " << unsigned{len} << " value " << value;
}

TEST(BitStreamSetDeathTest, RefusesFieldsBeyondEightBytesOrSixtyThreeBits) {
  U8 bytes[4] = {};
  EXPECT_DEATH(bitStreamSet(bytes, 0, 64, 1), "condition: len < 64\n  message:   .*\n  unit:      TarnRegFile/ShadowSms");
  EXPECT_DEATH(bitStreamSet(bytes, 0, 255, 1), "condition: startSlice >= endSlice - 8");
}

// A mounted chip, its transport, and the state machine once built.
class ShadowFieldsSmTest : public ::testing::Test {
protected:
  ShadowFieldsConfig& config() { return *chip_->shadowFieldsConfig(); }
  ShadowFieldsStatus& status() { return *chip_->shadowFieldsStatus(); }
  Kiv::Ptr<ShadowFieldsSm> build(bool simulate = false) {
    return shadowFieldsSmFactory(chip_->shadowFieldsConfig(), chip_->shadowFieldsStatus(), transport_, simulate);
  }
  using Writes = std::map<std::string, int>;

  ChipRig rig_{16};
  Kiv::Ptr<Kiv::Shm::EntityManager> em_ = rig_.entityManager();
  Kiv::Ptr<LogicalChip> chip_ = rig_.mountedChip(em_);
  CountingPciTransport* counter_ = nullptr;
  Kiv::Ptr<TransportMethod> transport_ = rig_.transport(&counter_);
  Kiv::Ptr<ShadowFieldsSm> sm_;
};

TEST_F(ShadowFieldsSmTest, ConstructionAppliesWhatDiffersAndRecordsEveryField) {
  config().fieldIs(ShadowFieldValue(ChipRig::key(1, 0), 0x5));
  config().fieldIs(ShadowFieldValue(ChipRig::key(1, 1), 0xA));
  Kiv::TraceCapture trace("TarnRegFile/ShadowSms");
  sm_ = build();
  EXPECT_TRUE(sm_->initialized());
  EXPECT_EQ(rig_.fileRegister(1), 0x0A05u);
  // Registers whose desired image is 0 count as applied already: one write in all.
  EXPECT_EQ(counter_->writes, (Writes{{"R1", 1}}));
  EXPECT_EQ(status().fieldCount(), config().fieldCount());
  EXPECT_TRUE(trace.contains("shadowFeilds initialized", 1));
}

TEST_F(ShadowFieldsSmTest, ChangesAreWrittenOnlyWhenTheRegisterImageChanges) {
  sm_ = build();
  rig_.fileRegisterIs(2, 0xFFFFFFFF);  // bits no field sets are not read back from the hardware
  config().fieldIs(ShadowFieldValue(ChipRig::key(2, 3), 0x7F));
  EXPECT_EQ(rig_.fileRegister(2), 0x7F000000u);
  config().fieldIs(ShadowFieldValue(ChipRig::key(2, 3), 0x7F));  // the same image: recorded, not written
  config().fieldIs(ShadowFieldValue(ChipRig::key(2, 0), 0x100));  // masked to 0: the image stays
  EXPECT_EQ(counter_->writes, (Writes{{"R2", 1}}));
  EXPECT_EQ(status().field(ChipRig::key(2, 0)).value, 0x100u) << "the status records the value unmasked";

  // A deleted desired field is applied as zero bits.
  config().fieldDel(ChipRig::key(2, 3));
  EXPECT_EQ(rig_.fileRegister(2), 0u);
  EXPECT_EQ(counter_->writes["R2"], 2);
  EXPECT_TRUE(status().fieldHas(ChipRig::key(2, 3)));
  EXPECT_EQ(status().field(ChipRig::key(2, 3)).value, 0u);
}

TEST_F(ShadowFieldsSmTest, SimulationRecordsEveryChangeAsAppliedWithoutTouchingTheHardware) {
  sm_ = build(true);
  for (auto [reg, field, value] : {std::tuple{0, 0, 0x11u}, {0, 2, 0x22u}, {5, 3, 0x33u}, {0, 0, 0u}})
    config().fieldIs(ShadowFieldValue(ChipRig::key(reg, field), value));
  config().fieldDel(ChipRig::key(0, 2));
  EXPECT_TRUE(counter_->writes.empty());
  EXPECT_EQ(rig_.images(rig_.statusPath()), rig_.images(rig_.configPath()));
}

TEST_F(ShadowFieldsSmTest, AFailedReactionLeavesTheFieldPendingAndTheCallerIsTold) {
  sm_ = build();
  // Shadow address 0x400 names no register of the map: the transport cannot resolve it.
  // (The table is full with the chip's own fields: make room for the stray one.)
  config().fieldDel(ChipRig::key(15, 3));
  ShadowFieldKey const stray(0x400, 0, 8);
  EXPECT_THROW(config().fieldIs(ShadowFieldValue(stray, 9)), std::runtime_error);
  EXPECT_EQ(config().field(stray).value, 9u) << "the desired value stays";
  EXPECT_FALSE(status().fieldHas(stray)) << "nothing is recorded as applied";
  // The machine goes on serving the other registers.
  config().fieldIs(ShadowFieldValue(ChipRig::key(1, 0), 1));
  EXPECT_EQ(rig_.fileRegister(1), 1u);
  // Without a transport a machine that writes hardware cannot be built at all.
  EXPECT_THROW(shadowFieldsSmFactory(chip_->shadowFieldsConfig(), chip_->shadowFieldsStatus(), nullptr, false),
               std::invalid_argument);
}

TEST_F(ShadowFieldsSmTest, CorruptDesiredFieldsAreReportedReadAsZeroAndEndAPass) {
  config().fieldIs(ShadowFieldValue(ChipRig::key(1, 1), 0x7));
  config().fieldIs(ShadowFieldValue(ChipRig::key(1, 0), 0x5));
  sm_ = build();
  ASSERT_EQ(rig_.fileRegister(1), 0x0705u);
  std::vector<std::string> reports;
  Kiv::Shm::corruptionHandlerIs([&reports](std::string const& message) { reports.push_back(message); });
  {  // Everything past the table's header is overwritten, as a stray writer would.
    std::ofstream table(rig_.shmRoot() + "/" + rig_.configPath(), std::ios::in | std::ios::out | std::ios::binary);
    table.seekp(0, std::ios::end);
    auto const size = static_cast<size_t>(table.tellp());
    table.seekp(Kiv::Shm::Table::kHeaderBytes);
    table << std::string(size - Kiv::Shm::Table::kHeaderBytes, '\xFF');
  }
  sm_->handleShadowField(ChipRig::key(1, 1));
  EXPECT_EQ(reports.size(), 1u) << "a lookup reports the damage";
  EXPECT_EQ(rig_.fileRegister(1), 0x0005u) << "and reads the desired value as 0";
  reports.clear();
  EXPECT_NO_THROW(sm_->handleShadowField());
  EXPECT_EQ(reports.size(), 1u) << "the pass reports the damage once and stops";
  Kiv::Shm::corruptionHandlerIs(nullptr);
}

}  // namespace
