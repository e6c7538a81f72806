#pragma once
/// @file BaseTransportMethodImpl.h
/// @brief The transport core: what every register transport does the same way, and the
/// address-level interface of the bus backends.
///
/// A register access by name goes through the core once (BusTransport below): the name
/// is resolved by the register-file helper (a CSV map or a register-file model), a
/// register wider than one access is refused, the backend moves the bits at the
/// register's address, and a read is cut to the register's width when the backend
/// delivers whole access words. A bus backend (PCI, i2c-dev, mock) derives from
/// BusTransport and implements busRead/busWrite for one register and nothing else; its
/// failures are TransportErrors. The core calls them directly, not through the virtual
/// table: an access costs one virtual call, as before the split. The callback forms
/// complete synchronously on top of the plain forms; an asynchronous transport
/// overrides them.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/Errors.h"
#include "TarnRegFile/RegisterFileHelper.h"

#include <cstdint>
#include <cstdio>
#include <functional>

namespace TarnRegFile {

/// @brief Outcome handed to completion callbacks.
enum RegCallbackStatus : U8 {
  RegCallbackStatusSuccess = 1,  ///< completed; a read's value argument is the register's value
  RegCallbackStatusFailure = 2,  ///< failed; a read's value argument is 0xFFFFFFFF
};

/// @brief Completion of a write: (register name as asked, status). The name is valid during the call only.
using RegWriteCallback = std::function<void(char const* regName, RegCallbackStatus status)>;
/// @brief Completion of a read: (register name as asked, status, value).
using RegReadCallback = std::function<void(char const* regName, RegCallbackStatus status, uint32_t value)>;

/// @brief Keeps the low `width` bits of a value loaded with one access of `accessWidth` bits.
inline uint32_t keepRegisterBits(uint32_t value, Hardware::TarnRegFile::HardwareRegister const& reg) noexcept {
  unsigned const unused = (reg.accessWidth - reg.width) % 32u;
  return (value << unused) >> unused;
}

/// @brief Base of every register transport implementation.
class TARN_API BaseTransportMethodImpl {
public:
  using HardwareRegister = Hardware::TarnRegFile::HardwareRegister;

  /// @brief Builds the register-name service over the CSV map at @p csvPath (null or empty:
  /// over @p regFileModel), register numbers scaled by @p addrBlockSize.
  /// @throws the helper's errors (unreadable or malformed CSV file, no source given).
  BaseTransportMethodImpl(char const* csvPath, U8 addrBlockSize,
                          Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel);
  virtual ~BaseTransportMethodImpl();
  BaseTransportMethodImpl(BaseTransportMethodImpl const&) = delete;
  BaseTransportMethodImpl& operator=(BaseTransportMethodImpl const&) = delete;

  /// @brief Reads the register called @p regName.
  virtual uint32_t regRead(char const* regName) = 0;
  /// @brief Writes @p value to the register called @p regName.
  virtual void regWrite(char const* regName, uint32_t value) = 0;
  /// @brief Reads and reports through @p cb. Default: with an empty @p cb nothing is read;
  /// otherwise regRead, then cb(regName, success, value). Exceptions of regRead propagate
  /// and @p cb is not called.
  virtual void regReadWithCallback(char const* regName, RegReadCallback const& cb);
  /// @brief Writes and reports through @p cb. Default: regWrite (also with an empty @p cb),
  /// then cb(regName, success) when @p cb is set. Exceptions of regWrite propagate.
  virtual void regWriteWithCallback(char const* regName, uint32_t value, RegWriteCallback const& cb);

  /// @brief The register-name service.
  Kiv::Ptr<RegFileHelper> const& regFileHelper() const noexcept { return regFileHelper_; }

  /// @brief Reads every register and prints "%-40s 0x%x\n" lines to stderr.
  void dumpAll();
  /// @brief Reads every register and prints "%-40s 0x%x\n" lines to @p out.
  void dumpAll(std::FILE* out);

protected:
  /// @brief The register called @p regName, checked to fit one access.
  /// @throws LookupError for an unknown name; TransportError "Register <name> size not
  ///         supported!" (kind WidthUnsupported) for a register wider than its access.
  HardwareRegister const& resolve(char const* regName, TransportOperation op) const {
    HardwareRegister const& reg = regFileHelper_->findRegisterByName(regName);
    // One access moves accessWidth bits; a wider register cannot be reached with it.
    if (reg.width > reg.accessWidth) [[unlikely]]
      sizeNotSupported(regName, op);
    return reg;
  }

private:
  [[noreturn]] static void sizeNotSupported(char const* regName, TransportOperation op);

  Kiv::Ptr<RegFileHelper> regFileHelper_;
};

/// @brief How the core treats what a backend's busRead returns.
enum class ReadBits : U8 {
  AsDelivered,  ///< the backend's value is the register's value
  AccessWord,   ///< the backend delivers the whole access word; the core keeps the register's width
};

/// @brief The transport core over the bus backend @p Bus, which provides
/// `uint32_t busRead(HardwareRegister const&)` and `void busWrite(HardwareRegister const&, uint32_t)`
/// for a register already resolved and checked.
///
///     class PciTransportMethodImpl : public BusTransport<PciTransportMethodImpl, ReadBits::AccessWord>
template <class Bus, ReadBits kReadBits = ReadBits::AsDelivered>
class BusTransport : public BaseTransportMethodImpl {
public:
  using BaseTransportMethodImpl::BaseTransportMethodImpl;

  /// @brief Resolve, width check, busRead, then (AccessWord) keep the register's width.
  /// @throws LookupError, TransportError (WidthUnsupported) and the backend's errors.
  uint32_t regRead(char const* regName) final {
    HardwareRegister const& reg = resolve(regName, TransportOperation::Read);
    uint32_t const value = static_cast<Bus*>(this)->busRead(reg);
    if constexpr (kReadBits == ReadBits::AccessWord) return keepRegisterBits(value, reg);
    return value;
  }
  /// @brief Resolve, width check, busWrite. The value goes to the backend whole, not cut to
  /// the register's width.
  void regWrite(char const* regName, uint32_t value) final {
    static_cast<Bus*>(this)->busWrite(resolve(regName, TransportOperation::Write), value);
  }
};

}  // namespace TarnRegFile
