#include "TarnRegFile/LogicalTypes.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/KivValueText.h"
#include "TarnRegFile/platform/Trace.h"

#include <cstring>
#include <ostream>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/LogicalTypes");

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

}  // namespace

// ---- LogicalRegisterName

LogicalRegisterName::LogicalRegisterName() : fullName(defaultRegisterFullName()) {}

LogicalRegisterName::LogicalRegisterName(Kiv::String const& chipName_, Kiv::String const& name_)
    : chipName(chipName_), name(name_), fullName(Kiv::String::concat({chipName_, "-", name_})) {}

LogicalRegisterName::LogicalRegisterName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::LogicalRegisterName', ** {");
  r.expect("'chipName': ");
  r.attr("chipName", chipName);
  r.expect(", 'name': ");
  r.attr("name", name);
  r.expect(", 'fullName': ");
  r.attr("fullName", fullName);
  r.expect("})");
}

LogicalRegisterName::operator bool() const noexcept {
  return !chipName.empty() || !name.empty() || !(fullName == defaultRegisterFullName());
}

bool LogicalRegisterName::operator==(LogicalRegisterName const& o) const noexcept {
  return chipName == o.chipName && name == o.name && fullName == o.fullName;
}

bool LogicalRegisterName::operator<(LogicalRegisterName const& o) const noexcept {
  if (auto c = chipName <=> o.chipName; c != 0) return c < 0;
  if (auto c = name <=> o.name; c != 0) return c < 0;
  return fullName < o.fullName;
}

std::string LogicalRegisterName::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::LogicalRegisterName")
      .attr("chipName", chipName)
      .attr("name", name)
      .attr("fullName", fullName)
      .end();
  return out;
}

// ---- LogicalFieldName

LogicalFieldName::LogicalFieldName() : fullName(defaultFieldFullName()) {}

LogicalFieldName::LogicalFieldName(LogicalRegisterName const& regName_, Kiv::String const& name_)
    : regName(regName_), name(name_), fullName(Kiv::String::concat({regName_.fullName, "-", name_})) {}

LogicalFieldName::LogicalFieldName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::LogicalFieldName', ** {");
  r.expect("'regName': ");
  r.attr("regName", regName);
  r.expect(", 'name': ");
  r.attr("name", name);
  r.expect(", 'fullName': ");
  r.attr("fullName", fullName);
  r.expect("})");
}

LogicalFieldName::operator bool() const noexcept {
  return static_cast<bool>(regName) || !name.empty() || !(fullName == defaultFieldFullName());
}

bool LogicalFieldName::operator==(LogicalFieldName const& o) const noexcept {
  return regName == o.regName && name == o.name && fullName == o.fullName;
}

bool LogicalFieldName::operator<(LogicalFieldName const& o) const noexcept {
  if (regName < o.regName) return true;
  if (o.regName < regName) return false;
  if (auto c = name <=> o.name; c != 0) return c < 0;
  return fullName < o.fullName;
}

std::string LogicalFieldName::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::LogicalFieldName")
      .attr("regName", regName)
      .attr("name", name)
      .attr("fullName", fullName)
      .end();
  return out;
}

// ---- LogicalFieldNameParts

namespace {

// Names are short: comparing them inline beats a call into the C library.
inline bool sameBytes(char const* a, char const* b, size_t n) noexcept {
  for (; n >= 8; n -= 8, a += 8, b += 8) {
    uint64_t x, y;
    std::memcpy(&x, a, 8);
    std::memcpy(&y, b, 8);
    if (x != y) return false;
  }
  for (; n > 0; --n)
    if (*a++ != *b++) return false;
  return true;
}

inline bool sameText(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && sameBytes(a.data(), b.data(), a.size());
}

// Whether @p full reads first + "-" + second, without composing it.
inline bool isJoined(std::string_view full, std::string_view first, std::string_view second) noexcept {
  return full.size() == first.size() + 1 + second.size() && full[first.size()] == '-' &&
         sameBytes(full.data(), first.data(), first.size()) &&
         sameBytes(full.data() + first.size() + 1, second.data(), second.size());
}

}  // namespace

