// The system status types, and the state machine that builds and removes each chip's
// objects: a derived class whose hooks build a real chip mounted in a private
// shared-memory root and a PCI transport over a regular file standing in for the
// register window, so that what reaches the "hardware" can be read back.
#include "TarnRegFile/SystemChipStatusSm.h"

#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/TransportDescriptor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

using namespace TarnRegFile;

namespace {

using Events = std::vector<std::string>;

template <class T>
T parse(std::string const& text) {
  return Kiv::fromText<T>(text);
}

// ================================================================ value types

TEST(PossibleHwApi, TruthValueIsFalseOnlyForVersionZero) {
  for (auto [api, truth] : {std::pair{PossibleHwApi(0, 0), false}, {PossibleHwApi(0, 1), true}, {PossibleHwApi(1, 0), true}})
    EXPECT_EQ(static_cast<bool>(api), truth) << api;
  EXPECT_FALSE(PossibleProfile());
  EXPECT_TRUE(PossibleProfile("p1", PossibleHwApi()));
  EXPECT_TRUE(PossibleProfile("", PossibleHwApi(0, 1)));
  EXPECT_NE(PossibleProfile("p1", PossibleHwApi(1, 2)), PossibleProfile("p1", PossibleHwApi(1, 3)));
}

TEST(PossibleProfile, TextFormNestsTheVersionAndParsesBack) {
  PossibleProfile const p("p1", PossibleHwApi(1, 2));
  std::string const text =
      "Value('TarnRegFile::PossibleProfile', ** {'profileName': 'p1', "
      "'hwApi': Value('TarnRegFile::PossibleHwApi', ** {'major': 1, 'minor': 2})})";
  EXPECT_EQ(p.valueToStrep(), text);
  EXPECT_EQ(fmt::format("{}", p), text);
  EXPECT_EQ(parse<PossibleProfile>(text), p);
  EXPECT_EQ(parse<PossibleHwApi>(PossibleHwApi(4294967295u, 0).valueToStrep()), PossibleHwApi(4294967295u, 0));
  EXPECT_FALSE(parse<PossibleProfile>(PossibleProfile().valueToStrep()));
}

TEST(PossibleProfile, MalformedTextIsRefusedWithThePartThatFailed) {
  for (std::string const text : {
           "Value('TarnRegFile::PossibleHwApi', ** {'major': 1})",
           "Value('TarnRegFile::PossibleHwApi', ** {'major': 4294967296, 'minor': 0})",
           "Value('TarnRegFile::PossibleHwApi', ** {'minor': 1, 'major': 2})",
       })
    EXPECT_THROW(parse<PossibleHwApi>(text), Kiv::ParseException) << text;
  try {
    parse<PossibleProfile>("Value('TarnRegFile::PossibleProfile', ** {'profileName': 'p', 'hwApi': 7})");
    ADD_FAILURE() << "parsed";
  } catch (Kiv::ParseException const& e) {
    EXPECT_EQ(std::string(e.what()).rfind("hwApi: ", 0), 0u) << e.what();
  }
}

TEST(MountConstants, FixedPathsAllValuesEqualAndFalse) {
  EXPECT_STREQ(MountConstants::systemStatusPathFormat, "hardware/%s/system/status");
  EXPECT_STREQ(MountConstants::shadowFieldsConfigPathPrefix, "TarnRegFile/shadowFieldsConfig");
  EXPECT_EQ(MountConstants(), MountConstants());
  EXPECT_FALSE(MountConstants());
}

TEST(DevId, TextFormIsTheNumberAndOnlyEightBitsParse) {
  EXPECT_EQ(Hardware::DevId(200).valueToStrep(), "200");
  EXPECT_EQ(fmt::format("{}", Hardware::DevId(7)), "7");
  EXPECT_EQ(parse<Hardware::DevId>("255"), Hardware::DevId(255));
  EXPECT_THROW(parse<Hardware::DevId>("256"), Kiv::ParseException);
  EXPECT_FALSE(Hardware::DevId());
}

// ================================================================ status entities

struct StatusLog : PossibleSystemStatus::Notifiee, PossibleChipStatus::Notifiee {
  void onChipStatus(Kiv::String const& k) override { events.push_back("chipStatus " + k.str()); }
  void onProfile(Kiv::String const& k) override { events.push_back("profile " + k.str()); }
  void onDevId() override { events.push_back("devId"); }
  void onProfileName() override { events.push_back("profileName"); }
  Events events;
};

TEST(PossibleSystemStatus, ChipStatusIsReturnsTheExistingEntryWithoutNotification) {
  auto const status = possibleSystemStatusFactory("sys");
  StatusLog log;
  log.PossibleSystemStatus::Notifiee::notifierIs(status);
  auto const c0 = status->chipStatusIs("c0");
  EXPECT_EQ(c0->name(), "c0");
  EXPECT_EQ(status->chipStatusIs("c0"), c0);
  log.PossibleChipStatus::Notifiee::notifierIs(c0);
  c0->devIdIs(Hardware::DevId(3));
  c0->devIdIs(Hardware::DevId(3));
  c0->profileNameIs("p1");
  c0->profileNameIs("p1");
  EXPECT_EQ(status->chipStatusDel("absent"), nullptr);
  EXPECT_EQ(status->chipStatusDel("c0"), c0);
  EXPECT_EQ(log.events, (Events{"chipStatus c0", "devId", "profileName", "chipStatus c0"}));
}

TEST(PossibleSystemStatus, ProfileIsNotifiesOnlyForANewOrDifferentValue) {
  auto const status = possibleSystemStatusFactory("sys");
  StatusLog log;
  log.PossibleSystemStatus::Notifiee::notifierIs(status);
  status->profileIs(PossibleProfile("p1", PossibleHwApi(1, 2)));
  status->profileIs(PossibleProfile("p1", PossibleHwApi(1, 2)));
  status->profileIs(PossibleProfile("p1", PossibleHwApi(1, 3)));
  EXPECT_EQ(status->profile("p1").hwApi, PossibleHwApi(1, 3));
  status->profileIs(PossibleProfile("p2", PossibleHwApi(2, 0)));
  status->profileDel("absent");
  status->profileDelAll();
  EXPECT_TRUE(status->profileEntries().empty());
  EXPECT_FALSE(status->profile("p1"));
  std::sort(log.events.begin() + 3, log.events.end());
  EXPECT_EQ(log.events, (Events{"profile p1", "profile p1", "profile p2", "profile p1", "profile p2"}));
}

TEST(PossibleSystemStatus, GenericInterfaceTakesProfilesAndDeviceIdentifiersAsText) {
  auto& registry = Kiv::TypeRegistry::instance();
  auto const status = registry.create("TarnRegFile::PossibleSystemStatus", "sys");
  EXPECT_EQ(registry.call(*status, "chipStatusIs", {"c0"}), "<TarnRegFile::PossibleChipStatus 'c0'>");
  std::string const profile = PossibleProfile("p1", PossibleHwApi(1, 2)).valueToStrep();
  registry.call(*status, "profileIs", {profile});
  EXPECT_EQ(registry.call(*status, "profile", {"p1"}), profile);
  auto const chip = dynamic_cast<PossibleSystemStatus&>(*status).chipStatus("c0");
  registry.attributeIs(*chip, "devId", "17");
  EXPECT_EQ(chip->devId(), Hardware::DevId(17));
  EXPECT_EQ(registry.attribute(*chip, "devId"), "17");
}

// ================================================================ state machine

constexpr char const* kMap = "number,name,type,writeable,width\n0,ctrl,cfg,true,32\n1,data,cfg,true,32\n";

enum class Mount { both, none, configOnly, misnamed };

// What the hooks need, and where every observed step is logged.
struct Environment {
  Kiv::Ptr<Kiv::Shm::EntityManager> em;
  std::string csv;
  std::string window;
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

// The agent's side: chip c has field a (byte 0, register "ctrl") = 0 and b (bits 8..15 of
// register "data" at byte 4) = 5, each behind a logical field of register "lreg".
class TestChipStatusSm : public SystemChipStatusSmBase {
public:
  TestChipStatusSm(Environment& env, Kiv::Ptr<PossibleSystemStatus> const& status,
                   Kiv::Ptr<LogicalModel> const& logical, Kiv::Ptr<PhysicalModel> const& physical)
      : SystemChipStatusSmBase(env.em, status, logical, physical), env_(env) {}

