// The PCI access object and the PCI transport over it, on a register window file: the
// mapping is a real shared mmap (the file's contents are the registers), and cutting the
// file short turns the cut-off part of the mapping into real bus errors.
#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/PciTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include "support/ToolRun.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace TarnRegFile;
using Hardware::PciDovImpl;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr U32 kSize = 0x2000;
constexpr U32 kFarOffset = 0x1800;  // register "far": beyond the end once the file is cut to one page

// Register numbers are word indices: the byte offset is four times the number.
constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "0,id,const,false,32\n1,bit0,sts,false,1\n2,byte,sts,false,8\n3,half,cfg,true,16\n4,almost,sts,false,31\n"
    "5,scratch,cfg,true,32\n4096,outside,sts,false,32\n";

// A private directory with the register window file (two pages), read and written here
// through the file itself, independently of any mapping, and its CSV map.
class PciWindow : public ::testing::Test {
protected:
  void SetUp() override {
    TarnTest::writeFile(csv_, kMap);
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    truncateTo(kSize);
  }
  void TearDown() override { ::close(fd_); }
  void truncateTo(off_t size) { ASSERT_EQ(0, ftruncate(fd_, size)); }
  void poke(U32 offset, U32 value) { ASSERT_EQ(4, pwrite(fd_, &value, 4, offset)); }
  U32 peek(U32 offset) {
    U32 value = 0;
    EXPECT_EQ(4, pread(fd_, &value, 4, offset));
    return value;
  }
  Kiv::Ptr<PciDovImpl> dov(bool managesSigbus = false) { return Hardware::pciDovImplFactory(path_, managesSigbus); }

  TarnTest::TempDir const tmp_;
  std::string const dir_ = tmp_.path, path_ = dir_ + "/resource0", csv_ = path_ + ".csv";
  int fd_ = -1;
};

// ---------------------------------------------------------------- the access object

TEST_F(PciWindow, AccessObjectRefusesBadOffsetsFilesAndAddressesClearly) {
  auto const window = dov();
  std::pair<U32, char const*> const offsets[] = {
      {1, "offset 0x1 is not 4-byte aligned (size 0x2000"},
      {0x2000, "offset 0x2000 is outside the mapping (size 0x2000"},
      {0xfffffffcu, "offset 0xfffffffc is outside the mapping (size 0x2000"},
      {0xffffffffu, "offset 0xffffffff is not 4-byte aligned (size 0x2000"},
  };
  for (auto const& [offset, expected] : offsets) {
    // The four accesses share one check: a plain and a guarded one stand for them.
    auto const refused = ThrowsMessage<std::out_of_range>(HasSubstr(expected));
    EXPECT_THAT([&] { (void)window->read32(offset); }, refused);
    EXPECT_THAT([&] { window->guardedWrite32(offset, 0); }, refused);
  }
  std::ofstream{dir_ + "/empty"};
  std::pair<std::string, std::string> const files[] = {
      {dir_ + "/missing", "cannot open " + dir_ + "/missing: No such file or directory"},
      {dir_, "cannot open " + dir_ + ": Is a directory"},
      {dir_ + "/empty", dir_ + "/empty has no mappable size (0 bytes)"},
      {"/dev/null", "/dev/null is not a regular file"},
  };
  for (auto const& [path, expected] : files)
    EXPECT_THAT([&] { PciDovImpl dov(path); }, ThrowsMessage<std::runtime_error>(HasSubstr(expected)));

  EXPECT_EQ("/sys/bus/pci/devices/0000:0a:1f.7/resource5", PciDovImpl::resourcePath("0000:0A:1F.7", 5));
  EXPECT_EQ("/sys/bus/pci/devices/10000:e1:00.3/resource2", PciDovImpl::resourcePath("10000:e1:00.3", 2));
  for (std::string const address :
       {"", "0000:00:04", "000:00:04.0", "000000:00:04.0", "0000:00:20.0", "0000:00:04.8", "0000-00-04.0",
        " 0000:00:04.0", "g000:00:04.0", "../../../etc", "0000:00:04.0/../../..", "0000:00:04.0\n"})
    EXPECT_THAT([&] { PciDovImpl::resourcePath(address, 0); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("invalid PCI address '" + address + "'")));
  for (int bar : {-1, 6})
    EXPECT_THAT([&] { PciDovImpl::resourcePath("0000:00:04.0", bar); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("invalid BAR index " + std::to_string(bar))));
}

