// The i2c-dev transports against the kernel's i2c-stub chip at 0x50, built through
// TransportMethod as agents build them, cross-checked with busybox i2cget/i2cset: the
// synchronous transport, and the hardware-access manager on the same adapter (Manager*)
// with the asynchronous transport above it and tarnreg's --i2c-async (AsyncTransport*; the
// bytes of an access and the order of accesses in flight are checked there).
//
// The stub keeps 256 cells of 16 bits indexed by the SMBus command byte. A word
// transfer at command c moves the whole cell c; an I2C block transfer at command c
// moves the low bytes of cells c, c+1, ... The stub has no register pointer of its own,
// which makes the bytes of the block flavour's 16-bit addressing visible in the cells. It
// offers SMBus only, so the manager moves a register as a 4-byte I2C block whose command
// is the register offset: the register at offset c is the low bytes of cells c..c+3.

#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/Trace.h"
#include "TarnRegFile/platform/Types.h"
#include "TarnRegFile/platform/Vorm.h"
#include "TarnRegFile/platform/VormI2cDev.h"
#include "VmTestSupport.h"
#include "support/VormLoop.h"

#include "TarnRegFile/I2cTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

using namespace TarnRegFile;
using namespace std::chrono_literals;
using Hardware::VormRequest;
using TarnTest::finish;
using TarnTest::issue;
constexpr auto kRead = Hardware::VormOp::Opcode::read;
constexpr auto kWrite = Hardware::VormOp::Opcode::write;

// ---------------------------------------------------------------- the synchronous transport

class I2cTransportVm : public TarnVm::I2cStubTest {
protected:
  void SetUp() override {
    I2cStubTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    // Other programs of the VM run share the stub: start from known cells.
    for (unsigned cell : {0x01u, 0x02u, 0x03u, 0x04u, 0x05u, 0x10u, 0x11u, 0x12u, 0x13u, 0x30u}) set(cell, {0}, "w");
    vorm_ = Hardware::Vorm::VormIs("stub", std::make_shared<Hardware::VormI2cDevBackend>(node_), 300ms);
  }

  // The registers by their byte address: the synchronous transport's are its device addresses
  // as they are; the asynchronous one's "r0x<n>" are the 4-byte words at offset n.
  Kiv::Ptr<TransportMethod> transport(Kiv::Ptr<BaseTransportDescriptor> const& descriptor) {
    auto model = Hardware::TarnRegFile::HardwareRegisterFile::HardwareRegisterFileIs("stub");
    for (auto [name, address, width] : {std::tuple{"word10", 0x10u, 16u}, {"reg0104", 0x104u, 32u}, {"r0x10", 0x40u, 32u},
                                        {"r0x20", 0x80u, 32u}, {"r0x100", 0x400u, 32u}})
      model->registerIs({name, Hardware::TarnRegFile::HardwareRegisterType::cfg, true, address, width, 32});
    auto tm = TransportMethod::TransportMethodIs("stub");
    tm->fullInit(descriptor, TransportMethodRegFile("", model));
    return tm;
  }
  Kiv::Ptr<TransportMethod> transport(TransportFlavour flavour, U32 chip = 0x50) {
    auto tm = transport(I2cTransportDescriptor::I2cTransportDescriptorIs(flavour, Kiv::String(node_), chip));
    EXPECT_NE(nullptr, dynamic_cast<I2cTransportMethodImpl*>(tm->implPtr()));
    return tm;
  }

  Kiv::Ptr<Hardware::Vorm> vorm_;  // the hardware-access manager on the adapter
};

TEST_F(I2cTransportVm, WordFlavourMovesSixteenBitWordsBothWaysBelowAddress0x100) {
  auto tm = transport(TransportFlavour::I2cSmbusDataWord);
  tm->regWrite("word10", 0x12345);
  EXPECT_EQ(0x2345u, get(0x10, "w")) << "the upper half of the value is dropped";
  EXPECT_EQ(0x2345u, tm->regRead("word10"));

  // An address above 8 bits is refused before anything is sent (cell 0x04 keeps its 0).
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(0xFFFFFFFFu, tm->regRead("reg0104"));
  tm->regWrite("reg0104", 0xabcd);
  EXPECT_EQ(2u, cap.count("Register address 0x104 is out of range!"));
  EXPECT_EQ(TransportErrorKind::OutOfRange, tm->errorNotifier()->lastFailure().kind);
  EXPECT_EQ(0u, get(0x04, "w"));
}

