#include "TarnRegFile/LogicalTypes.h"

#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivValueText.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

using namespace TarnRegFile;

namespace {

template <class T>
T parse(std::string const& text) {
  Kiv::String::IteratorConst pos = text.data();
  T v(pos, text.data() + text.size());
  EXPECT_EQ(pos, text.data() + text.size()) << "parser left text unread: " << text;
  return v;
}

// The range error raised by `make`, or "" when it is accepted.
template <class F>
std::string rangeError(F const& make) try {
  make();
  return "";
} catch (Kiv::RangeException const& e) {
  return e.what();
}

using RegName = LogicalRegisterName;

LogicalFieldName fieldName(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return LogicalFieldName(RegName(chip, reg), field);
}

}  // namespace

TEST(LogicalTypes, NamesComposeFullNameAndValidityMeansNotTheDefault) {
  EXPECT_EQ(fieldName("chip0", "ctrl", "en").fullName, "chip0-ctrl-en");
  EXPECT_EQ(LogicalFieldName().fullName, "--");
  EXPECT_EQ(RegName("", "").fullName, "-");
  EXPECT_FALSE(RegName("", ""));
  EXPECT_EQ(RegName("c", "").fullName, "c-");
  EXPECT_TRUE(RegName("c", ""));
  EXPECT_FALSE(LogicalFieldName(RegName("", ""), ""));
  EXPECT_TRUE(LogicalFieldName(RegName(), "f"));
  EXPECT_FALSE(LogicalField(LogicalFieldName(), 0, 1));
  EXPECT_TRUE(LogicalField(fieldName("c", "r", "f"), 0, 1));  // valid name, default slice and value
  EXPECT_TRUE(LogicalField(LogicalFieldName(), 1, 1));
  EXPECT_TRUE(LogicalField(LogicalFieldName(), 0, 2));
  LogicalField withValue;
  withValue.value = 1;
  EXPECT_TRUE(withValue);
  EXPECT_FALSE(withValue == LogicalField());
}

TEST(LogicalTypes, LogicalFieldBoundsAreCheckedStartFirstByConstructorAndParser) {
  std::string const startError = "TarnRegFile::LogicalField::start < 0 or > 63 not allowed";
  std::string const sizeError = "TarnRegFile::LogicalField::size < 1 or > 32 not allowed";
  struct Case {
    unsigned start, size;
    std::string error;  // empty: accepted
  } const cases[] = {
      {0, 1, ""},          {63, 32, ""},  // start + size past bit 63 is not this type's business
      {64, 1, startError}, {255, 32, startError}, {64, 0, startError},
      {0, 0, sizeError},   {0, 33, sizeError},    {0, 255, sizeError},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::Message() << "start " << c.start << " size " << c.size);
    EXPECT_EQ(rangeError([&] { LogicalField(fieldName("c", "r", "f"), U8(c.start), U8(c.size)); }), c.error);
    std::string const text = "Value('TarnRegFile::LogicalField', ** {'name': " + LogicalFieldName().valueToStrep() +
                             fmt::format(", 'start': {}, 'size': {}, 'value': 3}})", c.start, c.size);
    EXPECT_EQ(rangeError([&] { parse<LogicalField>(text); }), c.error);
  }
}

TEST(LogicalTypes, NamesCompareAndOrderOnEveryMember) {
  // Hyphens are not escaped, so these share "x-a-b-c" and its hash, yet are different keys.
  LogicalFieldName const left = fieldName("x", "a-b", "c");
  LogicalFieldName const right = fieldName("x", "a", "b-c");
  EXPECT_EQ(std::hash<LogicalFieldName>()(left), Kiv::stringHash("x-a-b-c"));
  EXPECT_EQ(std::hash<LogicalFieldName>()(right), Kiv::stringHash("x-a-b-c"));
  EXPECT_FALSE(left == right);
  EXPECT_TRUE(right < left);
  EXPECT_FALSE(left < right);
  RegName written("a", "a");
  written.fullName = "1";  // as a parser may read it
  EXPECT_FALSE(written == RegName("a", "a"));
  EXPECT_TRUE(written < RegName("a", "a"));
  EXPECT_TRUE(RegName("a", "z") < RegName("b", "a"));
  EXPECT_TRUE(RegName("a", "a") < RegName("a", "b"));
  EXPECT_TRUE(fieldName("c", "a", "z") < fieldName("c", "b", "a"));  // register order decides first
  EXPECT_TRUE(fieldName("c", "r", "a") < fieldName("c", "r", "b"));
}

