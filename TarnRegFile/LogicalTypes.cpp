#include "TarnRegFile/LogicalTypes.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/Trace.h"

#include <cstring>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/LogicalTypes");

}  // namespace

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
  readText(pos, end);
  checkBounds();
}

void LogicalField::checkBounds() const {
  checkSlice(start, size, 63, "TarnRegFile::LogicalField::start < 0 or > 63 not allowed",
             "TarnRegFile::LogicalField::size < 1 or > 32 not allowed");
}

// ---- LogicalRegister

LogicalRegister::LogicalRegister(Kiv::String::IteratorConst&, Kiv::String::IteratorConst const&) {
  KIV_FATAL(kTrace, "\"No String constructor for LogicalRegister - has collection\" == nullptr");
}

}  // namespace TarnRegFile
