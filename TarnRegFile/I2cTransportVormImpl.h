#pragma once
/// @file I2cTransportVormImpl.h
/// @brief Registers over I2C through the platform's asynchronous hardware-access manager
/// (`Hardware::Vorm`): every access is a request completed later, on the owner's loop.
///
/// Only the callback forms work: `regReadWithCallback` and `regWriteWithCallback` issue
/// a request and return at once; the callback runs when the agent's loop, seeing the
/// manager's descriptor `fd()` readable, calls `dispatch()`. The plain forms refuse,
/// because a value cannot be returned before the bus has produced it and the agent's
/// loop must not block waiting for it.
///
/// Register numbers of the map are scaled by 4 into byte addresses; the chip is
/// addressed by register (byte address / 4) with a 2-byte offset, 32 bits per register.
/// The bookkeeping of outstanding accesses is I2cTransportVormImplSm's. Destroying the
/// transport drops its outstanding accesses: their callbacks never run.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/Types.h"
#include "TarnRegFile/platform/Vorm.h"

#include "TarnRegFile/BaseTransportMethodImpl.h"
#include "TarnRegFile/I2cTransportVormImplSm.h"

#include <cstdint>

namespace TarnRegFile {

class TARN_API I2cTransportVormImpl : public BaseTransportMethodImpl {
public:
  /// @brief A transport to @p devId on @p vorm over the CSV map at @p csvPath (else
  /// @p regFileModel), register numbers scaled by 4.
  /// @throws std::runtime_error "I2cTransportVormImpl needs a hardware-access manager" for a
  ///         null @p vorm; the base's errors.
  I2cTransportVormImpl(Kiv::Ptr<Hardware::Vorm> const& vorm, U32 devId, char const* csvPath,
                       Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel);
  /// @brief Drops every outstanding access without running its callback.
  ~I2cTransportVormImpl() override;

  /// @throws std::runtime_error "regRead(<name>) not supported", always.
  uint32_t regRead(char const* regName) override;
  /// @throws std::runtime_error "regWrite(<name>, <value>) not supported", always.
  void regWrite(char const* regName, uint32_t value) override;
  /// @brief Issues a read; @p cb runs from a later dispatch() of the manager.
  /// @throws LookupError, TransportError (WidthUnsupported), Kiv::RangeException (devId)
  void regReadWithCallback(char const* regName, RegReadCallback const& cb) override;
  /// @brief Issues a write; @p cb runs from a later dispatch() of the manager.
  void regWriteWithCallback(char const* regName, uint32_t value, RegWriteCallback const& cb) override;

  Kiv::Ptr<Hardware::Vorm> const& vorm() const noexcept { return vorm_; }
  /// @brief The bookkeeping of outstanding accesses.
  Kiv::Ptr<I2cTransportVormImplSm> const& sm() const noexcept { return sm_; }

private:
  Kiv::Ptr<Hardware::Vorm> vorm_;
  Kiv::Ptr<I2cTransportVormImplSm> sm_;
};

}  // namespace TarnRegFile
