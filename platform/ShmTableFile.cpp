#include "TarnRegFile/platform/ShmTableFile.h"

#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kiv::Shm {

using namespace layout;

namespace {

Kiv::TraceHandle kTrace("Shm/Table");

[[noreturn]] void throwErrno(std::string_view path, std::string_view what) {
  throw std::runtime_error(fmt::format("shared-memory table '{}': cannot {}: {}", path, what, std::strerror(errno)));
}

}  // namespace

U32 randomSeed() {
  U32 seed = 0;
  if (::getrandom(&seed, sizeof seed, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof seed))
    seed = static_cast<U32>(::getpid()) * 0x9E3779B1u ^ static_cast<U32>(reinterpret_cast<std::uintptr_t>(&seed));
  return seed;
}

[[noreturn]] void throwCorrupt(std::string_view path, std::string_view what) {
  std::string message = fmt::format("shared-memory table '{}' is corrupt: {}", path, what);
  kTrace.line(0, "{}", message);
  throw CorruptionException(message);
}

bool sameFile(int fd, Root::Place const& where) {
  struct stat mine {}, named {};
  return ::fstat(fd, &mine) == 0 && ::fstatat(where.dir.get(), where.leaf.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
}

FileLock lockWriter(int fd, std::string_view path) {
  FileLock lock(fd, LOCK_EX | LOCK_NB);
  if (lock.held())
    return lock;
  if (errno != EWOULDBLOCK)
    throwErrno(path, "lock the table for writing");
  U32 pid = 0;
  if (::pread(fd, &pid, sizeof pid, offsetof(Header, writerPid)) == static_cast<ssize_t>(sizeof pid) && pid != 0)
    throw std::runtime_error(fmt::format("shared-memory table '{}' already has a writer (pid {})", path, pid));
  throw std::runtime_error(fmt::format("shared-memory table '{}' already has a writer", path));
}

std::shared_ptr<TableFile> TableFile::open(Fd fd, bool writable, std::string const& path, FileLock lock) {
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0)
    throwErrno(path, "inspect the table file");
  U64 const fileBytes = static_cast<U64>(st.st_size);
  if (fileBytes < Table::kHeaderBytes)
    throwCorrupt(path, fmt::format("the file is {} bytes, too small for a header", fileBytes));
  if (fileBytes > kMaxFileBytes)
    throwCorrupt(path, fmt::format("the file is {} bytes, larger than any table", fileBytes));

  auto map = std::make_shared<TableFile>();
  map->memory = MemoryMap(fd.get(), static_cast<std::size_t>(fileBytes), writable);
  if (!map->memory)
    throwErrno(path, "map the table file");
  map->dev = st.st_dev;
  map->ino = st.st_ino;

  Header const& h = map->header();
  U32 const magic = loadRelaxed(h.magic);
  if (magic != kMagic)
    throwCorrupt(path, fmt::format("bad magic {:#010x}", magic));
  U32 const version = loadRelaxed(h.layoutVersion);
  if (version != Table::kLayoutVersion && version != kLayout1)
    throwCorrupt(path, fmt::format("layout version {}, this build reads versions {} and {}", version, kLayout1,
                                   Table::kLayoutVersion));
  map->layoutVersion = version;
  if (loadRelaxed(h.headerCheck) != headerCheckOf(h))
    throwCorrupt(path, "header check mismatch");
  U32 const valueSize = loadRelaxed(h.valueSize);
  U32 const keySize = loadRelaxed(h.keySize);
  U32 const bucketCount = loadRelaxed(h.bucketCount);
  U32 const capacity = map->capacity();  // a writer may raise it meanwhile, never lower it
  if (!sizesPlausible(valueSize, keySize) || !capacityPlausible(capacity) || !std::has_single_bit(bucketCount) ||
      bucketCount < 2 || bucketCount > bucketCeiling(valueSize, keySize, capacity) ||
      (version == kLayout1 && bucketCount != std::bit_ceil(U64{2} * capacity)))
    throwCorrupt(path, fmt::format("impossible sizes: value {}, key {}, {} buckets, capacity {}", valueSize, keySize,
                                   bucketCount, capacity));
  Geometry const g = geometryOf(valueSize, keySize, bucketCount);
  if (loadRelaxed(h.headerBytes) != Table::kHeaderBytes || loadRelaxed(h.bucketBytes) != g.bucketBytes ||
      (version != kLayout1 && loadRelaxed(h.layout1Capacity) != 0) || loadRelaxed(h.slotOffset) != g.slotOffset ||
      loadRelaxed(h.journalOffset) != g.journalOffset || loadRelaxed(h.bucketsOffset) != g.bucketsOffset)
    throwCorrupt(path, "the header's layout fields disagree with its sizes");
  if (g.fileBytes != fileBytes)
    throwCorrupt(path, fmt::format("the file is {} bytes, its header describes {}", fileBytes, g.fileBytes));
  if (loadRelaxed(h.retired) > 1)
    throwCorrupt(path, "bad retired flag");
  map->geo = g;
  map->seed = loadRelaxed(h.seed);
  map->fd = std::move(fd);
  map->lock = std::move(lock);
  return map;
}

std::shared_ptr<TableFile> TableFile::create(Root const& root, Root::Place const& where, GroupMode group,
                                              TableSpec shape, U32 bucketCount, U32 seed) {
  Geometry const g = geometryOf(shape.valueSize, shape.keySize, bucketCount);
  Fd fd = root.createUnnamed(where, group);
  // Allocated now, so that a full tmpfs is this clear error rather than a SIGBUS on a later write.
  if (int const error = ::posix_fallocate(fd.get(), 0, static_cast<off_t>(g.fileBytes)); error != 0) {
    errno = error;
    throwErrno(where.path, fmt::format("allocate {} bytes for the table file", g.fileBytes));
  }
  FileLock lock(fd.get(), LOCK_EX | LOCK_NB);  // nobody else can see the file yet
  if (!lock.held())
    throwErrno(where.path, "lock the new table file");
  auto map = std::make_shared<TableFile>();
  map->memory = MemoryMap(fd.get(), static_cast<std::size_t>(g.fileBytes), true);
  if (!map->memory)
    throwErrno(where.path, "map the table file");
  map->geo = g;
  map->seed = seed;
  struct stat st {};
  ::fstat(fd.get(), &st);
  map->dev = st.st_dev;
  map->ino = st.st_ino;
  map->fd = std::move(fd);
  map->lock = std::move(lock);

  Header& h = map->header();  // the file is fresh: all zero
  h.magic = kMagic;
  h.layoutVersion = Table::kLayoutVersion;
  h.headerBytes = Table::kHeaderBytes;
  h.valueSize = g.valueSize;
  h.keySize = g.keySize;
  h.bucketCount = g.bucketCount;
  h.bucketBytes = g.bucketBytes;
  h.slotOffset = g.slotOffset;
  h.bucketsOffset = g.bucketsOffset;
  h.seed = seed;
  h.journalOffset = g.journalOffset;
  h.headerCheck = headerCheckOf(h);
  h.writerPid = static_cast<U32>(::getpid());
  h.capacity = shape.capacity;

  // Every entry starts empty under seq 0, with a valid check; the journal is empty (seq 0).
  for (U32 b = 0; b < g.bucketCount; ++b)
    fillImage(g, map->bucket(b), b, 0, kEmpty, 0, nullptr);
  return map;
}

}  // namespace Kiv::Shm
