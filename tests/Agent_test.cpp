// tarnagent: its system description parsed in-process, then the agent as a real
// process with a real publisher of the system status, its control socket and tarnreg, over a
// private shared-memory root and a regular file standing in for the chip's PCI window.
#include "SystemDescription.h"

#include "support/ChipRig.h"
#include "support/ToolRun.h"

#include "TarnRegFile/SystemStatusShm.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

using namespace TarnTest;
using namespace std::chrono_literals;

// ================================================================ description

// A chip over @p rig's map: physical field Rr.fN, logical field Lr.fN at the same slice.
Json chipJson(ChipRig const& rig, std::string const& name) {
  Json fields = Json::array(), registers = Json::array();
  for (int r = 0; r < rig.registers(); ++r) {
    Json lfields = Json::array();
    for (int f = 0; f < ChipRig::kFieldsPerRegister; ++f) {
      std::string const reg = "R" + std::to_string(r), field = "f" + std::to_string(f);
      fields.push_back({{"register", reg}, {"field", field}, {"start", 8 * f}, {"size", 8}});
      lfields.push_back({{"name", field}, {"start", 8 * f}, {"size", 8}, {"physical", {{"register", reg}, {"field", field}}}});
    }
    registers.push_back({{"name", "L" + std::to_string(r)}, {"fields", lfields}});
  }
  return {{"name", name},
          {"map", rig.csvPath()},
          {"transport", {{"kind", "pci"}, {"resource", rig.windowPath()}}},
          {"fields", fields},
          {"registers", registers}};
}

TEST(SystemDescription, EachMistakeIsRefusedWithItsElementAndReason) {
  ChipRig const rig(2);
  Json const good = {{"system", "sys"}, {"chips", {chipJson(rig, "c0")}}};
  struct Case {
    char const* pointer;  // a JSON pointer to change, "" for the text itself
    Json value;
    std::string message;
  };
  std::vector<Case> const cases = {
      {"/chips/0/fields/3/start", 28, "chips[0].fields[3].size: bits 28..35 run past bit 31"},
      {"/chips/0/fields/3/start", "12", "chips[0].fields[3].start: '12' is not a number (give 42 or \"0x2a\")"},
      {"/chips/0/fields/1/start", 4, "chips[0].fields[1]: bits 4..11 overlap R0.f0 (bits 0..7)"},
      {"/chips/0/fields/2/register", "R9", "chips[0].fields[2].register: 'R9' is not in " + rig.csvPath()},
      {"/chips/0/fields/2/field", "f1", "chips[0].fields[2]: R0.f1 is already chips[0].fields[1]"},
      {"/chips/0/registers/0/fields/1/initial", 256, "chips[0].registers[0].fields[1].initial: 0x100 does not fit 8 bits"},
      {"/chips/0/registers/0/fields/1/size", 4, "chips[0].registers[0].fields[1].size: 4 differs from the 8 bits of R0.f1"},
      {"/chips/0/transport/kind", "usb", "chips[0].transport.kind: 'usb' is not one of mock, pci, i2c, i2c-async"},
      {"/chips/0/name", "a/b", "chips[0].name: 'a/b' is not a name (letters, digits, '_', '-', '.'; at most 64)"},
      {"/chips/1", {{"name", "c0"}, {"type", "t"}, {"transport", {{"kind", "mock"}}}}, "chips[1].name: 'c0' is already chips[0]"},
      {"/chips/0/registers/1/fields", {good["/chips/0/registers/1/fields/0"_json_pointer]},
       "chips[0].fields[5]: R1.f1 has no logical field"},
      {"", "{\"system\": \"s\",\n  \"chips\": [}", "line 2, column 13: syntax error"},
  };
  for (auto const& c : cases) {
    std::string text;
    if (*c.pointer) {
      Json broken = good;
      broken[Json::json_pointer(c.pointer)] = c.value;
      text = broken.dump();
    } else {
      text = c.value.get<std::string>();
    }
    try {
      TarnAgent::parseSystemDescription(text, "");
      ADD_FAILURE() << "accepted: " << c.message;
    } catch (TarnAgent::DescriptionError const& e) {
      EXPECT_EQ(std::string(e.what()).substr(0, c.message.size()), c.message) << e.what();
    }
  }
}

