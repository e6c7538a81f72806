// The reconcile path across process deaths: a child process runs a chip's whole write path
// (logical field -> desired shadow value -> register write -> applied shadow value) over a
// PCI window file and is SIGKILLed at random instants. After each kill a new shadow state
// machine, built from the two shared collections alone, must bring every register to its
// desired image with one write per register that needs one and none for the others.
#include "TarnRegFile/LogicalSms.h"
#include "TarnRegFile/ShadowSms.h"

#include "support/ChipRig.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

using namespace TarnRegFile;
using TarnTest::ChipRig;
using TarnTest::CountingPciTransport;

namespace {

constexpr U32 kPoison = 0xDEADBEEF;

// One record per field write the child is about to make; a zero record says it is running.
struct Intent {
  uint16_t reg;
  uint8_t field;
  uint8_t value;
};

// The child: an agent's write path for one chip, writing random fields until it is killed.
[[noreturn]] void runWriter(ChipRig const& rig, int logFd, unsigned seed) {
  auto em = rig.entityManager();
  auto chip = rig.mountedChip(em);
  chip->readyIs(true);
  auto writeSm = logicalWriteSmFactory(chip);
  auto shadowSm = shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), rig.transport(), false);
  Intent running{0xFFFF, 0, 0};
  if (::write(logFd, &running, sizeof running) != sizeof running) ::_exit(3);
  std::mt19937 random(seed);
  for (;;) {
    Intent const next{static_cast<uint16_t>(random() % rig.registers()), static_cast<uint8_t>(random() % 4),
                      static_cast<uint8_t>(random())};
    if (::write(logFd, &next, sizeof next) != sizeof next) ::_exit(3);
    chip->fieldWrite(Kiv::String("R" + std::to_string(next.reg)), Kiv::String("f" + std::to_string(next.field)),
                     next.value);
  }
}

class Reconcile : public ::testing::Test {
protected:
  // Starts a writer, kills it after @p runFor, and returns what it said it was doing.
  std::vector<Intent> killWriterAfter(std::chrono::microseconds runFor, unsigned seed) {
    int fds[2];
    EXPECT_EQ(0, ::pipe2(fds, O_CLOEXEC));
    pid_t const pid = ::fork();
    if (pid == 0) {
      ::close(fds[0]);
      runWriter(rig_, fds[1], seed);
    }
    ::close(fds[1]);
    std::this_thread::sleep_for(runFor);
    ::kill(pid, SIGKILL);
    int status = 0;
    EXPECT_EQ(pid, ::waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer died of something else";
    std::vector<Intent> intents;
    Intent i;
    while (::read(fds[0], &i, sizeof i) == sizeof i) intents.push_back(i);
    ::close(fds[0]);
    return intents;
  }

  // Every desired value is the last the writer meant to write (0 if none: mounting zeroed them
  // all), or, for the field in hand when it died, possibly the one before.
  void expectDesiredValuesKept(std::vector<Intent> const& intents) {
    if (intents.empty()) return;  // killed while mounting: the reset itself was cut off
    std::map<std::pair<int, int>, U32> latest, before;
    for (size_t n = 1; n < intents.size(); ++n) {
      std::pair<int, int> const k{intents[n].reg, intents[n].field};
      before[k] = latest[k];
      latest[k] = intents[n].value;
    }
    std::pair<int, int> const pending{intents.back().reg, intents.size() > 1 ? intents.back().field : -1};
    for (ShadowFieldValue const& v : ShadowFields::readShadowTable(Kiv::Shm::Root(rig_.shmRoot()), rig_.configPath())) {
      std::pair<int, int> const k{static_cast<int>(v.key.address / 4), v.key.start / 8};
      EXPECT_TRUE(v.value == latest[k] || (k == pending && v.value == before[k]))
          << "R" << k.first << ".f" << k.second << " holds " << v.value;
    }
  }

  // A new state machine over the shared collections; returns the register writes it made.
  std::map<std::string, int> recover() {
    auto em = rig_.entityManager();
    auto const description = Kiv::Shm::MountDescription().collectionIs("field", 4 * rig_.registers());
    auto group = em->mountGroup();
    group.mount(rig_.configPath(), "TarnRegFile::ShadowFieldsConfig", description);
    group.mount(rig_.statusPath(), "TarnRegFile::ShadowFieldsStatus", description);
    group.close();
    CountingPciTransport* counter = nullptr;
    auto transport = rig_.transport(&counter);
    auto sm = shadowFieldsSmFactory(Kiv::ptr_cast<ShadowFieldsConfig>(em->entity(rig_.configPath())),
                                    Kiv::ptr_cast<ShadowFieldsStatus>(em->entity(rig_.statusPath())), transport, false);
    std::map<std::string, int> writes = counter->writes;
    sm = nullptr;
    em->unmount(rig_.configPath());
    em->unmount(rig_.statusPath());
    return writes;
  }

  // A writer killed before its first mount created the tables leaves nothing to check.
  bool tablesExist() const {
    return std::filesystem::exists(rig_.shmRoot() + "/" + rig_.configPath()) &&
           std::filesystem::exists(rig_.shmRoot() + "/" + rig_.statusPath());
  }

  ChipRig rig_{32};
};

TEST_F(Reconcile, AWriterKilledAtRandomInstantsLosesNothingAndItsSuccessorWritesOnlyWhatDiffers) {
  using namespace std::chrono;
  std::mt19937 random(20261122);
  auto const deadline = steady_clock::now() + seconds(60);
  int kills = 0;
  int recoveries = 0;
  for (; kills < 300 && steady_clock::now() < deadline; ++kills) {
    // Every other kill lands early, while the writer mounts and resets its tables.
    auto const intents = killWriterAfter(microseconds(random() % (kills % 2 ? 2000 : 15000)), random());
    SCOPED_TRACE("kill " + std::to_string(kills));
    if (!tablesExist()) continue;
    expectDesiredValuesKept(intents);

    auto const desired = rig_.images(rig_.configPath());
    auto const applied = rig_.images(rig_.statusPath());
    std::map<std::string, int> expectedWrites;
    for (int r = 0; r < rig_.registers(); ++r) {
      U32 const now = rig_.fileRegister(r);
      // A register is written whole, between recording the desired and the applied value.
      ASSERT_TRUE(now == applied[r] || now == desired[r]) << "R" << r << " holds a torn image " << std::hex << now;
      if (desired[r] != applied[r])
        expectedWrites["R" + std::to_string(r)] = 1;
      else
        rig_.fileRegisterIs(r, kPoison);  // must not be written
    }
    ASSERT_EQ(recover(), expectedWrites);
    recoveries += expectedWrites.empty() ? 0 : 1;
    for (int r = 0; r < rig_.registers(); ++r) {
      if (rig_.fileRegister(r) == kPoison) rig_.fileRegisterIs(r, desired[r]);  // the true hardware value
      ASSERT_EQ(rig_.fileRegister(r), desired[r]) << "R" << r;
    }
    ASSERT_EQ(rig_.images(rig_.statusPath()), desired) << "the successor records what it applied";
  }
  EXPECT_GE(kills, 30) << "too few kills in the time allowed to mean anything";
  EXPECT_GT(recoveries, 0) << "no kill ever landed between a desired and an applied value";
}

}  // namespace
