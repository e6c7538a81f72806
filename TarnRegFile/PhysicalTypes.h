#pragma once
/// @file PhysicalTypes.h
/// @brief Value types naming hardware registers and bit fields, and the shadow-field key and value.
///
/// `ShadowFieldKey` and `ShadowFieldValue` are stored in shared-memory tables read by
/// other processes, 32-bit and 64-bit alike: they are trivially copyable, have the
/// same layout on i386 and amd64, and hash with the runtime's fixed-width hash.
///
/// Every type has the runtime's text-parsing constructor (char const*& pos, char
/// const* const& end).

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/KivValue.h"
#include "TarnRegFile/NameTypes.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>

namespace TarnRegFile {

/// @brief The hardware location of one bit slice: register address, lowest bit, width.
///
/// Its constructor does not check bounds (keys are built from checked fields);
/// the parser does, since text comes from outside.
class TARN_API ShadowFieldKey : public Kiv::Value<ShadowFieldKey> {
public:
  static constexpr std::string_view typeName = "TarnRegFile::ShadowFieldKey";
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("address", &ShadowFieldKey::address), Kiv::attr("start", &ShadowFieldKey::start),
                      Kiv::attr("size", &ShadowFieldKey::size)};
  }
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
  bool operator<(ShadowFieldKey const& o) const noexcept { return attrsLess(o); }

  /// @brief Seeded hash over address (4 bytes), start (1 byte), size (1 byte), in that order.
  ///
  /// Every process sharing a table must compute the same value, so neither the
  /// order nor the widths may change.
  U32 hash(U32 seed) const noexcept { return attrsHash(seed); }

  U32 address = 0;
  U8 start = 0;
  U8 size = 1;
};

/// @brief The value of one shadow bit slice, carrying its own key.
class TARN_API ShadowFieldValue : public Kiv::Value<ShadowFieldValue> {
public:
  static constexpr std::string_view typeName = "TarnRegFile::ShadowFieldValue";
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("key", &ShadowFieldValue::key), Kiv::attr("value", &ShadowFieldValue::value)};
  }

  /// @brief The default value: default key, value 0.
  constexpr ShadowFieldValue() noexcept = default;
  constexpr ShadowFieldValue(ShadowFieldKey const& key_, U32 value_) noexcept : key(key_), value(value_) {}
  /// @brief Reads the text form; a bad key throws Kiv::RangeException prefixed with "key: ".
  ShadowFieldValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) { readText(pos, end); }

  /// @brief True when key or value differs from the default.
  constexpr explicit operator bool() const noexcept { return static_cast<bool>(key) || value != 0; }
  constexpr bool operator==(ShadowFieldValue const& o) const noexcept { return key == o.key && value == o.value; }

  ShadowFieldKey key;
  U32 value = 0;
};

/// @brief A bit slice of a 32-bit hardware register and the shadow key it is stored under.
class TARN_API PhysicalField : public Kiv::Value<PhysicalField> {
public:
  static constexpr std::string_view typeName = "TarnRegFile::PhysicalField";
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("name", &PhysicalField::name), Kiv::attr("start", &PhysicalField::start),
                      Kiv::attr("size", &PhysicalField::size), Kiv::attr("key", &PhysicalField::key)};
  }

  /// @brief The default field: default name, start 0, size 1, default key.
  PhysicalField() = default;
  /// @brief Default key; throws Kiv::RangeException for start > 31 (checked first), then size 0 or > 32.
  ///
  /// start + size is not checked against 32.
  PhysicalField(PhysicalFieldName const& name, U8 start, U8 size);
  /// @brief Reads the text form, then applies the constructor's bound checks.
  PhysicalField(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the field differs from the default field.
  explicit operator bool() const noexcept {
    return static_cast<bool>(name) || start != 0 || size != 1 || static_cast<bool>(key);
  }
  bool operator==(PhysicalField const& o) const noexcept { return attrsEqual(o); }

  PhysicalFieldName name;
  U8 start = 0;
  U8 size = 1;
  ShadowFieldKey key;

private:
  void checkBounds() const;
};

// Shared-memory tables hold these as raw bytes in processes of both word sizes.
static_assert(std::is_trivially_copyable_v<ShadowFieldKey> && sizeof(ShadowFieldKey) == 8);
static_assert(std::is_trivially_copyable_v<ShadowFieldValue> && sizeof(ShadowFieldValue) == 12);
static_assert(offsetof(ShadowFieldValue, value) == 8);

}  // namespace TarnRegFile

template <>
struct std::hash<TarnRegFile::ShadowFieldKey> {
  size_t operator()(TarnRegFile::ShadowFieldKey const& k) const noexcept {
    return k.hash(TarnRegFile::ShadowFieldKey::collectionHashSeed);
  }
};