  Kiv::Ptr<LogicalChip> createLogicalChip(Kiv::String const& name) override {
    env_.events.push_back("createLogicalChip " + name.str());
    auto chip = LogicalChip::LogicalChipIs(env_.mount == Mount::misnamed ? Kiv::String("other") : name);
    watchers_.push_back(std::make_unique<ReadyWatcher>(chip, env_.events));
    // Unmounted, the chip stays empty: the write state machine, built before the shadow-field
    // check, would otherwise reach for the configuration first.
    if (env_.mount == Mount::none) return chip;
    chip->populatePhysicalField("CTRL", "a", 0, 8);
    chip->physicalFieldCountIs(4);
    chip->populatePhysicalField("DATA", "b", 8, 8);
    chip->populateLogicalField("lreg", "a", 0, 8, 0);
    chip->populateLogicalField("lreg", "b", 8, 8, 5);
    chip->translationIs()->populate("lreg", "a", "CTRL", "a");
    chip->translationIs()->populate("lreg", "b", "DATA", "b");
    chip->mountShadowFields(shmemEntityManager(),
                            std::string(MountConstants::shadowFieldsConfigPathPrefix) + "/" + chip->name().str(),
                            "TarnRegFile/shadowFieldsStatus/" + chip->name().str());
    if (env_.mount == Mount::configOnly) chip->shadowFieldsStatusIs(nullptr);
    return chip;
  }

