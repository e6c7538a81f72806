#include "ShmCollection.h"
#include "ShmRoot.h"
#include "ShmTable.h"
#include "Trace.h"
#include "helpers/ShmTestTraits.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Kiv::Shm;
using ShmTest::Key;
using ShmTest::Value;
using Clock = std::chrono::steady_clock;

/// A fresh directory in /dev/shm holding the test's private root; removed afterwards.
class TempDir {
public:
  TempDir() {
    char name[] = "/dev/shm/tarn-shm-test.XXXXXX";
    if (::mkdtemp(name) == nullptr)
      std::abort();
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string const& path() const { return path_; }

private:
  std::string path_;
};

class ShmTableTest : public ::testing::Test {
protected:
  Root root() const { return Root(dir_.path() + "/root"); }
  std::string file(std::string const& path) const { return dir_.path() + "/root/" + path; }

  TempDir dir_;
};

/// Raw-table values for the stress tests: key k, counter c, then 22 bytes derived
/// from both, so that a torn or garbled value never passes valid().
struct Stress {
  static constexpr U32 valueSize = 30;
  static constexpr U32 keySize = 4;
  using Bytes = std::array<std::byte, valueSize>;

  static Bytes make(U32 k, U32 c) {
    Bytes v{};
    std::memcpy(v.data(), &k, 4);
    std::memcpy(v.data() + 4, &c, 4);
    for (U32 j = 8; j < valueSize; ++j)
      v[j] = static_cast<std::byte>((k * 0x9E3779B1u + c * 0x85EBCA6Bu + j * 0xC2B2AE35u) >> 24);
    return v;
  }
  static bool valid(std::byte const* v, U32& k, U32& c) {
    std::memcpy(&k, v, 4);
    std::memcpy(&c, v + 4, 4);
    return std::memcmp(v, make(k, c).data(), valueSize) == 0;
  }
  static U32 hash(U32 k, U32 seed) { return ShmTest::seededHash(Key{k, 0, 0}, seed); }
  static std::array<std::byte, 4> key(U32 k) {
    std::array<std::byte, 4> bytes;
    std::memcpy(bytes.data(), &k, 4);
    return bytes;
  }
  static TableSpec shape(U32 capacity) { return TableSpec{valueSize, keySize, capacity}; }
};

void writeStress(Table& t, U32 k, U32 c) { t.write(Stress::make(k, c).data(), Stress::hash(k, t.seed())); }
bool removeStress(Table& t, U32 k) { return t.remove(Stress::key(k).data(), Stress::hash(k, t.seed())); }
/// The counter stored for key k, nullopt when absent; throws std::runtime_error for an invalid value.
std::optional<U32> lookupStress(Table& t, U32 k) {
  Stress::Bytes out;
  if (!t.lookup(Stress::key(k).data(), Stress::hash(k, t.seed()), out.data()))
    return std::nullopt;
  U32 key = 0, c = 0;
  if (!Stress::valid(out.data(), key, c) || key != k)
    throw std::runtime_error("garbage value for key " + std::to_string(k));
  return c;
}

/// Runs @p body in a child process; its return value is the exit status.
template <class F>
pid_t spawn(F body) {
  pid_t const pid = ::fork();
  if (pid != 0)
    return pid;
  int rc = 99;
  try {
    rc = body();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "child %d: %s\n", int(::getpid()), e.what());
    rc = 98;
  }
  std::fflush(stderr);
  ::_exit(rc);
}

