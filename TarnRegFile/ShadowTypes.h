#pragma once
/// @file ShadowTypes.h
/// @brief The shadow-field collections of one chip in shared memory: desired values
/// (`ShadowFieldsConfig`) and values last applied to the hardware (`ShadowFieldsStatus`).
///
/// Both types map a `ShadowFieldKey` to a `ShadowFieldValue` carrying that key,
/// in one shared-memory table per entity. The entity manager
/// (platform/ShmEntityManager.h) creates them when it mounts a path such as
/// "TarnRegFile/shadowFieldsConfig/chip0"; placing one under its parent
/// attaches its `field` collection to the table of that path (as writer or
/// reader, as the mount says), and removing it from its parent detaches it.
///
/// Every write and every `fieldDel` notifies the local notifiees'
/// `onField(key)`, also when nothing changed (the value was the same, the key
/// was absent): the collection does no change detection, its readers do.
/// Other processes see a committed value as soon as the write returns; they
/// notice changes through `fieldChangeCounter()`. The reads are const.
///
/// Lifetime: while mounted, the entity hands itself over to its
/// `fieldControl` when its last reference goes (see `onZeroReferences`), so
/// the mount outlives its users until the entity manager unmounts it.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/ShmCollection.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/PhysicalTypes.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace TarnRegFile {

/// @brief The table record of a ShadowFieldValue: 12 bytes, little-endian, the same in every process.
///
/// Bytes 0-3 address, 4 start, 5 size, 6-7 zero, 8-11 value; the first 8 bytes are the key.
/// The in-memory layout of ShadowFieldValue on the supported (little-endian) targets is the
/// same record, which lets a writer fill the table's slot through a ShadowFieldValue pointer.
struct TARN_API ShadowFieldTraits {
  using Value = ShadowFieldValue;
  using Key = ShadowFieldKey;
  static constexpr U32 keySize = 8;
  static constexpr U32 valueSize = 12;

  static void encodeKey(Key const& key, std::byte* out) noexcept;
  static void encode(Value const& value, std::byte* out) noexcept;
  static Value decode(std::byte const* in) noexcept;
  static Key keyOf(Value const& value) noexcept { return value.key; }
  static U32 hash(Key const& key, U32 seed) noexcept { return key.hash(seed); }
};

/// @brief The typed shared-memory collection behind the `field` attribute.
using ShadowFieldCollection = Kiv::Shm::Collection<ShadowFieldTraits>;

/// @brief What observers of a shadow-field collection react to.
class TARN_API ShadowFieldsNotifieeBase : public Kiv::NotifieeBase {
public:
  /// @brief The entry of @p key was written, committed, removed, or explicitly re-announced.
  virtual void onField(ShadowFieldKey const& key);
  /// @brief The collection-control reference changed.
  virtual void onFieldControl();

protected:
  ShadowFieldsNotifieeBase() = default;
};

/// @brief Observer of one shadow-field entity of type E; holds a counted reference to it.
template <class E>
class ShadowFieldsNotifiee : public ShadowFieldsNotifieeBase {
public:
  /// @brief The observed entity, or null.
  E* notifier() const noexcept { return static_cast<E*>(notifierBase()); }
  /// @brief Observes @p e (and keeps it alive); null detaches.
  void notifierIs(Kiv::Ptr<E> const& e) {
    held_ = e;
    notifierBaseIs(e.ptr());
  }

protected:
  ShadowFieldsNotifiee() = default;
  ~ShadowFieldsNotifiee() override { notifierBaseIs(nullptr); }

private:
  Kiv::Ptr<E> held_;
};

/// @brief What ShadowFieldsConfig and ShadowFieldsStatus have in common: everything but their names.
class TARN_API ShadowFields : public Kiv::Entity, public Kiv::Shm::ControlledEntity {
public:
  /// @brief Name of the collection in mount descriptions.
  static constexpr char const* kFieldCollection = "field";

  using FieldIterator = ShadowFieldCollection::Iterator;
  /// @brief Range over the entries, in table order (for range-for).
  struct FieldRange {
    ShadowFields const* self;
    FieldIterator begin() const { return self->fieldBegin(); }
    FieldIterator end() const { return self->fieldEnd(); }
  };

