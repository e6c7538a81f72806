#include "TarnRegFile/SystemChipStatusSm.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/KivValueText.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/LogicalSms.h"
#include "TarnRegFile/ShadowSms.h"
#include "TarnRegFile/platform/Trace.h"

#include <ostream>
#include <stdexcept>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/SystemChipStatusSm");

}  // namespace

// ================================================================ MountConstants

std::string MountConstants::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter(out, "TarnRegFile::MountConstants")
      .attr("systemStatusPathFormat", Kiv::String(systemStatusPathFormat))
      .attr("shadowFieldsConfigPathPrefix", Kiv::String(shadowFieldsConfigPathPrefix))
      .end();
  return out;
}

std::ostream& operator<<(std::ostream& os, MountConstants const& v) { return os << v.valueToStrep(); }

// ================================================================ PossibleChipStatus

PossibleChipStatus::PossibleChipStatus(Kiv::String const& name) : Kiv::Entity(name) {}
PossibleChipStatus::~PossibleChipStatus() = default;

Kiv::Ptr<PossibleChipStatus> PossibleChipStatus::PossibleChipStatusIs(Kiv::String const& name) {
  return Kiv::create<PossibleChipStatus>(name);
}

Kiv::Ptr<PossibleChipStatus> possibleChipStatusFactory(Kiv::String const& name) {
  return PossibleChipStatus::PossibleChipStatusIs(name);
}

void PossibleChipStatus::devIdIs(Hardware::DevId devId) {
  if (devId == devId_) return;
  devId_ = devId;
  notify<Notifiee>([](Notifiee& n) { n.onDevId(); });
}

void PossibleChipStatus::profileNameIs(Kiv::String const& profileName) {
  if (profileName == profileName_) return;
  profileName_ = profileName;
  notify<Notifiee>([](Notifiee& n) { n.onProfileName(); });
}

// ================================================================ PossibleSystemStatus

PossibleSystemStatus::PossibleSystemStatus(Kiv::String const& name) : Kiv::Entity(name) {}
PossibleSystemStatus::~PossibleSystemStatus() = default;

Kiv::Ptr<PossibleSystemStatus> PossibleSystemStatus::PossibleSystemStatusIs(Kiv::String const& name) {
  return Kiv::create<PossibleSystemStatus>(name);
}

Kiv::Ptr<PossibleSystemStatus> possibleSystemStatusFactory(Kiv::String const& name) {
  return PossibleSystemStatus::PossibleSystemStatusIs(name);
}

Kiv::Ptr<PossibleChipStatus> PossibleSystemStatus::chipStatusIs(Kiv::String const& name) {
  if (auto const* existing = chipStatus_.find(name)) return *existing;
  auto status = possibleChipStatusFactory(name);
  chipStatus_.put(name, status);
  Kiv::String const key = name;  // observers may remove the entry the caller's name lives in
  notify<Notifiee>([&](Notifiee& n) { n.onChipStatus(key); });
  return status;
}

Kiv::Ptr<PossibleChipStatus> PossibleSystemStatus::chipStatusDel(Kiv::String const& key) {
  Kiv::String const k = key;
  auto removed = chipStatus_.take(k);
  if (!removed) return nullptr;
  notify<Notifiee>([&](Notifiee& n) { n.onChipStatus(k); });
  return *removed;
}

void PossibleSystemStatus::chipStatusDelAll() {
  for (Kiv::String const& key : chipStatus_.keys()) chipStatusDel(key);
}

void PossibleSystemStatus::profileIs(PossibleProfile const& profile) {
  Kiv::String const key = profile.profileName;
  if (profile_.set(key, profile)) notify<Notifiee>([&](Notifiee& n) { n.onProfile(key); });
}

void PossibleSystemStatus::profileDel(Kiv::String const& key) {
  Kiv::String const k = key;
  if (profile_.erase(k)) notify<Notifiee>([&](Notifiee& n) { n.onProfile(k); });
}

void PossibleSystemStatus::profileDelAll() {
  for (Kiv::String const& key : profile_.keys()) profileDel(key);
}

// ================================================================ SystemChipStatusSmBase

