// Real bus errors: a shared mapping of a file that is then truncated makes every
// access past the new end of the file raise SIGBUS.

#include "SigbusGuard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

namespace Guard = Kiv::SigbusGuard;

// Two pages of a private temporary file, mapped shared; the second page is cut
// off the file, so it is still mapped but every access to it faults.
class ShrunkMapping {
public:
  ShrunkMapping() {
    page_ = std::size_t(sysconf(_SC_PAGESIZE));
    char name[] = "/tmp/tarn-sigbus-XXXXXX";
    fd_ = mkstemp(name);
    if (fd_ < 0) std::abort();
    unlink(name);
    if (ftruncate(fd_, off_t(2 * page_)) != 0) std::abort();
    void* p = mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (p == MAP_FAILED) std::abort();
    base_ = static_cast<unsigned char*>(p);
    if (ftruncate(fd_, off_t(page_)) != 0) std::abort();
  }
  ~ShrunkMapping() {
    munmap(base_, 2 * page_);
    close(fd_);
  }
  U32 volatile* good(std::size_t index = 0) const { return reinterpret_cast<U32 volatile*>(base_) + index; }
  U32 volatile* gone(std::size_t index = 0) const {
    return reinterpret_cast<U32 volatile*>(base_ + page_) + index;
  }
  int fd() const { return fd_; }

private:
  std::size_t page_ = 0;
  int fd_ = -1;
  unsigned char* base_ = nullptr;
};

bool sigbusBlocked() {
  sigset_t current;
  pthread_sigmask(SIG_SETMASK, nullptr, &current);
  return sigismember(&current, SIGBUS) == 1;
}

// Prepares a death-test child: no core file, and a deadline so that a handler
// that keeps returning into the faulting access ends the child instead of
// spinning forever.
void deathTestChild() {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  alarm(20);
}

TEST(SigbusGuard, GuardedAccessToTruncatedPageThrowsCaughtSigbus) {
  ShrunkMapping map;
  try {
    (void)Guard::guardedRead32(map.gone());
    FAIL() << "read of a truncated page did not fault";
  } catch (Kiv::SigbusException const& e) {
    EXPECT_STREQ("Caught SIGBUS", e.what());
  }
  EXPECT_THROW(Guard::guardedWrite32(map.gone(5), 0x12345678u), Kiv::SigbusException);
  U32 value = 0xabcdu;
  EXPECT_FALSE(Guard::tryRead32(map.gone(1), value));
  EXPECT_EQ(0xabcdu, value) << "a failed load must leave the destination untouched";
  EXPECT_FALSE(Guard::tryWrite32(map.gone(1), 1u));
  EXPECT_TRUE(Guard::initialized());
  // A standard runtime error, so generic error paths catch it.
  EXPECT_THROW(Guard::guardedRead32(map.gone()), std::runtime_error);
}

TEST(SigbusGuard, GuardedAccessInsideTheFileReachesTheFile) {
  ShrunkMapping map;
  Guard::guardedWrite32(map.good(3), 0xcafef00du);
  U32 fromFile = 0;
  ASSERT_EQ(ssize_t(sizeof fromFile), pread(map.fd(), &fromFile, sizeof fromFile, 12));
  EXPECT_EQ(0xcafef00du, fromFile);

  U32 const written = 0x0badc0deu;
  ASSERT_EQ(ssize_t(sizeof written), pwrite(map.fd(), &written, sizeof written, 16));
  EXPECT_EQ(0x0badc0deu, Guard::guardedRead32(map.good(4)));
  U32 value = 0;
  EXPECT_TRUE(Guard::tryRead32(map.good(4), value));
  EXPECT_EQ(0x0badc0deu, value);
  EXPECT_TRUE(Guard::tryWrite32(map.good(5), 7u));
  EXPECT_EQ(7u, *map.good(5));
}

TEST(SigbusGuard, ProcessSurvivesTenThousandFaultsAndKeepsWorking) {
  ShrunkMapping map;
  int faults = 0;
  for (int i = 0; i < 10000; ++i) {
    try {
      if (i % 2 == 0)
        (void)Guard::guardedRead32(map.gone(std::size_t(i % 64)));
      else
        Guard::guardedWrite32(map.gone(std::size_t(i % 64)), U32(i));
    } catch (Kiv::SigbusException const&) {
      ++faults;
    }
    if (i % 1000 == 0) {
      Guard::guardedWrite32(map.good(1), U32(i));
      ASSERT_EQ(U32(i), Guard::guardedRead32(map.good(1)));
    }
  }
  EXPECT_EQ(10000, faults);
  // The jump out of the handler must not leave SIGBUS blocked: a blocked
  // synchronous SIGBUS would kill the process on the next fault.
  EXPECT_FALSE(sigbusBlocked());
  Guard::guardedWrite32(map.good(2), 0x55aa55aau);
  EXPECT_EQ(0x55aa55aau, Guard::guardedRead32(map.good(2)));
  EXPECT_THROW(Guard::guardedRead32(map.gone()), Kiv::SigbusException);
}

