#pragma once
/// @file KivEnum.h
/// @brief Enumeration types with literal tables.
///
/// A source unit registers its enumerations in one `Kiv::EnumTable`, each with
/// its type name and (value, literal) rows; the unit's thin wrappers pass the
/// enumeration's index in that table. Unknown values and literals raise
/// `Kiv::RangeException` naming the enumeration.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace Kiv {

struct EnumType {
  char const* typeName;
  std::vector<std::pair<U32, char const*>> literals;
};

class TARN_API EnumTable {
public:
  EnumTable(std::initializer_list<EnumType> types);

  /// @brief Checks that @p value is one of enumeration @p index's values.
  U32 instance(unsigned index, U32 value) const;
  /// @brief The value of @p literal (exact match).
  U32 instance(unsigned index, std::string_view literal) const;
  /// @brief The literal of @p value.
  String const& stringValue(unsigned index, U32 value) const;
  /// @brief The runtime's text form of a value: its literal, single-quoted.
  std::string valueToStrep(unsigned index, U32 value) const;
  /// @brief Parses a literal (quoted or bare) at @p pos, advancing it past the literal.
  U32 sequenceToValue(unsigned index, String::IteratorConst& pos, String::IteratorConst const& end) const;
  /// @brief The registered type name of enumeration @p index.
  char const* typeName(unsigned index) const;

private:
  struct Entry {
    char const* typeName;
    std::vector<std::pair<U32, String>> literals;
  };
  Entry const& entry(unsigned index) const;
  std::vector<Entry> entries_;
};

}  // namespace Kiv
