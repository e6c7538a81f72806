// Watching a shared-memory table from another process: a commit wakes a poll on
// the watcher's descriptor and dispatch reports the changed keys (also across a
// rebuild and a table created after the watcher); nobody watching means no bell
// traffic at all, checked on the bell file itself.

#include "helpers/ShmTestTraits.h"

#include "TarnRegFile/platform/ShmBell.h"
#include "TarnRegFile/platform/ShmWatch.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Kiv::Shm::Root;
using ShmTest::Key;
using ShmTest::Value;
using Watch = Kiv::Shm::CollectionWatcher<ShmTest::Traits>;
using Seen = std::map<U32, U32>;  // address -> value, as the watcher reported them

Value val(U32 address, U32 value) { return Value{Key{address, 0, 0}, value}; }

/// Waits for the descriptor (10 s guard against a hang; not a timing check) and dispatches.
bool pollAndDispatch(Watch& watch) {
  pollfd p{watch.fd(), POLLIN, 0};
  if (::poll(&p, 1, 10000) != 1)
    return false;
  watch.dispatch();
  return true;
}

/// Reads one word of a table's bell file.
U32 bellWord(std::filesystem::path const& bell, U32 index) {
  std::ifstream in(bell, std::ios::binary);
  U32 words[16] = {};
  in.read(reinterpret_cast<char*>(words), sizeof words);
  return words[index];
}

class ShmWatchTest : public ::testing::Test {
protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("tarn-watch-" + std::to_string(::getpid()));
    std::filesystem::remove_all(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  Root root() const { return Root(dir_.string()); }

  std::filesystem::path dir_;
};

TEST_F(ShmWatchTest, CommitsOfAnotherProcessWakeThePollAndReportTheirKeys) {
  Watch watch(root(), "w/t");  // before the table exists
  EXPECT_FALSE(watch.present());
  Seen seen;
  watch.changeHandlerIs([&](Key const& k, Value const* now) { now ? void(seen[k.address] = now->value) : void(seen.erase(k.address)); });
  int go[2];
  ASSERT_EQ(::pipe(go), 0);
  pid_t const writer = ::fork();
  if (writer == 0) {
    ::close(go[1]);  // a parent that fails and exits ends the child's wait
    auto table = ShmTest::Collection::openWriter(root(), "w/t", 1000);
    table.write(val(1, 10));
    table.write(val(2, 20));
    char c;
    if (::read(go[0], &c, 1) != 1) ::_exit(3);
    // Phase 2: enough new keys to rebuild the 16-bucket table twice under the watcher.
    for (U32 k = 100; k < 140; ++k) table.write(val(k, k));
    table.write(val(1, 11));
    table.remove(Key{2, 0, 0});
    // Stays, holding the bell open, until the parent has seen everything: only the commits wake it.
    ::_exit(::read(go[0], &c, 1) == 1 ? 0 : 3);
  }
  ::close(go[0]);
  while (seen != Seen{{1, 10}, {2, 20}})
    ASSERT_TRUE(pollAndDispatch(watch)) << "no wake-up for the first commits";
  EXPECT_TRUE(watch.present());
  U32 notified = 0;
  watch.collection().observerIs([&](Key const&) { ++notified; });
  ASSERT_EQ(::write(go[1], "x", 1), 1);
  Seen expected{{1, 11}};
  for (U32 k = 100; k < 140; ++k) expected[k] = k;
  while (seen != expected)
    ASSERT_TRUE(pollAndDispatch(watch)) << "watcher lost the table: " << seen.size() << " keys seen";
  ASSERT_EQ(::write(go[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(::waitpid(writer, &status, 0), writer);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_GE(watch.collection().table().bucketCount(), 64u);  // it did follow the rebuilds
  EXPECT_EQ(notified, 42u);                                  // 40 new keys, one changed, one removed
  ASSERT_TRUE(pollAndDispatch(watch));  // the writer's end wakes it too, with nothing new to report
  EXPECT_EQ(watch.dispatch(), 0u);
}

TEST_F(ShmWatchTest, NobodyWatchingRingsNothingAndAWatchedWriterRingsOncePerRound) {
  std::optional<ShmTest::Collection> table;
  table.emplace(ShmTest::Collection::openWriter(root(), "w/quiet", 100));
  std::filesystem::path const bell = dir_ / "w" / Kiv::Shm::Bell::bellName("quiet");
  constexpr U32 kWatchers = 2, kRings = 4;
  // An inotify watch of our own, not registered: it sees every write the writer makes to the bell.
  int const spy = ::inotify_init1(IN_NONBLOCK);
  ASSERT_GE(::inotify_add_watch(spy, bell.c_str(), IN_MODIFY), 0);
  auto spyEvents = [&] {
    char buffer[4096];
    U32 events = 0;
    for (ssize_t n; (n = ::read(spy, buffer, sizeof buffer)) > 0;) events += U32(n / sizeof(inotify_event));
    return events;
  };
  for (U32 i = 0; i < 1000; ++i) table->write(val(i % 10, i));
  EXPECT_EQ(spyEvents(), 0u);
  EXPECT_EQ(bellWord(bell, kRings), 0u);

  {
    Kiv::Shm::Watcher watcher(root(), "w/quiet");
    EXPECT_EQ(bellWord(bell, kWatchers), 1u);
    for (U32 i = 0; i < 100; ++i) table->write(val(1, 1000 + i));  // one round: the watcher has not answered
    EXPECT_EQ(spyEvents(), 1u);
    EXPECT_EQ(bellWord(bell, kRings), 1u);
    EXPECT_TRUE(watcher.dispatch());
    EXPECT_FALSE(watcher.dispatch());
    table->write(val(1, 5000));
    EXPECT_EQ(bellWord(bell, kRings), 2u);
  }
  EXPECT_EQ(bellWord(bell, kWatchers), 0u);
  spyEvents();  // the watcher's own close of the bell
  for (U32 i = 0; i < 100; ++i) table->write(val(2, i));
  EXPECT_EQ(spyEvents(), 0u);

  // A watcher killed without unregistering leaves its count; a writer attaching while no
  // watcher is alive clears it, and then rings nothing again.
  pid_t const victim = ::fork();
  if (victim == 0) {
    Kiv::Shm::Watcher watcher(root(), "w/quiet");
    ::raise(SIGKILL);
  }
  ::waitpid(victim, nullptr, 0);
  EXPECT_EQ(bellWord(bell, kWatchers), 1u);
  table.reset();  // the writer lock is per open file: the old writer goes first
  table.emplace(ShmTest::Collection::openWriter(root(), "w/quiet", 100));
  EXPECT_EQ(bellWord(bell, kWatchers), 0u);
  U32 const rings = bellWord(bell, kRings);
  spyEvents();
  for (U32 i = 0; i < 100; ++i) table->write(val(3, i));
  EXPECT_EQ(spyEvents(), 0u);
  EXPECT_EQ(bellWord(bell, kRings), rings);
  ::close(spy);
}

}  // namespace
