// The PCI transport against a real PCI device, QEMU's "edu" device, through
// TransportMethod as agents use it. Offset 0 of its BAR 0 is an identification
// register reading 0x010000ed; offset 4 returns the bitwise inverse of the last
// value written to it.

#include "TarnRegFile/platform/PciDov.h"
#include "VmTestSupport.h"

#include "TarnRegFile/PciTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace TarnRegFile;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;

constexpr U32 kIdentification = 0x010000edu;

class PciTransportVm : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    std::string const address = TarnVm::findPciDevice(0x1234, 0x11e8);
    ASSERT_FALSE(address.empty()) << "no edu PCI device (QEMU -device edu)";
    resource_ = Hardware::PciDovImpl::resourcePath(address, 0);
    model_->registerIs({"ident", HardwareRegisterType::constant, false, 0x0, 32, 32});
    model_->registerIs({"liveness", HardwareRegisterType::cfg, true, 0x4, 32, 32});
    model_->registerIs({"beyond", HardwareRegisterType::sts, false, 0x100000, 32, 32});  // BAR 0 is 1 MiB
  }

  // A transport over @p dov with the edu registers.
  Kiv::Ptr<TransportMethod> transport(Kiv::Ptr<Hardware::PciDovImpl> const& dov) {
    auto tm = TransportMethod::TransportMethodIs("edu");
    tm->fullInit(PciTransportDescriptor::PciTransportDescriptorIs(dov), TransportMethodRegFile("", model_));
    return tm;
  }

  std::string resource_;
  Kiv::Ptr<HardwareRegisterFile> model_ = HardwareRegisterFile::HardwareRegisterFileIs("edu");
};

// The mapping takes the BAR's size from its resource file: a map that does not fit the BAR
// gives a failed access, not an exception. (Read masks and a device marked gone are decided
// before or after the one load or store; their tests run on a mapped file.)
TEST_F(PciTransportVm, ReadsTheIdentificationInvertsWritesAndFailsBeyondTheBarWithAndWithoutTheGuard) {
  for (bool managesSigbus : {false, true}) {
    auto tm = transport(Hardware::pciDovImplFactory(resource_, managesSigbus));
    EXPECT_EQ(!managesSigbus, dynamic_cast<PciTransportMethodImpl&>(*tm->implPtr()).sigbusGuarded());
    EXPECT_EQ(kIdentification, tm->regRead("ident"));
    for (U32 value : {0x0u, 0x12345678u, 0xffffffffu, 0x80000001u}) {
      tm->regWrite("liveness", value);
      EXPECT_EQ(~value, tm->regRead("liveness")) << std::hex << value << " managesSigbus " << managesSigbus;
    }
    EXPECT_FALSE(tm->errorNotifier()->error());
    EXPECT_EQ(0xFFFFFFFFu, tm->regRead("beyond"));
    EXPECT_EQ(TransportErrorKind::OutOfRange, tm->errorNotifier()->lastFailure().kind);
  }
}

}  // namespace
