// The PCI transport over a mapped temporary file: the mapping is a real shared mmap
// (the file's contents are the registers), and truncating the file turns the cut-off
// part of the mapping into real bus errors.
#include "PciDov.h"
#include "SigbusGuard.h"
#include "Trace.h"

#include "TarnRegFile/PciTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace TarnRegFile;
using Hardware::PciDovImpl;
using Hardware::TarnRegFile::HardwareRegister;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;

constexpr off_t kWindowSize = 0x2000;
constexpr U32 kFarOffset = 0x1800;     // register "far": beyond the end once the file is cut to one page
constexpr U32 kOutsideOffset = 0x4000; // register "outside": beyond the mapping altogether

// Register numbers are word indices: the byte offset is four times the number.
constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "0,id,const,false,32\n"
    "1,bit0,sts,false,1\n"
    "2,byte,sts,false,8\n"
    "3,half,cfg,true,16\n"
    "4,almost,sts,false,31\n"
    "5,scratch,cfg,true,32\n"
    "1536,far,sts,false,32\n"
    "4096,outside,sts,false,32\n";

template <class F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (std::exception const& e) {
    return e.what();
  }
  return "(no exception)";
}

// A private directory with the register window file and its CSV map.
class PciTransport : public ::testing::Test {
protected:
  void SetUp() override {
    char dirTemplate[] = "/tmp/tarn-pcitransport-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirTemplate));
    dir_ = dirTemplate;
    window_ = dir_ + "/resource0";
    csv_ = dir_ + "/chip.csv";
    int const fd = open(window_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, kWindowSize));
    close(fd);
    std::ofstream(csv_) << kMap;
  }
  void TearDown() override {
    unlink(window_.c_str());
    unlink(csv_.c_str());
    rmdir(dir_.c_str());
  }

  // Register contents seen through the file, independently of the transport's mapping.
  void poke(U32 offset, U32 value) {
    int const fd = open(window_.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ssize_t(sizeof value), pwrite(fd, &value, sizeof value, offset));
    close(fd);
  }
  U32 peek(U32 offset) {
    U32 value = 0;
    int const fd = open(window_.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ssize_t(sizeof value), pread(fd, &value, sizeof value, offset));
    close(fd);
    return value;
  }
  void cutToOnePage() { ASSERT_EQ(0, truncate(window_.c_str(), 0x1000)); }

  Kiv::Ptr<PciDovImpl> dov(bool managesSigbus = false) { return Hardware::pciDovImplFactory(window_, managesSigbus); }

  std::string dir_;
  std::string window_;
  std::string csv_;
};

struct ErrorCounter : TransportMethodError::Notifiee {
  void onError() override { ++signals; }
  int signals = 0;
};

void quietDeathTestChild() {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  alarm(20);
}

TEST_F(PciTransport, ReadsKeepTheRegisterWidthWritesStoreTheWholeValue) {
  PciTransportMethodImpl pci(dov(), csv_.c_str(), nullptr);
  struct Case {
    char const* name;
    U32 offset;
    U32 expected;
  };
  for (Case const& c : {Case{"id", 0x00, 0xdeadbeef}, Case{"bit0", 0x04, 0x1}, Case{"byte", 0x08, 0xef},
                        Case{"half", 0x0c, 0xbeef}, Case{"almost", 0x10, 0x5eadbeef}}) {
    poke(c.offset, 0xdeadbeef);
    EXPECT_EQ(c.expected, pci.regRead(c.name)) << c.name;
  }

  pci.regWrite("half", 0x12345678);
  EXPECT_EQ(0x12345678u, peek(0x0c)) << "a write is not masked to the register's width";
  EXPECT_EQ(0x5678u, pci.regRead("half"));
  pci.regWrite("scratch", 0xa5a5f00d);
  EXPECT_EQ(0xa5a5f00du, peek(0x14));
  EXPECT_EQ(0xdeadbeefu, peek(0x10)) << "the neighbour is untouched";
  EXPECT_EQ(0xa5a5f00du, pci._regRWCommon(true, "scratch", 0xa5a5f00d)) << "a write returns the value written";
  EXPECT_EQ(0xa5a5f00du, pci._regRWCommon(false, "scratch", 0));
}

