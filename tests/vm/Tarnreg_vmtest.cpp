// The tarnreg command over real kernel drivers, run as a separate process exactly
// as a user runs it inside the VM: the i2c-stub chip at 0x50 behind i2c-dev, cross-
// checked with busybox i2cget/i2cset, and QEMU's edu PCI device through its sysfs
// resource file. The i386 build's command goes through the kernel's 32-bit compat
// path of the i2c-dev ioctls here.
//
// The stub keeps 256 cells of 16 bits indexed by the SMBus command byte: a word
// transfer at command c moves the whole cell c, an I2C block transfer at command c
// moves the low bytes of cells c, c+1, ... and has no register pointer of its own.

#include "VmTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using Json = nlohmann::json;
using Args = std::vector<std::string>;
using TarnVm::CommandResult;

// scripts/vm-test.sh puts the build's commands there.
constexpr char const* kTool = "/tarn/bin/tarnreg";
constexpr unsigned kChip = 0x50;

// Registers 0x40 (word40), 0x41 (word41) and 0x42 (status42, read-only), 16 bits wide.
constexpr char const* kWordMap = TARN_SOURCE_DIR "/tests/vm/data/tarnreg_stub_word.csv";
// Register 0x6040 (block6040), 32 bits wide.
constexpr char const* kBlockMap = TARN_SOURCE_DIR "/tests/vm/data/tarnreg_stub_block.csv";
// Register 0 (ident, read-only) and 1 (liveness) of the edu device.
constexpr char const* kEduMap = TARN_SOURCE_DIR "/tests/vm/data/tarnreg_edu.csv";

std::string hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

// The command's exit status and its standard output and error together (the host
// tests keep the two apart; here the devices are the point).
CommandResult tarnreg(Args args) {
  args.insert(args.begin(), kTool);
  return TarnVm::runCommand(args);
}

// Success with exactly @p output (so nothing on stderr).
void expectOutput(CommandResult const& run, std::string const& output) {
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ(output, run.output);
}

// A failure: exactly one "tarnreg: " line holding @p text.
void expectFailure(CommandResult const& run, std::string const& text) {
  EXPECT_EQ(1, run.exitStatus) << run.output;
  EXPECT_TRUE(run.output.starts_with("tarnreg: ")) << run.output;
  EXPECT_EQ(1, std::count(run.output.begin(), run.output.end(), '\n')) << run.output;
  EXPECT_NE(std::string::npos, run.output.find(text)) << "output: " << run.output << "expected: " << text;
}

class TarnregVm : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    ASSERT_EQ(0, ::access(kTool, X_OK)) << kTool << " is missing: the VM was started without the tarnreg command";
  }
};

class TarnregOnStub : public TarnregVm {
protected:
  void SetUp() override {
    TarnregVm::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(TarnVm::findI2cStub(bus_, node_)) << TarnVm::kNoI2cStub;
  }

  // tarnreg over the stub chip with @p map and @p flavour ("" for the default); @p command
  // follows the transport options.
  CommandResult tool(char const* map, std::string const& flavour, Args const& command, unsigned chip = kChip) {
    Args args{"--map", map, "--i2c", node_, "--addr", hex(chip)};
    if (!flavour.empty()) args.insert(args.end(), {"--flavour", flavour});
    args.insert(args.end(), command.begin(), command.end());
    return tarnreg(args);
  }
  CommandResult word(Args const& command, unsigned chip = kChip) { return tool(kWordMap, "word", command, chip); }

  // busybox i2cget/i2cset of the whole 16-bit cell @p command of the chip.
  unsigned get(unsigned command) {
    auto const r = TarnVm::runCommand({"i2cget", "-y", std::to_string(bus_), hex(kChip), hex(command), "w"});
    EXPECT_EQ(0, r.exitStatus) << r.output;
    return unsigned(std::strtoul(r.output.c_str(), nullptr, 16));
  }
  void set(unsigned command, unsigned value) {
    auto const r =
        TarnVm::runCommand({"i2cset", "-y", std::to_string(bus_), hex(kChip), hex(command), hex(value), "w"});
    ASSERT_EQ(0, r.exitStatus) << r.output;
  }

  int bus_ = -1;
  std::string node_;
};

