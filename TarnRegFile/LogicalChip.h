#pragma once
/// @file LogicalChip.h
/// @brief The logical view of one chip: logical registers and fields, their physical
/// fields, the translation between the two, and writes and read-back by name.
///
/// A switch describes tens of chips of tens of thousands of fields each, so the chip and its
/// translation keep their collections compactly: every register and field name of a chip is
/// stored once, in a `ChipNames` table the chip shares with its translation, and the
/// collections hold small records of name ids, slices and values. The name values
/// (`LogicalFieldName`, `PhysicalField`, ...) are built when a caller asks for one: by a
/// lookup, a notification or an iteration. Lookups by name never allocate.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/LogicalTypes.h"
#include "TarnRegFile/PhysicalTypes.h"
#include "TarnRegFile/platform/Types.h"

#include <boost/unordered/unordered_flat_set.hpp>

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Kiv::Shm {
class EntityManager;  // TarnRegFile/platform/ShmEntityManager.h
}

namespace TarnRegFile {

// The chip holds its shadow-field collections (TarnRegFile/ShadowTypes.h) and is handed the
// entity manager that mounts them by reference only.
class ShadowFieldsConfig;
class ShadowFieldsStatus;

/// @brief Every register and field name one chip (and its translation) speaks of, stored once.
///
/// Short names (register and field names) are interned as strings. A register name whose chip
/// is this chip and whose fullName is composed by the rule ("chip-reg") is identified by the id
/// of its short name; a field name whose fullName is composed from its register's by the rule
/// ("chip-reg-field") by a dense field id over (register id, short-name id). Names that do not
/// follow the rule (another chip's, or a fullName read from text that differs from the
/// composition) are kept whole on the side and get ids of their own: they stay different keys,
/// as the name types compare all members. Names are never removed: a chip is described once.
/// Lookups remember their last answers, so even the const ones change the table: like the
/// rest of the chip, it belongs to the thread of the agent's event loop.
class TARN_API ChipNames {
public:
  using Id = U32;
  static constexpr Id none = ~Id{0};

  explicit ChipNames(Kiv::String const& chipName);
  ChipNames(ChipNames const&) = delete;
  ChipNames& operator=(ChipNames const&) = delete;

  Kiv::String const& chipName() const noexcept { return chip_; }
  /// @brief Number of field ids handed out so far (ids are 0 .. fieldCount() - 1).
  size_t fieldCount() const noexcept { return fields_.size(); }

  // ---- lookups: never allocate; none when the name was never stored

  /// @brief The register "chip-@p reg" of this chip.
  Id findRegister(Kiv::String const& reg) const noexcept;
  /// @brief Any register name, by its members.
  Id findRegister(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& fullName) const noexcept;
  /// @brief The field "register-@p field" of register @p reg.
  Id findField(Id reg, Kiv::String const& field) const noexcept;
  /// @brief Any field name of register @p reg, by its members.
  Id findField(Id reg, Kiv::String const& field, Kiv::String const& fullName) const noexcept;
  template <class FieldName>
  Id findField(FieldName const& n) const noexcept {
    Id const reg = findRegister(n.regName.chipName, n.regName.name, n.regName.fullName);
    return reg == none ? none : findField(reg, n.name, n.fullName);
  }

  // ---- storing: the id of the name, stored first when new

  Id registerId(Kiv::String const& reg);
  Id registerId(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& fullName);
  Id fieldId(Id reg, Kiv::String const& field);
  Id fieldId(Id reg, Kiv::String const& field, Kiv::String const& fullName);
  template <class FieldName>
  Id fieldId(FieldName const& n) {
    return fieldId(registerId(n.regName.chipName, n.regName.name, n.regName.fullName), n.name, n.fullName);
  }

  // ---- name values, built on demand

