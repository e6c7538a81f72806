#include "TarnRegFile/Utils.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Utils = TarnRegFile::Utils;

namespace {

// ---------------------------------------------------------------- tokenize

std::vector<std::string> tokens(std::string_view text) {
  std::vector<std::string> out;
  U32 pos = 0;
  std::string_view token;
  while (Utils::tokenize(text, pos, token, ',')) out.emplace_back(token);
  return out;
}

TEST(UtilsTokenize, SplitsOnEverySeparatorButTheLast) {
  using V = std::vector<std::string>;
  struct Case {
    char const* text;
    V expected;
  };
  Case const cases[] = {
      {"a,,b", V{"a", "", "b"}}, {"a,b,", V{"a", "b"}},   {"", V{}},       {",", V{""}},
      {",,", V{"", ""}},         {",a", V{"", "a"}},      {"abc", V{"abc"}}, {" a , b ", V{" a ", " b "}},
      {"a,b,,", V{"a", "b", ""}},
  };
  for (auto const& c : cases) EXPECT_EQ(tokens(c.text), c.expected) << '"' << c.text << '"';
}

TEST(UtilsTokenize, AdvancesPositionAndLeavesTokenAloneAtTheEnd) {
  std::string_view const text = "ab;c";
  U32 pos = 0;
  std::string_view token;
  ASSERT_TRUE(Utils::tokenize(text, pos, token, ';'));
  EXPECT_EQ(token, "ab");
  EXPECT_EQ(pos, 3u);
  ASSERT_TRUE(Utils::tokenize(text, pos, token, ';'));
  EXPECT_EQ(token, "c");
  EXPECT_EQ(pos, 5u);  // length plus one
  EXPECT_FALSE(Utils::tokenize(text, pos, token, ';'));
  EXPECT_EQ(token, "c");
  EXPECT_EQ(token.data(), text.data() + 3);  // a view into the text, not a copy
}

// ---------------------------------------------------------------- getline_lea

TEST(UtilsGetlineLea, DropsOneTrailingCarriageReturn) {
  std::istringstream in("one\r\ntwo\n\r\na\r\r\nlast\r");
  std::string buffer;
  std::string_view line;
  std::vector<std::string> lines;
  while (Utils::getline_lea(in, buffer, line)) {
    EXPECT_EQ(line.data(), buffer.data());
    lines.emplace_back(line);
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two", "", "a\r", "last"}));
  EXPECT_TRUE(line.empty());
}

TEST(UtilsGetlineLea, FailedReadGivesEmptyLine) {
  std::istringstream in("");
  std::string buffer = "stale";
  std::string_view line = buffer;
  EXPECT_FALSE(Utils::getline_lea(in, buffer, line));
  EXPECT_TRUE(line.empty());
}

// ---------------------------------------------------------------- numbers

TEST(UtilsStrtoint, AcceptsOnlyPlainDigitsThatFit) {
  struct Case {
    char const* text;
    int base;
    bool ok;
    U32 value;
  };
  Case const cases[] = {
      {"0", 10, true, 0},        {"42", 10, true, 42},          {"4294967295", 10, true, 4294967295u},
      {"000000000000017", 10, true, 17},
      {"4294967296", 10, false, 0}, {"99999999999", 10, false, 0}, {"", 10, false, 0},
      {"-1", 10, false, 0},      {"+1", 10, false, 0},          {" 1", 10, false, 0},
      {"1 ", 10, false, 0},      {"0x10", 10, false, 0},        {"1a", 10, false, 0},
      {"fF", 16, true, 255},     {"ffffffff", 16, true, 0xffffffffu}, {"100000000", 16, false, 0},
      {"g", 16, false, 0},       {"101", 2, true, 5},           {"102", 2, false, 0},
      {"zz", 36, true, 1295},    {"1", 1, false, 0},            {"1", 37, false, 0},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::Message() << '"' << c.text << "\" base " << c.base);
    U32 value = 12345;
    EXPECT_EQ(Utils::strtoint(c.text, value, c.base), c.ok);
    if (c.ok) {
      EXPECT_EQ(value, c.value);
    }
  }
}

TEST(UtilsStrtoint, RespectsTheTargetTypesRange) {
  U8 small = 0;
  EXPECT_TRUE(Utils::strtoint("255", small, 10));
  EXPECT_EQ(small, 255);
  EXPECT_FALSE(Utils::strtoint("256", small, 10));
  U64 big = 0;
  EXPECT_TRUE(Utils::strtoint("18446744073709551615", big, 10));
  EXPECT_EQ(big, 18446744073709551615ull);
  EXPECT_FALSE(Utils::strtoint("18446744073709551616", big, 10));
}

TEST(UtilsStrtouint32Checked, FollowsStrtoulWithinThirtyTwoBits) {
  struct Case {
    char const* text;
    bool ok;
    U32 value;
  };
  Case const cases[] = {
      {"0", true, 0},
      {"4294967295", true, 4294967295u},
      {"4294967296", false, 0},
      {"18446744073709551615", false, 0},
      {"12x", false, 0},
      {"", false, 0},
      {"x", false, 0},
      {"-", false, 0},
      {"7 ", false, 0},
      {"  7", true, 7},  // leading white space and a sign are strtoul's, kept as they are
      {"+5", true, 5},
      {"-1", true, 4294967295u},
      {"-4294967295", true, 1},
      {"-4294967296", false, 0},
      {"0x10", false, 0},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    bool ok = !c.ok;
    EXPECT_EQ(Utils::strtouint32_checked(c.text, ok), c.value);
    EXPECT_EQ(ok, c.ok);
  }
}

// ---------------------------------------------------------------- syscallAutoRetry

// A stand-in system call: fails with the queued errno values, then returns @p success.
struct FakeCall {
  std::vector<int> errnos;
  int32_t success;
  int calls = 0;
  int32_t operator()() {
    size_t const attempt = static_cast<size_t>(calls++);
    if (attempt < errnos.size()) {
      errno = errnos[attempt];
      return -1;
    }
    return success;
  }
};

template <class Fake>
std::function<int32_t()> ref(Fake& fake) {
  return [&fake] { return fake(); };
}

TEST(UtilsSyscallAutoRetry, RetriesEagainAfterAPause) {
  FakeCall fake{{EAGAIN, EAGAIN}, 5};
  auto const start = std::chrono::steady_clock::now();
  EXPECT_EQ(Utils::syscallAutoRetry(ref(fake), true, false), 5);
  auto const elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(fake.calls, 3);
  EXPECT_GE(elapsed, std::chrono::microseconds(2000));
}

TEST(UtilsSyscallAutoRetry, RetriesEintrImmediately) {
  FakeCall fake{{EINTR, EINTR, EINTR}, 0};
  EXPECT_EQ(Utils::syscallAutoRetry(ref(fake), false, true), 0);
  EXPECT_EQ(fake.calls, 4);
}

TEST(UtilsSyscallAutoRetry, ReturnsFailureAtOnceWhenNotRetried) {
  struct Case {
    int err;
    bool retryOnEagain;
    bool retryOnEintr;
  };
  Case const cases[] = {{EAGAIN, false, true}, {EINTR, true, false}, {EBADF, true, true}, {EIO, true, true}};
  for (auto const& c : cases) {
    SCOPED_TRACE(c.err);
    FakeCall fake{{c.err, c.err}, 7};
    EXPECT_EQ(Utils::syscallAutoRetry(ref(fake), c.retryOnEagain, c.retryOnEintr), -1);
    EXPECT_EQ(errno, c.err);
    EXPECT_EQ(fake.calls, 1);
  }
}

TEST(UtilsSyscallAutoRetry, ReturnsNonNegativeResultsUnchanged) {
  FakeCall fake{{}, 123};
  EXPECT_EQ(Utils::syscallAutoRetry(ref(fake), true, true), 123);
  EXPECT_EQ(fake.calls, 1);
  // A real call: closing an invalid descriptor reports EBADF.
  EXPECT_EQ(Utils::syscallAutoRetry([] { return ::close(-1); }, true, true), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(UtilsSyscallAutoRetry, EmptyCallIsBadFunctionCall) {
  EXPECT_THROW(Utils::syscallAutoRetry(std::function<int32_t()>(), true, true), std::bad_function_call);
}

TEST(UtilsErrnoMsg, FormatsTextAndNumber) {
  errno = ENOENT;
  EXPECT_EQ(Utils::errnoMsg(), "No such file or directory (2)");
  errno = EACCES;
  EXPECT_EQ(Utils::errnoMsg(), "Permission denied (13)");
}

// ---------------------------------------------------------------- UnixFdRes

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

int openDevNull() {
  int const fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  return fd;
}

TEST(UtilsUnixFdRes, ClosesOnDestruction) {
  int const fd = openDevNull();
  {
    Utils::UnixFdRes res(fd);
    EXPECT_EQ(res.fd(), fd);
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
  EXPECT_EQ(errno, EBADF);
}

TEST(UtilsUnixFdRes, MoveLeavesNothingBehind) {
  int const fd = openDevNull();
  Utils::UnixFdRes target;
  {
    Utils::UnixFdRes source(fd);
    Utils::UnixFdRes moved(std::move(source));
    EXPECT_EQ(source.fd(), -1);
    EXPECT_EQ(moved.fd(), fd);
    target = std::move(moved);
    EXPECT_EQ(moved.fd(), -1);
  }
  // The emptied holders closed nothing when they were destroyed.
  EXPECT_TRUE(isOpen(fd));
  EXPECT_EQ(target.fd(), fd);
}

TEST(UtilsUnixFdRes, OverwritingClosesTheHeldDescriptor) {
  int const first = openDevNull();
  int const second = openDevNull();
  Utils::UnixFdRes holder(first);
  Utils::UnixFdRes other(second);
  EXPECT_EQ(holder._mov(other), second);
  EXPECT_FALSE(isOpen(first));
  EXPECT_TRUE(isOpen(second));
  EXPECT_EQ(other.fd(), -1);

  EXPECT_EQ(holder._destruct(), 0);
  EXPECT_FALSE(isOpen(second));
  EXPECT_EQ(holder.fd(), -1);
  EXPECT_EQ(holder._destruct(), -1);  // nothing held: the descriptor is returned unchanged

  Utils::UnixFdRes self(openDevNull());
  int const selfFd = self.fd();
  self._mov(self);  // onto itself: closes and ends up empty
  EXPECT_EQ(self.fd(), -1);
  EXPECT_FALSE(isOpen(selfFd));
}

// ---------------------------------------------------------------- UnixFlockRes

class UtilsUnixFlockRes : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/tarn_flock_test_XXXXXX";
    fd_ = ::mkostemp(pattern, O_CLOEXEC);
    ASSERT_GE(fd_, 0);
    path_ = pattern;
  }
  void TearDown() override {
    ::close(fd_);
    ::unlink(path_.c_str());
  }

  // Runs @p body in a child with its own descriptor of the file; returns the child's exit status.
  template <class Body>
  int inChild(Body body) {
    pid_t const pid = ::fork();
    if (pid == 0) {
      ::alarm(20);  // never leave a hung child behind
      int const fd = ::open(path_.c_str(), O_RDWR);
      ::_exit(fd < 0 ? 100 : body(fd));
    }
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200 + WTERMSIG(status);
  }

  std::string path_;
  int fd_ = -1;
};

// 0 when a non-blocking exclusive lock is refused as contended, 1 when it is granted, 2 on other errors.
int tryExclusive(int fd) {
  if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return 1;
  return errno == EWOULDBLOCK ? 0 : 2;
}

TEST_F(UtilsUnixFlockRes, RefusesBadArgumentsInOrder) {
  struct Case {
    int fd;
    int mode;
    char const* message;
  };
  Case const cases[] = {
      {-1, LOCK_EX, "Invalid fd"},
      {-1, 0, "Invalid fd"},
      {fd_, 0, "Unsupported lock mode"},
      {fd_, LOCK_NB, "Unsupported lock mode"},
      {fd_, LOCK_UN, "Unsupported lock mode"},
      {fd_, LOCK_EX | LOCK_UN, "Cannot unlock flock on constructor"},
      {fd_, LOCK_SH | LOCK_EX, "flock error: Invalid argument"},
      {900, LOCK_EX, "flock error: Bad file descriptor"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::Message() << "fd " << c.fd << " mode " << c.mode);
    try {
      Utils::UnixFlockRes lock(c.fd, c.mode);
      ADD_FAILURE() << "no exception";
    } catch (std::runtime_error const& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
  // Nothing was left locked by the refused attempts.
  EXPECT_EQ(inChild(tryExclusive), 1);
}

TEST_F(UtilsUnixFlockRes, ExclusiveLockKeepsOtherDescriptorsOutUntilDestroyed) {
  {
    Utils::UnixFlockRes lock(fd_, LOCK_EX);
    EXPECT_EQ(lock.fd(), fd_);
    EXPECT_EQ(inChild(tryExclusive), 0);
  }
  EXPECT_EQ(inChild(tryExclusive), 1);
  EXPECT_TRUE(isOpen(fd_));  // the lock holder does not own the descriptor
}

TEST_F(UtilsUnixFlockRes, SharedLocksCoexistButExcludeWriters) {
  Utils::UnixFlockRes lock(fd_, LOCK_SH);
  EXPECT_EQ(inChild([](int fd) {
              if (::flock(fd, LOCK_SH | LOCK_NB) != 0) return 3;
              ::flock(fd, LOCK_UN);
              return tryExclusive(fd);
            }),
            0);
}

TEST_F(UtilsUnixFlockRes, ContendedNonBlockingRequestIsPolledUntilGranted) {
  std::chrono::steady_clock::time_point released;
  int status;
  {
    auto lock = std::make_unique<Utils::UnixFlockRes>(fd_, LOCK_EX);
    pid_t const pid = ::fork();
    if (pid == 0) {
      ::alarm(20);
      int const fd = ::open(path_.c_str(), O_RDWR);
      try {
        Utils::UnixFlockRes waiting(fd, LOCK_EX | LOCK_NB);
        ::_exit(0);
      } catch (std::exception const&) {
        ::_exit(1);
      }
    }
    ::usleep(100 * 1000);
    EXPECT_EQ(::waitpid(pid, &status, WNOHANG), 0) << "the child got the lock while it was held";
    lock.reset();
    released = std::chrono::steady_clock::now();
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  }
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - released, std::chrono::seconds(5));
}

}  // namespace
