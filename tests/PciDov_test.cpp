// PciDovImpl over ordinary files: the mapping is a real shared mmap, so a second
// mapping of the same file sees every store, and truncating the file turns the
// cut-off part of the mapping into real bus errors.

#include "PciDov.h"
#include "SigbusGuard.h"
#include "Trace.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Hardware::PciDovImpl;

constexpr std::size_t kSize = 0x2000;

// A private temporary directory holding one register-window file of kSize bytes.
class RegisterWindowFile : public ::testing::Test {
protected:
  void SetUp() override {
    char dirTemplate[] = "/tmp/tarn-pcidov-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirTemplate));
    dir_ = dirTemplate;
    path_ = dir_ + "/resource0";
    int const fd = open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, off_t(kSize)));
    close(fd);
  }
  void TearDown() override {
    for (auto const& name : {"/resource0", "/empty"}) unlink((dir_ + name).c_str());
    rmdir(dir_.c_str());
  }
  void truncateTo(off_t size) { ASSERT_EQ(0, truncate(path_.c_str(), size)); }

  std::string dir_;
  std::string path_;
};

// A second, independent view of the same file.
class OtherMapping {
public:
  explicit OtherMapping(std::string const& path) {
    int const fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) std::abort();
    void* p = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) std::abort();
    base_ = static_cast<U32 volatile*>(p);
  }
  ~OtherMapping() { munmap(const_cast<U32*>(base_), kSize); }
  U32 volatile& at(std::size_t offset) { return base_[offset / 4]; }

private:
  U32 volatile* base_ = nullptr;
};

void deathTestChild() {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  alarm(20);
}

TEST_F(RegisterWindowFile, MapsTheFileAndDescribesItself) {
  Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_);
  EXPECT_TRUE(dov->ready());
  EXPECT_FALSE(dov->managesSigbus());
  EXPECT_FALSE(dov->guardsPlainAccess());
  EXPECT_EQ(kSize, dov->size());
  EXPECT_EQ(path_, dov->path());

  Kiv::Ptr<Hardware::DovImpl> generic = dov;
  EXPECT_STREQ("PciDovImpl", generic->kind());
  EXPECT_EQ(dov, Kiv::ptr_cast<PciDovImpl>(generic));
  generic->readyIs(false);
  EXPECT_FALSE(dov->ready());
  // Readiness is the owner's statement; the mapping itself stays usable.
  dov->write32(0, 1u);
  EXPECT_EQ(1u, dov->read32(0));
}

TEST_F(RegisterWindowFile, StoresAndLoadsAreSeenByAnotherMapping) {
  Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_);
  OtherMapping other(path_);

  dov->write32(0x10, 0x12345678u);
  EXPECT_EQ(0x12345678u, other.at(0x10));
  dov->guardedWrite32(kSize - 4, 0xdeadbeefu);
  EXPECT_EQ(0xdeadbeefu, other.at(kSize - 4));

  other.at(0x24) = 0x0badf00du;
  EXPECT_EQ(0x0badf00du, dov->read32(0x24));
  EXPECT_EQ(0x0badf00du, dov->guardedRead32(0x24));
  // Whole 32-bit words, nothing spills into the neighbours.
  EXPECT_EQ(0u, other.at(0x20));
  EXPECT_EQ(0u, other.at(0x28));
}

TEST_F(RegisterWindowFile, MisalignedOrOutsideOffsetsAreRefusedWithHexDetails) {
  Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_);
  struct Case {
    U32 offset;
    char const* expected;
  };
  Case const cases[] = {
      {1, "offset 0x1 is not 4-byte aligned (size 0x2000"},
      {0x1ffe, "offset 0x1ffe is not 4-byte aligned (size 0x2000"},
      {0x2000, "offset 0x2000 is outside the mapping (size 0x2000"},
      {0x2004, "offset 0x2004 is outside the mapping (size 0x2000"},
      {0xfffffffcu, "offset 0xfffffffc is outside the mapping (size 0x2000"},
      {0xffffffffu, "offset 0xffffffff is not 4-byte aligned (size 0x2000"},
  };
  auto expectRefused = [](auto&& access, char const* expected) {
    try {
      access();
      ADD_FAILURE() << "no exception for: " << expected;
    } catch (std::out_of_range const& e) {
      EXPECT_NE(std::string::npos, std::string(e.what()).find(expected)) << e.what();
    }
  };
  for (auto const& c : cases) {
    expectRefused([&] { (void)dov->read32(c.offset); }, c.expected);
    expectRefused([&] { dov->write32(c.offset, 0); }, c.expected);
    expectRefused([&] { (void)dov->guardedRead32(c.offset); }, c.expected);
    expectRefused([&] { dov->guardedWrite32(c.offset, 0); }, c.expected);
  }
  EXPECT_NO_THROW(dov->read32(kSize - 4));
}

