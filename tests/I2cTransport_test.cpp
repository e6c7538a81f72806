// The i2c-dev transport without an I2C adapter: its calls as they reach the ioctl
// boundary, and the value a block read makes of the bytes received. This program
// defines ioctl() itself: requests on the fake device node (a temporary file) are
// answered by FakeAdapter below, every other descriptor goes to the kernel. The
// behaviour on the wire against a real adapter driver is checked by the VM tests.
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/I2cTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/Utils.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace TarnRegFile;
using Hardware::TarnRegFile::HardwareRegister;

// ---------------------------------------------------------------- fake adapter

struct IoctlCall {
  unsigned long request;
  uintptr_t peripheral;        // I2C_SLAVE
  i2c_smbus_ioctl_data smbus;  // I2C_SMBUS: read_write, command and size as sent (data points nowhere later)
  std::vector<uint8_t> block;  // block[0..block[0]] of the request as sent
  uint16_t word;
  bool deviceLocked;  // another open file of the node could not take an exclusive flock
};

// Records and answers the ioctls made on one file, the fake device node.
struct FakeAdapter {
  explicit FakeAdapter(std::string const& path) : path(path) { ::stat(path.c_str(), &node); }
  bool owns(int fd) const {
    struct stat st;
    return ::fstat(fd, &st) == 0 && st.st_dev == node.st_dev && st.st_ino == node.st_ino;
  }
  int handle(unsigned long request, void* arg) {
    IoctlCall& call = calls.emplace_back(IoctlCall{request, reinterpret_cast<uintptr_t>(arg), {}, {}, 0, locked()});
    auto* const smbus = static_cast<i2c_smbus_ioctl_data*>(arg);
    if (request == I2C_SMBUS) {
      call.smbus = *smbus;
      call.block.assign(smbus->data->block, smbus->data->block + 1 + std::min<int>(smbus->data->block[0], 32));
      call.word = smbus->data->word;
    }
    int const err = failures.empty() ? 0 : failures.front();
    if (!failures.empty()) failures.pop_front();
    if (err != 0) return errno = err, -1;
    if (request == I2C_SMBUS && smbus->read_write == I2C_SMBUS_READ && smbus->size == I2C_SMBUS_WORD_DATA)
      smbus->data->word = wordToRead;
    if (request == I2C_SMBUS && smbus->read_write == I2C_SMBUS_READ && smbus->size == I2C_SMBUS_I2C_BLOCK_DATA)
      std::memcpy(smbus->data->block + 1, bytesToRead, smbus->data->block[0]);
    return 0;
  }
  bool locked() const {
    Utils::UnixFdRes probe(::open(path.c_str(), O_RDONLY | O_CLOEXEC));  // closing it drops its own lock
    return ::flock(probe.fd(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  }

  std::string path;
  struct stat node {};
  std::vector<IoctlCall> calls;
  std::deque<int> failures;  // errno of the next calls to fail, 0 for one that succeeds
  uint8_t bytesToRead[32] = {};
  uint16_t wordToRead = 0;
};

FakeAdapter* gAdapter = nullptr;

}  // namespace

// Calls made by the library in this program arrive here first.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list ap;
  va_start(ap, request);
  void* const arg = va_arg(ap, void*);
  va_end(ap);
  if (gAdapter != nullptr && gAdapter->owns(fd)) {
    int const saved = errno;
    int const result = gAdapter->handle(request, arg);
    if (result == 0) errno = saved;
    return result;
  }
  return static_cast<int>(::syscall(SYS_ioctl, fd, request, arg));
}

namespace {

template <class F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (std::exception const& e) {
    return e.what();
  }
  return "(no exception)";
}

// ---------------------------------------------------------------- through the ioctl boundary

constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "255,last,cfg,true,16\n256,beyond,cfg,true,16\n260,wide,cfg,true,32\n261,half,sts,false,16\n"
    "262,twelve,sts,false,12\n65796,high,cfg,true,32\n";

class I2cTransport : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_NE(nullptr, mkdtemp(dir_));
    node_ = std::string(dir_) + "/i2c-9";
    csv_ = std::string(dir_) + "/chip.csv";
    std::ofstream(node_) << "";
    std::ofstream(csv_) << kMap;
    adapter_ = std::make_unique<FakeAdapter>(node_);
    gAdapter = adapter_.get();
  }
  void TearDown() override {
    gAdapter = nullptr;
    std::filesystem::remove_all(dir_);
  }
  std::unique_ptr<I2cTransportMethodImpl> open(I2cFlavour flavour) {
    auto impl = std::make_unique<I2cTransportMethodImpl>(node_.c_str(), 0x50, csv_.c_str(), flavour, nullptr);
    adapter_->calls.clear();
    return impl;
  }
  std::vector<IoctlCall> const& calls() const { return adapter_->calls; }

  char dir_[40] = "/tmp/tarn-i2ctransport-XXXXXX";
  std::string node_;
  std::string csv_;
  std::unique_ptr<FakeAdapter> adapter_;
};

