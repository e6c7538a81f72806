#pragma once
// A chip on a test bench: a private shared-memory root, a regular file standing in for the
// chip's PCI register window, its CSV map, a logical chip described over it and a transport
// that counts the register writes it passes on to the mapped file.
//
// The chip has `registers` 32-bit registers R0, R1, ... at byte addresses 0, 4, 8, ... each
// split into four 8-bit physical fields f0..f3, mapped one to one from logical fields of the
// same names. Shadow keys carry the register's byte address, as a chip describer sets them.

#include "TarnRegFile/LogicalChip.h"
#include "TarnRegFile/PciTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include "TarnRegFile/platform/ShmEntityManager.h"

#include <map>
#include <string>
#include <vector>

namespace TarnTest {

/// The PCI transport over the window file, counting the writes it passes on per register name.
class CountingPciTransport : public TarnRegFile::BaseTransportMethodImpl {
public:
  CountingPciTransport(std::string const& window, std::string const& csv);
  uint32_t regRead(char const* regName) override { return pci_.regRead(regName); }
  void regWrite(char const* regName, uint32_t value) override;
  std::map<std::string, int> writes;
  int totalWrites() const;

private:
  TarnRegFile::PciTransportMethodImpl pci_;
};

class ChipRig {
public:
  static constexpr int kFieldsPerRegister = 4;

  /// Creates the directory, the zero-filled window file and the map; @p registers at most 1024.
  explicit ChipRig(int registers = 16, std::string const& chipName = "chip0");
  ~ChipRig();
  ChipRig(ChipRig const&) = delete;
  ChipRig& operator=(ChipRig const&) = delete;

  std::string const& chipName() const { return chipName_; }
  int registers() const { return registers_; }
  std::string const& dir() const { return dir_; }
  std::string const& windowPath() const { return window_; }
  std::string const& csvPath() const { return csv_; }
  std::string shmRoot() const { return dir_ + "/shm"; }
  std::string configPath() const { return "TarnRegFile/shadowFieldsConfig/" + chipName_; }
  std::string statusPath() const { return "TarnRegFile/shadowFieldsStatus/" + chipName_; }

  /// A new entity manager on the private root (writers of what it mounts).
  Kiv::Ptr<Kiv::Shm::EntityManager> entityManager() const;
  /// A populated, mounted chip (not ready), with every initial logical value 0.
  Kiv::Ptr<TarnRegFile::LogicalChip> mountedChip(Kiv::Ptr<Kiv::Shm::EntityManager> const& em) const;
  /// A transport named after the chip over the window file; @p counter receives its implementation.
  Kiv::Ptr<TarnRegFile::TransportMethod> transport(CountingPciTransport** counter = nullptr) const;

  /// The register's value in the window file, read past any mapping.
  uint32_t fileRegister(int index) const;
  void fileRegisterIs(int index, uint32_t value) const;
  /// The shadow key of field @p field of register @p index.
  static TarnRegFile::ShadowFieldKey key(int index, int field);
  /// The register images assembled from every entry of the shared table at @p path.
  std::vector<uint32_t> images(std::string const& path) const;

private:
  std::string chipName_;
  int registers_;
  std::string dir_;
  std::string window_;
  std::string csv_;
};

}  // namespace TarnTest
