#include "TarnRegFile/platform/HardwareRegisterFile.h"

namespace Hardware::TarnRegFile {

HardwareRegisterFile::HardwareRegisterFile(Kiv::String const& name) : Kiv::Entity(name) {}

Kiv::Ptr<HardwareRegisterFile> HardwareRegisterFile::HardwareRegisterFileIs(Kiv::String const& name) {
  return Kiv::create<HardwareRegisterFile>(name);
}

Kiv::Ptr<HardwareRegisterFile> hardwareRegisterFileFactory(Kiv::String const& name) {
  return HardwareRegisterFile::HardwareRegisterFileIs(name);
}

void HardwareRegisterFile::registerIs(HardwareRegister const& reg) {
  if (auto const* old = byName_.find(reg.name)) {
    // The old address no longer belongs to this name.
    if (auto const* n = nameByAddress_.find(old->address); n && *n == reg.name) nameByAddress_.erase(old->address);
  }
  byName_.put(reg.name, reg);
  nameByAddress_.put(reg.address, reg.name);
}

void HardwareRegisterFile::registerDel(Kiv::String const& name) {
  auto old = byName_.take(name);
  if (!old) return;
  if (auto const* n = nameByAddress_.find(old->address); n && *n == name) nameByAddress_.erase(old->address);
}

HardwareRegister HardwareRegisterFile::reg(Kiv::String const& name) const { return byName_.get(name); }

bool HardwareRegisterFile::regHas(Kiv::String const& name) const { return byName_.has(name); }

HardwareRegister HardwareRegisterFile::regByAddress(U32 address) const {
  auto const* n = nameByAddress_.find(address);
  return n ? byName_.get(*n) : HardwareRegister();
}

bool HardwareRegisterFile::addressHas(U32 address) const { return nameByAddress_.has(address); }

}  // namespace Hardware::TarnRegFile