TEST_F(I2cTransport, BlockAccessesHoldTheDeviceLockAroundTheirTransfers) {
  auto const i2c = open(I2cFlavour::SmbusI2cBlockData);
  i2c->regWrite("wide", 0x12345678);
  i2c->regWrite("high", 0xa1b2c3d4);
  ASSERT_EQ(2u, calls().size());
  EXPECT_EQ(static_cast<unsigned long>(I2C_SMBUS), calls()[0].request);
  EXPECT_EQ(0x01, calls()[0].smbus.command);
  EXPECT_EQ((std::vector<uint8_t>{5, 0x04, 0x12, 0x34, 0x56, 0x78}), calls()[0].block);
  EXPECT_TRUE(calls()[0].deviceLocked);
  EXPECT_EQ(0x01, calls()[1].smbus.command) << "address bits above 15 (0x10104) are dropped";
  EXPECT_EQ((std::vector<uint8_t>{5, 0x04, 0xa1, 0xb2, 0xc3, 0xd4}), calls()[1].block);

  adapter_->calls.clear();
  uint8_t const bytes[] = {0xAA, 0xBB, 0xCC, 0xDD};
  std::memcpy(adapter_->bytesToRead, bytes, sizeof bytes);
  EXPECT_EQ(0xAABBCCDDu, i2c->regRead("wide"));
  // A narrower register keeps the bytes received first, at the top.
  EXPECT_EQ(0xAABB0000u, i2c->regRead("half"));
  EXPECT_EQ(0xAA0B0000u, i2c->regRead("twelve"));
  ASSERT_EQ(6u, calls().size());
  for (IoctlCall const& c : calls()) EXPECT_TRUE(c.deviceLocked);
  EXPECT_EQ(I2C_SMBUS_WRITE, calls()[0].smbus.read_write);
  EXPECT_EQ((std::vector<uint8_t>{1, 0x04}), calls()[0].block);
  EXPECT_EQ(I2C_SMBUS_READ, calls()[1].smbus.read_write);
  EXPECT_EQ(0x01, calls()[1].smbus.command);
  EXPECT_EQ(4, calls()[1].block[0]);
  EXPECT_EQ((std::vector<uint8_t>{1, 0x05}), calls()[2].block) << "register 261 = 0x105";
  // The lock is released once the access is over.
  Utils::UnixFdRes other(::open(node_.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(0, ::flock(other.fd(), LOCK_EX | LOCK_NB));
}

TEST_F(I2cTransport, WordAccessesMoveTheLowSixteenBitsWithoutLocking) {
  auto const i2c = open(I2cFlavour::SmbusWordData);
  i2c->regWrite("last", 0x12345);
  adapter_->wordToRead = 0xfedc;
  EXPECT_EQ(0xfedcu, i2c->regRead("last"));
  ASSERT_EQ(2u, calls().size());
  EXPECT_EQ(I2C_SMBUS_WRITE, calls()[0].smbus.read_write);
  EXPECT_EQ(0xff, calls()[0].smbus.command);
  EXPECT_EQ(uint32_t(I2C_SMBUS_WORD_DATA), calls()[0].smbus.size);
  EXPECT_EQ(0x2345, calls()[0].word);
  EXPECT_EQ(I2C_SMBUS_READ, calls()[1].smbus.read_write);
  EXPECT_FALSE(calls()[0].deviceLocked || calls()[1].deviceLocked);

  // An address above 8 bits is refused before anything is sent.
  EXPECT_EQ("Register address 0x100 is out of range!", errorOf([&] { i2c->regRead("beyond"); }));
  EXPECT_EQ("Register address 0x100 is out of range!", errorOf([&] { i2c->regWrite("beyond", 1); }));
  EXPECT_EQ(2u, calls().size());
}

TEST_F(I2cTransport, InterruptedAndBusyTransfersAreRetriedOthersReported) {
  auto const block = open(I2cFlavour::SmbusI2cBlockData);
  auto const word = open(I2cFlavour::SmbusWordData);
  adapter_->failures = {EINTR, EAGAIN};
  block->regWrite("wide", 1);
  EXPECT_EQ(3u, calls().size());
  adapter_->failures = {EINTR};
  word->regWrite("last", 1);
  EXPECT_EQ(5u, calls().size());

  std::string const fd = std::to_string(block->fd());
  struct Case {
    std::deque<int> failures;  // 0: that call succeeds
    std::function<void()> access;
    std::string error;
  };
  Case const cases[] = {
      {{EIO}, [&] { block->regWrite("wide", 0x12345678); },
       "Error writing value 0x12345678 to address 0x104 on FD " + fd + ": Input/output error (5)"},
      {{ENXIO}, [&] { block->regRead("wide"); },
       "Error writing address 0x104 on FD " + fd + ": No such device or address (6)"},
      {{0, EREMOTEIO}, [&] { block->regRead("wide"); },
       "Error reading from address 0x104 on FD " + fd + ": Remote I/O error (121)"},
      {{EIO}, [&] { word->regWrite("last", 1); }, "I2C word write from address 0xff failed: Input/output error (5)"},
      {{ENXIO}, [&] { word->regRead("last"); },
       "I2C word read from address 0xff failed: No such device or address (6)"},
  };
  for (Case const& c : cases) {
    adapter_->failures = c.failures;
    try {
      c.access();
      ADD_FAILURE() << c.error;
    } catch (TransportError const& e) {
      EXPECT_EQ(c.error, e.what());
      EXPECT_EQ(TransportErrorKind::System, e.kind());
      EXPECT_EQ(c.failures.back(), e.errnum()) << "the errno of the failed ioctl";
    }
  }
  // A failure leaves nothing behind: the device is unlocked and the next access goes through.
  block->regWrite("wide", 7);
  EXPECT_EQ((std::vector<uint8_t>{5, 0x04, 0, 0, 0, 7}), calls().back().block);
}

TEST_F(I2cTransport, ConstructionAddressesThePeripheralAndFailsInOrder) {
  {
    Kiv::TraceCapture cap("TarnRegFile/I2cTransportMethodImpl");
    I2cTransportMethodImpl i2c(node_.c_str(), 0x50, csv_.c_str(), I2cFlavour::SmbusI2cBlockData, nullptr);
    ASSERT_EQ(1u, calls().size());
    EXPECT_EQ(static_cast<unsigned long>(I2C_SLAVE), calls()[0].request) << "never the forcing variant";
    EXPECT_EQ(0x50ul, calls()[0].peripheral);
    EXPECT_TRUE(cap.contains(" Opened i2c with fd " + std::to_string(i2c.fd()), 0));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(i2c.fd(), F_GETFD) & FD_CLOEXEC);
  }
  adapter_->calls.clear();
  std::string const missing = std::string(dir_) + "/i2c-404";
  auto const make = [&](char const* node, char const* csv, U8 flavour) {
    return errorOf([&] { I2cTransportMethodImpl(node, 0x50, csv, static_cast<I2cFlavour>(flavour), nullptr); });
  };
  EXPECT_EQ("Error opening I2C device " + missing + ": No such file or directory (2)",
            make(missing.c_str(), csv_.c_str(), 1));
  // A file that is no I2C adapter refuses the peripheral address.
  EXPECT_EQ("Error setting peripheral address to 0x50: Inappropriate ioctl for device (25)",
            make(csv_.c_str(), csv_.c_str(), 2));
  // The flavour is checked before the register map is loaded, and the map before the node is opened.
  for (U8 flavour : {0, 3, 255})
    EXPECT_THROW(I2cTransportMethodImpl(missing.c_str(), 0x50, "/nonexistent.csv", I2cFlavour(flavour), nullptr),
                 std::out_of_range);
  EXPECT_EQ("Error opening CSV file /nonexistent.csv", make(node_.c_str(), "/nonexistent.csv", 2));
  EXPECT_TRUE(calls().empty());
}

TEST_F(I2cTransport, TheTransportRegistryBuildsBothFlavours) {
  for (auto [flavour, size] : {std::pair{TransportFlavour::I2cSmbusDataBlock, I2C_SMBUS_I2C_BLOCK_DATA},
                               {TransportFlavour::I2cSmbusDataWord, I2C_SMBUS_WORD_DATA}}) {
    auto tm = TransportMethod::TransportMethodIs("i2cchip");
    tm->init(I2cTransportDescriptor::I2cTransportDescriptorIs(flavour, Kiv::String(node_), 0x50), Kiv::String(csv_));
    ASSERT_NE(nullptr, dynamic_cast<I2cTransportMethodImpl*>(tm->implPtr()));
    EXPECT_EQ(0x104u, tm->regNameToAddr("wide")) << "register numbers are addresses as they are";
    adapter_->calls.clear();
    tm->regWrite("last", 0x1234);
    ASSERT_EQ(1u, calls().size());
    EXPECT_EQ(uint32_t(size), calls()[0].smbus.size);
  }
}

}  // namespace