// ================================================================ the agent as a process

constexpr char const* kAgent = TARN_BINARY_DIR "/agent/tarnagent";

class AgentProcess : public ::testing::Test {
protected:
  void SetUp() override {
    description_ = rig_.dir() + "/system.json";
    std::ofstream(description_) << Json{{"system", "sys"}, {"chips", {chipJson(rig_, "c0")}}}.dump(1);
  }
  void TearDown() override {
    if (pid_ > 0) stop(SIGKILL);
  }

  std::string runtimeDir() const { return rig_.dir() + "/run"; }

  void start() {
    // Its own stderr file: tarnreg runs in between replace the directory's.
    pid_ = agent_.spawn({"--runtime-dir", runtimeDir(), "--shm-root", rig_.shmRoot(), description_}, "/dev/null",
                        rig_.dir() + "/agent.err");
    ASSERT_GT(pid_, 0);
    // The socket appears once the chips published at start are built.
    for (auto deadline = std::chrono::steady_clock::now() + 10s; ask("ping") != "ok pong\n";) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << slurp(rig_.dir() + "/agent.err");
      std::this_thread::sleep_for(5ms);
    }
  }
  // The exit status, or 128 + the signal that ended the agent.
  int stop(int signal = SIGTERM) {
    ::kill(pid_, signal);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return exitStatus(status);
  }

  // One connection per request; the answer line with its line end ("" when unreachable).
  std::string ask(std::string const& request) const {
    int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string const path = runtimeDir() + "/control.sock";
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    std::string answer;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      std::string const line = request + "\n";
      (void)!::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
      char c;
      while (::recv(fd, &c, 1, 0) == 1 && (answer += c, c != '\n')) {
      }
    }
    ::close(fd);
    return answer;
  }
  // Waits until the agent reports @p chip ready (or not), as "chips" answers.
  void awaitReady(std::string const& chip, bool want) const {
    auto const ready = [&] {
      std::string const answer = ask("chips");
      if (answer.rfind("ok ", 0) == 0)
        for (auto const& c : Json::parse(answer.substr(3)))
          if (c["name"] == chip) return c["ready"].get<bool>();
      return false;
    };
    for (auto deadline = std::chrono::steady_clock::now() + 10s; ready() != want;) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << chip << " never became " << want;
      std::this_thread::sleep_for(2ms);
    }
  }
  // tarnreg as a client of this agent.
  ToolRun tarnreg(Args const& args) const { return Tool{rig_.dir()}(args + Args{"--runtime-dir", runtimeDir()}); }

  ChipRig rig_{16, "c0"};
  std::string description_;
  Tool const agent_{rig_.dir(), kAgent};
  pid_t pid_ = -1;
};

TEST_F(AgentProcess, ChipAddedWrittenRemovedAndTakenOverByARestartedAgent) {
  start();
  auto status = TarnRegFile::SystemStatusPublisher::open(Kiv::Shm::Root(rig_.shmRoot()), "sys");
  status.chipIs("c0", Hardware::DevId(1), "p1");
  awaitReady("c0", true);

  EXPECT_EQ(tarnreg({"field", "write", "c0", "L3", "f2", "0xab"}), (ToolRun{0, "", ""}));
  EXPECT_EQ(rig_.fileRegister(3), 0x00ab0000u) << "the register changed in the window";
  EXPECT_EQ(tarnreg({"agent", "call", "c0", "regGetLastWritten", "L3"}), (ToolRun{0, "11206656\n", ""}));
  auto const diff = Json::parse(tarnreg({"shadow", "diff", "c0", "--json"}).out);
  EXPECT_EQ(diff["fields"][14], Json::parse(R"({"register": "R3", "field": "f2", "logical": "L3.f2", "address": 12,
      "start": 16, "size": 8, "desired": 171, "applied": 171, "pending": false})"));

  status.chipDel("c0");
  awaitReady("c0", false);
  EXPECT_EQ(tarnreg({"field", "write", "c0", "L3", "f2", "1"}),
            (ToolRun{1, "", "tarnreg: chip 'c0' is not ready: the system status does not publish it\n"}));
  status.chipIs("c0", Hardware::DevId(1), "p1");
  awaitReady("c0", true);
  EXPECT_EQ(tarnreg({"field", "read", "c0", "L3", "f2"}), (ToolRun{0, "0x000000ab\n", ""}))
      << "desired values survive the chip's absence";
  // And the agent's death: its successor takes them over, past the socket it left.
  EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
  start();
  awaitReady("c0", true);
  EXPECT_EQ(tarnreg({"field", "read", "c0", "L3", "f2"}), (ToolRun{0, "0x000000ab\n", ""}));
  EXPECT_EQ(stop(SIGTERM), 0);
}

