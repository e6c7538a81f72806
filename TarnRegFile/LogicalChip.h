#pragma once
/// @file LogicalChip.h
/// @brief The logical view of one chip: logical registers and fields, their physical
/// fields, the translation between the two, and writes and read-back by name.

#include "Export.h"
#include "KivCollection.h"
#include "KivEntity.h"
#include "KivPtr.h"
#include "KivString.h"
#include "ShmEntityManager.h"
#include "TarnRegFile/LogicalTypes.h"
#include "TarnRegFile/PhysicalTypes.h"
#include "TarnRegFile/ShadowTypes.h"
#include "Types.h"

namespace TarnRegFile {

/// @brief Per-chip dictionary between logical and physical field names, in both directions.
///
/// The two maps are written independently and never reconciled: re-mapping a key
/// leaves the old mirror entry in the other map. Changes notify nobody.
class TARN_API Translation : public Kiv::Entity {
public:
  using LogicalToPhysicalMap = Kiv::KeyedCollection<LogicalFieldName, PhysicalFieldName>;
  using PhysicalToLogicalMap = Kiv::KeyedCollection<PhysicalFieldName, LogicalFieldName>;

  /// @brief Creates a translation for chip @p name, with notification active.
  static Kiv::Ptr<Translation> TranslationIs(Kiv::String const& name);

  /// @brief "TarnRegFile::Translation".
  char const* fwkType() const override { return "TarnRegFile::Translation"; }

  /// @brief The physical name mapped to @p lf, or the default name when there is none.
  PhysicalFieldName logicalToPhysical(LogicalFieldName const& lf) const { return logicalToPhysical_.get(lf); }
  /// @brief Whether @p lf is mapped.
  bool logicalToPhysicalHas(LogicalFieldName const& lf) const { return logicalToPhysical_.has(lf); }
  /// @brief Inserts the pair, or overwrites the value stored for @p lf.
  void logicalToPhysicalIs(LogicalFieldName const& lf, PhysicalFieldName const& pf) { logicalToPhysical_.put(lf, pf); }
  /// @brief Removes @p lf; an absent key is no error.
  void logicalToPhysicalDel(LogicalFieldName const& lf) { logicalToPhysical_.erase(lf); }
  /// @brief Empties the forward map.
  void logicalToPhysicalDelAll() { logicalToPhysical_ = LogicalToPhysicalMap(); }
  /// @brief The forward map, for iteration.
  LogicalToPhysicalMap const& logicalToPhysicalEntries() const noexcept { return logicalToPhysical_; }

  /// @brief The logical name mapped to @p pf, or the default name when there is none.
  LogicalFieldName physicalToLogical(PhysicalFieldName const& pf) const { return physicalToLogical_.get(pf); }
  /// @brief Whether @p pf is mapped.
  bool physicalToLogicalHas(PhysicalFieldName const& pf) const { return physicalToLogical_.has(pf); }
  /// @brief Inserts the pair, or overwrites the value stored for @p pf.
  void physicalToLogicalIs(PhysicalFieldName const& pf, LogicalFieldName const& lf) { physicalToLogical_.put(pf, lf); }
  /// @brief Removes @p pf; an absent key is no error.
  void physicalToLogicalDel(PhysicalFieldName const& pf) { physicalToLogical_.erase(pf); }
  /// @brief Empties the reverse map.
  void physicalToLogicalDelAll() { physicalToLogical_ = PhysicalToLogicalMap(); }
  /// @brief The reverse map, for iteration.
  PhysicalToLogicalMap const& physicalToLogicalEntries() const noexcept { return physicalToLogical_; }

  /// @brief Records that logical field @p logicalField of register @p logicalReg is backed by
  /// @p physicalField of @p physicalReg (all of this chip): forward entry first, then reverse.
  void populate(Kiv::String const& logicalReg, Kiv::String const& logicalField, Kiv::String const& physicalReg,
                Kiv::String const& physicalField);

  /// @brief The physical field backing @p lfName; a missing mapping is a fatal programming error.
  PhysicalFieldName getPhysicalFieldName(LogicalFieldName const& lfName);
  /// @brief The logical field backed by @p pfName; a missing mapping is a fatal programming error.
  LogicalFieldName getLogicalFieldName(PhysicalFieldName const& pfName);

protected:
  explicit Translation(Kiv::String const& name);
  ~Translation() override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  LogicalToPhysicalMap logicalToPhysical_;
  PhysicalToLogicalMap physicalToLogical_;
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
  using RegCollMap =
      LogicalNameCollection<LogicalRegisterName, LogicalRegister, LogicalRegisterNameHash, LogicalRegisterNameEqual>;
  using LogicalFieldMap = LogicalNameCollection<LogicalFieldName, LogicalField, LogicalFieldNameHash, LogicalFieldNameEqual>;
  using PhysicalFieldMap = Kiv::KeyedCollection<PhysicalFieldName, PhysicalField>;
  using ShadowToPhysicalNameMap = Kiv::KeyedCollection<ShadowFieldKey, PhysicalFieldName>;

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
  LogicalRegister regColl(LogicalRegisterName const& name) const { return regColl_.get(name); }
  /// @brief Whether register @p name exists.
  bool regCollHas(LogicalRegisterName const& name) const { return regColl_.has(name); }
  /// @brief Inserts @p reg under its own name, or replaces the stored register if it differs.
  void regCollIs(LogicalRegister const& reg);
  /// @brief Removes register @p name (absent: nothing happens).
  void regCollDel(LogicalRegisterName const& name);
  /// @brief Removes every register, notifying each.
  void regCollDelAll();
  /// @brief Every register, for iteration.
  RegCollMap const& regCollEntries() const noexcept { return regColl_; }

