#pragma once
// The commands of this build (tarnreg, tarnagent) run as separate processes exactly as a
// user runs them, with their standard output and error in files of a private directory,
// and the one shape every failure of theirs has: nothing on stdout, one line on stderr.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace TarnTest {

using Json = nlohmann::json;
using Args = std::vector<std::string>;
// A file for a standard stream: "" for the directory's own stdout or stderr, nullopt closes it.
using Stream = std::optional<std::string>;

inline constexpr char const* kTarnreg = TARN_BINARY_DIR "/tools/tarnreg";

inline std::string slurp(std::string const& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline void writeFile(std::string const& path, std::string const& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline Args operator+(Args a, Args const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline int exitStatus(int wstatus) { return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus); }

/// A private directory under /tmp, removed with everything in it.
struct TempDir {
  TempDir() {
    char pattern[] = "/tmp/tarn-test.XXXXXX";
    path = ::mkdtemp(pattern) ? pattern : "";
    EXPECT_NE("", path);
  }
  ~TempDir() { std::filesystem::remove_all(path); }
  TempDir(TempDir const&) = delete;
  std::string path;
};

struct ToolRun {
  int status = -1;  // exit status, or 128 + signal
  std::string out, err;
  bool operator==(ToolRun const&) const = default;
  friend std::ostream& operator<<(std::ostream& os, ToolRun const& r) {
    return os << "status " << r.status << ", stdout \"" << r.out << "\", stderr \"" << r.err << '"';
  }
};

/// A command whose runs keep their output in @p dir (dir/stdout and dir/stderr).
struct Tool {
  std::string dir, program = kTarnreg;

  pid_t spawn(Args const& args, Stream const& out = "", Stream const& err = "") const {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (auto const& [fd, file] : {std::pair{STDOUT_FILENO, out}, std::pair{STDERR_FILENO, err}}) {
      if (!file) {
        posix_spawn_file_actions_addclose(&actions, fd);
        continue;
      }
      std::string const path = file->empty() ? dir + (fd == STDOUT_FILENO ? "/stdout" : "/stderr") : *file;
      posix_spawn_file_actions_addopen(&actions, fd, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ)) << program;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }
  ToolRun operator()(Args const& args, Stream const& out = "", Stream const& err = "") const {
    std::filesystem::remove(dir + "/stdout"), std::filesystem::remove(dir + "/stderr");
    int wstatus = 0;
    EXPECT_GT(::waitpid(spawn(args, out, err), &wstatus, 0), 0);
    return {exitStatus(wstatus), slurp(dir + "/stdout"), slurp(dir + "/stderr")};
  }
};

/// A failure: status @p status, nothing on stdout, one "tarnreg: " line on stderr holding @p text.
inline void expectFailure(ToolRun const& run, int status, std::string const& text) {
  EXPECT_EQ(status, run.status) << run.err;
  EXPECT_EQ("", run.out);
  EXPECT_TRUE(run.err.starts_with("tarnreg: ") && run.err.ends_with("\n")) << run.err;
  EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
  EXPECT_NE(std::string::npos, run.err.find(text)) << "stderr: " << run.err << "expected: " << text;
}

}  // namespace TarnTest
