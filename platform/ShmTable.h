#pragma once
/// @file ShmTable.h
/// @brief A table of fixed-size values in POSIX shared memory, limited to a
/// capacity and sized for the entries it holds: one writer process, any number
/// of lock-free readers in any process.
///
/// The table is untyped: a value is `valueSize()` bytes whose first
/// `keySize()` bytes are its key, and callers pass a 32-bit hash of the key
/// computed with the table's `seed()` (stored in the file, so every process
/// places a key in the same bucket). `Collection` (ShmCollection.h) adds types.
///
/// Layout (all fields little-endian u32, the same on i386 and amd64; docs/shared-memory.md has the byte map):
/// a 128-byte header, the writer's scratch slot, a one-record journal, then a
/// power-of-two number of buckets probed linearly. Each bucket is one entry
/// {seq, state, hash, check, data}.
///
/// Writer protocol, for every change of a bucket:
///  1. the journal: seq odd, then {bucket, new seq (tag), state, hash, check, data},
///     then seq even (release). From here on the write counts.
///  2. the entry: seq = tag - 1 (odd), state, hash, data, check, seq = tag (release).
/// A writer killed before step 1 completes leaves the entry at its old value;
/// killed during step 2 it leaves a complete journal record of the new one,
/// which readers use meanwhile and the next writer applies when it attaches.
///
/// Reader protocol. An even seq that is the same before and after reading the
/// entry gives a whole value, unless the journal is complete and holds this
/// entry's next write (tag = seq + 2: its writer finished step 1 and has not
/// started step 2, or died between them): that write counts, so the reader
/// takes the journal's record, as the next writer will apply it. An odd seq
/// means step 2 is under way (or its writer died in it): then the journal is
/// complete and stable and holds the entry, so the reader takes it from there;
/// it never waits for the writer, dead or alive. A seq that changed during the read means the writer made
/// progress and the read is retried (bounded, yielding after a few tries).
/// Anything else (a check that does not match, an unknown state, an odd seq
/// the journal does not explain) is damage and raises CorruptionException.
/// Readers map the file read-only and take no lock.
///
/// The check word is a mix of the bucket index, seq, state, hash and data
/// words; each mixing step is a bijection, so any damage confined to one word
/// is always caught. The header carries its own check over its fixed fields.
///
/// Exclusive writer: flock(LOCK_EX|LOCK_NB) on the file, held for the writer's
/// life and released by the kernel when the writer dies.
///
/// Size and capacity. The capacity only limits the number of entries: shadow
/// keys carry register addresses, so a chip's limit follows its highest
/// register address while its entries follow its field count. A new table
/// has a few buckets (16, or fewer when the capacity needs fewer); when an
/// insert would fill more than three quarters of them with entries and
/// deleted markers, the writer rebuilds the table with buckets for twice its
/// entries: so the bucket array doubles as the table fills (amortised, like a
/// vector), and a rebuild also clears the deleted markers. It never exceeds
/// twice the capacity (a full table is at most half used) nor the 1 GiB file
/// limit. Opening a writer with a larger capacity raises the limit in the
/// header, in place; a smaller one leaves it.
///
/// Tables of layout 1 (a fixed capacity that set the bucket count) are read,
/// and a writer attaching to one rebuilds it in the current layout.
///
/// A rebuild builds a complete new file (nameless until done), sets the old
/// header's `retired` flag, then renames the new file over the old one.
/// Readers check `retired` on each operation and transparently reopen the
/// path; a Cursor stays on the file it started with (its values remain whole;
/// the old file no longer changes).
///
/// Deleting: an entry becomes a deleted marker, or empty when the next bucket
/// is empty (then preceding markers are emptied too). Hot operations (write,
/// commit, remove, lookup, next) neither allocate nor make system calls, except
/// for the rare rebuild and a reader following a rebuild.
///
/// Reads are const; a const reader still follows a rebuild (its mapping is
/// mutable state). A Table object belongs to one thread at a time, const or
/// not; share the table between threads by giving each its own reader object.
/// Do not fork a writer: the child would share its lock.
///
/// Other processes learn of committed changes without polling through the
/// table's bell (ShmBell.h, ShmWatch.h): the writer rings it after each change,
/// at the cost of one load while nobody watches.
///
/// Three units: this one (the write and read protocol), ShmTableFile.h (a file as
/// a process holds it: descriptor, writer lock, mapping, header checks) and
/// ShmTableLayout.h (the byte layout and its word accessors).

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/ShmBell.h"
#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv::Shm {

class TableFile;

/// @brief A table was found inconsistent: damaged or not a table of this layout.
class TARN_API CorruptionException : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// @brief Shape of a table: value and key sizes in bytes and the most entries it may hold (its capacity).
struct TableSpec {
  U32 valueSize = 0;
  U32 keySize = 0;
  U32 capacity = 0;
  /// Entries a writer that creates the table expects to hold soon: the new file is sized for them
  /// at once instead of growing step by step (a chip mounting all its fields). 0: start small.
  U32 expectedEntries = 0;
};

