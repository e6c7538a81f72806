// The i2c-dev transport against the kernel's i2c-stub chip at 0x50, through
// TransportMethod as agents use it, cross-checked with busybox i2cget/i2cset.
//
// The stub keeps 256 cells of 16 bits indexed by the SMBus command byte. A word
// transfer at command c moves the whole cell c; an I2C block transfer at command c
// moves the low bytes of cells c, c+1, ... (a block write leaves the high bytes
// alone). The stub has no register pointer of its own, which makes the bytes of
// the block flavour's 16-bit addressing visible in the cells.

#include "TarnRegFile/platform/Types.h"
#include "TarnRegFile/platform/Trace.h"
#include "VmTestSupport.h"

#include "TarnRegFile/I2cTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace TarnRegFile;

constexpr unsigned kChip = 0x50;

// Register numbers are the device's register addresses (block size 1).
constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "16,word10,cfg,true,16\n"
    "17,word11,cfg,true,16\n"
    "260,reg0104,cfg,true,32\n"
    "8208,reg2010,cfg,true,32\n"
    "8240,half2030,sts,false,16\n";

std::string hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

double monotonicSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

class I2cTransportVm : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    ASSERT_TRUE(TarnVm::findI2cStub(bus_, node_)) << TarnVm::kNoI2cStub;
    csv_ = "/tmp/i2c-transport-" + std::to_string(getpid()) + ".csv";
    std::ofstream(csv_) << kMap;
    // Other programs of the VM run share the stub: start from known cells.
    for (unsigned cell : {0x01u, 0x02u, 0x03u, 0x04u, 0x05u, 0x10u, 0x11u, 0x20u, 0x21u, 0x22u, 0x23u, 0x24u})
      busyboxSet(cell, 0, "w");
  }
  void TearDown() override {
    if (!csv_.empty()) unlink(csv_.c_str());
  }

  Kiv::Ptr<TransportMethod> transport(TransportFlavour flavour, U32 chip = kChip) {
    auto tm = TransportMethod::TransportMethodIs("stubchip");
    tm->init(I2cTransportDescriptor::I2cTransportDescriptorIs(flavour, Kiv::String(node_), chip),
             Kiv::String(csv_));
    EXPECT_NE(nullptr, dynamic_cast<I2cTransportMethodImpl*>(tm->implPtr()));
    return tm;
  }

  unsigned busyboxGet(unsigned command, char const* mode) {
    auto const r = TarnVm::runCommand({"i2cget", "-y", std::to_string(bus_), hex(kChip), hex(command), mode});
    EXPECT_EQ(0, r.exitStatus) << r.output;
    return unsigned(std::strtoul(r.output.c_str(), nullptr, 16));
  }
  void busyboxSet(unsigned command, unsigned value, char const* mode) {
    auto const r =
        TarnVm::runCommand({"i2cset", "-y", std::to_string(bus_), hex(kChip), hex(command), hex(value), mode});
    ASSERT_EQ(0, r.exitStatus) << r.output;
  }

  int bus_ = -1;
  std::string node_;
  std::string csv_;
};

TEST_F(I2cTransportVm, WordFlavourMovesSixteenBitWordsBothWays) {
  auto tm = transport(TransportFlavour::I2cSmbusDataWord);
  tm->regWrite("word10", 0x12345);
  EXPECT_EQ(0x2345u, busyboxGet(0x10, "w")) << "the upper half of the value is dropped";
  EXPECT_EQ(0x45u, busyboxGet(0x10, "b")) << "low byte first on the bus";
  EXPECT_EQ(0x2345u, tm->regRead("word10"));

  busyboxSet(0x11, 0xbeef, "w");
  EXPECT_EQ(0xbeefu, tm->regRead("word11"));
  EXPECT_FALSE(tm->errorNotifier()->error());
}

TEST_F(I2cTransportVm, WordFlavourRefusesAddressesAboveEightBits) {
  auto tm = transport(TransportFlavour::I2cSmbusDataWord);
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(0xFFFFFFFFu, tm->regRead("reg0104"));
  EXPECT_TRUE(cap.contains("Register address 0x104 is out of range!", 0));
  EXPECT_TRUE(tm->errorNotifier()->error());
  EXPECT_EQ(TransportErrorKind::OutOfRange, tm->errorNotifier()->lastFailure().kind);
}

TEST_F(I2cTransportVm, AccessToAnAddressWithoutAChipFailsWithTheDriversErrno) {
  for (auto flavour : {TransportFlavour::I2cSmbusDataWord, TransportFlavour::I2cSmbusDataBlock}) {
    auto tm = transport(flavour, kChip + 1);  // nothing answers there
    EXPECT_EQ(0xFFFFFFFFu, tm->regRead("word10"));
    auto const& failure = tm->errorNotifier()->lastFailure();
    EXPECT_EQ(TransportErrorKind::System, failure.kind);
    EXPECT_NE(0, failure.errnum);
    EXPECT_NE(std::string::npos, failure.reason.find(std::strerror(failure.errnum))) << failure.reason;
    EXPECT_EQ("word10", failure.regName);
  }
}

