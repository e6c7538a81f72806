#include "TarnRegFile/I2cTransportMethodImpl.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/TransportMethod.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/I2cTransportMethodImpl");

using HardwareRegister = Hardware::TarnRegFile::HardwareRegister;

// Register numbers are the device's register addresses as they are.
constexpr U8 kAddrBlockSize = 1;

constexpr uint8_t kBlockValueBytes = 4;
constexpr uint32_t kWordAddressLimit = 0x100;

uint8_t addressHigh(uint32_t address) { return static_cast<uint8_t>(address >> 8); }
uint8_t addressLow(uint32_t address) { return static_cast<uint8_t>(address); }

template <I2cFlavour flavour>
BaseTransportMethodImpl* createI2cTransport(BaseTransportDescriptor const& descriptor,
                                            TransportMethodRegFile const& regFile) {
  auto const& i2c = transportDescriptorAs<I2cTransportDescriptor>(descriptor, "TarnRegFile::I2cTransportDescriptor");
  return new I2cTransportMethodImpl(i2c.devNode().c_str(), static_cast<int>(i2c.devId()), regFile.csvPath().c_str(),
                                    flavour, regFile.regFileModel());
}

[[maybe_unused]] bool const kRegistered = [] {
  TransportMethod::transportFactoryIs(kI2cBlockTransportKey,
                                      createI2cTransport<I2cFlavour::SmbusI2cBlockData>);
  TransportMethod::transportFactoryIs(kI2cWordTransportKey,
                                      createI2cTransport<I2cFlavour::SmbusWordData>);
  return true;
}();

}  // namespace

// ---------------------------------------------------------------- flavour accesses

namespace i2cflavspec {
namespace {

// What goes into the SMBus ioctl argument besides the data pointer.
struct SmbusRequest {
  uint8_t readWrite;
  uint8_t command;
  uint32_t size;
  i2c_smbus_data data;
};

// Command A[15:8], block 05 A[7:0] V[31:24] .. V[7:0].
SmbusRequest blockWriteRequest(uint32_t address, uint32_t value) noexcept {
  SmbusRequest r{};
  r.readWrite = I2C_SMBUS_WRITE;
  r.command = addressHigh(address);
  r.size = I2C_SMBUS_I2C_BLOCK_DATA;
  r.data.block[0] = 1 + kBlockValueBytes;
  r.data.block[1] = addressLow(address);
  r.data.block[2] = static_cast<uint8_t>(value >> 24);
  r.data.block[3] = static_cast<uint8_t>(value >> 16);
  r.data.block[4] = static_cast<uint8_t>(value >> 8);
  r.data.block[5] = static_cast<uint8_t>(value);
  return r;
}

// Sets the register pointer before a block read: command A[15:8], block 01 A[7:0].
SmbusRequest blockPointerRequest(uint32_t address) noexcept {
  SmbusRequest r{};
  r.readWrite = I2C_SMBUS_WRITE;
  r.command = addressHigh(address);
  r.size = I2C_SMBUS_I2C_BLOCK_DATA;
  r.data.block[0] = 1;
  r.data.block[1] = addressLow(address);
  return r;
}

// Four bytes at command A[15:8].
SmbusRequest blockReadRequest(uint32_t address) noexcept {
  SmbusRequest r{};
  r.readWrite = I2C_SMBUS_READ;
  r.command = addressHigh(address);
  r.size = I2C_SMBUS_I2C_BLOCK_DATA;
  r.data.block[0] = kBlockValueBytes;
  return r;
}

// A failed ioctl: the errno is taken before anything else can change it.
[[noreturn, gnu::cold]] void throwSystem(std::string const& text, HardwareRegister const& reg, TransportOperation op) {
  throw TransportError(text, TransportErrorKind::System, reg.name.str(), op, errno);
}

// The ioctl for one request, EINTR and EAGAIN retried; the ioctl's result.
int smbusTransfer(int fd, SmbusRequest& request) {
  i2c_smbus_ioctl_data args{};
  args.read_write = request.readWrite;
  args.command = request.command;
  args.size = request.size;
  args.data = &request.data;
  return Utils::syscallAutoRetry([fd, &args] { return ::ioctl(fd, I2C_SMBUS, &args); }, true, true);
}

}  // namespace

uint32_t blockReadValue(i2c_smbus_data const& data, HardwareRegister const& reg) noexcept {
  uint32_t const received = uint32_t(data.block[1]) | uint32_t(data.block[2]) << 8 | uint32_t(data.block[3]) << 16 |
                      uint32_t(data.block[4]) << 24;
  // A narrower register keeps the bytes received first (the core's width rule applied to
  // the word as received); they end up at the top.
  return __builtin_bswap32(keepRegisterBits(received, reg));
}

uint32_t readDataBlock(int fd, HardwareRegister const& reg) {
  uint32_t const address = reg.address;
  // One lock over both transfers: nobody may move the register pointer in between.
  Utils::UnixFlockRes const lock(fd, LOCK_EX);
  SmbusRequest pointer = blockPointerRequest(address);
  if (smbusTransfer(fd, pointer) < 0)
    throwSystem(fmt::format("Error writing address {:#x} on FD {}: {}", address, fd, Utils::errnoMsg()), reg,
                TransportOperation::Read);
  SmbusRequest read = blockReadRequest(address);
  if (smbusTransfer(fd, read) < 0)
    throwSystem(fmt::format("Error reading from address {:#x} on FD {}: {}", address, fd, Utils::errnoMsg()), reg,
                TransportOperation::Read);
  return blockReadValue(read.data, reg);
}

void writeDataBlock(int fd, HardwareRegister const& reg, uint32_t value) {
  Utils::UnixFlockRes const lock(fd, LOCK_EX);
  SmbusRequest write = blockWriteRequest(reg.address, value);
  if (smbusTransfer(fd, write) < 0)
    throwSystem(fmt::format("Error writing value {:#x} to address {:#x} on FD {}: {}", value, reg.address, fd,
                            Utils::errnoMsg()),
                reg, TransportOperation::Write);
}

void dataWordAccess(int fd, uint32_t address, uint8_t readWrite, uint32_t size, i2c_smbus_data& data) {
  TransportOperation const op = readWrite != 0 ? TransportOperation::Read : TransportOperation::Write;
  if (address >= kWordAddressLimit)
    throw TransportError(fmt::format("Register address {:#x} is out of range!", address),
                         TransportErrorKind::OutOfRange, std::string(), op);
  i2c_smbus_ioctl_data args{};
  args.read_write = readWrite;
  args.command = static_cast<uint8_t>(address);
  args.size = size;
  args.data = &data;
  if (Utils::syscallAutoRetry([fd, &args] { return ::ioctl(fd, I2C_SMBUS, &args); }, true, true) < 0) {
    int const err = errno;
    throw TransportError(
        fmt::format("I2C word {} from address {:#x} failed: {}", operationText(op), address, Utils::errnoMsg()),
        TransportErrorKind::System, std::string(), op, err);
  }
}

uint32_t readDataWord(int fd, HardwareRegister const& reg) {
  i2c_smbus_data data;
  std::memset(&data, 0, sizeof data);
  dataWordAccess(fd, reg.address, I2C_SMBUS_READ, I2C_SMBUS_WORD_DATA, data);
  return data.word;
}

void writeDataWord(int fd, HardwareRegister const& reg, uint32_t value) {
  i2c_smbus_data data;
  std::memset(&data, 0, sizeof data);
  data.word = static_cast<uint16_t>(value);
  dataWordAccess(fd, reg.address, I2C_SMBUS_WRITE, I2C_SMBUS_WORD_DATA, data);
}

}  // namespace i2cflavspec

