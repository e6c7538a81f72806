#pragma once
/// @file DeviceSession.h
/// @brief One chip reached through a TransportMethod, with failed accesses turned into ToolError.

#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/Types.h"
#include "TarnRegFile/platform/Vorm.h"

#include "TarnRegFile/TransportMethod.h"

#include "TransportChoice.h"

#include <string>

namespace Tarnreg {

/// @brief Opens the chosen transport over a map and reads or writes registers by name.
///
/// The transport never throws for a failed access: it returns 0xFFFFFFFF (which is also
/// a valid register value) and signals its error notifier. The session watches that
/// notifier to learn that an access failed, and reads the notifier's last failure to
/// say why.
///
/// The asynchronous I2C transport completes accesses only through their callbacks, from
/// the manager's dispatch(): the session issues the callback form and runs the loop an
/// agent would run, polling the manager's descriptor and dispatching, until the callback
/// has run. The manager ends every request within its timeout, so the wait is bounded.
class DeviceSession {
public:
  /// @brief Opens the transport of @p choice (not None) over the map at @p mapPath, for
  /// the chip called @p chipName.
  /// @throws ToolError (failure) when the device or the mock's register file cannot be used.
  DeviceSession(TransportChoice const& choice, std::string const& mapPath, std::string const& chipName);
  ~DeviceSession();
  DeviceSession(DeviceSession const&) = delete;
  DeviceSession& operator=(DeviceSession const&) = delete;

  /// @brief The value of register @p regName.
  /// @throws ToolError (failure) with the transport's reason when the read failed.
  U32 read(std::string const& regName);
  /// @brief Writes @p value to register @p regName.
  /// @throws ToolError (failure) with the transport's reason when the write failed.
  void write(std::string const& regName, U32 value);

private:
  struct ErrorWatcher : TarnRegFile::TransportMethodError::Notifiee {
    void onError() override { ++signals; }
    U32 signals = 0;
  };

  void open(TransportChoice const& choice, std::string const& mapPath);
  void failIfSignalled(U32 signalsBefore) const;
  /// Dispatches the manager's completions until @p done, or fails at the manager's timeout.
  void awaitCompletion(std::string const& regName, bool const& done);

  Kiv::Ptr<Hardware::Vorm> vorm_;  // the asynchronous I2C transport's manager, else null

  Kiv::Ptr<TarnRegFile::TransportMethod> transport_;
  ErrorWatcher watcher_;
};

}  // namespace Tarnreg
