#include "ShmBell.h"

#include "Trace.h"

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
#include <sys/mman.h>
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

U32* wordsOf(void* map) { return static_cast<U32*>(map); }
std::atomic_ref<U32> word(void* map, U32 index) { return std::atomic_ref<U32>(wordsOf(map)[index]); }

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

void* mapBell(int fd, std::string_view path) {
  void* map = ::mmap(nullptr, Bell::kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED)
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
    : watchers_(std::exchange(other.watchers_, &nobody_)), map_(std::exchange(other.map_, nullptr)),
      fd_(std::move(other.fd_)) {}

Bell& Bell::operator=(Bell&& other) noexcept {
  if (this != &other) {
    reset();
    watchers_ = std::exchange(other.watchers_, &nobody_);
    map_ = std::exchange(other.map_, nullptr);
    fd_ = std::move(other.fd_);
  }
  return *this;
}

Bell::~Bell() { reset(); }

void Bell::reset() noexcept {
  if (map_ != nullptr)
    ::munmap(map_, kBytes);
  map_ = nullptr;
  watchers_ = &nobody_;
  fd_.reset();  // closing a bell opened for writing wakes its watchers: this writer is gone
}

Bell Bell::attach(Root const& root, Root::Place const& where, GroupMode group) {
  // Watchers make their start visible with a barrier that reaches registered processes at once.
  membarrier(MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED);
  Bell bell;
  bell.fd_ = openBellFile(root, where, group);
  bell.map_ = mapBell(bell.fd_.get(), where.path);
  bell.watchers_ = &wordsOf(bell.map_)[kWatchersWord];
  // Every live watcher holds a shared lock: getting the exclusive one means the count is
  // only what killed watchers left behind.
  if (::flock(bell.fd_.get(), LOCK_EX | LOCK_NB) == 0) {
    if (U32 const stale = word(bell.map_, kWatchersWord).exchange(0); stale != 0)
      kTrace.line(1, "shared-memory table '{}': {} watcher(s) registered but none alive; count reset", where.path,
                  stale);
    word(bell.map_, kRungWord).store(0);
    ::flock(bell.fd_.get(), LOCK_UN);
  }
  if (bell.watchers() != 0) {
    // A new writer may have completed a write its predecessor left half done, or that
    // predecessor died between setting the flag and ringing: ring whatever the flag says.
    word(bell.map_, kRungWord).store(1);
    U32 const rings = word(bell.map_, kRingsWord).load() + 1;
    (void)::pwrite(bell.fd_.get(), &rings, sizeof rings, kRingsWord * 4);
  }
  return bell;
}

void Bell::ringWatched() noexcept {
  // The change is published; the exchange orders it before the flag (a full barrier).
  if (word(map_, kRungWord).exchange(1) != 0)
    return;  // rung already and not yet answered: the watchers will read this change too
  U32 const rings = word(map_, kRingsWord).load(std::memory_order_relaxed) + 1;
  // The write itself is the signal (inotify IN_MODIFY to every watcher); the count it stores is for inspection.
  (void)::pwrite(fd_.get(), &rings, sizeof rings, kRingsWord * 4);
}

// ---- watcher ----------------------------------------------------------------------------------------------------

Watcher::Watcher(Root const& root, std::string_view path, GroupMode group) : path_(path) {
  Root::Place const where = root.place(path, true, group);
  bell_ = openBellFile(root, where, group);
  map_ = mapBell(bell_.get(), path_);
  inotify_ = Fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_) {
    ::munmap(map_, Bell::kBytes);
    throwErrno(path_, "create an inotify descriptor");
  }
  // The bell as opened (not a name that could be replaced meanwhile), through its /proc link.
  std::string const self = fmt::format("/proc/self/fd/{}", bell_.get());
  if (::inotify_add_watch(inotify_.get(), self.c_str(), IN_MODIFY | IN_CLOSE_WRITE) < 0) {
    ::munmap(map_, Bell::kBytes);
    throwErrno(path_, "watch the bell file");
  }
  while (::flock(bell_.get(), LOCK_SH) != 0) {
    if (errno != EINTR) {
      ::munmap(map_, Bell::kBytes);
      throwErrno(path_, "lock the bell file");
    }
  }
  word(map_, kWatchersWord).fetch_add(1);
  globalBarrier();
  word(map_, kRungWord).exchange(0);
  kTrace.line(2, "watching shared-memory table '{}'", path_);
}

Watcher::Watcher(Watcher&& other) noexcept
    : path_(std::move(other.path_)), inotify_(std::move(other.inotify_)), bell_(std::move(other.bell_)),
      map_(std::exchange(other.map_, nullptr)) {}

Watcher& Watcher::operator=(Watcher&& other) noexcept {
  if (this != &other) {
    unregister();
    path_ = std::move(other.path_);
    inotify_ = std::move(other.inotify_);
    bell_ = std::move(other.bell_);
    map_ = std::exchange(other.map_, nullptr);
  }
  return *this;
}

Watcher::~Watcher() { unregister(); }

void Watcher::unregister() noexcept {
  if (map_ == nullptr)
    return;
  word(map_, kWatchersWord).fetch_sub(1);
  ::munmap(map_, Bell::kBytes);
  map_ = nullptr;
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
  word(map_, kRungWord).exchange(0);
  return true;
}

}  // namespace Kiv::Shm
