#include "TarnRegFile/LogicalChip.h"

#include "KivException.h"
#include "KivGeneric.h"
#include "Trace.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>

using namespace TarnRegFile;

namespace {

LogicalFieldName lfn(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return LogicalFieldName(LogicalRegisterName(chip, reg), field);
}
PhysicalFieldName pfn(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return PhysicalFieldName(PhysicalRegisterName(chip, reg), field);
}

std::string escaped(std::string const& text) {
  std::string out;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

// The fatal-assertion report as a death-test pattern.
std::string fatalReport(std::string const& condition, std::string const& message, std::string const& function) {
  return escaped("condition: " + condition + "\n  message:   " + message +
                 "\n  unit:      TarnRegFile/LogicalChip\n  function:  " + function + "\n");
}

// Counts notifications per attribute and key, and can run a hook on a register change.
class CountingNotifiee : public LogicalChip::Notifiee {
public:
  explicit CountingNotifiee(Kiv::Ptr<LogicalChip> const& chip) { notifierIs(chip); }
  void onRegColl(LogicalRegisterName const& n) override {
    ++calls["regColl " + n.fullName.str()];
    if (onRegCollHook) onRegCollHook(n);
  }
  void onLogicalField(LogicalFieldName const& n) override { ++calls["logicalField " + n.fullName.str()]; }
  void onTranslation() override { ++calls["translation"]; }
  void onPhysicalField(PhysicalFieldName const& n) override { ++calls["physicalField " + n.fullName.str()]; }
  void onPhysicalFieldCount() override { ++calls["physicalFieldCount"]; }
  void onShadowToPhysicalName(ShadowFieldKey const& k) override {
    ++calls["shadowToPhysicalName " + std::to_string(k.address)];
  }
  void onReady() override { ++calls["ready"]; }
  void onInitialized() override { ++calls["initialized"]; }

  std::map<std::string, int> calls;
  std::function<void(LogicalRegisterName const&)> onRegCollHook;
};

using Calls = std::map<std::string, int>;

// chip0: register r with a (0, 8) and b (8, 8), both 0, register hi with h (56, 8) = 0x0F.
Kiv::Ptr<LogicalChip> readyChip() {
  auto chip = LogicalChip::LogicalChipIs("chip0");
  chip->populateLogicalField("r", "a", 0, 8, 0);
  chip->populateLogicalField("r", "b", 8, 8, 0);
  chip->populateLogicalField("hi", "h", 56, 8, 0x0F);
  chip->readyIs(true);
  return chip;
}

}  // namespace

// ================================================================ Translation

TEST(LogicalChipTranslation, PopulateRecordsBothDirectionsUnderTheChipName) {
  auto t = translationFactory("c");
  t->populate("r", "f", "R", "F");
  ASSERT_TRUE(t->logicalToPhysicalHas(lfn("c", "r", "f")));
  PhysicalFieldName const pf = t->getPhysicalFieldName(lfn("c", "r", "f"));
  EXPECT_EQ(pf, pfn("c", "R", "F"));
  EXPECT_EQ(pf.fullName, "c-R-F");
  EXPECT_EQ(t->getLogicalFieldName(pfn("c", "R", "F")).fullName, "c-r-f");
  EXPECT_EQ(t->logicalToPhysicalEntries().size(), 1u);
  EXPECT_EQ(t->physicalToLogicalEntries().size(), 1u);
  EXPECT_FALSE(t->logicalToPhysical(lfn("c", "r", "g")));  // absent: the default name
}

TEST(LogicalChipTranslation, MapsAreNeverReconciled) {
  auto t = Translation::TranslationIs("c");
  // The same logical field re-mapped: forward holds the second pairing, reverse keeps both.
  t->populate("r", "f", "R", "F1");
  t->populate("r", "f", "R", "F2");
  EXPECT_EQ(t->logicalToPhysical(lfn("c", "r", "f")), pfn("c", "R", "F2"));
  EXPECT_EQ(t->physicalToLogical(pfn("c", "R", "F1")), lfn("c", "r", "f"));
  EXPECT_EQ(t->physicalToLogical(pfn("c", "R", "F2")), lfn("c", "r", "f"));
  EXPECT_EQ(t->physicalToLogicalEntries().size(), 2u);

  // Two logical fields on one physical field: forward holds both, reverse only the last.
  t->populate("r", "x", "R", "P");
  t->populate("r", "y", "R", "P");
  EXPECT_EQ(t->logicalToPhysical(lfn("c", "r", "x")), pfn("c", "R", "P"));
  EXPECT_EQ(t->logicalToPhysical(lfn("c", "r", "y")), pfn("c", "R", "P"));
  EXPECT_EQ(t->physicalToLogical(pfn("c", "R", "P")), lfn("c", "r", "y"));

  // Removing one direction leaves the other alone.
  t->logicalToPhysicalDel(lfn("c", "r", "x"));
  t->logicalToPhysicalDel(lfn("c", "r", "absent"));
  EXPECT_FALSE(t->logicalToPhysicalHas(lfn("c", "r", "x")));
  EXPECT_TRUE(t->physicalToLogicalHas(pfn("c", "R", "P")));
  t->physicalToLogicalDelAll();
  EXPECT_TRUE(t->physicalToLogicalEntries().empty());
  EXPECT_EQ(t->logicalToPhysicalEntries().size(), 2u);
  t->logicalToPhysicalDelAll();
  EXPECT_TRUE(t->logicalToPhysicalEntries().empty());
}

TEST(LogicalChipTranslation, KeysWithTheSameFullNameStayApart) {
  auto t = translationFactory("a");
  t->populate("b-c", "d", "P", "one");
  t->populate("b", "c-d", "P", "two");
  EXPECT_EQ(lfn("a", "b-c", "d").fullName, lfn("a", "b", "c-d").fullName);
  EXPECT_EQ(t->getPhysicalFieldName(lfn("a", "b-c", "d")).name, "one");
  EXPECT_EQ(t->getPhysicalFieldName(lfn("a", "b", "c-d")).name, "two");
}

TEST(LogicalChipTranslationDeathTest, MissingMappingsAreFatal) {
  auto t = translationFactory("c");
  t->populate("r", "f", "R", "F");
  EXPECT_DEATH(t->getPhysicalFieldName(lfn("c", "r", "g")),
               fatalReport("logicalToPhysicalHas( lfName )", "No physicalField name mapping to c-r-g",
                           "TarnRegFile::PhysicalFieldName TarnRegFile::Translation::getPhysicalFieldName(const "
                           "TarnRegFile::LogicalFieldName&)"));
  EXPECT_DEATH(t->getLogicalFieldName(pfn("c", "R", "G")),
               fatalReport("physicalToLogicalHas( pfName )", "No logicalField mapping to c-R-G",
                           "TarnRegFile::LogicalFieldName TarnRegFile::Translation::getLogicalFieldName(const "
                           "TarnRegFile::PhysicalFieldName&)"));
}

// ================================================================ chip: life and population

TEST(LogicalChip, StartsInitializedWithItsTranslation) {
  auto chip = logicalChipFactory("chip0");
  EXPECT_TRUE(chip->initialized());
  EXPECT_FALSE(chip->ready());
  EXPECT_TRUE(chip->hasNotificationActive());
  EXPECT_EQ(chip->name(), "chip0");
  EXPECT_EQ(chip->physicalFieldCount(), 0u);
  ASSERT_TRUE(chip->translation());
  EXPECT_EQ(chip->translation()->name(), "chip0");
  EXPECT_TRUE(chip->translation()->hasNotificationActive());
  EXPECT_EQ(chip->translationIs(), chip->translation());  // created once

  CountingNotifiee watcher(chip);
  chip->handleInitialized();  // nothing left to do
  EXPECT_EQ(watcher.calls, Calls{});
  chip->translationDel();
  EXPECT_FALSE(chip->translation());
  chip->translationDel();
  chip->handleInitialized();  // recreates the translation
  EXPECT_TRUE(chip->translation());
  EXPECT_EQ(watcher.calls, (Calls{{"translation", 2}}));
}

TEST(LogicalChip, PhysicalFieldsTakeConsecutiveShadowAddresses) {
  auto chip = logicalChipFactory("chip0");
  chip->populatePhysicalField("R0", "f", 0, 8);
  chip->populatePhysicalField("R0", "g", 8, 24);
  chip->populatePhysicalField("R1", "h", 31, 32);  // past bit 31, still accepted
  EXPECT_EQ(chip->physicalFieldCount(), 3u);
  EXPECT_EQ(chip->physicalField(pfn("chip0", "R0", "f")).key, ShadowFieldKey(0, 0, 8));
  EXPECT_EQ(chip->physicalField(pfn("chip0", "R0", "g")).key, ShadowFieldKey(1, 8, 24));
  PhysicalField const h = chip->physicalField(pfn("chip0", "R1", "h"));
  EXPECT_EQ(h.key, ShadowFieldKey(2, 31, 32));
  EXPECT_EQ(h.start, 31);
  EXPECT_EQ(h.size, 32);
  EXPECT_EQ(chip->shadowToPhysicalName(ShadowFieldKey(1, 8, 24)), pfn("chip0", "R0", "g"));

  // A describer places a field at a chosen register address through the count.
  chip->physicalFieldCountIs(0x40);
  chip->populatePhysicalField("R2", "x", 4, 4);
  EXPECT_EQ(chip->physicalField(pfn("chip0", "R2", "x")).key, ShadowFieldKey(0x40, 4, 4));
  EXPECT_EQ(chip->physicalFieldCount(), 0x41u);

  // Populating a name again counts the call and leaves the old reverse entry in place.
  chip->populatePhysicalField("R0", "f", 0, 8);
  EXPECT_EQ(chip->physicalFieldCount(), 0x42u);
  EXPECT_EQ(chip->physicalField(pfn("chip0", "R0", "f")).key, ShadowFieldKey(0x41, 0, 8));
  EXPECT_EQ(chip->shadowToPhysicalName(ShadowFieldKey(0, 0, 8)), pfn("chip0", "R0", "f"));
  EXPECT_EQ(chip->shadowToPhysicalName(ShadowFieldKey(0x41, 0, 8)), pfn("chip0", "R0", "f"));
  EXPECT_EQ(chip->physicalFieldEntries().size(), 4u);
  EXPECT_EQ(chip->shadowToPhysicalNameEntries().size(), 5u);
}

TEST(LogicalChip, BadSlicesThrowAndChangeNothing) {
  auto chip = logicalChipFactory("chip0");
  chip->populatePhysicalField("R", "ok", 0, 1);
  chip->populateLogicalField("r", "ok", 0, 1, 1);
  CountingNotifiee watcher(chip);
  struct Case {
    bool logical;
    unsigned start, size;
    char const* error;
  } const cases[] = {
      {false, 32, 1, "TarnRegFile::PhysicalField::start < 0 or > 31 not allowed"},
      {false, 0, 0, "TarnRegFile::PhysicalField::size < 1 or > 32 not allowed"},
      {false, 0, 33, "TarnRegFile::PhysicalField::size < 1 or > 32 not allowed"},
      {false, 32, 0, "TarnRegFile::PhysicalField::start < 0 or > 31 not allowed"},
      {true, 64, 1, "TarnRegFile::LogicalField::start < 0 or > 63 not allowed"},
      {true, 0, 0, "TarnRegFile::LogicalField::size < 1 or > 32 not allowed"},
      {true, 0, 33, "TarnRegFile::LogicalField::size < 1 or > 32 not allowed"},
      {true, 64, 0, "TarnRegFile::LogicalField::start < 0 or > 63 not allowed"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.error);
    try {
      if (c.logical)
        chip->populateLogicalField("r", "bad", static_cast<U8>(c.start), static_cast<U8>(c.size), 7);
      else
        chip->populatePhysicalField("R", "bad", static_cast<U8>(c.start), static_cast<U8>(c.size));
      ADD_FAILURE() << "accepted";
    } catch (Kiv::RangeException const& e) {
      EXPECT_STREQ(e.what(), c.error);
    }
  }
  // A register is not created by a field that failed its checks either.
  try {
    chip->populateLogicalField("fresh", "bad", 64, 1, 0);
  } catch (Kiv::RangeException const&) {
  }
  EXPECT_FALSE(chip->regCollHas(LogicalRegisterName("chip0", "fresh")));
  EXPECT_EQ(chip->physicalFieldCount(), 1u);
  EXPECT_EQ(chip->physicalFieldEntries().size(), 1u);
  EXPECT_EQ(chip->logicalFieldEntries().size(), 1u);
  EXPECT_EQ(chip->regColl(LogicalRegisterName("chip0", "r")).fields().size(), 1u);
  EXPECT_EQ(watcher.calls, Calls{});
}

TEST(LogicalChip, LogicalFieldsBuildTheirRegister) {
  auto chip = logicalChipFactory("chip0");
  chip->populateLogicalField("r", "lo", 0, 8, 0x12);
  chip->populateLogicalField("r", "hi", 8, 8, 0x34);
  LogicalRegister const r = chip->regColl(LogicalRegisterName("chip0", "r"));
  EXPECT_EQ(r.value, 0x3412u);
  EXPECT_EQ(r.fields().size(), 2u);
  EXPECT_TRUE(r.field(lfn("chip0", "r", "hi")));
  LogicalField const hi = chip->logicalField(lfn("chip0", "r", "hi"));
  EXPECT_EQ(hi.start, 8);
  EXPECT_EQ(hi.size, 8);
  EXPECT_EQ(hi.value, 0x34u);

  // A field ending at bit 63 keeps the register's old bits there (shift by 64 is a shift by 0).
  chip->populateLogicalField("top", "old", 56, 8, 0x0F);
  chip->populateLogicalField("top", "new", 56, 8, 0xAB);
  EXPECT_EQ(chip->regColl(LogicalRegisterName("chip0", "top")).value, 0xAF00000000000000ull);
  // A field at bit 0 replaces the old bits: the lower part is guarded.
  chip->populateLogicalField("low", "x", 0, 8, 0xFF);
  chip->populateLogicalField("low", "y", 0, 4, 0x1);
  EXPECT_EQ(chip->regColl(LogicalRegisterName("chip0", "low")).value, 0xF1u);
  // Only the low size bits reach the register; the field keeps its initial value whole.
  chip->populateLogicalField("wide", "w", 4, 4, 0x123);
  EXPECT_EQ(chip->regColl(LogicalRegisterName("chip0", "wide")).value, 0x30u);
  EXPECT_EQ(chip->logicalField(lfn("chip0", "wide", "w")).value, 0x123u);
}

TEST(LogicalChip, PopulationNotifiesWhatItAdds) {
  auto chip = logicalChipFactory("chip0");
  CountingNotifiee watcher(chip);
  chip->populatePhysicalField("R", "f", 0, 8);
  chip->populateLogicalField("r", "f", 0, 8, 0);
  chip->populateLogicalField("r", "g", 8, 8, 0);  // register value unchanged, but its field set grows
  EXPECT_EQ(watcher.calls, (Calls{{"physicalFieldCount", 1},
                                  {"physicalField chip0-R-f", 1},
                                  {"shadowToPhysicalName 0", 1},
                                  {"regColl chip0-r", 2},
                                  {"logicalField chip0-r-f", 1},
                                  {"logicalField chip0-r-g", 1}}));
}

TEST(LogicalChipDeathTest, PopulationAfterReadyIsFatal) {
  auto chip = readyChip();
  EXPECT_DEATH(chip->populatePhysicalField("R", "f", 0, 8),
               fatalReport("!ready()", "Populating fields after chip ready is not allowed!",
                           "void TarnRegFile::LogicalChip::populatePhysicalField(const Kiv::String&, const "
                           "Kiv::String&, U8, U8)"));
  EXPECT_DEATH(chip->populateLogicalField("r", "c", 16, 8, 0),
               fatalReport("!ready()", "Populating fields after chip ready is not allowed!",
                           "void TarnRegFile::LogicalChip::populateLogicalField(const Kiv::String&, const "
                           "Kiv::String&, U8, U8, U32)"));
}

// ================================================================ chip: attributes

TEST(LogicalChip, AttributesNotifyOnlyOnRealChange) {
  auto chip = readyChip();
  CountingNotifiee watcher(chip);
  chip->readyIs(true);
  chip->initializedIs(true);
  EXPECT_EQ(chip->physicalFieldCountInc(0), 0u);
  chip->physicalFieldCountIs(0);
  chip->regCollIs(chip->regColl(LogicalRegisterName("chip0", "r")));
  chip->logicalFieldIs(chip->logicalField(lfn("chip0", "r", "a")));
  chip->regCollDel(LogicalRegisterName("chip0", "absent"));
  chip->logicalFieldDel(lfn("chip0", "r", "absent"));
  chip->physicalFieldDel(pfn("chip0", "R", "absent"));
  chip->shadowToPhysicalNameDel(ShadowFieldKey(9, 0, 1));
  EXPECT_EQ(watcher.calls, Calls{});

  EXPECT_EQ(chip->physicalFieldCountInc(2), 2u);
  chip->physicalFieldCountIs(5);
  chip->readyIs(false);
  chip->shadowToPhysicalNameIs(ShadowFieldKey(1, 0, 1), pfn("chip0", "R", "f"));
  chip->shadowToPhysicalNameIs(ShadowFieldKey(1, 0, 1), pfn("chip0", "R", "f"));
  chip->shadowToPhysicalNameIs(ShadowFieldKey(1, 0, 1), pfn("chip0", "R", "g"));
  chip->regCollDelAll();
  chip->logicalFieldDelAll();
  chip->shadowToPhysicalNameDelAll();
  EXPECT_EQ(watcher.calls, (Calls{{"physicalFieldCount", 2},
                                  {"ready", 1},
                                  {"shadowToPhysicalName 1", 3},
                                  {"regColl chip0-r", 1},
                                  {"regColl chip0-hi", 1},
                                  {"logicalField chip0-r-a", 1},
                                  {"logicalField chip0-r-b", 1},
                                  {"logicalField chip0-hi-h", 1}}));
  EXPECT_TRUE(chip->regCollEntries().empty());

  watcher.calls.clear();
  watcher.isNotificationActiveIs(false);
  chip->readyIs(true);
  EXPECT_EQ(watcher.calls, Calls{});
}

// ================================================================ chip: writes and read-back

TEST(LogicalChip, FieldWriteMasksTheRegisterButNotTheField) {
  auto chip = readyChip();
  chip->fieldWrite("r", "b", 0x1FF);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0xFF00u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "b"), 0x1FFu);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "a"), 0u);

  chip->regWrite("r", 0x1234);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0x1234u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "a"), 0x34u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "b"), 0x12u);

  // Bits outside every field are kept in the register value.
  chip->regWrite("r", 0xFFFF0000);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0xFFFF0000u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "a"), 0u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "b"), 0u);

  // A field at bit 0 replaces its bits and leaves the others.
  chip->fieldWrite("r", "a", 0x5A);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0xFFFF005Au);
  chip->fieldWrite("r", "b", 0x01);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0xFFFF015Au);
}

