// The system status types, the models that hold each chip's objects, and the state machine
// that builds and removes them: a derived class whose hooks build chips of a test rig,
// mounted in its private shared-memory root, over a PCI transport on a regular file standing
// in for the register window, so that what reaches the "hardware" can be read back.
#include "TarnRegFile/SystemChipStatusSm.h"

#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/Trace.h"
#include "support/ChipRig.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace TarnRegFile;
using TarnTest::ChipRig;

namespace {

using Events = std::vector<std::string>;

// ================================================================ value types

TEST(PossibleProfile, TheLooseTextFormParsesBack) {
  // Both types take any spacing after the colons, the version inside the profile too.
  EXPECT_EQ(Kiv::fromText<PossibleProfile>("Value('TarnRegFile::PossibleProfile', ** {'profileName':'p1', 'hwApi':   "
                                           "Value('TarnRegFile::PossibleHwApi', ** {'major':4294967295, 'minor':  0})})"),
            PossibleProfile("p1", PossibleHwApi(4294967295u, 0)));
  EXPECT_FALSE(Kiv::fromText<PossibleProfile>(PossibleProfile().valueToStrep()));
}

// ================================================================ state machine

enum class Mount { both, none, configOnly, misnamed };

// What the hooks build from, and where every observed step is logged.
struct Bench {
  ChipRig rig{1, "c0"};
  Mount mount = Mount::both;
  Events events;
};

// Logs the chip's ready flag as the state machine sets it.
struct ReadyWatcher : LogicalChip::Notifiee {
  ReadyWatcher(Kiv::Ptr<LogicalChip> const& chip, Events& events) : events_(events) { notifierIs(chip); }
  void onReady() override {
    events_.push_back("ready " + notifier()->name().str() + (notifier()->ready() ? " true" : " false"));
  }
  Events& events_;
};

// The agent's side: chips of the rig with every logical field starting at 5, mounted through
// the entity manager the base keeps for the hooks, over counting PCI transports.
class TestChipStatusSm : public SystemChipStatusSmBase {
public:
  TestChipStatusSm(Bench& bench, Kiv::Ptr<PossibleSystemStatus> const& status, Kiv::Ptr<LogicalModel> const& logical,
                   Kiv::Ptr<PhysicalModel> const& physical)
      : SystemChipStatusSmBase(bench.rig.entityManager(), status, logical, physical), bench_(bench) {}

  Kiv::Ptr<LogicalChip> createLogicalChip(Kiv::String const& name) override {
    bench_.events.push_back("createLogicalChip " + name.str());
    // Unmounted, the chip stays empty: the write state machine, built before the shadow-field
    // check, would otherwise reach for the configuration first.
    Mount const mount = bench_.mount;
    auto chip = mount == Mount::none || mount == Mount::misnamed
                    ? LogicalChip::LogicalChipIs(mount == Mount::none ? name : Kiv::String("other"))
                    : bench_.rig.mountedChip(shmemEntityManager(), name.str(), 5);
    if (mount == Mount::configOnly) chip->shadowFieldsStatusIs(nullptr);
    watchers_.push_back(std::make_unique<ReadyWatcher>(chip, bench_.events));
    return chip;
  }