TEST_F(I2cTransportVm, BlockFlavourPutsAddressAndValueIntoConsecutiveCells) {
  auto tm = transport(TransportFlavour::I2cSmbusDataBlock);
  tm->regWrite("reg0104", 0x12345678);
  // Command 0x01, then 04 12 34 56 78 into the low bytes of cells 0x01..0x05.
  unsigned const expected[] = {0x04, 0x12, 0x34, 0x56, 0x78};
  for (unsigned i = 0; i < 5; ++i) EXPECT_EQ(expected[i], busyboxGet(0x01 + i, "b")) << "cell " << 0x01 + i;
  EXPECT_EQ(0x0004u, busyboxGet(0x01, "w")) << "the high half of a cell is left alone";

  // The read sets the pointer with one block byte at command 0x01 (0x04 into cell
  // 0x01 again) and reads four bytes from command 0x01: 04 12 34 56. A device with
  // a register pointer would return the register; the stub returns its cells,
  // first byte received most significant.
  EXPECT_EQ(0x04123456u, tm->regRead("reg0104"));
  EXPECT_FALSE(tm->errorNotifier()->error());
}

TEST_F(I2cTransportVm, BlockFlavourReadsWhatAnotherClientWrote) {
  auto tm = transport(TransportFlavour::I2cSmbusDataBlock);
  // Register 0x2010: command 0x20, pointer byte 0x10 into cell 0x20, then cells 0x21..0x23.
  busyboxSet(0x21, 0xa1, "b");
  busyboxSet(0x22, 0xb2, "b");
  busyboxSet(0x23, 0xc3, "b");
  busyboxSet(0x20, 0x5500, "w");
  EXPECT_EQ(0x10a1b2c3u, tm->regRead("reg2010"));
  EXPECT_EQ(0x5510u, busyboxGet(0x20, "w")) << "the pointer byte replaced only the low half";

  // Register 0x2030 is at command 0x20 as well (pointer byte 0x30). Being 16 bits
  // wide, it keeps the first two bytes received, at the top of the result.
  EXPECT_EQ(0x30a10000u, tm->regRead("half2030"));
}

TEST_F(I2cTransportVm, BlockAccessWaitsForAnotherHolderOfTheDeviceLockWordAccessDoesNot) {
  auto block = transport(TransportFlavour::I2cSmbusDataBlock);
  auto word = transport(TransportFlavour::I2cSmbusDataWord);
  int go[2], done[2];
  ASSERT_EQ(0, pipe(go));
  ASSERT_EQ(0, pipe(done));
  pid_t const child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Holds the lock until told to let go, then reports when it did.
    int const fd = open(node_.c_str(), O_RDWR);
    if (fd < 0 || flock(fd, LOCK_EX) != 0) _exit(2);
    char c = 'l';
    if (write(done[1], &c, 1) != 1) _exit(3);
    if (read(go[0], &c, 1) != 1) _exit(4);
    usleep(300 * 1000);
    double const released = monotonicSeconds();
    flock(fd, LOCK_UN);
    if (write(done[1], &released, sizeof released) != ssize_t(sizeof released)) _exit(5);
    _exit(0);
  }
  char c;
  ASSERT_EQ(1, read(done[0], &c, 1));

  // The word flavour takes no lock: it goes through while the child holds it.
  word->regWrite("word10", 0x6789);
  EXPECT_EQ(0x6789u, word->regRead("word10"));
  int const probe = open(node_.c_str(), O_RDONLY);
  EXPECT_NE(0, flock(probe, LOCK_EX | LOCK_NB)) << "the child still holds the lock";
  close(probe);

  ASSERT_EQ(1, write(go[1], "g", 1));
  double const started = monotonicSeconds();
  block->regWrite("reg0104", 0x0badcafe);
  double const finished = monotonicSeconds();
  double released = 0;
  ASSERT_EQ(ssize_t(sizeof released), read(done[0], &released, sizeof released));
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  EXPECT_GE(finished, released) << "the block write finished only after the lock was released";
  EXPECT_GE(finished - started, 0.25);
  EXPECT_EQ(0x0bu, busyboxGet(0x02, "b"));
  EXPECT_EQ(0x040badcau, block->regRead("reg0104"));
  for (int fd : {go[0], go[1], done[0], done[1]}) close(fd);
}

TEST_F(I2cTransportVm, ConstructionRefusesAnAbsentPeripheralNodeOrAddress) {
  auto tm = TransportMethod::TransportMethodIs("absent");
  try {
    tm->init(I2cTransportDescriptor::I2cTransportDescriptorIs(TransportFlavour::I2cSmbusDataBlock,
                                                              "/dev/i2c-99", kChip),
             Kiv::String(csv_));
    ADD_FAILURE() << "opened a node that does not exist";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ("Error opening I2C device /dev/i2c-99: No such file or directory (2)", e.what());
  }
  // Addresses outside the 7-bit range are refused by the kernel.
  try {
    tm->init(I2cTransportDescriptor::I2cTransportDescriptorIs(TransportFlavour::I2cSmbusDataWord,
                                                              Kiv::String(node_), 0x80),
             Kiv::String(csv_));
    ADD_FAILURE() << "accepted peripheral address 0x80";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ("Error setting peripheral address to 0x80: Invalid argument (22)", e.what());
  }
}

}  // namespace