bool LogicalFieldNameParts::sameRegister(LogicalRegisterName const& n) const noexcept {
  // The part hashes are cached in both: compare them before any characters.
  return n.name.hash() == reg_.hash && n.chipName == chipName_ && sameText(n.name.view(), reg_.text) &&
         isJoined(n.fullName.view(), chipName_.view(), reg_.text);
}

bool LogicalFieldNameParts::sameField(LogicalFieldName const& n) const noexcept {
  if (fieldName_) return n == *fieldName_;
  if (n.name.hash() != field_.hash || !sameText(n.name.view(), field_.text)) return false;
  if (register_ ? !(n.regName == *register_) : !sameRegister(n.regName)) return false;
  // The register's own full name was just found equal to the parts.
  return isJoined(n.fullName.view(), n.regName.fullName.view(), field_.text);
}

LogicalRegisterName LogicalFieldNameParts::registerName() const {
  return LogicalRegisterName(chipName_, Kiv::String(reg_.text));
}

LogicalFieldName LogicalFieldNameParts::fieldName() const {
  return LogicalFieldName(registerName(), Kiv::String(field_.text));
}

// ---- LogicalField

LogicalField::LogicalField(LogicalFieldName const& name_, U8 start_, U8 size_)
    : name(name_), start(start_), size(size_), value(0) {
  checkBounds();
}

LogicalField::LogicalField(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::LogicalField', ** {");
  r.expect("'name': ");
  r.attr("name", name);
  r.expect(", 'start': ");
  r.attr("start", start);
  r.expect(", 'size': ");
  r.attr("size", size);
  r.expect(", 'value': ");
  r.attr("value", value);
  r.expect("})");
  checkBounds();
}

void LogicalField::checkBounds() const {
  if (start > 63) throw Kiv::RangeException("TarnRegFile::LogicalField::start < 0 or > 63 not allowed");
  // Unsigned 8-bit: 0 wraps to 255, so one comparison rejects 0 and 33..255.
  if (static_cast<U8>(size - 1) > 31)
    throw Kiv::RangeException("TarnRegFile::LogicalField::size < 1 or > 32 not allowed");
}

LogicalField::operator bool() const noexcept {
  return static_cast<bool>(name) || start != 0 || size != 1 || value != 0;
}

bool LogicalField::operator==(LogicalField const& o) const noexcept {
  return name == o.name && start == o.start && size == o.size && value == o.value;
}

std::string LogicalField::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::LogicalField")
      .attr("name", name)
      .attr("start", start)
      .attr("size", size)
      .attr("value", value)
      .end();
  return out;
}

// ---- LogicalRegister

LogicalRegister::LogicalRegister(LogicalRegisterName const& name_) : name(name_), value(0) {}

LogicalRegister::LogicalRegister(Kiv::String::IteratorConst&, Kiv::String::IteratorConst const&) {
  KIV_FATAL(kTrace, "\"No String constructor for LogicalRegister - has collection\" == nullptr");
}

LogicalRegister::operator bool() const noexcept { return static_cast<bool>(name) || !field_.empty() || value != 0; }

bool LogicalRegister::operator==(LogicalRegister const& o) const {
  return name == o.name && value == o.value && field_ == o.field_;
}

std::string LogicalRegister::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::LogicalRegister")
      .attr("name", name)
      .raw("field", "None")
      .attr("value", value)
      .end();
  return out;
}

// ---- stream output

std::ostream& operator<<(std::ostream& os, LogicalRegisterName const& v) { return os << v.valueToStrep(); }
std::ostream& operator<<(std::ostream& os, LogicalFieldName const& v) { return os << v.valueToStrep(); }
std::ostream& operator<<(std::ostream& os, LogicalField const& v) { return os << v.valueToStrep(); }
std::ostream& operator<<(std::ostream& os, LogicalRegister const& v) { return os << v.valueToStrep(); }

}  // namespace TarnRegFile
