// The kernel's i2c-stub chip at 0x50 behind i2c-dev, driven with raw i2c-dev
// ioctls and cross-checked with busybox's i2cget/i2cset, an independent client.
// The assertions pin down the stub's register model (documented in
// docs/vm-tests.md), which the I2C transport's in-VM tests rely on:
//  - 256 cells of 16 bits, indexed by the SMBus command byte;
//  - word data at command c reads and writes the whole cell c;
//  - byte data and I2C block data touch only the low byte of each cell, a block
//    covering cells c, c+1, ... and being cut short at cell 255.

#include "TarnRegFile/platform/Types.h"
#include "VmTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int kChip = 0x50;

class I2cStub : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    bus_ = TarnVm::findI2cAdapter("SMBus stub driver");
    ASSERT_GE(bus_, 0) << "no i2c-stub adapter (insmod i2c-stub.ko chip_addr=0x50)";
    device_ = "/dev/i2c-" + std::to_string(bus_);
    fd_ = open(device_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd_, 0) << device_ << ": " << std::strerror(errno);
    ASSERT_EQ(0, ioctl(fd_, I2C_SLAVE, kChip)) << std::strerror(errno);
  }
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
  }

  int smbus(U8 readWrite, U8 command, U32 size, i2c_smbus_data& data) {
    i2c_smbus_ioctl_data args{};
    args.read_write = readWrite;
    args.command = command;
    args.size = size;
    args.data = &data;
    return ioctl(fd_, I2C_SMBUS, &args);
  }
  void writeWord(U8 command, U16 word) {
    i2c_smbus_data data{};
    data.word = word;
    ASSERT_EQ(0, smbus(I2C_SMBUS_WRITE, command, I2C_SMBUS_WORD_DATA, data)) << std::strerror(errno);
  }
  U16 readWord(U8 command) {
    i2c_smbus_data data{};
    EXPECT_EQ(0, smbus(I2C_SMBUS_READ, command, I2C_SMBUS_WORD_DATA, data)) << std::strerror(errno);
    return data.word;
  }
  void writeBlock(U8 command, std::vector<U8> const& bytes) {
    i2c_smbus_data data{};
    data.block[0] = U8(bytes.size());
    std::memcpy(&data.block[1], bytes.data(), bytes.size());
    ASSERT_EQ(0, smbus(I2C_SMBUS_WRITE, command, I2C_SMBUS_I2C_BLOCK_DATA, data)) << std::strerror(errno);
  }
  std::vector<U8> readBlock(U8 command, U8 length) {
    i2c_smbus_data data{};
    data.block[0] = length;
    EXPECT_EQ(0, smbus(I2C_SMBUS_READ, command, I2C_SMBUS_I2C_BLOCK_DATA, data)) << std::strerror(errno);
    return std::vector<U8>(&data.block[1], &data.block[1] + data.block[0]);
  }

  // busybox reads the chip address, command and values as hex numbers.
  static std::string hex(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
  }
  // busybox i2cget -y BUS 0x50 COMMAND MODE: the value it prints.
  unsigned busyboxGet(U8 command, char const* mode) {
    auto const r = TarnVm::runCommand({"i2cget", "-y", std::to_string(bus_), "0x50", hex(command), mode});
    EXPECT_EQ(0, r.exitStatus) << r.output;
    return unsigned(std::strtoul(r.output.c_str(), nullptr, 16));
  }
  // busybox i2cset -y BUS 0x50 COMMAND VALUE... MODE
  void busyboxSet(U8 command, std::vector<unsigned> const& values, char const* mode) {
    std::vector<std::string> argv{"i2cset", "-y", std::to_string(bus_), "0x50", hex(command)};
    for (unsigned v : values) argv.push_back(hex(v));
    argv.emplace_back(mode);
    auto const r = TarnVm::runCommand(argv);
    ASSERT_EQ(0, r.exitStatus) << r.output;
  }

  int bus_ = -1;
  std::string device_;
  int fd_ = -1;
};