TEST(LogicalChip, FieldEndingAtBit63KeepsItsOldBits) {
  auto chip = readyChip();
  EXPECT_EQ(chip->regGetLastWritten("hi"), 0x0F00000000000000ull);  // from the initial value
  chip->fieldWrite("hi", "h", 0xF0);
  EXPECT_EQ(chip->regGetLastWritten("hi"), 0xFF00000000000000ull);
  EXPECT_EQ(chip->fieldGetLastWritten("hi", "h"), 0xF0u);
  chip->regWrite("hi", 0xAB00000000000001ull);
  EXPECT_EQ(chip->fieldGetLastWritten("hi", "h"), 0xABu);
}

TEST(LogicalChip, RegWriteExtractsEveryField) {
  auto chip = logicalChipFactory("c");
  chip->populateLogicalField("r", "w", 32, 32, 0);
  chip->populateLogicalField("r", "bit", 31, 1, 0);
  chip->populateLogicalField("r", "mid", 4, 20, 0);
  chip->readyIs(true);
  chip->regWrite("r", 0xDEADBEEF80ABCDE0ull);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "w"), 0xDEADBEEFu);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "bit"), 1u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "mid"), 0xABCDEu);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0xDEADBEEF80ABCDE0ull);
}

TEST(LogicalChip, WritesNotifyOnlyWhatChanged) {
  auto chip = readyChip();
  CountingNotifiee watcher(chip);

  chip->fieldWrite("r", "b", 0x1FF);
  EXPECT_EQ(watcher.calls, (Calls{{"regColl chip0-r", 1}, {"logicalField chip0-r-b", 1}}));

  watcher.calls.clear();
  chip->fieldWrite("r", "b", 0x1FF);  // same value: nothing
  EXPECT_EQ(watcher.calls, Calls{});

  chip->fieldWrite("r", "b", 0x2FF);  // same register bits, different field value
  EXPECT_EQ(watcher.calls, (Calls{{"logicalField chip0-r-b", 1}}));

  // The register already holds 0xFF00, but b holds all of 0x2FF and is cut back to 0xFF.
  watcher.calls.clear();
  chip->regWrite("r", 0xFF00);
  EXPECT_EQ(watcher.calls, (Calls{{"logicalField chip0-r-b", 1}}));

  watcher.calls.clear();
  chip->regWrite("r", 0xFF00);  // register and fields already hold these values
  EXPECT_EQ(watcher.calls, Calls{});
  chip->regWrite("r", 0xFE01);  // a and b change
  EXPECT_EQ(watcher.calls,
            (Calls{{"regColl chip0-r", 1}, {"logicalField chip0-r-a", 1}, {"logicalField chip0-r-b", 1}}));

  watcher.calls.clear();
  chip->regWrite("r", 0x10000FE01);  // only bits outside the fields change
  EXPECT_EQ(watcher.calls, (Calls{{"regColl chip0-r", 1}}));
}

