#include "ShmTable.h"

#include "Trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kiv::Shm {

namespace {

Kiv::TraceHandle kTrace("Shm/Table");

static_assert(std::endian::native == std::endian::little, "the table layout is little-endian");

constexpr U32 kMagic = 0x4C42544Bu;  // the bytes "KTBL"
constexpr U32 kEmpty = 0;
constexpr U32 kUsed = 1;
constexpr U32 kDeleted = 2;
constexpr U32 kNoBucket = ~0u;
constexpr U32 kMaxReadAttempts = 100000;
constexpr U64 kMaxFileBytes = U64{1} << 30;
constexpr U32 kMinBuckets = 16;  // a new table's buckets, when its capacity needs that many
// Layout 1 differs only in its capacity: a fixed word under the header check, which
// set the bucket count to bit_ceil(2 x capacity). Tables of layout 1 are read, and
// a writer attaching to one rebuilds it in the current layout.
constexpr U32 kLayout1 = 1;

/// The file header. The words before headerCheck never change after creation and are covered by it.
struct Header {
  U32 magic;          // 0
  U32 layoutVersion;  // 4
  U32 headerBytes;    // 8
  U32 valueSize;      // 12
  U32 keySize;        // 16
  U32 layout1Capacity;  // 20: 0; layout 1 kept its fixed capacity here
  U32 bucketCount;    // 24
  U32 bucketBytes;    // 28
  U32 slotOffset;     // 32
  U32 journalOffset;  // 36
  U32 bucketsOffset;  // 40
  U32 seed;           // 44
  U32 headerCheck;    // 48
  U32 retired;        // 52: 1 once a rebuilt file replaces this one
  U32 reserved1[2];   // 56
  // A separate cache line: the writer changes these on every write, readers
  // poll `retired` on every operation.
  U32 writerPid;        // 64
  U32 size;             // 68
  U32 changeCounter;    // 72
  U32 capacity;         // 76: the most entries the table may hold; only a writer raises it, in place
  U32 reserved2[12];    // 80
};
static_assert(sizeof(Header) == Table::kHeaderBytes);
static_assert(offsetof(Header, bucketsOffset) == 40 && offsetof(Header, seed) == 44);
static_assert(offsetof(Header, headerCheck) == 48 && offsetof(Header, retired) == 52);
static_assert(offsetof(Header, writerPid) == 64 && offsetof(Header, size) == 68);
static_assert(offsetof(Header, changeCounter) == 72 && offsetof(Header, capacity) == 76);
constexpr U32 kCheckedHeaderWords = offsetof(Header, headerCheck) / 4;

// An entry (the image of one bucket): seq, state, hash, check, then the value
// as stride/4 words. The journal is a seq word, a bucket index and an entry image.
constexpr U32 kSeq = 0, kState = 1, kHash = 2, kCheck = 3, kData = 4;
constexpr U32 kJournalSeq = 0, kJournalBucket = 1, kJournalImage = 2;

/// Sizes derived from the value size, key size and bucket count.
struct Geometry {
  U32 valueSize = 0;
  U32 keySize = 0;
  U32 stride = 0;  // value size rounded up to whole words
  U32 bucketCount = 0;
  U32 homeShift = 0;  // 32 - log2(bucketCount)
  U32 bucketBytes = 0;
  U32 slotOffset = 0;
  U32 journalOffset = 0;
  U32 bucketsOffset = 0;
  U64 fileBytes = 0;
};

constexpr U32 roundUp64(U32 bytes) { return (bytes + 63u) & ~63u; }

/// Assumes sizes within their limits and a power-of-two bucket count of at least 2 (checked by the callers).
Geometry geometryOf(U32 valueSize, U32 keySize, U32 bucketCount) {
  Geometry g;
  g.valueSize = valueSize;
  g.keySize = keySize;
  g.stride = (valueSize + 3u) & ~3u;
  g.bucketCount = bucketCount;
  g.homeShift = 32u - static_cast<U32>(std::countr_zero(g.bucketCount));
  U32 const entryBytes = 4 * kData + g.stride;
  // Buckets never straddle cache lines needlessly: a power of two up to a line, whole lines beyond.
  g.bucketBytes = entryBytes <= 64 ? std::bit_ceil(entryBytes) : roundUp64(entryBytes);
  g.slotOffset = Table::kHeaderBytes;
  g.journalOffset = g.slotOffset + roundUp64(g.stride);
  g.bucketsOffset = g.journalOffset + roundUp64(4 * kJournalImage + entryBytes);
  g.fileBytes = g.bucketsOffset + U64{g.bucketCount} * g.bucketBytes;
  return g;
}

/// The first bucket probed for @p hash. Fibonacci hashing takes the top bits of
/// a multiple, so a caller's hash with weak low bits still spreads evenly.
inline U32 homeOf(Geometry const& g, U32 hash) { return (hash * 0x9E3779B1u) >> g.homeShift; }

bool sizesPlausible(U32 valueSize, U32 keySize) {
  return valueSize >= 1 && valueSize <= Table::kMaxValueSize && keySize >= 1 && keySize <= valueSize;
}

bool capacityPlausible(U32 capacity) { return capacity >= 1 && capacity <= Table::kMaxCapacity; }

/// The most buckets a file of these values may have: the largest power of two that keeps it within kMaxFileBytes.
U32 fileBucketLimit(U32 valueSize, U32 keySize) {
  Geometry const g = geometryOf(valueSize, keySize, 2);
  return static_cast<U32>(std::bit_floor((kMaxFileBytes - g.bucketsOffset) / g.bucketBytes));
}

/// The most buckets a table limited to @p capacity entries ever needs: twice the
/// capacity (so that a full table is at most half used), within the file limit.
U32 bucketCeiling(U32 valueSize, U32 keySize, U32 capacity) {
  return static_cast<U32>(std::min<U64>(std::bit_ceil(U64{2} * capacity), fileBucketLimit(valueSize, keySize)));
}

/// Buckets for @p entries: twice as many (at least kMinBuckets), at most @p ceiling.
U32 bucketsFor(U32 entries, U32 ceiling) {
  return static_cast<U32>(std::min<U64>(ceiling, std::max<U64>(kMinBuckets, std::bit_ceil(U64{2} * entries))));
}

/// Entries and deleted markers together may fill three quarters of the buckets; beyond, probes get long.
constexpr U32 crowdedAt(U32 bucketCount) { return bucketCount - bucketCount / 4; }

// Everything in the mapping is read and written as whole 32-bit atomics so
// that readers racing with the writer (in any process) are well defined.
inline U32 loadAcquire(U32 const& word) {
  return std::atomic_ref<U32>(const_cast<U32&>(word)).load(std::memory_order_acquire);
}
inline U32 loadRelaxed(U32 const& word) {
  return std::atomic_ref<U32>(const_cast<U32&>(word)).load(std::memory_order_relaxed);
}
inline void storeRelaxed(U32& word, U32 value) { std::atomic_ref<U32>(word).store(value, std::memory_order_relaxed); }
inline void storeRelease(U32& word, U32 value) { std::atomic_ref<U32>(word).store(value, std::memory_order_release); }

/// One step of the check: xor, multiply by an odd constant, rotate; each a bijection.
/// (The rotation keeps a difference in the top bit from cancelling against the next word.)
constexpr U32 mix(U32 sum, U32 word) { return std::rotl((sum ^ word) * 0x9E3779B1u, 15); }
constexpr U32 checkBasis(U32 bucket) { return mix(0x811C9DC5u, bucket); }

/// What a read of an entry image found, with the check it should carry.
struct Image {
  U32 state;
  U32 hash;
  U32 check;     // as stored
  U32 computed;  // from the words read
};

/// Reads the image at @p image (its tag given separately), copying the value into @p out.
inline Image readImage(Geometry const& g, U32 bucket, U32 tag, U32 const* image, std::byte* out) {
  Image r;
  r.state = loadRelaxed(image[kState]);
  r.hash = loadRelaxed(image[kHash]);
  r.check = loadRelaxed(image[kCheck]);
  U32 sum = mix(mix(mix(checkBasis(bucket), tag), r.state), r.hash);
  U32 const fullWords = g.valueSize / 4;
  U32 const tailBytes = g.valueSize % 4;
  U32 const* data = image + kData;
  for (U32 i = 0; i < fullWords; ++i) {
    U32 const word = loadRelaxed(data[i]);
    sum = mix(sum, word);
    std::memcpy(out + 4 * i, &word, 4);
  }
  if (tailBytes != 0) {
    U32 const word = loadRelaxed(data[fullWords]);
    sum = mix(sum, word);
    std::byte* tail = out + 4 * fullWords;
    switch (tailBytes) {  // cheaper than a call to memcpy for one to three bytes
      case 3:
        tail[2] = static_cast<std::byte>(word >> 16);
        [[fallthrough]];
      case 2:
        tail[1] = static_cast<std::byte>(word >> 8);
        [[fallthrough]];
      default:
        tail[0] = static_cast<std::byte>(word);
    }
  }
  r.computed = sum;
  return r;
}

/// Writes state, hash, value (zero-padded; all zero when @p value is null) and check of an image.
inline void fillImage(Geometry const& g, U32* image, U32 bucket, U32 tag, U32 state, U32 hash,
                      std::byte const* value) {
  storeRelaxed(image[kState], state);
  storeRelaxed(image[kHash], hash);
  U32 sum = mix(mix(mix(checkBasis(bucket), tag), state), hash);
  U32 const fullWords = g.valueSize / 4;
  U32 const tailBytes = g.valueSize % 4;
  U32* const data = image + kData;
  for (U32 i = 0; i < fullWords; ++i) {
    U32 word = 0;
    if (value != nullptr)
      std::memcpy(&word, value + 4 * i, 4);
    sum = mix(sum, word);
    storeRelaxed(data[i], word);
  }
  if (tailBytes != 0) {
    U32 word = 0;
    for (U32 i = 0; value != nullptr && i < tailBytes; ++i)
      word |= U32{static_cast<U8>(value[4 * fullWords + i])} << (8 * i);
    sum = mix(sum, word);
    storeRelaxed(data[fullWords], word);
  }
  storeRelaxed(image[kCheck], sum);
}

U32 headerCheckOf(Header const& h) {
  U32 const* words = &h.magic;
  U32 sum = 0x811C9DC5u;
  for (U32 i = 0; i < kCheckedHeaderWords; ++i)
    sum = mix(sum, loadRelaxed(words[i]));
  return sum;
}

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

[[noreturn]] void throwErrno(std::string_view path, std::string_view what) {
  throw std::runtime_error(fmt::format("shared-memory table '{}': cannot {}: {}", path, what, std::strerror(errno)));
}

bool sameFile(int fd, Root::Place const& where) {
  struct stat mine {}, named {};
  return ::fstat(fd, &mine) == 0 && ::fstatat(where.dir.get(), where.leaf.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
}

/// Takes the writer lock or explains who holds it.
void lockWriter(int fd, std::string_view path) {
  if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
    return;
  if (errno != EWOULDBLOCK)
    throwErrno(path, "lock the table for writing");
  U32 pid = 0;
  if (::pread(fd, &pid, sizeof pid, offsetof(Header, writerPid)) == static_cast<ssize_t>(sizeof pid) && pid != 0)
    throw std::runtime_error(fmt::format("shared-memory table '{}' already has a writer (pid {})", path, pid));
  throw std::runtime_error(fmt::format("shared-memory table '{}' already has a writer", path));
}

}  // namespace

struct Table::Mapping {
  std::byte* base = nullptr;
  std::size_t bytes = 0;
  Fd fd;  // the writer's lock lives on it
  Geometry geo;
  U32 seed = 0;
  dev_t dev = 0;
  ino_t ino = 0;

