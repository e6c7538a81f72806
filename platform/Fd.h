#pragma once
/// @file Fd.h
/// @brief The owner of one file descriptor: every descriptor the library opens is held by one,
/// so that no error path has to remember to close it.

#include "TarnRegFile/platform/Export.h"

namespace Kiv {

/// @brief Owns one file descriptor and closes it on destruction. -1 holds nothing.
class TARN_API Fd {
public:
  Fd() = default;
  /// @brief Takes ownership of @p fd (a negative value owns nothing, so `Fd(::open(...))` is safe).
  explicit Fd(int fd) noexcept : fd_(fd < 0 ? -1 : fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  /// @brief Closes the held descriptor, then takes the other's (a self-move changes nothing).
  Fd& operator=(Fd&& other) noexcept;
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;

  /// @brief The descriptor, or -1.
  int get() const noexcept { return fd_; }
  /// @brief True when a descriptor is held.
  explicit operator bool() const noexcept { return fd_ >= 0; }
  /// @brief Gives the descriptor up without closing it.
  int release() noexcept;
  /// @brief Closes the held descriptor, if any, keeping errno as it was.
  void reset() noexcept;

private:
  int fd_ = -1;
};

}  // namespace Kiv
