#include "TarnRegFile/PhysicalTypes.h"

#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/KivValueText.h"

#include <ostream>

namespace TarnRegFile {
namespace {

// Default names are built often (lookups of absent keys, default fields); sharing
// one immutable string each keeps that to a count increment.
Kiv::String const& defaultRegisterFullName() {
  static Kiv::String const* const s = new Kiv::String("-");
  return *s;
}
Kiv::String const& defaultFieldFullName() {
  static Kiv::String const* const s = new Kiv::String("--");
  return *s;
}

// Widths are unsigned 8-bit: 0 wraps to 255, so one comparison rejects 0 and 33..255.
bool sizeOutOfRange(U8 size) { return static_cast<U8>(size - 1) > 31; }

}  // namespace

// ---- PhysicalRegisterName

PhysicalRegisterName::PhysicalRegisterName() : fullName(defaultRegisterFullName()) {}

PhysicalRegisterName::PhysicalRegisterName(Kiv::String const& chipName_, Kiv::String const& name_)
    : chipName(chipName_), name(name_), fullName(Kiv::String::concat({chipName_, "-", name_})) {}

PhysicalRegisterName::PhysicalRegisterName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::PhysicalRegisterName', ** {");
  r.expect("'chipName': ");
  r.attr("chipName", chipName);
  r.expect(", 'name': ");
  r.attr("name", name);
  r.expect(", 'fullName': ");
  r.attr("fullName", fullName);
  r.expect("})");
}

PhysicalRegisterName::operator bool() const noexcept {
  return !chipName.empty() || !name.empty() || !(fullName == defaultRegisterFullName());
}

bool PhysicalRegisterName::operator==(PhysicalRegisterName const& o) const noexcept {
  return chipName == o.chipName && name == o.name && fullName == o.fullName;
}

bool PhysicalRegisterName::operator<(PhysicalRegisterName const& o) const noexcept {
  if (auto c = chipName <=> o.chipName; c != 0) return c < 0;
  if (auto c = name <=> o.name; c != 0) return c < 0;
  return fullName < o.fullName;
}

std::string PhysicalRegisterName::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::PhysicalRegisterName")
      .attr("chipName", chipName)
      .attr("name", name)
      .attr("fullName", fullName)
      .end();
  return out;
}

// ---- PhysicalFieldName

PhysicalFieldName::PhysicalFieldName() : fullName(defaultFieldFullName()) {}

PhysicalFieldName::PhysicalFieldName(PhysicalRegisterName const& regName_, Kiv::String const& name_)
    : regName(regName_), name(name_), fullName(Kiv::String::concat({regName_.fullName, "-", name_})) {}

PhysicalFieldName::PhysicalFieldName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::PhysicalFieldName', ** {");
  r.expect("'regName': ");
  r.attr("regName", regName);
  r.expect(", 'name': ");
  r.attr("name", name);
  r.expect(", 'fullName': ");
  r.attr("fullName", fullName);
  r.expect("})");
}

PhysicalFieldName::operator bool() const noexcept {
  return static_cast<bool>(regName) || !name.empty() || !(fullName == defaultFieldFullName());
}

bool PhysicalFieldName::operator==(PhysicalFieldName const& o) const noexcept {
  return regName == o.regName && name == o.name && fullName == o.fullName;
}

bool PhysicalFieldName::operator<(PhysicalFieldName const& o) const noexcept {
  if (regName < o.regName) return true;
  if (o.regName < regName) return false;
  if (auto c = name <=> o.name; c != 0) return c < 0;
  return fullName < o.fullName;
}

std::string PhysicalFieldName::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::PhysicalFieldName")
      .attr("regName", regName)
      .attr("name", name)
      .attr("fullName", fullName)
      .end();
  return out;
}

// ---- ShadowFieldKey

ShadowFieldKey::ShadowFieldKey(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::ShadowFieldKey', ** {");
  r.expect("'address': ");
  r.attr("address", address);
  r.expect(", 'start': ");
  r.attr("start", start);
  r.expect(", 'size': ");
  r.attr("size", size);
  r.expect("})");
  if (start > 31) throw Kiv::RangeException("TarnRegFile::ShadowFieldKey::start < 0 or > 31 not allowed");
  if (sizeOutOfRange(size)) throw Kiv::RangeException("TarnRegFile::ShadowFieldKey::size < 1 or > 32 not allowed");
}

U32 ShadowFieldKey::hash(U32 seed) const noexcept { return Kiv::Hash(seed).mix4(address).mix1(start).mix1(size).result(); }

std::string ShadowFieldKey::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::ShadowFieldKey").attr("address", address).attr("start", start).attr("size", size).end();
  return out;
}

// ---- ShadowFieldValue

ShadowFieldValue::ShadowFieldValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::ShadowFieldValue', ** {");
  r.expect("'key': ");
  r.attr("key", key);
  r.expect(", 'value': ");
  r.attr("value", value);
  r.expect("})");
}

std::string ShadowFieldValue::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::ShadowFieldValue").attr("key", key).attr("value", value).end();
  return out;
}

// ---- PhysicalField

PhysicalField::PhysicalField(PhysicalFieldName const& name_, U8 start_, U8 size_)
    : name(name_), start(start_), size(size_), key() {
  checkBounds();
}

PhysicalField::PhysicalField(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::PhysicalField', ** {");
  r.expect("'name': ");
  r.attr("name", name);
  r.expect(", 'start': ");
  r.attr("start", start);
  r.expect(", 'size': ");
  r.attr("size", size);
  r.expect(", 'key': ");
  r.attr("key", key);
  r.expect("})");
  checkBounds();
}

void PhysicalField::checkBounds() const {
  if (start > 31) throw Kiv::RangeException("TarnRegFile::PhysicalField::start < 0 or > 31 not allowed");
  if (sizeOutOfRange(size)) throw Kiv::RangeException("TarnRegFile::PhysicalField::size < 1 or > 32 not allowed");
}

PhysicalField::operator bool() const noexcept {
  return static_cast<bool>(name) || start != 0 || size != 1 || static_cast<bool>(key);
}

bool PhysicalField::operator==(PhysicalField const& o) const noexcept {
  return name == o.name && start == o.start && size == o.size && key == o.key;
}

std::string PhysicalField::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::PhysicalField")
      .attr("name", name)
      .attr("start", start)
      .attr("size", size)
      .attr("key", key)
      .end();
  return out;
}

// ---- stream output

std::ostream& operator<<(std::ostream& os, PhysicalRegisterName const& v) { return os << v.valueToStrep(); }
std::ostream& operator<<(std::ostream& os, PhysicalFieldName const& v) { return os << v.valueToStrep(); }
std::ostream& operator<<(std::ostream& os, ShadowFieldKey const& v) { return os << v.valueToStrep(); }
std::ostream& operator<<(std::ostream& os, ShadowFieldValue const& v) { return os << v.valueToStrep(); }
std::ostream& operator<<(std::ostream& os, PhysicalField const& v) { return os << v.valueToStrep(); }

}  // namespace TarnRegFile
