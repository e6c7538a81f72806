#pragma once
/// @file SystemChipStatusSm.h
/// @brief The published status of the system's chips, and the state machine that builds
/// and removes each chip's objects as that status changes.
///
/// The platform publishes a `PossibleSystemStatus`: one `PossibleChipStatus` per
/// chip present (device identifier, profile name) and the profiles in use
/// (`PossibleProfile`, with the hardware interface version `PossibleHwApi`).
/// The library only reads it.
///
/// `SystemChipStatusSmBase` watches the status's `chipStatus` collection. When a
/// chip appears (or a full pass meets it again) it makes sure the chip has, by
/// chip name:
///   - in the `LogicalModel`: its `LogicalChip` (made by the derived class's
///     `createLogicalChip`, then set ready) and its `LogicalWriteSm`;
///   - in the `PhysicalModel`: its `TransportMethod` (made by `createTransport`
///     unless the model already has one of that name) and a new `ShadowFieldsSm`.
/// A chip and its transport, once made, are kept; the shadow state machine is
/// built afresh on every pass over a present chip, and reads the physical
/// model's `simulate` switch then. When a chip's status goes, its ready flag is
/// cleared first, then its write state machine, chip, shadow state machine and
/// transport leave the models, in that order.
///
/// A removal for a chip that was never added is a fatal programming error, as
/// is a chip from `createLogicalChip` whose shadow-field collections are not
/// mounted. Exceptions from the hooks and factories propagate to the caller of
/// the status change; the models keep what was stored before the failure.

#include "TarnRegFile/platform/DevId.h"
#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivCollection.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/KivValue.h"
#include "TarnRegFile/LogicalChip.h"
#include "TarnRegFile/SystemModels.h"
#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/platform/Types.h"

#include <fmt/format.h>

#include <iosfwd>
#include <memory>
#include <string>

namespace Kiv::Shm {
class EntityManager;  // TarnRegFile/platform/ShmEntityManager.h; only passed on to the hooks here
}

namespace TarnRegFile {

// ================================================================ value types

/// @brief A hardware interface version.
class TARN_API PossibleHwApi : public Kiv::Value<PossibleHwApi> {
public:
  static constexpr std::string_view typeName = "TarnRegFile::PossibleHwApi";
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("major", &PossibleHwApi::major), Kiv::attr("minor", &PossibleHwApi::minor)};
  }
  /// The parser takes any spacing after "'major':" and "'minor':".
  static constexpr bool looseAttrSpacing = true;

  constexpr PossibleHwApi() noexcept = default;
  constexpr PossibleHwApi(U32 major_, U32 minor_) noexcept : major{major_}, minor{minor_} {}
  /// @brief Reads the text form; throws Kiv::ParseException.
  PossibleHwApi(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) { readText(pos, end); }

  /// @brief False only for version 0.0.
  constexpr explicit operator bool() const noexcept { return major != 0 || minor != 0; }
  constexpr bool operator==(PossibleHwApi const& o) const noexcept { return major == o.major && minor == o.minor; }

  U32 major = 0;
  U32 minor = 0;
};

/// @brief One profile in use: its name and hardware interface version.
class TARN_API PossibleProfile : public Kiv::Value<PossibleProfile> {
public:
  static constexpr std::string_view typeName = "TarnRegFile::PossibleProfile";
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("profileName", &PossibleProfile::profileName),
                      Kiv::attr("hwApi", &PossibleProfile::hwApi)};
  }
  /// The parser takes any spacing after "'profileName':" and "'hwApi':".
  static constexpr bool looseAttrSpacing = true;

  PossibleProfile() = default;
  PossibleProfile(Kiv::String const& profileName_, PossibleHwApi const& hwApi_)
      : profileName(profileName_), hwApi(hwApi_) {}
  /// @brief Reads the text form (with the version's own text form inside); throws Kiv::ParseException.
  PossibleProfile(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) { readText(pos, end); }

  /// @brief False only for the default profile (empty name, version 0.0).
  explicit operator bool() const noexcept { return !profileName.empty() || static_cast<bool>(hwApi); }
  bool operator==(PossibleProfile const& o) const noexcept { return attrsEqual(o); }

  Kiv::String profileName;
  PossibleHwApi hwApi;
};

