#include "ChipBuilder.h"

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/Trace.h"
#include "TarnRegFile/platform/VormI2cDev.h"

#include "TarnRegFile/I2cTransportVormImpl.h"
#include "TarnRegFile/ShadowTypes.h"
#include "TarnRegFile/TransportDescriptor.h"

#include <fmt/format.h>

#include <stdexcept>
#include <unordered_map>

namespace TarnAgent {

namespace {

using namespace TarnRegFile;

Kiv::TraceHandle kTrace("tarnagent/ChipBuilder");

U64 packed(ShadowFieldKey const& k) { return U64{k.address} | U64{k.start} << 32 | U64{k.size} << 40; }

// The asynchronous I2C transport completes accesses only through callbacks, while the shadow
// state machine writes with the plain form. This transport issues each plain write as a
// request and returns: the write completes on the loop, from the manager's dispatch, and a
// failed one is traced and raised on the chip's error notifier like any other I/O failure.
class WriteBehindI2cTransport : public BaseTransportMethodImpl {
public:
  WriteBehindI2cTransport(Kiv::Ptr<Hardware::Vorm> const& vorm, U32 devId, std::string const& csv)
      : BaseTransportMethodImpl(csv.c_str(), 4, nullptr), inner_(vorm, devId, csv.c_str(), nullptr) {}
  void ownerIs(TransportMethod* owner) { owner_ = owner; }

