// The value types of both models: register and field names (one template), the logical
// field and register, the physical field and the shadow-field key and value. The machinery
// they share (text form, parser, order, hash: one attribute list) is tested once, with the
// shadow-field key and value; the other tests check what each type declares.

#include "TarnRegFile/LogicalTypes.h"
#include "TarnRegFile/PhysicalTypes.h"

#include "support/ValueText.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

using namespace TarnRegFile;
using TestSupport::errorOf;
using TestSupport::parse;

namespace {

template <class F>
struct NamesTest : testing::Test {};
using NameKinds = testing::Types<LogicalFieldName, PhysicalFieldName>;
TYPED_TEST_SUITE(NamesTest, NameKinds);

PhysicalFieldName const someName(PhysicalRegisterName("c", "r"), "f");

LogicalFieldName fieldName(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return LogicalFieldName(LogicalRegisterName(chip, reg), field);
}

}  // namespace

TYPED_TEST(NamesTest, FullNamesTextFormValidityAndHash) {
  using Field = TypeParam;
  using Reg = typename Field::RegisterName;
  std::string const kind = std::is_same_v<Field, LogicalFieldName> ? "Logical" : "Physical";
  Field const name(Reg("chip0", "ctrl"), "en");
  EXPECT_EQ(name.valueToStrep(), "Value('TarnRegFile::" + kind + "FieldName', ** {'regName': Value('TarnRegFile::" +
                                     kind + "RegisterName', ** {'chipName': 'chip0', 'name': 'ctrl', 'fullName': "
                                            "'chip0-ctrl'}), 'name': 'en', 'fullName': 'chip0-ctrl-en'})");
  EXPECT_FALSE(Reg("", "") || Field(Reg("", ""), ""));
  EXPECT_TRUE(Reg("c", "") && Field(Reg(), "f"));

  // Hyphens are not escaped: these share "x-a-b-c" and its hash, yet are different names.
  Field const left(Reg("x", "a-b"), "c"), right(Reg("x", "a"), "b-c");
  EXPECT_EQ(std::hash<Field>()(name), 0x891f1152u);  // the string hash of "chip0-ctrl-en", pinned
  EXPECT_EQ(std::hash<Field>()(left), Kiv::stringHash("x-a-b-c"));
  EXPECT_TRUE(right < left && !(left == right));

  Field const odd(Reg("chip'0", "ctrl\\x\n"), "e\tn");
  EXPECT_EQ(parse<Field>(odd.valueToStrep()), odd);
  // fullName is taken as written, not recomputed from the parts.
  EXPECT_EQ(parse<Reg>("Value('TarnRegFile::" + kind + "RegisterName', ** {'chipName': 'c', 'name': 'r', "
                                                       "'fullName': 'zz'})").fullName, "zz");
}

// Validity by every member is the shared machinery's, tested with the physical types.
TEST(LogicalTypes, FieldBoundsAreCheckedStartFirstByConstructorAndParser) {
  std::string const startError = "TarnRegFile::LogicalField::start < 0 or > 63 not allowed";
  std::string const sizeError = "TarnRegFile::LogicalField::size < 1 or > 32 not allowed";
  struct Case {
    unsigned start, size;
    std::string error;  // empty: accepted
  } const cases[] = {
      {0, 1, ""},          {63, 32, ""},  // start + size past bit 63 is not this type's business
      {64, 0, startError}, {0, 0, sizeError}, {0, 33, sizeError},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::Message() << "start " << c.start << " size " << c.size);
    EXPECT_EQ(errorOf([&] { LogicalField(fieldName("c", "r", "f"), U8(c.start), U8(c.size)); }), c.error);
    std::string const text = "Value('TarnRegFile::LogicalField', ** {'name': " + LogicalFieldName().valueToStrep() +
                             fmt::format(", 'start': {}, 'size': {}, 'value': 3}})", c.start, c.size);
    EXPECT_EQ(errorOf([&] { parse<LogicalField>(text); }), c.error);
  }
}

// The field's parser is exercised by the bounds test above.
TEST(LogicalTypes, FieldAndRegisterTextFormsAreExact) {
  LogicalField field(fieldName("chip0", "ctrl", "en"), 63, 32);
  field.value = 4294967295u;
  LogicalRegister reg(LogicalRegisterName("chip0", "ctrl"));
  reg.fieldIs(field.name, true);
  reg.value = 18446744073709551615ull;
  EXPECT_EQ(field.valueToStrep(), "Value('TarnRegFile::LogicalField', ** {'name': " + field.name.valueToStrep() +
                                      ", 'start': 63, 'size': 32, 'value': 4294967295})");
  // The field set is never rendered, even when the register has fields.
  EXPECT_EQ(reg.valueToStrep(), "Value('TarnRegFile::LogicalRegister', ** {'name': " + reg.name.valueToStrep() +
                                    ", 'field': None, 'value': 18446744073709551615})");
}

