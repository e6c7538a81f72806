#pragma once
/// @file VormI2cWire.h
/// @brief Internal: the byte images of register accesses on i2c-dev, built without any I/O, for
/// the hardware-access manager's i2c-dev bus (VormI2cDev.h describes them). Not installed: it
/// needs the kernel's <linux/i2c.h>, which is no part of the library's interface.

#include "TarnRegFile/platform/Types.h"
#include "TarnRegFile/platform/Vorm.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

namespace Hardware {

/// @brief The byte images of register accesses on i2c-dev, built without any I/O.
namespace vormwire {

/// @brief Messages of one `I2C_RDWR` transfer; the messages point into the buffers.
struct I2cRdwr {
  I2cRdwr() = default;
  I2cRdwr(I2cRdwr const&) = delete;
  I2cRdwr& operator=(I2cRdwr const&) = delete;

  U8 out[6] = {};
  U8 in[4] = {};
  i2c_msg msgs[2] = {};
  U32 count = 0;
};

/// @brief What goes into the `I2C_SMBUS` ioctl argument besides the data pointer.
struct SmbusRequest {
  U8 readWrite = 0;
  U8 command = 0;
  U32 size = 0;
  i2c_smbus_data data{};
};

/// @brief A register write as one message: offset bytes, then the value high byte first.
void i2cWrite(I2cRdwr& r, SmbusAddress const& address, U32 value) noexcept;
/// @brief A register read: a message with the offset bytes, then a 4-byte read message.
void i2cRead(I2cRdwr& r, SmbusAddress const& address) noexcept;
/// @brief The value of a completed read.
U32 i2cReadValue(I2cRdwr const& r) noexcept;

/// @brief Highest register offset the SMBus flavour can address (its command byte).
constexpr U16 kSmbusOffsetLimit = 0xff;
/// @brief A register write as an I2C block: command = offset, block 04 v31..24 .. v7..0.
SmbusRequest smbusBlockWrite(U8 command, U32 value) noexcept;
/// @brief A register read as an I2C block of 4 bytes at command = offset.
SmbusRequest smbusBlockRead(U8 command) noexcept;
/// @brief The value of a completed block read (bytes 1..4, the first most significant).
U32 smbusBlockValue(i2c_smbus_data const& data) noexcept;

}  // namespace vormwire

}  // namespace Hardware
