#include "DeviceSession.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/Trace.h"
#include "TarnRegFile/platform/VormI2cDev.h"

#include "TarnRegFile/Errors.h"
#include "TarnRegFile/MockTransportMethodImpl.h"
#include "TarnRegFile/TransportDescriptor.h"

#include "ToolError.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tarnreg {

namespace {

using TarnRegFile::TransportFlavour;
namespace Utils = TarnRegFile::Utils;

Kiv::TraceHandle kTrace("tarnreg/DeviceSession");

// Invocations of tarnreg on one mock register file take turns: each holds an
// exclusive lock from loading the file to its last rewrite, so that none loses
// another's writes. The lock is on FILE.lock, because every rewrite replaces the
// file itself (a lock on it would not outlive the first rewrite). Where the lock
// file cannot be created (a read-only file system or directory) no invocation can
// replace the register file either, so none is needed.
Utils::UnixFdRes lockMockFile(std::string const& path) {
  std::string const lockPath = path + ".lock";
  Utils::UnixFdRes lock(::open(lockPath.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  if (lock.fd() < 0 && (errno == EROFS || errno == EACCES)) return lock;
  if (lock.fd() < 0 || Utils::syscallAutoRetry([&] { return ::flock(lock.fd(), LOCK_EX); }, false, true) != 0)
    throw ToolError::failure(fmt::format("cannot lock mock register file {} with {}: {}", path, lockPath,
                                         std::strerror(errno)));
  return lock;
}

// The mock quietly leaves alone a register file it may not replace (it must not fail
// an agent over a debugging aid), and rewrites whatever file it is given. Here that
// would lose writes without a word, or replace a file that is not a register file,
// so such a file is refused before anything is done.
void requireUsableMockFile(std::string const& path) {
  auto const refuse = [&](char const* why) {
    return ToolError::failure(fmt::format("mock register file {} {}; choose another with --mock-file", path, why));
  };
  Utils::UnixFdRes file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (file.fd() >= 0 && ::fstat(file.fd(), &st) == 0) {
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) throw refuse("is not a regular file of this user");
    if (st.st_nlink > 1) throw refuse("has other hard links");
    constexpr std::string_view kHeader = "Address, Value";
    char start[kHeader.size() + 1];
    ssize_t const n = ::pread(file.fd(), start, sizeof start, 0);
    std::string_view const head(start, n < 0 ? 0 : size_t(n));
    if (!head.starts_with(kHeader) || !(head.size() == kHeader.size() || head.back() == '\n' || head.back() == '\r'))
      throw refuse("is not a register file (its first line is not \"Address, Value\")");
    return;
  }
  if (errno == ELOOP) throw refuse("is not a regular file of this user");
  if (errno != ENOENT)
    throw ToolError::failure(fmt::format("cannot use mock register file {}: {}", path, std::strerror(errno)));
  auto const slash = path.rfind('/');
  std::string const directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  if (::access(directory.c_str(), W_OK | X_OK) != 0)
    throw ToolError::failure(
        fmt::format("cannot create mock register file {}: {}", path, std::strerror(errno)));
}

}  // namespace

DeviceSession::DeviceSession(TransportChoice const& choice, RegisterMap const& map, std::string const& chipName)
    : transport_(TarnRegFile::transportMethodFactory(chipName)) {
  try {
    // The transport answers from the map already loaded, handed over as a register-file
    // model: the map's path (a pipe perhaps) is read once, by RegisterMap.
    open(choice, TarnRegFile::TransportMethodRegFile(
                     Kiv::String(), Hardware::TarnRegFile::HardwareRegisterFile::HardwareRegisterFileIs(
                                        Kiv::String(chipName), map.file().index())));
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

void DeviceSession::open(TransportChoice const& choice, TarnRegFile::TransportMethodRegFile const& regFile) {
  switch (choice.kind) {
    case TransportKind::Mock:
      requireUsableMockFile(choice.mockFile);
      mockLock_ = lockMockFile(choice.mockFile);
      transport_->fullInit(TarnRegFile::mockTransportDescriptorFactory(choice.mockFile), regFile);
      return;
    case TransportKind::Pci:
      transport_->fullInit(TarnRegFile::pciTransportDescriptorFactory(Hardware::pciDovImplFactory(choice.pciResource)), regFile);
      return;
    case TransportKind::I2c: {
      auto const flavour = choice.i2cWordFlavour ? TransportFlavour::I2cSmbusDataWord
                                                 : TransportFlavour::I2cSmbusDataBlock;
      transport_->fullInit(TarnRegFile::i2cTransportDescriptorFactory(flavour, choice.i2cDevNode, choice.i2cAddress), regFile);
      return;
    }
    case TransportKind::I2cAsync:
      vorm_ = Hardware::Vorm::VormIs(Kiv::String(choice.i2cDevNode.c_str()),
                                     std::make_shared<Hardware::VormI2cDevBackend>(choice.i2cDevNode));
      transport_->fullInit(TarnRegFile::i2cVormTransportDescriptorFactory(vorm_, choice.i2cAddress), regFile);
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
    failIfNotRecorded(regName);
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

// The mock's access succeeds also when its file could not be rewritten; a write from
// the command line that is not in the file is lost when the command ends.
void DeviceSession::failIfNotRecorded(std::string const& regName) const {
  auto const* mock = dynamic_cast<TarnRegFile::MockTransportMethodImpl const*>(transport_->implPtr());
  if (mock && mock->dumpErrno() != 0)
    throw ToolError::failure(
        fmt::format("the value of register '{}' was not recorded: cannot write mock register file {}: {}", regName,
                    mock->dumpPath(), std::strerror(mock->dumpErrno())));
}

void DeviceSession::failIfSignalled(U32 signalsBefore) const {
  if (watcher_.signals == signalsBefore) return;
  auto const& failure = transport_->errorNotifier()->lastFailure();
  if (failure.kind == TarnRegFile::TransportErrorKind::BusError)
    throw ToolError::failure(fmt::format("Got SIGBUS when performing operation on register '{}'", failure.regName));
  throw ToolError::failure(fmt::format("TransportMethod error on register '{}': {}", failure.regName, failure.reason));
}

}  // namespace Tarnreg
