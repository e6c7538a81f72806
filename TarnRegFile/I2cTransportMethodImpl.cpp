#include "TarnRegFile/I2cTransportMethodImpl.h"

#include "Assert.h"
#include "Trace.h"

#include "TarnRegFile/TransportMethod.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

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

I2cTransportMethodImpl::FlavourEntry const& flavourEntry(I2cFlavour flavour) {
  auto const& table = I2cTransportMethodImpl::flavourTable();
  auto const it = table.find(flavour);
  if (it == table.end())
    throw std::out_of_range(fmt::format("Unknown I2C flavour {}", static_cast<unsigned>(flavour)));
  return it->second;
}

// Built when the library is loaded; afterwards only read.
[[maybe_unused]] I2cTransportMethodImpl::FlavourTable const& kFlavoursBuiltAtLoad =
    I2cTransportMethodImpl::flavourTable();

// Both SMBus rows of the transport table create this transport through the hook registered here.
BaseTransportMethodImpl* createI2cTransport(char const* devNode, int devId, char const* csvPath, U8 i2cFlavour,
                                            Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& model) {
  return new I2cTransportMethodImpl(devNode, devId, csvPath, static_cast<I2cFlavour>(i2cFlavour), model);
}

[[maybe_unused]] bool const kRegistered = [] {
  TransportMethod::i2cImplementationIs(createI2cTransport);
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
  uint32_t received = uint32_t(data.block[1]) | uint32_t(data.block[2]) << 8 | uint32_t(data.block[3]) << 16 |
                      uint32_t(data.block[4]) << 24;
  // A narrower register keeps the bytes received first; they end up at the top.
  unsigned const unused = (reg.accessWidth - reg.width) % 32u;
  received = (received << unused) >> unused;
  return __builtin_bswap32(received);
}

uint32_t readDataBlock(int fd, HardwareRegister const& reg) {
  uint32_t const address = reg.address;
  // One lock over both transfers: nobody may move the register pointer in between.
  Utils::UnixFlockRes const lock(fd, LOCK_EX);
  SmbusRequest pointer = blockPointerRequest(address);
  if (smbusTransfer(fd, pointer) < 0)
    throw std::runtime_error(
        fmt::format("Error writing address {:#x} on FD {}: {}", address, fd, Utils::errnoMsg()));
  SmbusRequest read = blockReadRequest(address);
  if (smbusTransfer(fd, read) < 0)
    throw std::runtime_error(
        fmt::format("Error reading from address {:#x} on FD {}: {}", address, fd, Utils::errnoMsg()));
  return blockReadValue(read.data, reg);
}

void writeDataBlock(int fd, HardwareRegister const& reg, uint32_t value) {
  Utils::UnixFlockRes const lock(fd, LOCK_EX);
  SmbusRequest write = blockWriteRequest(reg.address, value);
  if (smbusTransfer(fd, write) < 0)
    throw std::runtime_error(fmt::format("Error writing value {:#x} to address {:#x} on FD {}: {}", value,
                                         reg.address, fd, Utils::errnoMsg()));
}

void dataWordAccess(int fd, uint32_t address, uint8_t readWrite, uint32_t size, i2c_smbus_data& data) {
  if (address >= kWordAddressLimit)
    throw std::runtime_error(fmt::format("Register address {:#x} is out of range!", address));
  i2c_smbus_ioctl_data args{};
  args.read_write = readWrite;
  args.command = static_cast<uint8_t>(address);
  args.size = size;
  args.data = &data;
  if (Utils::syscallAutoRetry([fd, &args] { return ::ioctl(fd, I2C_SMBUS, &args); }, true, true) < 0)
    throw std::runtime_error(fmt::format("I2C word {} from address {:#x} failed: {}",
                                         readWrite != 0 ? "read" : "write", address, Utils::errnoMsg()));
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

I2cTransportMethodImpl::FlavourTable const& I2cTransportMethodImpl::flavourTable() {
  static FlavourTable const table{
      {I2cFlavour::SmbusI2cBlockData, {kAddrBlockSize, i2cflavspec::writeDataBlock, i2cflavspec::readDataBlock}},
      {I2cFlavour::SmbusWordData, {kAddrBlockSize, i2cflavspec::writeDataWord, i2cflavspec::readDataWord}},
  };
  return table;
}

I2cTransportMethodImpl::I2cTransportMethodImpl(
    char const* devNode, int devId, char const* csvPath, I2cFlavour flavour,
    Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel)
    // The flavour is looked up first: an unknown one fails before the map is loaded or the node opened.
    : BaseTransportMethodImpl(csvPath, flavourEntry(flavour).addrBlockSize, regFileModel),
      i2cFd_(-1),
      read_(flavourEntry(flavour).read),
      write_(flavourEntry(flavour).write) {
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

uint32_t I2cTransportMethodImpl::regRead(char const* regName) {
  HardwareRegister const& reg = regFileHelper()->findRegisterByName(regName);
  int const i2cFd = i2cFd_.fd();
  KIV_ASSERT(kTrace, i2cFd >= 0) << "I2C device of register " << regName << " is not open";
  return read_(i2cFd, reg);
}

void I2cTransportMethodImpl::regWrite(char const* regName, uint32_t value) {
  HardwareRegister const& reg = regFileHelper()->findRegisterByName(regName);
  int const i2cFd = i2cFd_.fd();
  KIV_ASSERT(kTrace, i2cFd >= 0) << "I2C device of register " << regName << " is not open";
  write_(i2cFd, reg, value);
}

}  // namespace TarnRegFile
