// The i2c-dev transport without an I2C adapter: its calls as they reach the ioctl
// boundary, and the value a block read makes of the bytes received. This program
// defines ioctl() itself: requests on the fake device node (a temporary file) are
// answered by the fixture below, every other descriptor goes to the kernel. The
// behaviour on the wire against a real adapter driver (the word flavour's entirely, but for
// its retries), the registry's two flavours, the word flavour's failures and a peripheral
// address refused by the driver are checked by the VM tests (I2cTransport_vmtest); a node
// that does not exist by Tarnreg_test.
#include "TarnRegFile/I2cTransportMethodImpl.h"
#include "TarnRegFile/Utils.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace TarnRegFile;

constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "255,last,cfg,true,16\n260,wide,cfg,true,32\n261,half,sts,false,16\n"
    "65796,high,cfg,true,32\n";
// What every block read receives.
constexpr uint8_t kBytesToRead[32] = {0xAA, 0xBB, 0xCC, 0xDD};

// The fake adapter: records and answers the ioctls made on its device node. A call is
// recorded as the tests compare it: "slave 0x50"; "W 0x01 block 04 12 locked" (the command,
// then the block's bytes after its length, and whether the node was locked); "R 0x01
// block/4" (the length asked for); "W 0xff size 3" (another transfer, by its size).
class I2cTransport : public ::testing::Test {
public:
  static inline I2cTransport* current = nullptr;  // the test running, whose node the ioctls below go to
  bool owns(int fd) const {
    std::error_code ec;  // a descriptor without a path is not the node's
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ec) == node_;
  }
  int handle(unsigned long request, void* arg) {
    calls_.push_back(text(request, arg) + (locked() ? " locked" : ""));
    int const err = failures_.empty() ? 0 : failures_.front();
    if (!failures_.empty()) failures_.pop_front();
    if (err != 0) return errno = err, -1;
    auto* const smbus = static_cast<i2c_smbus_ioctl_data*>(arg);
    if (request == I2C_SMBUS && smbus->read_write == I2C_SMBUS_READ && smbus->size == I2C_SMBUS_I2C_BLOCK_DATA)
      std::memcpy(smbus->data->block + 1, kBytesToRead, smbus->data->block[0]);
    return 0;
  }

protected:
  void SetUp() override {
    std::ofstream(node_) << "";
    std::ofstream(csv_) << kMap;
    current = this;
  }
  void TearDown() override {
    current = nullptr;
    for (auto const& path : {node_, csv_}) ::unlink(path.c_str());
  }
  static std::string text(unsigned long request, void* arg) {
    if (request == I2C_SLAVE) return fmt::format("slave {:#x}", reinterpret_cast<uintptr_t>(arg));
    if (request != I2C_SMBUS) return fmt::format("request {:#x}", request);
    auto const& c = *static_cast<i2c_smbus_ioctl_data*>(arg);
    bool const read = c.read_write == I2C_SMBUS_READ;
    std::string t = fmt::format("{} {:#04x}", read ? 'R' : 'W', c.command);
    if (c.size != I2C_SMBUS_I2C_BLOCK_DATA) return t + fmt::format(" size {}", c.size);
    if (read) return t + fmt::format(" block/{}", c.data->block[0]);
    t += " block";
    for (int i = 1; i <= std::min<int>(c.data->block[0], 32); ++i) t += fmt::format(" {:02x}", c.data->block[i]);
    return t;
  }
  // Whether another open file of the node cannot take an exclusive flock.
  bool locked() const {
    Utils::UnixFdRes probe(::open(node_.c_str(), O_RDONLY | O_CLOEXEC));  // closing it drops its own lock
    return ::flock(probe.fd(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  }
  std::unique_ptr<I2cTransportMethodImpl> open(I2cFlavour flavour) {
    auto impl = std::make_unique<I2cTransportMethodImpl>(node_.c_str(), 0x50, csv_.c_str(), flavour, nullptr);
    calls_.clear();
    return impl;
  }

  std::string const node_ = "/tmp/tarn-i2ctransport-" + std::to_string(::getpid()) + "-i2c-9";
  std::string const csv_ = "/tmp/tarn-i2ctransport-" + std::to_string(::getpid()) + ".csv";
  std::vector<std::string> calls_;
  std::deque<int> failures_;  // errno of the next calls to fail, 0 for one that succeeds
};

}  // namespace

