#pragma once
/// @file LogicalTypes.h
/// @brief Value types naming logical registers (up to 64 bits) and their fields.
///
/// Every type has the runtime's text-parsing constructor (char const*& pos, char
/// const* const& end). Two `char const*` variables passed to a name constructor
/// select that parser, so pass names as Kiv::String (literals are fine).

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivCollection.h"
#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/KivValue.h"
#include "TarnRegFile/NameTypes.h"
#include "TarnRegFile/platform/Types.h"

#include <boost/unordered/unordered_flat_map.hpp>
#include <fmt/format.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace TarnRegFile {

/// @brief Hash of the register name made of @p chipHash and @p nameHash (the string hashes of its parts).
///
/// Name-keyed collections hash names by their parts' hashes, which every Kiv::String
/// keeps cached: hashing a name costs no pass over its characters, and a lookup by
/// parts needs no composed full name. Equal names have equal parts, hence equal hashes.
/// The parts' hashes are well mixed already: one multiply and rotate per part spreads
/// every bit of the earlier parts over the low bits that pick a slot.
constexpr U32 logicalRegisterNameHash(U32 chipHash, U32 nameHash) noexcept {
  U32 const c = chipHash * 0x9e3779b1u;
  return nameHash ^ ((c << 16) | (c >> 16));
}
/// @brief Hash of the field name made of a register's parts and @p nameHash.
constexpr U32 logicalFieldNameHash(U32 chipHash, U32 regNameHash, U32 nameHash) noexcept {
  U32 const r = logicalRegisterNameHash(chipHash, regNameHash) * 0x85ebca6bu;
  return nameHash ^ ((r << 16) | (r >> 16));
}

/// @brief The names of one logical field given by their parts, for looking registers and
/// fields up on the per-write path without building (allocating) the name values.
///
/// Keeps the three parts and their string hashes (cached ones for Kiv::String parts);
/// the full names "chip-register" and "chip-register-field" are never composed, only
/// compared piece by piece. Refers to its arguments: it lives on the stack of one call.
class TARN_API LogicalFieldNameParts {
public:
  /// @brief One part: its characters and their string hash.
  struct Part {
    Part(Kiv::String const& s) noexcept : text(s.view()), hash(s.hash()) {}
    Part(std::string_view s) noexcept : text(s), hash(Kiv::stringHash(s)) {}
    Part(std::string const& s) noexcept : Part(std::string_view(s)) {}
    Part(char const* s) noexcept : Part(std::string_view(s)) {}
    std::string_view text;
    U32 hash;
  };

  // Inline: the parts are then built in place rather than passed through memory.
  LogicalFieldNameParts(Kiv::String const& chipName, Part regName, Part fieldName) noexcept
      : chipName_(chipName),
        reg_(regName),
        field_(fieldName),
        regHash_(logicalRegisterNameHash(chipName.hash(), regName.hash)),
        hash_(logicalFieldNameHash(chipName.hash(), regName.hash, fieldName.hash)) {}
  LogicalFieldNameParts(LogicalFieldNameParts const&) = delete;
  LogicalFieldNameParts& operator=(LogicalFieldNameParts const&) = delete;

  /// @brief The hash name-keyed collections give LogicalRegisterName(chipName, regName).
  U32 regHash() const noexcept { return regHash_; }
  /// @brief The hash name-keyed collections give the field name.
  U32 hash() const noexcept { return hash_; }

  /// @brief True when @p n equals LogicalRegisterName(chipName, regName), member by member.
  bool sameRegister(LogicalRegisterName const& n) const noexcept;
  /// @brief True when @p n equals the field name these parts describe, member by member.
  bool sameField(LogicalFieldName const& n) const noexcept;

  /// @brief Tells the parts that @p stored, a name that sameRegister() accepted, is their
  /// register: field comparisons then compare register names with it, which for names
  /// sharing their strings (as the names of one chip do) is a pointer comparison.
  /// @p stored must outlive the parts.
  void registerIs(LogicalRegisterName const& stored) noexcept { register_ = &stored; }
  /// @brief Likewise for the field: @p stored, a name that sameField() accepted, is the
  /// field's name; later field comparisons compare with it.
  void fieldIs(LogicalFieldName const& stored) noexcept { fieldName_ = &stored; }

  /// @brief Builds the register name value.
  LogicalRegisterName registerName() const;
  /// @brief Builds the field name value.
  LogicalFieldName fieldName() const;

  /// @brief Lookup key standing for the register name.
  struct Register {
    LogicalFieldNameParts const& parts;
  };
  /// @brief Lookup key standing for the field name.
  struct Field {
    LogicalFieldNameParts const& parts;
  };
  Register asRegister() const noexcept { return {*this}; }
  Field asField() const noexcept { return {*this}; }

private:
  Kiv::String const& chipName_;
  Part reg_;
  Part field_;
  U32 regHash_;
  U32 hash_;
  LogicalRegisterName const* register_ = nullptr;
  LogicalFieldName const* fieldName_ = nullptr;
};

