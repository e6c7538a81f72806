#pragma once
/// @file FileLock.h
/// @brief A flock() advisory lock held on a descriptor it does not own, released when it is destroyed.

#include "TarnRegFile/platform/Export.h"

namespace Kiv {

/// @brief One flock() lock (LOCK_SH or LOCK_EX) on a descriptor owned elsewhere (an Fd).
///
/// The lock belongs to the open file description: closing the descriptor releases it
/// too, so a lock must not outlive its descriptor's owner.
class TARN_API FileLock {
public:
  FileLock() = default;
  /// @brief Asks for the lock once with the flock operation bits @p mode (LOCK_SH or LOCK_EX,
  /// optionally LOCK_NB), retrying only an interrupted call. When it is not granted held() is
  /// false and errno tells why (EWOULDBLOCK: another holder, with LOCK_NB).
  FileLock(int fd, int mode) noexcept;
  ~FileLock() { unlock(); }
  FileLock(FileLock&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(FileLock const&) = delete;
  FileLock& operator=(FileLock const&) = delete;

  /// @brief True while the lock is held.
  bool held() const noexcept { return fd_ >= 0; }
  /// @brief The locked descriptor, or -1.
  int fd() const noexcept { return fd_; }
  /// @brief Releases the lock now (nothing when none is held), keeping errno as it was.
  void unlock() noexcept;

protected:
  /// @brief Records that @p fd is locked by the caller; the lock is released with this object.
  void adopt(int fd) noexcept;

private:
  int fd_ = -1;
};

}  // namespace Kiv