/// Watches the status's chipStatus collection: every notification carries the chip name.
class SystemChipStatusSmBase::StatusReactor : public PossibleSystemStatus::Notifiee {
public:
  StatusReactor(SystemChipStatusSmBase& owner, Kiv::Ptr<PossibleSystemStatus> const& status) : owner_(owner) {
    notifierIs(status);
  }
  void onChipStatus(Kiv::String const& chipName) override { owner_.handleSystemChipStatus(chipName); }

private:
  SystemChipStatusSmBase& owner_;
};

SystemChipStatusSmBase::SystemChipStatusSmBase(Kiv::Ptr<Kiv::Shm::EntityManager> const& shmemEntityManager,
                                               Kiv::Ptr<PossibleSystemStatus> const& systemStatus,
                                               Kiv::Ptr<LogicalModel> const& logicalModel,
                                               Kiv::Ptr<PhysicalModel> const& physicalModel)
    : shmemEntityManager_(shmemEntityManager),
      systemStatus_(systemStatus),
      logicalModel_(logicalModel),
      physicalModel_(physicalModel) {
  // Every reaction stores into both models: without them the first chip would have nowhere to go.
  if (!logicalModel_ || !physicalModel_)
    throw std::invalid_argument("SystemChipStatusSmBase needs a LogicalModel and a PhysicalModel");
  if (systemStatus_) {
    statusReactor_ = std::make_unique<StatusReactor>(*this, systemStatus_);
    statusReactor_->isNotificationActiveIs(true);
  }
}

SystemChipStatusSmBase::~SystemChipStatusSmBase() { statusReactor_.reset(); }

void SystemChipStatusSmBase::retireReactors() noexcept { statusReactor_.reset(); }

void SystemChipStatusSmBase::hasNotificationActiveIs(bool active) {
  Kiv::Entity::hasNotificationActiveIs(active);
  if (statusReactor_) statusReactor_->isNotificationActiveIs(active);
}

void SystemChipStatusSmBase::initializedIs(bool initialized) {
  if (initialized == initialized_) return;
  initialized_ = initialized;
  notify<Notifiee>([](Notifiee& n) { n.onInitialized(); });
}

void SystemChipStatusSmBase::handleSystemChipStatus() {
  kTrace.printf(5, "ChipStatusSmBase::handleSystemChipStatus");
  if (!systemStatus_) return;
  // A snapshot: a hook may change the status meanwhile.
  for (Kiv::String const& chipName : systemStatus_->chipStatusEntries().keys()) handleSystemChipStatus(chipName);
}

void SystemChipStatusSmBase::handleSystemChipStatus(Kiv::String const& chipName) {
  bool const present = systemStatus_ && systemStatus_->chipStatusHas(chipName);
  kTrace.line(5, "ChipStatusSmBase::handleSystemChipStatus chipName: {}, {}", chipName, present ? "add" : "del");
  if (present)
    addChip(chipName);
  else
    removeChip(chipName);
}

void SystemChipStatusSmBase::removeChip(Kiv::String const& chipName) {
  // Ready goes first, so that nothing writes through the chip while its objects are taken apart.
  Kiv::Ptr<LogicalChip> const removedChip = logicalModel_->chip(chipName);
  KIV_ASSERT(kTrace, removedChip) << "Status of chip " << chipName << " removed, but the chip was never added";
  removedChip->readyIs(false);
  logicalModel_->writeSmDel(chipName);
  logicalModel_->chipDel(chipName);
  physicalModel_->shadowSmDel(chipName);
  physicalModel_->transportDel(chipName);
}

