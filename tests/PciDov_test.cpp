// PciDovImpl over ordinary files: the mapping is a real shared mmap, so a second
// mapping of the same file sees every store, and truncating the file turns the
// cut-off part of the mapping into real bus errors.

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "TarnRegFile/platform/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using Hardware::PciDovImpl;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr std::size_t kSize = 0x2000;

// A private temporary directory holding one register-window file of kSize bytes.
class RegisterWindowFile : public ::testing::Test {
protected:
  void SetUp() override {
    char dirTemplate[] = "/tmp/tarn-pcidov-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirTemplate));
    dir_ = dirTemplate;
    path_ = dir_ + "/resource0";
    std::ofstream{path_};
    truncateTo(off_t(kSize));
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  void truncateTo(off_t size) { ASSERT_EQ(0, truncate(path_.c_str(), size)); }

  std::string dir_;
  std::string path_;
};

TEST_F(RegisterWindowFile, StoresAndLoadsAreSeenByAnotherMappingWhetherReadyOrNot) {
  Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_);
  EXPECT_TRUE(dov->ready());
  int const fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  void* const p = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  ASSERT_NE(p, MAP_FAILED);
  U32 volatile* const other = static_cast<U32 volatile*>(p);

  dov->write32(0x10, 0x12345678u);
  EXPECT_EQ(0x12345678u, other[0x10 / 4]);
  dov->guardedWrite32(kSize - 4, 0xdeadbeefu);
  EXPECT_EQ(0xdeadbeefu, other[(kSize - 4) / 4]);
  other[0x24 / 4] = 0x0badf00du;
  EXPECT_EQ(0x0badf00du, dov->read32(0x24));
  EXPECT_EQ(0x0badf00du, dov->guardedRead32(0x24));
  EXPECT_EQ(0u, other[0x20 / 4]);  // whole 32-bit words, nothing spills into the neighbours
  EXPECT_EQ(0u, other[0x28 / 4]);
  // Readiness is the owner's statement about the device; the mapping stays usable.
  dov->readyIs(false);
  dov->write32(0, 1u);
  EXPECT_EQ(1u, other[0]);
  munmap(p, kSize);
}

TEST_F(RegisterWindowFile, MisalignedOrOutsideOffsetsAreRefusedWithHexDetails) {
  Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_);
  std::pair<U32, char const*> const cases[] = {
      {1, "offset 0x1 is not 4-byte aligned (size 0x2000"},
      {0x1ffe, "offset 0x1ffe is not 4-byte aligned (size 0x2000"},
      {0x2000, "offset 0x2000 is outside the mapping (size 0x2000"},
      {0xfffffffcu, "offset 0xfffffffc is outside the mapping (size 0x2000"},
      {0xffffffffu, "offset 0xffffffff is not 4-byte aligned (size 0x2000"},
  };
  for (auto const& [offset, expected] : cases) {
    EXPECT_THAT([&] { (void)dov->read32(offset); }, ThrowsMessage<std::out_of_range>(HasSubstr(expected)));
    EXPECT_THAT([&] { dov->write32(offset, 0); }, ThrowsMessage<std::out_of_range>(HasSubstr(expected)));
    EXPECT_THAT([&] { (void)dov->guardedRead32(offset); }, ThrowsMessage<std::out_of_range>(HasSubstr(expected)));
    EXPECT_THAT([&] { dov->guardedWrite32(offset, 0); }, ThrowsMessage<std::out_of_range>(HasSubstr(expected)));
  }
}

TEST_F(RegisterWindowFile, FilesThatCannotBeMappedGiveClearErrors) {
  std::ofstream{dir_ + "/empty"};
  std::pair<std::string, std::string> const cases[] = {
      {dir_ + "/missing", "cannot open " + dir_ + "/missing: No such file or directory"},
      {dir_, "cannot open " + dir_ + ": Is a directory"},
      {dir_ + "/empty", dir_ + "/empty has no mappable size (0 bytes)"},
      {"/dev/null", "/dev/null is not a regular file"},
      {PciDovImpl::resourcePath("ffff:ff:1f.7", 5), "cannot open /sys/bus/pci/devices/ffff:ff:1f.7/resource5"},
  };
  for (auto const& [path, expected] : cases)
    EXPECT_THAT([&] { PciDovImpl dov(path); }, ThrowsMessage<std::runtime_error>(HasSubstr(expected)));
}

