#include "TarnRegFile/platform/Fd.h"

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace Kiv {

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = other.release();
  }
  return *this;
}

int Fd::release() noexcept { return std::exchange(fd_, -1); }

void Fd::reset() noexcept {
  if (fd_ < 0)
    return;
  // Callers often close on an error path and then report errno: close must not change it.
  int const saved = errno;
  ::close(std::exchange(fd_, -1));
  errno = saved;
}

}  // namespace Kiv