  Mapping() = default;
  Mapping(Mapping const&) = delete;
  Mapping& operator=(Mapping const&) = delete;
  ~Mapping() {
    if (base != nullptr)
      ::munmap(base, bytes);
  }

  Header& header() const { return *reinterpret_cast<Header*>(base); }
  U32* bucket(U32 index) const {
    return reinterpret_cast<U32*>(base + geo.bucketsOffset + std::size_t{index} * geo.bucketBytes);
  }
  U32* journal() const { return reinterpret_cast<U32*>(base + geo.journalOffset); }
  U32 capacity() const {
    return layoutVersion == kLayout1 ? loadRelaxed(header().layout1Capacity) : loadAcquire(header().capacity);
  }
  U32 layoutVersion = Table::kLayoutVersion;
};

// ---- construction ---------------------------------------------------------------------------------------------

Table::Table(Root root, std::string_view path, GroupMode group, bool writer)
    : root_(std::move(root)), path_(path), group_(group), writer_(writer) {}

Table::Table(Table&&) noexcept = default;
Table& Table::operator=(Table&&) noexcept = default;

Table::~Table() {
  if (writer_ && map_)
    storeRelaxed(map_->header().writerPid, 0);
}

std::shared_ptr<Table::Mapping> Table::mapFile(Fd fd, bool writable, std::string const& path) {
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0)
    throwErrno(path, "inspect the table file");
  U64 const fileBytes = static_cast<U64>(st.st_size);
  if (fileBytes < kHeaderBytes)
    throwCorrupt(path, fmt::format("the file is {} bytes, too small for a header", fileBytes));
  if (fileBytes > kMaxFileBytes)
    throwCorrupt(path, fmt::format("the file is {} bytes, larger than any table", fileBytes));

