// PciDovImpl against a real PCI device: QEMU's "edu" device (vendor 0x1234,
// device 0x11e8), whose BAR 0 is a 1 MiB register window. Offset 0 is an
// identification register reading 0x010000ed; offset 4 returns the bitwise
// inverse of the last value written to it.

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "VmTestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr U32 kIdentification = 0x010000edu;
constexpr U32 kIdentificationOffset = 0x0;
constexpr U32 kLivenessOffset = 0x4;

class EduDevice : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    address_ = TarnVm::findPciDevice(0x1234, 0x11e8);
    ASSERT_FALSE(address_.empty()) << "no edu PCI device (QEMU -device edu)";
  }
  std::string address_;
};

TEST_F(EduDevice, IdentificationRegisterReadsThroughPlainAndGuardedAccess) {
  Kiv::Ptr<Hardware::PciDovImpl> dov = Hardware::pciDovImplFactory(address_, 0);
  EXPECT_EQ("/sys/bus/pci/devices/" + address_ + "/resource0", dov->path());
  EXPECT_EQ(0x100000u, dov->size()) << "sysfs reports the BAR size";
  EXPECT_TRUE(dov->ready());
  EXPECT_EQ(kIdentification, dov->read32(kIdentificationOffset));
  EXPECT_EQ(kIdentification, dov->guardedRead32(kIdentificationOffset));
}

TEST_F(EduDevice, LivenessRegisterReturnsTheInverseOfTheLastWrite) {
  Kiv::Ptr<Hardware::PciDovImpl> dov = Hardware::pciDovImplFactory(address_, 0);
  for (U32 value : {0x0u, 0x12345678u, 0xffffffffu, 0xa5a5a5a5u, 0x80000001u}) {
    dov->write32(kLivenessOffset, value);
    EXPECT_EQ(~value, dov->read32(kLivenessOffset)) << std::hex << value;
    dov->guardedWrite32(kLivenessOffset, value ^ 0x0f0f0f0fu);
    EXPECT_EQ(~(value ^ 0x0f0f0f0fu), dov->guardedRead32(kLivenessOffset)) << std::hex << value;
  }
  // The register lives in the device, not in the mapping: a second mapping sees it.
  Kiv::Ptr<Hardware::PciDovImpl> other = Hardware::pciDovImplFactory(dov->path());
  dov->write32(kLivenessOffset, 0x00ff00ffu);
  EXPECT_EQ(0xff00ff00u, other->read32(kLivenessOffset));
}

TEST_F(EduDevice, SelfManagingObjectAccessesTheDeviceWithoutFaults) {
  Kiv::Ptr<Hardware::PciDovImpl> dov = Hardware::pciDovImplFactory(address_, 0, true);
  EXPECT_TRUE(dov->guardsPlainAccess());
  EXPECT_EQ(kIdentification, dov->read32(kIdentificationOffset));
  EXPECT_FALSE(dov->lastAccessFaulted());
  dov->write32(kLivenessOffset, 0x13572468u);
  EXPECT_FALSE(dov->lastAccessFaulted());
  EXPECT_EQ(~0x13572468u, dov->read32(kLivenessOffset));
}

TEST_F(EduDevice, AccessBeyondTheBarIsRefused) {
  Kiv::Ptr<Hardware::PciDovImpl> dov = Hardware::pciDovImplFactory(address_, 0);
  EXPECT_THROW(dov->read32(0x100000), std::out_of_range);
  EXPECT_THROW(dov->guardedWrite32(0x2, 0), std::out_of_range);
  EXPECT_NO_THROW(dov->read32(0xffffc));
}

}  // namespace
