// tarnreg status (the publisher of a system's status) and tarnreg shadow watch, run as
// separate processes: output, one-line failures, exit statuses, and a watch that prints
// another process's commits as they happen and ends with status 0 on SIGINT or SIGTERM.

#include "TarnRegFile/ShadowTypes.h"
#include "TarnRegFile/platform/ShmBell.h"
#include "TarnRegFile/platform/ShmRoot.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using Args = std::vector<std::string>;
constexpr char const* kTool = TARN_BINARY_DIR "/tools/tarnreg";

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

int exitStatus(int wstatus) { return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus); }

/// Starts tarnreg with @p args, its stdout on @p out (a descriptor) and stderr on @p err.
pid_t start(Args const& args, int out, int err) {
  std::vector<char*> argv{const_cast<char*>(kTool)};
  for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, 1);
  posix_spawn_file_actions_adddup2(&actions, err, 2);
  pid_t pid = -1;
  if (posix_spawn(&pid, kTool, &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

class TarnregStatusTest : public ::testing::Test {
protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("tarnreg-status-" + std::to_string(::getpid()));
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  ToolRun run(Args const& args) {
    std::string const out = (dir_ / "out").string(), err = (dir_ / "err").string();
    FILE* o = std::fopen(out.c_str(), "w");
    FILE* e = std::fopen(err.c_str(), "w");
    pid_t const pid = start(args, fileno(o), fileno(e));
    std::fclose(o);
    std::fclose(e);
    ToolRun r;
    int wstatus = 0;
    if (pid > 0 && ::waitpid(pid, &wstatus, 0) == pid) r.status = exitStatus(wstatus);
    std::stringstream so, se;
    so << std::ifstream(out).rdbuf();
    se << std::ifstream(err).rdbuf();
    r.out = so.str();
    r.err = se.str();
    return r;
  }
  /// tarnreg status --root <ours> --system sys0 <args>
  ToolRun status(Args const& args) {
    Args full{"status", "--root", root(), "--system", "sys0"};
    full.insert(full.end(), args.begin(), args.end());
    return run(full);
  }
  std::string root() const { return (dir_ / "shm").string(); }

  std::filesystem::path dir_;
};

void expectFailure(ToolRun const& r, int status, std::string const& text) {
  EXPECT_EQ(r.status, status) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(r.err.starts_with("tarnreg: ") && r.err.find('\n') == r.err.size() - 1) << r.err;
  EXPECT_NE(r.err.find(text), std::string::npos) << r.err << "expected: " << text;
}

TEST_F(TarnregStatusTest, CommandLineMistakesAreUsageErrors) {
  struct Case {
    Args args;
    char const* message;
  };
  for (Case const& c : std::vector<Case>{
           {{"status", "show"}, "status needs the system: --system NAME"},
           {{"status", "--system", "a/b", "show"}, "must be one non-empty path component"},
           {{"status", "--system", "s"}, "status needs a command: show, add, remove, profile or remove-profile"},
           {{"status", "--system", "s", "add", "chip0", "256", "p1"}, "DEVID '256' is not a number in 0 - 255"},
           {{"status", "--system", "s", "add", "chip0", "7"}, "PROFILE is required"},
           {{"status", "--system", "s", "add", std::string(64, 'c'), "7", "p1"}, "is longer than 63 bytes"},
           {{"status", "--system", "s", "profile", "p1", "1"}, "MAJOR.MINOR '1' is not a version such as 1.2"},
           {{"status", "--system", "s", "profile", "p1", "1.x"}, "MAJOR.MINOR '1.x' is not a version"},
           {{"status", "--system", "s", "--json", "remove", "chip0"}, "--json goes with status show"},
           {{"--map", "m.csv", "status", "--system", "s", "show"}, "status works on shared memory only"},
           {{"shadow", "watch"}, "PATH is required"},
           {{"shadow", "watch", "../x"}, "shadow table path '../x'"},
       })
    expectFailure(run(c.args), 2, c.message);
}

TEST_F(TarnregStatusTest, PublishesChipsAndProfilesAndRefusesDanglingNames) {
  expectFailure(status({"show"}), 1, "no status is published for system 'sys0'");
  EXPECT_EQ(status({"profile", "p1", "1.2"}).status, 0);
  expectFailure(status({"add", "chip0", "7", "p2"}), 1, "profile 'p2' is not published");
  ToolRun const added = status({"add", "chip0", "7", "p1"});
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out, "");  // silence is success
  EXPECT_EQ(status({"add", "chip1", "0x0c", "p1"}).status, 0);
  EXPECT_EQ(status({"show"}).out, "chip   devId  profile\n"
                                  "chip0      7  p1\n"
                                  "chip1     12  p1\n"
                                  "\n"
                                  "profile  hwApi\n"
                                  "p1       1.2\n");
  expectFailure(status({"remove-profile", "p1"}), 1, "profile 'p1' is still run by chip(s) chip0, chip1");
  EXPECT_EQ(status({"remove", "chip1"}).status, 0);
  expectFailure(status({"remove", "chip1"}), 1, "chip 'chip1' is not published for system 'sys0'");
  EXPECT_EQ(nlohmann::json::parse(status({"show", "--json"}).out),
            nlohmann::json::parse(R"({"system": "sys0", "chips": [{"name": "chip0", "devId": 7, "profile": "p1"}],
                                      "profiles": [{"name": "p1", "major": 1, "minor": 2}]})"));
}

// The watch runs while this process writes the table; it is started and stopped once per signal.
TEST_F(TarnregStatusTest, ShadowWatchPrintsEachCommitUntilSignalled) {
  using namespace TarnRegFile;
  std::string const path = "TarnRegFile/shadowFieldsStatus/chip0";
  auto table = ShadowFieldCollection::openWriter(Kiv::Shm::Root(root()), path, 64);
  table.write(ShadowFieldValue(ShadowFieldKey(4, 0, 8), 1));
  std::filesystem::path const bell = std::filesystem::path(root()) / "TarnRegFile/shadowFieldsStatus" /
                                     Kiv::Shm::Bell::bellName("chip0");
  auto watchers = [&] {
    U32 words[3] = {};
    std::ifstream(bell, std::ios::binary).read(reinterpret_cast<char*>(words), sizeof words);
    return words[2];
  };
  for (int signal : {SIGINT, SIGTERM}) {
    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    pid_t const pid = start({"shadow", "watch", "--json", "--root", root(), path}, out[1], 2);
    ::close(out[1]);
    struct Reap {  // a failed assertion must not leave the watch running
      pid_t pid;
      int fd;
      ~Reap() {
        if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
        ::close(fd);
      }
    } reap{pid, out[0]};
    std::string pending;
    auto nextLine = [&](int timeoutMs = 10000) {
      char buffer[512];
      for (std::size_t eol; (eol = pending.find('\n')) == std::string::npos;) {
        pollfd p{out[0], POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) != 1) return "(no line within " + std::to_string(timeoutMs) + " ms)";
        ssize_t const n = ::read(out[0], buffer, sizeof buffer);
        if (n <= 0) return std::string("(end of output)");
        pending.append(buffer, std::size_t(n));
      }
      std::string const line = pending.substr(0, pending.find('\n'));
      pending.erase(0, line.size() + 1);
      return line;
    };
    while (watchers() == 0) ::usleep(1000);
    // Registered, but the watch reads its starting state after that, and reports states, not
    // events: a commit before that read is part of its start. Commit until one is reported.
    std::string line;
    U32 probe = 100;
    for (; line.empty() || line.rfind("(no line", 0) == 0; ++probe) {
      ASSERT_LT(probe, 120u) << "the watch reported no commit";
      table.write(ShadowFieldValue(ShadowFieldKey(8, 0, 8), probe));
      line = nextLine(200);
    }
    // A slow start may report an earlier probe late: read up to the last one.
    std::string const last = R"("value":)" + std::to_string(probe - 1) + "}";
    while (line.find(last) == std::string::npos && line.rfind("(", 0) != 0) line = nextLine();
    ASSERT_NE(line.find(last), std::string::npos) << line;
    table.write(ShadowFieldValue(ShadowFieldKey(4, 0, 8), 2 + signal));
    EXPECT_EQ(nextLine(), R"({"change":"changed","address":4,"start":0,"size":8,"value":)" + std::to_string(2 + signal) + "}");
    table.remove(ShadowFieldKey(4, 0, 8));
    EXPECT_EQ(nextLine(), R"({"change":"removed","address":4,"start":0,"size":8})");
    table.remove(ShadowFieldKey(8, 0, 8));
    EXPECT_EQ(nextLine(), R"({"change":"removed","address":8,"start":0,"size":8})");
    ::kill(pid, signal);
    int wstatus = 0;
    ASSERT_EQ(::waitpid(pid, &wstatus, 0), pid);
    reap.pid = -1;
    EXPECT_EQ(exitStatus(wstatus), 0) << "signal " << signal;
    table.write(ShadowFieldValue(ShadowFieldKey(4, 0, 8), 1));
  }
  expectFailure(run({"shadow", "watch", "--root", root(), "TarnRegFile/none"}), 1, "there is no such table");
}

}  // namespace