  uint32_t regRead(char const* regName) override { return inner_.regRead(regName); }
  void regWrite(char const* regName, uint32_t value) override {
    TransportMethod* const owner = owner_;
    inner_.regWriteWithCallback(regName, value, [owner, value](char const* name, RegCallbackStatus status) {
      if (status == RegCallbackStatusSuccess) return;
      kTrace.line(0, "asynchronous write of {:#x} to register '{}' failed", value, name);
      if (owner) owner->handleExceptionGeneric();
    });
  }
  void regReadWithCallback(char const* regName, RegReadCallback const& cb) override {
    inner_.regReadWithCallback(regName, cb);
  }
  void regWriteWithCallback(char const* regName, uint32_t value, RegWriteCallback const& cb) override {
    inner_.regWriteWithCallback(regName, value, cb);
  }

private:
  I2cTransportVormImpl inner_;
  TransportMethod* owner_ = nullptr;
};

}  // namespace

std::string configPathOf(std::string const& chip) {
  return fmt::format("{}/{}", MountConstants::shadowFieldsConfigPathPrefix, chip);
}
std::string statusPathOf(std::string const& chip) { return "TarnRegFile/shadowFieldsStatus/" + chip; }

ChipBuilder::ChipBuilder(Kiv::Ptr<Kiv::Shm::EntityManager> const& em, Kiv::Ptr<PossibleSystemStatus> const& status,
                         Kiv::Ptr<LogicalModel> const& logical, Kiv::Ptr<PhysicalModel> const& physical,
                         SystemDescription const& description)
    : SystemChipStatusSmBase(em, status, logical, physical), description_(description) {
  // One manager per adapter node, made before any chip so that the loop can watch them all.
  for (auto const& chip : description_.chips)
    if (chip.transport.kind == TransportKind::I2cAsync && !vorms_.count(chip.transport.device))
      vorms_[chip.transport.device] = Hardware::Vorm::VormIs(
          Kiv::String(chip.transport.device), std::make_shared<Hardware::VormI2cDevBackend>(chip.transport.device));
}

ChipEntry const& ChipBuilder::entry(Kiv::String const& chipName) const {
  if (auto const* entry = description_.chip(chipName.str())) return *entry;
  throw std::runtime_error(fmt::format("chip '{}' is published but not in the description of system {}",
                                       chipName.str(), description_.system));
}

size_t ChipBuilder::restoredFields(std::string const& chip) const {
  auto const it = restored_.find(chip);
  return it == restored_.end() ? 0 : it->second;
}

Kiv::Ptr<LogicalChip> ChipBuilder::createLogicalChip(Kiv::String const& chipName) {
  ChipEntry const& chip = entry(chipName);
  ChipLayout const& layout = *chip.layout;
  U32 const block = addrBlockSize(chip.transport.kind);
  std::string const configPath = configPathOf(chip.name);

  // What an earlier agent wanted for this chip, if it left its configuration behind.
  std::unordered_map<U64, U32> earlier;
  try {
    for (ShadowFieldValue const& v : ShadowFields::readShadowTable(shmemEntityManager()->root(), configPath))
      earlier.emplace(packed(v.key), v.value);
  } catch (Kiv::Shm::CorruptionException const& e) {
    kTrace.line(0, "configuration of {} is damaged, starting from the description: {}", chip.name, e.what());
  } catch (std::runtime_error const&) {
    // No table yet: a first start.
  }

  auto lchip = LogicalChip::LogicalChipIs(chipName);
  auto const translation = lchip->translationIs();
  std::vector<ShadowFieldKey> keys;
  keys.reserve(layout.physical.size());
  for (auto const& p : layout.physical) {
    lchip->physicalFieldCountIs(p.regNumber * block);  // the key's address is the register's
    lchip->populatePhysicalField(p.reg, p.field, p.start, p.size);
    keys.emplace_back(p.regNumber * block, p.start, p.size);
  }
  size_t restored = 0;
  for (auto const& l : layout.logical) {
    auto const& p = layout.physical[l.physical];
    U32 value = l.initial;
    if (!earlier.empty()) {
      auto const it = earlier.find(packed(keys[l.physical]));
      if (it != earlier.end()) {
        restored += it->second != l.initial;
        value = it->second;
      }
    }
    lchip->populateLogicalField(l.reg, l.field, l.start, l.size, value);
    translation->populate(l.reg, l.field, p.reg, p.field);
  }
  lchip->physicalFieldCountIs(chip.shadowCapacity());
  lchip->mountShadowFields(shmemEntityManager(), configPath, statusPathOf(chip.name));
  restored_[chip.name] = restored;
  kTrace.line(1, "chip {}: {} physical and {} logical fields, {} desired values taken over", chip.name,
              layout.physical.size(), layout.logical.size(), restored);
  return lchip;
}

Kiv::Ptr<TransportMethod> ChipBuilder::createTransport(Kiv::String const& chipName) {
  ChipEntry const& chip = entry(chipName);
  TransportEntry const& t = chip.transport;
  std::string const& map = chip.layout->mapPath;
  auto transport = TransportMethod::TransportMethodIs(chipName);
  switch (t.kind) {
    case TransportKind::Mock:
      transport->init(mockTransportDescriptorFactory(t.file), map);
      break;
    case TransportKind::Pci:
      transport->init(pciTransportDescriptorFactory(Hardware::pciDovImplFactory(t.resource)), map);
      break;
    case TransportKind::I2c:
      transport->init(i2cTransportDescriptorFactory(
                          t.wordFlavour ? TransportFlavour::I2cSmbusDataWord : TransportFlavour::I2cSmbusDataBlock,
                          t.device, t.address),
                      map);
      break;
    case TransportKind::I2cAsync: {
      auto* impl = new WriteBehindI2cTransport(vorms_.at(t.device), t.address, map);
      transport->implPtrIs(impl);
      impl->ownerIs(transport.ptr());
      transport->errorNotifierIs(chipName);
      break;
    }
  }
  kTrace.line(1, "chip {}: {} transport ready", chip.name, transportKindName(t.kind));
  return transport;
}

void removeAllChips(LogicalModel& logical, PhysicalModel& physical) {
  std::vector<Kiv::String> names;
  for (auto const& [name, chip] : logical.chipEntries()) names.push_back(name);
  for (auto const& name : names) {
    if (auto const chip = logical.chip(name)) chip->readyIs(false);
    logical.writeSmDel(name);
    logical.chipDel(name);
    physical.shadowSmDel(name);
    physical.transportDel(name);
    kTrace.line(1, "chip {} removed", name.str());
  }
}

}  // namespace TarnAgent
