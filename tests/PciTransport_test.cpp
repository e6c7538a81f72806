// The PCI transport over a mapped temporary file: the mapping is a real shared mmap
// (the file's contents are the registers), and truncating the file turns the cut-off
// part of the mapping into real bus errors.
#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/PciTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace TarnRegFile;
using Hardware::PciDovImpl;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;

constexpr U32 kFarOffset = 0x1800;      // register "far": beyond the end once the file is cut to one page
constexpr U32 kOutsideOffset = 0x4000;  // register "outside": beyond the mapping altogether

// Register numbers are word indices: the byte offset is four times the number.
constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "0,id,const,false,32\n1,bit0,sts,false,1\n2,byte,sts,false,8\n3,half,cfg,true,16\n4,almost,sts,false,31\n"
    "5,scratch,cfg,true,32\n1536,far,sts,false,32\n4096,outside,sts,false,32\n";

auto throwsMessage(std::string const& message) { return testing::ThrowsMessage<std::exception>(message); }

// A private directory with the register window file (two pages) and its CSV map.
class PciTransport : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_NE(nullptr, mkdtemp(dir_));
    window_ = std::string(dir_) + "/resource0";
    csv_ = std::string(dir_) + "/chip.csv";
    std::ofstream(csv_) << kMap;
    fd_ = ::open(window_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_EQ(0, ftruncate(fd_, 0x2000));
  }
  void TearDown() override {
    ::close(fd_);
    std::filesystem::remove_all(dir_);
  }
  // Register contents seen through the file, independently of the transport's mapping.
  void poke(U32 offset, U32 value) { ASSERT_EQ(4, pwrite(fd_, &value, 4, offset)); }
  U32 peek(U32 offset) {
    U32 value = 0;
    EXPECT_EQ(4, pread(fd_, &value, 4, offset));
    return value;
  }
  Kiv::Ptr<PciDovImpl> dov(bool managesSigbus = false) { return Hardware::pciDovImplFactory(window_, managesSigbus); }

  char dir_[40] = "/tmp/tarn-pcitransport-XXXXXX";
  std::string window_;
  std::string csv_;
  int fd_ = -1;
};

struct ErrorCounter : TransportMethodError::Notifiee {
  void onError() override { ++signals; }
  int signals = 0;
};

TEST_F(PciTransport, ReadsKeepTheRegisterWidthWritesStoreTheWholeValue) {
  PciTransportMethodImpl pci(dov(), csv_.c_str(), nullptr);
  for (auto [name, offset, expected] : {std::tuple{"id", 0u, 0xdeadbeefu}, {"bit0", 4u, 0x1u}, {"byte", 8u, 0xefu},
                                        {"half", 12u, 0xbeefu}, {"almost", 16u, 0x5eadbeefu}}) {
    poke(offset, 0xdeadbeef);
    EXPECT_EQ(expected, pci.regRead(name)) << name;
  }
  pci.regWrite("half", 0x12345678);
  EXPECT_EQ(0x12345678u, peek(0x0c)) << "a write is not masked to the register's width";
  EXPECT_EQ(0x5678u, pci.regRead("half"));
  EXPECT_EQ(0xa5a5f00du, pci._regRWCommon(true, "scratch", 0xa5a5f00d)) << "a write returns the value written";
  EXPECT_EQ(0xa5a5f00du, peek(0x14));
  EXPECT_EQ(0xdeadbeefu, peek(0x10)) << "the neighbour is untouched";
}