TEST_F(PciTransport, GuardsBusErrorsOnlyWhenTheAccessObjectDoesNot) {
  Kiv::SigbusGuard::autoHandlerInstallIs(true);
  PciTransportMethodImpl selfManaged(dov(true), csv_.c_str(), nullptr);
  EXPECT_FALSE(selfManaged.sigbusGuarded());
  EXPECT_TRUE(Kiv::SigbusGuard::autoHandlerInstall());

  PciTransportMethodImpl guarded(dov(false), csv_.c_str(), nullptr);
  EXPECT_TRUE(guarded.sigbusGuarded());
  EXPECT_TRUE(Kiv::SigbusGuard::initialized());
  EXPECT_FALSE(Kiv::SigbusGuard::autoHandlerInstall()) << "access objects must leave bus errors to the transport";
  EXPECT_FALSE(dov(true)->guardsPlainAccess());
  Kiv::SigbusGuard::autoHandlerInstallIs(true);
}

TEST_F(PciTransport, NotReadyWithGuardThrowsWithoutTouchingTheDevice) {
  auto d = dov(false);
  PciTransportMethodImpl pci(d, csv_.c_str(), nullptr);
  EXPECT_TRUE(pci.hardwareReady());
  poke(0x14, 0x11111111);
  d->readyIs(false);
  EXPECT_FALSE(pci.hardwareReady());

  Kiv::TraceCapture cap("TarnRegFile/PciTransportMethodImpl");
  EXPECT_THROW(pci.regRead("scratch"), Kiv::SigbusException);
  EXPECT_TRUE(cap.contains("Hardware not ready, throwing SIGBUS", 1));
  EXPECT_THROW(pci.regWrite("scratch", 0x22222222), Kiv::SigbusException);
  EXPECT_EQ(0x11111111u, peek(0x14)) << "nothing is stored";
  // A register outside the mapping would fail with out_of_range if it were loaded.
  EXPECT_EQ("Caught SIGBUS", errorOf([&] { pci.regRead("outside"); }));
  EXPECT_EQ(3u, cap.count("Hardware not ready, throwing SIGBUS"));
  EXPECT_THROW(pci.regRead("nonexistent"), std::runtime_error) << "the name is resolved first";

  d->readyIs(true);
  EXPECT_EQ(0x11111111u, pci.regRead("scratch"));
}