int waitExit(pid_t pid) {
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// An object in anonymous shared memory, visible to forked children.
template <class T>
class Shared {
public:
  Shared() {
    void* p = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
      std::abort();
    object_ = new (p) T();
  }
  ~Shared() { ::munmap(object_, sizeof(T)); }
  T* operator->() const { return object_; }

private:
  T* object_;
};

std::string errorOf(auto&& action) {
  try {
    action();
  } catch (std::exception const& e) {
    return e.what();
  }
  return "(no error)";
}

// ---- root and path security -----------------------------------------------------------------------------------

TEST_F(ShmTableTest, InvalidPathsAreRejectedWithTheirReason) {
  struct Case {
    std::string path;
    char const* reason;
  };
  std::vector<Case> const cases = {
      {"", "is empty"},
      {"/etc/passwd", "is absolute"},
      {"a//b", "empty component"},
      {"a/b/", "empty component"},
      {"a/../b", "'..' component"},
      {"..", "'..' component"},
      {"./a", "'.' component"},
      {"a/.hidden", "starting with '.'"},
      {std::string("a\0b", 3), "NUL"},
      {std::string(1100, 'x'), "longer than 1024"},
      {"a/" + std::string(201, 'y'), "component longer than 200"},
  };
  Root const r = root();
  for (Case const& c : cases) {
    SCOPED_TRACE(c.path.substr(0, 40));
    std::string const what = errorOf([&] { Table::openWriter(r, c.path, Stress::shape(4)); });
    EXPECT_NE(what.find(c.reason), std::string::npos) << what;
    if (c.path.find('\0') == std::string::npos) {
      EXPECT_NE(what.find("'" + c.path + "'"), std::string::npos) << what;
    }
    EXPECT_THROW(Table::openReader(r, c.path), std::invalid_argument);
    EXPECT_THROW(r.exists(c.path), std::invalid_argument);
  }
  EXPECT_FALSE(std::filesystem::exists(dir_.path() + "/root"));  // refused before touching anything
  EXPECT_NO_THROW(Root::validatePath("TarnRegFile/shadowFieldsConfig/chip-0_1.x"));
}

TEST_F(ShmTableTest, PlantedSymbolicLinksAreRefused) {
  Root const r = root();
  Table::openWriter(r, "real/t", Stress::shape(4));  // creates the root
  std::string const elsewhere = dir_.path() + "/elsewhere";
  std::filesystem::create_directory(elsewhere);
  std::filesystem::create_directory_symlink(elsewhere, file("linkdir"));
  std::filesystem::create_symlink(elsewhere + "/target", file("real/linkfile"));

  for (std::string path : {"linkdir/t", "real/linkfile"}) {
    SCOPED_TRACE(path);
    std::string const what = errorOf([&] { Table::openWriter(r, path, Stress::shape(4)); });
    EXPECT_NE(what.find("symbolic link"), std::string::npos) << what;
    EXPECT_NE(errorOf([&] { Table::openReader(r, path); }).find("symbolic link"), std::string::npos);
  }
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere));  // nothing was created through the links

  std::filesystem::create_directory_symlink(elsewhere, dir_.path() + "/linkroot");
  std::string const what = errorOf([&] { Table::openWriter(Root(dir_.path() + "/linkroot"), "t", Stress::shape(4)); });
  EXPECT_NE(what.find("symbolic link"), std::string::npos) << what;
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
}

TEST_F(ShmTableTest, WorldWritableDirectoryIsRefused) {
  Root const r = root();
  Table::openWriter(r, "open/t", Stress::shape(4));
  ::chmod(file("open").c_str(), 0777);
  std::string const what = errorOf([&] { Table::openReader(r, "open/t"); });
  EXPECT_NE(what.find("writable by everyone"), std::string::npos) << what;
}

TEST_F(ShmTableTest, FilesAndDirectoriesGetNarrowModesWhateverTheUmask) {
  mode_t const saved = ::umask(077);
  Root const r = root();
  Table::openWriter(r, "private/t", Stress::shape(4));
  Table::openWriter(r, "group/sub/t", Stress::shape(4), GroupMode::Group);
  ::umask(saved);
  auto mode = [&](std::string const& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(file(path).c_str(), &st), 0) << path;
    return st.st_mode & 07777;
  };
  EXPECT_EQ(mode(""), 0700u);
  EXPECT_EQ(mode("private"), 0700u);
  EXPECT_EQ(mode("private/t"), 0600u);
  EXPECT_EQ(mode("group"), 0750u);
  EXPECT_EQ(mode("group/sub"), 0750u);
  EXPECT_EQ(mode("group/sub/t"), 0660u);
  EXPECT_TRUE(r.exists("group/sub/t"));
  EXPECT_TRUE(r.remove("group/sub/t"));
  EXPECT_FALSE(r.exists("group/sub/t"));
  EXPECT_FALSE(r.remove("group/sub/t"));
  EXPECT_FALSE(r.exists("missing/t"));
}

// ---- operations -----------------------------------------------------------------------------------------------