TEST(LogicalTypes, RegisterFieldSetKeepsCollidingNamesApartAndTakesPartInEquality) {
  LogicalFieldName const a = fieldName("x", "a-b", "c");
  LogicalFieldName const b = fieldName("x", "a", "b-c");  // same fullName as a
  LogicalRegister reg;
  EXPECT_FALSE(reg);
  reg.fieldIs(a, true);
  EXPECT_TRUE(reg);  // fields alone already differ from the default register
  reg.fieldIs(b, true);
  reg.fieldIs(a, false);  // present: flag updated, not inserted twice
  EXPECT_EQ(reg.fields().size(), 2u);
  EXPECT_FALSE(reg.field(a));
  EXPECT_TRUE(reg.field(b));
  LogicalRegister copy = reg;
  copy.fieldIs(a, true);
  EXPECT_FALSE(copy == reg);
  reg.fieldDel(a);
  EXPECT_FALSE(reg.fieldHas(a));
  EXPECT_TRUE(reg.fieldHas(b));
  reg.fieldDelAll();
  EXPECT_FALSE(reg.fieldHas(b));
  reg.value = 1;
  EXPECT_TRUE(reg);  // so does a value alone
}

TEST(LogicalTypes, TextFormsAreExactAndEveryHookGivesTheSame) {
  LogicalField field(fieldName("chip0", "ctrl", "en"), 63, 32);
  field.value = 4294967295u;
  LogicalRegister reg(RegName("chip0", "ctrl"));
  reg.fieldIs(field.name, true);
  reg.value = 18446744073709551615ull;
  EXPECT_EQ(field.valueToStrep(),
            "Value('TarnRegFile::LogicalField', ** {'name': Value('TarnRegFile::LogicalFieldName', ** {'regName': "
            "Value('TarnRegFile::LogicalRegisterName', ** {'chipName': 'chip0', 'name': 'ctrl', 'fullName': "
            "'chip0-ctrl'}), 'name': 'en', 'fullName': 'chip0-ctrl-en'}), 'start': 63, 'size': 32, 'value': "
            "4294967295})");
  // The field set is never rendered, even when the register has fields.
  EXPECT_EQ(reg.valueToStrep(),
            "Value('TarnRegFile::LogicalRegister', ** {'name': Value('TarnRegFile::LogicalRegisterName', ** "
            "{'chipName': 'chip0', 'name': 'ctrl', 'fullName': 'chip0-ctrl'}), 'field': None, 'value': "
            "18446744073709551615})");
  std::ostringstream os;
  os << reg << '|' << field;
  EXPECT_EQ(os.str(), reg.valueToStrep() + "|" + field.valueToStrep());
  EXPECT_EQ(fmt::format("{}|{}|{}", reg, field.name, field.name.regName),
            reg.valueToStrep() + "|" + field.name.valueToStrep() + "|" + field.name.regName.valueToStrep());
}

TEST(LogicalTypes, ParsingReadsBackWhatWasPrintedAndRejectsOtherShapes) {
  LogicalField field(LogicalFieldName(RegName("chip'0", "ctrl\\x"), "e\tn"), 40, 17);
  field.value = 0x1FFFFu;
  EXPECT_EQ(parse<RegName>(field.name.regName.valueToStrep()), field.name.regName);
  EXPECT_EQ(parse<LogicalFieldName>(field.name.valueToStrep()), field.name);
  EXPECT_EQ(parse<LogicalField>(field.valueToStrep()), field);
  // fullName is taken as written, not recomputed from the parts.
  EXPECT_EQ(parse<RegName>("Value('TarnRegFile::LogicalRegisterName', ** {'chipName': 'c', 'name': 'r', "
                           "'fullName': 'zz'})").fullName, "zz");
  std::string const name = LogicalFieldName().valueToStrep();
  for (std::string const& bad : std::initializer_list<std::string>{
           "Value('TarnRegFile::LogicalField', ** {'name': 'x', 'start': 0, 'size': 1, 'value': 0})",
           "Value('TarnRegFile::LogicalField', ** {'name': " + name + ", 'start': 0, 'size': 1, 'value': 0}",
           "Value('TarnRegFile::PhysicalField', ** {'name': " + name + ", 'start': 0, 'size': 1, 'value': 0})",
       })
    EXPECT_THROW(parse<LogicalField>(bad), Kiv::ParseException) << bad;
}