class TARN_API Table {
  using Mapping = TableFile;  ///< one mapped file (ShmTableFile.h)

public:
  static constexpr U32 kHeaderBytes = 128;
  static constexpr U32 kLayoutVersion = 2;
  static constexpr U32 kMaxValueSize = 4096;
  /// The largest capacity (limit) a table accepts: 2^31, so that a negative count
  /// converted to U32 is refused. What a table really holds is bounded by its
  /// 1 GiB file limit (about 12.5 million entries of up to 16 bytes).
  static constexpr U32 kMaxCapacity = 1u << 31;

  /// @brief A position in an iteration; keeps the file it started on mapped.
  class Cursor {
  public:
    Cursor() = default;

  private:
    friend class Table;
    std::shared_ptr<Mapping const> map_;
    U32 bucket_ = 0;
  };

  /// @brief Creates the table of @p path or attaches to it as its only writer.
  ///
  /// A new table starts small whatever its capacity. An existing table keeps its
  /// entries and its file; a larger capacity in @p shape raises its limit, a
  /// smaller one leaves it. Throws std::invalid_argument
  /// for a bad path or shape, std::runtime_error when another process is the
  /// writer or the value or key size differs, CorruptionException for damage.
  static Table openWriter(Root const& root, std::string_view path, TableSpec shape,
                          GroupMode group = GroupMode::Private);

  /// @brief Maps the existing table of @p path read-only.
  static Table openReader(Root const& root, std::string_view path);

  Table(Table&&) noexcept;
  Table& operator=(Table&&) noexcept;
  ~Table();

  /// @brief Inserts @p value (valueSize() bytes) or replaces the entry with its key. Writing the
  /// bytes an entry already holds changes nothing (not even the change counter).
  ///
  /// A new key may grow the table (a rebuild). Throws std::runtime_error
  /// "shared-memory table '<path>' is full (capacity N)" when a new key would
  /// exceed the capacity, or "... is full: N entries of M bytes fill the largest
  /// table file ..." when the file cannot grow further; nothing changes then.
  void write(std::byte const* value, U32 hash);

  /// @brief The writer's scratch value in the mapping; fill it, then commit().
  ///
  /// Valid until the next write, commit or remove.
  std::byte* writerSlot();

  /// @brief Publishes the value in writerSlot() like write().
  void commit(U32 hash);

  /// @brief Removes the entry with key @p key (keySize() bytes); false when there is none.
  bool remove(std::byte const* key, U32 hash);

  /// @brief Copies the value with key @p key into @p out (valueSize() bytes); false when absent.
  ///
  /// @p out is clobbered even when the key is absent.
  bool lookup(std::byte const* key, U32 hash, std::byte* out) const;

  /// @brief A cursor before the first entry.
  Cursor first() const;

  /// @brief Copies the next entry into @p out and advances; false at the end.
  bool next(Cursor& cursor, std::byte* out) const;

  /// @brief Number of entries.
  U32 size() const;
  /// @brief The most entries the table may hold (its limit; the file grows towards it as needed).
  U32 capacity() const;
  /// @brief Buckets of the current file: a power of two that grows with the entries.
  U32 bucketCount() const;
  /// @brief Counter incremented by every committed change (wraps); lets other processes notice changes.
  U32 changeCounter() const;
  /// @brief Seed that every process hashes keys with.
  U32 seed() const noexcept { return seed_; }
  /// @brief Bytes per value, as given at creation.
  U32 valueSize() const noexcept;
  /// @brief Leading bytes of a value that are its key.
  U32 keySize() const noexcept;
  /// @brief True for the writer.
  bool isWriter() const noexcept { return writer_; }
  /// @brief The mount path.
  std::string const& path() const noexcept { return path_; }

private:
  struct Entry {
    U32 state;
    U32 hash;
  };
  struct Probe {
    bool found;
    U32 bucket;  ///< the key's bucket when found, else where it would go
    bool reusesDeleted;
  };

  Table(Root root, std::string_view path, GroupMode group, bool writer);

  void attach(TableSpec shape, Root::Place const& where);
  bool replayJournal(Mapping& map);
  void limitIs(TableSpec shape);
  void rebuild(U32 bucketCount);

  void adopt(std::shared_ptr<Mapping> map) const;
  Mapping const& current() const;
  void followReplacement() const;
  Entry readEntry(Mapping const& map, U32 bucket, std::byte* out) const;
  Probe probe(Mapping const& map, std::byte const* key, U32 hash, std::byte* buffer) const;
  void publish(Mapping& map, U32 bucket, U32 state, U32 hash, std::byte const* value);
  void countChange();
  void requireWriter(char const* operation) const;
  [[noreturn]] void corrupt(U32 bucket, std::string_view what) const;

  Root root_;
  std::string path_;
  GroupMode group_;
  bool writer_;
  mutable std::shared_ptr<Mapping> map_;  ///< readers move to a rebuilt file from const reads too
  mutable U32 seed_ = 0;
  U32 used_ = 0;     ///< writer only: entries
  U32 deleted_ = 0;  ///< writer only: deleted markers
  U32 limit_ = 0;    ///< writer only: the capacity
  U32 ceiling_ = 0;  ///< writer only: the most buckets the capacity and the file limit allow
  std::vector<std::byte> scratch_;
  Bell bell_;  ///< writer only: rings the table's watchers after each change (ShmBell.h)
};

}  // namespace Kiv::Shm