TEST_F(ShmTableTest, CollectionWritesLooksUpReplacesRemovesAndIterates) {
  auto writer = ShmTest::Collection::openWriter(root(), "ops/t", 16);
  auto reader = ShmTest::Collection::openReader(root(), "ops/t");
  std::vector<Key> notified;
  writer.observerIs([&](Key const& k) { notified.push_back(k); });

  Key const a{0x100, 0, 8}, b{0x100, 8, 8}, c{0x104, 0, 32};
  writer.write(Value{a, 1});
  writer.write(Value{b, 2});
  writer.write(Value{c, 3});
  writer.write(Value{a, 10});  // replaces
  EXPECT_EQ(reader.size(), 3u);
  EXPECT_EQ(reader.lookup(a), (Value{a, 10}));
  EXPECT_EQ(reader.lookup(b), (Value{b, 2}));
  EXPECT_FALSE(reader.lookup(Key{0x100, 0, 9}).has_value());  // differs in one key byte only

  EXPECT_TRUE(writer.remove(b));
  EXPECT_FALSE(writer.remove(b));  // absent: no change, no notification
  EXPECT_FALSE(reader.lookup(b).has_value());
  std::set<U32> seen;
  for (Value const& v : reader)
    seen.insert(v.value);
  EXPECT_EQ(seen, (std::set<U32>{10, 3}));
  EXPECT_EQ(notified, (std::vector<Key>{a, b, c, a, b}));

  writer.write(Value{b, 4});  // reuses the deleted marker
  EXPECT_EQ(reader.lookup(b), (Value{b, 4}));
  EXPECT_EQ(writer.size(), 3u);
  EXPECT_THROW(reader.write(Value{a, 5}), std::runtime_error);
  EXPECT_THROW(reader.remove(a), std::runtime_error);
}

TEST_F(ShmTableTest, ZeroCopySlotCommitPublishesAndNotifies) {
  auto writer = ShmTest::Collection::openWriter(root(), "slot/t", 8);
  auto reader = ShmTest::Collection::openReader(root(), "slot/t");
  int notifications = 0;
  writer.observerIs([&](Key const& k) { notifications += k.address == 7 ? 1 : 100; });
  U32 const before = reader.changeCounter();
  ShmTest::Traits::encode(Value{Key{7, 1, 2}, 99}, writer.slotBytes());
  writer.commitSlot();
  EXPECT_EQ(reader.lookup(Key{7, 1, 2}), (Value{Key{7, 1, 2}, 99}));
  EXPECT_EQ(notifications, 1);
  EXPECT_EQ(reader.changeCounter(), before + 1);
}

TEST_F(ShmTableTest, ObserversMayBeRemovedAndAddedWhileBeingNotified) {
  auto writer = ShmTest::Collection::openWriter(root(), "obs/t", 8);
  std::vector<int> calls;
  ShmTest::Collection::ObserverId second = 0;
  writer.observerIs([&](Key const&) {
    calls.push_back(1);
    writer.observerDel(second);
    writer.observerIs([&](Key const&) { calls.push_back(3); });
  });
  second = writer.observerIs([&](Key const&) { calls.push_back(2); });
  writer.write(Value{Key{1, 0, 1}, 1});
  EXPECT_EQ(calls, (std::vector<int>{1}));  // the removed one is skipped, the added one waits
  calls.clear();
  writer.notify(Key{1, 0, 1});
  EXPECT_EQ(calls, (std::vector<int>{1, 3}));
}

TEST_F(ShmTableTest, WriteBeyondCapacityIsAClearErrorAndChangesNothing) {
  Table t = Table::openWriter(root(), "cap/t", Stress::shape(5));
  for (U32 k = 0; k < 5; ++k)
    writeStress(t, k, 1);
  EXPECT_EQ(errorOf([&] { writeStress(t, 5, 1); }), "shared-memory table 'cap/t' is full (capacity 5)");
  EXPECT_EQ(t.size(), 5u);
  EXPECT_FALSE(lookupStress(t, 5).has_value());
  writeStress(t, 4, 2);  // replacing still works
  EXPECT_EQ(lookupStress(t, 4), 2u);
  EXPECT_TRUE(removeStress(t, 0));
  writeStress(t, 5, 1);
  EXPECT_EQ(lookupStress(t, 5), 1u);
}

TEST_F(ShmTableTest, BadSpecsAndMismatchedReopeningAreClearErrors) {
  Root const r = root();
  EXPECT_THROW(Table::openWriter(r, "shape/t", TableSpec{0, 0, 4}), std::invalid_argument);
  EXPECT_THROW(Table::openWriter(r, "shape/t", TableSpec{8, 9, 4}), std::invalid_argument);
  EXPECT_THROW(Table::openWriter(r, "shape/t", TableSpec{8, 4, 0}), std::invalid_argument);
  EXPECT_THROW(Table::openWriter(r, "shape/t", TableSpec{4096, 4, Table::kMaxCapacity}), std::invalid_argument);
  Table::openWriter(r, "shape/t", Stress::shape(4));
  std::string const what = errorOf([&] { Table::openWriter(r, "shape/t", TableSpec{12, 4, 4}); });
  EXPECT_NE(what.find("holds 30-byte values with 4-byte keys"), std::string::npos) << what;
  EXPECT_THROW(ShmTest::Collection::openReader(r, "shape/t"), std::runtime_error);
  EXPECT_EQ(errorOf([&] { Table::openReader(r, "shape/none"); }), "shared-memory table 'shape/none' does not exist");
}