  // ---- field: ShadowFieldKey -> ShadowFieldValue in shared memory

  /// @brief Copies @p value into the table under value.key (insert or replace), then notifies the key.
  ///
  /// Throws std::runtime_error when the entity is not attached, is attached
  /// read-only, or the table is full. A corrupt table is reported to the
  /// corruption handler and ends the process.
  void fieldIs(ShadowFieldValue const& value);

  /// @brief The table's writer slot, to build a value in place for fieldCommit().
  ///
  /// Valid until the next write, commit or removal. Throws like fieldIs when not attached as writer.
  ShadowFieldValue* fieldSlot();

  /// @brief Publishes the value built in the writer slot (@p slot must be fieldSlot()), then notifies its key.
  ///
  /// Throws std::invalid_argument for any other pointer; failures otherwise as fieldIs.
  void fieldCommit(ShadowFieldValue const* slot);

  /// @brief Removes the entry of @p key, then notifies the key, also when there was
  /// none (like a write, a removal does no change detection); returns whether an
  /// entry was removed.
  ///
  /// A corrupt table is reported to the corruption handler and the
  /// Kiv::Shm::CorruptionException propagates, without a notification.
  bool fieldDel(ShadowFieldKey const& key);

  /// @brief Removes every entry, key by key, notifying each (nothing on an empty collection).
  ///
  /// Corruption met on the way is reported to the corruption handler and ends
  /// the pass; the entries not reached stay.
  void fieldDelAll();

  /// @brief The entry of @p key, or the default ShadowFieldValue (value 0) when there is none.
  ///
  /// Throws Kiv::Shm::CorruptionException for a corrupt table (the caller reports it).
  ShadowFieldValue field(ShadowFieldKey const& key) const;
  /// @brief True when the table holds @p key.
  bool fieldHas(ShadowFieldKey const& key) const;

  /// @brief Iteration from the first entry; advancing may throw Kiv::Shm::CorruptionException.
  FieldIterator fieldBegin() const;
  FieldIterator fieldEnd() const { return FieldIterator(); }
  FieldRange fields() const { return FieldRange{this}; }

  /// @brief Number of entries.
  U32 fieldCount() const;
  /// @brief The most entries the table may hold (its limit; the table grows with its entries).
  U32 fieldCapacity() const;
  /// @brief Counter of committed changes by any process (wraps).
  U32 fieldChangeCounter() const;

  /// @brief Notifies the key without changing anything.
  void fieldNotify(ShadowFieldKey const& key);
  /// @brief Sets the collection control's quiesced flag.
  void fieldNotifyQuiesced(bool quiesced);
  /// @brief Copies the collection's mount status into the collection control.
  void fieldNotifyMountStatus();
  /// @brief The collection's own mount status.
  Kiv::Shm::MountStatus fieldMountStatus() const noexcept { return fieldMountStatus_; }

  /// @brief The collection-control object (created with the entity).
  Kiv::Ptr<Kiv::Shm::CollectionControl> const& fieldControl() const noexcept { return fieldControl_; }
  /// @brief Replaces the collection-control reference; notifies onFieldControl on change.
  void fieldControlIs(Kiv::Ptr<Kiv::Shm::CollectionControl> const& control);

  /// @brief The mount path of the attached table, empty when not attached.
  std::string const& path() const noexcept { return path_; }
  /// @brief True while attached to a table.
  bool attached() const noexcept { return field_.has_value(); }
  /// @brief True when attached as the table's writer.
  bool writer() const noexcept { return field_ && fieldMode_ == Kiv::Shm::MountMode::writer; }

  Kiv::Ptr<Kiv::Shm::CollectionControl> mountControl() const override { return fieldControl_; }

  /// @brief Every entry of the table at @p path, read-only, sorted by key (for inspection tools).
  ///
  /// Throws std::runtime_error when there is no such table or it holds other
  /// records, Kiv::Shm::CorruptionException when it is damaged.
  static std::vector<ShadowFieldValue> readShadowTable(Kiv::Shm::Root const& root, std::string const& path);

protected:
  explicit ShadowFields(Kiv::String name);
  ~ShadowFields() override;

