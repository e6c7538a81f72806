#include "TarnRegFile/LogicalChip.h"

#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/platform/Trace.h"
#include "TarnRegFile/ShadowTypes.h"
#include "support/ChipRig.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <regex>
#include <string>

using namespace TarnRegFile;

namespace {

LogicalFieldName lfn(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return LogicalFieldName(LogicalRegisterName(chip, reg), field);
}
PhysicalFieldName pfn(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return PhysicalFieldName(PhysicalRegisterName(chip, reg), field);
}

// The fatal-assertion report of this unit as a death-test pattern (regex characters escaped).
std::string fatalReport(std::string const& condition, std::string const& message) {
  return std::regex_replace("condition: " + condition + "\n  message:   " + message +
                                "\n  unit:      TarnRegFile/LogicalChip\n",
                            std::regex(R"([\\^$.|?*+()\[\]{}])"), R"(\$&)");
}

using Calls = std::map<std::string, int>;

// Counts notifications per attribute and key, and can run a hook on a register change.
struct CountingNotifiee : LogicalChip::Notifiee {
  explicit CountingNotifiee(Kiv::Ptr<LogicalChip> const& chip) { notifierIs(chip); }
  void onRegColl(LogicalRegisterName const& n) override {
    ++calls["regColl " + n.fullName.str()];
    if (onRegCollHook) onRegCollHook();
  }
  void onLogicalField(LogicalFieldName const& n) override { ++calls["logicalField " + n.fullName.str()]; }
  void onTranslation() override { ++calls["translation"]; }
  void onPhysicalField(PhysicalFieldName const& n) override { ++calls["physicalField " + n.fullName.str()]; }
  void onPhysicalFieldCount() override { ++calls["physicalFieldCount"]; }
  void onShadowToPhysicalName(ShadowFieldKey const& k) override { ++calls["shadow " + std::to_string(k.address)]; }
  void onReady() override { ++calls["ready"]; }
  void onInitialized() override { ++calls["initialized"]; }
  Calls calls;
  std::function<void()> onRegCollHook;
};

// chip0: register r with a (0, 8) and b (8, 8), both 0, register hi with h (56, 8) = 0x10F, of
// which the register takes 0x0F.
Kiv::Ptr<LogicalChip> readyChip() {
  auto chip = LogicalChip::LogicalChipIs("chip0");
  chip->populateLogicalField("r", "a", 0, 8, 0);
  chip->populateLogicalField("r", "b", 8, 8, 0);
  chip->populateLogicalField("hi", "h", 56, 8, 0x10F);
  chip->readyIs(true);
  return chip;
}

}  // namespace

// ================================================================ Translation

TEST(LogicalChipTranslation, PopulateRecordsBothDirectionsUnderTheChipNameAndNeverReconciles) {
  auto t = translationFactory("c");
  t->populate("r", "f", "R", "F");
  EXPECT_EQ(t->getPhysicalFieldName(lfn("c", "r", "f")), pfn("c", "R", "F"));
  EXPECT_EQ(t->getLogicalFieldName(pfn("c", "R", "F")), lfn("c", "r", "f"));
  // Keys whose full names coincide ("c-a-b-c") stay apart.
  t->populate("a-b", "c", "P", "one");
  t->populate("a", "b-c", "P", "two");
  EXPECT_EQ(t->getPhysicalFieldName(lfn("c", "a-b", "c")).name, "one");
  EXPECT_EQ(t->getPhysicalFieldName(lfn("c", "a", "b-c")).name, "two");
  // The same logical field re-mapped: forward holds the second pairing, reverse keeps both.
  t->populate("r", "f", "R", "F2");
  EXPECT_EQ(t->logicalToPhysical(lfn("c", "r", "f")), pfn("c", "R", "F2"));
  EXPECT_EQ(t->physicalToLogical(pfn("c", "R", "F")), lfn("c", "r", "f"));
}

TEST(LogicalChipTranslationDeathTest, MissingMappingsAreFatal) {
  auto t = translationFactory("c");
  t->populate("r", "f", "R", "F");
  EXPECT_DEATH(t->getPhysicalFieldName(lfn("c", "r", "g")),
               fatalReport("logicalToPhysicalHas( lfName )", "No physicalField name mapping to c-r-g"));
  EXPECT_DEATH(t->getLogicalFieldName(pfn("c", "R", "G")),
               fatalReport("physicalToLogicalHas( pfName )", "No logicalField mapping to c-R-G"));
}

// ================================================================ chip: life and population

