#include "TarnRegFile/platform/ShmBell.h"

#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <linux/membarrier.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Kiv::Shm {

namespace {

Kiv::TraceHandle kTrace("Shm/Bell");

// The bell file: little-endian U32 words.
constexpr U32 kMagic = 0x4C45424Bu;  // the bytes "KBEL"
constexpr U32 kVersion = 1;
constexpr U32 kMagicWord = 0, kVersionWord = 1, kWatchersWord = 2, kRungWord = 3, kRingsWord = 4;

std::atomic_ref<U32> word(U32* words, U32 index) { return std::atomic_ref<U32>(words[index]); }

[[noreturn]] void throwErrno(std::string_view path, std::string_view what) {
  throw std::runtime_error(fmt::format("shared-memory table '{}': cannot {}: {}", path, what, std::strerror(errno)));
}

bool isBell(int fd) {
  struct stat st {};
  std::array<U32, 2> head{};
  return ::fstat(fd, &st) == 0 && st.st_size == Bell::kBytes &&
         ::pread(fd, head.data(), sizeof head, 0) == static_cast<ssize_t>(sizeof head) && head[kMagicWord] == kMagic &&
         head[kVersionWord] == kVersion;
}

/// Opens the bell of the table at @p where, read-write, creating it (complete before it is named) when missing.
Fd openBellFile(Root const& root, Root::Place const& where, GroupMode group) {
  Root::Place bell{Fd(::fcntl(where.dir.get(), F_DUPFD_CLOEXEC, 0)), Bell::bellName(where.leaf), where.path};
  if (!bell.dir)
    throwErrno(where.path, "duplicate a directory descriptor");
  for (int attempt = 0; attempt < 8; ++attempt) {
    if (Fd fd = root.openFile(bell, true)) {
      if (isBell(fd.get()))
        return fd;
      // Not ours, or damaged: a fresh bell replaces it (whoever watched the old one re-registers).
      kTrace.line(0, "shared-memory table '{}': replacing the unreadable bell file '{}'", where.path, bell.leaf);
      root.unlinkName(bell, bell.leaf);
      continue;
    }
    Fd fresh = root.createUnnamed(bell, group);
    std::array<U32, Bell::kBytes / 4> image{};
    image[kMagicWord] = kMagic;
    image[kVersionWord] = kVersion;
    if (::pwrite(fresh.get(), image.data(), sizeof image, 0) != static_cast<ssize_t>(sizeof image))
      throwErrno(where.path, "write the bell file");
    if (root.linkAs(bell, fresh.get(), bell.leaf))
      return fresh;
  }
  throw std::runtime_error(
      fmt::format("shared-memory table '{}': its bell file keeps being replaced; cannot open it", where.path));
}

MemoryMap mapBell(int fd, std::string_view path) {
  MemoryMap map(fd, Bell::kBytes, true);
  if (!map)
    throwErrno(path, "map the bell file");
  return map;
}

long membarrier(int command) { return ::syscall(__NR_membarrier, command, 0, 0); }

/// Makes every store of every running thread before this point visible to loads after it, and ours to theirs.
void globalBarrier() {
  if (membarrier(MEMBARRIER_CMD_GLOBAL_EXPEDITED) == 0 || membarrier(MEMBARRIER_CMD_GLOBAL) == 0)
    return;
  static bool warned = false;
  if (!std::exchange(warned, true))
    kTrace.line(0, "membarrier is not available ({}): a commit racing with a watcher's start may be seen "
                   "only with the next commit", std::strerror(errno));
}

}  // namespace

// ---- writer -----------------------------------------------------------------------------------------------------

U32 Bell::nobody_ = 0;

Bell::Bell(Bell&& other) noexcept
    : watchers_(std::exchange(other.watchers_, &nobody_)), fd_(std::move(other.fd_)), map_(std::move(other.map_)) {}

Bell& Bell::operator=(Bell&& other) noexcept {
  if (this != &other) {
    watchers_ = std::exchange(other.watchers_, &nobody_);
    map_ = std::move(other.map_);
    fd_ = std::move(other.fd_);  // closing the old bell wakes its watchers: that writer is gone
  }
  return *this;
}

