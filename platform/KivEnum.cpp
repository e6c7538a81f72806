#include "TarnRegFile/platform/KivEnum.h"

#include "TarnRegFile/platform/KivException.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace Kiv {

EnumTable::EnumTable(std::initializer_list<EnumType> types) {
  for (auto const& t : types) {
    Entry e{t.typeName, {}};
    for (auto const& [v, lit] : t.literals) e.literals.emplace_back(v, String(lit));
    entries_.push_back(std::move(e));
  }
}

EnumTable::Entry const& EnumTable::entry(unsigned index) const {
  if (index >= entries_.size()) throw RangeException(fmt::format("enumeration index {} not registered", index));
  return entries_[index];
}

char const* EnumTable::typeName(unsigned index) const { return entry(index).typeName; }

U32 EnumTable::instance(unsigned index, U32 value) const {
  (void)stringValue(index, value);
  return value;
}

U32 EnumTable::instance(unsigned index, std::string_view literal) const {
  auto const& e = entry(index);
  for (auto const& [v, lit] : e.literals)
    if (lit.view() == literal) return v;
  throw RangeException(fmt::format("{}: unknown literal '{}'", e.typeName, literal));
}

String const& EnumTable::stringValue(unsigned index, U32 value) const {
  auto const& e = entry(index);
  for (auto const& [v, lit] : e.literals)
    if (v == value) return lit;
  throw RangeException(fmt::format("{}: value {} has no literal", e.typeName, value));
}

std::string EnumTable::valueToStrep(unsigned index, U32 value) const { return strep(stringValue(index, value)); }

U32 EnumTable::sequenceToValue(unsigned index, String::IteratorConst& pos, String::IteratorConst const& end) const {
  auto p = pos;
  bool const quoted = p != end && *p == '\'';
  if (quoted) ++p;
  auto const start = p;
  while (p != end && (std::isalnum(static_cast<unsigned char>(*p)) || *p == '_')) ++p;
  std::string_view const literal(start, static_cast<size_t>(p - start));
  if (quoted) {
    if (p == end || *p != '\'')
      throw ParseException(fmt::format("{}: unterminated literal", entry(index).typeName));
    ++p;
  }
  U32 const v = instance(index, literal);
  pos = p;
  return v;
}

}  // namespace Kiv