TEST_F(AgentProcess, AThousandMalformedRequestsLeaveTheAgentServing) {
  auto status = TarnRegFile::SystemStatusPublisher::open(Kiv::Shm::Root(rig_.shmRoot()), "sys");
  status.chipIs("c0", Hardware::DevId(1), "p1");
  start();
  awaitReady("c0", true);
  // Each would end the process if it reached the chip unchecked, or is simply not a request.
  std::vector<std::string> const requests = {
      "call c0 fieldWrite L99 f0 1",          // unknown register: a fatal assertion in the chip
      "call c0 fieldGetLastWritten L0",       // too few arguments
      "call c0 fieldWrite L0 f0 256",         // wider than the field
      "call c0 regWrite L0 0x1ffffffffffffffff",
      "call c0 populatePhysicalField R0 f9 0 8",  // population after ready: fatal in the chip
      "call c0 nosuchop",
      "call nochip fieldWrite L0 f0 1",
      "frobnicate",
      "",
      "call c0",
      std::string(5000, 'x'),
      std::string("call c0 fieldWrite L0 f0 \xff\xfe"),
  };
  for (int i = 0; i < 1000; ++i) {
    std::string const& request = requests[i % requests.size()];
    std::string const answer = ask(request);
    ASSERT_EQ(answer.rfind("error ", 0), 0u) << i << ": " << request.substr(0, 80) << " -> " << answer;
    ASSERT_EQ(answer.find('\n'), answer.size() - 1);
  }
  EXPECT_EQ(ask("call c0 fieldWrite L0 f0 0x5"), "ok\n");
}

TEST_F(AgentProcess, OnlyItsOwnUserOrRootIsServed) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to ask as another user";
  start();
  std::string const socket = runtimeDir() + "/control.sock";
  struct stat dir {}, sock {};
  ASSERT_EQ(0, ::stat(runtimeDir().c_str(), &dir));
  ASSERT_EQ(0, ::stat(socket.c_str(), &sock));
  EXPECT_EQ(dir.st_mode & 07777, 0700u);
  EXPECT_EQ(sock.st_mode & 07777, 0600u);
  // Opened to everyone, so that only the peer's credentials stand in the way.
  ASSERT_EQ(0, ::chmod(rig_.dir().c_str(), 0755));
  ASSERT_EQ(0, ::chmod(runtimeDir().c_str(), 0755));
  ASSERT_EQ(0, ::chmod(socket.c_str(), 0666));
  pid_t const child = ::fork();
  if (child == 0) {
    bool const dropped = ::setgid(65534) == 0 && ::setuid(65534) == 0;
    ::_exit(dropped && ask("ping") == "error permission denied: uid 65534 is neither this agent's user nor root\n" ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(AgentProcess, ABadDescriptionIsRefusedBeforeAnythingStarts) {
  std::ofstream(description_) << R"({"system": "sys", "chips": [{"name": "c0", "map": "x.csv"}]})";
  EXPECT_EQ(agent_({"--runtime-dir", runtimeDir(), description_}),
            (ToolRun{2, "", "tarnagent: " + description_ + ": chips[0].map: Error opening CSV file " + rig_.dir() + "/x.csv\n"}));
  EXPECT_FALSE(std::filesystem::exists(runtimeDir() + "/control.sock"));
}

}  // namespace
