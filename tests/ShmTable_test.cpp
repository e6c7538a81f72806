// The shared-memory table: path security, capacity and growth, one writer per
// table across processes, readers that only ever see whole written values
// (also around a writer killed at random), and damage detection. Its words are
// fixed-width at offsets checked when each architecture compiles, and a table
// written by the other architecture's process is read in ShadowTypes_test.

#include "TarnRegFile/platform/ShmTable.h"
#include "helpers/ShmTestTraits.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace {

using namespace Kiv::Shm;
using namespace ShmTest;
using ::testing::HasSubstr;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using ShmTableTest = RootTest;

// Raw 30-byte values: key k, counter c, then 22 bytes derived from both, so
// that a torn or garbled value never passes valid().
constexpr U32 kValueSize = 30;
using Bytes = std::array<std::byte, kValueSize>;
TableSpec shape(U32 capacity) { return TableSpec{kValueSize, 4, capacity}; }

Bytes make(U32 k, U32 c) {
  Bytes v{};
  std::memcpy(v.data(), &k, 4);
  std::memcpy(v.data() + 4, &c, 4);
  for (U32 j = 8; j < kValueSize; ++j)
    v[j] = static_cast<std::byte>((k * 0x9E3779B1u + c * 0x85EBCA6Bu + j * 0xC2B2AE35u) >> 24);
  return v;
}
bool valid(std::byte const* v, U32& k, U32& c) {
  std::memcpy(&k, v, 4);
  std::memcpy(&c, v + 4, 4);
  return std::memcmp(v, make(k, c).data(), kValueSize) == 0;
}
U32 hashOf(Table const& t, U32 k) { return Traits::hash(Key(k, 0, 0), t.seed()); }
std::byte const* keyBytes(U32 const& k) { return reinterpret_cast<std::byte const*>(&k); }
void put(Table& t, U32 k, U32 c) { t.write(make(k, c).data(), hashOf(t, k)); }
bool drop(Table& t, U32 k) { return t.remove(keyBytes(k), hashOf(t, k)); }
/// The counter stored for key k, nullopt when absent; throws std::runtime_error for a value never written.
std::optional<U32> get(Table& t, U32 k) {
  Bytes out;
  U32 key = 0, c = 0;
  if (!t.lookup(keyBytes(k), hashOf(t, k), out.data()))
    return std::nullopt;
  if (!valid(out.data(), key, c) || key != k)
    throw std::runtime_error("garbage value for key " + std::to_string(k));
  return c;
}

/// An object in anonymous shared memory, visible to forked children; lives as long as the test program.
template <class T>
T* shared() {
  void* p = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? throw std::runtime_error("mmap failed") : new (p) T();
}

std::vector<unsigned char> readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}
U32 wordAt(std::vector<unsigned char> const& bytes, std::size_t offset) {
  U32 word = 0;
  std::memcpy(&word, bytes.data() + offset, 4);
  return word;
}

void patch(std::string const& path, std::size_t offset, void const* bytes, std::size_t size) {
  int const fd = ::open(path.c_str(), O_RDWR);
  EXPECT_EQ(::pwrite(fd, bytes, size, offset), static_cast<ssize_t>(size));
  ::close(fd);
}

// ---- paths and modes ------------------------------------------------------------------------------------------

TEST_F(ShmTableTest, InvalidPathsAreRefusedWithTheirReason) {
  std::pair<std::string, char const*> const cases[] = {
      {"", "is empty"}, {"/etc/passwd", "is absolute"}, {"a//b", "empty component"}, {"a/b/", "empty component"},
      {"a/../b", "'..' component"}, {"..", "'..' component"}, {"./a", "'.' component"},
      {"a/.hidden", "starting with '.'"}, {std::string("a\0b", 3), "NUL"}, {std::string(1100, 'x'), "longer than 1024"},
      {"a/" + std::string(201, 'y'), "component longer than 200"},
  };
  for (auto const& [path, reason] : cases) {
    std::string const what = errorOf([&] { Table::openWriter(root(), path, shape(4)); });
    EXPECT_THAT(what, HasSubstr(reason));
    EXPECT_TRUE(path.find('\0') != std::string::npos || what.find("'" + path + "'") != std::string::npos) << what;
  }
}