TEST_F(I2cTransportVm, BlockFlavourPutsAddressAndValueIntoConsecutiveCellsAndReadsThemBack) {
  auto tm = transport(TransportFlavour::I2cSmbusDataBlock);
  tm->regWrite("reg0104", 0x12345678);
  // Command 0x01, then 04 12 34 56 78 into the low bytes of cells 0x01..0x05.
  unsigned const expected[] = {0x04, 0x12, 0x34, 0x56, 0x78};
  for (unsigned i = 0; i < 5; ++i) EXPECT_EQ(expected[i], get(0x01 + i)) << "cell " << 0x01 + i;
  // The read sets the pointer with one block byte at command 0x01 (0x04 into cell
  // 0x01 again) and reads four bytes from command 0x01: 04 12 34 56. A device with
  // a register pointer would return the register; the stub returns its cells,
  // first byte received most significant.
  EXPECT_EQ(0x04123456u, tm->regRead("reg0104"));
}

TEST_F(I2cTransportVm, BlockAccessWaitsForAnotherHolderOfTheDeviceLockWordAccessDoesNot) {
  auto block = transport(TransportFlavour::I2cSmbusDataBlock);
  auto word = transport(TransportFlavour::I2cSmbusDataWord);
  // Another open file of the node holds the lock, as another process would.
  int const holder = open(node_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(0, flock(holder, LOCK_EX));
  word->regWrite("word10", 0x6789);
  EXPECT_EQ(0x6789u, word->regRead("word10")) << "the word flavour takes no lock";

  auto const start = std::chrono::steady_clock::now();
  std::thread releaser([&] {
    std::this_thread::sleep_for(300ms);
    flock(holder, LOCK_UN);
  });
  block->regWrite("reg0104", 0x0badcafe);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms) << "the block write waited for the lock's release";
  releaser.join();
  close(holder);
  EXPECT_EQ(0x0bu, get(0x02));
}

TEST_F(I2cTransportVm, ARefusedAddressOrAbsentChipFailsWithTheDriversErrno) {
  EXPECT_THAT([&] { transport(TransportFlavour::I2cSmbusDataWord, 0x80); },
              ::testing::ThrowsMessage<std::runtime_error>(
                  "Error setting peripheral address to 0x80: Invalid argument (22)"));
  for (auto flavour : {TransportFlavour::I2cSmbusDataWord, TransportFlavour::I2cSmbusDataBlock}) {
    auto tm = transport(flavour, 0x51);  // nothing answers there
    EXPECT_EQ(0xFFFFFFFFu, tm->regRead("word10"));
    auto const& failure = tm->errorNotifier()->lastFailure();
    EXPECT_EQ(TransportErrorKind::System, failure.kind);
    EXPECT_EQ(ENODEV, failure.errnum);
    EXPECT_NE(std::string::npos, failure.reason.find(std::strerror(failure.errnum))) << failure.reason;
    EXPECT_EQ("word10", failure.regName);
  }
}

// ---------------------------------------------------------------- the manager and the asynchronous transport

TEST_F(I2cTransportVm, ManagerWhatTheBusCannotDoFailsTheRequestWithItsReason) {
  U32 word = 0x5a5a5a5a;
  // An offset beyond the SMBus command byte, a block cut short at the last cell, no chip at the address.
  for (auto [offset, peripheral, status, error] : {std::tuple{0x100, 0x50, VormRequest::kStatusRefused, ERANGE},
                                                   std::tuple{0xfe, 0x50, VormRequest::kStatusFailed, EIO},
                                                   std::tuple{0x10, 0x51, VormRequest::kStatusFailed, ENODEV}}) {
    SCOPED_TRACE(offset);
    auto r = issue(vorm_, kRead, U16(offset), &word, Hardware::U7(peripheral));
    ASSERT_TRUE(finish(vorm_, {r}));
    EXPECT_EQ(status, r->status());
    EXPECT_EQ(error, r->error());
    EXPECT_EQ(0x5a5a5a5au, word);
  }
}