  /// @brief The register id of field @p field.
  Id fieldRegister(Id field) const noexcept { return fields_[field].reg; }
  template <class RegisterName>
  RegisterName registerName(Id reg) const;
  template <class FieldName>
  FieldName fieldName(Id field) const;
  /// @brief Appends field @p field's fullName to @p out.
  void appendFullName(Id field, fmt::memory_buffer& out) const;
  /// @brief Field @p field's fullName.
  std::string fullName(Id field) const;

private:
  static constexpr Id kApart = Id{1} << 31;  // marks the ids of names kept whole
  struct Field {
    Id reg;   // register id
    Id name;  // short-name id, or kApart | index into apartTails_
  };
  struct ApartRegister {
    Kiv::String chip, name, fullName;
  };
  struct ApartTail {
    Kiv::String name, fullName;
  };
  struct StringProbe {
    std::string_view text;
    U32 hash;
  };
  struct FieldProbe {
    Id reg, name;
  };
  struct ApartRegisterProbe {
    Kiv::String const &chip, &name, &fullName;
  };
  struct ApartTailProbe {
    Kiv::String const &name, &fullName;
  };
  // Hash and equality of the indexes: they hold ids and look the records up in the table.
  struct IndexFunctions {
    using is_transparent = void;
    ChipNames const* names;
    size_t operator()(StringProbe const& p) const noexcept { return p.hash; }
    size_t operator()(FieldProbe const& p) const noexcept { return size_t{p.reg} * 0x9e3779b1u ^ p.name; }
    size_t operator()(ApartRegisterProbe const& p) const noexcept { return p.fullName.hash(); }
    size_t operator()(ApartTailProbe const& p) const noexcept { return p.fullName.hash(); }
  };
  template <class Probe>
  struct Hash : IndexFunctions {
    using IndexFunctions::operator();
    size_t operator()(Id id) const noexcept;
  };
  template <class Probe>
  struct Equal {
    using is_transparent = void;
    ChipNames const* names;
    bool operator()(Id a, Id b) const noexcept { return a == b; }
    bool operator()(Probe const& p, Id id) const noexcept;
    bool operator()(Id id, Probe const& p) const noexcept { return (*this)(p, id); }
  };
  template <class Probe>
  using Index = boost::unordered_flat_set<Id, Hash<Probe>, Equal<Probe>>;

  Id findString(Kiv::String const& s) const noexcept;
  Id stringId(Kiv::String const& s);
  Id findField(FieldProbe probe) const noexcept;
  Id fieldId(FieldProbe probe);
  Id findTail(Id reg, Kiv::String const& field, Kiv::String const& fullName) const noexcept;
  Id tailId(Id reg, Kiv::String const& field, Kiv::String const& fullName);
  bool composesRegister(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& fullName) const noexcept;
  bool composesField(Id reg, Kiv::String const& field, Kiv::String const& fullName) const noexcept;
  Kiv::String const& registerFullNameIfApart(Id reg) const noexcept;

  // A describer passes the same register and field strings call after call, and the chip and
  // its translation ask for one field name several times in a row: the last answers are kept.
  struct CachedString {
    Kiv::String text;
    Id id = none;
  };
  mutable CachedString stringCache_[8];
  mutable Field lastFieldProbe_{none, none};
  mutable Id lastField_ = none;

  Kiv::String chip_;
  std::vector<Kiv::String> strings_;
  Index<StringProbe> stringIndex_{0, Hash<StringProbe>{{this}}, Equal<StringProbe>{this}};
  std::vector<Field> fields_;
  Index<FieldProbe> fieldIndex_{0, Hash<FieldProbe>{{this}}, Equal<FieldProbe>{this}};
  std::vector<ApartRegister> apartRegisters_;
  Index<ApartRegisterProbe> apartRegisterIndex_{0, Hash<ApartRegisterProbe>{{this}}, Equal<ApartRegisterProbe>{this}};
  std::vector<ApartTail> apartTails_;
  Index<ApartTailProbe> apartTailIndex_{0, Hash<ApartTailProbe>{{this}}, Equal<ApartTailProbe>{this}};
};

/// @brief Read-only view of a collection attribute kept in compact form.
///
/// Iteration and `find` build each entry as a value (name values included), `keys()` takes a
/// snapshot that stays valid while the collection changes. Entries come in a stable order:
/// fields in the order their names entered the chip's name table, registers and shadow keys
/// in the order they were first stored.
template <class Source>
class CompactEntries {
public:
  using key_type = typename Source::Key;
  using mapped_type = typename Source::Value;
  using value_type = std::pair<key_type, mapped_type>;

