#include "TarnRegFile/PciTransportMethodImpl.h"

#include "SigbusGuard.h"
#include "Trace.h"

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

[[noreturn, gnu::cold, gnu::noinline]] void throwSizeNotSupported(char const* regName) {
  throw std::runtime_error(std::string("Register ") + regName + " size not supported!");
}

[[noreturn, gnu::cold, gnu::noinline]] void throwNoDevice(char const* regName) {
  throw std::runtime_error(fmt::format("No PCI device to access register '{}'", regName));
}

// Keeps the low `width` bits of a value loaded with one access of `accessWidth` bits.
inline uint32_t keepRegisterBits(uint32_t value, HardwareRegister const& reg) {
  unsigned const unused = (reg.accessWidth - reg.width) % 32u;
  return (value << unused) >> unused;
}

// The table's PCI row creates this transport through the hook registered here.
BaseTransportMethodImpl* createPciTransport(Kiv::Ptr<Hardware::DovImpl> const& pciDov, char const* csvPath,
                                            Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& model) {
  return new PciTransportMethodImpl(pciDov, csvPath, model);
}

[[maybe_unused]] bool const kRegistered = [] {
  TransportMethod::pciImplementationIs(createPciTransport);
  return true;
}();

}  // namespace

PciTransportMethodImpl::PciTransportMethodImpl(Kiv::Ptr<Hardware::DovImpl> const& dov, char const* csvPath,
                                               Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& model)
    : BaseTransportMethodImpl(csvPath, kAddrBlockSize, model) {
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

uint32_t PciTransportMethodImpl::regRead(char const* regName) { return _regRWCommon(false, regName, 0xffffffff); }

void PciTransportMethodImpl::regWrite(char const* regName, uint32_t value) { _regRWCommon(true, regName, value); }

void PciTransportMethodImpl::deviceNotReady() {
  kTrace.line(1, "Hardware not ready, {} SIGBUS", sigbusGuarded_ ? "throwing" : "raising");
  if (sigbusGuarded_) throw Kiv::SigbusException();
  // The access object's own bus-error handling decides what a gone device means.
  // If the process lives on, the access is made anyway, as that handling expects.
  std::raise(SIGBUS);
}

uint32_t PciTransportMethodImpl::_regRWCommon(bool write, char const* regName, uint32_t value) {
  HardwareRegister const& reg = regFileHelper()->findRegisterByName(regName);
  Hardware::PciDovImpl* const dov = pciDov_.ptr();
  if (!dov) [[unlikely]]
    throwNoDevice(regName);
  if (!dov->ready()) [[unlikely]]
    deviceNotReady();
  if (reg.width > reg.accessWidth) [[unlikely]]
    throwSizeNotSupported(regName);

  if (write) {
    // Stored whole: bits above the register's width go to the device as given.
    if (sigbusGuarded_)
      dov->guardedWrite32(reg.address, value);
    else
      dov->write32(reg.address, value);
    return value;
  }
  uint32_t const loaded = sigbusGuarded_ ? dov->guardedRead32(reg.address) : dov->read32(reg.address);
  return keepRegisterBits(loaded, reg);
}

}  // namespace TarnRegFile