/// @brief Where the system status and the chips' shadow-field collections are mounted.
///
/// Fixed text: two values always compare equal, and the truth value is false
/// (there is nothing a value could hold).
class TARN_API MountConstants {
public:
  /// @brief Mount path of a PossibleSystemStatus; the owner fills the %s.
  static constexpr char const systemStatusPathFormat[] = "hardware/%s/system/status";
  /// @brief Prefix of the mount paths of each chip's shadow-field collections.
  static constexpr char const shadowFieldsConfigPathPrefix[] = "TarnRegFile/shadowFieldsConfig";

  constexpr explicit operator bool() const noexcept { return false; }
  constexpr bool operator==(MountConstants const&) const noexcept { return true; }

  /// @brief The two paths in the runtime's value text form.
  std::string valueToStrep() const;
};

TARN_API std::ostream& operator<<(std::ostream& os, MountConstants const& v);

// ================================================================ status entities

/// @brief The published status of one chip.
class TARN_API PossibleChipStatus : public Kiv::Entity {
public:
  class TARN_API Notifiee : public Kiv::Notifiee<PossibleChipStatus> {
  public:
    virtual void onDevId() {}
    virtual void onProfileName() {}
  };

  /// @brief Creates the status of chip @p name (device 0, no profile) with notifications active.
  static Kiv::Ptr<PossibleChipStatus> PossibleChipStatusIs(Kiv::String const& name);

  /// @brief "TarnRegFile::PossibleChipStatus".
  char const* fwkType() const override { return "TarnRegFile::PossibleChipStatus"; }

  /// @brief Which device the chip is.
  Hardware::DevId devId() const noexcept { return devId_; }
  /// @brief Sets devId; notifies only on change.
  void devIdIs(Hardware::DevId devId);
  /// @brief The profile the chip runs (a key of PossibleSystemStatus::profile).
  Kiv::String const& profileName() const noexcept { return profileName_; }
  /// @brief Sets profileName; notifies only on change.
  void profileNameIs(Kiv::String const& profileName);

protected:
  explicit PossibleChipStatus(Kiv::String const& name);
  ~PossibleChipStatus() override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  Hardware::DevId devId_;
  Kiv::String profileName_;
};

/// @brief Creates the status of chip @p name.
TARN_API Kiv::Ptr<PossibleChipStatus> possibleChipStatusFactory(Kiv::String const& name);

/// @brief The published status of the whole system: the chips present and the profiles in use.
class TARN_API PossibleSystemStatus : public Kiv::Entity {
public:
  using ChipStatusMap = Kiv::KeyedCollection<Kiv::String, Kiv::Ptr<PossibleChipStatus>>;
  using ProfileMap = Kiv::KeyedCollection<Kiv::String, PossibleProfile>;

  class TARN_API Notifiee : public Kiv::Notifiee<PossibleSystemStatus> {
  public:
    virtual void onChipStatus(Kiv::String const& /*key*/) {}
    virtual void onProfile(Kiv::String const& /*key*/) {}
  };

  /// @brief Creates an empty status with notifications active.
  static Kiv::Ptr<PossibleSystemStatus> PossibleSystemStatusIs(Kiv::String const& name);

  /// @brief "TarnRegFile::PossibleSystemStatus".
  char const* fwkType() const override { return "TarnRegFile::PossibleSystemStatus"; }

  // ---- chipStatus: PossibleChipStatus by chip name

  /// @brief The status of chip @p key, or null.
  Kiv::Ptr<PossibleChipStatus> chipStatus(Kiv::String const& key) const { return chipStatus_.get(key); }
  bool chipStatusHas(Kiv::String const& key) const { return chipStatus_.has(key); }
  /// @brief The status of chip @p name; made, stored and notified when there is none yet.
  Kiv::Ptr<PossibleChipStatus> chipStatusIs(Kiv::String const& name);
  /// @brief Removes and returns the status of chip @p key (null, and no notification, when absent).
  Kiv::Ptr<PossibleChipStatus> chipStatusDel(Kiv::String const& key);
  /// @brief Removes every chip status, one key at a time, each with its notification.
  void chipStatusDelAll();
  ChipStatusMap const& chipStatusEntries() const noexcept { return chipStatus_; }

  // ---- profile: PossibleProfile by profileName

