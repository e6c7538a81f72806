#pragma once
/// @file PciTransportMethodImpl.h
/// @brief Bus backend over a chip's memory-mapped PCI resource.
///
/// Register numbers of a CSV map are scaled by 4, so a register's address is its
/// byte offset in the mapped region; every access is one 32-bit load or store, and
/// the core keeps a read's low `width` bits. An address outside the mapping or not
/// 4-aligned (a map that does not fit the BAR) fails the access with a
/// TransportError of kind OutOfRange.
///
/// Bus errors. A device that has dropped off the bus answers loads with SIGBUS.
/// When the PCI access object does not deal with that itself, this transport
/// installs the process's SIGBUS guard (and stops access objects from installing
/// their own handler) and uses the guarded accessors, so a bus error reaches the
/// caller as `Kiv::SigbusException`, which `TransportMethod` turns into a failed
/// access. A device already known to be gone (not ready) is treated the same way
/// without touching it: the exception is thrown, or, when the access object looks
/// after bus errors itself, a SIGBUS is raised for its handling to deal with.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/BaseTransportMethodImpl.h"

#include <cstdint>

namespace Hardware {
// The PCI access objects (TarnRegFile/platform/PciDov.h): held by reference only here, so that
// including this header does not bring in the mapping behind them.
class DovImpl;
class PciDovImpl;
}  // namespace Hardware

namespace TarnRegFile {

class TARN_API PciTransportMethodImpl
    : public BusTransport<PciTransportMethodImpl, ReadBits::AccessWord> {
public:
  /// @brief A transport over @p dov (may be null: the transport then has no device and every
  /// access fails) with the register map of @p csvPath, else of @p regFileModel.
  /// @throws std::runtime_error "PciDovImpl cast error!" when @p dov is not a PCI access
  ///         object; the base's errors for the register map.
  PciTransportMethodImpl(Kiv::Ptr<Hardware::DovImpl> const& dov, char const* csvPath,
                         Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel);
  ~PciTransportMethodImpl() override;

  /// @brief The PCI access object's ready flag (false when there is no access object).
  bool hardwareReady() const noexcept;

  /// @brief The common access through the core: loads (returning the value cut to the
  /// register's width) or stores @p value whole (returning it).
  /// @throws Kiv::SigbusException for a device that is not ready (guarded) or a bus error;
  ///         TransportError for a register too wide (WidthUnsupported), outside the mapping
  ///         (OutOfRange) or without a device (NoDevice); LookupError for an unknown name.
  uint32_t _regRWCommon(bool write, char const* regName, uint32_t value);

  /// @brief The PCI access object (null when none was given).
  Kiv::Ptr<Hardware::PciDovImpl> const& pciDov() const noexcept { return pciDov_; }
  /// @brief True when this transport guards its accesses against bus errors itself.
  bool sigbusGuarded() const noexcept { return sigbusGuarded_; }

  /// @brief Address-level access of the core (the register is resolved and checked).
  uint32_t busRead(HardwareRegister const& reg);
  void busWrite(HardwareRegister const& reg, uint32_t value);

private:
  Hardware::PciDovImpl& device(HardwareRegister const& reg, TransportOperation op);

  Kiv::Ptr<Hardware::PciDovImpl> pciDov_;
  bool sigbusGuarded_ = false;  // fixed at construction: the guarded accessors when set
};

}  // namespace TarnRegFile
