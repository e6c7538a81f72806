// The PCI transport against a real PCI device, QEMU's "edu" device, through
// TransportMethod as agents use it. Offset 0 of its BAR 0 is an identification
// register reading 0x010000ed; offset 4 returns the bitwise inverse of the last
// value written to it.

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/Trace.h"
#include "VmTestSupport.h"

#include "TarnRegFile/PciTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include <unistd.h>

namespace {

using namespace TarnRegFile;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;

constexpr U32 kIdentification = 0x010000edu;

// Register numbers are 32-bit word indices (block size 4).
constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "0,ident,const,false,32\n"
    "1,liveness,cfg,true,32\n";

class PciTransportVm : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    std::string const address = TarnVm::findPciDevice(0x1234, 0x11e8);
    ASSERT_FALSE(address.empty()) << "no edu PCI device (QEMU -device edu)";
    resource_ = Hardware::PciDovImpl::resourcePath(address, 0);
    csv_ = "/tmp/pci-transport-" + std::to_string(getpid()) + ".csv";
    std::ofstream(csv_) << kMap;
  }
  void TearDown() override {
    if (!csv_.empty()) unlink(csv_.c_str());
  }

  Kiv::Ptr<TransportMethod> transport(TransportMethodRegFile const& regFile, bool managesSigbus) {
    auto tm = TransportMethod::TransportMethodIs("edu");
    tm->fullInit(PciTransportDescriptor::PciTransportDescriptorIs(
                     Hardware::pciDovImplFactory(resource_, managesSigbus)),
                 regFile);
    auto* pci = dynamic_cast<PciTransportMethodImpl*>(tm->implPtr());
    EXPECT_NE(nullptr, pci);
    if (pci) {
      EXPECT_EQ(!managesSigbus, pci->sigbusGuarded());
    }
    return tm;
  }

  std::string resource_;
  std::string csv_;
};

TEST_F(PciTransportVm, ReadsTheIdentificationAndInvertsWritesWithAndWithoutTheGuard) {
  for (bool managesSigbus : {false, true}) {
    auto tm = transport(TransportMethodRegFile(Kiv::String(csv_)), managesSigbus);
    EXPECT_EQ(0x0u, tm->regNameToAddr("ident"));
    EXPECT_EQ(0x4u, tm->regNameToAddr("liveness"));
    EXPECT_EQ(kIdentification, tm->regRead("ident"));
    for (U32 value : {0x0u, 0x12345678u, 0xffffffffu, 0x80000001u}) {
      tm->regWrite("liveness", value);
      EXPECT_EQ(~value, tm->regRead("liveness")) << std::hex << value << " managesSigbus " << managesSigbus;
    }
    EXPECT_FALSE(tm->errorNotifier()->error());
  }
}

TEST_F(PciTransportVm, NarrowRegistersOfAModelAreMaskedOnReadOnlyAndOnesBeyondTheBarFail) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("edu");
  model->registerIs({"ident16", HardwareRegisterType::constant, false, 0x0, 16, 32});
  model->registerIs({"liveness8", HardwareRegisterType::cfg, true, 0x4, 8, 32});
  model->registerIs({"beyond", HardwareRegisterType::sts, false, 0x100000, 32, 32});  // BAR 0 is 1 MiB
  auto tm = transport(TransportMethodRegFile(Kiv::String(), model), false);
  EXPECT_EQ(0x00edu, tm->regRead("ident16"));
  // The write reaches the device whole: the inverse of all 32 bits comes back, cut to 8 on read.
  tm->regWrite("liveness8", 0x123456a5);
  EXPECT_EQ(0x5au, tm->regRead("liveness8"));
  auto raw = Hardware::pciDovImplFactory(resource_);
  EXPECT_EQ(~0x123456a5u, raw->read32(0x4));
  // A map that does not fit the BAR: a failed access, not an exception.
  EXPECT_EQ(0xFFFFFFFFu, tm->regRead("beyond"));
  EXPECT_EQ(TransportErrorKind::OutOfRange, tm->errorNotifier()->lastFailure().kind);
}

TEST_F(PciTransportVm, ADeviceMarkedGoneFailsAccessesWithoutTouchingIt) {
  auto tm = TransportMethod::TransportMethodIs("edu");
  auto dov = Hardware::pciDovImplFactory(resource_);
  tm->init(PciTransportDescriptor::PciTransportDescriptorIs(dov), Kiv::String(csv_));
  tm->regWrite("liveness", 0x11111111);
  dov->readyIs(false);
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(0xFFFFFFFFu, tm->regRead("ident"));
  tm->regWrite("liveness", 0x22222222);
  EXPECT_EQ(2u, cap.count("Got SIGBUS when performing operation on register"));
  EXPECT_TRUE(tm->errorNotifier()->error());
  dov->readyIs(true);
  EXPECT_EQ(~0x11111111u, tm->regRead("liveness")) << "the refused write never reached the device";
}

}  // namespace