TEST_F(ShmTableTest, RegrowKeepsEntriesAndReadersFollowTheNewFile) {
  Root const r = root();
  {
    Table t = Table::openWriter(r, "grow/t", Stress::shape(10));
    for (U32 k = 0; k < 10; ++k)
      writeStress(t, k, k + 100);
  }
  Table reader = Table::openReader(r, "grow/t");
  Table::Cursor cursor = reader.first();
  U32 const seed = reader.seed();

  Table t = Table::openWriter(r, "grow/t", Stress::shape(100));
  EXPECT_EQ(t.capacity(), 100u);
  EXPECT_EQ(t.seed(), seed);
  writeStress(t, 50, 1);
  EXPECT_EQ(reader.capacity(), 100u);  // moved to the new file
  EXPECT_EQ(lookupStress(reader, 50), 1u);
  for (U32 k = 0; k < 10; ++k)
    EXPECT_EQ(lookupStress(reader, k), k + 100);
  EXPECT_EQ(reader.size(), 11u);

  Stress::Bytes out;  // the older cursor finishes on the old file: exactly the ten old entries
  U32 count = 0, k = 0, c = 0;
  while (reader.next(cursor, out.data())) {
    ASSERT_TRUE(Stress::valid(out.data(), k, c));
    EXPECT_EQ(c, k + 100);
    ++count;
  }
  EXPECT_EQ(count, 10u);

  t = Table::openReader(r, "grow/t");  // the writer goes away
  Table smaller = Table::openWriter(r, "grow/t", Stress::shape(5));
  EXPECT_EQ(smaller.capacity(), 100u);
  EXPECT_EQ(smaller.size(), 11u);
  EXPECT_EQ(lookupStress(smaller, 9), 109u);
}

TEST_F(ShmTableTest, ChurnOfDeletedEntriesNeverFillsTheTable) {
  Kiv::TraceCapture trace("Shm/*");
  Table t = Table::openWriter(root(), "churn/t", Stress::shape(8));
  Table reader = Table::openReader(root(), "churn/t");
  std::mt19937 rng(7);
  std::map<U32, U32> model;
  for (U32 i = 0; i < 20000; ++i) {
    U32 const k = rng() % 1000;
    if (model.size() < 8 && !model.count(k)) {
      writeStress(t, k, i);
      model[k] = i;
    } else if (!model.empty()) {
      auto victim = model.begin();
      std::advance(victim, rng() % model.size());
      ASSERT_TRUE(removeStress(t, victim->first));
      model.erase(victim);
    }
    if (i % 997 == 0) {
      ASSERT_EQ(reader.size(), model.size());
      for (auto const& [key, counter] : model)
        ASSERT_EQ(lookupStress(reader, key), counter);
      ASSERT_FALSE(lookupStress(reader, 5000).has_value());
    }
  }
  // Deleted markers were cleared by rebuilds now and then, not on every insert.
  std::size_t const rebuilds = trace.count("rebuilt shared-memory table 'churn/t'");
  EXPECT_GT(rebuilds, 0u);
  EXPECT_LT(rebuilds, 2000u);
}

TEST_F(ShmTableTest, SingleEntryTableCyclesWithoutRebuilding) {
  Kiv::TraceCapture trace("Shm/*");
  Table t = Table::openWriter(root(), "one/t", Stress::shape(1));
  for (U32 k = 0; k < 100; ++k) {
    writeStress(t, k, k);
    EXPECT_THROW(writeStress(t, k + 1000, 0), std::runtime_error);
    ASSERT_TRUE(removeStress(t, k));
  }
  EXPECT_EQ(trace.count("rebuilt"), 0u);
  EXPECT_EQ(t.size(), 0u);
}

// ---- processes ------------------------------------------------------------------------------------------------

TEST_F(ShmTableTest, SecondWriterInAnotherProcessIsRefusedAndReadersAreNot) {
  Root const r = root();
  Table t = Table::openWriter(r, "excl/t", Stress::shape(4));
  writeStress(t, 1, 11);
  std::string const expected = "shared-memory table 'excl/t' already has a writer (pid " + std::to_string(::getpid()) + ")";
  pid_t const child = spawn([&] {
    std::string const what = errorOf([&] { Table::openWriter(r, "excl/t", Stress::shape(4)); });
    if (what != expected) {
      std::fprintf(stderr, "got '%s'\n", what.c_str());
      return 1;
    }
    Table reader = Table::openReader(r, "excl/t");
    return lookupStress(reader, 1) == 11u ? 0 : 2;
  });
  EXPECT_EQ(waitExit(child), 0);
}

