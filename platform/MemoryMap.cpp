#include "TarnRegFile/platform/MemoryMap.h"

#include <cerrno>

#include <sys/mman.h>

namespace Kiv {

MemoryMap::MemoryMap(int fd, std::size_t bytes, bool writable) noexcept {
  void* const base = ::mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED)
    return;
  base_ = static_cast<std::byte*>(base);
  bytes_ = bytes;
}

MemoryMap& MemoryMap::operator=(MemoryMap&& other) noexcept {
  if (this != &other) {
    reset();
    base_ = other.base_;
    bytes_ = other.bytes_;
    other.base_ = nullptr;
  }
  return *this;
}

void MemoryMap::reset() noexcept {
  if (base_ == nullptr)
    return;
  int const saved = errno;
  ::munmap(base_, bytes_);
  base_ = nullptr;
  errno = saved;
}

}  // namespace Kiv