TEST(LogicalChip, ObserverChangesDuringAWriteDoNotLoseTheFieldValue) {
  auto chip = readyChip();
  CountingNotifiee watcher(chip);
  // Removing the field while the register notification runs: the write still stores
  // the field afterwards, as it was read when the write started, with its new value.
  watcher.onRegCollHook = [&](LogicalRegisterName const&) { chip->logicalFieldDel(lfn("chip0", "r", "b")); };
  chip->fieldWrite("r", "b", 0x42);
  LogicalField const b = chip->logicalField(lfn("chip0", "r", "b"));
  EXPECT_EQ(b.value, 0x42u);
  EXPECT_EQ(b.start, 8);
  EXPECT_EQ(b.size, 8);
  EXPECT_EQ(chip->regGetLastWritten("r"), 0x4200u);
  EXPECT_EQ(watcher.calls["logicalField chip0-r-b"], 2);  // deleted, then stored again
}

TEST(LogicalChip, RegWriteRestoresAFieldMissingFromTheCache) {
  auto chip = readyChip();
  chip->logicalFieldDel(lfn("chip0", "r", "b"));
  chip->regWrite("r", 0x1203);
  // Still in the register's field set, so it comes back as a 1-bit field at bit 0.
  LogicalField const b = chip->logicalField(lfn("chip0", "r", "b"));
  EXPECT_EQ(b.name, lfn("chip0", "r", "b"));
  EXPECT_EQ(b.start, 0);
  EXPECT_EQ(b.size, 1);
  EXPECT_EQ(b.value, 1u);
  EXPECT_EQ(chip->fieldGetLastWritten("r", "a"), 3u);
}