Bell Bell::attach(Root const& root, Root::Place const& where, GroupMode group) {
  // Watchers make their start visible with a barrier that reaches registered processes at once.
  membarrier(MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED);
  Bell bell;
  bell.fd_ = openBellFile(root, where, group);
  bell.map_ = mapBell(bell.fd_.get(), where.path);
  U32* const words = bell.words();
  bell.watchers_ = &words[kWatchersWord];
  // Every live watcher holds a shared lock: getting the exclusive one means the count is
  // only what killed watchers left behind.
  if (FileLock const alone(bell.fd_.get(), LOCK_EX | LOCK_NB); alone.held()) {
    if (U32 const stale = word(words, kWatchersWord).exchange(0); stale != 0)
      kTrace.line(1, "shared-memory table '{}': {} watcher(s) registered but none alive; count reset", where.path,
                  stale);
    word(words, kRungWord).store(0);
  }
  if (bell.watchers() != 0) {
    // A new writer may have completed a write its predecessor left half done, or that
    // predecessor died between setting the flag and ringing: ring whatever the flag says.
    word(words, kRungWord).store(1);
    U32 const rings = word(words, kRingsWord).load() + 1;
    (void)::pwrite(bell.fd_.get(), &rings, sizeof rings, kRingsWord * 4);
  }
  return bell;
}

void Bell::ringWatched() noexcept {
  // The change is published; the exchange orders it before the flag (a full barrier).
  if (word(words(), kRungWord).exchange(1) != 0)
    return;  // rung already and not yet answered: the watchers will read this change too
  U32 const rings = word(words(), kRingsWord).load(std::memory_order_relaxed) + 1;
  // The write itself is the signal (inotify IN_MODIFY to every watcher); the count it stores is for inspection.
  (void)::pwrite(fd_.get(), &rings, sizeof rings, kRingsWord * 4);
}

// ---- watcher ----------------------------------------------------------------------------------------------------

Watcher::Watcher(Root const& root, std::string_view path, GroupMode group) : path_(path) {
  Root::Place const where = root.place(path, true, group);
  bell_ = openBellFile(root, where, group);
  MemoryMap map = mapBell(bell_.get(), path_);
  inotify_ = Fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_)
    throwErrno(path_, "create an inotify descriptor");
  // The bell as opened (not a name that could be replaced meanwhile), through its /proc link.
  std::string const self = fmt::format("/proc/self/fd/{}", bell_.get());
  if (::inotify_add_watch(inotify_.get(), self.c_str(), IN_MODIFY | IN_CLOSE_WRITE) < 0)
    throwErrno(path_, "watch the bell file");
  alive_ = FileLock(bell_.get(), LOCK_SH);
  if (!alive_.held())
    throwErrno(path_, "lock the bell file");
  map_ = std::move(map);  // from here on the watcher counts, and unregisters when it goes
  word(words(), kWatchersWord).fetch_add(1);
  globalBarrier();
  word(words(), kRungWord).exchange(0);
  kTrace.line(2, "watching shared-memory table '{}'", path_);
}

Watcher::Watcher(Watcher&& other) noexcept
    : path_(std::move(other.path_)), inotify_(std::move(other.inotify_)), bell_(std::move(other.bell_)),
      map_(std::move(other.map_)), alive_(std::move(other.alive_)) {}

Watcher& Watcher::operator=(Watcher&& other) noexcept {
  if (this != &other) {
    unregister();
    path_ = std::move(other.path_);
    inotify_ = std::move(other.inotify_);
    bell_ = std::move(other.bell_);
    map_ = std::move(other.map_);
    alive_ = std::move(other.alive_);
  }
  return *this;
}

Watcher::~Watcher() { unregister(); }

void Watcher::unregister() noexcept {
  if (!map_)
    return;
  word(words(), kWatchersWord).fetch_sub(1);
  map_.reset();
  alive_.unlock();
  bell_.reset();
  inotify_.reset();
}

bool Watcher::dispatch() {
  alignas(inotify_event) char buffer[4096];
  bool happened = false;
  for (;;) {
    ssize_t const n = ::read(inotify_.get(), buffer, sizeof buffer);
    if (n > 0) {
      happened = true;
      continue;
    }
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && errno != EAGAIN)
      throwErrno(path_, "read the bell's events");
    break;
  }
  if (!happened)
    return false;
  // Cleared before the caller reads: a commit after this point rings again.
  word(words(), kRungWord).exchange(0);
  return true;
}

}  // namespace Kiv::Shm
