#include "TarnRegFile/platform/ShmTable.h"

#include "TarnRegFile/platform/ShmTableFile.h"
#include "TarnRegFile/platform/ShmTableLayout.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kiv::Shm {

using namespace layout;

namespace {

Kiv::TraceHandle kTrace("Shm/Table");

}  // namespace

// ---- construction ---------------------------------------------------------------------------------------------

Table::Table(Root root, std::string_view path, GroupMode group, bool writer)
    : root_(std::move(root)), path_(path), group_(group), writer_(writer) {}

Table::Table(Table&&) noexcept = default;
Table& Table::operator=(Table&&) noexcept = default;

Table::~Table() {
  if (writer_ && map_)
    storeRelaxed(map_->header().writerPid, 0);
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
      auto fresh = TableFile::create(root, where, group, shape,
                                         bucketsFor(std::min(shape.expectedEntries, shape.capacity), table.ceiling_),
                                         randomSeed());
      if (!root.linkAs(where, fresh->fd.get(), where.leaf))
        continue;  // created by someone else meanwhile: attach to theirs
      table.adopt(std::move(fresh));
      table.scratch_.resize(shape.valueSize);
      table.bell_ = Bell::attach(root, where, group);
      kTrace.line(1, "created shared-memory table '{}' (capacity {}, {} buckets of {} bytes)", path, shape.capacity,
                  table.map_->geo.bucketCount, table.map_->geo.bucketBytes);
      return table;
    }
    FileLock lock = lockWriter(fd.get(), path);
    if (!sameFile(fd.get(), where))
      continue;  // replaced by a rebuild before we got the lock
    table.adopt(TableFile::open(std::move(fd), true, table.path_, std::move(lock)));
    table.attach(shape, where);
    table.bell_ = Bell::attach(root, where, group);
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
  table.adopt(TableFile::open(std::move(fd), false, table.path_));
  return table;
}

// ---- growth and clean-up --------------------------------------------------------------------------------------

void Table::rebuild(U32 bucketCount) {
  std::shared_ptr<Mapping> const old = map_;
  Root::Place const where = root_.place(path_, true, group_);
  auto fresh = TableFile::create(root_, where, group_, TableSpec{old->geo.valueSize, old->geo.keySize, limit_}, bucketCount,
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
  if (::fstat(fd.get(), &st) == 0 && map_->isFile(st.st_dev, st.st_ino))
    return;  // the replacement is not in place yet; this file still holds every entry
  adopt(TableFile::open(std::move(fd), false, path_));
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
  bell_.ringIfWatched();
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
  return map_->slot();
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