void SystemChipStatusSmBase::addChip(Kiv::String const& chipName) {
  KIV_ASSERT(kTrace, systemStatus()) << "No system status for chip " << chipName;
  Kiv::Ptr<PossibleChipStatus> const chipStatus = systemStatus_->chipStatus(chipName);
  KIV_ASSERT(kTrace, chipStatus) << "No chip status for chip " << chipName;

  Kiv::Ptr<LogicalChip> lChip = logicalModel_->chip(chipName);
  if (!lChip) {
    Kiv::Ptr<LogicalChip> const made = createLogicalChip(chipName);
    logicalModel_->chipIs(made);  // refuses a null chip
    lChip = logicalModel_->chip(chipName);
    if (!lChip)
      throw std::runtime_error(fmt::format("createLogicalChip({}) made a chip named '{}'", chipName, made->name()));
    lChip->readyIs(true);
    logicalModel_->writeSmIs(logicalWriteSmFactory(lChip));
  }

  Kiv::Ptr<TransportMethod> transport = physicalModel_->transport(chipName);
  if (!transport) {
    Kiv::Ptr<TransportMethod> const made = createTransport(chipName);
    physicalModel_->transportIs(made);  // refuses a null transport
    transport = physicalModel_->transport(chipName);
    if (!transport)
      throw std::runtime_error(
          fmt::format("createTransport({}) made a transport named '{}'", chipName, made->name()));
  }

  KIV_ASSERT(kTrace, lChip->shadowFieldsConfig()) << "Chip " << chipName << " has no mounted ShadowFieldsConfig";
  KIV_ASSERT(kTrace, lChip->shadowFieldsStatus()) << "Chip " << chipName << " has no mounted ShadowFieldsStatus";
  // A new machine on every pass: it rebuilds its images from shared memory and re-applies
  // whatever the hardware has not got yet, with the simulate setting of now.
  physicalModel_->shadowSmIs(shadowFieldsSmFactory(lChip->shadowFieldsConfig(), lChip->shadowFieldsStatus(),
                                                   transport, physicalModel_->simulate()));
}

// ================================================================ generic interface

namespace {

bool const kRegistered = [] {
  auto& registry = Kiv::TypeRegistry::instance();

  auto& chip = registry.typeIs("TarnRegFile::PossibleChipStatus");
  chip.factory = [](Kiv::String const& n) { return Kiv::Ptr<Kiv::Entity>(possibleChipStatusFactory(n)); };
  chip.attributes["name"] = [](Kiv::Entity& e, std::vector<std::string> const&) { return e.name().str(); };
  chip.attributes["devId"] = Kiv::method<&PossibleChipStatus::devId>();
  chip.attributes["profileName"] = Kiv::method<&PossibleChipStatus::profileName>();
  chip.attributeWriters["devId"] = Kiv::method<&PossibleChipStatus::devIdIs>();
  chip.attributeWriters["profileName"] = Kiv::method<&PossibleChipStatus::profileNameIs>();

  auto& system = registry.typeIs("TarnRegFile::PossibleSystemStatus");
  system.factory = [](Kiv::String const& n) { return Kiv::Ptr<Kiv::Entity>(possibleSystemStatusFactory(n)); };
  system.attributes["name"] = [](Kiv::Entity& e, std::vector<std::string> const&) { return e.name().str(); };
  system.methods["chipStatus"] = Kiv::method<&PossibleSystemStatus::chipStatus>();
  system.methods["chipStatusHas"] = Kiv::method<&PossibleSystemStatus::chipStatusHas>();
  system.methods["chipStatusIs"] = Kiv::method<&PossibleSystemStatus::chipStatusIs>();
  system.methods["chipStatusDel"] = Kiv::method<&PossibleSystemStatus::chipStatusDel>();
  system.methods["chipStatusDelAll"] = Kiv::method<&PossibleSystemStatus::chipStatusDelAll>();
  system.methods["profile"] = Kiv::method<&PossibleSystemStatus::profile>();
  system.methods["profileHas"] = Kiv::method<&PossibleSystemStatus::profileHas>();
  system.methods["profileIs"] = Kiv::method<&PossibleSystemStatus::profileIs>();
  system.methods["profileDel"] = Kiv::method<&PossibleSystemStatus::profileDel>();
  system.methods["profileDelAll"] = Kiv::method<&PossibleSystemStatus::profileDelAll>();

  // Abstract: no factory; an agent's derived state machine is reached through these.
  auto& sm = registry.typeIs("TarnRegFile::SystemChipStatusSmBase");
  sm.methods["handleSystemChipStatus"] =
      Kiv::method<static_cast<void (SystemChipStatusSmBase::*)(Kiv::String const&)>(
          &SystemChipStatusSmBase::handleSystemChipStatus)>();
  sm.attributes["initialized"] = Kiv::method<&SystemChipStatusSmBase::initialized>();
  sm.attributeWriters["initialized"] = Kiv::method<&SystemChipStatusSmBase::initializedIs>();
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
