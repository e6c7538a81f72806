#include "TarnRegFile/platform/HardwareRegisterFile.h"

#include <stdexcept>
#include <string>

namespace Hardware::TarnRegFile {

HardwareRegisterFile::HardwareRegisterFile(Kiv::String const& name) : Kiv::Entity(name) {}

Kiv::Ptr<HardwareRegisterFile> HardwareRegisterFile::HardwareRegisterFileIs(Kiv::String const& name) {
  return Kiv::create<HardwareRegisterFile>(name);
}

Kiv::Ptr<HardwareRegisterFile> HardwareRegisterFile::HardwareRegisterFileIs(Kiv::String const& name,
                                                                          RegisterIndex index) {
  auto model = Kiv::create<HardwareRegisterFile>(name);
  model->index_.swap(index);
  return model;
}

Kiv::Ptr<HardwareRegisterFile> hardwareRegisterFileFactory(Kiv::String const& name) {
  return HardwareRegisterFile::HardwareRegisterFileIs(name);
}

void HardwareRegisterFile::registerIs(HardwareRegister const& reg) {
  // Names end at a NUL in the index: such a register could never be found by name.
  if (reg.name.find('\0') != std::string_view::npos)
    throw std::invalid_argument("register name '" + std::string(reg.name.substr(0, reg.name.find('\0'))) +
                                "...' holds a NUL byte");
  RegisterIndex::Fields const fields{reg.address, reg.width, reg.accessWidth, static_cast<U8>(reg.type),
                                     reg.writeable};
  U32 const hash = RegisterIndex::hashName(reg.name.data(), reg.name.size());
  RegisterIndex::Ref ref = index_.find(reg.name, hash);
  if (ref != 0) {
    // The old address no longer belongs to this name.
    U32 const oldAddress = index_.entry(ref).address;
    if (index_.findAddress(oldAddress) == ref) index_.eraseAddress(oldAddress);
    index_.update(ref, fields);
  } else {
    bool added = false;
    ref = index_.insert(reg.name, hash, fields, added);
  }
  index_.setAddress(reg.address, ref);
}

void HardwareRegisterFile::registerDel(std::string_view name) {
  RegisterIndex::Ref const ref = index_.find(name);
  if (ref == 0) return;
  U32 const address = index_.entry(ref).address;
  if (index_.findAddress(address) == ref) index_.eraseAddress(address);
  index_.erase(ref);
}

HardwareRegister HardwareRegisterFile::reg(std::string_view name) const {
  RegisterIndex::Ref const ref = index_.find(name);
  return ref ? recordOf(index_.entry(ref)) : HardwareRegister();
}

bool HardwareRegisterFile::regHas(std::string_view name) const { return index_.find(name) != 0; }

HardwareRegister HardwareRegisterFile::regByAddress(U32 address) const {
  RegisterIndex::Ref const ref = index_.findAddress(address);
  return ref ? recordOf(index_.entry(ref)) : HardwareRegister();
}

bool HardwareRegisterFile::addressHas(U32 address) const { return index_.findAddress(address) != 0; }

}  // namespace Hardware::TarnRegFile
