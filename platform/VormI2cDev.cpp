#include "TarnRegFile/platform/VormI2cDev.h"

#include "TarnRegFile/platform/FileLock.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>

namespace Hardware {
namespace {

Kiv::TraceHandle kTrace("Hardware/VormI2cDev");

constexpr U8 kValueBytes = 4;
constexpr int kEagainRetries = 10;

U32 bigEndian(U8 const* b) noexcept { return U32(b[0]) << 24 | U32(b[1]) << 16 | U32(b[2]) << 8 | U32(b[3]); }

void putBigEndian(U8* b, U32 v) noexcept {
  b[0] = static_cast<U8>(v >> 24);
  b[1] = static_cast<U8>(v >> 16);
  b[2] = static_cast<U8>(v >> 8);
  b[3] = static_cast<U8>(v);
}

// The offset as it goes on the wire; returns its length.
U16 putOffset(U8* b, SmbusAddress const& address) noexcept {
  U16 const offset = address.regOffset();
  if (address.addressSize() == 1) {
    b[0] = static_cast<U8>(offset);
    return 1;
  }
  b[0] = static_cast<U8>(offset >> 8);
  b[1] = static_cast<U8>(offset);
  return 2;
}

// An ioctl with EINTR retried and EAGAIN retried a few times; -1 with errno set on failure.
template <class Arg>
int retryingIoctl(int fd, unsigned long request, Arg arg) noexcept {
  int eagain = 0;
  for (;;) {
    int const rc = ::ioctl(fd, request, arg);
    if (rc >= 0 || errno == EINTR) {
      if (rc >= 0) return rc;
      continue;
    }
    if (errno != EAGAIN || ++eagain > kEagainRetries) return -1;
    timespec const pause{0, 1000000};
    ::nanosleep(&pause, nullptr);
  }
}

VormOutcome failed() noexcept { return VormOutcome{VormRequest::kStatusFailed, errno}; }

}  // namespace

namespace vormwire {

void i2cWrite(I2cRdwr& r, SmbusAddress const& address, U32 value) noexcept {
  U16 const n = putOffset(r.out, address);
  putBigEndian(r.out + n, value);
  r.msgs[0] = i2c_msg{address.peripheral().value(), 0, static_cast<U16>(n + kValueBytes), r.out};
  r.count = 1;
}

void i2cRead(I2cRdwr& r, SmbusAddress const& address) noexcept {
  U16 const n = putOffset(r.out, address);
  r.msgs[0] = i2c_msg{address.peripheral().value(), 0, n, r.out};
  r.msgs[1] = i2c_msg{address.peripheral().value(), I2C_M_RD, kValueBytes, r.in};
  r.count = 2;
}

U32 i2cReadValue(I2cRdwr const& r) noexcept { return bigEndian(r.in); }

SmbusRequest smbusBlockWrite(U8 command, U32 value) noexcept {
  SmbusRequest r;
  r.readWrite = I2C_SMBUS_WRITE;
  r.command = command;
  r.size = I2C_SMBUS_I2C_BLOCK_DATA;
  r.data.block[0] = kValueBytes;
  putBigEndian(&r.data.block[1], value);
  return r;
}

SmbusRequest smbusBlockRead(U8 command) noexcept {
  SmbusRequest r;
  r.readWrite = I2C_SMBUS_READ;
  r.command = command;
  r.size = I2C_SMBUS_I2C_BLOCK_DATA;
  r.data.block[0] = kValueBytes;
  return r;
}

U32 smbusBlockValue(i2c_smbus_data const& data) noexcept { return bigEndian(&data.block[1]); }

}  // namespace vormwire

VormI2cDevBackend::VormI2cDevBackend(std::string devNode) : devNode_(std::move(devNode)) {
  fd_ = Kiv::Fd(::open(devNode_.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd_)
    throw std::runtime_error(fmt::format("Error opening I2C device {}: {}", devNode_, std::strerror(errno)));
  if (::ioctl(fd_.get(), I2C_FUNCS, &functions_) < 0)
    throw std::runtime_error(
        fmt::format("Error reading the functions of I2C adapter {}: {}", devNode_, std::strerror(errno)));
  if (functions_ & I2C_FUNC_I2C) {
    mode_ = Mode::i2cTransfer;
  } else if ((functions_ & I2C_FUNC_SMBUS_I2C_BLOCK) == I2C_FUNC_SMBUS_I2C_BLOCK) {
    mode_ = Mode::smbusBlock;
  } else {
    throw std::runtime_error(fmt::format(
        "I2C adapter {} offers neither I2C transfers nor SMBus I2C block data (functions {:#x})", devNode_,
        functions_));
  }
  kTrace.line(1, "Opened {} for the hardware-access manager: {}", devNode_, description());
}

VormI2cDevBackend::~VormI2cDevBackend() = default;

std::string VormI2cDevBackend::description() const {
  return fmt::format("i2c-dev {} ({})", devNode_,
                     mode_ == Mode::i2cTransfer ? "I2C transfers" : "SMBus I2C block data");
}

VormOutcome VormI2cDevBackend::transfer(VormTransfer& t) noexcept {
  return mode_ == Mode::i2cTransfer ? i2cTransfer(t) : smbusTransfer(t);
}

VormOutcome VormI2cDevBackend::i2cTransfer(VormTransfer& t) noexcept {
  vormwire::I2cRdwr r;
  if (t.opcode == VormOp::Opcode::write)
    vormwire::i2cWrite(r, t.address, t.value);
  else
    vormwire::i2cRead(r, t.address);
  i2c_rdwr_ioctl_data args{r.msgs, r.count};
  Kiv::FileLock const lock(fd_.get(), LOCK_EX);  // the node, for one transaction
  if (!lock.held()) return failed();
  if (retryingIoctl(fd_.get(), I2C_RDWR, &args) < 0) return failed();
  if (t.opcode == VormOp::Opcode::read) t.value = vormwire::i2cReadValue(r);
  return VormOutcome{};
}

VormOutcome VormI2cDevBackend::smbusTransfer(VormTransfer& t) noexcept {
  if (t.address.regOffset() > vormwire::kSmbusOffsetLimit) return VormOutcome{VormRequest::kStatusRefused, ERANGE};
  U8 const command = static_cast<U8>(t.address.regOffset());
  vormwire::SmbusRequest r = t.opcode == VormOp::Opcode::write ? vormwire::smbusBlockWrite(command, t.value)
                                                                : vormwire::smbusBlockRead(command);
  i2c_smbus_ioctl_data args{};
  args.read_write = r.readWrite;
  args.command = r.command;
  args.size = r.size;
  args.data = &r.data;
  Kiv::FileLock const lock(fd_.get(), LOCK_EX);  // the node, for one transaction
  if (!lock.held()) return failed();
  int const peripheral = t.address.peripheral().value();
  if (peripheral != peripheral_) {
    if (retryingIoctl(fd_.get(), I2C_SLAVE, static_cast<unsigned long>(peripheral)) < 0) return failed();
    peripheral_ = peripheral;
  }
  if (retryingIoctl(fd_.get(), I2C_SMBUS, &args) < 0) return failed();
  if (t.opcode == VormOp::Opcode::read) {
    if (r.data.block[0] != kValueBytes) return VormOutcome{VormRequest::kStatusFailed, EIO};
    t.value = vormwire::smbusBlockValue(r.data);
  }
  return VormOutcome{};
}

}  // namespace Hardware
