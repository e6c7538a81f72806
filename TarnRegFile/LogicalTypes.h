#pragma once
/// @file LogicalTypes.h
/// @brief Value types naming logical registers (up to 64 bits) and their fields.
///
/// Every type has the runtime's text-parsing constructor (char const*& pos, char
/// const* const& end). Two `char const*` variables passed to a name constructor
/// select that parser, so pass names as Kiv::String (literals are fine).

#include "Export.h"
#include "KivCollection.h"
#include "KivString.h"
#include "Types.h"

#include <fmt/format.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace TarnRegFile {

/// @brief A logical register of one chip: chip name, register name and "chip-register".
class TARN_API LogicalRegisterName {
public:
  /// @brief The default name: both parts empty, fullName "-".
  LogicalRegisterName();
  /// @brief Copies both parts and composes fullName as chipName + "-" + name.
  LogicalRegisterName(Kiv::String const& chipName, Kiv::String const& name);
  /// @brief Reads the text form; throws Kiv::ParseException when it does not match.
  LogicalRegisterName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the name differs from the default name.
  explicit operator bool() const noexcept;
  bool operator==(LogicalRegisterName const& other) const noexcept;
  /// @brief Orders by chipName, then name, then fullName.
  bool operator<(LogicalRegisterName const& other) const noexcept;

  /// @brief "Value('TarnRegFile::LogicalRegisterName', ** {'chipName': .., 'name': .., 'fullName': ..})".
  std::string valueToStrep() const;

  Kiv::String chipName;
  Kiv::String name;
  Kiv::String fullName;
};

/// @brief A field of a logical register: register name, field name and "chip-register-field".
class TARN_API LogicalFieldName {
public:
  /// @brief The default name: default register name, empty name, fullName "--".
  LogicalFieldName();
  /// @brief Copies both parts and composes fullName as regName.fullName + "-" + name.
  LogicalFieldName(LogicalRegisterName const& regName, Kiv::String const& name);
  /// @brief Reads the text form; throws Kiv::ParseException when it does not match.
  LogicalFieldName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the name differs from the default name.
  explicit operator bool() const noexcept;
  bool operator==(LogicalFieldName const& other) const noexcept;
  /// @brief Orders by regName, then name, then fullName.
  bool operator<(LogicalFieldName const& other) const noexcept;

  /// @brief "Value('TarnRegFile::LogicalFieldName', ** {'regName': .., 'name': .., 'fullName': ..})".
  std::string valueToStrep() const;

  LogicalRegisterName regName;
  Kiv::String name;
  Kiv::String fullName;
};

}  // namespace TarnRegFile

template <>
struct std::hash<TarnRegFile::LogicalRegisterName> {
  size_t operator()(TarnRegFile::LogicalRegisterName const& n) const noexcept { return n.fullName.hash(); }
};
template <>
struct std::hash<TarnRegFile::LogicalFieldName> {
  size_t operator()(TarnRegFile::LogicalFieldName const& n) const noexcept { return n.fullName.hash(); }
};

namespace TarnRegFile {

/// @brief A bit slice of a 64-bit logical register with its 32-bit value.
class TARN_API LogicalField {
public:
  /// @brief The default field: default name, start 0, size 1, value 0.
  LogicalField() = default;
  /// @brief Value 0; throws Kiv::RangeException for start > 63 (checked first), then size 0 or > 32.
  ///
  /// start + size is not checked against 64.
  LogicalField(LogicalFieldName const& name, U8 start, U8 size);
  /// @brief Reads the text form, then applies the constructor's bound checks.
  LogicalField(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the field differs from the default field.
  explicit operator bool() const noexcept;
  bool operator==(LogicalField const& other) const noexcept;

  /// @brief "Value('TarnRegFile::LogicalField', ** {'name': .., 'start': .., 'size': .., 'value': ..})".
  std::string valueToStrep() const;

  LogicalFieldName name;
  U8 start = 0;
  U8 size = 1;
  U32 value = 0;

private:
  void checkBounds() const;
};

/// @brief A logical register: its name, the names of its fields and its cached 64-bit value.
class TARN_API LogicalRegister {
public:
  using FieldSet = Kiv::KeyedCollection<LogicalFieldName, bool>;

  /// @brief The default register: default name, no fields, value 0.
  LogicalRegister() = default;
  /// @brief No fields, value 0.
  explicit LogicalRegister(LogicalRegisterName const& name);
  /// @brief Not available: the field set has no text form. Aborts the process.
  LogicalRegister(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief The flag stored for field @p name (false when absent).
  bool field(LogicalFieldName const& name) const { return field_.get(name, false); }
  /// @brief Whether @p name belongs to the register.
  bool fieldHas(LogicalFieldName const& name) const { return field_.has(name); }
  /// @brief Inserts @p name, or sets its flag when present.
  void fieldIs(LogicalFieldName const& name, bool flag) { field_.set(name, flag); }
  /// @brief Removes @p name; an absent name is no error.
  void fieldDel(LogicalFieldName const& name) { field_.erase(name); }
  /// @brief Removes every field.
  void fieldDelAll() { field_ = FieldSet(); }
  /// @brief The whole field set, for iteration.
  FieldSet const& fields() const noexcept { return field_; }

  /// @brief True when the register differs from the default register.
  explicit operator bool() const noexcept;
  /// @brief Compares name, the whole field set and value.
  bool operator==(LogicalRegister const& other) const;

  /// @brief "Value('TarnRegFile::LogicalRegister', ** {'name': .., 'field': None, 'value': ..})".
  ///
  /// The field set is never rendered: 'field' always reads None.
  std::string valueToStrep() const;

  LogicalRegisterName name;
  U64 value = 0;

private:
  FieldSet field_;
};

TARN_API std::ostream& operator<<(std::ostream& os, LogicalRegisterName const& v);
TARN_API std::ostream& operator<<(std::ostream& os, LogicalFieldName const& v);
TARN_API std::ostream& operator<<(std::ostream& os, LogicalField const& v);
TARN_API std::ostream& operator<<(std::ostream& os, LogicalRegister const& v);

}  // namespace TarnRegFile

template <>
struct fmt::formatter<TarnRegFile::LogicalRegisterName> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::LogicalRegisterName const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
template <>
struct fmt::formatter<TarnRegFile::LogicalFieldName> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::LogicalFieldName const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
template <>
struct fmt::formatter<TarnRegFile::LogicalField> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::LogicalField const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
template <>
struct fmt::formatter<TarnRegFile::LogicalRegister> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::LogicalRegister const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