TEST_F(PciTransport, GuardsBusErrorsOnlyWhenTheAccessObjectDoesNotAndThrowsWhenNotReady) {
  Kiv::SigbusGuard::autoHandlerInstallIs(true);
  PciTransportMethodImpl selfManaged(dov(true), csv_.c_str(), nullptr);
  EXPECT_FALSE(selfManaged.sigbusGuarded());
  EXPECT_TRUE(Kiv::SigbusGuard::autoHandlerInstall());

  auto d = dov(false);
  PciTransportMethodImpl pci(d, csv_.c_str(), nullptr);
  EXPECT_TRUE(pci.sigbusGuarded());
  EXPECT_TRUE(Kiv::SigbusGuard::initialized());
  EXPECT_FALSE(Kiv::SigbusGuard::autoHandlerInstall()) << "access objects must leave bus errors to the transport";
  EXPECT_FALSE(dov(true)->guardsPlainAccess());
  Kiv::SigbusGuard::autoHandlerInstallIs(true);

  poke(0x14, 0x11111111);
  d->readyIs(false);
  EXPECT_FALSE(pci.hardwareReady());
  Kiv::TraceCapture cap("TarnRegFile/PciTransportMethodImpl");
  EXPECT_THROW(pci.regWrite("scratch", 0x22222222), Kiv::SigbusException);
  EXPECT_EQ(0x11111111u, peek(0x14)) << "nothing is stored";
  // A register outside the mapping would fail with out_of_range if it were loaded.
  EXPECT_THAT([&] { pci.regRead("outside"); }, throwsMessage("Caught SIGBUS"));
  EXPECT_EQ(2u, cap.count("Hardware not ready, throwing SIGBUS"));
  EXPECT_TRUE(cap.contains("Hardware not ready, throwing SIGBUS", 1));
  EXPECT_THROW(pci.regRead("nonexistent"), std::runtime_error) << "the name is resolved first";
  d->readyIs(true);
  EXPECT_EQ(0x11111111u, pci.regRead("scratch"));
}

TEST_F(PciTransport, NotReadyWithoutGuardRaisesARealSigbus) {
  auto const readGoneDevice = [&] {
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    alarm(20);
    Kiv::Trace::textLevelsIs("TarnRegFile/PciTransportMethodImpl", Kiv::Trace::upTo(1));
    Kiv::SigbusGuard::autoHandlerInstallIs(true);
    auto d = dov(true);
    PciTransportMethodImpl pci(d, csv_.c_str(), nullptr);
    d->readyIs(false);
    pci.regRead("id");
    std::exit(0);
  };
#if defined(__SANITIZE_ADDRESS__)
  // AddressSanitizer handles SIGBUS itself: it reports the signal and exits.
  EXPECT_EXIT(readGoneDevice(), ::testing::ExitedWithCode(1),
              "Hardware not ready, raising SIGBUS.*AddressSanitizer.*BUS");
#else
  EXPECT_EXIT(readGoneDevice(), ::testing::KilledBySignal(SIGBUS), "Hardware not ready, raising SIGBUS");
#endif
}

int gSigbusSeen = 0;

TEST_F(PciTransport, NotReadyWithoutGuardGoesOnWhenTheProcessSurvivesTheSignal) {
  Kiv::SigbusGuard::autoHandlerInstallIs(true);
  auto d = dov(true);
  PciTransportMethodImpl pci(d, csv_.c_str(), nullptr);
  ASSERT_FALSE(pci.sigbusGuarded());
  poke(0x0c, 0xdeadbeef);
  d->readyIs(false);

  struct sigaction counting {}, previous{};
  counting.sa_handler = [](int) { ++gSigbusSeen; };
  ASSERT_EQ(0, sigaction(SIGBUS, &counting, &previous));
  gSigbusSeen = 0;
  Kiv::TraceCapture cap("TarnRegFile/PciTransportMethodImpl");
  U32 const value = pci.regRead("half");
  pci.regWrite("scratch", 0x600d);
  sigaction(SIGBUS, &previous, nullptr);

  EXPECT_EQ(2, gSigbusSeen);
  EXPECT_EQ(2u, cap.count("Hardware not ready, raising SIGBUS"));
  EXPECT_EQ(0xbeefu, value) << "the access is made after the signal";
  EXPECT_EQ(0x600du, peek(0x14));
}

TEST_F(PciTransport, RegisterWiderThanItsAccessIsRefusedBeforeAnyAccess) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("wide");
  // Placed outside the mapping: an attempted access would throw out_of_range instead.
  model->registerIs({"wide", HardwareRegisterType::cfg, true, kOutsideOffset, 33, 32});
  model->registerIs({"narrow", HardwareRegisterType::cfg, true, 0x8, 12, 16});
  PciTransportMethodImpl pci(dov(), nullptr, model);
  EXPECT_THAT([&] { pci.regRead("wide"); }, throwsMessage("Register wide size not supported!"));
  EXPECT_THAT([&] { pci.regWrite("wide", 1); }, throwsMessage("Register wide size not supported!"));
  // The mask uses the access width: (16 - 12) % 32 = 4 bits cleared from the top.
  poke(0x8, 0xffffffff);
  EXPECT_EQ(0x0fffffffu, pci.regRead("narrow"));
}

