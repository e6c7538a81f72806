#include "TarnRegFile/Utils.h"

#include "support/ValueText.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace Utils = TarnRegFile::Utils;

namespace {

TEST(UtilsText, TokenizeSplitsOnEverySeparatorButTheLastAndMovesPastIt) {
  // Each token with the position after it (length plus one at the end).
  std::pair<std::string_view, std::vector<std::string>> const cases[] = {
      {"a,,b", {"a@2", "@3", "b@5"}}, {"a,b,", {"a@2", "b@4"}}, {",a,,", {"@1", "a@3", "@4"}}, {"", {}}};
  for (auto const& [text, expected] : cases) {
    U32 pos = 0;
    std::string_view token = "none";
    std::vector<std::string> seen;
    auto const last = [&] { return std::string(token) + "@" + std::to_string(pos); };
    while (Utils::tokenize(text, pos, token, ',')) seen.push_back(last());
    EXPECT_EQ(seen, expected) << text;
    EXPECT_EQ(last(), seen.empty() ? "none@0" : seen.back()) << "the end leaves token and position alone";
  }
}

TEST(UtilsText, GetlineDropsOneTrailingCarriageReturnAndEmptiesTheLineAtTheEnd) {
  std::istringstream in("one\r\ntwo\n\r\na\r\r\nlast\r");
  std::string buffer;
  std::string_view line = "stale";
  std::vector<std::string> lines;
  while (Utils::getline_lea(in, buffer, line)) lines.emplace_back(line);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two", "", "a\r", "last"}));
  EXPECT_TRUE(line.empty());
}

// Base 10 through the register parser is covered with the CSV tests; here the other bases.
TEST(UtilsText, StrtointTakesOnlyDigitsOfTheBaseThatFitAndStrtouint32CheckedFollowsStrtoul) {
  U32 value = 0;
  EXPECT_TRUE(Utils::strtoint("fF", value, 16) && value == 255);
  for (auto [text, base] : {std::pair{"100000000", 16}, {"g", 16}, {"102", 2}, {"", 10}, {"1", 1}, {"1", 37}})
    EXPECT_FALSE(Utils::strtoint(text, value, base)) << text << " base " << base;
  // Leading white space and a sign are strtoul's, kept as they are; the value must fit 32 bits.
  for (auto [text, expectOk, expected] :
       {std::tuple{"4294967295", true, 4294967295u}, {"4294967296", false, 0u}, {"12x", false, 0u}, {"", false, 0u},
        {"7 ", false, 0u}, {"  7", true, 7u}, {"-1", true, 4294967295u}, {"-4294967296", false, 0u}}) {
    bool ok = !expectOk;
    EXPECT_EQ(Utils::strtouint32_checked(text, ok), expected) << text;
    EXPECT_EQ(ok, expectOk) << text;
  }
}

TEST(UtilsSyscallAutoRetry, RetriesOnlyWhatItIsToldTo) {
  struct Case {
    std::vector<int> errnos;  // the failures before the call returns 5
    bool retryOnEagain, retryOnEintr;
    int32_t result;
    int calls;
  } const cases[] = {{{EAGAIN, EAGAIN}, true, false, 5, 3}, {{EINTR, EINTR, EINTR}, false, true, 5, 4},
                     {{EAGAIN}, false, true, -1, 1},        {{EINTR}, true, false, -1, 1}};
  for (auto const& c : cases) {
    SCOPED_TRACE(&c - cases);
    int calls = 0;
    auto const start = std::chrono::steady_clock::now();
    auto const call = [&]() -> int32_t {
      size_t const attempt = static_cast<size_t>(calls++);
      return attempt >= c.errnos.size() ? 5 : (errno = c.errnos[attempt], -1);
    };
    int32_t const result = Utils::syscallAutoRetry(call, c.retryOnEagain, c.retryOnEintr);
    int const err = errno;
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(calls, c.calls);
    EXPECT_TRUE(result >= 0 || err == c.errnos.front()) << "errno is left as the call set it";
    EXPECT_TRUE(c.calls < 3 || c.errnos.front() != EAGAIN ||
                std::chrono::steady_clock::now() - start >= std::chrono::microseconds(2000))
        << "EAGAIN is retried after a 1 ms pause";
  }
}

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }
int openDevNull() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(UtilsUnixFdRes, OwnsExactlyOneDescriptorAcrossMoves) {
  int const fd = openDevNull(), second = openDevNull(), third = openDevNull();
  Utils::UnixFdRes target;
  {
    Utils::UnixFdRes source(fd);
    Utils::UnixFdRes moved(std::move(source));
    target = std::move(moved);
  }
  EXPECT_TRUE(isOpen(fd)) << "the emptied holders closed nothing";
  ASSERT_EQ(target.fd(), fd);
  target = Utils::UnixFdRes(second);
  EXPECT_FALSE(isOpen(fd)) << "overwriting closes the held descriptor";
  { Utils::UnixFdRes scoped(third); }
  EXPECT_FALSE(isOpen(third)) << "destruction closes";
}

// flock locks belong to open files: a second open of the file competes as another process would.
class UtilsUnixFlockRes : public ::testing::Test {
protected:
  void SetUp() override { ASSERT_GE(fd_ = ::mkostemp(path_, O_CLOEXEC), 0); }
  void TearDown() override {
    ::close(fd_);
    ::unlink(path_);
  }
  // 1 when another open file of the path gets an exclusive lock at once, 0 when it is contended.
  int othersCanLock() {
    Utils::UnixFdRes other(::open(path_, O_RDONLY | O_CLOEXEC));
    return ::flock(other.fd(), LOCK_EX | LOCK_NB) == 0 ? 1 : errno == EWOULDBLOCK ? 0 : -errno;
  }
  char path_[32] = "/tmp/tarn_flock_test_XXXXXX";
  int fd_ = -1;
};

TEST_F(UtilsUnixFlockRes, RefusesBadArgumentsInOrder) {
  std::tuple<int, int, std::string> const cases[] = {
      {-1, 0, "Invalid fd"},
      {fd_, LOCK_NB, "Unsupported lock mode"},
      {fd_, LOCK_EX | LOCK_UN, "Cannot unlock flock on constructor"},
      {900, LOCK_EX, "flock error: Bad file descriptor"}};
  for (auto const& [fd, mode, message] : cases)
    EXPECT_EQ(TestSupport::errorOf<std::runtime_error>([&] { Utils::UnixFlockRes lock(fd, mode); }), message);
  EXPECT_EQ(othersCanLock(), 1) << "a refused attempt left a lock behind";
}

// That a held lock keeps others out and goes with its holder is checked around each transfer
// of the I2C transport. A non-blocking request on another open file meets EAGAIN while the
// lock is held and is retried until granted.
TEST_F(UtilsUnixFlockRes, ContendedNonBlockingRequestsArePolledUntilGranted) {
  auto lock = std::make_unique<Utils::UnixFlockRes>(fd_, LOCK_EX);
  std::atomic<bool> granted = false;
  std::thread waiter([&] {
    Utils::UnixFdRes other(::open(path_, O_RDWR | O_CLOEXEC));
    Utils::UnixFlockRes waiting(other.fd(), LOCK_EX | LOCK_NB);
    granted = true;
  });
  ::usleep(100 * 1000);
  EXPECT_FALSE(granted) << "the lock was granted while it was held";
  lock.reset();
  waiter.join();
  EXPECT_TRUE(granted);
}

}  // namespace