  Kiv::Ptr<TransportMethod> createTransport(Kiv::String const& name) override {
    env_.events.push_back("createTransport " + name.str());
    return pciTransport(env_, name);
  }

  static Kiv::Ptr<TransportMethod> pciTransport(Environment const& env, Kiv::String const& name) {
    auto transport = TransportMethod::TransportMethodIs(name);
    transport->init(PciTransportDescriptor::PciTransportDescriptorIs(Hardware::pciDovImplFactory(env.window)),
                    Kiv::String(env.csv));
    return transport;
  }

private:
  Environment& env_;
  std::vector<std::unique_ptr<ReadyWatcher>> watchers_;
};

// Logs the models' changes as "<attribute> <key> in|out".
struct ModelLog : LogicalModel::Notifiee, PhysicalModel::Notifiee {
  ModelLog(Kiv::Ptr<LogicalModel> const& l, Kiv::Ptr<PhysicalModel> const& p, Events& events) : events_(events) {
    LogicalModel::Notifiee::notifierIs(l);
    PhysicalModel::Notifiee::notifierIs(p);
  }
  static char const* where(bool has) { return has ? " in" : " out"; }
  void onChip(Kiv::String const& k) override {
    events_.push_back("chip " + k.str() + where(LogicalModel::Notifiee::notifier()->chipHas(k)));
  }
  void onWriteSm(Kiv::String const& k) override {
    events_.push_back("writeSm " + k.str() + where(LogicalModel::Notifiee::notifier()->writeSmHas(k)));
  }
  void onShadowSm(Kiv::String const& k) override {
    events_.push_back("shadowSm " + k.str() + where(PhysicalModel::Notifiee::notifier()->shadowSmHas(k)));
  }
  void onTransport(Kiv::String const& k) override {
    events_.push_back("transport " + k.str() + where(PhysicalModel::Notifiee::notifier()->transportHas(k)));
  }
  Events& events_;
};

class SystemChipStatus : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/dev/shm/tarn-status-test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    base_ = pattern;
    env.em = Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(base_ + "/root"));
    env.csv = base_ + "/chip.csv";
    env.window = base_ + "/resource0";
    std::ofstream(env.csv) << kMap;
    fd_ = ::open(env.window.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_EQ(0, ::ftruncate(fd_, 0x1000));
    sm = Kiv::create<TestChipStatusSm>(env, status, logical, physical);
    log = std::make_unique<ModelLog>(logical, physical, env.events);
  }
  void TearDown() override {
    log.reset();
    sm = nullptr;
    logical = nullptr;
    physical = nullptr;
    env.em = nullptr;
    ::close(fd_);
    std::filesystem::remove_all(base_);
  }
  // A register as the hardware holds it, read past the transport.
  U32 reg(U32 offset) const {
    U32 value = 0;
    EXPECT_EQ(4, ::pread(fd_, &value, 4, offset));
    return value;
  }
  // The applied value of physical field @p reg - @p field of chip c0, as recorded in shared memory.
  U32 applied(char const* reg, char const* field) {
    auto const chip = logical->chip("c0");
    auto const key = chip->physicalField(PhysicalFieldName(PhysicalRegisterName("c0", reg), field)).key;
    return chip->shadowFieldsStatus()->field(key).value;
  }

