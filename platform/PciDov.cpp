#include "TarnRegFile/platform/PciDov.h"

#include "TarnRegFile/platform/Fd.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

namespace Hardware {
namespace {

Kiv::TraceHandle kTrace("Hardware/PciDov");

// What a read from a PCI device that no longer answers returns on real hardware.
constexpr U32 kAbsentDeviceValue = 0xFFFFFFFFu;

std::string systemError(char const* what, std::string const& path, int err) {
  return fmt::format("PciDovImpl: cannot {} {}: {}", what, path, std::strerror(err));
}

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

unsigned hexValue(char c) {
  if (c >= '0' && c <= '9') return unsigned(c - '0');
  if (c >= 'a' && c <= 'f') return unsigned(c - 'a' + 10);
  return unsigned(c - 'A' + 10);
}

// "DDDD:BB:DD.F" (or a 5-digit domain), device 00..1f and function 0..7, all hex.
// Returned in the lower-case form sysfs uses.
std::string canonicalPciAddress(std::string const& address) {
  auto invalid = [&]() {
    return std::invalid_argument(
        fmt::format("PciDovImpl: invalid PCI address '{}' (expected DDDD:BB:DD.F in hex)", address));
  };
  std::size_t const domainDigits = address.size() == 12 ? 4 : address.size() == 13 ? 5 : 0;
  if (domainDigits == 0) throw invalid();
  std::string canonical;
  canonical.reserve(address.size());
  for (std::size_t i = 0; i < address.size(); ++i) {
    std::size_t const rest = i - domainDigits;  // position within ":BB:DD.F"
    char const c = address[i];
    bool ok;
    if (i < domainDigits)
      ok = isHexDigit(c);
    else if (rest == 0 || rest == 3)
      ok = c == ':';
    else if (rest == 6)
      ok = c == '.';
    else
      ok = isHexDigit(c);
    if (!ok) throw invalid();
    canonical.push_back(c >= 'A' && c <= 'F' ? char(c - 'A' + 'a') : c);
  }
  unsigned const device = hexValue(address[domainDigits + 4]) * 16 + hexValue(address[domainDigits + 5]);
  unsigned const function = hexValue(address[domainDigits + 7]);
  if (device > 0x1f || function > 7) throw invalid();
  return canonical;
}

}  // namespace

DovImpl::~DovImpl() = default;

char const* DovImpl::kind() const { return "DovImpl"; }

PciDovImpl::PciDovImpl(std::string path, bool managesSigbus)
    : path_(std::move(path)), managesSigbus_(managesSigbus) {
  // Installed before anything is mapped, so that nothing can fail once the mapping exists.
  if (managesSigbus_ && Kiv::SigbusGuard::autoHandlerInstall()) {
    Kiv::SigbusGuard::init();
    guardsPlainAccess_ = true;
  }
  Kiv::Fd const fd(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd) throw std::runtime_error(systemError("open", path_, errno));
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) throw std::runtime_error(systemError("stat", path_, errno));
  if (!S_ISREG(st.st_mode)) throw std::runtime_error(fmt::format("PciDovImpl: {} is not a regular file", path_));
  if (st.st_size <= 0 || std::uintmax_t(st.st_size) > SIZE_MAX)
    throw std::runtime_error(fmt::format("PciDovImpl: {} has no mappable size ({} bytes)", path_,
                                         static_cast<long long>(st.st_size)));
  // The mapping keeps the resource open; the descriptor closes when the constructor ends.
  map_ = Kiv::MemoryMap(fd.get(), std::size_t(st.st_size), true);
  if (!map_) throw std::runtime_error(systemError("map", path_, errno));
  readyIs(true);
  kTrace.line(2, "Mapped {} ({:#x} bytes){}", path_, map_.size(), guardsPlainAccess_ ? ", guarding plain accesses" : "");
}

PciDovImpl::~PciDovImpl() = default;

char const* PciDovImpl::kind() const { return "PciDovImpl"; }

std::string PciDovImpl::resourcePath(std::string const& pciAddress, int barIndex) {
  if (barIndex < 0 || barIndex > 5)
    throw std::invalid_argument(fmt::format("PciDovImpl: invalid BAR index {} (expected 0..5)", barIndex));
  return fmt::format("/sys/bus/pci/devices/{}/resource{}", canonicalPciAddress(pciAddress), barIndex);
}

void PciDovImpl::throwOutOfRange(U32 offset) const {
  if ((offset & 3u) != 0)
    throw std::out_of_range(fmt::format("PciDovImpl: offset {:#x} is not 4-byte aligned (size {:#x}, {})",
                                        offset, map_.size(), path_));
  throw std::out_of_range(
      fmt::format("PciDovImpl: offset {:#x} is outside the mapping (size {:#x}, {})", offset, map_.size(), path_));
}

void PciDovImpl::noteFault(char const* access, U32 offset) {
  lastAccessFaulted_ = true;
  kTrace.line(0, "SIGBUS on {} at offset {:#x} of {}", access, offset, path_);
}

U32 PciDovImpl::read32(U32 offset) {
  U32 volatile* const p = word(offset);
  if (!guardsPlainAccess_) return *p;
  U32 value;
  if (Kiv::SigbusGuard::tryRead32(p, value)) [[likely]] {
    lastAccessFaulted_ = false;
    return value;
  }
  noteFault("read", offset);
  return kAbsentDeviceValue;
}

void PciDovImpl::write32(U32 offset, U32 value) {
  U32 volatile* const p = word(offset);
  if (!guardsPlainAccess_) {
    *p = value;
    return;
  }
  if (Kiv::SigbusGuard::tryWrite32(p, value)) [[likely]] {
    lastAccessFaulted_ = false;
    return;
  }
  noteFault("write", offset);
}

U32 PciDovImpl::guardedRead32(U32 offset) const { return Kiv::SigbusGuard::guardedRead32(word(offset)); }

void PciDovImpl::guardedWrite32(U32 offset, U32 value) const {
  Kiv::SigbusGuard::guardedWrite32(word(offset), value);
}

Kiv::Ptr<PciDovImpl> pciDovImplFactory(std::string const& path, bool managesSigbus) {
  return Kiv::Ptr<PciDovImpl>(new PciDovImpl(path, managesSigbus));
}

Kiv::Ptr<PciDovImpl> pciDovImplFactory(std::string const& pciAddress, int barIndex, bool managesSigbus) {
  return pciDovImplFactory(PciDovImpl::resourcePath(pciAddress, barIndex), managesSigbus);
}

}  // namespace Hardware