// Calls made by the library in this program arrive here first.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list ap;
  va_start(ap, request);
  void* const arg = va_arg(ap, void*);
  va_end(ap);
  if (I2cTransport* const fake = I2cTransport::current; fake != nullptr && fake->owns(fd)) {
    int const saved = errno;
    int const result = fake->handle(request, arg);
    if (result == 0) errno = saved;
    return result;
  }
  return static_cast<int>(::syscall(SYS_ioctl, fd, request, arg));
}

namespace {

TEST_F(I2cTransport, BlockAccessesHoldTheDeviceLockAroundTheirTransfers) {
  auto const i2c = open(I2cFlavour::SmbusI2cBlockData);
  i2c->regWrite("wide", 0x12345678);
  i2c->regWrite("high", 0xa1b2c3d4);  // address bits above 15 (0x10104) are dropped
  EXPECT_EQ(0xAABBCCDDu, i2c->regRead("wide"));
  // A narrower register keeps the bytes received first, at the top.
  EXPECT_EQ(0xAABB0000u, i2c->regRead("half"));
  EXPECT_EQ(calls_, (std::vector<std::string>{
                         "W 0x01 block 04 12 34 56 78 locked", "W 0x01 block 04 a1 b2 c3 d4 locked",
                         "W 0x01 block 04 locked", "R 0x01 block/4 locked", "W 0x01 block 05 locked",
                         "R 0x01 block/4 locked"}));
  // The lock is released once the access is over.
  EXPECT_FALSE(locked());
}

TEST_F(I2cTransport, InterruptedAndBusyTransfersAreRetriedOthersReported) {
  auto const block = open(I2cFlavour::SmbusI2cBlockData);
  auto const word = open(I2cFlavour::SmbusWordData);
  failures_ = {EINTR, EAGAIN};
  block->regWrite("wide", 1);
  EXPECT_EQ(3u, calls_.size());
  failures_ = {EINTR};
  word->regWrite("last", 1);
  EXPECT_EQ(5u, calls_.size());

  std::string const fd = std::to_string(block->fd());
  struct Case {
    std::deque<int> failures;  // 0: that call succeeds
    bool write;
    std::string error;
  } const cases[] = {
      {{EIO}, true, "Error writing value 0x12345678 to address 0x104 on FD " + fd + ": Input/output error (5)"},
      {{ENXIO}, false, "Error writing address 0x104 on FD " + fd + ": No such device or address (6)"},
      {{0, EREMOTEIO}, false, "Error reading from address 0x104 on FD " + fd + ": Remote I/O error (121)"},
  };
  for (Case const& c : cases) {
    failures_ = c.failures;
    try {
      c.write ? block->regWrite("wide", 0x12345678) : void(block->regRead("wide"));
      ADD_FAILURE() << c.error;
    } catch (TransportError const& e) {
      EXPECT_EQ(c.error, e.what());
      EXPECT_EQ(TransportErrorKind::System, e.kind());
      EXPECT_EQ(c.failures.back(), e.errnum()) << "the errno of the failed ioctl";
    }
  }
  // A failure leaves nothing behind: the device is unlocked and the next access goes through.
  block->regWrite("wide", 7);
  EXPECT_EQ("W 0x01 block 04 00 00 00 07 locked", calls_.back());
}

TEST_F(I2cTransport, ConstructionAddressesThePeripheralAndRefusesAnUnknownFlavour) {
  I2cTransportMethodImpl i2c(node_.c_str(), 0x50, csv_.c_str(), I2cFlavour::SmbusI2cBlockData, nullptr);
  EXPECT_EQ(calls_, std::vector<std::string>{"slave 0x50"}) << "never the forcing variant";
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(i2c.fd(), F_GETFD) & FD_CLOEXEC);
  // The flavour is checked before anything is opened.
  for (U8 flavour : {0, 3})
    EXPECT_THROW(I2cTransportMethodImpl("/nonexistent", 0x50, "/nonexistent.csv", I2cFlavour(flavour), nullptr),
                 std::out_of_range);
}

}  // namespace
