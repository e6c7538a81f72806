#pragma once
/// @file VormI2cDev.h
/// @brief The i2c-dev bus of the hardware-access manager: register accesses on a Linux
/// I2C adapter node ("/dev/i2c-0"), performed by the manager's worker thread.
///
/// At construction the node is opened and the adapter's functions are read
/// (`I2C_FUNCS`); they decide how a register moves, for the whole life of the bus:
///
/// - Plain I2C transfers (`I2C_RDWR`), when the adapter offers `I2C_FUNC_I2C`. The
///   register offset goes on the wire in its address size (2 bytes: high byte
///   first), then the value, most significant byte first:
///     write: S addr+W off_hi off_lo v31..24 v23..16 v15..8 v7..0 P
///     read:  S addr+W off_hi off_lo Sr addr+R v31..24 v23..16 v15..8 v7..0 P
///   The read is one combined transfer (repeated start), so nobody can move the
///   chip's register pointer between the offset and the data.
/// - SMBus I2C block data, when the adapter offers only SMBus (the kernel's i2c-stub
///   does): the register offset is the SMBus command byte and the value is a 4-byte
///   block, most significant byte first, in one transaction each way:
///     write: S addr+W off v31..24 v23..16 v15..8 v7..0 P
///     read:  S addr+W off Sr addr+R v31..24 .. v7..0 P
///   Chosen over two word-data accesses of the 16-bit halves because one transaction
///   moves the register whole: the chip never holds a half-written value and a read
///   never pairs halves from two different moments. The price is the command byte's
///   range: offsets 0x00..0xff only. A request for a higher offset is refused (status
///   5, ERANGE) without touching the bus. A block read that returns fewer than 4
///   bytes fails (EIO).
/// An adapter that offers neither cannot be used: construction fails.
///
/// Sharing the bus. Every transaction is made under an exclusive `flock` on the
/// node, the lock the synchronous i2c-dev transport's block flavour takes around
/// each register access, so the two never interleave on the bus even in different
/// processes. EINTR is retried; EAGAIN (arbitration lost, bus busy) is retried up to
/// 10 times with 1 ms pauses, then fails.
///
/// The SMBus flavour addresses the peripheral with `I2C_SLAVE` (not the forcing
/// variant: an address that a kernel driver has claimed fails the request with
/// EBUSY); plain I2C transfers carry the address in each message.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Fd.h"
#include "TarnRegFile/platform/Types.h"
#include "TarnRegFile/platform/Vorm.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <string>

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

class TARN_API VormI2cDevBackend : public VormBackend {
public:
  enum class Mode : U8 { i2cTransfer, smbusBlock };

  /// @brief Opens @p devNode and chooses the mode from the adapter's functions.
  /// @throws std::runtime_error naming the node and the reason when it cannot be
  ///         opened, its functions cannot be read, or it offers neither mode.
  explicit VormI2cDevBackend(std::string devNode);
  ~VormI2cDevBackend() override;

  std::string const& devNode() const noexcept { return devNode_; }
  Mode mode() const noexcept { return mode_; }
  /// @brief The adapter's `I2C_FUNCS` bits.
  unsigned long functions() const noexcept { return functions_; }

  VormOutcome transfer(VormTransfer& transfer) noexcept override;
  /// @brief "i2c-dev /dev/i2c-0 (I2C transfers)" or "... (SMBus I2C block data)".
  std::string description() const override;

private:
  VormOutcome i2cTransfer(VormTransfer& t) noexcept;
  VormOutcome smbusTransfer(VormTransfer& t) noexcept;

  std::string devNode_;
  Kiv::Fd fd_;
  unsigned long functions_ = 0;
  Mode mode_ = Mode::i2cTransfer;
  int peripheral_ = -1;  // set with I2C_SLAVE on the descriptor (SMBus mode; worker only)
};

}  // namespace Hardware
