#pragma once
// Helpers shared by the in-VM test programs (tests/vm/*_vmtest.cpp), which run
// inside the QEMU guest booted by scripts/vm-test.sh.

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace TarnVm {

/// @brief True inside the test VM (its /init exports TARN_VM=1).
bool inTestVm();

/// @brief Outcome of a program run by runCommand.
struct CommandResult {
  int exitStatus = -1;  ///< exit code, or 128 + signal number when it was killed
  std::string output;   ///< standard output and standard error together
};

/// @brief Runs @p argv (argv[0] looked up in PATH) without a shell and collects its output.
CommandResult runCommand(std::vector<std::string> const& argv);

/// @brief The sysfs address ("0000:00:04.0") of the first PCI device with these ids, or "".
std::string findPciDevice(unsigned vendor, unsigned device);

/// @brief Finds the i2c-stub adapter the VM loads (one chip at 0x50): its bus number N in
/// @p bus and its node "/dev/i2c-N" in @p node. False when the module is not loaded.
bool findI2cStub(int& bus, std::string& node);
/// @brief What a test says when findI2cStub() fails.
inline constexpr char kNoI2cStub[] = "no i2c-stub adapter (insmod i2c-stub.ko chip_addr=0x50)";

/// @brief Fixture of the tests on the i2c-stub chip at 0x50 (bus_, node_), with busybox
/// i2cget/i2cset as an independent client of its cells. A derived SetUp calls this one first
/// and returns when it skipped or failed.
class I2cStubTest : public ::testing::Test {
protected:
  void SetUp() override;
  /// @brief `i2cget -y BUS 0x50 COMMAND MODE`: "b" the cell's low byte, "w" the whole cell.
  unsigned get(unsigned command, char const* mode = "b") const;
  /// @brief `i2cset -y BUS 0x50 COMMAND VALUES... MODE`: "b", "w", or "i" an I2C block.
  void set(unsigned command, std::vector<unsigned> const& values, char const* mode = "i") const;

  int bus_ = -1;
  std::string node_;
};

}  // namespace TarnVm

/// Outside the VM the devices these programs need do not exist: skip with a
/// reason there, so a program started by hand on the host says why it did nothing.
/// Inside the VM a missing device is a failure, never a skip.
#define TARN_REQUIRE_TEST_VM()                                                                     \
  do {                                                                                             \
    if (!::TarnVm::inTestVm()) GTEST_SKIP() << "runs only inside the test VM (scripts/vm-test.sh)"; \
  } while (0)
