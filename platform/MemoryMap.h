#pragma once
/// @file MemoryMap.h
/// @brief A shared mapping of a file, unmapped when its owner is destroyed.

#include "TarnRegFile/platform/Export.h"

#include <cstddef>

namespace Kiv {

/// @brief Owns one MAP_SHARED mapping of a whole file (from offset 0).
class TARN_API MemoryMap {
public:
  MemoryMap() = default;
  /// @brief Maps @p bytes of @p fd, read-write when @p writable. When mmap fails the object
  /// is empty and errno tells why. The mapping does not need the descriptor afterwards.
  MemoryMap(int fd, std::size_t bytes, bool writable) noexcept;
  ~MemoryMap() { reset(); }
  MemoryMap(MemoryMap&& other) noexcept : base_(other.base_), bytes_(other.bytes_) { other.base_ = nullptr; }
  MemoryMap& operator=(MemoryMap&& other) noexcept;
  MemoryMap(MemoryMap const&) = delete;
  MemoryMap& operator=(MemoryMap const&) = delete;

  /// @brief The first mapped byte, or null.
  std::byte* data() const noexcept { return base_; }
  /// @brief Mapped bytes.
  std::size_t size() const noexcept { return bytes_; }
  /// @brief True when something is mapped.
  explicit operator bool() const noexcept { return base_ != nullptr; }
  /// @brief Unmaps now, keeping errno as it was.
  void reset() noexcept;

private:
  std::byte* base_ = nullptr;
  std::size_t bytes_ = 0;
};

}  // namespace Kiv