TEST_F(I2cStub, AdapterOffersSmbusWordAndI2cBlockButNoRawTransfers) {
  unsigned long funcs = 0;
  ASSERT_EQ(0, ioctl(fd_, I2C_FUNCS, &funcs));
  EXPECT_TRUE(funcs & I2C_FUNC_SMBUS_WORD_DATA);
  EXPECT_TRUE(funcs & I2C_FUNC_SMBUS_I2C_BLOCK);
  EXPECT_FALSE(funcs & I2C_FUNC_I2C) << "i2c-stub does not do plain I2C transfers";
}

TEST_F(I2cStub, WordDataRoundTripsBothWaysWithBusybox) {
  writeWord(0x10, 0xbeef);
  EXPECT_EQ(0xbeef, readWord(0x10));
  EXPECT_EQ(0xbeefu, busyboxGet(0x10, "w"));

  busyboxSet(0x12, {0x1234}, "w");
  EXPECT_EQ(0x1234, readWord(0x12));
}

TEST_F(I2cStub, I2cBlockDataRoundTripsBothWaysWithBusybox) {
  writeBlock(0x40, {0x11, 0x22, 0x33, 0x44, 0x55});
  EXPECT_EQ((std::vector<U8>{0x11, 0x22, 0x33, 0x44, 0x55}), readBlock(0x40, 5));
  for (U8 i = 0; i < 5; ++i) EXPECT_EQ(0x11u * (i + 1u), busyboxGet(U8(0x40 + i), "b"));

  busyboxSet(0x60, {0xde, 0xad, 0xbe, 0xef}, "i");
  EXPECT_EQ((std::vector<U8>{0xde, 0xad, 0xbe, 0xef}), readBlock(0x60, 4));
  EXPECT_EQ((std::vector<U8>{0xad, 0xbe}), readBlock(0x61, 2));
}

TEST_F(I2cStub, WordIsOneSixteenBitCellAndBytesAreItsLowHalf) {
  writeWord(0x80, 0x0000);
  writeWord(0x81, 0x0000);
  writeWord(0x80, 0xa1b2);
  // The word occupies cell 0x80 alone: cell 0x81 is untouched.
  EXPECT_EQ(0xb2u, busyboxGet(0x80, "b"));
  EXPECT_EQ(0x0000, readWord(0x81));
  EXPECT_EQ((std::vector<U8>{0xb2, 0x00}), readBlock(0x80, 2));

  // A block (or byte) write replaces only the low half of each cell.
  writeBlock(0x80, {0x5c});
  EXPECT_EQ(0xa15c, readWord(0x80));
  busyboxSet(0x80, {0x77}, "b");
  EXPECT_EQ(0xa177, readWord(0x80));
}

TEST_F(I2cStub, BlockReadIsCutShortAtTheLastCell) {
  writeBlock(0xfd, {0x01, 0x02, 0x03});
  EXPECT_EQ((std::vector<U8>{0x02, 0x03}), readBlock(0xfe, 4));
}

TEST_F(I2cStub, RegisterAccessWithAPointerByteInTheBlock) {
  // A 32-bit register at 16-bit address A written as one I2C block: command =
  // A >> 8, bytes = A & 0xff then the value most significant byte first.
  U16 const address = 0x0104;
  U32 const value = 0x12345678;
  writeBlock(U8(address >> 8), {U8(address), U8(value >> 24), U8(value >> 16), U8(value >> 8), U8(value)});
  EXPECT_EQ((std::vector<U8>{0x04, 0x12, 0x34, 0x56, 0x78}), readBlock(0x01, 5));
  // Setting the pointer (one block byte) and reading four bytes back at the same
  // command returns the pointer byte first: the stub has no register pointer.
  writeBlock(U8(address >> 8), {U8(address)});
  EXPECT_EQ((std::vector<U8>{0x04, 0x12, 0x34, 0x56}), readBlock(0x01, 4));
}

}  // namespace
