// The asynchronous I2C transport through the hardware-access manager's i2c-dev bus on the
// kernel's i2c-stub chip at 0x50, built by TransportMethod as an agent builds it, and the
// tarnreg command's --i2c-async. The stub offers SMBus only: register n of the map is
// the 4-byte block at command n, one byte per cell (docs/vm-tests.md), which busybox
// i2cget/i2cset read and write cell by cell as an independent client.

#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/Vorm.h"
#include "TarnRegFile/platform/VormI2cDev.h"
#include "VmTestSupport.h"

#include "TarnRegFile/TransportMethod.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <poll.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using namespace TarnRegFile;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;

constexpr char const* kTool = "/tarn/bin/tarnreg";

std::string hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

class I2cTransportVormOnI2cStub : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    ASSERT_TRUE(TarnVm::findI2cStub(bus_, node_)) << TarnVm::kNoI2cStub;
    vorm_ = Hardware::Vorm::VormIs("stub", std::make_shared<Hardware::VormI2cDevBackend>(node_), 300ms);
    // Register n at byte address 4n: "r<n>" for the offsets used here, and one beyond
    // the SMBus command byte.
    model_ = HardwareRegisterFile::HardwareRegisterFileIs("stub");
    for (U32 n : {0x10u, 0x20u, 0x60u, 0x61u, 0x100u})
      model_->registerIs({Kiv::String(("r" + hex(n)).c_str()), HardwareRegisterType::cfg, true, 4 * n, 32, 32});
  }

  Kiv::Ptr<TransportMethod> transport(U32 devId) {
    auto tm = TransportMethod::TransportMethodIs("stub");
    tm->fullInit(i2cVormTransportDescriptorFactory(vorm_, devId), TransportMethodRegFile("", model_));
    return tm;
  }
  // The agent's loop: wait on the manager's descriptor and dispatch until @p done (5 s at most).
  void runUntil(int const& done, int expected) {
    auto const limit = std::chrono::steady_clock::now() + 5s;
    while (done < expected && std::chrono::steady_clock::now() < limit) {
      pollfd p{vorm_->fd(), POLLIN, 0};
      if (::poll(&p, 1, 100) == 1) vorm_->dispatch();
    }
    ASSERT_EQ(expected, done);
  }
  unsigned busyboxGetByte(unsigned command) { return TarnVm::busyboxGetByte(bus_, command); }
  void busyboxSetBlock(unsigned command, std::vector<unsigned> const& bytes) {
    TarnVm::busyboxSetBlock(bus_, command, bytes);
  }

  int bus_ = -1;
  std::string node_;
  Kiv::Ptr<Hardware::Vorm> vorm_;
  Kiv::Ptr<HardwareRegisterFile> model_;
};

TEST_F(I2cTransportVormOnI2cStub, CallbackAccessesMoveRegistersAtTheirWordOffset) {
  auto tm = transport(0x150);  // bits above the low byte are ignored
  int done = 0;
  RegCallbackStatus writeStatus{};
  tm->regWriteWithCallback("r0x10", 0x12345678, [&](char const*, RegCallbackStatus s) {
    writeStatus = s;
    ++done;
  });
  runUntil(done, 1);
  EXPECT_EQ(RegCallbackStatusSuccess, writeStatus);
  EXPECT_EQ(0x12u, busyboxGetByte(0x10));
  EXPECT_EQ(0x34u, busyboxGetByte(0x11));
  EXPECT_EQ(0x56u, busyboxGetByte(0x12));
  EXPECT_EQ(0x78u, busyboxGetByte(0x13));

  busyboxSetBlock(0x20, {0xde, 0xad, 0xbe, 0xef});
  done = 0;
  std::vector<std::pair<RegCallbackStatus, uint32_t>> reads;
  for (int i = 0; i < 2; ++i)  // two reads of one register in flight: two callbacks
    tm->regReadWithCallback("r0x20", [&](char const*, RegCallbackStatus s, uint32_t v) {
      reads.emplace_back(s, v);
      ++done;
    });
  runUntil(done, 2);
  for (auto const& [s, v] : reads) {
    EXPECT_EQ(RegCallbackStatusSuccess, s);
    EXPECT_EQ(0xdeadbeefu, v);
  }
}

TEST_F(I2cTransportVormOnI2cStub, BusFailuresReachTheCallbackAsFailures) {
  // No chip at 0x51; an offset beyond the SMBus command byte is refused by the bus.
  struct Case {
    U32 devId;
    char const* reg;
  } const cases[] = {{0x51, "r0x10"}, {0x50, "r0x100"}};
  for (auto const& c : cases) {
    SCOPED_TRACE(c.reg);
    auto tm = transport(c.devId);
    int done = 0;
    RegCallbackStatus status{};
    uint32_t value = 0;
    tm->regReadWithCallback(c.reg, [&](char const*, RegCallbackStatus s, uint32_t v) {
      status = s;
      value = v;
      ++done;
    });
    runUntil(done, 1);
    EXPECT_EQ(RegCallbackStatusFailure, status);
    EXPECT_EQ(0xFFFFFFFFu, value);
  }
}

TEST_F(I2cTransportVormOnI2cStub, TarnregReachesTheChipThroughTheManager) {
  ASSERT_EQ(0, ::access(kTool, X_OK)) << kTool << " is missing: the VM was started without the tarnreg command";
  char path[] = "/tmp/stub_async_XXXXXX.csv";
  int const fd = ::mkstemps(path, 4);
  ASSERT_GE(fd, 0);
  ::close(fd);
  std::ofstream(path) << "number,name,type,writeable,width\n96,word60,cfg,true,32\n97,word61,cfg,true,32\n";
  auto tool = [&](std::vector<std::string> args) {
    std::vector<std::string> argv{kTool, "--map", path, "--i2c-async", node_, "--addr", "0x50"};
    argv.insert(argv.end(), args.begin(), args.end());
    return TarnVm::runCommand(argv);
  };
  auto const write = tool({"write", "word60", "0xa1b2c3d4"});
  EXPECT_EQ(0, write.exitStatus) << write.output;
  EXPECT_EQ(0xa1u, busyboxGetByte(0x60));
  EXPECT_EQ(0xd4u, busyboxGetByte(0x63));
  busyboxSetBlock(0x61, {0x0f, 0x1e, 0x2d, 0x3c});
  auto const read = tool({"read", "word61"});
  EXPECT_EQ(0, read.exitStatus) << read.output;
  EXPECT_EQ("0x0f1e2d3c\n", read.output);
  auto const dump = tool({"dump"});
  EXPECT_EQ(0, dump.exitStatus) << dump.output;
  EXPECT_NE(std::string::npos, dump.output.find("0x0f1e2d3c")) << dump.output;

  auto const absent = TarnVm::runCommand({kTool, "--map", path, "--i2c-async", node_, "--addr", "0x51", "read", "word60"});
  EXPECT_EQ(1, absent.exitStatus);
  EXPECT_EQ("tarnreg: asynchronous I2C read of register 'word60' failed on " + node_ +
                " (NACK, bus error, timeout or refusal; -v says which)\n",
            absent.output);
  ::unlink(path);
}

}  // namespace
