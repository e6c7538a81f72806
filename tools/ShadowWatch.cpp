#include "ShadowWatch.h"

#include "ToolError.h"

#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/ShmWatch.h"

#include "TarnRegFile/ShadowTypes.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Tarnreg {

namespace {

/// SIGINT and SIGTERM as a descriptor; blocked for the process while it lives, so they end the loop.
class StopSignals {
public:
  StopSignals() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGINT);
    sigaddset(&set_, SIGTERM);
    if (::sigprocmask(SIG_BLOCK, &set_, &previous_) != 0 || (fd_ = ::signalfd(-1, &set_, SFD_CLOEXEC)) < 0)
      throw ToolError::failure(fmt::format("cannot take over SIGINT and SIGTERM: {}", std::strerror(errno)));
  }
  ~StopSignals() {
    ::close(fd_);
    ::sigprocmask(SIG_SETMASK, &previous_, nullptr);
  }
  StopSignals(StopSignals const&) = delete;
  StopSignals& operator=(StopSignals const&) = delete;
  int fd() const noexcept { return fd_; }
  /// @brief Takes the pending signal, so that unblocking it afterwards does not deliver it again.
  void consume() const noexcept {
    signalfd_siginfo info;
    while (::read(fd_, &info, sizeof info) < 0 && errno == EINTR) {
    }
  }

private:
  sigset_t set_{};
  sigset_t previous_{};
  int fd_ = -1;
};

}  // namespace

void watchShadowTable(std::string const& rootDir, std::string const& path, Printer const& printer) {
  using Watch = Kiv::Shm::CollectionWatcher<TarnRegFile::ShadowFieldTraits>;
  Kiv::Shm::Root const root(rootDir);
  try {
    Kiv::Shm::Root::validatePath(path);
  } catch (std::exception const& e) {
    throw ToolError::usage(fmt::format("shadow table path '{}': {}", path, e.what()));
  }
  StopSignals const stop;
  std::optional<Watch> watch;
  try {
    // Only an existing table: a typing mistake must not leave a bell file waiting for nothing.
    if (!root.exists(path))
      throw std::runtime_error("there is no such table");
    watch.emplace(root, path);
  } catch (Kiv::Shm::CorruptionException const& e) {
    throw ToolError::failure(fmt::format("shadow table {} under {} is damaged: {}", path, rootDir, e.what()));
  } catch (std::exception const& e) {
    throw ToolError::failure(fmt::format("cannot watch shadow table {} under {}: {}", path, rootDir, e.what()));
  }
  watch->changeHandlerIs([&](TarnRegFile::ShadowFieldKey const& key, TarnRegFile::ShadowFieldValue const* now) {
    printer.shadowChange(key, now);
  });
  pollfd fds[2] = {{watch->fd(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
  for (;;) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      throw ToolError::failure(fmt::format("cannot wait for changes: {}", std::strerror(errno)));
    }
    if (fds[1].revents != 0) return stop.consume();
    try {
      watch->dispatch();
    } catch (Kiv::Shm::CorruptionException const& e) {
      throw ToolError::failure(fmt::format("shadow table {} under {} is damaged: {}", path, rootDir, e.what()));
    }
  }
}

}  // namespace Tarnreg
