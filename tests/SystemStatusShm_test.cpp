// The published system status: a follower starts from what is published, applies
// later changes in an order the chip state machine's hooks can rely on, and reads
// a status whose publisher was killed in the middle of a change whole.

#include "TarnRegFile/SystemStatusShm.h"

#include "helpers/ShmTestTraits.h"

#include <random>
#include <vector>

#include <signal.h>

namespace {

using namespace TarnRegFile;
using Hardware::DevId;
using ShmTest::readable;
using SystemStatusShmTest = ShmTest::RootTest;

/// Records each chipStatus and profile notification, with what the status held at that moment.
class Recorder : public PossibleSystemStatus::Notifiee {
public:
  void onChipStatus(Kiv::String const& key) override {
    auto const chip = notifier()->chipStatus(key);
    events.push_back(chip ? fmt::format("+chip {} {} {}{}", key.view(), chip->devId(), chip->profileName().view(),
                                        notifier()->profileHas(chip->profileName()) ? "" : " (profile missing)")
                          : fmt::format("-chip {}", key.view()));
  }
  void onProfile(Kiv::String const& key) override {
    events.push_back(fmt::format("{}profile {}", notifier()->profileHas(key) ? "+" : "-", key.view()));
  }
  std::vector<std::string> events;
};

TEST_F(SystemStatusShmTest, FollowerStartsFromThePublishedStatusAndAppliesChangesInHookOrder) {
  EXPECT_EQ(systemStatusPath("sys0"), "hardware/sys0/system/status");
  EXPECT_THROW(systemStatusPath("a/b"), std::invalid_argument);
  auto pub = SystemStatusPublisher::open(root(), "sys0");
  pub.profileIs(PossibleProfile("p1", PossibleHwApi(1, 2)));
  pub.chipIs("chip0", DevId(7), "p1");
  EXPECT_THROW(pub.chipIs(std::string(64, 'c'), DevId(1), "p1"), std::invalid_argument);

  SystemStatusFollower follower(root(), "sys0");
  auto const& status = follower.systemStatus();
  ASSERT_TRUE(status->chipStatusHas("chip0"));
  EXPECT_EQ(status->chipStatus("chip0")->devId(), DevId(7));
  EXPECT_EQ(status->profile("p1"), PossibleProfile("p1", PossibleHwApi(1, 2)));
  Recorder recorder;
  recorder.notifierIs(status);

  // One batch: a new chip on a new profile, a chip moved to it, the old profile withdrawn.
  pub.chipIs("chip1", DevId(9), "p2");  // published before its profile: the follower still applies profiles first
  pub.profileIs(PossibleProfile("p2", PossibleHwApi(2, 0)));
  pub.chipIs("chip0", DevId(7), "p2");
  pub.profileDel("p1");
  ASSERT_TRUE(readable(follower.fd()));
  EXPECT_EQ(follower.dispatch(), 4u);
  EXPECT_EQ(recorder.events, (std::vector<std::string>{"+profile p2", "+chip chip1 9 p2", "-profile p1"}));
  EXPECT_EQ(status->chipStatus("chip0")->profileName(), Kiv::String("p2"));

  recorder.events.clear();
  pub.chipDel("chip1");
  ASSERT_TRUE(readable(follower.fd()));
  follower.dispatch();
  EXPECT_EQ(recorder.events, std::vector<std::string>{"-chip chip1"});
  EXPECT_EQ(readSystemStatus(root(), "sys0").chips.size(), 1u);
}

// The publisher runs in a child killed at random instants; after each kill the follower is
// woken (the publisher's end wakes it too) and holds exactly what a reader of the table reads,
// every chip whole (its device and profile as one write left them).
TEST_F(SystemStatusShmTest, PublisherKilledMidChangeLeavesAStatusTheFollowerReadsWhole) {
  SystemStatusFollower follower(root(), "sys1");  // before anything is published
  std::mt19937 rng(7);
  for (U32 round = 0; round < 30 && !HasFailure(); ++round) {
    pid_t const child = ::fork();
    if (child == 0) {
      auto pub = SystemStatusPublisher::open(root(), "sys1");
      for (U32 i = 0;; ++i) {
        U32 const n = (i * 7 + round) % 13;
        std::string const name = "chip" + std::to_string(n);
        pub.profileIs(PossibleProfile(Kiv::String("p" + std::to_string(n)), PossibleHwApi(n, i)));
        if (i % 4 == 3) pub.chipDel(name);
        else pub.chipIs(name, DevId(static_cast<U8>(n)), "p" + std::to_string(n));
      }
    }
    ::usleep(rng() % 3000);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    // Whatever the child rang (or its end, closing the bell) is queued by the time waitpid returns.
    if (readable(follower.fd(), 0)) follower.dispatch();
    if (!root().exists(systemStatusPath("sys1"))) continue;  // killed before it published anything
    auto const& status = follower.systemStatus();
    auto const published = readSystemStatus(root(), "sys1");
    ASSERT_EQ(status->chipStatusEntries().size(), published.chips.size()) << "round " << round;
    for (auto const& chip : published.chips) {
      auto const mine = status->chipStatus(Kiv::String(chip.name));
      ASSERT_TRUE(mine) << chip.name;
      EXPECT_EQ("chip" + std::to_string(mine->devId().value()), chip.name);
      EXPECT_EQ(mine->profileName().str(), "p" + std::to_string(chip.devId.value()));
    }
    for (auto const& profile : published.profiles)
      EXPECT_EQ(status->profile(Kiv::String(profile.name)).hwApi, profile.hwApi) << profile.name;
  }
}

}  // namespace