  class const_iterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = CompactEntries::value_type;
    using difference_type = std::ptrdiff_t;
    using reference = value_type;
    using pointer = void;
    const_iterator(Source source, size_t pos) : source_(source), pos_(pos) {}
    value_type operator*() const { return source_.entry(pos_); }
    const_iterator& operator++() {
      pos_ = source_.next(pos_ + 1);
      return *this;
    }
    bool operator==(const_iterator const& o) const noexcept { return pos_ == o.pos_; }

  private:
    Source source_;
    size_t pos_;
  };

  explicit CompactEntries(Source source) : source_(source) {}
  const_iterator begin() const { return const_iterator(source_, source_.next(0)); }
  const_iterator end() const { return const_iterator(source_, source_.positions()); }
  size_t size() const noexcept { return source_.size(); }
  bool empty() const noexcept { return source_.size() == 0; }
  /// @brief The entry for @p key, or nothing.
  std::optional<mapped_type> find(key_type const& key) const { return source_.find(key); }
  /// @brief A snapshot of the keys.
  std::vector<key_type> keys() const {
    std::vector<key_type> out;
    out.reserve(size());
    for (size_t pos = source_.next(0); pos < source_.positions(); pos = source_.next(pos + 1))
      out.push_back(source_.entry(pos).first);
    return out;
  }

private:
  Source source_;
};

class Translation;
class LogicalChip;

/// @brief How a view (CompactEntries) reaches one compact collection of @p Owner: the positions
/// of its storage, the next position in use, the number of entries, the entry at a position
/// built as values, and a lookup. Each collection defines these in LogicalChip.cpp.
template <class Owner, class K, class V>
struct TARN_API CompactSource {
  using Key = K;
  using Value = V;
  Owner const* owner;
  size_t positions() const noexcept;
  size_t next(size_t pos) const noexcept;
  size_t size() const noexcept;
  std::pair<Key, Value> entry(size_t pos) const;
  std::optional<Value> find(Key const& key) const;
};
using LogicalToPhysicalSource = CompactSource<Translation, LogicalFieldName, PhysicalFieldName>;
using PhysicalToLogicalSource = CompactSource<Translation, PhysicalFieldName, LogicalFieldName>;
using RegCollSource = CompactSource<LogicalChip, LogicalRegisterName, LogicalRegister>;
using LogicalFieldSource = CompactSource<LogicalChip, LogicalFieldName, LogicalField>;
using PhysicalFieldSource = CompactSource<LogicalChip, PhysicalFieldName, PhysicalField>;
using ShadowToPhysicalNameSource = CompactSource<LogicalChip, ShadowFieldKey, PhysicalFieldName>;

/// @brief Per-chip dictionary between logical and physical field names, in both directions.
///
/// The two maps are written independently and never reconciled: re-mapping a key
/// leaves the old mirror entry in the other map. Changes notify nobody.
class TARN_API Translation : public Kiv::Entity {
public:
  /// @brief Dense id of a field name in the translation's name table.
  using FieldId = ChipNames::Id;
  static constexpr FieldId noField = ChipNames::none;

  /// @brief Creates a translation for chip @p name, with notification active.
  static Kiv::Ptr<Translation> TranslationIs(Kiv::String const& name);

  /// @brief "TarnRegFile::Translation".
  char const* fwkType() const override { return "TarnRegFile::Translation"; }

