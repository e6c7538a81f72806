// The physical field and the shadow-field key and value (the names are tested with the logical ones).

#include "TarnRegFile/PhysicalTypes.h"

#include "support/ValueText.h"

#include <gtest/gtest.h>

#include <string>

using namespace TarnRegFile;
using TestSupport::parse;
using TestSupport::rangeError;

namespace {

PhysicalFieldName fieldName(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& field) {
  return PhysicalFieldName(PhysicalRegisterName(chip, reg), field);
}

}  // namespace

TEST(PhysicalTypes, ValidityEqualityAndKeyOrderLookAtEveryMember) {
  EXPECT_FALSE(ShadowFieldKey());
  EXPECT_TRUE(ShadowFieldKey(0, 0, 2));
  EXPECT_FALSE(ShadowFieldValue());
  EXPECT_TRUE(ShadowFieldValue(ShadowFieldKey(), 1));
  EXPECT_TRUE(ShadowFieldValue(ShadowFieldKey(0, 3, 1), 0));
  EXPECT_FALSE(PhysicalField(PhysicalFieldName(), 0, 1));
  EXPECT_TRUE(PhysicalField(fieldName("c", "r", "f"), 0, 1));
  std::pair<ShadowFieldKey, ShadowFieldKey> const ordered[] = {
      {{5, 0, 32}, {5, 1, 1}}, {{5, 3, 4}, {5, 3, 8}}, {{4, 31, 32}, {5, 0, 1}}, {{0xFFFFFFFEu, 31, 32}, {0xFFFFFFFFu, 0, 1}}};
  for (auto const& [lower, higher] : ordered) {
    EXPECT_TRUE(lower < higher) << lower << " / " << higher;
    EXPECT_FALSE(higher < lower || lower == higher) << lower << " / " << higher;
  }
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

TEST(PhysicalTypes, TextFormsAreExactAndReadBack) {
  PhysicalField field(fieldName("chip0", "ctrl", "en"), 3, 4);
  field.key = ShadowFieldKey(4294967295u, 31, 32);
  ShadowFieldValue const value(ShadowFieldKey(5, 0, 8), 4294967295u);
  EXPECT_EQ(fmt::format("{}", field), "Value('TarnRegFile::PhysicalField', ** {'name': " + field.name.valueToStrep() +
                                          ", 'start': 3, 'size': 4, 'key': Value('TarnRegFile::ShadowFieldKey', ** "
                                          "{'address': 4294967295, 'start': 31, 'size': 32})})");
  EXPECT_EQ(testing::PrintToString(value),
            "Value('TarnRegFile::ShadowFieldValue', ** {'key': Value('TarnRegFile::ShadowFieldKey', ** {'address': 5, "
            "'start': 0, 'size': 8}), 'value': 4294967295})");
  EXPECT_EQ(parse<PhysicalField>(field.valueToStrep()), field);
  EXPECT_EQ(parse<ShadowFieldKey>(field.key.valueToStrep()), field.key);
  EXPECT_EQ(parse<ShadowFieldValue>(value.valueToStrep()), value);
  for (char const* bad : {
           "Value('TarnRegFile::ShadowFieldKey', ** {'address': 1, 'start': 0})",
           "Value('TarnRegFile::ShadowFieldKey', ** {'address': 1, 'size': 1, 'start': 0})",
           "Value('TarnRegFile::ShadowFieldKey', ** {'address': 4294967296, 'start': 0, 'size': 1})",
           "Value('TarnRegFile::PhysicalFieldName', ** {'address': 1, 'start': 0, 'size': 1})",
       })
    EXPECT_THROW(parse<ShadowFieldKey>(bad), Kiv::ParseException) << bad;
}
