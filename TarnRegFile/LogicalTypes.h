#pragma once
/// @file LogicalTypes.h
/// @brief Value types naming logical registers (up to 64 bits) and their fields.
///
/// Every type has the runtime's text-parsing constructor (char const*& pos, char
/// const* const& end). Two `char const*` variables passed to a name constructor
/// select that parser, so pass names as Kiv::String (literals are fine).

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <fmt/format.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

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

/// @brief Keyed storage of a collection attribute keyed by logical names.
///
/// The same operations as Kiv::KeyedCollection, plus lookups by LogicalFieldNameParts
/// and mutable lookups for owners that change a stored value in place (and notify
/// for it themselves).
///
/// Entries live in an unordered map (stable addresses, iteration); lookups go through a
/// flat index beside it: open addressing over a power-of-two table of (hash, entry)
/// pairs with linear probing. A lookup is then one mask, one probe of contiguous slots
/// and one name comparison, where the map would divide by its prime bucket count and
/// walk a chain of nodes.
template <class K, class V, class Hash, class Equal>
class LogicalNameCollection {
public:
  using Map = std::unordered_map<K, V, Hash, Equal>;
  using const_iterator = typename Map::const_iterator;

  LogicalNameCollection() = default;
  LogicalNameCollection(LogicalNameCollection const& o) : map_(o.map_) { reindex(); }
  LogicalNameCollection(LogicalNameCollection&& o) noexcept
      : map_(std::move(o.map_)), slots_(std::move(o.slots_)), mask_(o.mask_) {  // nodes move with the map
    o.clear();
  }
  LogicalNameCollection& operator=(LogicalNameCollection const& o) {
    if (this != &o) {
      map_ = o.map_;
      reindex();
    }
    return *this;
  }
  LogicalNameCollection& operator=(LogicalNameCollection&& o) noexcept {
    if (this != &o) {
      map_ = std::move(o.map_);
      slots_ = std::move(o.slots_);
      mask_ = o.mask_;
      o.clear();
    }
    return *this;
  }

  /// @brief The entry for @p key (a name or lookup parts), or null.
  template <class Key>
  V const* find(Key const& key) const {
    Slot const* slot = lookup(key);
    return slot ? &slot->entry->second : nullptr;
  }
  template <class Key>
  V* find(Key const& key) {
    Slot const* slot = lookup(key);
    return slot ? &slot->entry->second : nullptr;
  }
  /// @brief The entry for @p key, or @p fallback.
  V get(K const& key, V const& fallback = V()) const {
    V const* found = find(key);
    return found ? *found : fallback;
  }
  template <class Key>
  bool has(Key const& key) const {
    return lookup(key) != nullptr;
  }
  /// @brief Inserts or replaces; true when the stored value changed (compared with ==).
  bool set(K const& key, V const& value) {
    auto [it, inserted] = map_.try_emplace(key, value);
    if (inserted) {
      indexInsert(static_cast<U32>(Hash()(it->first)), &*it);
      return true;
    }
    if (it->second == value) return false;
    it->second = value;
    return true;
  }
  /// @brief Removes @p key; true when it was present.
  bool erase(K const& key) {
    Slot const* slot = lookup(key);
    if (!slot) return false;
    auto* entry = slot->entry;
    indexErase(static_cast<size_t>(slot - slots_.data()));
    map_.erase(map_.find(entry->first));  // by iterator: the key lives in the node being erased
    return true;
  }
  /// @brief A snapshot of the keys: safe to iterate while entries are changed.
  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(map_.size());
    for (auto const& kv : map_) out.push_back(kv.first);
    return out;
  }
  size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }
  const_iterator begin() const noexcept { return map_.begin(); }
  const_iterator end() const noexcept { return map_.end(); }
  bool operator==(LogicalNameCollection const& o) const { return map_ == o.map_; }
  void clear() noexcept {
    map_.clear();
    slots_.clear();
    mask_ = 0;
  }

private:
  using Entry = typename Map::value_type;
  struct Slot {
    U32 hash = 0;
    Entry* entry = nullptr;  // null: free
  };

  template <class Key>
  Slot const* lookup(Key const& key) const {
    if (slots_.empty()) return nullptr;
    U32 const hash = static_cast<U32>(Hash()(key));
    for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
      Slot const& slot = slots_[i];
      if (!slot.entry) return nullptr;
      if (slot.hash == hash && Equal()(key, slot.entry->first)) return &slot;
    }
  }

  void indexInsert(U32 hash, Entry* entry) {
    if ((map_.size() + 1) * 4 > slots_.size() * 3) {  // keep at least a quarter free: probes stay short
      reindex();
      return;  // the new entry is in the map already
    }
    place(hash, entry);
  }

  void place(U32 hash, Entry* entry) noexcept {
    size_t i = hash & mask_;
    while (slots_[i].entry) i = (i + 1) & mask_;
    slots_[i] = Slot{hash, entry};
  }

  // Backward-shift deletion: moves later entries of the probe run into the hole, so
  // that lookups need no tombstones.
  void indexErase(size_t hole) noexcept {
    for (size_t j = hole;;) {
      j = (j + 1) & mask_;
      if (!slots_[j].entry) break;
      size_t const home = slots_[j].hash & mask_;
      bool const stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
      if (stays) continue;
      slots_[hole] = slots_[j];
      hole = j;
    }
    slots_[hole] = Slot{};
  }

  void reindex() {
    size_t capacity = 8;
    while (capacity * 3 < (map_.size() + 1) * 4) capacity *= 2;
    slots_.assign(capacity, Slot{});
    mask_ = capacity - 1;
    for (auto& kv : map_) place(static_cast<U32>(Hash()(kv.first)), &kv);
  }

  Map map_;
  std::vector<Slot> slots_;
  size_t mask_ = 0;
};

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
  using FieldSet = LogicalNameCollection<LogicalFieldName, bool, LogicalFieldNameHash, LogicalFieldNameEqual>;

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