  // What `tarnreg shadow show` prints for the table at @p path of this test's root.
  std::string shadowShow(std::string const& path) const {
    std::string const command =
        std::string(TARN_BINARY_DIR "/tools/tarnreg shadow show --root ") + base_ + "/root " + path;
    std::FILE* const out = ::popen(command.c_str(), "r");
    std::string text;
    char buffer[256];
    for (size_t n; out && (n = std::fread(buffer, 1, sizeof buffer, out)) > 0;) text.append(buffer, n);
    EXPECT_TRUE(out && ::pclose(out) == 0) << command;
    return text;
  }

  std::string base_;
  int fd_ = -1;
  Environment env;
  Kiv::Ptr<PossibleSystemStatus> status = possibleSystemStatusFactory("sys");
  Kiv::Ptr<LogicalModel> logical = logicalModelFactory();
  Kiv::Ptr<PhysicalModel> physical = physicalModelFactory();
  Kiv::Ptr<TestChipStatusSm> sm;
  std::unique_ptr<ModelLog> log;
};

TEST_F(SystemChipStatus, NewChipGetsItsObjectsInOrderAndItsValuesReachTheHardware) {
  Kiv::TraceCapture trace("TarnRegFile/SystemChipStatusSm");
  status->chipStatusIs("c0");
  EXPECT_EQ(env.events, (Events{"createLogicalChip c0", "chip c0 in", "ready c0 true", "writeSm c0 in",
                                "createTransport c0", "transport c0 in", "shadowSm c0 in"}));
  EXPECT_TRUE(trace.contains("ChipStatusSmBase::handleSystemChipStatus chipName: c0, add", 5));
  EXPECT_FALSE(sm->initialized());
  EXPECT_EQ(reg(4), 0x500u) << "the non-zero initial value of b went out";
  EXPECT_EQ(reg(0), 0u);
  EXPECT_EQ(applied("DATA", "b"), 5u);
  EXPECT_FALSE(physical->shadowSm("c0")->simulate());
  // From now on a logical write reaches the register without further help.
  logical->chip("c0")->fieldWrite("lreg", "a", 0x7);
  EXPECT_EQ(reg(0), 0x7u);
  // Another process reads what was applied, while this one keeps the tables as their writer.
  EXPECT_EQ(shadowShow("TarnRegFile/shadowFieldsStatus/c0"),
            "address     start  size  value\n"
            "0x00000000      0     8  0x00000007\n"
            "0x00000004      8     8  0x00000005\n");
  // Changes inside a chip status, and a repeated chipStatusIs, do not reach the state machine.
  env.events.clear();
  status->chipStatus("c0")->devIdIs(Hardware::DevId(9));
  status->chipStatusIs("c0");
  EXPECT_TRUE(env.events.empty());
}

TEST_F(SystemChipStatus, APresentChipProcessedAgainGetsOnlyANewShadowStateMachine) {
  status->chipStatusIs("c0");
  auto const chip = logical->chip("c0");
  auto const writeSm = logical->writeSm("c0");
  auto const transport = physical->transport("c0");
  auto const oldShadowSm = physical->shadowSm("c0");
  env.events.clear();
  Kiv::TraceCapture trace("TarnRegFile/SystemChipStatusSm");
  sm->handleSystemChipStatus();
  EXPECT_EQ(env.events, (Events{"shadowSm c0 in"}));
  EXPECT_TRUE(trace.contains("ChipStatusSmBase::handleSystemChipStatus", 5));
  EXPECT_EQ(logical->chip("c0"), chip);
  EXPECT_EQ(logical->writeSm("c0"), writeSm);
  EXPECT_EQ(physical->transport("c0"), transport);
  EXPECT_NE(physical->shadowSm("c0"), oldShadowSm);
  EXPECT_EQ(physical->shadowSm("c0")->transport(), transport);
  // The generic interface reaches the same reconciliation.
  env.events.clear();
  Kiv::TypeRegistry::instance().call(*sm, "handleSystemChipStatus", {"c0"});
  EXPECT_EQ(env.events, (Events{"shadowSm c0 in"}));
}