TEST_F(ShmTableTest, DeadWriterReleasesTheWriterRole) {
  Root const r = root();
  Table::openWriter(r, "dead/t", Stress::shape(4));
  pid_t const exiting = spawn([&] {
    Table* leaked = new Table(Table::openWriter(r, "dead/t", Stress::shape(4)));  // never closed
    writeStress(*leaked, 1, 1);
    ::_exit(0);
    return 0;
  });
  ASSERT_EQ(waitExit(exiting), 0);
  {
    Table t = Table::openWriter(r, "dead/t", Stress::shape(4));
    EXPECT_EQ(lookupStress(t, 1), 1u);
  }
  pid_t const killed = spawn([&] {
    Table t = Table::openWriter(r, "dead/t", Stress::shape(4));
    writeStress(t, 2, 2);
    ::pause();
    return 0;
  });
  for (int i = 0; i < 500; ++i) {  // until the child has written
    Table reader = Table::openReader(r, "dead/t");
    if (lookupStress(reader, 2))
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ::kill(killed, SIGKILL);
  EXPECT_EQ(waitExit(killed), 128 + SIGKILL);
  Table t = Table::openWriter(r, "dead/t", Stress::shape(4));
  EXPECT_EQ(lookupStress(t, 2), 2u);
}

// Per key the writer publishes the counter it is about to write, readers check
// that every value is whole, is one the writer wrote and never goes backwards.
constexpr U32 kStressKeys = 48;
struct StressBoard {
  std::atomic<U32> stop{0};
  std::atomic<U32> issued[kStressKeys] = {};
};

TEST_F(ShmTableTest, ReadersInOtherProcessesOnlySeeWholeWrittenValues) {
  Root const r = root();
  Table::openWriter(r, "mp/t", Stress::shape(64));
  Shared<StressBoard> board;
  auto const duration = std::chrono::milliseconds(1500);

  pid_t const writer = spawn([&] {
    Table t = Table::openWriter(r, "mp/t", Stress::shape(64));
    std::mt19937 rng(1);
    U32 counters[kStressKeys] = {};
    bool grown = false;
    auto const start = Clock::now();
    for (U32 i = 0; Clock::now() - start < duration; ++i) {
      U32 const k = rng() % kStressKeys;
      if (i % 9 == 0) {
        removeStress(t, k);
      } else {
        board->issued[k].store(++counters[k]);
        writeStress(t, k, counters[k]);
      }
      if (!grown && Clock::now() - start > duration / 2) {
        t = Table::openReader(r, "mp/t");
        t = Table::openWriter(r, "mp/t", Stress::shape(200));  // readers must follow the rebuild
        grown = true;
      }
    }
    board->stop.store(1);
    return grown ? 0 : 1;
  });
  auto readerBody = [&] {
    Table t = Table::openReader(r, "mp/t");
    U32 last[kStressKeys] = {};
    std::mt19937 rng(::getpid());
    U32 reads = 0;
    Stress::Bytes out;
    for (U32 round = 0; board->stop.load() == 0; ++round) {
      U32 const k = rng() % kStressKeys;
      if (std::optional<U32> const c = lookupStress(t, k)) {
        if (*c < last[k] || *c > board->issued[k].load())
          throw std::runtime_error("key " + std::to_string(k) + " went back or ahead to " + std::to_string(*c));
        last[k] = *c;
        ++reads;
      }
      if (round % 256 == 0) {
        Table::Cursor cursor = t.first();
        U32 key = 0, c = 0;
        while (t.next(cursor, out.data())) {
          if (!Stress::valid(out.data(), key, c) || key >= kStressKeys || c > board->issued[key].load())
            throw std::runtime_error("iteration yielded a value never written");
          ++reads;
        }
      }
    }
    return reads > 1000 ? 0 : 3;
  };
  pid_t const readers[2] = {spawn(readerBody), spawn(readerBody)};
  EXPECT_EQ(waitExit(writer), 0);
  EXPECT_EQ(waitExit(readers[0]), 0);
  EXPECT_EQ(waitExit(readers[1]), 0);
}

TEST_F(ShmTableTest, FrozenWriterNeverBlocksReaders) {
  Root const r = root();
  Table::openWriter(r, "frozen/t", Stress::shape(4));
  pid_t const writer = spawn([&] {
    Table t = Table::openWriter(r, "frozen/t", Stress::shape(4));
    for (U32 c = 1;; ++c)
      writeStress(t, 3, c);  // the same entry over and over: most stops land inside a write
    return 0;
  });
  Table reader = Table::openReader(r, "frozen/t");
  std::mt19937 rng(3);
  U32 last = 0;
  for (int i = 0; i < 200; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(100 + rng() % 400));
    ::kill(writer, SIGSTOP);
    ::waitpid(writer, nullptr, WUNTRACED);
    auto const start = Clock::now();
    std::optional<U32> const c = lookupStress(reader, 3);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(100));
    ASSERT_TRUE(c.has_value() || last == 0);
    ASSERT_GE(c.value_or(0), last);
    last = c.value_or(0);
    ::kill(writer, SIGCONT);
  }
  ::kill(writer, SIGKILL);
  waitExit(writer);
  EXPECT_GT(last, 0u);
}