  /// @brief The physical name mapped to @p lf, or the default name when there is none.
  PhysicalFieldName logicalToPhysical(LogicalFieldName const& lf) const;
  /// @brief Whether @p lf is mapped.
  bool logicalToPhysicalHas(LogicalFieldName const& lf) const noexcept;
  /// @brief Inserts the pair, or overwrites the value stored for @p lf.
  void logicalToPhysicalIs(LogicalFieldName const& lf, PhysicalFieldName const& pf);
  /// @brief Removes @p lf; an absent key is no error.
  void logicalToPhysicalDel(LogicalFieldName const& lf) noexcept;
  /// @brief Empties the forward map.
  void logicalToPhysicalDelAll() noexcept;
  /// @brief The forward map, for iteration.
  CompactEntries<LogicalToPhysicalSource> logicalToPhysicalEntries() const noexcept {
    return CompactEntries<LogicalToPhysicalSource>({this});
  }

  /// @brief The logical name mapped to @p pf, or the default name when there is none.
  LogicalFieldName physicalToLogical(PhysicalFieldName const& pf) const;
  /// @brief Whether @p pf is mapped.
  bool physicalToLogicalHas(PhysicalFieldName const& pf) const noexcept;
  /// @brief Inserts the pair, or overwrites the value stored for @p pf.
  void physicalToLogicalIs(PhysicalFieldName const& pf, LogicalFieldName const& lf);
  /// @brief Removes @p pf; an absent key is no error.
  void physicalToLogicalDel(PhysicalFieldName const& pf) noexcept;
  /// @brief Empties the reverse map.
  void physicalToLogicalDelAll() noexcept;
  /// @brief The reverse map, for iteration.
  CompactEntries<PhysicalToLogicalSource> physicalToLogicalEntries() const noexcept {
    return CompactEntries<PhysicalToLogicalSource>({this});
  }

  /// @brief Records that logical field @p logicalField of register @p logicalReg is backed by
  /// @p physicalField of @p physicalReg (all of this chip): forward entry first, then reverse.
  void populate(Kiv::String const& logicalReg, Kiv::String const& logicalField, Kiv::String const& physicalReg,
                Kiv::String const& physicalField);

  /// @brief The physical field backing @p lfName; a missing mapping is a fatal programming error.
  PhysicalFieldName getPhysicalFieldName(LogicalFieldName const& lfName);
  /// @brief The logical field backed by @p pfName; a missing mapping is a fatal programming error.
  LogicalFieldName getLogicalFieldName(PhysicalFieldName const& pfName);

  // ---- by id, for the chip and its state machines (no name values built)

  /// @brief The name table, shared with the chip that created the translation.
  ChipNames const& names() const noexcept { return *names_; }
  /// @brief The physical field id mapped to logical field id @p lf, or noField.
  FieldId physicalFieldId(FieldId lf) const noexcept { return forward_.at(lf); }
  /// @brief The logical field id mapped to physical field id @p pf, or noField.
  FieldId logicalFieldId(FieldId pf) const noexcept { return reverse_.at(pf); }

protected:
  explicit Translation(Kiv::String const& name);
  Translation(Kiv::String const& name, std::shared_ptr<ChipNames> names);
  ~Translation() override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  friend class LogicalChip;
  friend LogicalToPhysicalSource;
  friend PhysicalToLogicalSource;

  /// One direction of the dictionary: by source field id, the target field id or noField.
  struct Direction {
    std::vector<FieldId> to;
    size_t count = 0;  // ids mapped
    FieldId at(FieldId from) const noexcept { return from < to.size() ? to[from] : noField; }
    void map(FieldId from, FieldId target);
    void unmap(FieldId from) noexcept;
    void clear() noexcept;
  };

  template <class To, class From>
  To mapped(Direction const& d, From const& from) const;
  template <class From>
  bool mappedHas(Direction const& d, From const& from) const noexcept;
  template <class From, class To>
  void mapIs(Direction& d, From const& from, To const& to);
  template <class From>
  void mapDel(Direction& d, From const& from) noexcept;