TEST_F(SystemChipStatus, ATransportAlreadyInTheModelIsUsedAsIs) {
  auto const own = TestChipStatusSm::pciTransport(env, "c0");
  physical->transportIs(own);
  env.events.clear();
  status->chipStatusIs("c0");
  EXPECT_EQ(env.events, (Events{"createLogicalChip c0", "chip c0 in", "ready c0 true", "writeSm c0 in", "shadowSm c0 in"}));
  EXPECT_EQ(physical->transport("c0"), own);
  EXPECT_EQ(physical->shadowSm("c0")->transport(), own);
}

TEST_F(SystemChipStatus, RemovalClearsReadyFirstThenRemovesAllFourInOrder) {
  status->chipStatusIs("c0");
  status->chipStatusIs("c1");
  auto const chip = logical->chip("c0");
  env.events.clear();
  Kiv::TraceCapture trace("TarnRegFile/SystemChipStatusSm");
  status->chipStatusDel("c0");
  EXPECT_EQ(env.events, (Events{"ready c0 false", "writeSm c0 out", "chip c0 out", "shadowSm c0 out", "transport c0 out"}));
  EXPECT_TRUE(trace.contains("ChipStatusSmBase::handleSystemChipStatus chipName: c0, del", 5));
  EXPECT_FALSE(chip->ready());
  EXPECT_TRUE(logical->chipHas("c1") && physical->shadowSmHas("c1")) << "the other chip keeps its objects";
}

TEST_F(SystemChipStatus, SimulateIsReadWhenEachShadowStateMachineIsBuilt) {
  physical->simulateIs(true);
  status->chipStatusIs("c0");
  EXPECT_TRUE(physical->shadowSm("c0")->simulate());
  auto const chip = logical->chip("c0");
  chip->fieldWrite("lreg", "a", 0x7);
  EXPECT_EQ(reg(4), 0u);
  EXPECT_EQ(reg(0), 0u);
  EXPECT_EQ(applied("DATA", "b"), 5u) << "bookkeeping goes on while simulating";
  EXPECT_EQ(applied("CTRL", "a"), 7u);
  // The machine that exists keeps simulating; the next pass builds one that writes.
  physical->simulateIs(false);
  chip->fieldWrite("lreg", "a", 0x8);
  EXPECT_EQ(reg(0), 0u);
  sm->handleSystemChipStatus();
  EXPECT_FALSE(physical->shadowSm("c0")->simulate());
  EXPECT_EQ(reg(0), 0u) << "what simulation recorded counts as applied";
  chip->fieldWrite("lreg", "a", 0x9);
  EXPECT_EQ(reg(0), 0x9u);
}

TEST_F(SystemChipStatus, SwitchedOffTheStateMachineIgnoresTheStatus) {
  sm->hasNotificationActiveIs(false);
  status->chipStatusIs("c0");
  EXPECT_TRUE(env.events.empty());
  sm->hasNotificationActiveIs(true);
  sm->handleSystemChipStatus();
  EXPECT_TRUE(logical->chipHas("c0"));
}

TEST_F(SystemChipStatus, AHookResultUnderAnotherNameIsAnErrorAndKeptWhereItWent) {
  env.mount = Mount::misnamed;
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
  env.mount = Mount::none;
  EXPECT_DEATH(status->chipStatusIs("c0"), "condition: lChip->shadowFieldsConfig\\(\\)\n  message:   Chip c0 has no "
                                           "mounted ShadowFieldsConfig");
  env.mount = Mount::configOnly;
  EXPECT_DEATH(status->chipStatusIs("c0"), "condition: lChip->shadowFieldsStatus\\(\\)\n  message:   Chip c0 has no "
                                           "mounted ShadowFieldsStatus");
}

}  // namespace