// The child writer does operation i after operation i - 1 and then publishes i + 1 as done.
struct CrashBoard {
  std::atomic<U32> done{0};
};

TEST_F(ShmTableTest, WriterKilledAtRandomInstantsLosesAndTearsNothing) {
  constexpr U32 kKeys = 37;
  Root const r = root();
  Table::openWriter(r, "crash/t", Stress::shape(40));
  Table reader = Table::openReader(r, "crash/t");
  Shared<CrashBoard> board;
  std::mt19937 rng(12345);
  std::optional<U32> state[kKeys];  // what each key holds after the previous round
  auto opKey = [](U32 round, U32 i) { return (i * 7 + round) % kKeys; };
  auto opWrites = [](U32 i) { return i % 5 != 4; };
  auto opCounter = [](U32 round, U32 i) { return round * 1000000u + i + 1; };

  auto const start = Clock::now();
  U32 round = 0, interruptedOps = 0;
  for (; round < 400 && Clock::now() - start < std::chrono::seconds(10); ++round) {
    board->done.store(0);
    U32 const capacity = 40 + round / 50 * 8;  // now and then a growth is interrupted too
    pid_t const child = spawn([&] {
      Table t = Table::openWriter(r, "crash/t", Stress::shape(capacity));
      for (U32 i = 0; i < 500000; ++i) {
        U32 const k = opKey(round, i);
        if (opWrites(i))
          writeStress(t, k, opCounter(round, i));
        else
          removeStress(t, k);
        board->done.store(i + 1);
      }
      ::pause();
      return 0;
    });
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
    ::kill(child, SIGKILL);
    ASSERT_EQ(waitExit(child), 128 + SIGKILL);

    // Every completed operation is visible; the one in flight may or may not be.
    U32 const done = board->done.load();
    interruptedOps += done;
    std::optional<U32> expected[kKeys];
    std::copy(std::begin(state), std::end(state), std::begin(expected));
    for (U32 i = done > 2 * kKeys ? done - 2 * kKeys : 0; i < done; ++i)
      expected[opKey(round, i)] = opWrites(i) ? std::optional<U32>(opCounter(round, i)) : std::nullopt;
    U32 const inFlightKey = opKey(round, done);
    std::optional<U32> const inFlight = opWrites(done) ? std::optional<U32>(opCounter(round, done)) : std::nullopt;
    auto check = [&](Table& t, char const* who) {
      for (U32 k = 0; k < kKeys; ++k) {
        std::optional<U32> const got = lookupStress(t, k);
        if (got != expected[k] && !(k == inFlightKey && got == inFlight))
          ADD_FAILURE() << who << " round " << round << " after " << done << " ops: key " << k << " holds "
                        << got.value_or(0) << ", expected " << expected[k].value_or(0);
      }
    };
    check(reader, "reader before attach");  // takes entries cut off mid-write from the journal
    Table t = Table::openWriter(r, "crash/t", Stress::shape(capacity));
    check(t, "new writer");
    check(reader, "reader after attach");
    U32 entries = 0;
    for (U32 k = 0; k < kKeys; ++k) {
      state[k] = lookupStress(t, k);
      entries += state[k].has_value();
    }
    ASSERT_EQ(t.size(), entries);
    if (HasFailure())
      break;
  }
  std::printf("%u kill rounds, %u operations completed before the kills\n", round, interruptedOps);
  EXPECT_GE(round, 100u) << "too few kill rounds in the time allowed";
  EXPECT_GT(interruptedOps, 1000u) << "the writer barely ran before being killed";
}

std::vector<unsigned char> readFile(std::string const& path) {
  std::vector<unsigned char> bytes(std::filesystem::file_size(path));
  std::FILE* f = std::fopen(path.c_str(), "rb");
  EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), f), bytes.size());
  std::fclose(f);
  return bytes;
}

U32 wordAt(std::vector<unsigned char> const& bytes, std::size_t offset) {
  U32 word = 0;
  std::memcpy(&word, bytes.data() + offset, 4);
  return word;
}