TEST_F(PciWindow, AccessObjectThatGuardsItselfReportsBusErrorsOthersAreNotCaught) {
  ASSERT_TRUE(Kiv::SigbusGuard::autoHandlerInstall());
  auto const plain = dov(), own = dov(true);
  truncateTo(0x1000);
  Kiv::TraceCapture capture("Hardware/PciDov");
  EXPECT_EQ(0xffffffffu, own->read32(0x1004));  // what a read from a missing device gives
  EXPECT_TRUE(own->lastAccessFaulted());
  own->write32(0xffc, 7u);
  EXPECT_FALSE(own->lastAccessFaulted());
  own->write32(0x1008, 1u);
  EXPECT_TRUE(own->lastAccessFaulted());
  EXPECT_EQ(7u, plain->guardedRead32(0xffc));
  EXPECT_TRUE(capture.contains("SIGBUS on read at offset 0x1004 of " + path_, 0));
  EXPECT_TRUE(capture.contains("SIGBUS on write at offset 0x1008 of " + path_, 0));

  // Without self-management, and for a self-managing object created while the process-wide
  // switch is off, a bus error on a plain access takes the process down as without the guard.
  auto const plainFault = [this](bool managesSigbus) {
    struct rlimit none = {0, 0};  // no core file
    setrlimit(RLIMIT_CORE, &none);
    alarm(20);  // a fault that keeps returning ends the child instead of spinning
    truncateTo(kSize);  // an earlier child shrank the shared file
    Kiv::SigbusGuard::autoHandlerInstallIs(!managesSigbus);
    auto const window = dov(managesSigbus);
    truncateTo(window->guardsPlainAccess() ? kSize : 0x1000);
    (void)window->read32(0x1000);
    std::exit(4);
  };
  for (bool const managesSigbus : {false, true})
#if defined(__SANITIZE_ADDRESS__)  // AddressSanitizer's SIGBUS handler reports the fault and exits
    EXPECT_EXIT(plainFault(managesSigbus), ::testing::ExitedWithCode(1), "AddressSanitizer.*BUS");
#else
    EXPECT_EXIT(plainFault(managesSigbus), ::testing::KilledBySignal(SIGBUS), "");
#endif
}

// ---------------------------------------------------------------- the transport

// Both see the file's words: the access object whole; the transport keeps a read's register
// width and stores a write whole.
TEST_F(PciWindow, LoadsAndStoresAreWholeWordsOfTheFileAndReadsKeepTheRegisterWidth) {
  dov()->guardedWrite32(kSize - 4, 0xdeadbeefu);
  EXPECT_EQ(0xdeadbeefu, peek(kSize - 4));

  PciTransportMethodImpl pci(dov(), csv_.c_str(), nullptr);
  for (auto [name, offset, expected] : {std::tuple{"id", 0u, 0xdeadbeefu}, {"bit0", 4u, 0x1u}, {"byte", 8u, 0xefu},
                                        {"half", 12u, 0xbeefu}, {"almost", 16u, 0x5eadbeefu}}) {
    poke(offset, 0xdeadbeef);
    EXPECT_EQ(expected, pci.regRead(name)) << name;
  }
  pci.regWrite("half", 0x12345678);
  EXPECT_EQ(0x12345678u, peek(0x0c)) << "a write is not masked to the register's width";
  EXPECT_EQ(std::pair(0xdeadbeefu, 0xdeadbeefu), std::pair(peek(0x08), peek(0x10))) << "nothing spills over";
  EXPECT_EQ(0xa5a5f00du, pci._regRWCommon(true, "scratch", 0xa5a5f00d)) << "a write returns the value written";
  EXPECT_EQ(0xa5a5f00du, peek(0x14));
}

int gSigbusSeen = 0;

