// Real bus errors: a shared mapping of a file that is then truncated makes every
// access past the new end of the file raise SIGBUS.

#include "TarnRegFile/platform/SigbusGuard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

namespace Guard = Kiv::SigbusGuard;

// Two pages of an anonymous file, mapped shared; the second page is cut off the
// file, so it is still mapped but every access to it faults.
class ShrunkMapping {
public:
  ShrunkMapping() {
    if (fd_ < 0 || ftruncate(fd_, off_t(2 * page_)) != 0)
      std::abort();
    void* p = mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (p == MAP_FAILED || ftruncate(fd_, off_t(page_)) != 0)
      std::abort();
    base_ = static_cast<U32 volatile*>(p);
  }
  ~ShrunkMapping() {
    munmap(const_cast<U32*>(base_), 2 * page_);
    close(fd_);
  }
  U32 volatile* good(std::size_t index = 0) const { return base_ + index; }
  U32 volatile* gone(std::size_t index = 0) const { return base_ + page_ / 4 + index; }

private:
  std::size_t page_ = std::size_t(sysconf(_SC_PAGESIZE));
  int fd_ = memfd_create("tarn-sigbus", MFD_CLOEXEC);
  U32 volatile* base_ = nullptr;
};

// Prepares a death-test child: no core file, and a deadline so that a handler
// that keeps returning into the faulting access ends the child instead of
// spinning forever.
void deathTestChild() {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  alarm(20);
}

// A bus error the guard does not own ends the process as without the guard;
// under AddressSanitizer, whose handler the guard chains to, with its report.
#if defined(__SANITIZE_ADDRESS__)
#define EXPECT_DIES_OF_SIGBUS(statement) EXPECT_EXIT(statement, ::testing::ExitedWithCode(1), "AddressSanitizer.*BUS")
#else
#define EXPECT_DIES_OF_SIGBUS(statement) EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGBUS), "")
#endif

TEST(SigbusGuard, GuardedAccessesReachTheFileAndFaultsPastItsEndThrow) {
  ShrunkMapping map;
  Guard::guardedWrite32(map.good(3), 0xcafef00du);
  U32 value = 0;
  EXPECT_TRUE(Guard::tryRead32(map.good(3), value));
  EXPECT_EQ(0xcafef00du, value);
  EXPECT_TRUE(Guard::tryWrite32(map.good(4), 7u));
  EXPECT_EQ(7u, Guard::guardedRead32(map.good(4)));

  EXPECT_THROW((void)Guard::guardedRead32(map.gone()), Kiv::SigbusException);
  EXPECT_THROW(Guard::guardedWrite32(map.gone(5), 0x12345678u), Kiv::SigbusException);
  value = 0xabcdu;
  EXPECT_FALSE(Guard::tryRead32(map.gone(1), value));
  EXPECT_EQ(0xabcdu, value) << "a failed load must leave the destination untouched";
  EXPECT_FALSE(Guard::tryWrite32(map.gone(1), 1u));

  // A guarded region: abandoned at the fault, nested ones unwind to the right target, an
  // exception passes through and leaves nothing armed (a later stray fault still kills).
  U32 reached = 0;
  EXPECT_FALSE(Guard::run([&] { reached = 1, reached += *map.gone(2); }));
  EXPECT_EQ(1u, reached);
  EXPECT_TRUE(Guard::run([&] { EXPECT_FALSE(Guard::run([&] { (void)*map.gone(); })); reached = *map.good(3); }));
  EXPECT_EQ(0xcafef00du, reached);
  EXPECT_THROW(Guard::run([] { throw std::out_of_range("x"); }), std::out_of_range);
  EXPECT_DIES_OF_SIGBUS((deathTestChild(), (void)*map.gone(3)));
}

TEST(SigbusGuard, ThreadsSurviveThousandsOfFaultsEachAndKeepWorking) {
  ShrunkMapping map;
  std::atomic<int> faults{0}, wrongValues{0};
  std::vector<std::thread> threads;
  for (U32 t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (U32 i = 0; i < 2500; ++i) {
        U32 value = 0;
        faults += !Guard::tryRead32(map.gone(t * 16 + i % 16), value) + !Guard::tryWrite32(map.gone(t), i);
        Guard::guardedWrite32(map.good(t), t * 100000 + i);
        wrongValues += Guard::guardedRead32(map.good(t)) != t * 100000 + i;
      }
    });
  for (auto& th : threads)
    th.join();
  EXPECT_EQ(20000, faults.load());
  EXPECT_EQ(0, wrongValues.load());
  // The jump out of the handler must not leave SIGBUS blocked: a blocked
  // synchronous SIGBUS would kill the process on this fault.
  EXPECT_THROW(Guard::guardedRead32(map.gone()), Kiv::SigbusException);
}

// This test needs a process in which the guard has not been installed yet, so
// that it chooses the disposition the guard chains to: the death-test child
// re-executes the program instead of forking this (already guarded) process.
class SigbusChaining : public ::testing::Test {
protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

std::atomic<void*> gSeenAddress{nullptr};

// A stray fault under the default disposition is the death test of the first test.
TEST_F(SigbusChaining, APreviousHandlerGetsTheFaultsThatAreNotTheGuards) {
  EXPECT_EXIT(
      {
        deathTestChild();
        struct sigaction sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_sigaction = [](int sig, siginfo_t* info, void*) {
          bool const mine = sig == SIGBUS && info->si_code == BUS_ADRERR && info->si_addr == gSeenAddress.load();
          if (mine && write(2, "previous handler ran\n", 21) == 21)
            _exit(42);
          _exit(43);
        };
        sa.sa_flags = SA_SIGINFO;
        sigaction(SIGBUS, &sa, nullptr);
        Guard::init();
        ShrunkMapping map;
        // Guarded faults are ours and never reach the previous handler.
        for (int i = 0; i < 3; ++i)
          EXPECT_THROW(Guard::guardedRead32(map.gone()), Kiv::SigbusException);
        gSeenAddress.store(const_cast<U32*>(map.gone(2)));
        (void)*map.gone(2);
        _exit(0);
      },
      ::testing::ExitedWithCode(42), "previous handler ran");
}

}  // namespace