TEST(LogicalChip, WritesAreTraced) {
  auto chip = readyChip();
  Kiv::TraceCapture cap("TarnRegFile/LogicalChip");
  chip->fieldWrite("r", "b", 0x1FF);
  chip->regWrite("r", 0x1234);
  chip->regGetLastWritten("r");
  chip->fieldGetLastWritten("r", "a");
  EXPECT_TRUE(cap.contains("LogicalChip::fieldWrite reg: r field: b value: 511", 5));
  EXPECT_TRUE(cap.contains("Write field: chip0-r-b value: 511", 0));
  EXPECT_TRUE(cap.contains("LogicalChip::regWrite regName: r value: 4660", 5));
  EXPECT_TRUE(cap.contains("LogicalChip::regGetLastWritten regName: r", 5));
  EXPECT_TRUE(cap.contains("LogicalChip::fieldGetLastWritten reg: r field: a", 5));

  // Level 0 reaches the ring buffer without any text output or capture.
  Kiv::Trace::ringClear();
  chip->fieldWrite("r", "a", 9);
  auto const lines = Kiv::Trace::ringLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines.back().find("TarnRegFile/LogicalChip L0 Write field: chip0-r-a value: 9"), std::string::npos)
      << lines.back();
}

TEST(LogicalChipDeathTest, WritesAndReadsNeedAReadyChipAndKnownNames) {
  std::string const fieldWriteFn =
      "void TarnRegFile::LogicalChip::fieldWrite(const Kiv::String&, const Kiv::String&, U32)";
  std::string const regWriteFn = "void TarnRegFile::LogicalChip::regWrite(const Kiv::String&, U64)";
  std::string const regGetFn = "U64 TarnRegFile::LogicalChip::regGetLastWritten(const Kiv::String&)";
  std::string const fieldGetFn =
      "U32 TarnRegFile::LogicalChip::fieldGetLastWritten(const Kiv::String&, const Kiv::String&)";

  auto chip = readyChip();
  chip->readyIs(false);
  std::string const notReady = "LogicalChip chip0 is not populated yet!";
  EXPECT_DEATH(chip->fieldWrite("r", "a", 1), fatalReport("ready()", notReady, fieldWriteFn));
  EXPECT_DEATH(chip->regWrite("r", 1), fatalReport("ready()", notReady, regWriteFn));
  EXPECT_DEATH(chip->regGetLastWritten("r"), fatalReport("ready()", notReady, regGetFn));
  EXPECT_DEATH(chip->fieldGetLastWritten("r", "a"), fatalReport("ready()", notReady, fieldGetFn));

  chip->readyIs(true);
  std::string const noReg = "LogicalRegister chip0-q is not populated yet!";
  EXPECT_DEATH(chip->fieldWrite("q", "a", 1), fatalReport("regCollHas( lrName )", noReg, fieldWriteFn));
  EXPECT_DEATH(chip->regWrite("q", 1), fatalReport("regCollHas( lrName )", noReg, regWriteFn));
  EXPECT_DEATH(chip->regGetLastWritten("q"), fatalReport("regCollHas( lrName )", noReg, regGetFn));
  EXPECT_DEATH(chip->fieldGetLastWritten("q", "a"), fatalReport("regCollHas( lrName )", noReg, fieldGetFn));

  std::string const fieldCheck = "lReg.fieldHas( lfName ) && logicalFieldHas( lfName )";
  EXPECT_DEATH(chip->fieldWrite("r", "h", 1),
               fatalReport(fieldCheck, "LogicalRegister chip0-r does not have field h", fieldWriteFn));
  EXPECT_DEATH(chip->fieldGetLastWritten("r", "zz"),
               fatalReport(fieldCheck, "LogicalRegister chip0-r does not have field zz", fieldGetFn));
  // In the register's field set but gone from the field cache: refused as well.
  chip->logicalFieldDel(lfn("chip0", "r", "a"));
  EXPECT_DEATH(chip->fieldWrite("r", "a", 1),
               fatalReport(fieldCheck, "LogicalRegister chip0-r does not have field a", fieldWriteFn));
  EXPECT_DEATH(chip->fieldGetLastWritten("r", "a"),
               fatalReport(fieldCheck, "LogicalRegister chip0-r does not have field a", fieldGetFn));
  // In the field cache but not in the register's field set.
  chip->logicalFieldIs(LogicalField(lfn("chip0", "r", "stray"), 16, 4));
  EXPECT_DEATH(chip->fieldWrite("r", "stray", 1),
               fatalReport(fieldCheck, "LogicalRegister chip0-r does not have field stray", fieldWriteFn));
}

