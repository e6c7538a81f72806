#pragma once
/// @file SigbusGuard.h
/// @brief Turns a bus error during one guarded 32-bit load or store into `Kiv::SigbusException`.
///
/// A PCI device that drops off the bus makes every load from its mapped register
/// window raise SIGBUS. The guard lets register accesses survive that: a guarded
/// access arms a per-thread jump target, performs exactly one volatile 32-bit
/// access and disarms again. When the access faults, the process-wide handler
/// jumps back into the accessor, which throws `SigbusException`.
///
/// A bus error anywhere else is not ours to handle: the handler passes it on to
/// whatever disposition SIGBUS had when the guard was installed (the default
/// action kills the process with SIGBUS and a core dump; a previous handler
/// function is called with the original arguments).
///
/// SIGBUS must not be blocked in a thread that makes guarded accesses: the kernel
/// answers a fault with a blocked SIGBUS by killing the process, whatever the handler.
///
/// Cost of a guarded access on the success path: saving the registers into a jump
/// buffer on the stack (no signal-mask syscall), two thread-local stores and the
/// access itself.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"

#include <stdexcept>

namespace Kiv {

/// @brief A bus error hit a guarded access. Text: "Caught SIGBUS".
class TARN_API SigbusException : public std::runtime_error {
public:
  SigbusException();
};

namespace SigbusGuard {

/// @brief Installs the process-wide SIGBUS handler once; later calls do nothing. Thread-safe.
///
/// The disposition SIGBUS has at that moment becomes the one that bus errors
/// outside guarded accesses are passed on to.
TARN_API void init();

/// @brief True once init() has installed the handler.
TARN_API bool initialized() noexcept;

/// @brief One volatile 32-bit load from @p addr; a bus error becomes SigbusException.
///
/// Installs the handler first if init() has not run yet.
TARN_API U32 guardedRead32(U32 const volatile* addr);

/// @brief One volatile 32-bit store of @p value to @p addr; a bus error becomes SigbusException.
TARN_API void guardedWrite32(U32 volatile* addr, U32 value);

/// @brief Load that reports a bus error by returning false (@p value is then untouched).
///
/// Throws only when the handler cannot be installed.
TARN_API bool tryRead32(U32 const volatile* addr, U32& value);

/// @brief Store that reports a bus error by returning false.
TARN_API bool tryWrite32(U32 volatile* addr, U32 value);

/// @brief Process-wide switch consulted by PCI access objects before they set up
/// their own SIGBUS handling. On by default; a component that guards its accesses
/// itself switches it off.
TARN_API void autoHandlerInstallIs(bool on) noexcept;

/// @brief Current state of the automatic-installation switch.
TARN_API bool autoHandlerInstall() noexcept;

}  // namespace SigbusGuard
}  // namespace Kiv
