#pragma once
// What the shared-memory tests share: a private root in /dev/shm and child processes.

#include "TarnRegFile/ShadowTypes.h"
#include "TarnRegFile/platform/ShmRoot.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ShmTest {

using Key = TarnRegFile::ShadowFieldKey;
using Value = TarnRegFile::ShadowFieldValue;
using Traits = TarnRegFile::ShadowFieldTraits;
using Collection = TarnRegFile::ShadowFieldCollection;

/// A private root below a fresh directory in /dev/shm, removed afterwards.
class RootTest : public ::testing::Test {
protected:
  void SetUp() override {
    char name[] = "/dev/shm/tarn-shm-test.XXXXXX";
    ASSERT_NE(::mkdtemp(name), nullptr);
    base_ = name;
  }
  void TearDown() override { std::filesystem::remove_all(base_); }
  Kiv::Shm::Root root() const { return Kiv::Shm::Root(base_ + "/root"); }
  std::string file(std::string const& path) const { return base_ + "/root/" + path; }

  std::string base_;
};

/// What the exception of type E from @p action says.
template <class E = std::exception>
std::string errorOf(auto&& action) {
  try {
    action();
  } catch (E const& e) {
    return e.what();
  }
  return "(no error)";
}

/// Runs @p body in a child process; its return value (98 for an exception) is the exit status.
template <class F>
pid_t spawn(F body) {
  pid_t const pid = ::fork();
  if (pid == 0) {
    try {
      ::_exit(body());
    } catch (std::exception const& e) {
      std::fprintf(stderr, "child %d: %s\n", int(::getpid()), e.what());
    }
    ::_exit(98);
  }
  return pid;
}

/// The exit status of @p pid, 128 + the signal that killed it.
inline int waitExit(pid_t pid) {
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Waits for @p fd to become readable (the default is a guard against a hang, not a timing check).
inline bool readable(int fd, int ms = 10000) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, ms) == 1;
}

}  // namespace ShmTest
