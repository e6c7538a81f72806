// The register and field names of both models (one template), and the logical field and register.

#include "TarnRegFile/LogicalTypes.h"
#include "TarnRegFile/PhysicalTypes.h"

#include "support/ValueText.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

using namespace TarnRegFile;
using TestSupport::parse;
using TestSupport::rangeError;

namespace {

template <class F>
struct NamesTest : testing::Test {
  using Field = F;
  using Reg = typename F::RegisterName;
  static F field(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& name) {
    return F(Reg(chip, reg), name);
  }
};
using NameKinds = testing::Types<LogicalFieldName, PhysicalFieldName>;
TYPED_TEST_SUITE(NamesTest, NameKinds);

LogicalFieldName fieldName(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return NamesTest<LogicalFieldName>::field(chip, reg, field);
}

}  // namespace

TYPED_TEST(NamesTest, ComposeFullNamesAndAreValidWhenNotTheDefault) {
  using Reg = typename TestFixture::Reg;
  using Field = typename TestFixture::Field;
  EXPECT_EQ(TestFixture::field("chip0", "ctrl", "en").fullName, "chip0-ctrl-en");
  EXPECT_EQ(Field().fullName, "--");
  EXPECT_EQ(Reg("", "").fullName, "-");
  EXPECT_FALSE(Reg("", ""));
  EXPECT_EQ(Reg("c", "").fullName, "c-");
  EXPECT_TRUE(Reg("c", ""));
  EXPECT_FALSE(Field(Reg("", ""), ""));
  EXPECT_TRUE(Field(Reg(), "f"));
}

TYPED_TEST(NamesTest, CompareOrderAndHashOnEveryMemberNotJustTheFullName) {
  using Reg = typename TestFixture::Reg;
  // Hyphens are not escaped, so these share "x-a-b-c" and its hash, yet are different keys.
  auto const left = TestFixture::field("x", "a-b", "c");
  auto const right = TestFixture::field("x", "a", "b-c");
  EXPECT_EQ(std::hash<typename TestFixture::Field>()(left), Kiv::stringHash("x-a-b-c"));
  EXPECT_EQ(std::hash<typename TestFixture::Field>()(right), Kiv::stringHash("x-a-b-c"));
  Reg written("a", "a");
  written.fullName = "1";  // as a parser may read it
  std::pair<Reg, Reg> const regs[] = {{written, Reg("a", "a")}, {Reg("a", "z"), Reg("b", "a")}, {Reg("a", "a"), Reg("a", "b")}};
  for (auto const& [lower, higher] : regs) {
    EXPECT_TRUE(lower < higher) << lower << " / " << higher;
    EXPECT_FALSE(higher < lower || lower == higher) << lower << " / " << higher;
  }
  EXPECT_TRUE(right < left && !(left < right) && !(left == right));  // "a" < "a-b" decides on the register
  EXPECT_TRUE(TestFixture::field("c", "a", "z") < TestFixture::field("c", "b", "a"));
  EXPECT_TRUE(TestFixture::field("c", "r", "a") < TestFixture::field("c", "r", "b"));
}