TEST_F(PciTransport, BusErrorsBecomeFailedAccessesAndTheProcessLivesOn) {
  auto tm = TransportMethod::TransportMethodIs("pcichip");
  tm->init(PciTransportDescriptor::PciTransportDescriptorIs(dov(false)), Kiv::String(csv_));
  auto* pci = dynamic_cast<PciTransportMethodImpl*>(tm->implPtr());
  ASSERT_NE(nullptr, pci) << "the registry's PCI row builds the PCI transport";
  ASSERT_TRUE(pci->sigbusGuarded());
  EXPECT_EQ(Kiv::String("far"), tm->regAddrToName(kFarOffset));
  ErrorCounter counter;
  counter.notifierIs(tm->errorNotifier());
  poke(0x0, 0xdeadbeef);
  poke(kFarOffset, 0x12345678);
  Kiv::String const far("far"), id("id");
  EXPECT_EQ(0x12345678u, tm->regRead(far));
  ASSERT_EQ(0, ftruncate(fd_, 0x1000));

  // Every faulting access fails alone; the registers still mapped keep working between faults.
  constexpr int kFaults = 1000;
  int goodReads = 0;
  for (int i = 0; i < kFaults; ++i) {
    tm->regWrite(far, U32(i));
    if (tm->regRead(far) != 0xFFFFFFFFu) break;
    goodReads += tm->regRead(id) == 0xdeadbeef;
  }
  EXPECT_EQ(kFaults, goodReads);
  EXPECT_EQ(2 * kFaults, counter.signals);
  EXPECT_TRUE(tm->errorNotifier()->error());
}

TEST_F(PciTransport, MapBeyondTheBarOrMisalignedFailsAsAnAccess) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("beyond");
  model->registerIs({"outside", HardwareRegisterType::sts, false, kOutsideOffset, 32, 32});
  model->registerIs({"odd", HardwareRegisterType::sts, false, 0x6, 32, 32});
  auto tm = TransportMethod::TransportMethodIs("pcichip");
  tm->fullInit(PciTransportDescriptor::PciTransportDescriptorIs(dov()), TransportMethodRegFile("", model));
  ErrorCounter counter;
  counter.notifierIs(tm->errorNotifier());
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  for (auto op : {TransportOperation::Read, TransportOperation::Write}) {
    for (char const* name : {"outside", "odd"}) {
      if (op == TransportOperation::Read) EXPECT_EQ(0xFFFFFFFFu, tm->regRead(name));
      else tm->regWrite(name, 1);
      auto const& last = tm->errorNotifier()->lastFailure();
      EXPECT_EQ(last.regName, name);
      EXPECT_EQ(last.operation, op);
      EXPECT_EQ(last.kind, TransportErrorKind::OutOfRange);
    }
  }
  EXPECT_EQ(4, counter.signals);
  EXPECT_EQ(4u, cap.count("TransportMethod error on register"));
}

TEST_F(PciTransport, AccessObjectOfAnotherKindOrNoneAtAll) {
  struct OtherDov : Hardware::DovImpl {};
  Kiv::Ptr<Hardware::DovImpl> other(new OtherDov);
  EXPECT_THAT([&] { PciTransportMethodImpl(other, csv_.c_str(), nullptr); }, throwsMessage("PciDovImpl cast error!"));

  // Without an access object the transport exists, names resolve and every access fails.
  auto tm = TransportMethod::TransportMethodIs("nodevice");
  tm->init(PciTransportDescriptor::PciTransportDescriptorIs(nullptr), Kiv::String(csv_));
  auto* pci = dynamic_cast<PciTransportMethodImpl*>(tm->implPtr());
  ASSERT_NE(nullptr, pci);
  EXPECT_FALSE(pci->hardwareReady());
  EXPECT_FALSE(pci->sigbusGuarded());
  EXPECT_EQ(0x8u, tm->regNameToAddr("byte"));
  ErrorCounter counter;
  counter.notifierIs(tm->errorNotifier());
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(0xFFFFFFFFu, tm->regRead("id"));
  tm->regWrite("id", 1);
  EXPECT_EQ(2, counter.signals);
  EXPECT_TRUE(cap.contains("TransportMethod error on register 'id': No PCI device to access register 'id'", 0));
  EXPECT_EQ(tm->errorNotifier()->lastFailure().kind, TransportErrorKind::NoDevice);
}

}  // namespace