TEST(LogicalChip, PhysicalFieldsTakeConsecutiveShadowAddresses) {
  auto chip = logicalChipFactory("chip0");
  CountingNotifiee watcher(chip);
  chip->populatePhysicalField("R0", "f", 0, 8);
  chip->populatePhysicalField("R0", "g", 8, 24);
  chip->populatePhysicalField("R1", "h", 31, 32);  // past bit 31, still accepted
  EXPECT_THROW(chip->populatePhysicalField("R1", "bad", 32, 0), Kiv::RangeException);  // and changes nothing
  EXPECT_EQ(chip->physicalField(pfn("chip0", "R1", "h")).key, ShadowFieldKey(2, 31, 32));
  EXPECT_EQ(chip->shadowToPhysicalName(ShadowFieldKey(1, 8, 24)), pfn("chip0", "R0", "g"));
  EXPECT_EQ(watcher.calls, (Calls{{"physicalFieldCount", 3}, {"physicalField chip0-R0-f", 1},
                                  {"physicalField chip0-R0-g", 1}, {"physicalField chip0-R1-h", 1},
                                  {"shadow 0", 1}, {"shadow 1", 1}, {"shadow 2", 1}}));
}

TEST(LogicalChipDeathTest, PopulationAfterReadyIsFatal) {
  auto chip = readyChip();
  std::string const report = fatalReport("!ready()", "Populating fields after chip ready is not allowed!");
  EXPECT_DEATH(chip->populatePhysicalField("R", "f", 0, 8), report);
  EXPECT_DEATH(chip->populateLogicalField("r", "c", 16, 8, 0), report);
}

// ================================================================ chip: writes and read-back

TEST(LogicalChip, FieldWriteMasksTheRegisterButNotTheFieldAndEveryAccessIsTraced) {
  auto chip = readyChip();
  Kiv::TraceCapture cap("TarnRegFile/LogicalChip");
  chip->fieldWrite("r", "b", 0x1FF);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0xFF00u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "b"), 0x1FFu);
  chip->regWrite("r", 0x1234);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0x1234u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "a"), 0x34u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "b"), 0x12u);
  chip->regWrite("r", 0xFFFF00FF);  // bits outside every field are kept
  EXPECT_EQ(chip->regGetLastWritten("r"), 0xFFFF00FFu);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "b"), 0u);
  chip->fieldWrite("r", "a", 0x5A);  // a field at bit 0 replaces its bits (the lower part is guarded)
  EXPECT_EQ(chip->regGetLastWritten("r"), 0xFFFF005Au);
  // A field ending at bit 63 keeps its old bits: the upper part shifts by 64, that is by 0.
  EXPECT_EQ(chip->regGetLastWritten("hi"), 0x0F00000000000000ull);  // from the initial value, cut to size
  chip->fieldWrite("hi", "h", 0xF0);
  EXPECT_EQ(chip->regGetLastWritten("hi"), 0xFF00000000000000ull);
  chip->regWrite("hi", 0xAB00000000000001ull);
  EXPECT_EQ(chip->fieldGetLastWritten("hi", "h"), 0xABu);

  EXPECT_TRUE(cap.contains("LogicalChip::fieldWrite reg: r field: b value: 511", 5));
  EXPECT_TRUE(cap.contains("Write field: chip0-r-b value: 511", 0));
  EXPECT_TRUE(cap.contains("LogicalChip::regWrite regName: r value: 4660", 5));
  EXPECT_TRUE(cap.contains("LogicalChip::regGetLastWritten regName: r", 5));
  EXPECT_TRUE(cap.contains("LogicalChip::fieldGetLastWritten reg: r field: b", 5));
}

TEST(LogicalChip, WritesNotifyOnlyWhatChanged) {
  auto chip = readyChip();
  CountingNotifiee watcher(chip);
  chip->fieldWrite("r", "b", 0x1FF);
  chip->fieldWrite("r", "b", 0x1FF);  // same value: nothing
  EXPECT_EQ(watcher.calls, (Calls{{"regColl chip0-r", 1}, {"logicalField chip0-r-b", 1}}));
  watcher.calls.clear();
  chip->fieldWrite("r", "b", 0x2FF);  // same register bits, different field value
  EXPECT_EQ(watcher.calls, (Calls{{"logicalField chip0-r-b", 1}}));
  // The register already holds 0xFF00, but b holds all of 0x2FF and is cut back to 0xFF.
  chip->regWrite("r", 0xFF00);
  chip->regWrite("r", 0xFF00);  // register and fields already hold these values
  EXPECT_EQ(watcher.calls, (Calls{{"logicalField chip0-r-b", 2}}));
  watcher.calls.clear();
  chip->regWrite("r", 0x10000FF00);  // only bits outside the fields change
  EXPECT_EQ(watcher.calls, (Calls{{"regColl chip0-r", 1}}));
}