// The states a writer killed inside a write leaves are made exactly from a
// real write, by rolling parts of the file back (header: bucket bytes at
// offset 28, journal at 36, first bucket at 40; seq words come first).
struct CutWrite {
  std::vector<unsigned char> before, after;  // the file around the write of value 2 over value 1
  std::size_t entry = 0;                     // offset of the entry that write changed
  std::size_t entryBytes = 0;
  std::size_t journal = 0;
};

CutWrite cutWrite(Root const& r, std::string const& path) {
  CutWrite cut;
  Table t = Table::openWriter(r, "cut/t", Stress::shape(4));
  writeStress(t, 1, 1);
  cut.before = readFile(path);
  writeStress(t, 1, 2);
  cut.after = readFile(path);
  U32 const bucketBytes = wordAt(cut.after, 28), bucketsOffset = wordAt(cut.after, 40);
  cut.journal = wordAt(cut.after, 36);
  cut.entryBytes = bucketBytes;
  for (std::size_t at = bucketsOffset; at < cut.after.size(); at += bucketBytes)
    if (wordAt(cut.before, at) != wordAt(cut.after, at))
      cut.entry = at;
  return cut;
}

void patch(std::string const& path, std::size_t offset, void const* bytes, std::size_t size) {
  int const fd = ::open(path.c_str(), O_RDWR);
  ASSERT_EQ(::pwrite(fd, bytes, size, offset), static_cast<ssize_t>(size));
  ::close(fd);
}

TEST_F(ShmTableTest, WriteCutOffInsideTheEntryIsServedFromTheJournalAndCompleted) {
  Root const r = root();
  std::string const path = file("cut/t");
  CutWrite const cut = cutWrite(r, path);
  ASSERT_NE(cut.entry, 0u);
  // The entry half way: old contents under the odd seq of the new write.
  std::vector<unsigned char> half(cut.before.begin() + cut.entry, cut.before.begin() + cut.entry + cut.entryBytes);
  U32 const odd = wordAt(cut.after, cut.entry) - 1;
  std::memcpy(half.data(), &odd, 4);
  patch(path, cut.entry, half.data(), half.size());

  Table reader = Table::openReader(r, "cut/t");
  EXPECT_EQ(lookupStress(reader, 1), 2u);
  Table t = Table::openWriter(r, "cut/t", Stress::shape(4));
  std::vector<unsigned char> const repaired = readFile(path);
  EXPECT_TRUE(std::equal(repaired.begin() + cut.entry, repaired.begin() + cut.entry + cut.entryBytes,
                         cut.after.begin() + cut.entry));
  writeStress(t, 1, 3);
  EXPECT_EQ(lookupStress(reader, 1), 3u);
  EXPECT_EQ(t.size(), 1u);
}

TEST_F(ShmTableTest, WriteCutOffInsideTheJournalNeverHappened) {
  Root const r = root();
  std::string const path = file("cut/t");
  CutWrite const cut = cutWrite(r, path);
  // Back to the state before the write, with the journal half written over.
  patch(path, 0, cut.before.data(), cut.before.size());
  U32 const garbage[4] = {wordAt(cut.before, cut.journal) + 1, 12345, 0xDEAD, 0xBEEF};
  patch(path, cut.journal, garbage, sizeof garbage);

  Table reader = Table::openReader(r, "cut/t");
  EXPECT_EQ(lookupStress(reader, 1), 1u);
  Table t = Table::openWriter(r, "cut/t", Stress::shape(4));
  EXPECT_EQ(lookupStress(t, 1), 1u);
  writeStress(t, 1, 3);
  EXPECT_EQ(lookupStress(reader, 1), 3u);
}

// ---- damage ---------------------------------------------------------------------------------------------------