  /// @brief The profile called @p key, or the default profile.
  PossibleProfile profile(Kiv::String const& key) const { return profile_.get(key); }
  bool profileHas(Kiv::String const& key) const { return profile_.has(key); }
  /// @brief Stores @p profile under its name; notifies unless an equal profile was stored there.
  void profileIs(PossibleProfile const& profile);
  /// @brief Removes the profile called @p key (absent: nothing happens).
  void profileDel(Kiv::String const& key);
  /// @brief Removes every profile, one key at a time, each with its notification.
  void profileDelAll();
  ProfileMap const& profileEntries() const noexcept { return profile_; }

protected:
  explicit PossibleSystemStatus(Kiv::String const& name);
  ~PossibleSystemStatus() override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  ChipStatusMap chipStatus_;
  ProfileMap profile_;
};

/// @brief Creates an empty system status called @p name.
TARN_API Kiv::Ptr<PossibleSystemStatus> possibleSystemStatusFactory(Kiv::String const& name);

// ================================================================ state machine

/// @brief Builds and removes each chip's objects as the system status changes.
///
/// Abstract: an agent derives from it and says how a chip's LogicalChip and
/// TransportMethod are made. Construction does not look at the chips already
/// present; the owner runs handleSystemChipStatus() when it is ready to.
class TARN_API SystemChipStatusSmBase : public Kiv::Entity {
public:
  class TARN_API Notifiee : public Kiv::Notifiee<SystemChipStatusSmBase> {
  public:
    virtual void onInitialized() {}
  };

  /// @brief "TarnRegFile::SystemChipStatusSmBase".
  char const* fwkType() const override { return "TarnRegFile::SystemChipStatusSmBase"; }
  /// @brief Switches the state machine's notifications and its reactions to the status together.
  void hasNotificationActiveIs(bool active) override;

  /// @brief Kept for the hooks (a chip mounts its shadow-field collections through it).
  Kiv::Ptr<Kiv::Shm::EntityManager> const& shmemEntityManager() const noexcept { return shmemEntityManager_; }
  /// @brief The status watched; only read.
  Kiv::Ptr<PossibleSystemStatus> const& systemStatus() const noexcept { return systemStatus_; }
  Kiv::Ptr<LogicalModel> const& logicalModel() const noexcept { return logicalModel_; }
  Kiv::Ptr<PhysicalModel> const& physicalModel() const noexcept { return physicalModel_; }

  /// @brief Not consulted here: the derived class says what it means.
  bool initialized() const noexcept { return initialized_; }
  /// @brief Sets initialized; notifies only on change.
  void initializedIs(bool initialized);

  /// @brief Reconciles every chip of the status, in the collection's order. Chips that are in
  /// the models but no longer in the status are left alone.
  void handleSystemChipStatus();
  /// @brief Reconciles chip @p chipName: builds what a present chip lacks (and a new shadow
  /// state machine), or removes everything of an absent chip.
  void handleSystemChipStatus(Kiv::String const& chipName);

  /// @brief A new, populated chip named @p chipName with both shadow-field collections mounted;
  /// it must not be stored anywhere yet.
  virtual Kiv::Ptr<LogicalChip> createLogicalChip(Kiv::String const& chipName) = 0;
  /// @brief A new transport named @p chipName.
  virtual Kiv::Ptr<TransportMethod> createTransport(Kiv::String const& chipName) = 0;

protected:
  /// @brief Keeps the four references and watches @p systemStatus (if any).
  /// @throws std::invalid_argument when a model is missing.
  SystemChipStatusSmBase(Kiv::Ptr<Kiv::Shm::EntityManager> const& shmemEntityManager,
                         Kiv::Ptr<PossibleSystemStatus> const& systemStatus,
                         Kiv::Ptr<LogicalModel> const& logicalModel, Kiv::Ptr<PhysicalModel> const& physicalModel);
  ~SystemChipStatusSmBase() override;
  void retireReactors() noexcept override;

private:
  class StatusReactor;

  void addChip(Kiv::String const& chipName);
  void removeChip(Kiv::String const& chipName);

  Kiv::Ptr<Kiv::Shm::EntityManager> shmemEntityManager_;
  Kiv::Ptr<PossibleSystemStatus> systemStatus_;
  Kiv::Ptr<LogicalModel> logicalModel_;
  Kiv::Ptr<PhysicalModel> physicalModel_;
  std::unique_ptr<StatusReactor> statusReactor_;
  bool initialized_ = false;
};

}  // namespace TarnRegFile

template <>
struct fmt::formatter<TarnRegFile::MountConstants> : fmt::formatter<std::string_view> {
  auto format(TarnRegFile::MountConstants const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