// ================================================================ generic interface

TEST(LogicalChip, OperationsArePublishedByName) {
  auto& registry = Kiv::TypeRegistry::instance();
  Kiv::Ptr<Kiv::Entity> entity = registry.create("TarnRegFile::LogicalChip", "gen0");
  auto chip = Kiv::ptr_cast<LogicalChip>(entity);
  ASSERT_TRUE(chip);
  EXPECT_EQ(registry.attribute(*chip, "initialized"), "True");
  EXPECT_EQ(registry.attribute(*chip, "name"), "gen0");

  registry.call(*chip, "populatePhysicalField", {"R", "F", "0", "16"});
  registry.call(*chip, "populateLogicalField", {"r", "f", "8", "16", "0x12"});
  EXPECT_EQ(registry.attribute(*chip, "physicalFieldCount"), "1");
  registry.call(*chip, "handleInitialized", {});
  EXPECT_THROW(registry.call(*chip, "populatePhysicalField", {"R", "F", "0", "256"}), std::runtime_error);

  auto translation = chip->translation();
  registry.call(*translation, "populate", {"r", "f", "R", "F"});
  EXPECT_EQ(registry.call(*translation, "getPhysicalFieldName", {lfn("gen0", "r", "f").valueToStrep()}),
            pfn("gen0", "R", "F").valueToStrep());
  EXPECT_EQ(registry.call(*translation, "getLogicalFieldName", {pfn("gen0", "R", "F").valueToStrep()}),
            lfn("gen0", "r", "f").valueToStrep());

  registry.attributeIs(*chip, "ready", "true");
  EXPECT_TRUE(chip->ready());
  EXPECT_EQ(registry.attribute(*chip, "ready"), "True");
  EXPECT_EQ(registry.call(*chip, "regGetLastWritten", {"r"}), "4608");
  registry.call(*chip, "fieldWrite", {"r", "f", "0x1FFFF"});
  EXPECT_EQ(registry.call(*chip, "fieldGetLastWritten", {"r", "f"}), "131071");
  registry.call(*chip, "regWrite", {"r", "0x123400"});
  EXPECT_EQ(registry.call(*chip, "regGetLastWritten", {"r"}), "1192960");
  EXPECT_EQ(registry.call(*chip, "fieldGetLastWritten", {"r", "f"}), "4660");

  auto t = Kiv::ptr_cast<Translation>(registry.create("TarnRegFile::Translation", "t0"));
  ASSERT_TRUE(t);
  EXPECT_EQ(t->name(), "t0");
}