TEST_F(ShmTableTest, RandomDamageIsDetectedNeverServedAsData) {
  Root const r = root();
  std::map<U32, std::set<U32>> history;  // every counter ever written per key
  std::set<U32> present;
  {
    Table t = Table::openWriter(r, "damage/t", Stress::shape(16));
    for (U32 round = 1; round <= 3; ++round)
      for (U32 k = 0; k < 12; ++k) {
        writeStress(t, k, round * 100 + k);
        history[k].insert(round * 100 + k);
        present.insert(k);
      }
    for (U32 k : {2u, 5u, 11u}) {
      removeStress(t, k);
      present.erase(k);
    }
  }
  std::string const path = file("damage/t");
  int const fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  off_t const size = ::lseek(fd, 0, SEEK_END);
  std::vector<unsigned char> pristine(size);
  ASSERT_EQ(::pread(fd, pristine.data(), size, 0), size);

  // Either the damage raises CorruptionException, or every answer is one that was really written.
  auto honest = [&](Table& t) {
    for (U32 k = 0; k < 16; ++k) {
      std::optional<U32> const c = lookupStress(t, k);
      if (c ? !history[k].count(*c) : present.count(k) != 0)
        return false;
    }
    Table::Cursor cursor = t.first();
    Stress::Bytes out;
    U32 k = 0, c = 0;
    while (t.next(cursor, out.data()))
      if (!Stress::valid(out.data(), k, c) || !history[k].count(c))
        return false;
    return true;
  };
  U32 trials = 0, detected = 0;
  auto attempt = [&](bool asWriter) {
    ++trials;
    try {
      Table t = asWriter ? Table::openWriter(r, "damage/t", Stress::shape(16)) : Table::openReader(r, "damage/t");
      return honest(t);
    } catch (CorruptionException const&) {
      ++detected;
      return true;
    }
  };
  auto damage = [&](off_t offset, unsigned char mask) {
    unsigned char const byte = pristine[offset] ^ mask;
    ASSERT_EQ(::pwrite(fd, &byte, 1, offset), 1);
  };
  auto restore = [&] { ASSERT_EQ(::pwrite(fd, pristine.data(), size, 0), size); };

  for (off_t offset = 0; offset < size; ++offset) {
    for (unsigned char mask : {0x01, 0x80, 0xFF}) {
      damage(offset, mask);
      U32 const before = detected;
      EXPECT_TRUE(attempt(false)) << "damage at byte " << offset << " with mask " << int(mask) << " served as data";
      if (offset < 52) {  // the fixed header fields
        EXPECT_EQ(detected, before + 1) << "header damage at byte " << offset << " went unnoticed";
      }
      if (offset % 5 == 0) {
        EXPECT_TRUE(attempt(true)) << "writer attach on damage at byte " << offset;
      }
      restore();
    }
  }
  std::mt19937 rng(99);
  for (int i = 0; i < 2000; ++i) {
    for (U32 n = 1 + rng() % 4; n > 0; --n)
      damage(rng() % size, static_cast<unsigned char>(1 + rng() % 255));
    EXPECT_TRUE(attempt(i % 2 == 0)) << "random damage " << i << " served as data";
    restore();
  }
  ::close(fd);
  EXPECT_GT(detected, trials / 4);
  std::printf("damage trials %u, detected %u\n", trials, detected);
}

TEST_F(ShmTableTest, FilesThatAreNotTablesAreCorrupt) {
  Root const r = root();
  Table::openWriter(r, "bad/t", Stress::shape(4));
  ASSERT_EQ(::truncate(file("bad/t").c_str(), 64), 0);
  EXPECT_THROW(Table::openReader(r, "bad/t"), CorruptionException);
  EXPECT_THROW(Table::openWriter(r, "bad/t", Stress::shape(4)), CorruptionException);
  std::string const what = errorOf([&] { Table::openReader(r, "bad/t"); });
  EXPECT_NE(what.find("shared-memory table 'bad/t' is corrupt"), std::string::npos) << what;
}

// ---- across architectures -------------------------------------------------------------------------------------

int runPeer(std::string const& peer, char const* command, std::string const& rootDir, char const* path) {
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::execl(peer.c_str(), peer.c_str(), command, rootDir.c_str(), path, static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return waitExit(pid);
}

TEST_F(ShmTableTest, TablesAreSharedBetweenI386AndAmd64Processes) {
  std::string const peer =
      std::string(TARN_SOURCE_DIR) + (sizeof(void*) == 8 ? "/build/i386/tests/shm_peer" : "/build/amd64/tests/shm_peer");
  if (::access(peer.c_str(), X_OK) != 0)
    GTEST_SKIP() << "the other architecture's peer " << peer << " is missing; build that preset first";
  Root const r = root();
  std::string const rootDir = dir_.path() + "/root";

  ShmTest::writePattern(r, "here/t");
  EXPECT_EQ(runPeer(peer, "verify", rootDir, "here/t"), 0);
  EXPECT_EQ(runPeer(peer, "attach", rootDir, "here/t"), 0);

  ASSERT_EQ(runPeer(peer, "write", rootDir, "there/t"), 0);
  auto reader = ShmTest::Collection::openReader(r, "there/t");
  EXPECT_EQ(ShmTest::verifyPattern(reader), "");
  auto writer = ShmTest::Collection::openWriter(r, "there/t", ShmTest::kPatternCapacity);
  EXPECT_EQ(ShmTest::verifyPattern(writer), "");
}

}  // namespace
