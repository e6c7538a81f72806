#include "DeviceSession.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/Trace.h"
#include "TarnRegFile/platform/VormI2cDev.h"

#include "TarnRegFile/Errors.h"
#include "TarnRegFile/TransportDescriptor.h"

#include "ToolError.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tarnreg {

namespace {

using TarnRegFile::TransportFlavour;

Kiv::TraceHandle kTrace("tarnreg/DeviceSession");

// The mock quietly leaves alone a register file it may not use (it must not fail an
// agent over a debugging aid). Here that would lose every write without a word, so
// such a file is refused before anything is done.
void requireUsableMockFile(std::string const& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid())
      throw ToolError::failure(fmt::format(
          "mock register file {} is not a regular file of this user; choose another with --mock-file", path));
    return;
  }
  if (errno != ENOENT)
    throw ToolError::failure(fmt::format("cannot use mock register file {}: {}", path, std::strerror(errno)));
  auto const slash = path.rfind('/');
  std::string const directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  if (::access(directory.c_str(), W_OK | X_OK) != 0)
    throw ToolError::failure(
        fmt::format("cannot create mock register file {}: {}", path, std::strerror(errno)));
}

}  // namespace

DeviceSession::DeviceSession(TransportChoice const& choice, std::string const& mapPath,
                             std::string const& chipName)
    : transport_(TarnRegFile::transportMethodFactory(chipName)) {
  try {
    open(choice, mapPath);
  } catch (ToolError const&) {
    throw;
  } catch (TarnRegFile::DumpFileError const& e) {  // a line that is not two numbers
    throw ToolError::failure(fmt::format(
        "mock register file {} holds a line that is not 'address,value'; delete it to start afresh", e.path()));
  } catch (std::exception const& e) {
    // Device nodes and resource files name themselves in their messages.
    throw ToolError::failure(e.what());
  }
  watcher_.notifierIs(transport_->errorNotifier());
}

DeviceSession::~DeviceSession() { watcher_.notifierIs(nullptr); }

void DeviceSession::open(TransportChoice const& choice, std::string const& mapPath) {
  switch (choice.kind) {
    case TransportKind::Mock:
      requireUsableMockFile(choice.mockFile);
      transport_->init(TarnRegFile::mockTransportDescriptorFactory(choice.mockFile), mapPath);
      return;
    case TransportKind::Pci:
      transport_->init(TarnRegFile::pciTransportDescriptorFactory(Hardware::pciDovImplFactory(choice.pciResource)),
                       mapPath);
      return;
    case TransportKind::I2c: {
      auto const flavour = choice.i2cWordFlavour ? TransportFlavour::I2cSmbusDataWord
                                                 : TransportFlavour::I2cSmbusDataBlock;
      transport_->init(TarnRegFile::i2cTransportDescriptorFactory(flavour, choice.i2cDevNode, choice.i2cAddress),
                       mapPath);
      return;
    }
    case TransportKind::I2cAsync:
      vorm_ = Hardware::Vorm::VormIs(Kiv::String(choice.i2cDevNode.c_str()),
                                     std::make_shared<Hardware::VormI2cDevBackend>(choice.i2cDevNode));
      transport_->init(TarnRegFile::i2cVormTransportDescriptorFactory(vorm_, choice.i2cAddress), mapPath);
      return;
    case TransportKind::None:
      break;
  }
  KIV_FATAL(kTrace, "choice.kind != TransportKind::None") << "a device session needs a transport";
}

U32 DeviceSession::read(std::string const& regName) {
  U32 const before = watcher_.signals;
  if (!vorm_) {
    U32 const value = transport_->regRead(regName);
    failIfSignalled(before);
    return value;
  }
  bool done = false;
  auto status = TarnRegFile::RegCallbackStatusFailure;
  U32 value = 0;
  transport_->regReadWithCallback(regName, [&](char const*, TarnRegFile::RegCallbackStatus s, uint32_t v) {
    done = true;
    status = s;
    value = v;
  });
  failIfSignalled(before);  // refused before any request was issued
  awaitCompletion(regName, done);
  if (status != TarnRegFile::RegCallbackStatusSuccess)
    throw ToolError::failure(fmt::format(
        "asynchronous I2C read of register '{}' failed on {} (NACK, bus error, timeout or refusal; -v says which)",
        regName, vorm_->name()));
  return value;
}

void DeviceSession::write(std::string const& regName, U32 value) {
  U32 const before = watcher_.signals;
  if (!vorm_) {
    transport_->regWrite(regName, value);
    failIfSignalled(before);
    return;
  }
  bool done = false;
  auto status = TarnRegFile::RegCallbackStatusFailure;
  transport_->regWriteWithCallback(regName, value, [&](char const*, TarnRegFile::RegCallbackStatus s) {
    done = true;
    status = s;
  });
  failIfSignalled(before);
  awaitCompletion(regName, done);
  if (status != TarnRegFile::RegCallbackStatusSuccess)
    throw ToolError::failure(fmt::format(
        "asynchronous I2C write of register '{}' failed on {} (NACK, bus error, timeout or refusal; -v says which); "
        "a timed-out write may still have happened",
        regName, vorm_->name()));
}

void DeviceSession::awaitCompletion(std::string const& regName, bool const& done) {
  using namespace std::chrono;
  // The manager times every request out after timeout(); the margin covers a late dispatch.
  auto const deadline = steady_clock::now() + vorm_->timeout() + milliseconds(500);
  while (!done) {
    auto const left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
    if (left <= 0)
      throw ToolError::failure(
          fmt::format("no completion of the access to register '{}' from {}", regName, vorm_->name()));
    pollfd ready{vorm_->fd(), POLLIN, 0};
    int const n = ::poll(&ready, 1, static_cast<int>(left));
    if (n < 0 && errno != EINTR)
      throw ToolError::failure(fmt::format("poll on the manager of {}: {}", vorm_->name(), std::strerror(errno)));
    if (n > 0) vorm_->dispatch();
  }
}

void DeviceSession::failIfSignalled(U32 signalsBefore) const {
  if (watcher_.signals == signalsBefore) return;
  auto const& failure = transport_->errorNotifier()->lastFailure();
  if (failure.kind == TarnRegFile::TransportErrorKind::BusError)
    throw ToolError::failure(fmt::format("Got SIGBUS when performing operation on register '{}'", failure.regName));
  throw ToolError::failure(fmt::format("TransportMethod error on register '{}': {}", failure.regName, failure.reason));
}

}  // namespace Tarnreg