TEST(LogicalTypesDeathTest, RegisterHasNoTextParser) {
  EXPECT_DEATH(parse<LogicalRegister>(LogicalRegister(LogicalRegisterName("c", "r")).valueToStrep()),
               "condition: \"No String constructor for LogicalRegister - has collection\" == nullptr\n"
               "  message:   \n  unit:      TarnRegFile/LogicalTypes\n");
}

// Lookups by colliding names are tested with the name parts below.
TEST(LogicalTypes, RegisterFieldSetKeepsCollidingNamesApartAndMakesTheRegisterValid) {
  LogicalFieldName const a = fieldName("x", "a-b", "c");
  LogicalFieldName const b = fieldName("x", "a", "b-c");  // same fullName as a
  LogicalRegister reg;
  EXPECT_FALSE(reg);
  reg.fieldIs(a, true);
  EXPECT_TRUE(reg);  // fields alone already differ from the default register
  reg.fieldIs(b, true);
  reg.fieldIs(a, false);  // present: flag updated, not inserted twice
  EXPECT_EQ(reg.fields().size(), 2u);
  EXPECT_TRUE(!reg.field(a) && reg.field(b));
}

TEST(LogicalTypes, NamePartsHashAndMatchExactlyLikeTheNamesTheyStandFor) {
  Kiv::String const chip("chip0"), x("x");  // the parts refer to the chip name
  for (std::string const& reg : {std::string(), std::string("r"), std::string("regis"), std::string(300, 'q')}) {
    for (std::string const& field : {std::string(), std::string("f"), std::string("fiel"), std::string(200, 'z')}) {
      SCOPED_TRACE(reg.size() * 1000 + field.size());
      LogicalFieldNameParts const parts(chip, reg, field);
      LogicalFieldName const name = fieldName(chip, Kiv::String(reg), Kiv::String(field));
      EXPECT_EQ(parts.regHash(), LogicalRegisterNameHash()(name.regName));
      EXPECT_EQ(parts.hash(), LogicalFieldNameHash()(name));
      EXPECT_TRUE(parts.sameField(name));
    }
  }
  LogicalFieldNameParts const parts(x, "a-b", "c");
  EXPECT_FALSE(parts.sameField(fieldName("x", "a", "b-c")));  // same full name and hash, other parts
  LogicalFieldName written = fieldName("x", "a-b", "c");
  written.fullName = "x-a-b-c ";
  EXPECT_FALSE(parts.sameField(written));  // a parsed name whose full name was written differently
  LogicalRegister reg(LogicalRegisterName("x", "a-b"));
  reg.fieldIs(fieldName("x", "a", "b-c"), true);
  EXPECT_FALSE(reg.fieldHas(parts.asField()));
  reg.fieldIs(fieldName("x", "a-b", "c"), true);
  EXPECT_TRUE(reg.fieldHas(parts.asField()));
}

TEST(PhysicalTypes, ValidityAndEqualityLookAtEveryMember) {
  EXPECT_FALSE(ShadowFieldKey() || ShadowFieldValue() || PhysicalField(PhysicalFieldName(), 0, 1));
  for (ShadowFieldKey const key : {ShadowFieldKey(1, 0, 1), ShadowFieldKey(0, 1, 1), ShadowFieldKey(0, 0, 2)}) {
    EXPECT_TRUE(key && ShadowFieldValue(key, 0)) << key;
    EXPECT_FALSE(key == ShadowFieldKey() || ShadowFieldValue(key, 0) == ShadowFieldValue()) << key;
  }
  EXPECT_TRUE(ShadowFieldValue(ShadowFieldKey(), 1) && PhysicalField(someName, 0, 1));
  EXPECT_FALSE(ShadowFieldValue(ShadowFieldKey(), 1) == ShadowFieldValue());
}