  Kiv::Ptr<TransportMethod> createTransport(Kiv::String const& name) override {
    bench_.events.push_back("createTransport " + name.str());
    return bench_.rig.transport(nullptr, name.str());
  }

private:
  Bench& bench_;
  std::vector<std::unique_ptr<ReadyWatcher>> watchers_;
};

// Logs the models' changes as "<attribute> <key> in|out".
struct ModelLog : LogicalModel::Notifiee, PhysicalModel::Notifiee {
  ModelLog(Kiv::Ptr<LogicalModel> const& l, Kiv::Ptr<PhysicalModel> const& p, Events& events) : events_(events) {
    LogicalModel::Notifiee::notifierIs(l);
    PhysicalModel::Notifiee::notifierIs(p);
  }
  void add(char const* what, Kiv::String const& k, bool in) { events_.push_back(what + (" " + k.str()) + (in ? " in" : " out")); }
  auto& lm() { return *LogicalModel::Notifiee::notifier(); }
  auto& pm() { return *PhysicalModel::Notifiee::notifier(); }
  void onChip(Kiv::String const& k) override { add("chip", k, lm().chipHas(k)); }
  void onWriteSm(Kiv::String const& k) override { add("writeSm", k, lm().writeSmHas(k)); }
  void onShadowSm(Kiv::String const& k) override { add("shadowSm", k, pm().shadowSmHas(k)); }
  void onTransport(Kiv::String const& k) override { add("transport", k, pm().transportHas(k)); }
  void onSimulate() override { events_.push_back("simulate"); }
  Events& events_;
};

class SystemChipStatus : public ::testing::Test {
protected:
  Bench bench;
  ChipRig& rig = bench.rig;
  Kiv::Ptr<PossibleSystemStatus> status = possibleSystemStatusFactory("sys");
  Kiv::Ptr<LogicalModel> logical = logicalModelFactory();
  Kiv::Ptr<PhysicalModel> physical = physicalModelFactory();
  Kiv::Ptr<TestChipStatusSm> sm = Kiv::create<TestChipStatusSm>(bench, status, logical, physical);
  ModelLog log{logical, physical, bench.events};
};

// ================================================================ models, on their own

using SystemModels = SystemChipStatus;

TEST_F(SystemModels, OnlyRealChangesNotifyNullIsRefusedAndRemovalHandsTheEntryBack) {
  auto const t = transportMethodFactory("a");
  physical->transportIs(t);
  physical->transportIs(t);  // the same object again
  physical->simulateIs(true);
  physical->simulateIs(true);
  for (auto const& refused : std::initializer_list<std::function<void()>>{
           [&] { logical->chipIs(nullptr); }, [&] { logical->writeSmIs(nullptr); },
           [&] { physical->shadowSmIs(nullptr); }, [&] { physical->transportIs(nullptr); }})
    EXPECT_THROW(refused(), std::invalid_argument);
  EXPECT_EQ(physical->transportDel("a"), t);
  EXPECT_EQ(bench.events, (Events{"transport a in", "simulate", "transport a out"}));
}

// ================================================================ the state machine at work

TEST_F(SystemChipStatus, AChipGetsItsObjectsInOrderOnlyANewShadowSmWhenProcessedAgainAndLosesThemReadyFirst) {
  Kiv::TraceCapture trace("TarnRegFile/SystemChipStatusSm");
  status->chipStatusIs("c0");
  EXPECT_EQ(bench.events, (Events{"createLogicalChip c0", "chip c0 in", "ready c0 true", "writeSm c0 in",
                                  "createTransport c0", "transport c0 in", "shadowSm c0 in"}));
  EXPECT_TRUE(trace.contains("ChipStatusSmBase::handleSystemChipStatus chipName: c0, add", 5));
  EXPECT_EQ(rig.fileRegister(0), 0x05050505u) << "the initial values went out";

  // Processed again, by a full pass and by name through the generic interface.
  auto const oldShadowSm = physical->shadowSm("c0");
  bench.events.clear();
  sm->handleSystemChipStatus();
  Kiv::TypeRegistry::instance().call(*sm, "handleSystemChipStatus", {"c0"});
  EXPECT_EQ(bench.events, (Events{"shadowSm c0 in", "shadowSm c0 in"}));
  EXPECT_NE(physical->shadowSm("c0"), oldShadowSm);

  // Removed: ready is cleared before anything goes; another chip keeps its objects.
  status->chipStatusIs("c1");
  bench.events.clear();
  status->chipStatusDel("c0");
  EXPECT_EQ(bench.events,
            (Events{"ready c0 false", "writeSm c0 out", "chip c0 out", "shadowSm c0 out", "transport c0 out"}));
  EXPECT_TRUE(logical->chipHas("c1") && physical->shadowSmHas("c1"));
}

TEST_F(SystemChipStatus, SimulateIsReadWhenEachShadowStateMachineIsBuilt) {
  physical->simulateIs(true);
  status->chipStatusIs("c0");
  auto const chip = logical->chip("c0");
  // The machine that exists keeps simulating; the next pass builds one that writes.
  physical->simulateIs(false);
  chip->fieldWrite("R0", "f0", 0x8);
  EXPECT_EQ(rig.fileRegister(0), 0u);
  sm->handleSystemChipStatus();
  EXPECT_EQ(rig.fileRegister(0), 0u) << "what simulation recorded counts as applied";
  chip->fieldWrite("R0", "f0", 0x9);
  EXPECT_EQ(rig.fileRegister(0), 0x05050509u);
}

TEST_F(SystemChipStatus, ATransportAlreadyInTheModelIsUsedAsIs) {
  auto const own = rig.transport();
  physical->transportIs(own);
  bench.events.clear();
  status->chipStatusIs("c0");
  EXPECT_EQ(bench.events,
            (Events{"createLogicalChip c0", "chip c0 in", "ready c0 true", "writeSm c0 in", "shadowSm c0 in"}));
  EXPECT_EQ(physical->shadowSm("c0")->transport(), own);
}

TEST_F(SystemChipStatus, AHookResultUnderAnotherNameIsAnErrorAndKeptWhereItWent) {
  bench.mount = Mount::misnamed;
  try {
    status->chipStatusIs("c0");
    ADD_FAILURE() << "accepted";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "createLogicalChip(c0) made a chip named 'other'");
  }
  EXPECT_TRUE(logical->chipHas("other"));
  EXPECT_FALSE(logical->writeSmHas("c0") || physical->transportHas("c0"));
}

using SystemChipStatusDeathTest = SystemChipStatus;

TEST_F(SystemChipStatusDeathTest, UnknownChipRemovalAndUnmountedShadowFieldsAreFatal) {
  EXPECT_DEATH(sm->handleSystemChipStatus("ghost"),
               "condition: removedChip\n  message:   Status of chip ghost removed, but the chip was never added\n"
               "  unit:      TarnRegFile/SystemChipStatusSm");
  bench.mount = Mount::none;
  EXPECT_DEATH(status->chipStatusIs("c0"), "condition: lChip->shadowFieldsConfig\\(\\)\n  message:   Chip c0 has no "
                                           "mounted ShadowFieldsConfig");
  bench.mount = Mount::configOnly;
  EXPECT_DEATH(status->chipStatusIs("c0"), "condition: lChip->shadowFieldsStatus\\(\\)\n  message:   Chip c0 has no "
                                           "mounted ShadowFieldsStatus");
}

}  // namespace
