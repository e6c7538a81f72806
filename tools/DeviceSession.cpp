#include "DeviceSession.h"

#include "PciDov.h"

#include "TarnRegFile/MockTransportMethodImpl.h"
#include "TarnRegFile/TransportDescriptor.h"

#include "ToolError.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

namespace Tarnreg {

namespace {

using TarnRegFile::TransportFlavour;

// Level-0 lines of this unit carry the reason of a failed access.
constexpr char const* kTransportTraceUnit = "TarnRegFile/TransportMethod";
// The lines that name the register and the reason; the notification line that
// follows them only names the chip.
constexpr std::string_view kAccessFailureTexts[] = {"TransportMethod error on register",
                                                    "Got SIGBUS when performing operation on register"};

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
    : capture_(kTransportTraceUnit, Kiv::Trace::upTo(0)),
      transport_(TarnRegFile::transportMethodFactory(chipName)) {
  try {
    open(choice, mapPath);
  } catch (ToolError const&) {
    throw;
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
      openMock(choice.mockFile, mapPath);
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
    case TransportKind::None:
      break;
  }
  throw std::logic_error("a device session needs a transport");
}

// The implementation table builds every mock over the shared default file; a session
// may want its own, so it builds the mock itself and hands it to the transport, which
// then owns it exactly as after init().
void DeviceSession::openMock(std::string const& dumpFile, std::string const& mapPath) {
  requireUsableMockFile(dumpFile);
  std::unique_ptr<TarnRegFile::MockTransportMethodImpl> impl;
  try {
    impl = std::make_unique<TarnRegFile::MockTransportMethodImpl>(mapPath.c_str(), nullptr, dumpFile);
  } catch (std::logic_error const&) {  // the loader's "stoul" failures: a line that is not two numbers
    throw ToolError::failure(
        fmt::format("mock register file {} holds a line that is not 'address,value'; delete it to start afresh",
                    dumpFile));
  }
  transport_->csvPathIs(mapPath);
  transport_->descriptorIs(TarnRegFile::mockTransportDescriptorFactory());
  transport_->implPtrIs(impl.release());
  transport_->errorNotifierIs(transport_->name());
}

U32 DeviceSession::read(std::string const& regName) {
  capture_.clear();
  U32 const before = watcher_.signals;
  U32 const value = transport_->regRead(regName);
  failIfSignalled(before, "read", regName);
  return value;
}

void DeviceSession::write(std::string const& regName, U32 value) {
  capture_.clear();
  U32 const before = watcher_.signals;
  transport_->regWrite(regName, value);
  failIfSignalled(before, "write", regName);
}

void DeviceSession::failIfSignalled(U32 signalsBefore, char const* access, std::string const& regName) const {
  if (watcher_.signals == signalsBefore) return;
  for (auto const& record : capture_.records()) {
    if (record.level != 0) continue;
    for (std::string_view const text : kAccessFailureTexts)
      if (record.text.starts_with(text)) throw ToolError::failure(record.text);
  }
  throw ToolError::failure(fmt::format("{} of register '{}' failed", access, regName));
}

}  // namespace Tarnreg