TEST(LogicalTypesDeathTest, RegisterHasNoTextParser) {
  EXPECT_DEATH(parse<LogicalRegister>(LogicalRegister(RegName("c", "r")).valueToStrep()),
               "condition: \"No String constructor for LogicalRegister - has collection\" == nullptr\n"
               "  message:   \n  unit:      TarnRegFile/LogicalTypes\n");
}

TEST(LogicalTypes, NamePartsHashAndMatchExactlyLikeTheNamesTheyStandFor) {
  Kiv::String const chip("chip0"), x("x");  // the parts refer to the chip name
  std::string const regs[] = {"", "r", "regis", std::string(300, 'q')};
  std::string const fields[] = {"", "f", "fiel", std::string(200, 'z')};
  for (auto const& reg : regs) {
    for (auto const& field : fields) {
      SCOPED_TRACE(reg.size() * 1000 + field.size());
      LogicalFieldNameParts const parts(chip, reg, field);
      LogicalFieldName const name = fieldName(chip, Kiv::String(reg), Kiv::String(field));
      EXPECT_EQ(parts.regHash(), LogicalRegisterNameHash()(name.regName));
      EXPECT_EQ(parts.hash(), LogicalFieldNameHash()(name));
      EXPECT_TRUE(parts.sameField(name));
      LogicalFieldNameParts const fromStrings(chip, name.regName.name, name.name);  // cached hashes
      EXPECT_EQ(fromStrings.hash(), parts.hash());
    }
  }
  LogicalFieldNameParts const parts(x, "a-b", "c");
  EXPECT_FALSE(parts.sameField(fieldName("x", "a", "b-c")));  // same full name and hash, other parts
  EXPECT_FALSE(parts.sameField(fieldName("x-a", "b", "c")));  // only the register's parts differ
  LogicalFieldName written = fieldName("x", "a-b", "c");
  written.fullName = "x-a-b-c ";
  EXPECT_FALSE(parts.sameField(written));  // a parsed name whose full name was written differently
  LogicalRegister reg(RegName("x", "a-b"));
  reg.fieldIs(fieldName("x", "a", "b-c"), true);
  EXPECT_FALSE(reg.fieldHas(parts.asField()));
  reg.fieldIs(fieldName("x", "a-b", "c"), true);
  EXPECT_TRUE(reg.fieldHas(parts.asField()));
}

TEST(LogicalTypes, NameCollectionsFindEveryEntryThroughInsertsRemovalsAndCopies) {
  // Few distinct hashes: long probe runs that wrap around the index and removals that
  // must move later entries back.
  struct FewHashes {
    size_t operator()(LogicalFieldName const& n) const noexcept { return n.name.size() % 3 * 7; }
  };
  using Coll = LogicalNameCollection<LogicalFieldName, U32, FewHashes, LogicalFieldNameEqual>;
  Coll coll;
  std::map<std::string, U32> expected;
  auto const name = [](unsigned i) { return fieldName("c", "r", std::string(1 + i % 7, 'a' + i % 5)); };
  auto const check = [&](Coll const& c) {
    ASSERT_EQ(c.size(), expected.size());
    for (unsigned i = 0; i < 40; ++i) {
      auto const it = expected.find(name(i).fullName.str());
      U32 const* found = c.find(name(i));
      ASSERT_EQ(found != nullptr, it != expected.end()) << i;
      if (found) {
        EXPECT_EQ(*found, it->second) << i;
      }
    }
  };
  for (unsigned i = 0; i < 200; ++i) {
    unsigned const k = (i * 17) % 40;
    if (i % 3 == 2) {
      EXPECT_EQ(coll.erase(name(k)), expected.erase(name(k).fullName.str()) == 1);
    } else {
      bool const changed = !expected.count(name(k).fullName.str()) || expected[name(k).fullName.str()] != i;
      expected[name(k).fullName.str()] = i;
      EXPECT_EQ(coll.set(name(k), i), changed);
    }
    check(coll);
  }
  Coll copy(coll);
  coll.clear();
  check(copy);
  Coll moved(std::move(copy));
  check(moved);
  EXPECT_TRUE(copy.empty());
  EXPECT_EQ(copy.find(name(0)), nullptr);
}