  std::shared_ptr<ChipNames> names_;
  Direction forward_;  // by logical field id
  Direction reverse_;  // by physical field id
};

/// @brief Creates a translation for chip @p name.
TARN_API Kiv::Ptr<Translation> translationFactory(Kiv::String const& name);

/// @brief The logical view of one chip.
///
/// Life: created, then populated (physical fields, logical fields, translation),
/// then marked ready by its owner. Population is refused once ready; writes and
/// read-back are refused until then. Both refusals are fatal programming errors.
/// Every mutator notifies observers only when the stored value really changes.
class TARN_API LogicalChip : public Kiv::Entity {
public:
  /// @brief Dense id of a field name in the chip's name table (shared with its translation).
  using FieldId = ChipNames::Id;
  static constexpr FieldId noField = ChipNames::none;

  /// @brief Observer of a chip: one operation per attribute, with the key for collections.
  class TARN_API Notifiee : public Kiv::Notifiee<LogicalChip> {
  public:
    virtual void onRegColl(LogicalRegisterName const&) {}
    virtual void onLogicalField(LogicalFieldName const&) {}
    virtual void onTranslation() {}
    virtual void onPhysicalField(PhysicalFieldName const&) {}
    virtual void onPhysicalFieldCount() {}
    virtual void onShadowToPhysicalName(ShadowFieldKey const&) {}
    virtual void onShadowFieldsConfig() {}
    virtual void onShadowFieldsStatus() {}
    virtual void onReady() {}
    virtual void onInitialized() {}
  };

  /// @brief Creates a chip called @p name (notification active, translation created).
  static Kiv::Ptr<LogicalChip> LogicalChipIs(Kiv::String const& name);

  /// @brief "TarnRegFile::LogicalChip".
  char const* fwkType() const override { return "TarnRegFile::LogicalChip"; }

  // ---- regColl: logical registers by name

  /// @brief The register @p name, or the default register when absent.
  LogicalRegister regColl(LogicalRegisterName const& name) const;
  /// @brief Whether register @p name exists.
  bool regCollHas(LogicalRegisterName const& name) const noexcept;
  /// @brief Inserts @p reg under its own name, or replaces the stored register if it differs.
  void regCollIs(LogicalRegister const& reg);
  /// @brief Removes register @p name (absent: nothing happens).
  void regCollDel(LogicalRegisterName const& name);
  /// @brief Removes every register, notifying each.
  void regCollDelAll();
  /// @brief Every register, for iteration.
  CompactEntries<RegCollSource> regCollEntries() const noexcept { return CompactEntries<RegCollSource>({this}); }

  // ---- logicalField: logical fields by name

  /// @brief The field @p name, or the default field when absent.
  LogicalField logicalField(LogicalFieldName const& name) const;
  /// @brief Whether field @p name exists.
  bool logicalFieldHas(LogicalFieldName const& name) const noexcept;
  /// @brief Inserts @p field under its own name, or replaces the stored field if it differs.
  void logicalFieldIs(LogicalField const& field);
  /// @brief Removes field @p name (absent: nothing happens).
  void logicalFieldDel(LogicalFieldName const& name);
  /// @brief Removes every field, notifying each.
  void logicalFieldDelAll();
  /// @brief Every logical field, for iteration.
  CompactEntries<LogicalFieldSource> logicalFieldEntries() const noexcept {
    return CompactEntries<LogicalFieldSource>({this});
  }

  // ---- translation

  /// @brief The chip's translation (empty after translationDel).
  Kiv::Ptr<Translation> const& translation() const noexcept { return translation_; }
  /// @brief The chip's translation, created (and notified) on first use.
  Kiv::Ptr<Translation> translationIs();
  /// @brief Drops the translation reference.
  void translationDel();

  // ---- physicalField: physical fields by name