TEST_F(ShmTableTest, PlantedLinksAndWorldWritableDirectoriesAreRefused) {
  Table::openWriter(root(), "real/t", shape(4));  // creates the root
  std::string const elsewhere = base_ + "/elsewhere";
  fs::create_directory(elsewhere);
  fs::create_directory_symlink(elsewhere, file("linkdir"));
  fs::create_symlink(elsewhere + "/target", file("real/linkfile"));
  fs::create_directory_symlink(elsewhere, base_ + "/linkroot");
  for (std::string path : {"linkdir/t", "real/linkfile"}) {
    EXPECT_THAT(errorOf([&] { Table::openWriter(root(), path, shape(4)); }), HasSubstr("symbolic link"));
    EXPECT_THAT(errorOf([&] { Table::openReader(root(), path); }), HasSubstr("symbolic link"));
  }
  // A trailing slash or "." would make the kernel follow the root's link despite O_NOFOLLOW.
  for (char const* link : {"/linkroot", "/linkroot/", "/linkroot//", "/linkroot/."})
    EXPECT_THAT(errorOf([&] { Table::openWriter(Root(base_ + link), "t", shape(4)); }),
                ::testing::AnyOf(HasSubstr("symbolic link"), HasSubstr("ends in '.'")))
        << link;
  EXPECT_TRUE(fs::is_empty(elsewhere));  // nothing was created through the links
  EXPECT_NO_THROW(Table::openReader(Root(base_ + "/root/"), "real/t"));

  ASSERT_EQ(::chmod(file("real").c_str(), 0777), 0);
  EXPECT_THAT(errorOf([&] { Table::openReader(root(), "real/t"); }), HasSubstr("writable by everyone"));
  ASSERT_EQ(::chmod(file("real").c_str(), 0700), 0);

  // Another unprivileged user's directory, the root or one below it: its owner could swap what is in it.
  if (::geteuid() != 0)
    GTEST_SKIP() << "giving a directory to another user needs root";
  for (std::string const& dir : {file("real"), base_ + "/root"}) {
    ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0);
    for (auto const& what : {errorOf([&] { Table::openReader(root(), "real/t"); }),
                             errorOf([&] { Table::openWriter(root(), "real/u", shape(4)); })}) {
      EXPECT_THAT(what, HasSubstr("'" + (dir == file("real") ? std::string("real") : dir) + "' is owned by "));
      EXPECT_THAT(what, HasSubstr("uid 65534"));
    }
    ASSERT_EQ(::chown(dir.c_str(), 0, 0), 0);
  }
}

