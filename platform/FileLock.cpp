#include "TarnRegFile/platform/FileLock.h"

#include <cerrno>

#include <sys/file.h>

namespace Kiv {

FileLock::FileLock(int fd, int mode) noexcept {
  int rc;
  while ((rc = ::flock(fd, mode)) != 0 && errno == EINTR) {
  }
  if (rc == 0)
    fd_ = fd;
}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    unlock();
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

void FileLock::unlock() noexcept {
  if (fd_ < 0)
    return;
  int const saved = errno;
  ::flock(fd_, LOCK_UN);
  fd_ = -1;
  errno = saved;
}

void FileLock::adopt(int fd) noexcept {
  unlock();
  fd_ = fd;
}

}  // namespace Kiv
