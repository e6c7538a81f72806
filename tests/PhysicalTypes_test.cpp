#include "TarnRegFile/PhysicalTypes.h"

#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivValueText.h"

#include <gtest/gtest.h>

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

using RegName = PhysicalRegisterName;

PhysicalFieldName fieldName(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return PhysicalFieldName(RegName(chip, reg), field);
}

template <class T>
void expectOrdered(T const& lower, T const& higher) {
  EXPECT_TRUE(lower < higher) << lower << " / " << higher;
  EXPECT_FALSE(higher < lower) << lower << " / " << higher;
  EXPECT_FALSE(lower == higher) << lower << " / " << higher;
}

}  // namespace

TEST(PhysicalTypes, NamesComposeFullNameAndValidityMeansNotTheDefault) {
  EXPECT_EQ(fieldName("chip0", "ctrl", "en").fullName, "chip0-ctrl-en");
  EXPECT_EQ(PhysicalFieldName().fullName, "--");
  EXPECT_EQ(RegName("", "").fullName, "-");
  EXPECT_EQ(RegName("c", "").fullName, "c-");
  EXPECT_FALSE(RegName("", ""));
  EXPECT_TRUE(RegName("c", ""));
  EXPECT_FALSE(PhysicalFieldName(RegName("", ""), ""));
  EXPECT_TRUE(PhysicalFieldName(RegName(), "f"));
  EXPECT_FALSE(ShadowFieldKey());
  EXPECT_TRUE(ShadowFieldKey(0, 0, 2));
  EXPECT_FALSE(ShadowFieldValue());
  EXPECT_TRUE(ShadowFieldValue(ShadowFieldKey(), 1));
  EXPECT_TRUE(ShadowFieldValue(ShadowFieldKey(0, 3, 1), 0));
  EXPECT_FALSE(PhysicalField(PhysicalFieldName(), 0, 1));
  EXPECT_TRUE(PhysicalField(fieldName("c", "r", "f"), 0, 1));
}

TEST(PhysicalTypes, EqualityAndOrderLookAtEveryMemberNotJustTheFullName) {
  // Hyphens are not escaped: register a-b field c and register a field b-c share "x-a-b-c".
  PhysicalFieldName const left = fieldName("x", "a-b", "c");
  PhysicalFieldName const right = fieldName("x", "a", "b-c");
  EXPECT_EQ(std::hash<PhysicalFieldName>()(left), Kiv::stringHash("x-a-b-c"));
  EXPECT_EQ(std::hash<PhysicalFieldName>()(right), Kiv::stringHash("x-a-b-c"));
  expectOrdered(right, left);  // "a" < "a-b" decides on the register name
  RegName written("a", "a");
  written.fullName = "1";  // as a parser may read it
  expectOrdered(written, RegName("a", "a"));
  expectOrdered(RegName("a", "z"), RegName("b", "a"));
  expectOrdered(RegName("a", "a"), RegName("a", "b"));
  expectOrdered(fieldName("c", "a", "z"), fieldName("c", "b", "a"));
  expectOrdered(fieldName("c", "r", "a"), fieldName("c", "r", "b"));

  expectOrdered(ShadowFieldKey(5, 0, 32), ShadowFieldKey(5, 1, 1));
  expectOrdered(ShadowFieldKey(5, 3, 4), ShadowFieldKey(5, 3, 8));
  expectOrdered(ShadowFieldKey(4, 31, 32), ShadowFieldKey(5, 0, 1));
  expectOrdered(ShadowFieldKey(0xFFFFFFFEu, 31, 32), ShadowFieldKey(0xFFFFFFFFu, 0, 1));  // unsigned
  EXPECT_FALSE(ShadowFieldValue(ShadowFieldKey(5, 3, 4), 9) == ShadowFieldValue(ShadowFieldKey(5, 3, 4), 8));
  EXPECT_FALSE(ShadowFieldValue(ShadowFieldKey(5, 3, 4), 9) == ShadowFieldValue(ShadowFieldKey(5, 3, 5), 9));
}

TEST(PhysicalTypes, ShadowFieldKeyHashIsSeededAndPinnedForEveryProcess) {
  ShadowFieldKey const key(0x12345678u, 7, 9);
  EXPECT_NE(key.hash(11), key.hash(12));
  EXPECT_NE(key.hash(11), ShadowFieldKey(0x12345678u, 9, 7).hash(11));  // start before size
  EXPECT_EQ(key.hash(11), Kiv::Hash(11).mix4(0x12345678u).mix1(7).mix1(9).result());
  // Pinned values: other processes (of either word size) compute the same slots, so a
  // change here silently breaks every table already in shared memory.
  EXPECT_EQ(key.hash(0), 0x7babe583u);
  EXPECT_EQ(ShadowFieldKey(5, 0, 32).hash(0x9747b28cu), 0x88b68f80u);
  EXPECT_EQ(std::hash<ShadowFieldKey>()(key), key.hash(ShadowFieldKey::collectionHashSeed));
}