namespace {

// A private shared-memory root per test, removed afterwards.
class LogicalChipMount : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/dev/shm/tarn-chip-test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    base_ = pattern;
    em_ = Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(base_ + "/root"));
  }
  void TearDown() override {
    em_ = nullptr;
    std::filesystem::remove_all(base_);
  }
  std::string base_;
  Kiv::Ptr<Kiv::Shm::EntityManager> em_;
};

// Five physical fields, each mapped from a logical field with a non-zero initial value.
Kiv::Ptr<LogicalChip> describedChip() {
  auto chip = LogicalChip::LogicalChipIs("chip0");
  for (int i = 0; i < 5; ++i) {
    auto const f = Kiv::String(std::string("f") + std::to_string(i));
    chip->populatePhysicalField("PREG", f, static_cast<U8>(4 * i), 4);
    chip->populateLogicalField("lreg", f, static_cast<U8>(4 * i), 4, static_cast<U32>(i + 1));
    chip->translationIs()->populate("lreg", f, "PREG", f);
  }
  return chip;
}

TEST_F(LogicalChipMount, MountsBothCollectionsSizedByThePhysicalFieldsAndZeroesTheDesiredValues) {
  auto chip = describedChip();
  chip->mountShadowFields(em_, "TarnRegFile/shadowFieldsConfig/chip0", "TarnRegFile/shadowFieldsStatus/chip0");
  ASSERT_TRUE(chip->shadowFieldsConfig());
  ASSERT_TRUE(chip->shadowFieldsStatus());
  EXPECT_EQ(chip->shadowFieldsConfig()->fieldCapacity(), 5u);
  EXPECT_EQ(chip->shadowFieldsStatus()->fieldCapacity(), 5u);
  EXPECT_EQ(chip->shadowFieldsConfig()->fieldCount(), 5u);
  EXPECT_EQ(chip->shadowFieldsStatus()->fieldCount(), 0u);
  for (auto const& [name, field] : chip->physicalFieldEntries()) {
    auto const stored = chip->shadowFieldsConfig()->field(field.key);
    EXPECT_EQ(stored, ShadowFieldValue(field.key, 0)) << name.fullName;
  }
  EXPECT_EQ(em_->capacityOf("TarnRegFile/shadowFieldsConfig/chip0", "field"), 5u);
  // A second reader sees the same table.
  auto const entries = ShadowFields::readShadowTable(Kiv::Shm::Root(base_ + "/root"), "TarnRegFile/shadowFieldsConfig/chip0");
  EXPECT_EQ(entries.size(), 5u);
}

TEST_F(LogicalChipMount, ChipWithoutPhysicalFieldsStillMounts) {
  auto chip = LogicalChip::LogicalChipIs("empty");
  chip->mountShadowFields(em_, "TarnRegFile/shadowFieldsConfig/empty", "TarnRegFile/shadowFieldsStatus/empty");
  EXPECT_TRUE(chip->shadowFieldsConfig());
  EXPECT_EQ(chip->shadowFieldsConfig()->fieldCount(), 0u);
}

using LogicalChipMountDeathTest = LogicalChipMount;

TEST_F(LogicalChipMountDeathTest, PhysicalFieldWithoutLogicalMappingIsFatal) {
  auto chip = LogicalChip::LogicalChipIs("chip1");
  chip->populatePhysicalField("PREG", "orphan", 0, 8);
  EXPECT_DEATH(chip->mountShadowFields(em_, "TarnRegFile/shadowFieldsConfig/chip1", "TarnRegFile/shadowFieldsStatus/chip1"),
               "condition: physicalToLogicalHas\\( pfName \\)\n  message:   No logicalField mapping to chip1-PREG-orphan");
}

}  // namespace
