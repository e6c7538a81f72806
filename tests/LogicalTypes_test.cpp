#include "TarnRegFile/LogicalTypes.h"

#include "KivException.h"
#include "KivGeneric.h"
#include "KivValueText.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

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

LogicalRegisterName regName(Kiv::String const& chip, Kiv::String const& reg) { return LogicalRegisterName(chip, reg); }

LogicalFieldName fieldName(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return LogicalFieldName(LogicalRegisterName(chip, reg), field);
}

// The fatal-assertion report as a death-test pattern: literal text, regex characters escaped.
std::string fatalReport(std::string const& condition, std::string const& message, std::string const& unit) {
  std::string const text = "condition: " + condition + "\n  message:   " + message + "\n  unit:      " + unit + "\n";
  std::string out;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

TEST(LogicalTypes, NamesComposeFullNameAndDefaultsAreInvalid) {
  EXPECT_EQ(fieldName("chip0", "ctrl", "en").fullName, "chip0-ctrl-en");
  EXPECT_EQ(LogicalRegisterName().fullName, "-");
  EXPECT_EQ(LogicalFieldName().fullName, "--");

  EXPECT_EQ(regName("", "").fullName, "-");
  EXPECT_FALSE(regName("", ""));
  EXPECT_EQ(regName("c", "").fullName, "c-");
  EXPECT_TRUE(regName("c", ""));
  EXPECT_FALSE(LogicalFieldName(regName("", ""), ""));
  EXPECT_TRUE(LogicalFieldName(LogicalRegisterName(), "f"));
  EXPECT_TRUE(LogicalFieldName(regName("c", ""), ""));
}

TEST(LogicalTypes, FieldValidityLooksAtEveryMember) {
  EXPECT_FALSE(LogicalField());
  EXPECT_FALSE(LogicalField(LogicalFieldName(), 0, 1));
  EXPECT_TRUE(LogicalField(fieldName("c", "r", "f"), 0, 1));  // valid name, default slice and value
  LogicalField withValue;
  withValue.value = 1;
  EXPECT_TRUE(withValue);
  EXPECT_TRUE(LogicalField(LogicalFieldName(), 1, 1));
  EXPECT_TRUE(LogicalField(LogicalFieldName(), 0, 2));

  LogicalField a(fieldName("c", "r", "f"), 4, 8);
  LogicalField b = a;
  EXPECT_TRUE(a == b);
  b.value = 7;
  EXPECT_FALSE(a == b);
  b = a;
  b.size = 9;
  EXPECT_FALSE(a == b);
}

TEST(LogicalTypes, LogicalFieldBoundsAreCheckedStartFirst) {
  struct Case {
    unsigned start, size;
    char const* error;  // null: accepted
  } const cases[] = {
      {0, 1, nullptr},
      {63, 32, nullptr},  // start + size past bit 63 is not this type's business
      {64, 1, "TarnRegFile::LogicalField::start < 0 or > 63 not allowed"},
      {255, 32, "TarnRegFile::LogicalField::start < 0 or > 63 not allowed"},
      {0, 0, "TarnRegFile::LogicalField::size < 1 or > 32 not allowed"},
      {0, 33, "TarnRegFile::LogicalField::size < 1 or > 32 not allowed"},
      {0, 255, "TarnRegFile::LogicalField::size < 1 or > 32 not allowed"},
      {64, 0, "TarnRegFile::LogicalField::start < 0 or > 63 not allowed"},
  };
  auto const text = [](unsigned start, unsigned size) {
    return "Value('TarnRegFile::LogicalField', ** {'name': " + LogicalFieldName().valueToStrep() +
           fmt::format(", 'start': {}, 'size': {}, 'value': 3}})", start, size);
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::Message() << "start " << c.start << " size " << c.size);
    try {
      LogicalField const f(fieldName("c", "r", "f"), static_cast<U8>(c.start), static_cast<U8>(c.size));
      EXPECT_EQ(c.error, nullptr);
      EXPECT_EQ(f.value, 0u);
    } catch (Kiv::RangeException const& e) {
      ASSERT_NE(c.error, nullptr) << e.what();
      EXPECT_STREQ(e.what(), c.error);
    }
    // The parser applies the same checks after reading.
    try {
      EXPECT_EQ(parse<LogicalField>(text(c.start, c.size)).value, 3u);
      EXPECT_EQ(c.error, nullptr);
    } catch (Kiv::RangeException const& e) {
      ASSERT_NE(c.error, nullptr) << e.what();
      EXPECT_STREQ(e.what(), c.error);
    }
  }
}