  /// @brief The field @p name, or the default field when absent.
  PhysicalField physicalField(PhysicalFieldName const& name) const;
  /// @brief Whether physical field @p name exists.
  bool physicalFieldHas(PhysicalFieldName const& name) const noexcept;
  /// @brief Inserts @p field under its own name, or replaces the stored field if it differs.
  void physicalFieldIs(PhysicalField const& field);
  /// @brief Removes physical field @p name (absent: nothing happens).
  void physicalFieldDel(PhysicalFieldName const& name);
  /// @brief Removes every physical field, notifying each.
  void physicalFieldDelAll();
  /// @brief Every physical field, for iteration.
  CompactEntries<PhysicalFieldSource> physicalFieldEntries() const noexcept {
    return CompactEntries<PhysicalFieldSource>({this});
  }

  // ---- physicalFieldCount: fields populated so far, and the next shadow address

  /// @brief Physical fields populated so far (calls, not distinct names).
  U32 physicalFieldCount() const { return physicalFieldCount_; }
  /// @brief Sets the count, hence the shadow address the next physical field gets.
  void physicalFieldCountIs(U32 count);
  /// @brief Adds @p n and returns the new count; notifies only when @p n is not 0.
  U32 physicalFieldCountInc(U32 n);

  // ---- shadowToPhysicalName: reverse index from shadow key to physical field

  /// @brief The physical name stored for @p key, or the default name when absent.
  PhysicalFieldName shadowToPhysicalName(ShadowFieldKey const& key) const;
  /// @brief Whether @p key is indexed.
  bool shadowToPhysicalNameHas(ShadowFieldKey const& key) const noexcept;
  /// @brief Indexes @p key, or overwrites its name if different.
  void shadowToPhysicalNameIs(ShadowFieldKey const& key, PhysicalFieldName const& name);
  /// @brief Removes @p key (absent: nothing happens).
  void shadowToPhysicalNameDel(ShadowFieldKey const& key);
  /// @brief Removes every key, notifying each.
  void shadowToPhysicalNameDelAll();
  /// @brief The whole index, for iteration.
  CompactEntries<ShadowToPhysicalNameSource> shadowToPhysicalNameEntries() const noexcept {
    return CompactEntries<ShadowToPhysicalNameSource>({this});
  }

  // ---- shadow-field collections in shared memory

  /// @brief Desired values of the physical fields (empty until mounted).
  Kiv::Ptr<ShadowFieldsConfig> const& shadowFieldsConfig() const noexcept { return shadowFieldsConfig_; }
  /// @brief Sets the desired-values collection; notifies only on change.
  void shadowFieldsConfigIs(Kiv::Ptr<ShadowFieldsConfig> const& config);
  /// @brief Applied values of the physical fields (empty until mounted).
  Kiv::Ptr<ShadowFieldsStatus> const& shadowFieldsStatus() const noexcept { return shadowFieldsStatus_; }
  /// @brief Sets the applied-values collection; notifies only on change.
  void shadowFieldsStatusIs(Kiv::Ptr<ShadowFieldsStatus> const& status);

  // ---- flags

  /// @brief Population finished: writes allowed, population refused.
  bool ready() const { return ready_; }
  /// @brief Sets ready; notifies only on change.
  void readyIs(bool ready);
  /// @brief Construction finished.
  bool initialized() const { return initialized_; }
  /// @brief Sets initialized; notifies only on change.
  void initializedIs(bool initialized);

  // ---- operations

  /// @brief Ensures the translation exists and marks construction finished.
  void handleInitialized();

  /// @brief Adds physical field @p field of register @p reg with the next shadow address.
  ///
  /// Bound violations throw Kiv::RangeException and leave the chip unchanged. Populating
  /// a name twice replaces the field with a new key; the count counts calls.
  void populatePhysicalField(Kiv::String const& reg, Kiv::String const& field, U8 start, U8 size);
  /// @brief Adds logical field @p field of register @p reg with initial @p value,
  /// creating the register with its first field and merging the value into it.
  void populateLogicalField(Kiv::String const& reg, Kiv::String const& field, U8 start, U8 size, U32 value);