TEST(LogicalChip, AWriteSurvivesItsFieldVanishingFromTheCacheMidWay) {
  auto chip = readyChip();
  CountingNotifiee watcher(chip);
  // Removed while the register notification runs: the write still stores the field as it
  // was read when the write started, with its new value.
  watcher.onRegCollHook = [&] { chip->logicalFieldDel(lfn("chip0", "r", "b")); };
  chip->fieldWrite("r", "b", 0x42);
  LogicalField expected(lfn("chip0", "r", "b"), 8, 8);
  expected.value = 0x42;
  EXPECT_EQ(chip->logicalField(lfn("chip0", "r", "b")), expected);
  EXPECT_EQ(watcher.calls["logicalField chip0-r-b"], 2);  // deleted, then stored again
}

TEST(LogicalChipDeathTest, WritesAndReadsNeedAReadyChipAndKnownNames) {
  auto chip = readyChip();
  std::function<void(char const* reg)> const ops[] = {
      [&](char const* reg) { chip->fieldWrite(reg, "a", 1); }, [&](char const* reg) { chip->fieldGetLastWritten(reg, "a"); },
      [&](char const* reg) { chip->regWrite(reg, 1); }, [&](char const* reg) { chip->regGetLastWritten(reg); }};
  for (auto const& call : ops) {
    chip->readyIs(false);
    EXPECT_DEATH(call("r"), fatalReport("ready()", "LogicalChip chip0 is not populated yet!"));
    chip->readyIs(true);
    EXPECT_DEATH(call("q"), fatalReport("regCollHas( lrName )", "LogicalRegister chip0-q is not populated yet!"));
  }
  // The field must be in the register's field set and in the field cache.
  std::string const fieldCheck = "lReg.fieldHas( lfName ) && logicalFieldHas( lfName )";
  chip->logicalFieldDel(lfn("chip0", "r", "a"));
  chip->logicalFieldIs(LogicalField(lfn("chip0", "r", "stray"), 16, 4));
  for (char const* field : {"zz", "a", "stray"})
    EXPECT_DEATH(chip->fieldWrite("r", field, 1),
                 fatalReport(fieldCheck, std::string("LogicalRegister chip0-r does not have field ") + field));
  EXPECT_DEATH(chip->fieldGetLastWritten("r", "a"), fatalReport(fieldCheck, "LogicalRegister chip0-r does not have field a"));
}

TEST(LogicalChipMount, MountsBothCollectionsSizedByThePhysicalFieldsAndZeroesTheDesiredValues) {
  TarnTest::ChipRig rig(2);
  auto const em = rig.entityManager();
  auto chip = rig.mountedChip(em, "chip0", 7);
  ASSERT_TRUE(chip->shadowFieldsConfig() && chip->shadowFieldsStatus());
  EXPECT_EQ(chip->shadowFieldsConfig()->fieldCapacity(), 8u);
  EXPECT_EQ(chip->shadowFieldsStatus()->fieldCapacity(), 8u);
  EXPECT_EQ(chip->shadowFieldsStatus()->fieldCount(), 0u);
  // Every desired value is 0, whatever the logical fields' initial values; a second reader sees them.
  auto const entries = ShadowFields::readShadowTable(Kiv::Shm::Root(rig.shmRoot()), rig.configPath());
  EXPECT_EQ(entries.size(), 8u);
  for (ShadowFieldValue const& v : entries) EXPECT_EQ(v.value, 0u);
  // A chip without physical fields still mounts.
  auto empty = LogicalChip::LogicalChipIs("empty");
  empty->mountShadowFields(em, Kiv::String(rig.configPath("empty")), Kiv::String(rig.statusPath("empty")));
  ASSERT_TRUE(empty->shadowFieldsConfig());
  EXPECT_EQ(empty->shadowFieldsConfig()->fieldCount(), 0u);
}

TEST(LogicalChipMountDeathTest, PhysicalFieldWithoutLogicalMappingIsFatal) {
  TarnTest::ChipRig rig(1, "chip1");
  auto chip = LogicalChip::LogicalChipIs("chip1");
  chip->populatePhysicalField("PREG", "orphan", 0, 8);
  EXPECT_DEATH(chip->mountShadowFields(rig.entityManager(), Kiv::String(rig.configPath()), Kiv::String(rig.statusPath())),
               "condition: physicalToLogicalHas\\( pfName \\)\n  message:   No logicalField mapping to chip1-PREG-orphan");
}
