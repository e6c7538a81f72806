// The logical and physical models: keyed by the stored object's own name, notifying
// only real changes, handing back what they remove.
#include "TarnRegFile/SystemModels.h"

#include "TarnRegFile/platform/KivGeneric.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

using namespace TarnRegFile;

namespace {

// Every notification of both models, as "attribute key".
struct ModelLog : LogicalModel::Notifiee, PhysicalModel::Notifiee {
  ModelLog(Kiv::Ptr<LogicalModel> const& l, Kiv::Ptr<PhysicalModel> const& p) {
    LogicalModel::Notifiee::notifierIs(l);
    PhysicalModel::Notifiee::notifierIs(p);
  }
  void onChip(Kiv::String const& k) override { events.push_back("chip " + k.str()); }
  void onWriteSm(Kiv::String const& k) override { events.push_back("writeSm " + k.str()); }
  void onShadowSm(Kiv::String const& k) override { events.push_back("shadowSm " + k.str()); }
  void onTransport(Kiv::String const& k) override { events.push_back("transport " + k.str()); }
  void onSimulate() override { events.push_back("simulate"); }
  std::vector<std::string> events;
};

using Events = std::vector<std::string>;

// A shadow state machine that needs no shared memory: no collections, simulating, named after its transport.
Kiv::Ptr<ShadowFieldsSm> shadowSm(Kiv::Ptr<TransportMethod> const& transport) {
  return shadowFieldsSmFactory(nullptr, nullptr, transport, true);
}

class SystemModels : public ::testing::Test {
protected:
  Kiv::Ptr<LogicalModel> logical = logicalModelFactory();
  Kiv::Ptr<PhysicalModel> physical = physicalModelFactory();
  ModelLog log{logical, physical};
};

TEST_F(SystemModels, EntriesAreKeyedByTheirOwnNameAndOnlyRealChangesNotify) {
  auto const c0 = logicalChipFactory("c0");
  logical->chipIs(c0);
  logical->chipIs(c0);  // the same object again
  EXPECT_EQ(logical->chip("c0"), c0);
  auto const c0b = logicalChipFactory("c0");
  logical->chipIs(c0b);  // another object of that name replaces it
  EXPECT_EQ(logical->chip("c0"), c0b);
  logical->writeSmIs(logicalWriteSmFactory(c0b));
  EXPECT_TRUE(logical->writeSmHas("c0"));

  auto const t0 = transportMethodFactory("t0");
  physical->transportIs(t0);
  physical->transportIs(t0);
  auto const sm1 = shadowSm(t0);
  physical->shadowSmIs(sm1);
  EXPECT_EQ(physical->shadowSm("t0"), sm1);
  EXPECT_EQ(log.events, (Events{"chip c0", "chip c0", "writeSm c0", "transport t0", "shadowSm t0"}));
}

TEST_F(SystemModels, AReplacedShadowStateMachineIsReleased) {
  // Every live machine holds the transport: its count tells how many machines are left.
  auto const t0 = transportMethodFactory("t0");
  physical->shadowSmIs(shadowSm(t0));
  EXPECT_EQ(t0->references(), 2u);
  auto const second = shadowSm(t0);
  physical->shadowSmIs(second);
  EXPECT_EQ(physical->shadowSm("t0"), second);
  EXPECT_EQ(t0->references(), 2u) << "the first machine is gone";
  EXPECT_EQ(log.events, (Events{"shadowSm t0", "shadowSm t0"}));
}

TEST_F(SystemModels, DelReturnsTheRemovedEntryAndAnAbsentKeyChangesNothing) {
  auto const t0 = transportMethodFactory("t0");
  physical->transportIs(t0);
  log.events.clear();
  EXPECT_EQ(physical->transportDel("unknown"), nullptr);
  EXPECT_EQ(physical->transportEntries().size(), 1u);
  EXPECT_TRUE(log.events.empty());
  EXPECT_EQ(physical->transportDel("t0"), t0);
  EXPECT_FALSE(physical->transportHas("t0"));
  EXPECT_EQ(physical->transportDel("t0"), nullptr);
  EXPECT_EQ(log.events, (Events{"transport t0"}));
}

TEST_F(SystemModels, DelAllRemovesKeyByKeyWithANotificationEach) {
  for (char const* name : {"a", "b", "c"}) {
    auto chip = logicalChipFactory(name);
    logical->chipIs(chip);
    logical->writeSmIs(logicalWriteSmFactory(chip));
    auto transport = transportMethodFactory(name);
    physical->transportIs(transport);
    physical->shadowSmIs(shadowSm(transport));
  }
  log.events.clear();
  logical->chipDelAll();
  logical->writeSmDelAll();
  physical->shadowSmDelAll();
  physical->transportDelAll();
  EXPECT_TRUE(logical->chipEntries().empty() && logical->writeSmEntries().empty());
  EXPECT_TRUE(physical->shadowSmEntries().empty() && physical->transportEntries().empty());
  std::sort(log.events.begin(), log.events.end());
  EXPECT_EQ(log.events, (Events{"chip a", "chip b", "chip c", "shadowSm a", "shadowSm b", "shadowSm c", "transport a",
                                "transport b", "transport c", "writeSm a", "writeSm b", "writeSm c"}));
}

TEST_F(SystemModels, SimulateNotifiesOnlyOnChange) {
  EXPECT_FALSE(physical->simulate());
  physical->simulateIs(true);
  physical->simulateIs(true);
  physical->simulateIs(false);
  EXPECT_EQ(log.events, (Events{"simulate", "simulate"}));
}

TEST_F(SystemModels, NullEntriesAreRefusedBeforeAnythingChanges) {
  EXPECT_THROW(logical->chipIs(nullptr), std::invalid_argument);
  EXPECT_THROW(logical->writeSmIs(nullptr), std::invalid_argument);
  EXPECT_THROW(physical->shadowSmIs(nullptr), std::invalid_argument);
  EXPECT_THROW(physical->transportIs(nullptr), std::invalid_argument);
  EXPECT_TRUE(logical->chipEntries().empty() && physical->transportEntries().empty());
  EXPECT_TRUE(log.events.empty());
}

TEST_F(SystemModels, GenericInterfaceLooksUpRemovesAndSwitchesSimulate) {
  auto& registry = Kiv::TypeRegistry::instance();
  auto const model = registry.create("TarnRegFile::PhysicalModel", "");
  auto* physicalModel = dynamic_cast<PhysicalModel*>(model.ptr());
  ASSERT_NE(physicalModel, nullptr);
  physicalModel->transportIs(transportMethodFactory("t0"));
  EXPECT_EQ(registry.call(*model, "transport", {"t0"}), "<TarnRegFile::TransportMethod 't0'>");
  EXPECT_EQ(registry.call(*model, "transport", {"t1"}), "None");
  registry.attributeIs(*model, "simulate", "True");
  EXPECT_EQ(registry.attribute(*model, "simulate"), "True");
  EXPECT_EQ(registry.call(*model, "transportDel", {"t0"}), "<TarnRegFile::TransportMethod 't0'>");
  EXPECT_EQ(registry.call(*model, "transportHas", {"t0"}), "False");
  auto const logicalModel = registry.create("TarnRegFile::LogicalModel", "");
  EXPECT_EQ(registry.call(*logicalModel, "chipDel", {"c0"}), "None");
}

}  // namespace