  // ---- logicalField: logical fields by name

  /// @brief The field @p name, or the default field when absent.
  LogicalField logicalField(LogicalFieldName const& name) const { return logicalField_.get(name); }
  /// @brief Whether field @p name exists.
  bool logicalFieldHas(LogicalFieldName const& name) const { return logicalField_.has(name); }
  /// @brief Inserts @p field under its own name, or replaces the stored field if it differs.
  void logicalFieldIs(LogicalField const& field);
  /// @brief Removes field @p name (absent: nothing happens).
  void logicalFieldDel(LogicalFieldName const& name);
  /// @brief Removes every field, notifying each.
  void logicalFieldDelAll();
  /// @brief Every logical field, for iteration.
  LogicalFieldMap const& logicalFieldEntries() const noexcept { return logicalField_; }

  // ---- translation

  /// @brief The chip's translation (empty after translationDel).
  Kiv::Ptr<Translation> const& translation() const noexcept { return translation_; }
  /// @brief The chip's translation, created (and notified) on first use.
  Kiv::Ptr<Translation> translationIs();
  /// @brief Drops the translation reference.
  void translationDel();

  // ---- physicalField: physical fields by name

  /// @brief The field @p name, or the default field when absent.
  PhysicalField physicalField(PhysicalFieldName const& name) const { return physicalField_.get(name); }
  /// @brief Whether physical field @p name exists.
  bool physicalFieldHas(PhysicalFieldName const& name) const { return physicalField_.has(name); }
  /// @brief Inserts @p field under its own name, or replaces the stored field if it differs.
  void physicalFieldIs(PhysicalField const& field);
  /// @brief Removes physical field @p name (absent: nothing happens).
  void physicalFieldDel(PhysicalFieldName const& name);
  /// @brief Removes every physical field, notifying each.
  void physicalFieldDelAll();
  /// @brief Every physical field, for iteration.
  PhysicalFieldMap const& physicalFieldEntries() const noexcept { return physicalField_; }

  // ---- physicalFieldCount: fields populated so far, and the next shadow address

  /// @brief Physical fields populated so far (calls, not distinct names).
  U32 physicalFieldCount() const { return physicalFieldCount_; }
  /// @brief Sets the count, hence the shadow address the next physical field gets.
  void physicalFieldCountIs(U32 count);
  /// @brief Adds @p n and returns the new count; notifies only when @p n is not 0.
  U32 physicalFieldCountInc(U32 n);

  // ---- shadowToPhysicalName: reverse index from shadow key to physical field

  /// @brief The physical name stored for @p key, or the default name when absent.
  PhysicalFieldName shadowToPhysicalName(ShadowFieldKey const& key) const { return shadowToPhysicalName_.get(key); }
  /// @brief Whether @p key is indexed.
  bool shadowToPhysicalNameHas(ShadowFieldKey const& key) const { return shadowToPhysicalName_.has(key); }
  /// @brief Indexes @p key, or overwrites its name if different.
  void shadowToPhysicalNameIs(ShadowFieldKey const& key, PhysicalFieldName const& name);
  /// @brief Removes @p key (absent: nothing happens).
  void shadowToPhysicalNameDel(ShadowFieldKey const& key);
  /// @brief Removes every key, notifying each.
  void shadowToPhysicalNameDelAll();
  /// @brief The whole index, for iteration.
  ShadowToPhysicalNameMap const& shadowToPhysicalNameEntries() const noexcept { return shadowToPhysicalName_; }

  // ---- flags

  // ---- shadow-field collections in shared memory

  /// @brief Desired values of the physical fields (empty until mounted).
  Kiv::Ptr<ShadowFieldsConfig> const& shadowFieldsConfig() const noexcept { return shadowFieldsConfig_; }
  /// @brief Sets the desired-values collection; notifies only on change.
  void shadowFieldsConfigIs(Kiv::Ptr<ShadowFieldsConfig> const& config);
  /// @brief Applied values of the physical fields (empty until mounted).
  Kiv::Ptr<ShadowFieldsStatus> const& shadowFieldsStatus() const noexcept { return shadowFieldsStatus_; }
  /// @brief Sets the applied-values collection; notifies only on change.
  void shadowFieldsStatusIs(Kiv::Ptr<ShadowFieldsStatus> const& status);

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

protected:
  explicit LogicalChip(Kiv::String const& name);
  ~LogicalChip() override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  /// True when a notification could reach someone who might change the collections meanwhile.
  bool observed() const noexcept { return hasNotificationActive() && notifieeCount() != 0; }

  RegCollMap regColl_;
  LogicalFieldMap logicalField_;
  Kiv::Ptr<Translation> translation_;
  PhysicalFieldMap physicalField_;
  U32 physicalFieldCount_ = 0;
  ShadowToPhysicalNameMap shadowToPhysicalName_;
  Kiv::Ptr<ShadowFieldsConfig> shadowFieldsConfig_;
  Kiv::Ptr<ShadowFieldsStatus> shadowFieldsStatus_;
  bool ready_ = false;
  bool initialized_ = false;
};

/// @brief Creates a chip called @p name.
TARN_API Kiv::Ptr<LogicalChip> logicalChipFactory(Kiv::String const& name);

}  // namespace TarnRegFile