/// @brief Hash of register names (from their parts' hashes), also over lookup parts.
struct LogicalRegisterNameHash {
  using is_transparent = void;
  size_t operator()(LogicalRegisterName const& n) const noexcept {
    return logicalRegisterNameHash(n.chipName.hash(), n.name.hash());
  }
  size_t operator()(LogicalFieldNameParts::Register r) const noexcept { return r.parts.regHash(); }
};
/// @brief Equality of register names, also against lookup parts.
struct LogicalRegisterNameEqual {
  using is_transparent = void;
  bool operator()(LogicalRegisterName const& a, LogicalRegisterName const& b) const noexcept { return a == b; }
  bool operator()(LogicalFieldNameParts::Register r, LogicalRegisterName const& n) const noexcept {
    return r.parts.sameRegister(n);
  }
  bool operator()(LogicalRegisterName const& n, LogicalFieldNameParts::Register r) const noexcept {
    return r.parts.sameRegister(n);
  }
};
/// @brief Hash of field names (from their parts' hashes), also over lookup parts.
struct LogicalFieldNameHash {
  using is_transparent = void;
  size_t operator()(LogicalFieldName const& n) const noexcept {
    return logicalFieldNameHash(n.regName.chipName.hash(), n.regName.name.hash(), n.name.hash());
  }
  size_t operator()(LogicalFieldNameParts::Field f) const noexcept { return f.parts.hash(); }
};
/// @brief Equality of field names, also against lookup parts.
struct LogicalFieldNameEqual {
  using is_transparent = void;
  bool operator()(LogicalFieldName const& a, LogicalFieldName const& b) const noexcept { return a == b; }
  bool operator()(LogicalFieldNameParts::Field f, LogicalFieldName const& n) const noexcept {
    return f.parts.sameField(n);
  }
  bool operator()(LogicalFieldName const& n, LogicalFieldNameParts::Field f) const noexcept {
    return f.parts.sameField(n);
  }
};

/// @brief A bit slice of a 64-bit logical register with its 32-bit value.
class TARN_API LogicalField : public Kiv::Value<LogicalField> {
public:
  static constexpr std::string_view typeName = "TarnRegFile::LogicalField";
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("name", &LogicalField::name), Kiv::attr("start", &LogicalField::start),
                      Kiv::attr("size", &LogicalField::size), Kiv::attr("value", &LogicalField::value)};
  }

  /// @brief The default field: default name, start 0, size 1, value 0.
  LogicalField() = default;
  /// @brief Value 0; throws Kiv::RangeException for start > 63 (checked first), then size 0 or > 32.
  ///
  /// start + size is not checked against 64.
  LogicalField(LogicalFieldName const& name, U8 start, U8 size);
  /// @brief Reads the text form, then applies the constructor's bound checks.
  LogicalField(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief True when the field differs from the default field.
  explicit operator bool() const noexcept {
    return static_cast<bool>(name) || start != 0 || size != 1 || value != 0;
  }
  bool operator==(LogicalField const& o) const noexcept { return attrsEqual(o); }

  LogicalFieldName name;
  U8 start = 0;
  U8 size = 1;
  U32 value = 0;

private:
  void checkBounds() const;
};

/// @brief A logical register: its name, the names of its fields and its cached 64-bit value.
///
/// The text form never renders the field set: 'field' always reads None.
class TARN_API LogicalRegister : public Kiv::Value<LogicalRegister> {
public:
  /// Open addressing: the set is looked up by LogicalFieldNameParts on every field write.
  using FieldSet = Kiv::KeyedCollection<LogicalFieldName, bool, LogicalFieldNameHash, LogicalFieldNameEqual,
                                        boost::unordered_flat_map>;

  static constexpr std::string_view typeName = "TarnRegFile::LogicalRegister";
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("name", &LogicalRegister::name), Kiv::attr("field", &LogicalRegister::field_),
                      Kiv::attr("value", &LogicalRegister::value)};
  }

  /// @brief The default register: default name, no fields, value 0.
  LogicalRegister() = default;
  /// @brief No fields, value 0.
  explicit LogicalRegister(LogicalRegisterName const& name_) : name(name_) {}
  /// @brief Not available: the field set has no text form. Aborts the process.
  LogicalRegister(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief The flag stored for field @p name (false when absent).
  bool field(LogicalFieldName const& name) const { return field_.get(name, false); }
  /// @brief Whether @p name belongs to the register.
  bool fieldHas(LogicalFieldName const& name) const { return field_.has(name); }
  /// @brief Whether the field named by @p name belongs to the register.
  bool fieldHas(LogicalFieldNameParts::Field name) const { return field_.has(name); }
  /// @brief Inserts @p name, or sets its flag when present.
  void fieldIs(LogicalFieldName const& name, bool flag) { field_.set(name, flag); }
  /// @brief Removes @p name; an absent name is no error.
  void fieldDel(LogicalFieldName const& name) { field_.erase(name); }
  /// @brief Removes every field.
  void fieldDelAll() { field_.clear(); }
  /// @brief The whole field set, for iteration.
  FieldSet const& fields() const noexcept { return field_; }

  /// @brief True when the register differs from the default register.
  explicit operator bool() const noexcept { return static_cast<bool>(name) || !field_.empty() || value != 0; }
  /// @brief Compares name, the whole field set and value.
  bool operator==(LogicalRegister const& o) const { return attrsEqual(o); }

  LogicalRegisterName name;
  U64 value = 0;

private:
  FieldSet field_;
};

}  // namespace TarnRegFile
