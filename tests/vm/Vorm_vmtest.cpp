// The hardware-access manager on a real i2c-dev adapter: the kernel's i2c-stub chip at
// 0x50, which offers SMBus only, so registers move as 4-byte I2C blocks whose command
// is the register offset. The stub keeps one byte per command cell for block data
// (docs/vm-tests.md), so the register at offset c is the low bytes of cells c..c+3:
// busybox i2cget/i2cset, an independent client, reads and writes them cell by cell.

#include "TarnRegFile/platform/Vorm.h"
#include "TarnRegFile/platform/VormI2cDev.h"
#include "VmTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Hardware::SmbusAddress;
using Hardware::U7;
using Hardware::Vorm;
using Hardware::VormOp;
using Hardware::VormRequest;

class VormOnI2cStub : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    ASSERT_TRUE(TarnVm::findI2cStub(bus_, node_)) << TarnVm::kNoI2cStub;
    backend_ = std::make_shared<Hardware::VormI2cDevBackend>(node_);
    vorm_ = Vorm::VormIs("stub", backend_, 300ms);
  }

  Kiv::Ptr<VormRequest> issue(VormOp::Opcode opcode, U16 offset, U32* word, U7 peripheral = U7(0x50)) {
    auto r = vorm_->newRequest();
    r->opIs(opcode, SmbusAddress(offset, peripheral, 2), word, 1, 4, 4, 0);
    r->stateIs(1);
    return r;
  }
  // Waits on the descriptor and dispatches until every request has finished (5 s at most).
  void finish(std::vector<Kiv::Ptr<VormRequest>> const& rs) {
    auto const limit = std::chrono::steady_clock::now() + 5s;
    auto pending = [&] {
      for (auto const& r : rs)
        if (r->status() == VormRequest::kStatusIssued) return true;
      return false;
    };
    while (pending() && std::chrono::steady_clock::now() < limit) {
      pollfd p{vorm_->fd(), POLLIN, 0};
      if (::poll(&p, 1, 100) == 1) vorm_->dispatch();
    }
    ASSERT_FALSE(pending());
  }
  U8 run(VormOp::Opcode opcode, U16 offset, U32* word, U7 peripheral = U7(0x50)) {
    auto r = issue(opcode, offset, word, peripheral);
    finish({r});
    return r->status();
  }

  unsigned busyboxGetByte(unsigned command) { return TarnVm::busyboxGetByte(bus_, command); }

  int bus_ = -1;
  std::string node_;
  std::shared_ptr<Hardware::VormI2cDevBackend> backend_;
  Kiv::Ptr<Vorm> vorm_;
};

// The bytes of a single access on the bus are checked through the transport above
// (I2cTransportVorm_vmtest); here the manager's own part.
TEST_F(VormOnI2cStub, ManyRequestsInFlightCompleteInOrderWithTheirValues) {
  EXPECT_EQ("i2c-dev " + node_ + " (SMBus I2C block data)", backend_->description()) << "an SMBus-only adapter";
  constexpr U16 kCount = 24;
  U32 written[kCount], read[kCount];
  std::vector<Kiv::Ptr<VormRequest>> rs;
  for (U16 i = 0; i < kCount; ++i) {
    written[i] = 0x01020304u * (i + 1u);
    rs.push_back(issue(VormOp::Opcode::write, U16(0x40 + 4 * i), &written[i]));
  }
  for (U16 i = 0; i < kCount; ++i) {
    read[i] = 0;
    rs.push_back(issue(VormOp::Opcode::read, U16(0x40 + 4 * i), &read[i]));
  }
  finish(rs);
  for (U16 i = 0; i < kCount; ++i) {
    EXPECT_EQ(VormRequest::kStatusCompleted, rs[i]->status());
    EXPECT_EQ(written[i], read[i]) << i;
  }
  EXPECT_EQ(written[kCount - 1] >> 24, busyboxGetByte(0x40 + 4 * (kCount - 1)));
}

TEST_F(VormOnI2cStub, WhatTheBusCannotDoFailsTheRequestWithItsReason) {
  U32 word = 0x5a5a5a5a;
  struct Case {
    char const* what;
    U16 offset;
    U7 peripheral;
    U8 status;
    int error;
  } const cases[] = {
      {"offset beyond the SMBus command byte", 0x100, U7(0x50), VormRequest::kStatusRefused, ERANGE},
      {"block cut short at the last cell", 0xfe, U7(0x50), VormRequest::kStatusFailed, EIO},
      {"no chip at the address", 0x10, U7(0x51), VormRequest::kStatusFailed, ENODEV},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    auto r = issue(VormOp::Opcode::read, c.offset, &word, c.peripheral);
    finish({r});
    EXPECT_EQ(c.status, r->status());
    EXPECT_EQ(c.error, r->error());
    EXPECT_EQ(0x5a5a5a5au, word);
  }
}

TEST_F(VormOnI2cStub, TheNodeLockOfTheSynchronousTransportHoldsTheWorkerBack) {
  U32 word = 0xa5a5a5a5;
  int const fd = ::open(node_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ::flock(fd, LOCK_EX));
  auto held = issue(VormOp::Opcode::write, 0x30, &word);
  pollfd p{vorm_->fd(), POLLIN, 0};
  EXPECT_EQ(0, ::poll(&p, 1, 100)) << "nothing happens on the bus while the node is locked";
  EXPECT_EQ(VormRequest::kStatusIssued, held->status());
  ::flock(fd, LOCK_UN);
  finish({held});
  EXPECT_EQ(VormRequest::kStatusCompleted, held->status());
  EXPECT_EQ(0xa5u, busyboxGetByte(0x30));

  // Held past the manager's timeout: the request times out, and the write made once the
  // lock goes is not reported to anyone.
  ASSERT_EQ(0, ::flock(fd, LOCK_EX));
  word = 0x3c3c3c3c;
  auto late = issue(VormOp::Opcode::write, 0x30, &word);
  finish({late});
  EXPECT_EQ(VormRequest::kStatusTimedOut, late->status());
  ::flock(fd, LOCK_UN);
  ::close(fd);
  U32 back = 0;
  ASSERT_EQ(VormRequest::kStatusCompleted, run(VormOp::Opcode::read, 0x30, &back));
  EXPECT_EQ(0x3c3c3c3cu, back);
  EXPECT_EQ(VormRequest::kStatusTimedOut, late->status());
}

}  // namespace
