// The physical field and the shadow-field key and value (the names are tested with the
// logical ones, the machinery they share in KivRuntime_test).

#include "TarnRegFile/PhysicalTypes.h"

#include "support/ValueText.h"

#include <gtest/gtest.h>

#include <string>

using namespace TarnRegFile;
using TestSupport::errorOf;
using TestSupport::parse;

namespace {

PhysicalFieldName const someName(PhysicalRegisterName("c", "r"), "f");

}  // namespace

TEST(PhysicalTypes, ValidityAndEqualityLookAtEveryMember) {
  EXPECT_FALSE(ShadowFieldKey() || ShadowFieldValue() || PhysicalField(PhysicalFieldName(), 0, 1));
  for (ShadowFieldKey const key : {ShadowFieldKey(1, 0, 1), ShadowFieldKey(0, 1, 1), ShadowFieldKey(0, 0, 2)}) {
    EXPECT_TRUE(key && ShadowFieldValue(key, 0)) << key;
    EXPECT_FALSE(key == ShadowFieldKey() || ShadowFieldValue(key, 0) == ShadowFieldValue()) << key;
  }
  EXPECT_TRUE(ShadowFieldValue(ShadowFieldKey(), 1) && PhysicalField(someName, 0, 1));
  EXPECT_FALSE(ShadowFieldValue(ShadowFieldKey(), 1) == ShadowFieldValue());
}

TEST(PhysicalTypes, ShadowFieldKeyHashIsSeededAndPinnedForEveryProcess) {
  ShadowFieldKey const key(0x12345678u, 7, 9);
  EXPECT_NE(key.hash(11), key.hash(12));
  EXPECT_EQ(key.hash(11), Kiv::Hash(11).mix4(0x12345678u).mix1(7).mix1(9).result());
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
      {32, 1, "start < 0 or > 31"}, {255, 0, "start < 0 or > 31"},
      {0, 0, "size < 1 or > 32"},   {0, 33, "size < 1 or > 32"},   {0, 255, "size < 1 or > 32"},
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
  EXPECT_EQ(PhysicalField(someName, 31, 32).key, ShadowFieldKey(0, 0, 1));  // until the owner sets it
}

TEST(PhysicalTypes, TextFormsAreExactAndReadBack) {
  PhysicalField field(PhysicalFieldName(PhysicalRegisterName("chip0", "ctrl"), "en"), 3, 4);
  field.key = ShadowFieldKey(4294967295u, 31, 32);
  ShadowFieldValue const value(ShadowFieldKey(5, 0, 8), 4294967295u);
  EXPECT_EQ(field.valueToStrep(), "Value('TarnRegFile::PhysicalField', ** {'name': " + field.name.valueToStrep() +
                                      ", 'start': 3, 'size': 4, 'key': Value('TarnRegFile::ShadowFieldKey', ** "
                                      "{'address': 4294967295, 'start': 31, 'size': 32})})");
  EXPECT_EQ(value.valueToStrep(), "Value('TarnRegFile::ShadowFieldValue', ** {'key': Value('TarnRegFile::ShadowFieldKey', "
                                  "** {'address': 5, 'start': 0, 'size': 8}), 'value': 4294967295})");
  EXPECT_EQ(parse<PhysicalField>(field.valueToStrep()), field);
  EXPECT_EQ(parse<ShadowFieldValue>(value.valueToStrep()), value);
}
