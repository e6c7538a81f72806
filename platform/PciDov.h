#pragma once
/// @file PciDov.h
/// @brief Hardware access objects: the generic `Hardware::DovImpl` and the memory-mapped PCI
/// resource `Hardware::PciDovImpl`.
///
/// A `PciDovImpl` maps a PCI memory resource (a sysfs file such as
/// "/sys/bus/pci/devices/0000:00:04.0/resource0", whose size is the BAR size) or
/// any other mappable regular file, and performs 32-bit loads and stores at byte
/// offsets in it.
///
/// Bus errors. A device that has dropped off the bus answers loads with SIGBUS.
/// Two ways of dealing with that exist:
///  - The caller looks after it (`managesSigbus()` false, the default): it uses
///    guardedRead32/guardedWrite32, which throw `Kiv::SigbusException`, and the
///    plain accessors are bare volatile accesses.
///  - The object looks after it (`managesSigbus()` true): when the process-wide
///    switch `Kiv::SigbusGuard::autoHandlerInstall()` is on at construction, the
///    object installs the SIGBUS guard and its plain accessors go through it: a
///    faulting read returns 0xFFFFFFFF (what a PCI read from a missing device
///    returns), a faulting write is dropped, and `lastAccessFaulted()` tells the
///    caller. Such an object never lets a bus error kill the process. When the
///    switch is off, some other component of the process has taken over bus-error
///    handling and the plain accessors stay bare.
///
/// Bounds. Every accessor checks that the offset is 4-aligned and that the four
/// bytes lie inside the mapping; otherwise it throws `std::out_of_range` naming
/// the offset and the size in hex. Accessors do not consult `ready()`: readiness
/// is the owner's statement about the device, and the mapping stays valid until
/// the object dies.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/MemoryMap.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <string>

namespace Hardware {

/// @brief A hardware access object: something that reaches a device's registers.
class TARN_API DovImpl : public Kiv::PtrInterface {
public:
  /// @brief The concrete kind, such as "PciDovImpl".
  virtual char const* kind() const;

  /// @brief True while the device is present and usable.
  bool ready() const noexcept { return ready_; }
  /// @brief Marks the device usable or gone.
  void readyIs(bool ready) noexcept { ready_ = ready; }

protected:
  DovImpl() = default;
  ~DovImpl() override;

private:
  bool ready_ = false;
};

/// @brief A mapped PCI memory resource with plain and SIGBUS-guarded 32-bit accessors.
class TARN_API PciDovImpl : public DovImpl {
public:
  /// @brief Opens and maps @p path read-write and shared; ready once mapped.
  /// @throws std::runtime_error naming the path and the system's reason when
  ///         the file cannot be opened, is not a regular file, is empty or cannot be mapped.
  explicit PciDovImpl(std::string path, bool managesSigbus = false);
  ~PciDovImpl() override;  // unmaps

  /// @brief "PciDovImpl".
  char const* kind() const override;

  /// @brief The sysfs resource file of BAR @p barIndex (0..5) of the device at @p pciAddress.
  ///
  /// @p pciAddress is "DDDD:BB:DD.F" in hex (domain of 4 or 5 digits, device 00..1f,
  /// function 0..7); anything else throws std::invalid_argument, so no caller
  /// text can steer the path outside the device's directory.
  static std::string resourcePath(std::string const& pciAddress, int barIndex);

  /// @brief True when this object deals with bus errors itself.
  bool managesSigbus() const noexcept { return managesSigbus_; }
  /// @brief True when the plain accessors go through the SIGBUS guard (see the file comment).
  bool guardsPlainAccess() const noexcept { return guardsPlainAccess_; }
  /// @brief True when the last plain access met a bus error (self-guarding objects only).
  bool lastAccessFaulted() const noexcept { return lastAccessFaulted_; }

  /// @brief Size of the mapping in bytes.
  std::size_t size() const noexcept { return map_.size(); }
  /// @brief The mapped file.
  std::string const& path() const noexcept { return path_; }

  /// @brief 32-bit load at byte @p offset (guarded when the object guards itself).
  U32 read32(U32 offset);
  /// @brief 32-bit store at byte @p offset (guarded when the object guards itself).
  void write32(U32 offset, U32 value);
  /// @brief 32-bit load under the SIGBUS guard: a bus error throws Kiv::SigbusException.
  U32 guardedRead32(U32 offset) const;
  /// @brief 32-bit store under the SIGBUS guard: a bus error throws Kiv::SigbusException.
  void guardedWrite32(U32 offset, U32 value) const;

private:
  U32 volatile* word(U32 offset) const {
    if ((offset & 3u) != 0 || map_.size() < 4 || offset > map_.size() - 4) [[unlikely]]
      throwOutOfRange(offset);
    return reinterpret_cast<U32 volatile*>(map_.data() + offset);
  }
  [[noreturn]] void throwOutOfRange(U32 offset) const;
  void noteFault(char const* access, U32 offset);

  std::string path_;
  Kiv::MemoryMap map_;
  bool managesSigbus_ = false;
  bool guardsPlainAccess_ = false;
  bool lastAccessFaulted_ = false;
};

/// @brief Maps the resource file (or any mappable regular file) at @p path.
TARN_API Kiv::Ptr<PciDovImpl> pciDovImplFactory(std::string const& path, bool managesSigbus = false);

/// @brief Maps BAR @p barIndex of the PCI device at @p pciAddress ("0000:00:04.0").
TARN_API Kiv::Ptr<PciDovImpl> pciDovImplFactory(std::string const& pciAddress, int barIndex,
                                                bool managesSigbus = false);

}  // namespace Hardware