TEST_F(ShmTableTest, FilesAndDirectoriesGetNarrowModesWhateverTheUmask) {
  mode_t const saved = ::umask(0);  // a lax umask must not widen private files...
  Table::openWriter(root(), "private/t", shape(4));
  ::umask(077);  // ...and a strict one must not narrow group files
  Table::openWriter(root(), "group/sub/t", shape(4), GroupMode::Group);
  ::umask(saved);
  std::pair<char const*, unsigned> const modes[] = {
      {"", 0700}, {"private", 0700}, {"private/t", 0600}, {"group/sub", 0750}, {"group/sub/t", 0660}};
  for (auto const& [path, mode] : modes) {
    struct stat st {};
    ASSERT_EQ(::lstat(file(path).c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_mode & 07777, mode) << path;
  }
  EXPECT_TRUE(root().remove("group/sub/t"));
  EXPECT_FALSE(root().exists("group/sub/t"));
}

// ---- operations -----------------------------------------------------------------------------------------------

TEST_F(ShmTableTest, CollectionObserversMayBeRemovedAndAddedWhileBeingNotified) {
  auto writer = ShmTest::Collection::openWriter(root(), "obs/t", 8);
  std::vector<int> calls;
  ShmTest::Collection::ObserverId second = 0;
  writer.observerIs([&](Key const&) {
    calls.push_back(1);
    writer.observerDel(second);
    writer.observerIs([&](Key const&) { calls.push_back(3); });
  });
  second = writer.observerIs([&](Key const&) { calls.push_back(2); });
  writer.write(Value(Key(1, 0, 1), 1));       // the removed one is skipped, the added one waits
  EXPECT_FALSE(writer.remove(Key(2, 0, 1)));  // nothing removed: nobody is told
  writer.notify(Key(1, 0, 1));
  EXPECT_EQ(calls, (std::vector<int>{1, 1, 3}));
}

TEST_F(ShmTableTest, FullTableAndBadShapesAreClearErrorsThatChangeNothing) {
  Table t = Table::openWriter(root(), "cap/t", shape(5));
  for (U32 k = 0; k < 5; ++k)
    put(t, k, 1);
  EXPECT_EQ(errorOf([&] { put(t, 5, 1); }), "shared-memory table 'cap/t' is full (capacity 5)");
  EXPECT_EQ(t.size(), 5u);
  EXPECT_FALSE(get(t, 5));
  put(t, 4, 2);  // replacing still works, and a removal makes room
  EXPECT_TRUE(drop(t, 0));
  put(t, 5, 1);
  EXPECT_EQ(get(t, 4), 2u);
  EXPECT_EQ(get(t, 5), 1u);

  for (TableSpec bad : {TableSpec{0, 0, 4}, TableSpec{4097, 4, 1}, TableSpec{8, 9, 4}, TableSpec{8, 4, 0},
                        TableSpec{8, 4, Table::kMaxCapacity + 1}})
    EXPECT_THROW(Table::openWriter(root(), "shape/t", bad), std::invalid_argument);
  Table::openWriter(root(), "shape/t", shape(4));
  EXPECT_THAT(errorOf([&] { Table::openWriter(root(), "shape/t", TableSpec{12, 4, 4}); }),
              HasSubstr("holds 30-byte values with 4-byte keys"));
}

// ---- processes ------------------------------------------------------------------------------------------------

// Per key the writer publishes the counter it is about to write; readers in
// other processes check that every value is whole, is one the writer wrote,
// and never goes backwards, while the writer also removes keys, re-attaches,
// and fills the table with other keys, doubling them each time both readers
// have met the current file, which grows the table through many rebuilds:
// readers check that each of those keys, once written, stays there.
constexpr U32 kStressKeys = 48;
constexpr U32 kFillers = 20000, kFillerBase = 1000000;
struct StressBoard {
  std::atomic<U32> started{0}, readers{0}, stop{0}, filled{0};
  std::atomic<U32> issued[kStressKeys] = {};
  std::atomic<U32> seenBuckets[2] = {};  // by each reader
};

TEST_F(ShmTableTest, OneWriterAndReadersInOtherProcessesOnlySeeWholeWrittenValues) {
  StressBoard* board = shared<StressBoard>();
  pid_t const writer = spawn([&] {
    constexpr U32 kCapacity = kStressKeys + kFillers;
    Table t = Table::openWriter(root(), "mp/t", shape(kCapacity));
    board->started.store(1);
    std::mt19937 rng(1);
    U32 counters[kStressKeys] = {};
    auto const start = Clock::now();
    for (U32 i = 0; Clock::now() - start < 1500ms || board->filled.load() < kFillers; ++i) {
      U32 const k = rng() % kStressKeys;
      if (i % 9 == 0) {
        drop(t, k);
      } else {
        board->issued[k].store(++counters[k]);
        put(t, k, counters[k]);
      }
      U32 const buckets = t.bucketCount();
      if (U32 filled = board->filled.load(); filled < kFillers && board->readers.load() == 2 &&
                                             board->seenBuckets[0].load() == buckets &&
                                             board->seenBuckets[1].load() == buckets) {
        for (U32 const target = std::min(kFillers, std::max(16u, 2 * filled)); filled < target; ++filled) {
          put(t, kFillerBase + filled, filled);
          board->filled.store(filled + 1);
        }
      }
      if (Clock::now() - start > 60s)
        break;  // the readers never came
    }
    board->stop.store(1);
    return t.bucketCount() == 32768 ? 0 : 1;  // doubled from 16, load never above 3/4
  });
  while (board->started.load() == 0)
    ::usleep(100);
  EXPECT_EQ(errorOf([&] { Table::openWriter(root(), "mp/t", shape(64)); }),
            "shared-memory table 'mp/t' already has a writer (pid " + std::to_string(writer) + ")");
  auto readerBody = [&] {
    Table t = Table::openReader(root(), "mp/t");
    U32 const me = board->readers.fetch_add(1);
    U32 last[kStressKeys] = {};
    std::mt19937 rng(::getpid());
    U32 reads = 0, fillerReads = 0, moves = 0;
    for (U32 buckets = t.bucketCount(); board->stop.load() == 0;) {
      U32 const k = rng() % kStressKeys;
      if (std::optional<U32> const got = get(t, k)) {
        if (*got < last[k] || *got > board->issued[k].load())
          throw std::runtime_error("key " + std::to_string(k) + " went back or ahead to " + std::to_string(*got));
        last[k] = *got;
        ++reads;
      }
      if (U32 const filled = board->filled.load(); filled > 0) {
        U32 const f = rng() % filled;
        if (get(t, kFillerBase + f) != f)
          throw std::runtime_error("filler " + std::to_string(f) + " of " + std::to_string(filled) + " is lost");
        ++fillerReads;
      }
      moves += t.bucketCount() != buckets;
      buckets = t.bucketCount();
      board->seenBuckets[me].store(buckets);
    }
    if (reads < 1000 || fillerReads < 1000 || moves < 5)
      throw std::runtime_error(fmt::format("{} reads, {} of fillers, {} moves to a rebuilt file", reads,
                                           fillerReads, moves));
    return 0;
  };
  pid_t const readers[2] = {spawn(readerBody), spawn(readerBody)};
  EXPECT_EQ(waitExit(writer), 0);
  EXPECT_EQ(waitExit(readers[0]), 0);
  EXPECT_EQ(waitExit(readers[1]), 0);
}

// Each round's new writer also shows that a killed writer leaves the writer role free.
TEST_F(ShmTableTest, WriterKilledAtRandomInstantsLosesAndTearsNothing) {
  constexpr U32 kKeys = 37;
  Table::openWriter(root(), "crash/t", shape(40));
  Table reader = Table::openReader(root(), "crash/t");
  std::atomic<U32>* done = shared<std::atomic<U32>>();  // operations the child completed
  std::mt19937 rng(12345);
  std::array<std::optional<U32>, kKeys> state;  // what each key holds after the previous round
  // Operation i of a round writes a counter to a key, every fifth one removes it.
  auto op = [](U32 round, U32 i) {
    return std::pair((i * 7 + round) % kKeys, i % 5 == 4 ? std::nullopt : std::optional(round * 1000000u + i + 1));
  };
  auto const start = Clock::now();
  U32 round = 0, interruptedOps = 0;
  for (; round < 400 && Clock::now() - start < 10s && !HasFailure(); ++round) {
    done->store(0);
    U32 const capacity = 40 + round / 50 * 8;  // now and then a growth is interrupted too
    pid_t const child = spawn([&] {
      Table t = Table::openWriter(root(), "crash/t", shape(capacity));
      for (U32 i = 0;; done->store(++i)) {
        auto const [k, c] = op(round, i);
        c ? put(t, k, *c) : void(drop(t, k));
      }
      return 0;
    });
    ::usleep(rng() % 3000);
    ::kill(child, SIGKILL);
    ASSERT_EQ(waitExit(child), 128 + SIGKILL);

    // Every completed operation is visible; the one in flight may or may not be.
    U32 const n = done->load();
    interruptedOps += n;
    auto expected = state;
    for (U32 i = 0; i < n; ++i)
      expected[op(round, i).first] = op(round, i).second;
    // A write cut off after its journal counts, one cut off inside it never happened: what
    // readers take before the next writer attaches stays, for them and for that writer.
    std::array<std::optional<U32>, kKeys> seen;
    for (U32 k = 0; k < kKeys; ++k) {
      seen[k] = get(reader, k);
      EXPECT_TRUE(seen[k] == expected[k] || std::pair(k, seen[k]) == op(round, n))
          << "round " << round << " after " << n << " ops: key " << k << " holds " << seen[k].value_or(0);
    }
    Table t = Table::openWriter(root(), "crash/t", shape(capacity));
    U32 entries = 0;
    for (U32 k = 0; k < kKeys; ++k) {
      EXPECT_EQ(get(t, k), seen[k]) << "new writer, round " << round << " key " << k;
      EXPECT_EQ(get(reader, k), seen[k]) << "reader after attach, round " << round << " key " << k;
      entries += seen[k].has_value();
    }
    ASSERT_EQ(t.size(), entries);
    state = seen;
  }
  EXPECT_GE(round, 100u) << "too few kill rounds in the time allowed";
  EXPECT_GT(interruptedOps, 1000u) << "the writer barely ran before being killed";
}

// The states a writer killed inside a write leaves are made exactly from a real
// write of value 2 over value 1, by rolling parts of the file back (header:
// bucket bytes at offset 28, journal at 36, first bucket at 40; seq words first).
TEST_F(ShmTableTest, WriteCutOffAfterTheJournalCountsForReadersAndWritersAndInTheJournalNeverHappened) {
  std::string const path = file("cut/t");
  std::vector<unsigned char> before, after;
  {
    Table t = Table::openWriter(root(), "cut/t", shape(4));
    put(t, 1, 1);
    before = readFile(path);
    put(t, 1, 2);
    after = readFile(path);
  }
  std::size_t const bucketBytes = wordAt(after, 28), journal = wordAt(after, 36);
  std::size_t entry = 0;
  for (std::size_t at = wordAt(after, 40); at < after.size(); at += bucketBytes)
    entry = wordAt(before, at) != wordAt(after, at) ? at : entry;
  ASSERT_NE(entry, 0u);

  // Each state: the file on one side of the write with one part as the cut-off write left it.
  std::vector<unsigned char> half(before.begin() + entry, before.begin() + entry + bucketBytes);
  U32 const odd = wordAt(after, entry) - 1;
  std::memcpy(half.data(), &odd, 4);
  std::size_t const firstBucket = wordAt(after, 40);
  U32 const garbage[4] = {wordAt(before, journal) + 1, 12345, 0xDEAD, 0xBEEF};
  struct Cut {
    char const* where;
    std::vector<unsigned char> const& base;
    std::size_t at;
    void const* bytes;
    std::size_t size;
    U32 counts;  // the value readers and the next writer take
  } const cuts[] = {
      {"inside the entry: its old contents under the new odd seq", after, entry, half.data(), half.size(), 2},
      {"between the steps: the journal complete, the entry untouched", before, journal, after.data() + journal,
       firstBucket - journal, 2},
      {"inside the journal: half written over", before, journal, garbage, sizeof garbage, 1},
  };
  Table reader = Table::openReader(root(), "cut/t");
  for (Cut const& cut : cuts) {
    SCOPED_TRACE(cut.where);
    patch(path, 0, cut.base.data(), cut.base.size());
    patch(path, cut.at, cut.bytes, cut.size);
    EXPECT_EQ(get(reader, 1), cut.counts);
    Table t = Table::openWriter(root(), "cut/t", shape(4));  // the next writer completes or forgets it
    EXPECT_EQ(get(t, 1), cut.counts);
    EXPECT_EQ(t.size(), 1u);
  }
}

// ---- damage ---------------------------------------------------------------------------------------------------

TEST_F(ShmTableTest, DamageIsDetectedNeverServedAsData) {
  {
    Table t = Table::openWriter(root(), "damage/t", shape(16));
    for (U32 c = 100; c <= 300; c += 100)
      for (U32 k = 0; k < 12; ++k)
        put(t, k, c + k);
    for (U32 k = 2; k < 12; k += 3)
      drop(t, k);
  }
  auto written = [](U32 k, U32 c) { return k < 12 && c % 100 == k && c / 100 >= 1 && c / 100 <= 3; };
  auto present = [](U32 k) { return k < 12 && k % 3 != 2; };
  std::string const path = file("damage/t");
  std::vector<unsigned char> const pristine = readFile(path);

  // Either the damage raises CorruptionException, or every answer is one that was really written.
  U32 detected = 0;
  auto honest = [&](bool asWriter) {
    try {
      Table t = asWriter ? Table::openWriter(root(), "damage/t", shape(16)) : Table::openReader(root(), "damage/t");
      Bytes out;
      U32 key = 0, c = 0;
      for (U32 k = 0; k < 16; ++k)
        if (std::optional<U32> const got = get(t, k); got ? !written(k, *got) : present(k))
          return false;
      for (Table::Cursor cursor = t.first(); t.next(cursor, out.data());)
        if (!valid(out.data(), key, c) || !written(key, c))
          return false;
    } catch (CorruptionException const&) {
      ++detected;
    }
    return true;
  };
  std::mt19937 rng(99);
  for (U32 i = 0; i < 3000; ++i) {
    // First one flipped bit in each byte of the checked header fields, then groups of random bytes.
    U32 const before = detected;
    for (U32 n = i < 52 ? 1 : 1 + rng() % 4; n > 0; --n) {
      std::size_t const at = i < 52 ? i : rng() % pristine.size();
      unsigned char const damaged = pristine[at] ^ (i < 52 ? 0x10 : 1 + rng() % 255);
      patch(path, at, &damaged, 1);
    }
    EXPECT_TRUE(honest(i % 2 == 0)) << "damage " << i << " served as data";
    EXPECT_TRUE(i >= 52 || detected == before + 1) << "header damage at byte " << i << " went unnoticed";
    patch(path, 0, pristine.data(), pristine.size());
  }
  EXPECT_GT(detected, 3000u / 4);

  // Cut short under mapped readers (another process truncating the file): each read is the
  // corruption error, not the reader's death by SIGBUS.
  Table reader = Table::openReader(root(), "damage/t");
  Table::Cursor cursor = reader.first();
  Bytes out;
  ASSERT_TRUE(reader.next(cursor, out.data()));
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  for (auto const& read : std::initializer_list<std::function<void()>>{
           [&] { get(reader, 1); }, [&] { reader.next(cursor, out.data()); }, [&] { reader.size(); },
           [&] { reader.changeCounter(); }, [&] { reader.first(); }})
    EXPECT_THAT(errorOf(read), HasSubstr("table 'damage/t' is corrupt: its file was cut short"));

  ASSERT_EQ(::truncate(path.c_str(), 64), 0);  // not a table at all
  EXPECT_THAT(errorOf([&] { Table::openReader(root(), "damage/t"); }), HasSubstr("table 'damage/t' is corrupt"));
}

}  // namespace