TEST(SigbusGuard, ThreadsFaultIndependently) {
  ShrunkMapping map;
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  std::atomic<int> faults{0};
  std::atomic<int> wrongValues{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        Guard::guardedWrite32(map.good(std::size_t(t)), U32(t * 100000 + i));
        try {
          (void)Guard::guardedRead32(map.gone(std::size_t(t)));
        } catch (Kiv::SigbusException const&) {
          faults.fetch_add(1);
        }
        if (Guard::guardedRead32(map.good(std::size_t(t))) != U32(t * 100000 + i)) wrongValues.fetch_add(1);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(kThreads * kRounds, faults.load());
  EXPECT_EQ(0, wrongValues.load());
}

TEST(SigbusGuard, AutoHandlerInstallSwitch) {
  bool const before = Guard::autoHandlerInstall();
  Guard::autoHandlerInstallIs(false);
  EXPECT_FALSE(Guard::autoHandlerInstall());
  Guard::autoHandlerInstallIs(true);
  EXPECT_TRUE(Guard::autoHandlerInstall());
  Guard::autoHandlerInstallIs(before);
}

// The remaining tests need a process in which the guard has not been installed
// yet, so that they choose the disposition it chains to: the death-test child
// re-executes the program instead of forking this (already guarded) process.
class SigbusChaining : public ::testing::Test {
protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SigbusChaining, UnguardedBusErrorStillKillsWithSigbus) {
#if defined(__SANITIZE_ADDRESS__)
  // AddressSanitizer handles SIGBUS itself: the guard chains to its handler,
  // which reports the fault and exits instead of dying by the signal.
  EXPECT_EXIT(
      {
        deathTestChild();
        Guard::init();
        ShrunkMapping map;
        (void)*map.gone();
      },
      ::testing::ExitedWithCode(1), "AddressSanitizer.*BUS");
#else
  EXPECT_EXIT(
      {
        deathTestChild();
        Guard::init();
        ShrunkMapping map;
        EXPECT_THROW(Guard::guardedRead32(map.gone()), Kiv::SigbusException);
        (void)*map.gone();
      },
      ::testing::KilledBySignal(SIGBUS), "");
#endif
}

TEST_F(SigbusChaining, SigbusSentByKillStillKills) {
  auto const sendSigbus = [] {
    deathTestChild();
    Guard::init();
    raise(SIGBUS);
    std::fprintf(stderr, "survived\n");
    std::exit(0);
  };
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EXIT(sendSigbus(), ::testing::ExitedWithCode(1), "AddressSanitizer.*BUS");
#else
  EXPECT_EXIT(sendSigbus(), ::testing::KilledBySignal(SIGBUS), "");
#endif
}

std::atomic<void*> gSeenAddress{nullptr};

void previousHandler(int sig, siginfo_t* info, void*) {
  char const text[] = "previous handler ran\n";
  if (sig == SIGBUS && info != nullptr && info->si_code == BUS_ADRERR &&
      info->si_addr == gSeenAddress.load()) {
    ssize_t ignored = write(2, text, sizeof text - 1);
    (void)ignored;
    _exit(42);
  }
  _exit(43);
}

TEST_F(SigbusChaining, UnguardedBusErrorReachesThePreviousHandlerWithItsSiginfo) {
  EXPECT_EXIT(
      {
        deathTestChild();
        struct sigaction sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_sigaction = previousHandler;
        sa.sa_flags = SA_SIGINFO;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGBUS, &sa, nullptr);
        Guard::init();
        ShrunkMapping map;
        // Guarded faults are ours and never reach the previous handler.
        for (int i = 0; i < 3; ++i) EXPECT_THROW(Guard::guardedRead32(map.gone()), Kiv::SigbusException);
        gSeenAddress.store(const_cast<U32*>(map.gone(2)));
        (void)*map.gone(2);
        _exit(0);
      },
      ::testing::ExitedWithCode(42), "previous handler ran");
}

std::atomic<int> gPlainHandlerCalls{0};
void plainPreviousHandler(int) { gPlainHandlerCalls.fetch_add(1); }

TEST_F(SigbusChaining, SentSigbusReachesAPlainPreviousHandlerAndIgnoredOneStaysIgnored) {
  EXPECT_EXIT(
      {
        deathTestChild();
        std::signal(SIGBUS, plainPreviousHandler);
        Guard::init();
        raise(SIGBUS);
        raise(SIGBUS);
        std::fprintf(stderr, "plain handler calls: %d\n", gPlainHandlerCalls.load());
        _exit(gPlainHandlerCalls.load() == 2 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "plain handler calls: 2");
  EXPECT_EXIT(
      {
        deathTestChild();
        std::signal(SIGBUS, SIG_IGN);
        Guard::init();
        raise(SIGBUS);  // ignored, as before the guard
        std::fprintf(stderr, "ignored\n");
        ShrunkMapping map;
        (void)*map.gone();  // a real fault cannot be ignored: the kernel kills
      },
      ::testing::KilledBySignal(SIGBUS), "ignored");
}

}  // namespace
