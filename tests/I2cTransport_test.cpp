// The i2c-dev transport without an I2C adapter: its calls as they reach the ioctl
// boundary, and the value a block read makes of the bytes received. This program
// defines ioctl() itself: requests on the fake device node (a temporary file) are
// answered by FakeAdapter below, every other descriptor goes to the kernel. The
// behaviour on the wire against a real adapter driver is checked by the VM tests.
#include "Trace.h"

#include "TarnRegFile/I2cTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
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
  unsigned long peripheral;  // I2C_SLAVE
  uint8_t readWrite;         // I2C_SMBUS from here on
  uint8_t command;
  uint32_t size;
  std::vector<uint8_t> block;  // block[0..block[0]] of the request as sent
  uint16_t word;
  bool deviceLocked;  // another open file of the node could not take an exclusive flock
};

class FakeAdapter {
public:
  explicit FakeAdapter(std::string path) : path_(std::move(path)) {
    struct stat st;
    if (::stat(path_.c_str(), &st) == 0) {
      dev_ = st.st_dev;
      ino_ = st.st_ino;
    }
  }

  bool owns(int fd) const {
    struct stat st;
    return ::fstat(fd, &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_;
  }

  int handle(unsigned long request, void* arg) {
    IoctlCall call{};
    call.request = request;
    call.deviceLocked = lockedByOthers();
    if (request == I2C_SLAVE) call.peripheral = reinterpret_cast<uintptr_t>(arg);
    auto* smbus = static_cast<i2c_smbus_ioctl_data*>(arg);
    if (request == I2C_SMBUS) {
      call.readWrite = smbus->read_write;
      call.command = smbus->command;
      call.size = smbus->size;
      call.block.assign(smbus->data->block, smbus->data->block + 1 + std::min<int>(smbus->data->block[0], 32));
      call.word = smbus->data->word;
    }
    calls.push_back(call);
    if (!failures.empty()) {
      int const err = failures.front();
      failures.pop_front();
      if (err != 0) {
        errno = err;
        return -1;
      }
    }
    if (request == I2C_SMBUS && smbus->read_write == I2C_SMBUS_READ) {
      if (smbus->size == I2C_SMBUS_WORD_DATA) smbus->data->word = wordToRead;
      if (smbus->size == I2C_SMBUS_I2C_BLOCK_DATA)
        for (int i = 0; i < smbus->data->block[0]; ++i) smbus->data->block[1 + i] = bytesToRead[i];
    }
    return 0;
  }

  std::vector<IoctlCall> calls;
  std::deque<int> failures;  // errno of the next calls to fail
  uint8_t bytesToRead[32] = {};
  uint16_t wordToRead = 0;

private:
  bool lockedByOthers() const {
    int const probe = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (probe < 0) return false;
    bool const locked = ::flock(probe, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(probe);  // releases the probe's own lock, if it got one
    return locked;
  }

  std::string path_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
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

// ---------------------------------------------------------------- helpers

HardwareRegister reg(U32 address, U32 width = 32) {
  HardwareRegister r;
  r.name = "r";
  r.address = address;
  r.width = width;
  r.accessWidth = 32;
  return r;
}

template <class F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (std::exception const& e) {
    return e.what();
  }
  return "(no exception)";
}

// ---------------------------------------------------------------- block read value

TEST(I2cTransportRequests, BlockReadValueKeepsTheFirstBytesAtTheTop) {
  i2c_smbus_data data{};
  uint8_t const received[] = {4, 0xAA, 0xBB, 0xCC, 0xDD};
  std::memcpy(data.block, received, sizeof received);
  struct Case {
    U32 width;
    U32 expected;
  };
  for (Case const c : {Case{32, 0xAABBCCDD}, Case{24, 0xAABBCC00}, Case{16, 0xAABB0000}, Case{12, 0xAA0B0000},
                       Case{8, 0xAA000000}, Case{1, 0}, Case{0, 0xAABBCCDD}})
    EXPECT_EQ(c.expected, i2cflavspec::blockReadValue(data, reg(0x0104, c.width))) << "width " << c.width;
}

// ---------------------------------------------------------------- through the ioctl boundary

constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "255,last,cfg,true,16\n"
    "256,beyond,cfg,true,16\n"
    "260,wide,cfg,true,32\n"
    "261,half,sts,false,16\n"
    "65796,high,cfg,true,32\n";

class I2cTransport : public ::testing::Test {
protected:
  void SetUp() override {
    char dirTemplate[] = "/tmp/tarn-i2ctransport-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirTemplate));
    dir_ = dirTemplate;
    node_ = dir_ + "/i2c-9";
    csv_ = dir_ + "/chip.csv";
    int const fd = ::open(node_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
    std::ofstream(csv_) << kMap;
    adapter_ = std::make_unique<FakeAdapter>(node_);
    gAdapter = adapter_.get();
  }
  void TearDown() override {
    gAdapter = nullptr;
    ::unlink(node_.c_str());
    ::unlink(csv_.c_str());
    ::rmdir(dir_.c_str());
  }
  std::vector<IoctlCall> const& calls() const { return adapter_->calls; }

  std::string dir_;
  std::string node_;
  std::string csv_;
  std::unique_ptr<FakeAdapter> adapter_;
};

TEST_F(I2cTransport, OpensTheNodeAndAddressesThePeripheral) {
  Kiv::TraceCapture cap("TarnRegFile/I2cTransportMethodImpl");
  I2cTransportMethodImpl i2c(node_.c_str(), 0x50, csv_.c_str(), I2cFlavour::SmbusI2cBlockData, nullptr);
  ASSERT_EQ(1u, calls().size());
  EXPECT_EQ(static_cast<unsigned long>(I2C_SLAVE), calls()[0].request) << "never the forcing variant";
  EXPECT_EQ(0x50ul, calls()[0].peripheral);
  EXPECT_TRUE(cap.contains(" Opened i2c with fd " + std::to_string(i2c.fd()), 0));
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(i2c.fd(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(I2cTransport, BlockAccessesHoldTheDeviceLockAroundTheirTransfers) {
  I2cTransportMethodImpl i2c(node_.c_str(), 0x50, csv_.c_str(), I2cFlavour::SmbusI2cBlockData, nullptr);
  adapter_->calls.clear();
  i2c.regWrite("wide", 0x12345678);
  ASSERT_EQ(1u, calls().size());
  EXPECT_EQ(static_cast<unsigned long>(I2C_SMBUS), calls()[0].request);
  EXPECT_EQ(0x01, calls()[0].command);
  EXPECT_EQ((std::vector<uint8_t>{5, 0x04, 0x12, 0x34, 0x56, 0x78}), calls()[0].block);
  EXPECT_TRUE(calls()[0].deviceLocked);
  i2c.regWrite("high", 0xa1b2c3d4);
  EXPECT_EQ(0x01, calls()[1].command) << "address bits above 15 (0x10104) are dropped";
  EXPECT_EQ((std::vector<uint8_t>{5, 0x04, 0xa1, 0xb2, 0xc3, 0xd4}), calls()[1].block);

  adapter_->calls.clear();
  uint8_t const bytes[] = {0xAA, 0xBB, 0xCC, 0xDD};
  std::memcpy(adapter_->bytesToRead, bytes, sizeof bytes);
  EXPECT_EQ(0xAABBCCDDu, i2c.regRead("wide"));
  // A 16-bit register keeps the first two bytes received, at the top.
  EXPECT_EQ(0xAABB0000u, i2c.regRead("half"));
  ASSERT_EQ(4u, calls().size());
  for (IoctlCall const& c : calls()) EXPECT_TRUE(c.deviceLocked);
  EXPECT_EQ((std::vector<uint8_t>{1, 0x04}), calls()[0].block);
  EXPECT_EQ(I2C_SMBUS_WRITE, calls()[0].readWrite);
  EXPECT_EQ(I2C_SMBUS_READ, calls()[1].readWrite);
  EXPECT_EQ(0x01, calls()[1].command);
  EXPECT_EQ((std::vector<uint8_t>{1, 0x05}), calls()[2].block) << "register 261 = 0x105";

  // The lock is released once the access is over.
  int const other = ::open(node_.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(0, ::flock(other, LOCK_EX | LOCK_NB));
  ::close(other);
}

TEST_F(I2cTransport, WordAccessesMoveTheLowSixteenBitsWithoutLocking) {
  I2cTransportMethodImpl i2c(node_.c_str(), 0x1c, csv_.c_str(), I2cFlavour::SmbusWordData, nullptr);
  adapter_->calls.clear();
  i2c.regWrite("last", 0x12345);
  ASSERT_EQ(1u, calls().size());
  EXPECT_EQ(I2C_SMBUS_WRITE, calls()[0].readWrite);
  EXPECT_EQ(0xff, calls()[0].command);
  EXPECT_EQ(uint32_t(I2C_SMBUS_WORD_DATA), calls()[0].size);
  EXPECT_EQ(0x2345, calls()[0].word);
  EXPECT_FALSE(calls()[0].deviceLocked);

  adapter_->wordToRead = 0xfedc;
  EXPECT_EQ(0xfedcu, i2c.regRead("last"));
  EXPECT_EQ(I2C_SMBUS_READ, calls()[1].readWrite);
  EXPECT_FALSE(calls()[1].deviceLocked);

  // An address above 8 bits is refused before anything is sent.
  adapter_->calls.clear();
  EXPECT_EQ("Register address 0x100 is out of range!", errorOf([&] { i2c.regRead("beyond"); }));
  EXPECT_EQ("Register address 0x100 is out of range!", errorOf([&] { i2c.regWrite("beyond", 1); }));
  EXPECT_TRUE(calls().empty());
}

TEST_F(I2cTransport, InterruptedAndBusyTransfersAreRetriedOthersReported) {
  I2cTransportMethodImpl block(node_.c_str(), 0x50, csv_.c_str(), I2cFlavour::SmbusI2cBlockData, nullptr);
  I2cTransportMethodImpl word(node_.c_str(), 0x50, csv_.c_str(), I2cFlavour::SmbusWordData, nullptr);
  adapter_->calls.clear();
  adapter_->failures = {EINTR, EAGAIN};
  block.regWrite("wide", 1);
  EXPECT_EQ(3u, calls().size());
  adapter_->failures = {EINTR};
  word.regWrite("last", 1);
  EXPECT_EQ(5u, calls().size());

  std::string const fd = std::to_string(block.fd());
  struct Case {
    std::deque<int> failures;  // 0: that call succeeds
    std::function<void()> access;
    std::string error;
  };
  Case const cases[] = {
      {{EIO}, [&] { block.regWrite("wide", 0x12345678); },
       "Error writing value 0x12345678 to address 0x104 on FD " + fd + ": Input/output error (5)"},
      {{ENXIO}, [&] { block.regRead("wide"); },
       "Error writing address 0x104 on FD " + fd + ": No such device or address (6)"},
      {{0, EREMOTEIO}, [&] { block.regRead("wide"); },
       "Error reading from address 0x104 on FD " + fd + ": Remote I/O error (121)"},
      {{EIO}, [&] { word.regWrite("last", 1); }, "I2C word write from address 0xff failed: Input/output error (5)"},
      {{ENXIO}, [&] { word.regRead("last"); },
       "I2C word read from address 0xff failed: No such device or address (6)"},
  };
  for (Case const& c : cases) {
    adapter_->failures = c.failures;
    EXPECT_EQ(c.error, errorOf(c.access));
  }
  // A failure leaves nothing behind: the device is unlocked and the next access goes through.
  block.regWrite("wide", 7);
  EXPECT_EQ((std::vector<uint8_t>{5, 0x04, 0, 0, 0, 7}), calls().back().block);
}

TEST_F(I2cTransport, ConstructionFailures) {
  EXPECT_EQ("Error opening I2C device " + dir_ + "/i2c-404: No such file or directory (2)", errorOf([&] {
              I2cTransportMethodImpl i2c((dir_ + "/i2c-404").c_str(), 0x50, csv_.c_str(),
                                         I2cFlavour::SmbusI2cBlockData, nullptr);
            }));
  // A file that is no I2C adapter refuses the peripheral address.
  EXPECT_EQ("Error setting peripheral address to 0x50: Inappropriate ioctl for device (25)", errorOf([&] {
              I2cTransportMethodImpl i2c(csv_.c_str(), 0x50, csv_.c_str(), I2cFlavour::SmbusWordData, nullptr);
            }));
  // The flavour is checked before the register map is loaded or the node opened.
  for (U8 flavour : {0, 3, 255})
    EXPECT_THROW(I2cTransportMethodImpl((dir_ + "/i2c-404").c_str(), 0x50, "/nonexistent.csv",
                                        static_cast<I2cFlavour>(flavour), nullptr),
                 std::out_of_range)
        << int(flavour);
  // The register map is loaded before the node is opened.
  EXPECT_EQ("Error opening CSV file /nonexistent.csv", errorOf([&] {
              I2cTransportMethodImpl i2c(node_.c_str(), 0x50, "/nonexistent.csv", I2cFlavour::SmbusWordData,
                                         nullptr);
            }));
  EXPECT_TRUE(calls().empty());
}

TEST_F(I2cTransport, TheTransportTableBuildsBothFlavours) {
  EXPECT_EQ(1u, I2cTransportMethodImpl::flavourTable().at(I2cFlavour::SmbusI2cBlockData).addrBlockSize);
  EXPECT_EQ(1u, I2cTransportMethodImpl::flavourTable().at(I2cFlavour::SmbusWordData).addrBlockSize);
  struct Case {
    TransportFlavour flavour;
    uint32_t size;
  };
  for (Case const c : {Case{TransportFlavour::I2cSmbusDataBlock, I2C_SMBUS_I2C_BLOCK_DATA},
                       Case{TransportFlavour::I2cSmbusDataWord, I2C_SMBUS_WORD_DATA}}) {
    auto tm = TransportMethod::TransportMethodIs("i2cchip");
    tm->init(I2cTransportDescriptor::I2cTransportDescriptorIs(c.flavour, Kiv::String(node_), 0x50),
             Kiv::String(csv_));
    ASSERT_NE(nullptr, dynamic_cast<I2cTransportMethodImpl*>(tm->implPtr()));
    EXPECT_EQ(0x104u, tm->regNameToAddr("wide")) << "register numbers are addresses as they are";
    adapter_->calls.clear();
    tm->regWrite("last", 0x1234);
    ASSERT_EQ(1u, calls().size());
    EXPECT_EQ(c.size, calls()[0].size);
  }
  auto tm = TransportMethod::TransportMethodIs("missing");
  EXPECT_EQ("Error opening I2C device /dev/i2c-404-missing: No such file or directory (2)", errorOf([&] {
              tm->init(I2cTransportDescriptor::I2cTransportDescriptorIs(TransportFlavour::I2cSmbusDataWord,
                                                                        "/dev/i2c-404-missing", 0x50),
                       Kiv::String(csv_));
            }));
}

}  // namespace