TEST(LogicalTypes, NamesCompareAndOrderOnEveryMember) {
  // Hyphens are not escaped, so these share "x-a-b-c" and the hash, yet are different keys.
  LogicalFieldName const left = fieldName("x", "a-b", "c");
  LogicalFieldName const right = fieldName("x", "a", "b-c");
  EXPECT_EQ(left.fullName, right.fullName);
  EXPECT_EQ(std::hash<LogicalFieldName>()(left), std::hash<LogicalFieldName>()(right));
  EXPECT_EQ(std::hash<LogicalFieldName>()(left), Kiv::stringHash("x-a-b-c"));
  EXPECT_EQ(std::hash<LogicalRegisterName>()(regName("x", "a")), Kiv::stringHash("x-a"));
  EXPECT_FALSE(left == right);
  EXPECT_TRUE(right < left);
  EXPECT_FALSE(left < right);

  LogicalRegister reg(regName("x", "a"));
  reg.fieldIs(left, true);
  reg.fieldIs(right, false);
  EXPECT_EQ(reg.fields().size(), 2u);
  EXPECT_TRUE(reg.field(left));
  EXPECT_FALSE(reg.field(right));

  auto withFullName = [](LogicalRegisterName n, char const* full) {
    n.fullName = full;
    return n;
  };
  EXPECT_TRUE(regName("a", "z") < regName("b", "a"));
  EXPECT_TRUE(regName("a", "a") < regName("a", "b"));
  EXPECT_TRUE(withFullName(regName("a", "a"), "1") < withFullName(regName("a", "a"), "2"));
  EXPECT_FALSE(withFullName(regName("a", "a"), "1") == regName("a", "a"));
  EXPECT_TRUE(fieldName("c", "a", "z") < fieldName("c", "b", "a"));  // register order decides first
  EXPECT_TRUE(fieldName("c", "r", "a") < fieldName("c", "r", "b"));
}

TEST(LogicalTypes, RegisterFieldSetOperations) {
  LogicalFieldName const a = fieldName("c", "r", "a");
  LogicalFieldName const b = fieldName("c", "r", "b");
  LogicalRegister reg(regName("c", "r"));
  EXPECT_TRUE(reg);
  EXPECT_FALSE(LogicalRegister());
  EXPECT_FALSE(reg.fieldHas(a));

  reg.fieldIs(a, true);
  reg.fieldIs(b, false);
  reg.fieldIs(a, false);  // present: flag updated, not inserted twice
  EXPECT_EQ(reg.fields().size(), 2u);
  EXPECT_FALSE(reg.field(a));

  LogicalRegister copy = reg;
  EXPECT_TRUE(copy == reg);
  copy.fieldIs(a, true);
  EXPECT_FALSE(copy == reg);  // the field set takes part in equality
  copy = reg;
  copy.value = 1;
  EXPECT_FALSE(copy == reg);

  reg.fieldDel(fieldName("c", "r", "absent"));
  EXPECT_EQ(reg.fields().size(), 2u);
  reg.fieldDel(a);
  EXPECT_FALSE(reg.fieldHas(a));
  EXPECT_TRUE(reg.fieldHas(b));
  reg.fieldDelAll();
  EXPECT_TRUE(reg.fields().empty());

  // A register with only fields, or only a value, is not the default register.
  LogicalRegister unnamed;
  unnamed.fieldIs(a, false);
  EXPECT_TRUE(unnamed);
  unnamed.fieldDelAll();
  EXPECT_FALSE(unnamed);
  unnamed.value = 1;
  EXPECT_TRUE(unnamed);
}

