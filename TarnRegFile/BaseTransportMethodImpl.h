#pragma once
/// @file BaseTransportMethodImpl.h
/// @brief The transport core: what every register transport does the same way, and the
/// address-level interface of the bus backends.
///
/// A register access by name goes through the core once: the name is resolved by the
/// register-file helper (a CSV map or a register-file model), a register wider than one
/// access is refused, the backend moves the bytes at the register's address, and a read
/// is cut to the register's width when the backend delivers whole access words. A
/// backend (PCI, i2c-dev, mock) implements busRead/busWrite for one register and nothing
/// else; its failures are TransportErrors. The callback forms complete synchronously on
/// top of the plain forms; an asynchronous transport overrides them.

#include "Export.h"
#include "HardwareRegisterFile.h"
#include "KivPtr.h"
#include "Types.h"

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

  /// @brief How the core treats what a backend's busRead returns.
  enum class ReadBits : U8 {
    AsDelivered,  ///< the backend's value is the register's value
    AccessWord,   ///< the backend delivers the whole access word; the core keeps the register's width
  };

  /// @brief Builds the register-name service over the CSV map at @p csvPath (null or empty:
  /// over @p regFileModel), register numbers scaled by @p addrBlockSize.
  /// @throws the helper's errors (unreadable or malformed CSV file, no source given).
  BaseTransportMethodImpl(char const* csvPath, U8 addrBlockSize,
                          Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel,
                          ReadBits readBits = ReadBits::AsDelivered);
  virtual ~BaseTransportMethodImpl();
  BaseTransportMethodImpl(BaseTransportMethodImpl const&) = delete;
  BaseTransportMethodImpl& operator=(BaseTransportMethodImpl const&) = delete;

  /// @brief Reads the register called @p regName: resolve, width check, busRead, width cut.
  /// @throws LookupError for an unknown name, TransportError "Register <name> size not
  ///         supported!" (kind WidthUnsupported) for a register wider than one access, and
  ///         the backend's errors.
  virtual uint32_t regRead(char const* regName);
  /// @brief Writes @p value to the register called @p regName: resolve, width check, busWrite.
  /// The value goes to the backend whole, not cut to the register's width.
  virtual void regWrite(char const* regName, uint32_t value);
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
  /// @brief Loads the register @p reg (already resolved and checked).
  virtual uint32_t busRead(HardwareRegister const& reg) = 0;
  /// @brief Stores @p value in the register @p reg (already resolved and checked).
  virtual void busWrite(HardwareRegister const& reg, uint32_t value) = 0;

private:
  HardwareRegister const& resolve(char const* regName, TransportOperation op) const;

  Kiv::Ptr<RegFileHelper> regFileHelper_;
  ReadBits readBits_;
};

}  // namespace TarnRegFile