  /// @brief Mounts the chip's two shadow collections at @p configPath and @p statusPath with room
  /// for every physical field populated so far, then sets every desired value to 0.
  ///
  /// Must follow population (the capacity is the physical field count now). A physical field
  /// without a logical mapping ends the process. Mount failures propagate.
  void mountShadowFields(Kiv::Ptr<Kiv::Shm::EntityManager> const& entityManager, Kiv::String const& configPath,
                         Kiv::String const& statusPath);

  /// @brief Writes @p value into field @p field of register @p reg (register gets the low
  /// size bits, the field keeps all 32) and notifies only what changed.
  void fieldWrite(Kiv::String const& reg, Kiv::String const& field, U32 value);
  /// @brief Writes the whole 64-bit register and every one of its fields.
  void regWrite(Kiv::String const& reg, U64 value);
  /// @brief The register's cached value.
  U64 regGetLastWritten(Kiv::String const& reg);
  /// @brief The field's cached (unmasked) value.
  U32 fieldGetLastWritten(Kiv::String const& reg, Kiv::String const& field);

  // ---- by id, for the chip's state machines (no name values built)

  /// @brief The name table, shared with the chip's translation.
  ChipNames const& names() const noexcept { return *names_; }
  /// @brief The id of @p name, or noField when the chip never stored that name.
  FieldId logicalFieldId(LogicalFieldName const& name) const noexcept { return names_->findField(name); }
  /// @brief The ids of every logical field, in iteration order: a snapshot.
  std::vector<FieldId> logicalFieldIds() const;
  /// @brief The value of logical field @p id, or null when there is no such field.
  U32 const* logicalFieldValue(FieldId id) const noexcept {
    return id < logical_.size() && (logical_[id].flags & kPresent) ? &logical_[id].value : nullptr;
  }
  /// @brief The shadow key of physical field @p id, or null when there is no such field.
  ShadowFieldKey const* physicalFieldKey(FieldId id) const noexcept {
    return id < physical_.size() && physical_[id].present ? &physical_[id].key : nullptr;
  }

protected:
  explicit LogicalChip(Kiv::String const& name);
  ~LogicalChip() override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  friend RegCollSource;
  friend LogicalFieldSource;
  friend PhysicalFieldSource;
  friend ShadowToPhysicalNameSource;

  using Id = ChipNames::Id;
  static constexpr Id none = ChipNames::none;

  // A logical field by field id. The flags also say whether the field belongs to the field
  // set of its own register, and with which flag: the check of every field write.
  static constexpr U8 kPresent = 1, kInOwnRegister = 2, kOwnRegisterFlag = 4;
  struct LogicalSlot {
    U32 value = 0;
    U8 start = 0;
    U8 size = 1;
    U8 flags = 0;
  };
  // A physical field by field id.
  struct PhysicalSlot {
    ShadowFieldKey key;
    U8 start = 0;
    U8 size = 1;
    bool present = false;
  };
  // A register, in the order registers were first stored. Its field set is a list of links.
  struct RegisterSlot {
    U64 value = 0;
    Id name = none;
    Id head = none;
    Id tail = none;
    U32 fields = 0;
    bool present = false;
  };
  // One member of a register's field set: field id (top bit: the member's flag) and the next member.
  static constexpr Id kFlagBit = Id{1} << 31;
  struct SetLink {
    Id field;
    Id next;
  };
  // One entry of the shadow index, in the order keys were first stored; field none when removed.
  struct ShadowSlot {
    ShadowFieldKey key;
    Id field;
  };
  // Register slots are found by register name id, shadow slots by key.
  struct NameProbe {
    Id name;
  };
  template <class Slot>
  struct SlotHash {
    using is_transparent = void;
    std::vector<Slot> const* slots;
    size_t operator()(U32 pos) const noexcept;
    size_t operator()(NameProbe p) const noexcept { return size_t{p.name} * 0x9e3779b1u; }
    // In-process only: a cheap mix, spread further by the index itself.
    size_t operator()(ShadowFieldKey const& key) const noexcept {
      return size_t{key.address} * 0x9e3779b1u ^ (size_t{key.start} << 8 | key.size);
    }
  };
  template <class Slot>
  struct SlotEqual {
    using is_transparent = void;
    std::vector<Slot> const* slots;
    bool operator()(U32 a, U32 b) const noexcept;  // by content: an offered new slot may repeat a key
    bool operator()(NameProbe p, U32 pos) const noexcept;
    bool operator()(U32 pos, NameProbe p) const noexcept { return (*this)(p, pos); }
    bool operator()(ShadowFieldKey const& key, U32 pos) const noexcept;
    bool operator()(U32 pos, ShadowFieldKey const& key) const noexcept { return (*this)(key, pos); }
  };
  template <class Slot>
  using SlotIndex = boost::unordered_flat_set<U32, SlotHash<Slot>, SlotEqual<Slot>>;