  /// @brief Attaches when placed under a parent of an entity manager's tree, detaches without one.
  void handleParent(Kiv::Entity* parent) override;

  /// @brief While mounted (attached and under a parent), the last reference going hands the
  /// entity over to its collection control instead of deleting it; the entity manager's
  /// unmount detaches it and releases it from there. Otherwise it is deleted.
  void onZeroReferences() const noexcept override;

  /// @brief Attaches the `field` collection to the table at @p path (capacity used by writers only).
  /// A new table is sized for @p expectedEntries at once.
  void attachTo(Kiv::Shm::Root const& root, std::string const& path, Kiv::Shm::MountMode mode, U32 capacity,
                U32 expectedEntries = 0);
  /// @brief Detaches from the table, if attached.
  void detach() noexcept;

private:
  ShadowFieldCollection& table(char const* operation) {
    if (!field_) [[unlikely]]
      notAttached(operation);
    return *field_;
  }
  ShadowFieldCollection const& table(char const* operation) const {
    if (!field_) [[unlikely]]
      notAttached(operation);
    return *field_;
  }
  [[noreturn]] void notAttached(char const* operation) const;
  [[noreturn]] void writeFailed(char const* operation, Kiv::Shm::CorruptionException const& e) const;
  void notifyField(ShadowFieldKey const& key);
  void mountStatusIs(Kiv::Shm::MountStatus status);

  std::optional<ShadowFieldCollection> field_;
  /// What this (the only) writer wrote last: what field() of that key must read.
  std::optional<ShadowFieldValue> lastWritten_;
  Kiv::Ptr<Kiv::Shm::CollectionControl> fieldControl_;
  Kiv::Shm::MountStatus fieldMountStatus_ = Kiv::Shm::MountStatus::unmounted;
  Kiv::Shm::MountMode fieldMode_ = Kiv::Shm::MountMode::writer;
  std::string path_;
};

/// @brief Desired values of a chip's physical fields.
class TARN_API ShadowFieldsConfig : public ShadowFields {
public:
  using Notifiee = ShadowFieldsNotifiee<ShadowFieldsConfig>;

  /// @brief A new, unattached collection named @p name, with notification active.
  static Kiv::Ptr<ShadowFieldsConfig> ShadowFieldsConfigIs(Kiv::String const& name);
  /// @brief A collection attached read-only to the existing table at @p path, outside any entity manager.
  static Kiv::Ptr<ShadowFieldsConfig> attachReader(Kiv::Shm::Root const& root, std::string const& path);

  explicit ShadowFieldsConfig(Kiv::String name);
  char const* fwkType() const override { return "TarnRegFile::ShadowFieldsConfig"; }

protected:
  ~ShadowFieldsConfig() override;
};

/// @brief Values of a chip's physical fields as last applied to the hardware.
class TARN_API ShadowFieldsStatus : public ShadowFields {
public:
  using Notifiee = ShadowFieldsNotifiee<ShadowFieldsStatus>;

  /// @brief A new, unattached collection named @p name, with notification active.
  static Kiv::Ptr<ShadowFieldsStatus> ShadowFieldsStatusIs(Kiv::String const& name);
  /// @brief A collection attached read-only to the existing table at @p path, outside any entity manager.
  static Kiv::Ptr<ShadowFieldsStatus> attachReader(Kiv::Shm::Root const& root, std::string const& path);

  explicit ShadowFieldsStatus(Kiv::String name);
  char const* fwkType() const override { return "TarnRegFile::ShadowFieldsStatus"; }

protected:
  ~ShadowFieldsStatus() override;
};

/// @brief Creates a ShadowFieldsConfig named @p name.
TARN_API Kiv::Ptr<ShadowFieldsConfig> shadowFieldsConfigFactory(Kiv::String const& name);
/// @brief Creates a ShadowFieldsStatus named @p name.
TARN_API Kiv::Ptr<ShadowFieldsStatus> shadowFieldsStatusFactory(Kiv::String const& name);

}  // namespace TarnRegFile
