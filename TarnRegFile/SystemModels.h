#pragma once
/// @file SystemModels.h
/// @brief `LogicalModel` and `PhysicalModel`: the per-chip objects of the library, by chip name.
///
/// The logical model holds each chip's `LogicalChip` and `LogicalWriteSm`, the
/// physical model each chip's `TransportMethod` and `ShadowFieldsSm`, plus the
/// `simulate` switch handed to every shadow state machine built afterwards.
/// The owner creates both once and hands them to the chip status state machine
/// (SystemChipStatusSm.h), which fills and empties them as chips come and go.
///
/// Every collection is keyed by the stored object's own name (the chip's name,
/// the state machines' `chipName()`, the transport's name): the key is not
/// given, it is read from the value. The models hold their entries by counted
/// reference, so an entry lives at least as long as it is in the model; a
/// replaced or removed entry is released unless someone else holds it.
///
/// Mutators notify the collection's attribute with the key only when the entry
/// really changed: inserting the object already stored, or removing an absent
/// key, notifies nobody. Inserting a null reference throws std::invalid_argument
/// and changes nothing.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivCollection.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/LogicalChip.h"
#include "TarnRegFile/LogicalSms.h"
#include "TarnRegFile/ShadowSms.h"
#include "TarnRegFile/TransportMethod.h"

namespace TarnRegFile {

/// @brief The logical side: each chip's LogicalChip and its LogicalWriteSm.
class TARN_API LogicalModel : public Kiv::Entity {
public:
  using ChipMap = Kiv::KeyedCollection<Kiv::String, Kiv::Ptr<LogicalChip>>;
  using WriteSmMap = Kiv::KeyedCollection<Kiv::String, Kiv::Ptr<LogicalWriteSm>>;

  /// @brief Observer of a logical model: the attribute that changed, with the chip name.
  class TARN_API Notifiee : public Kiv::Notifiee<LogicalModel> {
  public:
    virtual void onChip(Kiv::String const& /*key*/) {}
    virtual void onWriteSm(Kiv::String const& /*key*/) {}
  };

  /// @brief Creates an empty model with notifications active.
  static Kiv::Ptr<LogicalModel> LogicalModelIs();

  /// @brief "TarnRegFile::LogicalModel".
  char const* fwkType() const override { return "TarnRegFile::LogicalModel"; }

  // ---- chip: LogicalChip by its name

  /// @brief The chip called @p key, or null.
  Kiv::Ptr<LogicalChip> chip(Kiv::String const& key) const { return chip_.get(key); }
  bool chipHas(Kiv::String const& key) const { return chip_.has(key); }
  /// @brief Inserts @p chip under its name, replacing a different chip of that name.
  void chipIs(Kiv::Ptr<LogicalChip> const& chip);
  /// @brief Removes and returns the chip called @p key (null, and no notification, when absent).
  Kiv::Ptr<LogicalChip> chipDel(Kiv::String const& key);
  /// @brief Removes every chip, one key at a time, each with its notification.
  void chipDelAll();
  ChipMap const& chipEntries() const noexcept { return chip_; }

  // ---- writeSm: LogicalWriteSm by the name of the chip it serves

  Kiv::Ptr<LogicalWriteSm> writeSm(Kiv::String const& key) const { return writeSm_.get(key); }
  bool writeSmHas(Kiv::String const& key) const { return writeSm_.has(key); }
  void writeSmIs(Kiv::Ptr<LogicalWriteSm> const& sm);
  Kiv::Ptr<LogicalWriteSm> writeSmDel(Kiv::String const& key);
  void writeSmDelAll();
  WriteSmMap const& writeSmEntries() const noexcept { return writeSm_; }

protected:
  LogicalModel();
  ~LogicalModel() override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  ChipMap chip_;
  WriteSmMap writeSm_;
};

/// @brief Creates an empty LogicalModel.
TARN_API Kiv::Ptr<LogicalModel> logicalModelFactory();

/// @brief The physical side: each chip's ShadowFieldsSm and TransportMethod, and the simulate switch.
class TARN_API PhysicalModel : public Kiv::Entity {
public:
  using ShadowSmMap = Kiv::KeyedCollection<Kiv::String, Kiv::Ptr<ShadowFieldsSm>>;
  using TransportMap = Kiv::KeyedCollection<Kiv::String, Kiv::Ptr<TransportMethod>>;

  /// @brief Observer of a physical model: the attribute that changed, with the chip name.
  class TARN_API Notifiee : public Kiv::Notifiee<PhysicalModel> {
  public:
    virtual void onShadowSm(Kiv::String const& /*key*/) {}
    virtual void onTransport(Kiv::String const& /*key*/) {}
    virtual void onSimulate() {}
  };

  /// @brief Creates an empty model (simulate false) with notifications active.
  static Kiv::Ptr<PhysicalModel> PhysicalModelIs();

  /// @brief "TarnRegFile::PhysicalModel".
  char const* fwkType() const override { return "TarnRegFile::PhysicalModel"; }

  // ---- shadowSm: ShadowFieldsSm by its chipName (the name of its transport)

  Kiv::Ptr<ShadowFieldsSm> shadowSm(Kiv::String const& key) const { return shadowSm_.get(key); }
  bool shadowSmHas(Kiv::String const& key) const { return shadowSm_.has(key); }
  void shadowSmIs(Kiv::Ptr<ShadowFieldsSm> const& sm);
  Kiv::Ptr<ShadowFieldsSm> shadowSmDel(Kiv::String const& key);
  void shadowSmDelAll();
  ShadowSmMap const& shadowSmEntries() const noexcept { return shadowSm_; }

  // ---- transport: TransportMethod by its name

  Kiv::Ptr<TransportMethod> transport(Kiv::String const& key) const { return transport_.get(key); }
  bool transportHas(Kiv::String const& key) const { return transport_.has(key); }
  void transportIs(Kiv::Ptr<TransportMethod> const& transport);
  Kiv::Ptr<TransportMethod> transportDel(Kiv::String const& key);
  void transportDelAll();
  TransportMap const& transportEntries() const noexcept { return transport_; }

  // ---- simulate

  /// @brief True when shadow state machines built from now on must not touch the hardware.
  ///
  /// Read only when a ShadowFieldsSm is built: machines that exist keep their setting.
  bool simulate() const noexcept { return simulate_; }
  /// @brief Sets simulate; notifies only on change.
  void simulateIs(bool simulate);

protected:
  PhysicalModel();
  ~PhysicalModel() override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  ShadowSmMap shadowSm_;
  TransportMap transport_;
  bool simulate_ = false;
};

/// @brief Creates an empty PhysicalModel.
TARN_API Kiv::Ptr<PhysicalModel> physicalModelFactory();

}  // namespace TarnRegFile