  /// True when a notification could reach someone who might change the collections meanwhile.
  bool observed() const noexcept { return hasNotificationActive() && notifieeCount() != 0; }

  U32 findRegisterSlot(Id reg) const noexcept;
  U32 registerSlot(Id reg);
  U32 findShadowSlot(ShadowFieldKey const& key) const noexcept;
  bool fieldSetHas(RegisterSlot const& slot, Id field) const noexcept;
  Id fieldSetFind(RegisterSlot const& slot, Id field) const noexcept;
  bool fieldSetIs(U32 slot, Id field, bool flag);
  void fieldSetClear(U32 slot) noexcept;
  bool sameFieldSet(RegisterSlot const& slot, LogicalRegister::FieldSet const& fields) const;
  LogicalRegister registerValue(U32 slot, LogicalRegisterName const& name) const;
  LogicalField logicalFieldValueOf(Id field, LogicalFieldName const& name) const;
  PhysicalField physicalFieldValueOf(Id field, PhysicalFieldName const& name) const;

  void logicalFieldIsAt(Id field, LogicalSlot const& slot);
  void physicalFieldIsAt(Id field, PhysicalSlot const& slot);
  void shadowToPhysicalNameIsAt(ShadowFieldKey const& key, Id field);

  std::shared_ptr<ChipNames> names_;
  mutable Id lastRegister_ = none;  // the register slot found last, and its name
  mutable U32 lastRegisterSlot_ = none;
  std::vector<RegisterSlot> registers_;
  SlotIndex<RegisterSlot> registerIndex_{0, SlotHash<RegisterSlot>{&registers_}, SlotEqual<RegisterSlot>{&registers_}};
  size_t registerCount_ = 0;
  std::vector<SetLink> links_;
  Id freeLinks_ = none;
  std::vector<LogicalSlot> logical_;
  size_t logicalCount_ = 0;
  Kiv::Ptr<Translation> translation_;
  std::vector<PhysicalSlot> physical_;
  size_t physicalCount_ = 0;
  U32 physicalFieldCount_ = 0;
  std::vector<ShadowSlot> shadow_;
  SlotIndex<ShadowSlot> shadowIndex_{0, SlotHash<ShadowSlot>{&shadow_}, SlotEqual<ShadowSlot>{&shadow_}};
  size_t shadowCount_ = 0;
  Kiv::Ptr<ShadowFieldsConfig> shadowFieldsConfig_;
  Kiv::Ptr<ShadowFieldsStatus> shadowFieldsStatus_;
  bool ready_ = false;
  bool initialized_ = false;
};

/// @brief Creates a chip called @p name.
TARN_API Kiv::Ptr<LogicalChip> logicalChipFactory(Kiv::String const& name);

}  // namespace TarnRegFile