TEST_F(TarnregOnStub, WordWritesAndReadsMeetTheCellsOtherClientsUse) {
  set(0x41, 0x5a5a);
  expectOutput(word({"write", "word40", "0x1234"}), "");
  EXPECT_EQ(0x1234u, get(0x40));
  EXPECT_EQ(0x5a5au, get(0x41)) << "a word write touches one cell only";

  set(0x41, 0xbeef);
  expectOutput(word({"read", "word41"}), "0x0000beef\n");
  CommandResult const json = word({"read", "word41", "--json"});
  EXPECT_EQ(0, json.exitStatus) << json.output;
  EXPECT_EQ(Json::parse(R"({"name": "word41", "address": 65, "value": 48879})"), Json::parse(json.output))
      << "I2C register numbers are byte addresses";

  // The map's guards are the host tests' business; forced past them, the word flavour
  // sends the low 16 bits.
  expectOutput(word({"-f", "write", "status42", "0x1abcd"}), "");
  EXPECT_EQ(0xabcdu, get(0x42));
  expectOutput(word({"dump"}),
               "address     name      value\n"
               "0x00000040  word40    0x00001234\n"
               "0x00000041  word41    0x0000beef\n"
               "0x00000042  status42  0x0000abcd\n");
}

TEST_F(TarnregOnStub, BlockWriteThenReadBackFollowsTheChipModel) {
  for (unsigned i = 0; i < 6; ++i) set(0x60 + i, 0xeea0 + i);
  // The default flavour is the block flavour. Command 0x60 carries the register's low
  // address byte, then the value most significant byte first, into the low bytes of
  // cells 0x60 - 0x64; the high bytes and cell 0x65 stay.
  expectOutput(tool(kBlockMap, "", {"write", "block6040", "0x12345678"}), "");
  unsigned const cells[] = {0xee40, 0xee12, 0xee34, 0xee56, 0xee78, 0xeea5};
  for (unsigned i = 0; i < 6; ++i) EXPECT_EQ(cells[i], get(0x60 + i)) << "cell " << hex(0x60 + i);
  // The read sets the pointer (one block byte at command 0x60) and reads four bytes
  // there: the stub has no pointer, so it returns the pointer byte and the value's
  // upper three bytes.
  expectOutput(tool(kBlockMap, "block", {"read", "block6040"}), "0x40123456\n");
}

TEST_F(TarnregOnStub, AnAddressWithoutAChipFailsWithOneLine) {
  // The stub answers only at 0x50: the kernel refuses transfers to 0x51 (ENODEV).
  set(0x40, 0x4242);
  expectFailure(word({"read", "word40"}, 0x51),
                "register 'word40': I2C word read from address 0x40 failed: No such device");
  expectFailure(word({"write", "word40", "0x1"}, 0x51),
                "register 'word40': I2C word write from address 0x40 failed: No such device");
  // The block read fails at its first transfer, the one that sets the pointer.
  expectFailure(tool(kBlockMap, "block", {"read", "block6040"}, 0x51),
                "register 'block6040': Error writing address 0x6040 on FD");
  EXPECT_EQ(0x4242u, get(0x40)) << "nothing reached the chip at 0x50";
  // The word flavour's register address is one byte: 0x6040 is refused before any transfer.
  expectFailure(tool(kBlockMap, "word", {"read", "block6040"}), "Register address 0x6040 is out of range!");
}

TEST_F(TarnregVm, EduIdentificationIsReadOnlyAndLivenessInvertsWrites) {
  std::string const address = TarnVm::findPciDevice(0x1234, 0x11e8);
  ASSERT_FALSE(address.empty()) << "no edu PCI device (QEMU -device edu)";
  auto const tool = [&](Args command) {
    command.insert(command.begin(), {"--map", kEduMap, "--pci", "/sys/bus/pci/devices/" + address + "/resource0"});
    return tarnreg(command);
  };

  expectOutput(tool({"read", "ident"}), "0x010000ed\n");
  expectOutput(tool({"write", "liveness", "0x0f0f0f0f"}), "");
  expectOutput(tool({"read", "liveness"}), "0xf0f0f0f0\n");
  expectFailure(tool({"write", "ident", "0"}), "register 'ident' is read-only");
  expectOutput(tool({"write", "liveness", "305419896"}), "");  // the inverse of 0x12345678 is 0xedcba987
  expectOutput(tool({"dump"}),
               "address     name      value\n"
               "0x00000000  ident     0x010000ed\n"
               "0x00000004  liveness  0xedcba987\n");
}

}  // namespace