TEST(LogicalTypes, TextFormsAreExact) {
  LogicalField field(fieldName("chip0", "ctrl", "en"), 63, 32);
  field.value = 4294967295u;
  LogicalRegister reg(regName("chip0", "ctrl"));
  reg.fieldIs(field.name, true);
  reg.value = 18446744073709551615ull;
  struct Case {
    std::string text, expected;
  } const cases[] = {
      {LogicalRegisterName().valueToStrep(),
       "Value('TarnRegFile::LogicalRegisterName', ** {'chipName': '', 'name': '', 'fullName': '-'})"},
      {fieldName("chip0", "ctrl", "en").valueToStrep(),
       "Value('TarnRegFile::LogicalFieldName', ** {'regName': Value('TarnRegFile::LogicalRegisterName', ** "
       "{'chipName': 'chip0', 'name': 'ctrl', 'fullName': 'chip0-ctrl'}), 'name': 'en', 'fullName': "
       "'chip0-ctrl-en'})"},
      {field.valueToStrep(),
       "Value('TarnRegFile::LogicalField', ** {'name': " + field.name.valueToStrep() +
           ", 'start': 63, 'size': 32, 'value': 4294967295})"},
      // The field set is never rendered, even when the register has fields.
      {reg.valueToStrep(),
       "Value('TarnRegFile::LogicalRegister', ** {'name': Value('TarnRegFile::LogicalRegisterName', ** "
       "{'chipName': 'chip0', 'name': 'ctrl', 'fullName': 'chip0-ctrl'}), 'field': None, 'value': "
       "18446744073709551615})"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.text, c.expected);

  std::ostringstream os;
  os << reg << '|' << field;
  EXPECT_EQ(os.str(), reg.valueToStrep() + "|" + field.valueToStrep());
  EXPECT_EQ(fmt::format("{}|{}", field.name, field.name.regName),
            field.name.valueToStrep() + "|" + field.name.regName.valueToStrep());
  EXPECT_EQ(fmt::format("{}", reg), reg.valueToStrep());
  EXPECT_EQ(Kiv::toStrep(field), field.valueToStrep());
}

TEST(LogicalTypes, ParsingReadsBackWhatWasPrinted) {
  LogicalRegisterName const reg("chip'0", "ctrl\\x");
  LogicalFieldName const name(reg, "e\tn");
  LogicalField field(name, 40, 17);
  field.value = 0x1FFFFu;

  EXPECT_EQ(parse<LogicalRegisterName>(reg.valueToStrep()), reg);
  EXPECT_EQ(parse<LogicalRegisterName>(LogicalRegisterName().valueToStrep()), LogicalRegisterName());
  EXPECT_EQ(parse<LogicalFieldName>(name.valueToStrep()), name);
  EXPECT_EQ(parse<LogicalFieldName>(LogicalFieldName().valueToStrep()), LogicalFieldName());
  EXPECT_EQ(parse<LogicalField>(field.valueToStrep()), field);
  EXPECT_EQ(Kiv::fromText<LogicalField>(field.valueToStrep()), field);

  // fullName is taken as written, not recomputed from the parts.
  auto const written = parse<LogicalRegisterName>(
      "Value('TarnRegFile::LogicalRegisterName', ** {'chipName': 'c', 'name': 'r', 'fullName': 'zz'})");
  EXPECT_EQ(written.fullName, "zz");
  EXPECT_FALSE(written == regName("c", "r"));
}

TEST(LogicalTypes, MalformedTextIsAParseErrorNamingTheAttribute) {
  try {
    parse<LogicalField>("Value('TarnRegFile::LogicalField', ** {'name': 'x', 'start': 0, 'size': 1, 'value': 0})");
    ADD_FAILURE() << "no parse error";
  } catch (Kiv::ParseException const& e) {
    EXPECT_EQ(std::string(e.what()).rfind("name: ", 0), 0u) << e.what();
  }
  EXPECT_THROW(parse<LogicalField>("Value('TarnRegFile::LogicalField', ** {'name': " +
                                   LogicalFieldName().valueToStrep() + ", 'start': 0, 'size': 1, 'value': 0}"),
               Kiv::ParseException);
  EXPECT_THROW(parse<LogicalRegisterName>("Value('TarnRegFile::PhysicalRegisterName', ** {'chipName': '', "
                                          "'name': '', 'fullName': '-'})"),
               Kiv::ParseException);
}

TEST(LogicalTypesDeathTest, RegisterHasNoTextParser) {
  std::string const text = LogicalRegister(regName("c", "r")).valueToStrep();
  std::string const report = fatalReport("\"No String constructor for LogicalRegister - has collection\" == nullptr",
                                         "", "TarnRegFile/LogicalTypes");
  EXPECT_DEATH(parse<LogicalRegister>(text), report);
  EXPECT_DEATH(Kiv::fromText<LogicalRegister>(text), report);
}

TEST(LogicalTypes, NamePartsHashAndMatchLikeTheNamesTheyStandFor) {
  // Every length residue of the shared prefix, and names longer than the inline buffer.
  std::string const regs[] = {"", "r", "rg", "reg", "regs", "regis", std::string(300, 'q')};
  std::string const fields[] = {"", "f", "fi", "fie", "fiel", std::string(200, 'z')};
  Kiv::String const chip("chip0");
  for (auto const& reg : regs) {
    for (auto const& field : fields) {
      SCOPED_TRACE(reg.size() * 1000 + field.size());
      LogicalFieldNameParts const parts(chip, reg, field);
      LogicalFieldName const name = fieldName(chip, Kiv::String(reg), Kiv::String(field));
      EXPECT_EQ(parts.regFullName(), name.regName.fullName.view());
      EXPECT_EQ(parts.fullName(), name.fullName.view());
      EXPECT_EQ(parts.regHash(), name.regName.fullName.hash());
      EXPECT_EQ(parts.hash(), name.fullName.hash());
      EXPECT_TRUE(parts.sameRegister(name.regName));
      EXPECT_TRUE(parts.sameField(name));
      EXPECT_EQ(parts.fieldName(), name);
      EXPECT_EQ(LogicalFieldNameHash()(parts.asField()), std::hash<LogicalFieldName>()(name));
      EXPECT_EQ(LogicalRegisterNameHash()(parts.asRegister()), std::hash<LogicalRegisterName>()(name.regName));
    }
  }
}

TEST(LogicalTypes, NamePartsMatchOnEveryMember) {
  Kiv::String const chip("x");
  LogicalFieldNameParts const parts(chip, "a-b", "c");
  EXPECT_FALSE(parts.sameField(fieldName("x", "a", "b-c")));  // same full name and hash, other parts
  EXPECT_FALSE(parts.sameRegister(regName("x-a", "b")));
  EXPECT_FALSE(parts.sameField(fieldName("x-a", "b", "c")));  // only the register's parts differ
  EXPECT_FALSE(parts.sameField(fieldName("y", "a-b", "c")));
  EXPECT_FALSE(parts.sameField(fieldName("x", "a-b", "d")));
  LogicalFieldName written = fieldName("x", "a-b", "c");
  written.fullName = "x-a-b-c ";
  EXPECT_FALSE(parts.sameField(written));  // a parsed name whose full name was written differently

  LogicalRegister reg(regName("x", "a-b"));
  reg.fieldIs(fieldName("x", "a", "b-c"), true);
  EXPECT_FALSE(reg.fieldHas(parts.asField()));
  reg.fieldIs(fieldName("x", "a-b", "c"), true);
  EXPECT_TRUE(reg.fieldHas(parts.asField()));
}
