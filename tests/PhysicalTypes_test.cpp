#include "TarnRegFile/PhysicalTypes.h"

#include "KivException.h"
#include "KivValueText.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <unordered_map>

using namespace TarnRegFile;

namespace {

template <class T>
T parse(std::string const& text) {
  Kiv::String::IteratorConst pos = text.data();
  Kiv::String::IteratorConst const end = text.data() + text.size();
  T v(pos, end);
  EXPECT_EQ(pos, end) << "parser left text unread: " << text;
  return v;
}

template <class T>
std::string rangeErrorOf(std::string const& text) {
  try {
    parse<T>(text);
  } catch (Kiv::RangeException const& e) {
    return e.what();
  }
  return "<no range error>";
}

PhysicalFieldName fieldName(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return PhysicalFieldName(PhysicalRegisterName(chip, reg), field);
}

}  // namespace

TEST(PhysicalTypes, NamesComposeFullNameFromTheirParts) {
  EXPECT_EQ(PhysicalRegisterName("chip0", "ctrl").fullName, "chip0-ctrl");
  EXPECT_EQ(fieldName("chip0", "ctrl", "en").fullName, "chip0-ctrl-en");
  EXPECT_EQ(PhysicalRegisterName().fullName, "-");
  EXPECT_EQ(PhysicalFieldName().fullName, "--");
  // Composition runs on empty parts too, which is what makes the defaults "-" and "--".
  EXPECT_EQ(PhysicalRegisterName("", "").fullName, "-");
  EXPECT_EQ(PhysicalRegisterName("c", "").fullName, "c-");
}

TEST(PhysicalTypes, ValidityMeansDifferentFromTheDefault) {
  EXPECT_FALSE(PhysicalRegisterName());
  EXPECT_FALSE(PhysicalRegisterName("", ""));
  EXPECT_TRUE(PhysicalRegisterName("c", ""));
  EXPECT_TRUE(PhysicalRegisterName("", "r"));
  EXPECT_FALSE(PhysicalFieldName());
  EXPECT_FALSE(PhysicalFieldName(PhysicalRegisterName("", ""), ""));
  EXPECT_TRUE(PhysicalFieldName(PhysicalRegisterName(), "f"));
  EXPECT_TRUE(parse<PhysicalRegisterName>(
      "Value('TarnRegFile::PhysicalRegisterName', ** {'chipName': '', 'name': '', 'fullName': 'x'})"));

  EXPECT_FALSE(ShadowFieldKey());
  EXPECT_TRUE(ShadowFieldKey(0, 0, 2));
  EXPECT_TRUE(ShadowFieldKey(1, 0, 1));
  EXPECT_FALSE(ShadowFieldValue());
  EXPECT_TRUE(ShadowFieldValue(ShadowFieldKey(), 1));
  EXPECT_TRUE(ShadowFieldValue(ShadowFieldKey(0, 3, 1), 0));

  EXPECT_FALSE(PhysicalField());
  EXPECT_FALSE(PhysicalField(PhysicalFieldName(), 0, 1));
  EXPECT_TRUE(PhysicalField(fieldName("c", "r", "f"), 0, 1));
  PhysicalField keyed;
  keyed.key.address = 7;
  EXPECT_TRUE(keyed);
}

TEST(PhysicalTypes, NamesCompareEveryMemberNotJustTheFullName) {
  // Hyphens are not escaped: register a-b field c and register a field b-c share "x-a-b-c".
  PhysicalFieldName const left = fieldName("x", "a-b", "c");
  PhysicalFieldName const right = fieldName("x", "a", "b-c");
  EXPECT_EQ(left.fullName, right.fullName);
  EXPECT_FALSE(left == right);
  EXPECT_TRUE(right < left);  // "a" < "a-b" decides on the register name
  EXPECT_EQ(std::hash<PhysicalFieldName>()(left), std::hash<PhysicalFieldName>()(right));
  std::unordered_map<PhysicalFieldName, int> map{{left, 1}, {right, 2}};
  EXPECT_EQ(map.size(), 2u);
  EXPECT_EQ(map.at(left), 1);

  EXPECT_EQ(std::hash<PhysicalRegisterName>()(PhysicalRegisterName("c", "r")), Kiv::stringHash("c-r"));
  EXPECT_EQ(std::hash<PhysicalFieldName>()(fieldName("c", "r", "f")), Kiv::stringHash("c-r-f"));
}

