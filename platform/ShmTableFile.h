#pragma once
/// @file ShmTableFile.h
/// @brief Internal: one shared-memory table file as a process holds it: its descriptor, the writer's
/// lock on it, its mapping and the geometry its header describes. Creating a file, mapping an
/// existing one (checking every header field before anything else is read) and taking the writer
/// lock live here; the write and read protocol over the mapped words lives in ShmTable.cpp. Not installed.

#include "TarnRegFile/platform/Fd.h"
#include "TarnRegFile/platform/FileLock.h"
#include "TarnRegFile/platform/MemoryMap.h"
#include "TarnRegFile/platform/ShmTableLayout.h"

#include <memory>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace Kiv::Shm {

/// @brief One mapped table file. Readers share it with their cursors, so a file a rebuild
/// replaced stays mapped while a cursor walks it.
class TableFile {
public:
  /// @brief Creates a nameless file in @p where's directory, sized for @p bucketCount buckets,
  /// locked for writing and holding an empty table. The caller names it (Root::linkAs).
  static std::shared_ptr<TableFile> create(Root const& root, Root::Place const& where, GroupMode group,
                                           TableSpec shape, U32 bucketCount, U32 seed);
  /// @brief Maps the table file @p fd after checking its header and size; throws
  /// CorruptionException for anything that is not a sound table. @p lock is the writer's lock, if any.
  static std::shared_ptr<TableFile> open(Fd fd, bool writable, std::string const& path, FileLock lock = {});

  TableFile() = default;
  TableFile(TableFile const&) = delete;
  TableFile& operator=(TableFile const&) = delete;

  layout::Header& header() const { return *reinterpret_cast<layout::Header*>(memory.data()); }
  U32* bucket(U32 index) const {
    return reinterpret_cast<U32*>(memory.data() + geo.bucketsOffset + std::size_t{index} * geo.bucketBytes);
  }
  U32* journal() const { return reinterpret_cast<U32*>(memory.data() + geo.journalOffset); }
  std::byte* slot() const { return memory.data() + geo.slotOffset; }
  U32 capacity() const {
    return layoutVersion == layout::kLayout1 ? layout::loadRelaxed(header().layout1Capacity)
                                             : layout::loadAcquire(header().capacity);
  }
  /// @brief True when @p device and @p inode name this very file.
  bool isFile(dev_t device, ino_t inode) const noexcept { return device == dev && inode == ino; }

  Fd fd;
  FileLock lock;  ///< the writer's; released before the descriptor closes (declared after it)
  MemoryMap memory;
  layout::Geometry geo;
  U32 seed = 0;
  U32 layoutVersion = Table::kLayoutVersion;
  dev_t dev = 0;
  ino_t ino = 0;
};

/// @brief Takes the writer lock on @p fd, or throws explaining who holds it.
FileLock lockWriter(int fd, std::string_view path);

/// @brief True when @p fd is the file @p where names now.
bool sameFile(int fd, Root::Place const& where);

/// @brief A seed for a new table's key hash.
U32 randomSeed();

/// @brief Throws CorruptionException "shared-memory table '<path>' is corrupt: <what>" after a level-0 trace.
[[noreturn]] void throwCorrupt(std::string_view path, std::string_view what);

}  // namespace Kiv::Shm