TEST_F(PciTransport, NotReadyWithoutGuardRaisesARealSigbus) {
  auto const readGoneDevice = [&] {
    quietDeathTestChild();
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
void countSigbus(int) { ++gSigbusSeen; }

TEST_F(PciTransport, NotReadyWithoutGuardGoesOnWhenTheProcessSurvivesTheSignal) {
  Kiv::SigbusGuard::autoHandlerInstallIs(true);
  auto d = dov(true);
  PciTransportMethodImpl pci(d, csv_.c_str(), nullptr);
  ASSERT_FALSE(pci.sigbusGuarded());
  poke(0x0c, 0xdeadbeef);
  d->readyIs(false);

  struct sigaction counting {}, previous{};
  counting.sa_handler = countSigbus;
  sigemptyset(&counting.sa_mask);
  ASSERT_EQ(0, sigaction(SIGBUS, &counting, &previous));
  gSigbusSeen = 0;
  Kiv::TraceCapture cap("TarnRegFile/PciTransportMethodImpl");
  U32 const value = pci.regRead("half");
  pci.regWrite("scratch", 0x600d);
  sigaction(SIGBUS, &previous, nullptr);

  EXPECT_EQ(2, gSigbusSeen);
  EXPECT_EQ(2u, cap.count("Hardware not ready, raising SIGBUS"));
  EXPECT_TRUE(cap.contains("Hardware not ready, raising SIGBUS", 1));
  EXPECT_EQ(0xbeefu, value) << "the access is made after the signal";
  EXPECT_EQ(0x600du, peek(0x14));
}

TEST_F(PciTransport, RegisterWiderThanItsAccessIsRefusedBeforeAnyAccess) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("wide");
  // Placed outside the mapping: an attempted access would throw out_of_range instead.
  model->registerIs({"wide", HardwareRegisterType::cfg, true, kOutsideOffset, 33, 32});
  model->registerIs({"narrow", HardwareRegisterType::cfg, true, 0x8, 12, 16});
  PciTransportMethodImpl pci(dov(), nullptr, model);
  EXPECT_EQ("Register wide size not supported!", errorOf([&] { pci.regRead("wide"); }));
  EXPECT_EQ("Register wide size not supported!", errorOf([&] { pci.regWrite("wide", 1); }));
  // The mask uses the access width: (16 - 12) % 32 = 4 bits cleared from the top.
  poke(0x8, 0xffffffff);
  EXPECT_EQ(0x0fffffffu, pci.regRead("narrow"));
}

TEST_F(PciTransport, BusErrorsBecomeFailedAccessesAndTheProcessLivesOn) {
  auto tm = TransportMethod::TransportMethodIs("pcichip");
  tm->init(PciTransportDescriptor::PciTransportDescriptorIs(dov(false)), Kiv::String(csv_));
  auto* pci = dynamic_cast<PciTransportMethodImpl*>(tm->implPtr());
  ASSERT_NE(nullptr, pci) << "the table's PCI row builds the PCI transport";
  ASSERT_TRUE(pci->sigbusGuarded());
  EXPECT_EQ(0x14u, tm->regNameToAddr("scratch"));
  EXPECT_EQ(Kiv::String("far"), tm->regAddrToName(kFarOffset));
  ErrorCounter counter;
  counter.notifierIs(tm->errorNotifier());

  poke(0x0, 0xdeadbeef);
  poke(kFarOffset, 0x12345678);
  Kiv::String const far("far");
  EXPECT_EQ(0x12345678u, tm->regRead(far));
  cutToOnePage();

  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(0xFFFFFFFFu, tm->regRead(far));
  EXPECT_TRUE(cap.contains("Got SIGBUS when performing operation on register 'far'", 0));
  EXPECT_EQ(1, counter.signals);
  EXPECT_TRUE(tm->errorNotifier()->error());

  constexpr int kFaults = 5000;
  Kiv::String const id("id");
  int goodReads = 0;
  for (int i = 0; i < kFaults; ++i) {
    tm->regWrite(far, U32(i));
    if (tm->regRead(far) != 0xFFFFFFFFu) break;
    goodReads += tm->regRead(id) == 0xdeadbeef;
  }
  EXPECT_EQ(1 + 2 * kFaults, counter.signals);
  EXPECT_EQ(kFaults, goodReads) << "the registers still mapped keep working between faults";
  EXPECT_EQ(size_t(1 + 2 * kFaults), cap.count("Got SIGBUS when performing operation on register 'far'"));
}

TEST_F(PciTransport, ChecksTheKindOfAccessObject) {
  struct OtherDov : Hardware::DovImpl {};
  Kiv::Ptr<Hardware::DovImpl> other(new OtherDov);
  EXPECT_EQ("PciDovImpl cast error!",
            errorOf([&] { PciTransportMethodImpl pci(other, csv_.c_str(), nullptr); }));
  auto tm = TransportMethod::TransportMethodIs("otherchip");
  EXPECT_EQ("PciDovImpl cast error!", errorOf([&] {
              tm->init(PciTransportDescriptor::PciTransportDescriptorIs(other), Kiv::String(csv_));
            }));
  EXPECT_EQ(nullptr, tm->implPtr());
}

TEST_F(PciTransport, WithoutAnAccessObjectNamesWorkAndAccessesFail) {
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
}

}  // namespace