TYPED_TEST(NamesTest, TextFormIsExactEveryHookGivesItAndTheParserReadsItBack) {
  using Reg = typename TestFixture::Reg;
  using Field = typename TestFixture::Field;
  std::string const kind = std::is_same_v<Field, LogicalFieldName> ? "Logical" : "Physical";
  auto const name = TestFixture::field("chip0", "ctrl", "en");
  EXPECT_EQ(name.valueToStrep(), "Value('TarnRegFile::" + kind + "FieldName', ** {'regName': Value('TarnRegFile::" +
                                     kind + "RegisterName', ** {'chipName': 'chip0', 'name': 'ctrl', 'fullName': "
                                            "'chip0-ctrl'}), 'name': 'en', 'fullName': 'chip0-ctrl-en'})");
  std::ostringstream os;
  os << name << '|' << name.regName;
  EXPECT_EQ(os.str(), fmt::format("{}|{}", name, name.regName));
  EXPECT_EQ(os.str(), name.valueToStrep() + "|" + name.regName.valueToStrep());

  auto const odd = TestFixture::field("chip'0", "ctrl\\x\n", "e\tn");
  EXPECT_EQ(parse<Reg>(odd.regName.valueToStrep()), odd.regName);
  EXPECT_EQ(parse<Field>(odd.valueToStrep()), odd);
  // fullName is taken as written, not recomputed from the parts.
  EXPECT_EQ(parse<Reg>("Value('TarnRegFile::" + kind + "RegisterName', ** {'chipName': 'c', 'name': 'r', "
                                                       "'fullName': 'zz'})").fullName, "zz");
  std::string const other = kind == "Logical" ? "Physical" : "Logical";
  for (std::string const& bad : {"Value('TarnRegFile::" + other + "RegisterName', ** {'chipName': 'c', 'name': 'r', 'fullName': 'c-r'})",
                                 "Value('TarnRegFile::" + kind + "RegisterName', ** {'chipName':'c', 'name': 'r', 'fullName': 'c-r'})",
                                 "Value('TarnRegFile::" + kind + "RegisterName', ** {'name': 'r', 'chipName': 'c', 'fullName': 'c-r'})",
                                 "Value('TarnRegFile::" + kind + "RegisterName', ** {'chipName': 'c', 'name': 'r', 'fullName': 'c-r'}"})
    EXPECT_THROW(parse<Reg>(bad), Kiv::ParseException) << bad;
}

TEST(LogicalTypes, FieldBoundsAreCheckedStartFirstByConstructorAndParser) {
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
  EXPECT_FALSE(LogicalField(LogicalFieldName(), 0, 1));
  EXPECT_TRUE(LogicalField(fieldName("c", "r", "f"), 0, 1));  // valid name, default slice and value
  for (LogicalField f : {LogicalField(LogicalFieldName(), 1, 1), LogicalField(LogicalFieldName(), 0, 2), LogicalField()}) {
    if (!f) f.value = 1;
    EXPECT_TRUE(f);
    EXPECT_FALSE(f == LogicalField());
  }
}

TEST(LogicalTypes, FieldAndRegisterTextFormsAreExactAndTheFieldReadsBack) {
  LogicalField field(fieldName("chip0", "ctrl", "en"), 63, 32);
  field.value = 4294967295u;
  LogicalRegister reg(LogicalRegisterName("chip0", "ctrl"));
  reg.fieldIs(field.name, true);
  reg.value = 18446744073709551615ull;
  EXPECT_EQ(field.valueToStrep(), "Value('TarnRegFile::LogicalField', ** {'name': " + field.name.valueToStrep() +
                                      ", 'start': 63, 'size': 32, 'value': 4294967295})");
  // The field set is never rendered, even when the register has fields.
  EXPECT_EQ(fmt::format("{}", reg), "Value('TarnRegFile::LogicalRegister', ** {'name': " + reg.name.valueToStrep() +
                                        ", 'field': None, 'value': 18446744073709551615})");
  EXPECT_EQ(parse<LogicalField>(field.valueToStrep()), field);
}

TEST(LogicalTypesDeathTest, RegisterHasNoTextParser) {
  EXPECT_DEATH(parse<LogicalRegister>(LogicalRegister(LogicalRegisterName("c", "r")).valueToStrep()),
               "condition: \"No String constructor for LogicalRegister - has collection\" == nullptr\n"
               "  message:   \n  unit:      TarnRegFile/LogicalTypes\n");
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
      EXPECT_EQ(LogicalFieldNameParts(chip, name.regName.name, name.name).hash(), parts.hash());  // cached hashes
    }
  }
  LogicalFieldNameParts const parts(x, "a-b", "c");
  EXPECT_FALSE(parts.sameField(fieldName("x", "a", "b-c")));  // same full name and hash, other parts
  EXPECT_FALSE(parts.sameField(fieldName("x-a", "b", "c")));  // only the register's parts differ
  LogicalFieldName written = fieldName("x", "a-b", "c");
  written.fullName = "x-a-b-c ";
  EXPECT_FALSE(parts.sameField(written));  // a parsed name whose full name was written differently
  LogicalRegister reg(LogicalRegisterName("x", "a-b"));
  reg.fieldIs(fieldName("x", "a", "b-c"), true);
  EXPECT_FALSE(reg.fieldHas(parts.asField()));
  reg.fieldIs(fieldName("x", "a-b", "c"), true);
  EXPECT_TRUE(reg.fieldHas(parts.asField()));
}
