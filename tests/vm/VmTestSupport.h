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

/// @brief The number N of the first /dev/i2c-N adapter whose name is @p adapterName, or -1.
int findI2cAdapter(std::string const& adapterName);

/// @brief busybox `i2cget -y BUS 0x50 COMMAND b`: one byte of the chip at 0x50, read by an
/// independent client (a failed command is a test failure and reads 0).
unsigned busyboxGetByte(int bus, unsigned command);
/// @brief busybox `i2cset -y BUS 0x50 COMMAND BYTES... i`: an I2C block written by an independent client.
void busyboxSetBlock(int bus, unsigned command, std::vector<unsigned> const& bytes);

}  // namespace TarnVm

/// Outside the VM the devices these programs need do not exist: skip with a
/// reason there, so a program started by hand on the host says why it did nothing.
/// Inside the VM a missing device is a failure, never a skip.
#define TARN_REQUIRE_TEST_VM()                                                                     \
  do {                                                                                             \
    if (!::TarnVm::inTestVm()) GTEST_SKIP() << "runs only inside the test VM (scripts/vm-test.sh)"; \
  } while (0)
