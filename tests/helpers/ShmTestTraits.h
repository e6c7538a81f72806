#pragma once
// What the shared-memory tests share: a private root in /dev/shm, child processes,
// and the pattern exchanged with the shm_peer helper (built for both architectures).

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

// ---- the pattern exchanged between architectures ----

constexpr U32 kPatternCount = 600;
constexpr U32 kPatternCapacity = 640;

inline Key patternKey(U32 i) { return Key(i * 7u + 3u, static_cast<U8>(i % 32u), static_cast<U8>(1u + i % 31u)); }
inline Value patternValue(U32 i) { return Value(patternKey(i), i * 2654435761u ^ 0x5A5A0F0Fu); }
/// Every tenth key is removed again after all are written.
inline bool patternRemoved(U32 i) { return i % 10u == 9u; }

/// Writes the pattern: the table grows from its first few buckets as it fills, and its first
/// capacity of 300 is raised in place half way (on reopening with the final capacity).
inline void writePattern(Kiv::Shm::Root const& root, std::string const& path) {
  {
    auto small = Collection::openWriter(root, path, 300);
    for (U32 i = 0; i < 300; ++i)
      small.write(Value(patternKey(i), ~patternValue(i).value));  // overwritten below
  }
  auto table = Collection::openWriter(root, path, kPatternCapacity);
  for (U32 i = 0; i < kPatternCount + 10; ++i) {
    if (i < kPatternCount)
      table.write(patternValue(i));
    if (i >= 10 && patternRemoved(i - 10))
      table.remove(patternKey(i - 10));
  }
}

/// Checks the pattern; returns an empty string when it matches, else what differs.
inline std::string verifyPattern(Collection& table) {
  U32 expected = 0, iterated = 0;
  for (U32 i = 0; i < kPatternCount; ++i) {
    std::optional<Value> const got = table.lookup(patternKey(i));
    expected += !patternRemoved(i);
    if (patternRemoved(i) ? got.has_value() : got != patternValue(i))
      return "key " + std::to_string(i) + (got ? " has value " + std::to_string(got->value) : " is missing");
  }
  for (Value const& v : table) {
    U32 const i = (v.key.address - 3u) / 7u;
    if (i >= kPatternCount || patternRemoved(i) || !(v == patternValue(i)))
      return "iteration yields a foreign value at address " + std::to_string(v.key.address);
    ++iterated;
  }
  if (table.size() != expected || iterated != expected || table.capacity() != kPatternCapacity)
    return "size " + std::to_string(table.size()) + ", iterated " + std::to_string(iterated) + ", capacity " +
           std::to_string(table.capacity()) + "; expected " + std::to_string(expected) + " entries";
  return {};
}

}  // namespace ShmTest