TEST_F(PciWindow, ADeviceNotReadyIsLeftAloneWhenGuardedAndSignalledOtherwise) {
  Kiv::SigbusGuard::autoHandlerInstallIs(true);
  auto const own = dov(true), plain = dov(false);
  PciTransportMethodImpl selfManaged(own, csv_.c_str(), nullptr);
  EXPECT_TRUE(Kiv::SigbusGuard::autoHandlerInstall());
  PciTransportMethodImpl guarded(plain, csv_.c_str(), nullptr);
  EXPECT_FALSE(Kiv::SigbusGuard::autoHandlerInstall()) << "access objects must leave bus errors to the transport";
  Kiv::SigbusGuard::autoHandlerInstallIs(true);

  // Guarded: an exception, and the device is not touched ("outside" would fail with
  // out_of_range if it were loaded).
  poke(0x0c, 0xdeadbeef);
  poke(0x14, 0x11111111);
  own->readyIs(false);
  plain->readyIs(false);
  Kiv::TraceCapture cap("TarnRegFile/PciTransportMethodImpl");
  EXPECT_THROW(guarded.regWrite("scratch", 0x22222222), Kiv::SigbusException);
  EXPECT_EQ(0x11111111u, peek(0x14)) << "nothing is stored";
  EXPECT_THAT([&] { guarded.regRead("outside"); }, ThrowsMessage<Kiv::SigbusException>("Caught SIGBUS"));
  EXPECT_THROW(guarded.regRead("nonexistent"), std::runtime_error) << "the name is resolved first";
  EXPECT_EQ(2u, cap.count("Hardware not ready, throwing SIGBUS"));
  EXPECT_TRUE(cap.contains("Hardware not ready, throwing SIGBUS", 1));

  // Self-managed: a real SIGBUS, for the access object's handling; when the process
  // survives it, the access is made.
  struct sigaction counting {}, previous{};
  counting.sa_handler = [](int) { ++gSigbusSeen; };
  ASSERT_EQ(0, sigaction(SIGBUS, &counting, &previous));
  U32 const value = selfManaged.regRead("half");
  selfManaged.regWrite("scratch", 0x600d);
  sigaction(SIGBUS, &previous, nullptr);
  EXPECT_EQ(2, gSigbusSeen);
  EXPECT_EQ(2u, cap.count("Hardware not ready, raising SIGBUS"));
  EXPECT_EQ(0xbeefu, value);
  EXPECT_EQ(0x600du, peek(0x14));
  plain->readyIs(true);
  EXPECT_EQ(0x600du, guarded.regRead("scratch"));
}

// Both accesses of @p name fail with @p kind (the read giving 0xFFFFFFFF).
void expectFailsAs(TransportMethod& tm, char const* name, TransportErrorKind kind) {
  auto const& last = tm.errorNotifier()->lastFailure();
  EXPECT_EQ(0xFFFFFFFFu, tm.regRead(name));
  EXPECT_EQ(std::tuple(last.operation, last.kind), std::tuple(TransportOperation::Read, kind)) << name;
  tm.regWrite(name, 1);
  EXPECT_EQ(std::tuple(last.operation, last.kind), std::tuple(TransportOperation::Write, kind)) << name;
}

TEST_F(PciWindow, FailedAccessesThroughTheTransportLeaveTheProcessAndMappedRegistersWorking) {
  struct OtherDov : Hardware::DovImpl {};
  EXPECT_THAT([&] { PciTransportMethodImpl(Kiv::Ptr<Hardware::DovImpl>(new OtherDov), csv_.c_str(), nullptr); },
              ThrowsMessage<std::exception>("PciDovImpl cast error!"));
  // Without an access object the names resolve and every access fails.
  auto tm = TransportMethod::TransportMethodIs("pcichip");
  tm->init(PciTransportDescriptor::PciTransportDescriptorIs(nullptr), Kiv::String(csv_));
  EXPECT_EQ(0x8u, tm->regNameToAddr("byte"));
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  expectFailsAs(*tm, "id", TransportErrorKind::NoDevice);
  EXPECT_TRUE(cap.contains("TransportMethod error on register 'id': No PCI device to access register 'id'", 0));

  // A map that does not fit: a register wider than its access is refused before any access
  // (placed outside the mapping, it would fail otherwise), and the read mask uses the access
  // width: (16 - 12) % 32 = 4 bits cleared from the top. Then a device that drops off the bus.
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("window");
  model->registerIs({"id", HardwareRegisterType::constant, false, 0x0, 32, 32});
  model->registerIs({"narrow", HardwareRegisterType::cfg, true, 0x8, 12, 16});
  model->registerIs({"far", HardwareRegisterType::cfg, true, kFarOffset, 32, 32});
  model->registerIs({"outside", HardwareRegisterType::sts, false, 0x4000, 32, 32});
  model->registerIs({"wide", HardwareRegisterType::cfg, true, 0x4000, 33, 32});
  tm->fullInit(PciTransportDescriptor::PciTransportDescriptorIs(dov()), TransportMethodRegFile("", model));
  expectFailsAs(*tm, "wide", TransportErrorKind::WidthUnsupported);
  EXPECT_TRUE(cap.contains("TransportMethod error on register 'wide': Register wide size not supported!", 0));
  expectFailsAs(*tm, "outside", TransportErrorKind::OutOfRange);
  poke(0x8, 0xffffffff);
  EXPECT_EQ(0x0fffffffu, tm->regRead("narrow"));
  poke(0x0, 0xdeadbeef);
  poke(kFarOffset, 0x12345678);
  EXPECT_EQ(0x12345678u, tm->regRead("far"));
  truncateTo(0x1000);
  expectFailsAs(*tm, "far", TransportErrorKind::BusError);
  EXPECT_EQ(0xdeadbeefu, tm->regRead("id")) << "the registers still mapped keep working";
}

}  // namespace