TEST(PciDovResourcePath, AcceptsOnlyWellFormedAddressesAndBars) {
  EXPECT_EQ("/sys/bus/pci/devices/0000:00:04.0/resource0", PciDovImpl::resourcePath("0000:00:04.0", 0));
  EXPECT_EQ("/sys/bus/pci/devices/0000:0a:1f.7/resource5", PciDovImpl::resourcePath("0000:0A:1F.7", 5));
  EXPECT_EQ("/sys/bus/pci/devices/10000:e1:00.3/resource2", PciDovImpl::resourcePath("10000:e1:00.3", 2));
  for (std::string const address :
       {"", "0000:00:04", "000:00:04.0", "000000:00:04.0", "0000:00:20.0", "0000:00:04.8", "0000-00-04.0",
        "0000:00:04.0 ", " 0000:00:04.0", "g000:00:04.0", "0000:0:004.0", "../../../etc", "0000:00:04.0/../../..",
        "..:..:...", "0000:00:04.0\n"})
    EXPECT_THAT([&] { PciDovImpl::resourcePath(address, 0); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("invalid PCI address '" + address + "'")));
  for (int bar : {-1, 6})
    EXPECT_THAT([&] { PciDovImpl::resourcePath("0000:00:04.0", bar); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("invalid BAR index " + std::to_string(bar))));
  EXPECT_THROW(Hardware::pciDovImplFactory("0000:00:04.0/..", 0), std::invalid_argument);
}

TEST_F(RegisterWindowFile, BusErrorsThrowFromGuardedAccessesAndAreReportedByASelfManagingObject) {
  ASSERT_TRUE(Kiv::SigbusGuard::autoHandlerInstall());
  Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_);
  Kiv::Ptr<PciDovImpl> own = Hardware::pciDovImplFactory(path_, true);
  EXPECT_FALSE(dov->guardsPlainAccess());
  EXPECT_TRUE(own->guardsPlainAccess());
  truncateTo(0x1000);
  EXPECT_THROW(dov->guardedRead32(0x1000), Kiv::SigbusException);
  EXPECT_THROW(dov->guardedWrite32(0x1ffc, 5u), Kiv::SigbusException);
  EXPECT_THROW(own->guardedRead32(0x1004), Kiv::SigbusException);

  Kiv::TraceCapture capture("Hardware/PciDov");
  for (U32 i = 0; i < 3; ++i) {
    EXPECT_EQ(0xffffffffu, own->read32(0x1004));  // what a read from a missing device gives
    EXPECT_TRUE(own->lastAccessFaulted());
    own->write32(0xffc, i);
    EXPECT_FALSE(own->lastAccessFaulted());
    own->write32(0x1008, 1u);
    EXPECT_TRUE(own->lastAccessFaulted());
    EXPECT_EQ(i, dov->guardedRead32(0xffc));
  }
  EXPECT_TRUE(capture.contains("SIGBUS on read at offset 0x1004 of " + path_, 0));
  EXPECT_TRUE(capture.contains("SIGBUS on write at offset 0x1008 of " + path_, 0));
}

TEST_F(RegisterWindowFile, PlainAccessOfAnObjectThatDoesNotGuardItselfIsNotCaught) {
  // Without self-management, and for a self-managing object created while the
  // process-wide switch is off, a bus error on a plain access is not swallowed:
  // it takes the process down as it would without the guard.
  auto const plainFault = [this](bool managesSigbus) {
    struct rlimit none = {0, 0};  // no core file
    setrlimit(RLIMIT_CORE, &none);
    alarm(20);  // a fault that keeps returning ends the child instead of spinning
    truncateTo(off_t(kSize));  // an earlier child shrank the shared file
    Kiv::SigbusGuard::autoHandlerInstallIs(!managesSigbus);
    Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_, managesSigbus);
    truncateTo(dov->guardsPlainAccess() ? off_t(kSize) : 0x1000);
    (void)dov->read32(0x1000);
    std::exit(4);
  };
  for (bool const managesSigbus : {false, true})
#if defined(__SANITIZE_ADDRESS__)  // AddressSanitizer's SIGBUS handler reports the fault and exits
    EXPECT_EXIT(plainFault(managesSigbus), ::testing::ExitedWithCode(1), "AddressSanitizer.*BUS");
#else
    EXPECT_EXIT(plainFault(managesSigbus), ::testing::KilledBySignal(SIGBUS), "");
#endif
}

}  // namespace
