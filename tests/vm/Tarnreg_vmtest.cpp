// The tarnreg command over real kernel drivers, run as a separate process exactly
// as a user runs it inside the VM: the i2c-stub chip at 0x50 behind i2c-dev, cross-
// checked with busybox i2cget/i2cset. The i386 build's command goes through the
// kernel's 32-bit compat path of the i2c-dev ioctls here. (PCI over sysfs is the
// transport's alone: the command's --pci path is the same with a plain file.)
//
// The stub keeps 256 cells of 16 bits indexed by the SMBus command byte: a word
// transfer at command c moves the whole cell c, an I2C block transfer at command c
// moves the low bytes of cells c, c+1, ... and has no register pointer of its own.

#include "VmTestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using Args = std::vector<std::string>;
using TarnVm::CommandResult;

// scripts/vm-test.sh puts the build's commands there.
constexpr char const* kTool = "/tarn/bin/tarnreg";
constexpr unsigned kChip = 0x50;

// Registers 0x40 (word40), 0x41 (word41) and 0x42 (status42, read-only), 16 bits wide.
constexpr char const* kWordMap = TARN_SOURCE_DIR "/tests/vm/data/tarnreg_stub_word.csv";
// Register 0x6040 (block6040), 32 bits wide.
constexpr char const* kBlockMap = TARN_SOURCE_DIR "/tests/vm/data/tarnreg_stub_block.csv";

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

class TarnregOnStub : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    ASSERT_EQ(0, ::access(kTool, X_OK)) << kTool << " is missing: the VM was started without the tarnreg command";
    ASSERT_TRUE(TarnVm::findI2cStub(bus_, node_)) << TarnVm::kNoI2cStub;
  }

  // tarnreg over the stub chip with @p map and @p flavour ("" for the default); @p command
  // follows the transport options.
  CommandResult tool(char const* map, std::string const& flavour, Args const& command) {
    Args args{"--map", map, "--i2c", node_, "--addr", hex(kChip)};
    if (!flavour.empty()) args.insert(args.end(), {"--flavour", flavour});
    args.insert(args.end(), command.begin(), command.end());
    return tarnreg(args);
  }
  CommandResult word(Args const& command) { return tool(kWordMap, "word", command); }

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

// What the chip does with each transfer is the transport's business (I2cTransport_vmtest);
// here, that the command's options reach the driver with the flavour they name.
TEST_F(TarnregOnStub, WordWritesAndReadsMeetTheCellsOtherClientsUse) {
  set(0x41, 0x5a5a);
  expectOutput(word({"write", "word40", "0x1234"}), "");
  EXPECT_EQ(0x1234u, get(0x40));
  EXPECT_EQ(0x5a5au, get(0x41)) << "a word write touches one cell only";

  set(0x41, 0xbeef);
  expectOutput(word({"read", "word41"}), "0x0000beef\n");
}

TEST_F(TarnregOnStub, TheDefaultFlavourIsTheBlockFlavour) {
  // Command 0x60 carries the register's low address byte, then the value most significant
  // byte first. The read sets the pointer (one block byte at command 0x60) and reads four
  // bytes there: the stub has no pointer, so it returns the pointer byte and the value's
  // upper three bytes. A word write would have been refused: 0x6040 is beyond one byte.
  expectOutput(tool(kBlockMap, "", {"write", "block6040", "0x12345678"}), "");
  EXPECT_EQ(0x12u, get(0x61) & 0xff);
  expectOutput(tool(kBlockMap, "block", {"read", "block6040"}), "0x40123456\n");
}

}  // namespace