// ---------------------------------------------------------------- transport

I2cBusOps const& i2cBusOps(I2cFlavour flavour) {
  static constexpr I2cBusOps kBlock{kAddrBlockSize, i2cflavspec::writeDataBlock, i2cflavspec::readDataBlock};
  static constexpr I2cBusOps kWord{kAddrBlockSize, i2cflavspec::writeDataWord, i2cflavspec::readDataWord};
  switch (flavour) {
    case I2cFlavour::SmbusI2cBlockData: return kBlock;
    case I2cFlavour::SmbusWordData: return kWord;
  }
  throw std::out_of_range(fmt::format("Unknown I2C flavour {}", static_cast<unsigned>(flavour)));
}

I2cTransportMethodImpl::I2cTransportMethodImpl(
    char const* devNode, int devId, char const* csvPath, I2cFlavour flavour,
    Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel)
    // The flavour is looked up first: an unknown one fails before the map is loaded or the node opened.
    : BusTransport(csvPath, i2cBusOps(flavour).addrBlockSize, regFileModel),
      i2cFd_(-1),
      ops_(i2cBusOps(flavour)) {
  char const* const node = devNode ? devNode : "";
  i2cFd_ = Utils::UnixFdRes(::open(node, O_RDWR | O_CLOEXEC));
  if (i2cFd_.fd() < 0)
    throw std::runtime_error(fmt::format("Error opening I2C device {}: {}", node, Utils::errnoMsg()));
  int const fd = i2cFd_.fd();
  // Not the forcing variant: an address a kernel driver has claimed is not ours to use.
  if (Utils::syscallAutoRetry([fd, devId] { return ::ioctl(fd, I2C_SLAVE, static_cast<unsigned long>(devId)); },
                              true, true) < 0)
    throw std::runtime_error(
        fmt::format("Error setting peripheral address to {:#x}: {}", devId, Utils::errnoMsg()));
  kTrace.line(0, " Opened i2c with fd {}", fd);
}

I2cTransportMethodImpl::~I2cTransportMethodImpl() = default;

uint32_t I2cTransportMethodImpl::busRead(HardwareRegister const& reg) {
  int const i2cFd = i2cFd_.fd();
  KIV_ASSERT(kTrace, i2cFd >= 0) << "I2C device of register " << reg.name << " is not open";
  return ops_.read(i2cFd, reg);
}

void I2cTransportMethodImpl::busWrite(HardwareRegister const& reg, uint32_t value) {
  int const i2cFd = i2cFd_.fd();
  KIV_ASSERT(kTrace, i2cFd >= 0) << "I2C device of register " << reg.name << " is not open";
  ops_.write(i2cFd, reg, value);
}

}  // namespace TarnRegFile
