#pragma once
/// @file I2cTransportMethodImpl.h
/// @brief Bus backend over a Linux I2C adapter node (i2c-dev), through SMBus ioctls.
///
/// Two flavours move a register:
///  - block: one SMBus I2C block transfer carries a 16-bit register address (high
///    byte as the command, low byte as the first data byte) and, for a write, the
///    32-bit value most significant byte first. A read first sets the device's
///    register pointer with a one-byte block write, then reads four bytes. Every
///    access holds an exclusive flock on the device file so that no other process
///    moves the pointer between the two halves of a read.
///  - word: one SMBus word transfer with an 8-bit register address and the low 16
///    bits of the value; no lock.
///
/// Register numbers of the map are used as register addresses unchanged. A flavour is a
/// small table of functions (I2cBusOps) chosen once, when the transport is built; the
/// core resolves names and checks widths before either function is called.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/BaseTransportMethodImpl.h"
#include "TarnRegFile/Utils.h"

#include <linux/i2c.h>

#include <cstdint>

namespace TarnRegFile {

/// @brief How registers are moved over i2c-dev.
enum class I2cFlavour : U8 {
  SmbusI2cBlockData = 1,  ///< 16-bit address, 32-bit value, one I2C block transfer
  SmbusWordData = 2,      ///< 8-bit address, 16-bit SMBus word
};

/// @brief The flavour-specific register accesses, each on an open i2c-dev descriptor that
/// has its peripheral address set. Failures throw TransportError: kind System with the
/// errno of the failed ioctl, OutOfRange for a word address above 0xff.
namespace i2cflavspec {

using HardwareRegister = Hardware::TarnRegFile::HardwareRegister;

/// @brief Reads a 32-bit register (16-bit address) under an exclusive flock.
TARN_API uint32_t readDataBlock(int fd, HardwareRegister const& reg);
/// @brief Writes a 32-bit register (16-bit address; higher address bits are dropped) under an exclusive flock.
TARN_API void writeDataBlock(int fd, HardwareRegister const& reg, uint32_t value);
/// @brief Reads one SMBus word (8-bit address), zero-extended.
TARN_API uint32_t readDataWord(int fd, HardwareRegister const& reg);
/// @brief Writes the low 16 bits of @p value as one SMBus word (8-bit address).
TARN_API void writeDataWord(int fd, HardwareRegister const& reg, uint32_t value);
/// @brief One SMBus transfer of @p size at the 8-bit register @p address.
/// @throws std::runtime_error "Register address <addr> is out of range!" (before any I/O) for
///         an address above 0xff, "I2C word <read|write> from address <addr> failed: <reason>".
TARN_API void dataWordAccess(int fd, uint32_t address, uint8_t readWrite, uint32_t size, i2c_smbus_data& data);

/// @brief The register value from the bytes a block read returned (elements 1..4): the bytes
/// beyond the register's width are cleared from the last received, then the first byte
/// received becomes the most significant. Not part of the library's interface.
uint32_t blockReadValue(i2c_smbus_data const& data, HardwareRegister const& reg) noexcept;

}  // namespace i2cflavspec

/// @brief What a flavour is: the address block size of its register map and its two accesses.
struct I2cBusOps {
  U8 addrBlockSize;
  void (*write)(int fd, Hardware::TarnRegFile::HardwareRegister const& reg, uint32_t value);
  uint32_t (*read)(int fd, Hardware::TarnRegFile::HardwareRegister const& reg);
};

/// @brief The functions of @p flavour.
/// @throws std::out_of_range for a value that is no I2cFlavour.
TARN_API I2cBusOps const& i2cBusOps(I2cFlavour flavour);

/// @brief Reads and writes registers over an i2c-dev node in one of the I2cFlavour ways.
class TARN_API I2cTransportMethodImpl : public BusTransport<I2cTransportMethodImpl> {
public:

  /// @brief Opens @p devNode and addresses the peripheral @p devId on it; registers come from
  /// the CSV map at @p csvPath, else from @p regFileModel.
  /// @throws std::out_of_range for a flavour that is not in the table (nothing is opened);
  ///         the base's errors for the register map; std::runtime_error
  ///         "Error opening I2C device <node>: <reason>" and
  ///         "Error setting peripheral address to <addr>: <reason>" (also when a kernel
  ///         driver has claimed the address).
  I2cTransportMethodImpl(char const* devNode, int devId, char const* csvPath, I2cFlavour flavour,
                         Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel);
  ~I2cTransportMethodImpl() override;

  /// @brief The open device node's descriptor.
  int fd() const noexcept { return i2cFd_.fd(); }

  /// @brief Address-level access of the core (the register is resolved and checked).
  uint32_t busRead(HardwareRegister const& reg);
  void busWrite(HardwareRegister const& reg, uint32_t value);

private:
  Utils::UnixFdRes i2cFd_;
  I2cBusOps const& ops_;
};

}  // namespace TarnRegFile
