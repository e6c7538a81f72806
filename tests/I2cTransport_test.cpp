// The i2c-dev transport without an I2C adapter: its calls as they reach the ioctl
// boundary, and the value a block read makes of the bytes received. This program
// defines ioctl() itself: requests on the fake device node (a temporary file) are
// answered by FakeAdapter below, every other descriptor goes to the kernel. The
// behaviour on the wire against a real adapter driver is checked by the VM tests.
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/I2cTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/Utils.h"

#include <fmt/format.h>
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
#include <linux/i2c.h>
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

// One ioctl as the tests compare it: "slave 0x50"; "W 0x01 block 04 12 locked" (the
// command, then the block's bytes after its length, and whether the node was locked);
// "R 0x01 block/4" (the length asked for); "W 0xff word 2345"; "R 0xff word".
std::string text(IoctlCall const& c) {
  if (c.request == I2C_SLAVE) return fmt::format("slave {:#x}", c.peripheral);
  bool const read = c.smbus.read_write == I2C_SMBUS_READ;
  std::string t = fmt::format("{} {:#04x}", read ? 'R' : 'W', c.smbus.command);
  if (c.smbus.size == I2C_SMBUS_WORD_DATA) {
    t += read ? " word" : fmt::format(" word {:04x}", c.word);
  } else if (c.smbus.size != I2C_SMBUS_I2C_BLOCK_DATA) {
    t += fmt::format(" size {}", c.smbus.size);
  } else if (read) {
    t += fmt::format(" block/{}", c.block[0]);
  } else {
    t += " block";
    for (size_t i = 1; i < c.block.size(); ++i) t += fmt::format(" {:02x}", c.block[i]);
  }
  return t + (c.deviceLocked ? " locked" : "");
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
  std::vector<std::string> texts() const {
    std::vector<std::string> result;
    for (auto const& c : calls()) result.push_back(text(c));
    return result;
  }

  char dir_[40] = "/tmp/tarn-i2ctransport-XXXXXX";
  std::string node_;
  std::string csv_;
  std::unique_ptr<FakeAdapter> adapter_;
};

TEST_F(I2cTransport, BlockAccessesHoldTheDeviceLockAroundTheirTransfers) {
  auto const i2c = open(I2cFlavour::SmbusI2cBlockData);
  i2c->regWrite("wide", 0x12345678);
  i2c->regWrite("high", 0xa1b2c3d4);  // address bits above 15 (0x10104) are dropped
  uint8_t const bytes[] = {0xAA, 0xBB, 0xCC, 0xDD};
  std::memcpy(adapter_->bytesToRead, bytes, sizeof bytes);
  EXPECT_EQ(0xAABBCCDDu, i2c->regRead("wide"));
  // A narrower register keeps the bytes received first, at the top.
  EXPECT_EQ(0xAABB0000u, i2c->regRead("half"));
  EXPECT_EQ(0xAA0B0000u, i2c->regRead("twelve"));
  EXPECT_EQ(texts(), (std::vector<std::string>{
                         "W 0x01 block 04 12 34 56 78 locked", "W 0x01 block 04 a1 b2 c3 d4 locked",
                         "W 0x01 block 04 locked", "R 0x01 block/4 locked", "W 0x01 block 05 locked",
                         "R 0x01 block/4 locked", "W 0x01 block 06 locked", "R 0x01 block/4 locked"}));
  // The lock is released once the access is over.
  Utils::UnixFdRes other(::open(node_.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(0, ::flock(other.fd(), LOCK_EX | LOCK_NB));
}

TEST_F(I2cTransport, WordAccessesMoveTheLowSixteenBitsWithoutLocking) {
  auto const i2c = open(I2cFlavour::SmbusWordData);
  i2c->regWrite("last", 0x12345);
  adapter_->wordToRead = 0xfedc;
  EXPECT_EQ(0xfedcu, i2c->regRead("last"));
  // An address above 8 bits is refused before anything is sent.
  EXPECT_EQ("Register address 0x100 is out of range!", errorOf([&] { i2c->regRead("beyond"); }));
  EXPECT_EQ("Register address 0x100 is out of range!", errorOf([&] { i2c->regWrite("beyond", 1); }));
  EXPECT_EQ(texts(), (std::vector<std::string>{"W 0xff word 2345", "R 0xff word"}));
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
  EXPECT_EQ("W 0x01 block 04 00 00 00 07 locked", text(calls().back()));
}

TEST_F(I2cTransport, ConstructionAddressesThePeripheralAndFailsInOrder) {
  {
    Kiv::TraceCapture cap("TarnRegFile/I2cTransportMethodImpl");
    I2cTransportMethodImpl i2c(node_.c_str(), 0x50, csv_.c_str(), I2cFlavour::SmbusI2cBlockData, nullptr);
    EXPECT_EQ(texts(), std::vector<std::string>{"slave 0x50"}) << "never the forcing variant";
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
  for (auto [flavour, sent] : {std::pair{TransportFlavour::I2cSmbusDataBlock, "W 0x00 block ff 00 00 12 34 locked"},
                               {TransportFlavour::I2cSmbusDataWord, "W 0xff word 1234"}}) {
    auto tm = TransportMethod::TransportMethodIs("i2cchip");
    tm->init(I2cTransportDescriptor::I2cTransportDescriptorIs(flavour, Kiv::String(node_), 0x50), Kiv::String(csv_));
    EXPECT_EQ(0x104u, tm->regNameToAddr("wide")) << "register numbers are addresses as they are";
    adapter_->calls.clear();
    tm->regWrite("last", 0x1234);
    EXPECT_EQ(texts(), std::vector<std::string>{sent});
  }
}

}  // namespace