TEST(PhysicalTypes, NameOrderingLooksAtChipThenNameThenFullName) {
  auto const withFullName = [](Kiv::String const& chip, Kiv::String const& name, char const* full) {
    PhysicalRegisterName n(chip, name);
    n.fullName = full;
    return n;
  };
  struct Case {
    PhysicalRegisterName lower, higher;
  } const cases[] = {
      {PhysicalRegisterName("a", "z"), PhysicalRegisterName("b", "a")},
      {PhysicalRegisterName("a", "a"), PhysicalRegisterName("a", "b")},
      {withFullName("a", "a", "1"), withFullName("a", "a", "2")},
  };
  for (auto const& c : cases) {
    EXPECT_TRUE(c.lower < c.higher) << c.lower << " / " << c.higher;
    EXPECT_FALSE(c.higher < c.lower) << c.lower << " / " << c.higher;
    EXPECT_FALSE(c.lower == c.higher);
  }
  EXPECT_TRUE(fieldName("c", "a", "z") < fieldName("c", "b", "a"));
  EXPECT_TRUE(fieldName("c", "r", "a") < fieldName("c", "r", "b"));
  EXPECT_FALSE(fieldName("c", "r", "a") < fieldName("c", "r", "a"));
}

TEST(PhysicalTypes, PhysicalFieldBoundsAreCheckedStartFirst) {
  struct Case {
    unsigned start, size;
    char const* error;  // null: accepted
  } const cases[] = {
      {0, 1, nullptr},
      {31, 32, nullptr},  // start + size past bit 31 is not this type's business
      {32, 1, "TarnRegFile::PhysicalField::start < 0 or > 31 not allowed"},
      {255, 1, "TarnRegFile::PhysicalField::start < 0 or > 31 not allowed"},
      {0, 0, "TarnRegFile::PhysicalField::size < 1 or > 32 not allowed"},
      {0, 33, "TarnRegFile::PhysicalField::size < 1 or > 32 not allowed"},
      {0, 255, "TarnRegFile::PhysicalField::size < 1 or > 32 not allowed"},
      {32, 0, "TarnRegFile::PhysicalField::start < 0 or > 31 not allowed"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::Message() << "start " << c.start << " size " << c.size);
    try {
      PhysicalField const f(fieldName("c", "r", "f"), static_cast<U8>(c.start), static_cast<U8>(c.size));
      EXPECT_EQ(c.error, nullptr);
      EXPECT_EQ(f.start, c.start);
      EXPECT_EQ(f.size, c.size);
      EXPECT_EQ(f.key, ShadowFieldKey(0, 0, 1));
    } catch (Kiv::RangeException const& e) {
      ASSERT_NE(c.error, nullptr) << e.what();
      EXPECT_STREQ(e.what(), c.error);
    }
  }
}

TEST(PhysicalTypes, ShadowFieldKeysOrderByAddressStartSize) {
  struct Case {
    ShadowFieldKey lower, higher;
  } const cases[] = {
      {{5, 0, 32}, {5, 1, 1}},
      {{5, 3, 4}, {5, 3, 8}},
      {{4, 31, 32}, {5, 0, 1}},
      {{0xFFFFFFFEu, 31, 32}, {0xFFFFFFFFu, 0, 1}},  // unsigned comparison
  };
  for (auto const& c : cases) {
    EXPECT_TRUE(c.lower < c.higher) << c.lower << " / " << c.higher;
    EXPECT_FALSE(c.higher < c.lower) << c.lower << " / " << c.higher;
    EXPECT_FALSE(c.lower == c.higher);
  }
  EXPECT_FALSE(ShadowFieldKey(5, 3, 4) < ShadowFieldKey(5, 3, 4));
  EXPECT_EQ(ShadowFieldValue(ShadowFieldKey(5, 3, 4), 9), ShadowFieldValue(ShadowFieldKey(5, 3, 4), 9));
  EXPECT_FALSE(ShadowFieldValue(ShadowFieldKey(5, 3, 4), 9) == ShadowFieldValue(ShadowFieldKey(5, 3, 4), 8));
  EXPECT_FALSE(ShadowFieldValue(ShadowFieldKey(5, 3, 4), 9) == ShadowFieldValue(ShadowFieldKey(5, 3, 5), 9));
}