TEST_F(RegisterWindowFile, FilesThatCannotBeMappedGiveClearErrors) {
  auto expectError = [](std::string const& path, std::string const& expected) {
    try {
      PciDovImpl dov(path);
      ADD_FAILURE() << "mapped " << path;
    } catch (std::runtime_error const& e) {
      EXPECT_NE(std::string::npos, std::string(e.what()).find(expected)) << e.what();
    }
  };
  expectError(dir_ + "/missing", "cannot open " + dir_ + "/missing: No such file or directory");
  expectError(dir_, "cannot open " + dir_ + ": Is a directory");
  int const fd = open((dir_ + "/empty").c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  expectError(dir_ + "/empty", dir_ + "/empty has no mappable size (0 bytes)");
  expectError("/dev/null", "/dev/null is not a regular file");
  expectError(std::string(Hardware::PciDovImpl::resourcePath("ffff:ff:1f.7", 5)),
              "cannot open /sys/bus/pci/devices/ffff:ff:1f.7/resource5");
}

TEST(PciDovResourcePath, AcceptsOnlyWellFormedAddressesAndBars) {
  EXPECT_EQ("/sys/bus/pci/devices/0000:00:04.0/resource0", PciDovImpl::resourcePath("0000:00:04.0", 0));
  EXPECT_EQ("/sys/bus/pci/devices/0000:0a:1f.7/resource5", PciDovImpl::resourcePath("0000:0A:1F.7", 5));
  EXPECT_EQ("/sys/bus/pci/devices/10000:e1:00.3/resource2", PciDovImpl::resourcePath("10000:e1:00.3", 2));

  char const* const badAddresses[] = {
      "",           "0000:00:04",     "000:00:04.0",  "000000:00:04.0", "0000:00:20.0", "0000:00:04.8",
      "0000-00-04.0", "0000:00:04.0 ", " 0000:00:04.0", "g000:00:04.0", "0000:0:004.0", "../../../etc",
      "0000:00:04.0/../../..", "..:..:...", "0000:00:04.0\n",
  };
  for (char const* address : badAddresses) {
    try {
      (void)PciDovImpl::resourcePath(address, 0);
      ADD_FAILURE() << "accepted '" << address << "'";
    } catch (std::invalid_argument const& e) {
      EXPECT_NE(std::string::npos, std::string(e.what()).find("invalid PCI address '" + std::string(address) + "'"));
    }
  }
  for (int bar : {-1, 6, 100}) {
    try {
      (void)PciDovImpl::resourcePath("0000:00:04.0", bar);
      ADD_FAILURE() << "accepted BAR " << bar;
    } catch (std::invalid_argument const& e) {
      EXPECT_NE(std::string::npos, std::string(e.what()).find("invalid BAR index " + std::to_string(bar)));
    }
  }
  EXPECT_THROW(Hardware::pciDovImplFactory("0000:00:04.0/..", 0), std::invalid_argument);
}

TEST_F(RegisterWindowFile, GuardedAccessToAVanishedRegionThrowsSigbusException) {
  Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_);
  truncateTo(0x1000);
  EXPECT_THROW(dov->guardedRead32(0x1000), Kiv::SigbusException);
  EXPECT_THROW(dov->guardedWrite32(0x1ffc, 5u), Kiv::SigbusException);
  dov->guardedWrite32(0xffc, 6u);
  EXPECT_EQ(6u, dov->guardedRead32(0xffc));
}

TEST_F(RegisterWindowFile, SelfManagingObjectReportsFaultsInsteadOfDying) {
  ASSERT_TRUE(Kiv::SigbusGuard::autoHandlerInstall());
  Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_, true);
  EXPECT_TRUE(dov->managesSigbus());
  EXPECT_TRUE(dov->guardsPlainAccess());
  EXPECT_TRUE(Kiv::SigbusGuard::initialized());
  dov->write32(0x1004, 0x11112222u);
  EXPECT_FALSE(dov->lastAccessFaulted());
  truncateTo(0x1000);

  Kiv::TraceCapture capture("Hardware/PciDov");
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(0xffffffffu, dov->read32(0x1004));
    EXPECT_TRUE(dov->lastAccessFaulted());
    dov->write32(0x0, U32(i));
    EXPECT_FALSE(dov->lastAccessFaulted());
    dov->write32(0x1008, 1u);
    EXPECT_TRUE(dov->lastAccessFaulted());
    EXPECT_EQ(U32(i), dov->read32(0x0));
    EXPECT_FALSE(dov->lastAccessFaulted());
  }
  EXPECT_TRUE(capture.contains("SIGBUS on read at offset 0x1004 of " + path_, 0));
  EXPECT_TRUE(capture.contains("SIGBUS on write at offset 0x1008 of " + path_, 0));
  // The guarded accessors keep their contract on a self-managing object too.
  EXPECT_THROW(dov->guardedRead32(0x1004), Kiv::SigbusException);
}

TEST_F(RegisterWindowFile, PlainAccessOfAnObjectThatDoesNotGuardItselfIsNotCaught) {
  // Without self-management, and for a self-managing object created while the
  // process-wide switch is off, a bus error on a plain access is not swallowed:
  // it takes the process down as it would without the guard.
  auto const plainFault = [this](bool managesSigbus, bool autoInstall) {
    deathTestChild();
    truncateTo(off_t(kSize));  // an earlier child shrank the shared file
    Kiv::SigbusGuard::autoHandlerInstallIs(autoInstall);
    Kiv::Ptr<PciDovImpl> dov = Hardware::pciDovImplFactory(path_, managesSigbus);
    if (dov->guardsPlainAccess()) std::exit(3);
    truncateTo(0x1000);
    (void)dov->read32(0x1000);
    std::exit(4);
  };
#if defined(__SANITIZE_ADDRESS__)
  // AddressSanitizer's SIGBUS handler reports the fault and exits.
  EXPECT_EXIT(plainFault(false, true), ::testing::ExitedWithCode(1), "AddressSanitizer.*BUS");
  EXPECT_EXIT(plainFault(true, false), ::testing::ExitedWithCode(1), "AddressSanitizer.*BUS");
#else
  EXPECT_EXIT(plainFault(false, true), ::testing::KilledBySignal(SIGBUS), "");
  EXPECT_EXIT(plainFault(true, false), ::testing::KilledBySignal(SIGBUS), "");
#endif
}

}  // namespace
