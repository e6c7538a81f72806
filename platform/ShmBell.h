#pragma once
/// @file ShmBell.h
/// @brief How a process learns, without polling, that the writer of a shared-memory table
/// in another process committed a change: the table's bell.
///
/// Every table has a small companion file next to it, its bell: ".<name>.bell"
/// in the table's directory (a hidden name, out of reach of mount paths). It
/// holds a count of the processes watching the table and a "rung" flag. The
/// bell is a file of its own, not part of the table, so that it survives a
/// rebuild of the table (which renames a new file over the table's name) and
/// the death of a writer.
///
/// Writer side (`Bell`, owned by the table's writer, see Table): after every
/// committed change the writer loads the watcher count from its mapping of
/// the bell. Nobody watching: that one load is all it costs. Watched: it sets
/// the rung flag, and only when the flag was clear it writes the bell file
/// (one pwrite), which inotify reports to every watcher at once. So a busy
/// writer makes one system call per round of its watchers, not one per
/// commit. A writer also rings when it attaches, so that watchers re-read the
/// table a new writer may have repaired.
///
/// Watcher side (`Watcher`): an inotify descriptor on the bell, readable when
/// the bell was written (a commit) or closed by a writer (a writer that
/// detached, exited or was killed: it may have died in the middle of a
/// change, which readers then read whole from the table's journal). `fd()`
/// never changes; any event loop polls it and calls `dispatch()`, which
/// drains it and clears the rung flag before the caller reads the table.
///
///     Kiv::Shm::Watcher watcher(root, "hardware/sys0/system/status");
///     // poll(watcher.fd(), POLLIN) ... then:
///     if (watcher.dispatch()) { ... read the table again ... }
///
/// For a typed collection, `CollectionWatcher` (ShmWatch.h) does the reading
/// and reports the keys that changed.
///
/// Ordering. The writer publishes a change, then reads the count (and swaps
/// the flag); a watcher registers (count up), clears the flag, then reads.
/// Clearing the flag and swapping it are full barriers, so either the writer
/// sees the flag clear and rings, or the watcher's read sees the change. A
/// watcher that registers while a commit is in flight could miss it, since
/// the writer's plain load of the count may pass its own stores; registration
/// therefore issues a system-wide memory barrier (membarrier), after which
/// any writer either sees the count or has its change visible to the
/// watcher's first read.
///
/// Liveness of the count. A watcher holds a shared flock on the bell for its
/// life and decrements the count when it goes. A watcher that is killed
/// leaves the count up: the writer then pays one atomic exchange per commit
/// (the flag stays set, so no system call) until a writer attaches while no
/// watcher holds the lock, which resets the count.
///
/// Files: the bell is created (mode as the table's) by the first writer or
/// watcher that needs it, nameless and complete before it is named. A watcher
/// may be created before its table exists: it is rung when a writer creates it.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Fd.h"
#include "TarnRegFile/platform/FileLock.h"
#include "TarnRegFile/platform/MemoryMap.h"
#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/Types.h"

#include <atomic>
#include <string>
#include <string_view>

namespace Kiv::Shm {

/// @brief The writer's side of a table's bell (see the file comment). Movable; a default Bell rings nobody.
class TARN_API Bell {
public:
  /// Byte size of a bell file; its words are little-endian U32.
  static constexpr U32 kBytes = 64;

  Bell() noexcept = default;
  Bell(Bell&& other) noexcept;
  Bell& operator=(Bell&& other) noexcept;
  Bell(Bell const&) = delete;
  Bell& operator=(Bell const&) = delete;
  /// @brief Closes the bell, which wakes the watchers: this writer is gone.
  ~Bell() = default;

  /// @brief Opens (creating when missing) the bell of the table at @p where, as its writer.
  ///
  /// Resets a watcher count left by killed watchers when no watcher is alive,
  /// then rings when somebody watches. Throws std::runtime_error when the file
  /// cannot be created, opened or mapped.
  static Bell attach(Root const& root, Root::Place const& where, GroupMode group);

  /// @brief Rings the watchers, if any, of a change just committed. One load when nobody watches.
  void ringIfWatched() noexcept {
    if (std::atomic_ref<U32>(*watchers_).load(std::memory_order_relaxed) != 0) [[unlikely]]
      ringWatched();
  }

  /// @brief The number of registered watchers (those killed included, until reset).
  U32 watchers() const noexcept { return std::atomic_ref<U32>(*watchers_).load(std::memory_order_relaxed); }

  /// @brief The bell file's name for the table file named @p leaf.
  static std::string bellName(std::string const& leaf) { return "." + leaf + ".bell"; }

private:
  void ringWatched() noexcept;
  U32* words() const noexcept { return reinterpret_cast<U32*>(map_.data()); }

  static U32 nobody_;         ///< what an unattached bell's count points at: always 0
  U32* watchers_ = &nobody_;  ///< in map_
  Fd fd_;
  MemoryMap map_;
};

/// @brief A watcher of one table (see the file comment). Movable; owns its descriptor.
class TARN_API Watcher {
public:
  /// @brief Registers as a watcher of the table at @p path, creating its bell (and the
  /// directories above it, with @p group's modes) when missing. The table need not exist.
  ///
  /// Throws std::invalid_argument for a bad path, std::runtime_error when the bell
  /// cannot be created, opened, mapped or watched.
  Watcher(Root const& root, std::string_view path, GroupMode group = GroupMode::Private);
  Watcher(Watcher&&) noexcept;
  Watcher& operator=(Watcher&&) noexcept;
  Watcher(Watcher const&) = delete;
  Watcher& operator=(Watcher const&) = delete;
  /// @brief Unregisters.
  ~Watcher();

  /// @brief Readable when the writer rang or closed the bell since the last dispatch(); never changes.
  int fd() const noexcept { return inotify_.get(); }

  /// @brief Drains fd() and clears the rung flag; returns true when something happened since the
  /// last call (then the caller reads the table). Never blocks.
  bool dispatch();

  /// @brief The table's mount path.
  std::string const& path() const noexcept { return path_; }

private:
  void unregister() noexcept;
  U32* words() const noexcept { return reinterpret_cast<U32*>(map_.data()); }

  std::string path_;
  Fd inotify_;
  Fd bell_;
  MemoryMap map_;
  FileLock alive_;  ///< shared, for the watcher's life; released before bell_ closes
};

}  // namespace Kiv::Shm
