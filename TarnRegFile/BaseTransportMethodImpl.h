#pragma once
/// @file BaseTransportMethodImpl.h
/// @brief Abstract base of the register transports, their completion status and callback types.
///
/// Every transport reads and writes 32-bit registers by name. The base gives each
/// one its register-name service (a RegFileHelper over a CSV map or a register-file
/// model) and callback forms of access that complete synchronously on top of the
/// plain forms; an asynchronous transport overrides the callback forms.

#include "Export.h"
#include "HardwareRegisterFile.h"
#include "KivPtr.h"
#include "Types.h"

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

/// @brief Base of every register transport implementation.
class TARN_API BaseTransportMethodImpl {
public:
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

private:
  Kiv::Ptr<RegFileHelper> regFileHelper_;
};

}  // namespace TarnRegFile