TEST(PhysicalTypes, KeysOrderByTheFirstDifferingAttribute) {
  std::pair<ShadowFieldKey, ShadowFieldKey> const ordered[] = {{{1, 9, 9}, {2, 0, 1}}, {{1, 1, 9}, {1, 2, 1}}, {{1, 1, 1}, {1, 1, 2}}};
  for (auto const& [lower, higher] : ordered) {
    EXPECT_TRUE(lower < higher) << lower << " / " << higher;
    EXPECT_FALSE(higher < lower || lower == higher) << lower << " / " << higher;
  }
}

TEST(PhysicalTypes, ShadowFieldKeyHashIsSeededAndPinnedForEveryProcess) {
  ShadowFieldKey const key(0x12345678u, 7, 9);
  // Pinned values (of the runtime's hash too): other processes (of either word size)
  // compute the same slots, so a change here silently breaks every table already in shared memory.
  EXPECT_EQ(key.hash(0), 0x7babe583u);
  EXPECT_EQ(ShadowFieldKey(5, 0, 32).hash(0), 0x33fe2153u);
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
      {32, 0, "start < 0 or > 31"}, {0, 0, "size < 1 or > 32"}, {0, 33, "size < 1 or > 32"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::Message() << "start " << c.start << " size " << c.size);
    auto const error = [&](std::string const& type) {
      return c.rule.empty() ? "" : type + "::" + c.rule + " not allowed";
    };
    std::string const slice = fmt::format(", 'start': {}, 'size': {}, 'key': ", c.start, c.size);
    EXPECT_EQ(errorOf([&] { PhysicalField(someName, U8(c.start), U8(c.size)); }), error("TarnRegFile::PhysicalField"));
    EXPECT_EQ(errorOf([&] { parse<PhysicalField>(field + slice + key(0, 1) + "})"); }),
              error("TarnRegFile::PhysicalField"));
    EXPECT_EQ(errorOf([&] { parse<ShadowFieldKey>(key(c.start, c.size)); }), error("TarnRegFile::ShadowFieldKey"));
    // A nested key failing its own check names the attribute it was read for.
    std::string const nestedKey = field + ", 'start': 0, 'size': 1, 'key': " + key(c.start, c.size) + "})";
    EXPECT_EQ(errorOf([&] { parse<PhysicalField>(nestedKey); }), error("key: TarnRegFile::ShadowFieldKey"));
  }
}

TEST(PhysicalTypes, TextFormsAreExactFormattingGivesThemAndTheParserTakesNothingElse) {
  PhysicalField field(PhysicalFieldName(PhysicalRegisterName("chip0", "ctrl"), "en"), 3, 4);
  field.key = ShadowFieldKey(4294967295u, 31, 32);
  ShadowFieldValue const value(ShadowFieldKey(5, 0, 8), 4294967295u);
  EXPECT_EQ(field.valueToStrep(), "Value('TarnRegFile::PhysicalField', ** {'name': " + field.name.valueToStrep() +
                                      ", 'start': 3, 'size': 4, 'key': Value('TarnRegFile::ShadowFieldKey', ** "
                                      "{'address': 4294967295, 'start': 31, 'size': 32})})");
  EXPECT_EQ(value.valueToStrep(), "Value('TarnRegFile::ShadowFieldValue', ** {'key': Value('TarnRegFile::ShadowFieldKey', "
                                  "** {'address': 5, 'start': 0, 'size': 8}), 'value': 4294967295})");
  EXPECT_EQ(fmt::format("{}", value), value.valueToStrep());
  EXPECT_EQ(parse<ShadowFieldValue>(value.valueToStrep()), value);

  auto const key = [](std::string const& start) {
    return "'key': Value('TarnRegFile::ShadowFieldKey', ** {'address': 1, 'start': " + start + ", 'size': 1})";
  };
  std::string const head = "Value('TarnRegFile::ShadowFieldValue', ** {";
  std::pair<std::string, std::string> const bad[] = {  // text, what the parse error says
      {"Value('TarnRegFile::ShadowFieldKey', ** {'address': 1, 'start': 0, 'size': 1})",
       "expected \"Value('TarnRegFile::ShadowFieldValue', ** {\""},
      {head + "'value': 1, " + key("0") + "})", "expected \"'key': \""},
      {head + key("256") + ", 'value': 1})", "key: start: number above 255"},
      {head + key(" 0") + ", 'value': 1})", "key: start: expected a decimal number"},
  };
  for (auto const& [input, error] : bad) {
    std::string const what = errorOf<Kiv::ParseException>([&] { parse<ShadowFieldValue>(input); });
    EXPECT_TRUE(what.starts_with(error)) << input << "\n" << what;
  }
}