  auto map = std::make_shared<Mapping>();
  map->bytes = static_cast<std::size_t>(fileBytes);
  int const prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  void* base = ::mmap(nullptr, map->bytes, prot, MAP_SHARED, fd.get(), 0);
  if (base == MAP_FAILED)
    throwErrno(path, "map the table file");
  map->base = static_cast<std::byte*>(base);
  map->dev = st.st_dev;
  map->ino = st.st_ino;

  Header const& h = map->header();
  U32 const magic = loadRelaxed(h.magic);
  if (magic != kMagic)
    throwCorrupt(path, fmt::format("bad magic {:#010x}", magic));
  U32 const version = loadRelaxed(h.layoutVersion);
  if (version != kLayoutVersion && version != kLayout1)
    throwCorrupt(path, fmt::format("layout version {}, this build reads versions {} and {}", version, kLayout1,
                                   kLayoutVersion));
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
  if (loadRelaxed(h.headerBytes) != kHeaderBytes || loadRelaxed(h.bucketBytes) != g.bucketBytes ||
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
  return map;
}

std::shared_ptr<Table::Mapping> Table::createFile(Root const& root, Root::Place const& where, GroupMode group,
                                                  TableSpec shape, U32 bucketCount, U32 seed) {
  Geometry const g = geometryOf(shape.valueSize, shape.keySize, bucketCount);
  Fd fd = root.createUnnamed(where, group);
  // Allocated now, so that a full tmpfs is this clear error rather than a SIGBUS on a later write.
  if (int const error = ::posix_fallocate(fd.get(), 0, static_cast<off_t>(g.fileBytes)); error != 0) {
    errno = error;
    throwErrno(where.path, fmt::format("allocate {} bytes for the table file", g.fileBytes));
  }
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0)  // nobody else can see the file yet
    throwErrno(where.path, "lock the new table file");
  auto map = std::make_shared<Mapping>();
  map->bytes = static_cast<std::size_t>(g.fileBytes);
  void* base = ::mmap(nullptr, map->bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (base == MAP_FAILED)
    throwErrno(where.path, "map the table file");
  map->base = static_cast<std::byte*>(base);
  map->geo = g;
  map->seed = seed;
  struct stat st {};
  ::fstat(fd.get(), &st);
  map->dev = st.st_dev;
  map->ino = st.st_ino;
  map->fd = std::move(fd);

  Header& h = map->header();  // the file is fresh: all zero
  h.magic = kMagic;
  h.layoutVersion = kLayoutVersion;
  h.headerBytes = kHeaderBytes;
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

Table Table::openWriter(Root const& root, std::string_view path, TableSpec shape, GroupMode group) {
  Root::validatePath(path);
  if (shape.valueSize < 1 || shape.valueSize > kMaxValueSize)
    throw std::invalid_argument(fmt::format("shared-memory table '{}': value size {} is not between 1 and {} bytes",
                                            path, shape.valueSize, kMaxValueSize));
  if (shape.keySize < 1 || shape.keySize > shape.valueSize)
    throw std::invalid_argument(fmt::format(
        "shared-memory table '{}': key size {} is not between 1 and the value size {}", path, shape.keySize,
        shape.valueSize));
  if (!capacityPlausible(shape.capacity))
    throw std::invalid_argument(fmt::format("shared-memory table '{}': capacity {} is not between 1 and {}", path,
                                            shape.capacity, kMaxCapacity));

  Table table(root, path, group, true);
  // Another process may create, replace or grab the file between our steps; each retry starts over.
  for (int attempt = 0; attempt < 16; ++attempt) {
    Root::Place where = root.place(path, true, group);
    Fd fd = root.openFile(where, true);
    if (!fd) {
      table.limitIs(shape);
      auto fresh = createFile(root, where, group, shape,
                              bucketsFor(std::min(shape.expectedEntries, shape.capacity), table.ceiling_), randomSeed());
      if (!root.linkAs(where, fresh->fd.get(), where.leaf))
        continue;  // created by someone else meanwhile: attach to theirs
      table.adopt(std::move(fresh));
      table.scratch_.resize(shape.valueSize);
      kTrace.line(1, "created shared-memory table '{}' (capacity {}, {} buckets of {} bytes)", path, shape.capacity,
                  table.map_->geo.bucketCount, table.map_->geo.bucketBytes);
      return table;
    }
    lockWriter(fd.get(), path);
    if (!sameFile(fd.get(), where))
      continue;  // replaced by a rebuild before we got the lock
    table.adopt(mapFile(std::move(fd), true, table.path_));
    table.attach(shape, where);
    return table;
  }
  throw std::runtime_error(fmt::format("shared-memory table '{}' keeps being replaced; cannot attach as writer", path));
}

void Table::attach(TableSpec shape, Root::Place const& where) {
  Mapping& map = *map_;
  Geometry const& g = map.geo;
  if (g.valueSize != shape.valueSize || g.keySize != shape.keySize)
    throw std::runtime_error(fmt::format(
        "shared-memory table '{}' holds {}-byte values with {}-byte keys, not {}-byte values with {}-byte keys",
        path_, g.valueSize, g.keySize, shape.valueSize, shape.keySize));
  Header& h = map.header();
  if (loadRelaxed(h.retired) != 0) {
    // A writer died between retiring this file and renaming its replacement over it: this one stays.
    storeRelease(h.retired, 0);
    kTrace.line(1, "shared-memory table '{}': resuming after an interrupted rebuild", path_);
  }
  root_.unlinkName(where, Root::stagingName(where.leaf));
  scratch_.resize(g.valueSize);

  bool const replayed = replayJournal(map);
  // Recount and verify every entry.
  U32 used = 0, deleted = 0;
  for (U32 b = 0; b < g.bucketCount; ++b) {
    Entry const e = readEntry(map, b, scratch_.data());
    used += e.state == kUsed;
    deleted += e.state == kDeleted;
  }
  U32 const stored = map.capacity();
  if (used > stored)
    throwCorrupt(path_, fmt::format("{} entries, more than the capacity {}", used, stored));
  used_ = used;
  deleted_ = deleted;
  storeRelaxed(h.size, used);
  storeRelaxed(h.writerPid, static_cast<U32>(::getpid()));
  // A larger capacity is only a higher limit: the buckets grow when entries need them.
  limitIs(TableSpec{g.valueSize, g.keySize, std::max(stored, shape.capacity)});
  if (limit_ != stored && map.layoutVersion != kLayout1)  // (layout 1 gets it with its rebuild below)
    storeRelease(h.capacity, limit_);
  kTrace.line(1, "attached to shared-memory table '{}' as writer: {} entries, capacity {}{}{}", path_, used, limit_,
              limit_ != stored ? fmt::format(" (raised from {})", stored) : std::string(),
              replayed ? ", an interrupted write completed" : "");
  if (map.layoutVersion == kLayout1) {
    kTrace.line(1, "shared-memory table '{}' is of layout {}: rebuilding it in layout {}", path_, kLayout1,
                kLayoutVersion);
    rebuild(bucketsFor(used, ceiling_));
  }
}

void Table::limitIs(TableSpec shape) {
  limit_ = shape.capacity;
  ceiling_ = bucketCeiling(shape.valueSize, shape.keySize, shape.capacity);
}

Table Table::openReader(Root const& root, std::string_view path) {
  Table table(root, path, GroupMode::Private, false);
  Root::Place const where = root.place(path, false);
  Fd fd = where.dir ? root.openFile(where, false) : Fd();
  if (!fd)
    throw std::runtime_error(fmt::format("shared-memory table '{}' does not exist", path));
  table.adopt(mapFile(std::move(fd), false, table.path_));
  return table;
}

// ---- growth and clean-up --------------------------------------------------------------------------------------

void Table::rebuild(U32 bucketCount) {
  std::shared_ptr<Mapping> const old = map_;
  Root::Place const where = root_.place(path_, true, group_);
  auto fresh = createFile(root_, where, group_, TableSpec{old->geo.valueSize, old->geo.keySize, limit_}, bucketCount,
                          old->seed);
  U32 const mask = fresh->geo.bucketCount - 1;
  U32 used = 0;
  for (U32 b = 0; b < old->geo.bucketCount; ++b) {
    Entry const e = readEntry(*old, b, scratch_.data());
    if (e.state != kUsed)
      continue;
    U32 slot = homeOf(fresh->geo, e.hash);
    while (loadRelaxed(fresh->bucket(slot)[kSeq]) != 0)  // a seq moves on the first write
      slot = (slot + 1) & mask;
    publish(*fresh, slot, kUsed, e.hash, scratch_.data());
    ++used;
  }
  Header& h = fresh->header();
  h.size = used;
  h.changeCounter = loadRelaxed(old->header().changeCounter) + 1;  // watchers see the move as a change

  // Name the complete file, retire the old one, then swap the names. A reader
  // that sees `retired` before the rename finds the old file still in place and
  // keeps using it; a writer that dies in between leaves the old file, which
  // the next writer takes back.
  std::string const staging = Root::stagingName(where.leaf);
  root_.unlinkName(where, staging);
  if (!root_.linkAs(where, fresh->fd.get(), staging))
    throw std::runtime_error(fmt::format("shared-memory table '{}': staging name '{}' is taken", path_, staging));
  storeRelease(old->header().retired, 1);
  try {
    root_.renameOver(where, staging, where.leaf);
  } catch (...) {
    storeRelease(old->header().retired, 0);  // the old file stays the table
    root_.unlinkName(where, staging);
    throw;
  }
  kTrace.line(1, "rebuilt shared-memory table '{}': {} -> {} buckets, {} entries (capacity {})", path_,
              old->geo.bucketCount, bucketCount, used, limit_);
  adopt(std::move(fresh));
  used_ = used;
  deleted_ = 0;
}

void Table::adopt(std::shared_ptr<Mapping> map) const {
  map_ = std::move(map);
  seed_ = map_->seed;
}

Table::Mapping const& Table::current() const {
  if (loadAcquire(map_->header().retired) != 0) [[unlikely]]
    followReplacement();
  return *map_;
}

void Table::followReplacement() const {
  if (writer_)
    return;
  Root::Place const where = root_.place(path_, false);
  Fd fd = where.dir ? root_.openFile(where, false) : Fd();
  if (!fd)
    throw std::runtime_error(fmt::format("shared-memory table '{}' was replaced and then removed", path_));
  struct stat st {};
  if (::fstat(fd.get(), &st) == 0 && st.st_dev == map_->dev && st.st_ino == map_->ino)
    return;  // the replacement is not in place yet; this file still holds every entry
  adopt(mapFile(std::move(fd), false, path_));
  kTrace.line(2, "shared-memory table '{}': reader moved to the rebuilt file", path_);
}

// ---- entries --------------------------------------------------------------------------------------------------

[[gnu::always_inline]] inline Table::Entry Table::readEntry(Mapping const& map, U32 bucket, std::byte* out) const {
  U32 const* const entry = map.bucket(bucket);
  for (U32 attempt = 0;; ++attempt) {
    U32 const seq = loadAcquire(entry[kSeq]);
    if ((seq & 1u) == 0) [[likely]] {
      Image const image = readImage(map.geo, bucket, seq, entry, out);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (loadRelaxed(entry[kSeq]) == seq) [[likely]] {
        if (image.computed != image.check || image.state > kDeleted) [[unlikely]]
          corrupt(bucket, image.computed != image.check ? std::string("check mismatch")
                                                        : fmt::format("unknown state {}", image.state));
        // A complete journal record of this entry's next write counts already, although the
        // entry does not show it yet (its writer is between the two steps, or died there and
        // the next writer will apply it): read the entry as that writer will.
        U32 const* const journal = map.journal();
        U32 const journalSeq = loadAcquire(journal[kJournalSeq]);
        if (journalSeq == 0 || (journalSeq & 1u) != 0 || loadRelaxed(journal[kJournalBucket]) != bucket ||
            loadRelaxed(journal[kJournalImage + kSeq]) != seq + 2u) [[likely]]
          return Entry{image.state, image.hash};
        Image const next = readImage(map.geo, bucket, seq + 2u, journal + kJournalImage, out);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (loadRelaxed(journal[kJournalSeq]) == journalSeq && loadRelaxed(entry[kSeq]) == seq) {
          if (next.computed != next.check || next.state > kDeleted) [[unlikely]]
            corrupt(bucket, "the journal's record of its next write is damaged");
          return Entry{next.state, next.hash};
        }
      }
    } else {
      // Being written, or its writer died while writing it: the journal holds
      // the entry as it is going to be, complete and stable while seq is odd.
      U32 const* const journal = map.journal();
      U32 const journalSeq = loadAcquire(journal[kJournalSeq]);
      U32 const journalBucket = loadRelaxed(journal[kJournalBucket]);
      U32 const tag = loadRelaxed(journal[kJournalImage + kSeq]);
      Image const image = readImage(map.geo, bucket, tag, journal + kJournalImage, out);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (loadRelaxed(journal[kJournalSeq]) == journalSeq && loadRelaxed(entry[kSeq]) == seq) {
        // The writer writes the journal only while every entry is even, so this is damage if it does not fit.
        if ((journalSeq & 1u) != 0 || journalBucket != bucket || tag != seq + 1u || image.computed != image.check ||
            image.state > kDeleted) [[unlikely]]
          corrupt(bucket, "it is marked as being written but the journal does not hold it");
        return Entry{image.state, image.hash};
      }
    }
    if (attempt >= kMaxReadAttempts)
      corrupt(bucket, "it kept changing while being read");
    if (attempt >= 16)
      ::sched_yield();  // a busy writer on the same entry: let it finish
  }
}

bool Table::replayJournal(Mapping& map) {
  U32* const journal = map.journal();
  U32 const journalSeq = loadRelaxed(journal[kJournalSeq]);
  if (journalSeq == 0 || (journalSeq & 1u) != 0)
    return false;  // nothing recorded, or a record its writer never finished: that write did not happen
  U32 const bucket = loadRelaxed(journal[kJournalBucket]);
  if (bucket >= map.geo.bucketCount)
    throwCorrupt(path_, fmt::format("the journal names bucket {} of {}", bucket, map.geo.bucketCount));
  U32 const tag = loadRelaxed(journal[kJournalImage + kSeq]);
  Image const image = readImage(map.geo, bucket, tag, journal + kJournalImage, scratch_.data());
  if (image.computed != image.check || image.state > kDeleted)
    throwCorrupt(path_, "journal check mismatch");
  U32* const entry = map.bucket(bucket);
  U32 const seq = loadRelaxed(entry[kSeq]);
  if (seq == tag)
    return false;  // applied
  if (seq != tag - 1u && seq != tag - 2u)
    corrupt(bucket, fmt::format("its seq {} does not fit the journal's {}", seq, tag));
  storeRelease(entry[kSeq], tag - 1u);
  std::atomic_thread_fence(std::memory_order_release);
  fillImage(map.geo, entry, bucket, tag, image.state, image.hash, scratch_.data());
  storeRelease(entry[kSeq], tag);
  return true;
}

namespace {

/// Compares keys a word at a time; keys are short and their size is known only at run time.
inline bool keysEqual(std::byte const* a, std::byte const* b, U32 size) {
  U32 i = 0;
  for (; i + 4 <= size; i += 4) {
    U32 x, y;
    std::memcpy(&x, a + i, 4);
    std::memcpy(&y, b + i, 4);
    if (x != y)
      return false;
  }
  for (; i < size; ++i)
    if (a[i] != b[i])
      return false;
  return true;
}

}  // namespace

Table::Probe Table::probe(Mapping const& map, std::byte const* key, U32 hash, std::byte* buffer) const {
  U32 const count = map.geo.bucketCount;
  U32 const mask = count - 1;
  U32 deleted = kNoBucket;
  U32 const home = homeOf(map.geo, hash);
  for (U32 i = 0; i < count; ++i) {
    U32 const b = (home + i) & mask;
    Entry const e = readEntry(map, b, buffer);
    if (e.state == kEmpty)
      return deleted == kNoBucket ? Probe{false, b, false} : Probe{false, deleted, true};
    if (e.state == kDeleted) {
      if (deleted == kNoBucket)
        deleted = b;
    } else if (e.hash == hash && keysEqual(buffer, key, map.geo.keySize)) {
      return Probe{true, b, false};
    }
  }
  if (deleted == kNoBucket && writer_)
    corrupt(home, "every bucket holds an entry");
  return Probe{false, deleted, true};
}

void Table::publish(Mapping& map, U32 bucket, U32 state, U32 hash, std::byte const* value) {
  U32* const entry = map.bucket(bucket);
  U32* const journal = map.journal();
  U32 const tag = loadRelaxed(entry[kSeq]) + 2u;

  // 1. The journal: once complete, the write counts (readers of the entry fall back on it).
  U32 const journalSeq = (loadRelaxed(journal[kJournalSeq]) + 1u) | 1u;  // odd: being written
  storeRelease(journal[kJournalSeq], journalSeq);
  std::atomic_thread_fence(std::memory_order_release);
  storeRelaxed(journal[kJournalBucket], bucket);
  storeRelaxed(journal[kJournalImage + kSeq], tag);
  fillImage(map.geo, journal + kJournalImage, bucket, tag, state, hash, value);
  storeRelease(journal[kJournalSeq], journalSeq + 1u);

  // 2. The entry itself, under its seq lock: a copy of the journal's image.
  storeRelease(entry[kSeq], tag - 1u);
  std::atomic_thread_fence(std::memory_order_release);
  U32 const imageWords = kData + map.geo.stride / 4;
  for (U32 i = kState; i < imageWords; ++i)
    storeRelaxed(entry[i], loadRelaxed(journal[kJournalImage + i]));
  storeRelease(entry[kSeq], tag);
}

void Table::countChange() {
  Header& h = map_->header();
  storeRelaxed(h.size, used_);
  storeRelease(h.changeCounter, loadRelaxed(h.changeCounter) + 1);
}

void Table::requireWriter(char const* operation) const {
  if (!writer_)
    throw std::runtime_error(fmt::format("shared-memory table '{}' is open read-only; cannot {}", path_, operation));
}

void Table::corrupt(U32 bucket, std::string_view what) const {
  throwCorrupt(path_, fmt::format("entry {}: {}", bucket, what));
}

// ---- operations -----------------------------------------------------------------------------------------------

void Table::write(std::byte const* value, U32 hash) {
  requireWriter("write");
  Probe where = probe(*map_, value, hash, scratch_.data());
  std::shared_ptr<Mapping> keep;  // @p value may point into the writer slot of a file a rebuild replaces
  // The same bytes again change nothing: no journal, no change counted, no reader woken.
  if (where.found && std::memcmp(scratch_.data(), value, map_->geo.valueSize) == 0)
    return;
  if (!where.found) {
    if (used_ >= limit_)
      throw std::runtime_error(fmt::format("shared-memory table '{}' is full (capacity {})", path_, limit_));
    if (!where.reusesDeleted && used_ + deleted_ + 1 > crowdedAt(map_->geo.bucketCount)) [[unlikely]] {
      // Rebuilt for the entries it holds: doubled when they need it, the same size
      // (or smaller) when deleted markers crowd the buckets, which the rebuild clears.
      U32 const buckets = bucketsFor(used_ + 1, ceiling_);
      if (used_ + 1 > crowdedAt(buckets))  // only at the file-size limit; the capacity allows more
        throw std::runtime_error(fmt::format(
            "shared-memory table '{}' is full: {} entries of {} bytes fill the largest table file ({} bytes)", path_,
            used_, map_->geo.valueSize, kMaxFileBytes));
      keep = map_;
      rebuild(buckets);
      where = probe(*map_, value, hash, scratch_.data());
    }
    if (where.reusesDeleted)
      --deleted_;
    ++used_;
  }
  publish(*map_, where.bucket, kUsed, hash, value);
  countChange();
}

std::byte* Table::writerSlot() {
  requireWriter("fill the writer slot");
  return map_->base + map_->geo.slotOffset;
}

void Table::commit(U32 hash) { write(writerSlot(), hash); }

bool Table::remove(std::byte const* key, U32 hash) {
  requireWriter("remove");
  Mapping& map = *map_;
  Probe const where = probe(map, key, hash, scratch_.data());
  if (!where.found)
    return false;
  U32 const mask = map.geo.bucketCount - 1;
  if (readEntry(map, (where.bucket + 1) & mask, scratch_.data()).state == kEmpty) {
    // Nothing was placed past this bucket, so it can become empty, and so can
    // the deleted markers right before it: no probe needs to pass them.
    publish(map, where.bucket, kEmpty, 0, nullptr);
    for (U32 b = (where.bucket - 1) & mask; b != where.bucket; b = (b - 1) & mask) {
      if (readEntry(map, b, scratch_.data()).state != kDeleted)
        break;
      publish(map, b, kEmpty, 0, nullptr);
      --deleted_;
    }
  } else {
    publish(map, where.bucket, kDeleted, 0, nullptr);
    ++deleted_;
  }
  --used_;
  countChange();
  return true;
}

bool Table::lookup(std::byte const* key, U32 hash, std::byte* out) const {
  return probe(current(), key, hash, out).found;
}

Table::Cursor Table::first() const {
  current();
  Cursor cursor;
  cursor.map_ = map_;
  return cursor;
}

bool Table::next(Cursor& cursor, std::byte* out) const {
  if (!cursor.map_)
    return false;
  Mapping const& map = *cursor.map_;
  while (cursor.bucket_ < map.geo.bucketCount) {
    if (readEntry(map, cursor.bucket_++, out).state == kUsed)
      return true;
  }
  return false;
}

U32 Table::size() const {
  Mapping const& map = current();
  U32 const size = loadAcquire(map.header().size);
  U32 const capacity = map.capacity();  // read second: it only grows, so a sound table never fails this
  if (size > capacity)
    throwCorrupt(path_, fmt::format("entry count {} exceeds the capacity {}", size, capacity));
  return size;
}

U32 Table::capacity() const { return current().capacity(); }

U32 Table::bucketCount() const { return current().geo.bucketCount; }

U32 Table::changeCounter() const { return loadAcquire(current().header().changeCounter); }

U32 Table::valueSize() const noexcept { return map_->geo.valueSize; }

U32 Table::keySize() const noexcept { return map_->geo.keySize; }

}  // namespace Kiv::Shm
