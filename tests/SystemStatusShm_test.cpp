// The published system status: a follower starts from what is published and applies
// later changes in an order the chip state machine's hooks can rely on. A publisher
// killed mid-change is followed by the agent in Agent_test.

#include "TarnRegFile/SystemStatusShm.h"

#include "helpers/ShmTestTraits.h"

#include <vector>

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

}  // namespace