TEST(PhysicalTypes, ShadowFieldKeyHashIsStableAcrossProcessesAndSeeded) {
  ShadowFieldKey const key(0x12345678u, 7, 9);
  EXPECT_EQ(key.hash(11), ShadowFieldKey(0x12345678u, 7, 9).hash(11));
  EXPECT_NE(key.hash(11), key.hash(12));
  // Every member counts, in the order address, start, size.
  EXPECT_NE(key.hash(11), ShadowFieldKey(0x12345678u, 9, 7).hash(11));
  EXPECT_NE(key.hash(11), ShadowFieldKey(0x12345679u, 7, 9).hash(11));
  EXPECT_EQ(key.hash(11), Kiv::Hash(11).mix4(0x12345678u).mix1(7).mix1(9).result());
  // Pinned values: other processes (of either word size) compute the same slots, so a
  // change here silently breaks every table already in shared memory.
  EXPECT_EQ(key.hash(0), 0x7babe583u);
  EXPECT_EQ(ShadowFieldKey(5, 0, 32).hash(0x9747b28cu), 0x88b68f80u);
  EXPECT_EQ(std::hash<ShadowFieldKey>()(key), key.hash(ShadowFieldKey::collectionHashSeed));
}

TEST(PhysicalTypes, TextFormsAreExact) {
  PhysicalFieldName const name = fieldName("chip0", "ctrl", "en");
  PhysicalField field(name, 3, 4);
  field.key = ShadowFieldKey(5, 3, 4);
  struct Case {
    std::string text, expected;
  } const cases[] = {
      {PhysicalRegisterName("chip0", "it's").valueToStrep(),
       "Value('TarnRegFile::PhysicalRegisterName', ** {'chipName': 'chip0', 'name': 'it\\'s', 'fullName': "
       "'chip0-it\\'s'})"},
      {PhysicalFieldName().valueToStrep(),
       "Value('TarnRegFile::PhysicalFieldName', ** {'regName': Value('TarnRegFile::PhysicalRegisterName', ** "
       "{'chipName': '', 'name': '', 'fullName': '-'}), 'name': '', 'fullName': '--'})"},
      {ShadowFieldKey(4294967295u, 31, 32).valueToStrep(),
       "Value('TarnRegFile::ShadowFieldKey', ** {'address': 4294967295, 'start': 31, 'size': 32})"},
      {ShadowFieldValue(ShadowFieldKey(5, 0, 8), 4294967295u).valueToStrep(),
       "Value('TarnRegFile::ShadowFieldValue', ** {'key': Value('TarnRegFile::ShadowFieldKey', ** {'address': 5, "
       "'start': 0, 'size': 8}), 'value': 4294967295})"},
      {field.valueToStrep(),
       "Value('TarnRegFile::PhysicalField', ** {'name': Value('TarnRegFile::PhysicalFieldName', ** {'regName': "
       "Value('TarnRegFile::PhysicalRegisterName', ** {'chipName': 'chip0', 'name': 'ctrl', 'fullName': "
       "'chip0-ctrl'}), 'name': 'en', 'fullName': 'chip0-ctrl-en'}), 'start': 3, 'size': 4, 'key': "
       "Value('TarnRegFile::ShadowFieldKey', ** {'address': 5, 'start': 3, 'size': 4})})"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.text, c.expected);

  // The stream, fmt and runtime text hooks all give the same text.
  std::ostringstream os;
  os << field;
  EXPECT_EQ(os.str(), field.valueToStrep());
  EXPECT_EQ(fmt::format("{}", field), field.valueToStrep());
  EXPECT_EQ(fmt::format("{}", field.key), field.key.valueToStrep());
  EXPECT_EQ(Kiv::toStrep(name), name.valueToStrep());
}

TEST(PhysicalTypes, ParsingReadsBackWhatWasPrinted) {
  PhysicalRegisterName const reg("chip\\0", "ct'rl\n");
  PhysicalFieldName const name(reg, "en");
  PhysicalField field(name, 31, 32);
  field.key = ShadowFieldKey(0xFFFFFFFFu, 31, 32);
  ShadowFieldValue const value(ShadowFieldKey(7, 2, 3), 0xDEADBEEFu);

  EXPECT_EQ(parse<PhysicalRegisterName>(reg.valueToStrep()), reg);
  EXPECT_EQ(parse<PhysicalRegisterName>(PhysicalRegisterName().valueToStrep()), PhysicalRegisterName());
  EXPECT_EQ(parse<PhysicalFieldName>(name.valueToStrep()), name);
  EXPECT_EQ(parse<PhysicalField>(field.valueToStrep()), field);
  EXPECT_EQ(parse<PhysicalField>(PhysicalField().valueToStrep()), PhysicalField());
  EXPECT_EQ(parse<ShadowFieldKey>(field.key.valueToStrep()), field.key);
  EXPECT_EQ(parse<ShadowFieldValue>(value.valueToStrep()), value);
}

TEST(PhysicalTypes, ParsedFullNameIsTakenAsWritten) {
  auto const n = parse<PhysicalFieldName>(
      "Value('TarnRegFile::PhysicalFieldName', ** {'regName': Value('TarnRegFile::PhysicalRegisterName', ** "
      "{'chipName': 'c', 'name': 'r', 'fullName': 'other'}), 'name': 'f', 'fullName': 'written'})");
  EXPECT_EQ(n.regName.fullName, "other");
  EXPECT_EQ(n.fullName, "written");
  EXPECT_FALSE(n == fieldName("c", "r", "f"));
}

TEST(PhysicalTypes, ParsersApplyBoundChecks) {
  auto const keyText = [](unsigned start, unsigned size) {
    return fmt::format("Value('TarnRegFile::ShadowFieldKey', ** {{'address': 1, 'start': {}, 'size': {}}})", start,
                       size);
  };
  auto const fieldText = [&](unsigned start, unsigned size, std::string const& key) {
    return "Value('TarnRegFile::PhysicalField', ** {'name': " + PhysicalFieldName().valueToStrep() +
           fmt::format(", 'start': {}, 'size': {}, 'key': ", start, size) + key + "})";
  };
  struct Case {
    std::string error, expected;
  } const cases[] = {
      {rangeErrorOf<ShadowFieldKey>(keyText(32, 1)), "TarnRegFile::ShadowFieldKey::start < 0 or > 31 not allowed"},
      {rangeErrorOf<ShadowFieldKey>(keyText(0, 0)), "TarnRegFile::ShadowFieldKey::size < 1 or > 32 not allowed"},
      {rangeErrorOf<ShadowFieldKey>(keyText(0, 33)), "TarnRegFile::ShadowFieldKey::size < 1 or > 32 not allowed"},
      {rangeErrorOf<ShadowFieldKey>(keyText(32, 0)), "TarnRegFile::ShadowFieldKey::start < 0 or > 31 not allowed"},
      {rangeErrorOf<PhysicalField>(fieldText(32, 1, keyText(0, 1))),
       "TarnRegFile::PhysicalField::start < 0 or > 31 not allowed"},
      {rangeErrorOf<PhysicalField>(fieldText(0, 33, keyText(0, 1))),
       "TarnRegFile::PhysicalField::size < 1 or > 32 not allowed"},
      // A nested key failing its own check names the attribute it was read for.
      {rangeErrorOf<PhysicalField>(fieldText(0, 1, keyText(40, 1))),
       "key: TarnRegFile::ShadowFieldKey::start < 0 or > 31 not allowed"},
      {rangeErrorOf<ShadowFieldValue>("Value('TarnRegFile::ShadowFieldValue', ** {'key': " + keyText(0, 0) +
                                      ", 'value': 1})"),
       "key: TarnRegFile::ShadowFieldKey::size < 1 or > 32 not allowed"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.error, c.expected);
  EXPECT_EQ(parse<ShadowFieldKey>(keyText(31, 32)), ShadowFieldKey(1, 31, 32));
}

TEST(PhysicalTypes, TextOfAnotherShapeIsAParseError) {
  std::string const texts[] = {
      "",
      "Value('TarnRegFile::ShadowFieldKey', ** {'address': 1, 'start': 0})",
      "Value('TarnRegFile::ShadowFieldKey', ** {'address': 1, 'size': 1, 'start': 0})",
      "Value('TarnRegFile::ShadowFieldKey', ** {'address': 4294967296, 'start': 0, 'size': 1})",
      "Value('TarnRegFile::PhysicalFieldName', ** {'address': 1, 'start': 0, 'size': 1})",
  };
  for (auto const& t : texts) EXPECT_THROW(parse<ShadowFieldKey>(t), Kiv::ParseException) << t;
  EXPECT_THROW(parse<PhysicalRegisterName>("Value('TarnRegFile::PhysicalRegisterName', ** {'chipName': c, "
                                           "'name': '', 'fullName': '-'})"),
               Kiv::ParseException);
}