TEST(PhysicalTypes, BoundsAreCheckedStartFirstByConstructorsAndParsers) {
  auto const key = [](unsigned start, unsigned size) {
    return fmt::format("Value('TarnRegFile::ShadowFieldKey', ** {{'address': 1, 'start': {}, 'size': {}}})", start,
                       size);
  };
  std::string const field = "Value('TarnRegFile::PhysicalField', ** {'name': " + PhysicalFieldName().valueToStrep();
  struct Case {
    unsigned start, size;
    std::string rule;  // empty: accepted
  } const cases[] = {
      {0, 1, ""},  {31, 32, ""},  // start + size past bit 31 is not these types' business
      {32, 1, "start < 0 or > 31"}, {255, 0, "start < 0 or > 31"},
      {0, 0, "size < 1 or > 32"},   {0, 33, "size < 1 or > 32"},   {0, 255, "size < 1 or > 32"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::Message() << "start " << c.start << " size " << c.size);
    auto const error = [&](std::string const& type) {
      return c.rule.empty() ? "" : type + "::" + c.rule + " not allowed";
    };
    std::string const slice = fmt::format(", 'start': {}, 'size': {}, 'key': ", c.start, c.size);
    EXPECT_EQ(rangeError([&] { PhysicalField(fieldName("c", "r", "f"), U8(c.start), U8(c.size)); }),
              error("TarnRegFile::PhysicalField"));
    EXPECT_EQ(rangeError([&] { parse<PhysicalField>(field + slice + key(0, 1) + "})"); }),
              error("TarnRegFile::PhysicalField"));
    EXPECT_EQ(rangeError([&] { parse<ShadowFieldKey>(key(c.start, c.size)); }), error("TarnRegFile::ShadowFieldKey"));
    // A nested key failing its own check names the attribute it was read for.
    std::string const nestedKey = field + ", 'start': 0, 'size': 1, 'key': " + key(c.start, c.size) + "})";
    EXPECT_EQ(rangeError([&] { parse<PhysicalField>(nestedKey); }), error("key: TarnRegFile::ShadowFieldKey"));
  }
  EXPECT_EQ(PhysicalField(fieldName("c", "r", "f"), 31, 32).key, ShadowFieldKey(0, 0, 1));  // until the owner sets it
}

TEST(PhysicalTypes, TextFormsAreExactAndEveryHookGivesTheSame) {
  PhysicalField field(fieldName("chip0", "ctrl", "en"), 3, 4);
  field.key = ShadowFieldKey(4294967295u, 31, 32);
  ShadowFieldValue const value(ShadowFieldKey(5, 0, 8), 4294967295u);
  EXPECT_EQ(field.valueToStrep(),
            "Value('TarnRegFile::PhysicalField', ** {'name': Value('TarnRegFile::PhysicalFieldName', ** {'regName': "
            "Value('TarnRegFile::PhysicalRegisterName', ** {'chipName': 'chip0', 'name': 'ctrl', 'fullName': "
            "'chip0-ctrl'}), 'name': 'en', 'fullName': 'chip0-ctrl-en'}), 'start': 3, 'size': 4, 'key': "
            "Value('TarnRegFile::ShadowFieldKey', ** {'address': 4294967295, 'start': 31, 'size': 32})})");
  EXPECT_EQ(value.valueToStrep(),
            "Value('TarnRegFile::ShadowFieldValue', ** {'key': Value('TarnRegFile::ShadowFieldKey', ** {'address': 5, "
            "'start': 0, 'size': 8}), 'value': 4294967295})");
  std::ostringstream os;
  os << field << '|' << value;
  EXPECT_EQ(os.str(), field.valueToStrep() + "|" + value.valueToStrep());
  EXPECT_EQ(fmt::format("{}|{}|{}", field, field.key, field.name.regName),
            field.valueToStrep() + "|" + field.key.valueToStrep() + "|" + field.name.regName.valueToStrep());
}

TEST(PhysicalTypes, ParsingReadsBackWhatWasPrintedAndRejectsOtherShapes) {
  PhysicalField field(PhysicalFieldName(RegName("chip\\0", "ct'rl\n"), "en"), 31, 32);
  field.key = ShadowFieldKey(0xFFFFFFFFu, 31, 32);
  ShadowFieldValue const value(ShadowFieldKey(7, 2, 3), 0xDEADBEEFu);
  EXPECT_EQ(parse<RegName>(field.name.regName.valueToStrep()), field.name.regName);
  EXPECT_EQ(parse<PhysicalFieldName>(field.name.valueToStrep()), field.name);
  EXPECT_EQ(parse<PhysicalField>(field.valueToStrep()), field);
  EXPECT_EQ(parse<ShadowFieldKey>(field.key.valueToStrep()), field.key);
  EXPECT_EQ(parse<ShadowFieldValue>(value.valueToStrep()), value);
  // fullName is taken as written, not recomputed from the parts.
  auto const n = parse<PhysicalFieldName>(
      "Value('TarnRegFile::PhysicalFieldName', ** {'regName': Value('TarnRegFile::PhysicalRegisterName', ** "
      "{'chipName': 'c', 'name': 'r', 'fullName': 'other'}), 'name': 'f', 'fullName': 'written'})");
  EXPECT_EQ(n.fullName, "written");

  for (char const* bad : {
           "Value('TarnRegFile::ShadowFieldKey', ** {'address': 1, 'start': 0})",
           "Value('TarnRegFile::ShadowFieldKey', ** {'address': 1, 'size': 1, 'start': 0})",
           "Value('TarnRegFile::ShadowFieldKey', ** {'address': 4294967296, 'start': 0, 'size': 1})",
           "Value('TarnRegFile::PhysicalFieldName', ** {'address': 1, 'start': 0, 'size': 1})",
       })
    EXPECT_THROW(parse<ShadowFieldKey>(bad), Kiv::ParseException) << bad;
}
