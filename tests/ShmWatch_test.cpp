// Watching a shared-memory table from another process: a commit wakes a poll on
// the watcher's descriptor and dispatch reports the changed keys (also across a
// rebuild and a table created after the watcher); nobody watching means no bell
// traffic at all, checked on the bell file itself.

#include "helpers/ShmTestTraits.h"

#include "TarnRegFile/platform/ShmBell.h"
#include "TarnRegFile/platform/ShmWatch.h"

#include <fstream>
#include <map>

#include <signal.h>
#include <sys/inotify.h>

namespace {

using namespace ShmTest;
using Watch = Kiv::Shm::CollectionWatcher<Traits>;
using Seen = std::map<U32, U32>;  // address -> value, as the watcher reported them
using ShmWatchTest = RootTest;

Value val(U32 address, U32 value) { return Value(Key(address, 0, 0), value); }

/// Waits for the descriptor and dispatches.
bool pollAndDispatch(Watch& watch) {
  if (!readable(watch.fd()))
    return false;
  watch.dispatch();
  return true;
}

/// Reads one word of a table's bell file.
U32 bellWord(std::string const& bell, U32 index) {
  std::ifstream in(bell, std::ios::binary);
  U32 words[16] = {};
  in.read(reinterpret_cast<char*>(words), sizeof words);
  return words[index];
}

TEST_F(ShmWatchTest, CommitsOfAnotherProcessWakeThePollAndReportTheirKeys) {
  Watch watch(root(), "w/t");  // before the table exists
  EXPECT_FALSE(watch.present());
  Seen seen;
  watch.changeHandlerIs([&](Key const& k, Value const* now) { now ? void(seen[k.address] = now->value) : void(seen.erase(k.address)); });
  int go[2];
  ASSERT_EQ(::pipe(go), 0);
  pid_t const writer = spawn([&] {
    ::close(go[1]);  // a parent that fails and exits ends the child's wait
    auto table = Collection::openWriter(root(), "w/t", 1000);
    table.write(val(1, 10));
    table.write(val(2, 20));
    char c;
    if (::read(go[0], &c, 1) != 1) return 3;
    // Phase 2: enough new keys to rebuild the 16-bucket table twice under the watcher.
    for (U32 k = 100; k < 140; ++k) table.write(val(k, k));
    table.write(val(1, 11));
    table.remove(Key(2, 0, 0));
    // Stays, holding the bell open, until the parent has seen everything: only the commits wake it.
    return ::read(go[0], &c, 1) == 1 ? 0 : 3;
  });
  ::close(go[0]);
  while (seen != Seen{{1, 10}, {2, 20}})
    ASSERT_TRUE(pollAndDispatch(watch)) << "no wake-up for the first commits";
  U32 notified = 0;
  watch.collection().observerIs([&](Key const&) { ++notified; });
  ASSERT_EQ(::write(go[1], "x", 1), 1);
  Seen expected{{1, 11}};
  for (U32 k = 100; k < 140; ++k) expected[k] = k;
  while (seen != expected)
    ASSERT_TRUE(pollAndDispatch(watch)) << "watcher lost the table: " << seen.size() << " keys seen";
  ASSERT_EQ(::write(go[1], "x", 1), 1);
  ASSERT_EQ(waitExit(writer), 0);
  EXPECT_GE(watch.collection().table().bucketCount(), 64u);  // it did follow the rebuilds
  EXPECT_EQ(notified, 42u);                                  // 40 new keys, one changed, one removed
  ASSERT_TRUE(pollAndDispatch(watch));  // the writer's end wakes it too, with nothing new to report
  EXPECT_EQ(watch.dispatch(), 0u);
}

TEST_F(ShmWatchTest, NobodyWatchingRingsNothingAndAWatchedWriterRingsOncePerRound) {
  std::optional<Collection> table;
  table.emplace(Collection::openWriter(root(), "w/quiet", 100));
  std::string const bell = file("w/" + Kiv::Shm::Bell::bellName("quiet"));
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

  {
    Kiv::Shm::Watcher watcher(root(), "w/quiet");
    EXPECT_EQ(bellWord(bell, kWatchers), 1u);
    for (U32 i = 0; i < 100; ++i) table->write(val(1, 1000 + i));  // one round: the watcher has not answered
    EXPECT_EQ(spyEvents(), 1u);
    EXPECT_TRUE(watcher.dispatch());
    table->write(val(1, 5000));
    EXPECT_EQ(bellWord(bell, kRings), 2u);
  }
  EXPECT_EQ(bellWord(bell, kWatchers), 0u);  // so nothing rings, as before the watcher came

  // A watcher killed without unregistering leaves its count; a writer attaching while no
  // watcher is alive clears it.
  ASSERT_EQ(waitExit(spawn([&] {
              Kiv::Shm::Watcher watcher(root(), "w/quiet");
              return ::raise(SIGKILL);
            })),
            128 + SIGKILL);
  EXPECT_EQ(bellWord(bell, kWatchers), 1u);
  table.reset();  // the writer lock is per open file: the old writer goes first
  table.emplace(Collection::openWriter(root(), "w/quiet", 100));
  EXPECT_EQ(bellWord(bell, kWatchers), 0u);
  ::close(spy);
}

}  // namespace