TEST_F(I2cTransportVm, ManagerTheNodeLockHoldsTheWorkerBackUntilItsRequestsTimeOut) {
  set(0x34, {0x11, 0x22, 0x33, 0x44});
  int const fd = ::open(node_.c_str(), O_RDWR | O_CLOEXEC);
  // Held past the manager's timeout, as the synchronous transport holds it, the lock keeps
  // the worker off the bus; the deadline makes the descriptor readable and both requests
  // time out. The write the worker had started is made once the lock goes and reported to
  // nobody; the one still queued is never performed.
  ASSERT_EQ(0, ::flock(fd, LOCK_EX));
  U32 late = 0x3c3c3c3c, queued = 0x99999999;
  auto const timedOut = {issue(vorm_, kWrite, 0x30, &late), issue(vorm_, kWrite, 0x34, &queued)};
  ASSERT_TRUE(finish(vorm_, timedOut));
  for (auto const& r : timedOut) EXPECT_EQ(ETIMEDOUT, r->error());
  ::close(fd);  // and with it the lock
  U32 back[2] = {};
  auto const after = {issue(vorm_, kRead, 0x30, &back[0]), issue(vorm_, kRead, 0x34, &back[1])};
  ASSERT_TRUE(finish(vorm_, after));
  EXPECT_EQ(0x3c3c3c3cu, back[0]);
  EXPECT_EQ(0x11223344u, back[1]);
  for (auto const& r : timedOut) EXPECT_EQ(VormRequest::kStatusTimedOut, r->status());
}

TEST_F(I2cTransportVm, AsyncTransportCallbacksMoveRegistersAtTheirWordOffsetAndReportBusFailures) {
  Kiv::TraceCapture cap("TarnRegFile/I2cTransportVormImplSm");
  auto tm = transport(i2cVormTransportDescriptorFactory(vorm_, 0x150));  // bits above the low byte are ignored
  set(0x20, {0xde, 0xad, 0xbe, 0xef});
  std::vector<std::string> outcomes;  // in the order the callbacks came
  auto const record = [&](char const* reg, RegCallbackStatus s, uint32_t value) {
    outcomes.push_back(fmt::format("{} {} {:#x}", reg, s == RegCallbackStatusSuccess ? "ok" : "failed", value));
  };
  tm->regWriteWithCallback("r0x10", 0x12345678, [&](char const* reg, RegCallbackStatus s) { record(reg, s, 0); });
  tm->regReadWithCallback("r0x10", record);  // read back behind the write, in issue order
  tm->regReadWithCallback("r0x20", record);
  tm->regReadWithCallback("r0x100", record);  // refused by the bus
  ASSERT_TRUE(TarnTest::runUntil({vorm_}, [&] { return outcomes.size() >= 4; }));
  EXPECT_EQ(outcomes, (std::vector<std::string>{"r0x10 ok 0x0", "r0x10 ok 0x12345678", "r0x20 ok 0xdeadbeef",
                                                "r0x100 failed 0xffffffff"}));
  EXPECT_TRUE(
      cap.contains("I2cTransportVormImplSm::onStatus read with callback success reg: r0x20 value: 3735928559", 5));
  EXPECT_TRUE(cap.contains("I2cTransportVormImplSm::onStatus read with callback fail reg: r0x100", 5));
  unsigned const cells[] = {0x12, 0x34, 0x56, 0x78};
  for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(cells[i], get(0x10 + i)) << "cell " << 0x10 + i;
}

TEST_F(I2cTransportVm, AsyncTransportOfTarnregReachesTheChipThroughTheManager) {
  constexpr char const* kTool = "/tarn/bin/tarnreg";  // vm-test.sh refuses to start without it
  std::string const map = "/tmp/stub-async-" + std::to_string(getpid()) + ".csv";
  std::ofstream(map) << "number,name,type,writeable,width\n96,word60,cfg,true,32\n97,word61,cfg,true,32\n";
  auto tool = [&](char const* addr, std::vector<std::string> const& args, int status = 0) {
    std::vector<std::string> argv{kTool, "--map", map, "--i2c-async", node_, "--addr", addr};
    argv.insert(argv.end(), args.begin(), args.end());
    auto const r = TarnVm::runCommand(argv);
    EXPECT_EQ(status, r.exitStatus) << r.output;
    return r.output;
  };
  tool("0x50", {"write", "word60", "0xa1b2c3d4"});
  EXPECT_EQ(0xa1u, get(0x60));
  EXPECT_EQ(0xd4u, get(0x63));
  set(0x61, {0x0f, 0x1e, 0x2d, 0x3c});
  EXPECT_EQ("0x0f1e2d3c\n", tool("0x50", {"read", "word61"}));
  EXPECT_THAT(tool("0x50", {"dump"}), ::testing::HasSubstr("0x0f1e2d3c"));
  EXPECT_EQ("tarnreg: asynchronous I2C read of register 'word60' failed on " + node_ +
                " (NACK, bus error, timeout or refusal; -v says which)\n",
            tool("0x51", {"read", "word60"}, 1));
  ::unlink(map.c_str());
}

}  // namespace
