#include "TarnRegFile/PciTransportMethodImpl.h"

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/TransportMethod.h"

#include <fmt/format.h>

#include <csignal>
#include <stdexcept>
#include <string>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/PciTransportMethodImpl");

// Register numbers are 32-bit word indices; the address is the byte offset.
constexpr U8 kAddrBlockSize = 4;

using HardwareRegister = Hardware::TarnRegFile::HardwareRegister;

[[noreturn, gnu::cold, gnu::noinline]] void throwNoDevice(HardwareRegister const& reg, TransportOperation op) {
  throw TransportError(fmt::format("No PCI device to access register '{}'", reg.name), TransportErrorKind::NoDevice,
                       std::string(reg.name), op);
}

// The access object refuses an offset outside its mapping or not 4-aligned with
// std::out_of_range; for the transport that is a failed access like any other.
[[noreturn, gnu::cold, gnu::noinline]] void throwOutside(std::out_of_range const& e, HardwareRegister const& reg,
                                                         TransportOperation op) {
  throw TransportError(e.what(), TransportErrorKind::OutOfRange, std::string(reg.name), op);
}

BaseTransportMethodImpl* createPciTransport(BaseTransportDescriptor const& descriptor,
                                            TransportMethodRegFile const& regFile) {
  auto const& pci = transportDescriptorAs<PciTransportDescriptor>(descriptor, "TarnRegFile::PciTransportDescriptor");
  return new PciTransportMethodImpl(pci.pciDov(), regFile.csvPath().c_str(), regFile.regFileModel());
}

[[maybe_unused]] bool const kRegistered = [] {
  TransportMethod::transportFactoryIs(kPciTransportKey, createPciTransport);
  return true;
}();

}  // namespace

PciTransportMethodImpl::PciTransportMethodImpl(Kiv::Ptr<Hardware::DovImpl> const& dov, char const* csvPath,
                                               Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& model)
    : BusTransport(csvPath, kAddrBlockSize, model) {
  // Without an access object the transport still exists (its register map answers
  // name questions); accesses fail one by one.
  if (!dov) return;
  pciDov_ = Kiv::ptr_cast<Hardware::PciDovImpl>(dov);
  if (!pciDov_) throw std::runtime_error("PciDovImpl cast error!");
  sigbusGuarded_ = !pciDov_->managesSigbus();
  if (sigbusGuarded_) {
    // This transport handles bus errors; access objects created from now on must
    // not install a handler of their own that would swallow them first.
    Kiv::SigbusGuard::autoHandlerInstallIs(false);
    Kiv::SigbusGuard::init();
  }
  kTrace.line(2, "PCI transport over {}, {}", pciDov_->path(),
              sigbusGuarded_ ? "guarding bus errors" : "bus errors left to the access object");
}

PciTransportMethodImpl::~PciTransportMethodImpl() = default;

bool PciTransportMethodImpl::hardwareReady() const noexcept { return pciDov_ && pciDov_->ready(); }

uint32_t PciTransportMethodImpl::_regRWCommon(bool write, char const* regName, uint32_t value) {
  if (!write) return regRead(regName);
  regWrite(regName, value);
  return value;
}

Hardware::PciDovImpl& PciTransportMethodImpl::device(HardwareRegister const& reg, TransportOperation op) {
  Hardware::PciDovImpl* const dov = pciDov_.ptr();
  if (!dov) [[unlikely]]
    throwNoDevice(reg, op);
  if (!dov->ready()) [[unlikely]] {
    kTrace.line(1, "Hardware not ready, {} SIGBUS", sigbusGuarded_ ? "throwing" : "raising");
    if (sigbusGuarded_) throw Kiv::SigbusException();
    // The access object's own bus-error handling decides what a gone device means.
    // If the process lives on, the access is made anyway, as that handling expects.
    std::raise(SIGBUS);
  }
  return *dov;
}

uint32_t PciTransportMethodImpl::busRead(HardwareRegister const& reg) {
  Hardware::PciDovImpl& dov = device(reg, TransportOperation::Read);
  try {
    return sigbusGuarded_ ? dov.guardedRead32(reg.address) : dov.read32(reg.address);
  } catch (std::out_of_range const& e) {
    throwOutside(e, reg, TransportOperation::Read);
  }
}

void PciTransportMethodImpl::busWrite(HardwareRegister const& reg, uint32_t value) {
  Hardware::PciDovImpl& dov = device(reg, TransportOperation::Write);
  try {
    // Stored whole: bits above the register's width go to the device as given.
    if (sigbusGuarded_)
      dov.guardedWrite32(reg.address, value);
    else
      dov.write32(reg.address, value);
  } catch (std::out_of_range const& e) {
    throwOutside(e, reg, TransportOperation::Write);
  }
}

}  // namespace TarnRegFile
