#pragma once
/// @file PhysicalTypes.h
/// @brief Value types naming hardware registers and bit fields, and the shadow-field key and value.
///
/// `ShadowFieldKey` and `ShadowFieldValue` are stored in shared-memory tables read by
/// other processes, 32-bit and 64-bit alike: they are trivially copyable, have the
/// same layout on i386 and amd64, and hash with the runtime's fixed-width hash.
///
/// Every type has the runtime's text-parsing constructor (char const*& pos, char
/// const* const& end). Two `char const*` variables passed to a name constructor
/// select that parser, so pass names as Kiv::String (literals are fine).

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <fmt/format.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace TarnRegFile {

/// @brief A hardware register of one chip: chip name, register name and "chip-register".
class TARN_API PhysicalRegisterName {
public:
  /// @brief The default name: both parts empty, fullName "-".
  PhysicalRegisterName();
  /// @brief Copies both parts and composes fullName as chipName + "-" + name.
  PhysicalRegisterName(Kiv::String const& chipName, Kiv::String const& name);
  /// @brief Reads the text form; throws Kiv::ParseException when it does not match.
  PhysicalRegisterName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the name differs from the default name.
  explicit operator bool() const noexcept;
  bool operator==(PhysicalRegisterName const& other) const noexcept;
  /// @brief Orders by chipName, then name, then fullName.
  bool operator<(PhysicalRegisterName const& other) const noexcept;

  /// @brief "Value('TarnRegFile::PhysicalRegisterName', ** {'chipName': .., 'name': .., 'fullName': ..})".
  std::string valueToStrep() const;

  Kiv::String chipName;
  Kiv::String name;
  Kiv::String fullName;
};

/// @brief A field of a hardware register: register name, field name and "chip-register-field".
class TARN_API PhysicalFieldName {
public:
  /// @brief The default name: default register name, empty name, fullName "--".
  PhysicalFieldName();
  /// @brief Copies both parts and composes fullName as regName.fullName + "-" + name.
  PhysicalFieldName(PhysicalRegisterName const& regName, Kiv::String const& name);
  /// @brief Reads the text form; throws Kiv::ParseException when it does not match.
  PhysicalFieldName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the name differs from the default name.
  explicit operator bool() const noexcept;
  bool operator==(PhysicalFieldName const& other) const noexcept;
  /// @brief Orders by regName, then name, then fullName.
  bool operator<(PhysicalFieldName const& other) const noexcept;

  /// @brief "Value('TarnRegFile::PhysicalFieldName', ** {'regName': .., 'name': .., 'fullName': ..})".
  std::string valueToStrep() const;

  PhysicalRegisterName regName;
  Kiv::String name;
  Kiv::String fullName;
};

/// @brief The hardware location of one bit slice: register address, lowest bit, width.
///
/// Its constructor does not check bounds (keys are built from checked fields);
/// the parser does, since text comes from outside.
class TARN_API ShadowFieldKey {
public:
  /// @brief Seed of the hash that in-process keyed collections use for keys.
  static constexpr U32 collectionHashSeed = 0x53464b31u;

  /// @brief The default key: address 0, start 0, size 1.
  constexpr ShadowFieldKey() noexcept = default;
  constexpr ShadowFieldKey(U32 address_, U8 start_, U8 size_) noexcept
      : address(address_), start(start_), size(size_) {}
  /// @brief Reads the text form; throws Kiv::ParseException or Kiv::RangeException (start > 31, size 0 or > 32).
  ShadowFieldKey(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the key differs from the default key.
  constexpr explicit operator bool() const noexcept { return address != 0 || start != 0 || size != 1; }
  constexpr bool operator==(ShadowFieldKey const& o) const noexcept {
    return address == o.address && start == o.start && size == o.size;
  }
  /// @brief Orders by address, then start, then size.
  constexpr bool operator<(ShadowFieldKey const& o) const noexcept {
    if (address != o.address) return address < o.address;
    if (start != o.start) return start < o.start;
    return size < o.size;
  }

  /// @brief Seeded hash over address (4 bytes), start (1 byte), size (1 byte), in that order.
  ///
  /// Every process sharing a table must compute the same value, so neither the
  /// order nor the widths may change.
  U32 hash(U32 seed) const noexcept;

  /// @brief "Value('TarnRegFile::ShadowFieldKey', ** {'address': .., 'start': .., 'size': ..})".
  std::string valueToStrep() const;

  U32 address = 0;
  U8 start = 0;
  U8 size = 1;
};

/// @brief The value of one shadow bit slice, carrying its own key.
class TARN_API ShadowFieldValue {
public:
  /// @brief The default value: default key, value 0.
  constexpr ShadowFieldValue() noexcept = default;
  constexpr ShadowFieldValue(ShadowFieldKey const& key_, U32 value_) noexcept : key(key_), value(value_) {}
  /// @brief Reads the text form; a bad key throws Kiv::RangeException prefixed with "key: ".
  ShadowFieldValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when key or value differs from the default.
  constexpr explicit operator bool() const noexcept { return static_cast<bool>(key) || value != 0; }
  constexpr bool operator==(ShadowFieldValue const& o) const noexcept { return key == o.key && value == o.value; }

  /// @brief "Value('TarnRegFile::ShadowFieldValue', ** {'key': .., 'value': ..})".
  std::string valueToStrep() const;

  ShadowFieldKey key;
  U32 value = 0;
};

/// @brief A bit slice of a 32-bit hardware register and the shadow key it is stored under.
class TARN_API PhysicalField {
public:
  /// @brief The default field: default name, start 0, size 1, default key.
  PhysicalField() = default;
  /// @brief Default key; throws Kiv::RangeException for start > 31 (checked first), then size 0 or > 32.
  ///
  /// start + size is not checked against 32.
  PhysicalField(PhysicalFieldName const& name, U8 start, U8 size);
  /// @brief Reads the text form, then applies the constructor's bound checks.
  PhysicalField(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the field differs from the default field.
  explicit operator bool() const noexcept;
  bool operator==(PhysicalField const& other) const noexcept;

  /// @brief "Value('TarnRegFile::PhysicalField', ** {'name': .., 'start': .., 'size': .., 'key': ..})".
  std::string valueToStrep() const;

  PhysicalFieldName name;
  U8 start = 0;
  U8 size = 1;
  ShadowFieldKey key;

private:
  void checkBounds() const;
};

TARN_API std::ostream& operator<<(std::ostream& os, PhysicalRegisterName const& v);
TARN_API std::ostream& operator<<(std::ostream& os, PhysicalFieldName const& v);
TARN_API std::ostream& operator<<(std::ostream& os, ShadowFieldKey const& v);
TARN_API std::ostream& operator<<(std::ostream& os, ShadowFieldValue const& v);
TARN_API std::ostream& operator<<(std::ostream& os, PhysicalField const& v);

// Shared-memory tables hold these as raw bytes in processes of both word sizes.
static_assert(std::is_trivially_copyable_v<ShadowFieldKey> && sizeof(ShadowFieldKey) == 8);
static_assert(std::is_trivially_copyable_v<ShadowFieldValue> && sizeof(ShadowFieldValue) == 12);
static_assert(offsetof(ShadowFieldValue, value) == 8);

}  // namespace TarnRegFile

template <>
struct std::hash<TarnRegFile::PhysicalRegisterName> {
  size_t operator()(TarnRegFile::PhysicalRegisterName const& n) const noexcept { return n.fullName.hash(); }
};
template <>
struct std::hash<TarnRegFile::PhysicalFieldName> {
  size_t operator()(TarnRegFile::PhysicalFieldName const& n) const noexcept { return n.fullName.hash(); }
};
template <>
struct std::hash<TarnRegFile::ShadowFieldKey> {
  size_t operator()(TarnRegFile::ShadowFieldKey const& k) const noexcept {
    return k.hash(TarnRegFile::ShadowFieldKey::collectionHashSeed);
  }
};

template <>
struct fmt::formatter<TarnRegFile::PhysicalRegisterName> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::PhysicalRegisterName const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
template <>
struct fmt::formatter<TarnRegFile::PhysicalFieldName> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::PhysicalFieldName const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
template <>
struct fmt::formatter<TarnRegFile::ShadowFieldKey> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::ShadowFieldKey const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
template <>
struct fmt::formatter<TarnRegFile::ShadowFieldValue> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::ShadowFieldValue const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
template <>
struct fmt::formatter<TarnRegFile::PhysicalField> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::PhysicalField const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
