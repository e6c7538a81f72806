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
#include "TarnRegFile/ShadowSms.h"
#include "TarnRegFile/ShadowTypes.h"
#include "TarnRegFile/TransportMethod.h"

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/ShmEntityManager.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace TarnTest {

/// The PCI transport over the window file, counting the writes it passes on per register name.
class CountingPciTransport : public TarnRegFile::BaseTransportMethodImpl {
public:
  CountingPciTransport(std::string const& window, std::string const& csv)
      : BaseTransportMethodImpl(csv.c_str(), 4, nullptr), pci_(Hardware::pciDovImplFactory(window), csv.c_str(), nullptr) {}
  uint32_t regRead(char const* regName) override { return pci_.regRead(regName); }
  void regWrite(char const* regName, uint32_t value) override {
    ++writes[regName];
    pci_.regWrite(regName, value);
  }
  std::map<std::string, int> writes;

private:
  TarnRegFile::PciTransportMethodImpl pci_;
};

class ChipRig {
public:
  static constexpr int kFieldsPerRegister = 4;

  /// Creates the directory, the zero-filled window file and the map; @p registers at most 1024.
  explicit ChipRig(int registers = 16, std::string const& chipName = "chip0") : chipName_(chipName), registers_(registers) {
    if (registers < 1 || registers > 1024) throw std::invalid_argument("ChipRig: 1 to 1024 registers");
    char pattern[] = "/tmp/tarn-chiprig.XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("ChipRig: mkdtemp failed");
    dir_ = pattern;
    std::ofstream map(csvPath());
    map << "number,name,type,writeable,width\n";
    for (int r = 0; r < registers; ++r) map << r << ",R" << r << ",cfg,true,32\n";
    std::ofstream(windowPath()).close();
    std::filesystem::resize_file(windowPath(), 4096);
  }
  ~ChipRig() { std::filesystem::remove_all(dir_); }
  ChipRig(ChipRig const&) = delete;
  ChipRig& operator=(ChipRig const&) = delete;

  int registers() const { return registers_; }
  std::string const& dir() const { return dir_; }
  std::string windowPath() const { return dir_ + "/resource0"; }
  std::string csvPath() const { return dir_ + "/chip.csv"; }
  std::string shmRoot() const { return dir_ + "/shm"; }
  std::string configPath(std::string const& chip = {}) const { return "TarnRegFile/shadowFieldsConfig/" + name(chip); }
  std::string statusPath(std::string const& chip = {}) const { return "TarnRegFile/shadowFieldsStatus/" + name(chip); }

  /// A new entity manager on the private root (writers of what it mounts).
  Kiv::Ptr<Kiv::Shm::EntityManager> entityManager() const {
    return Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(shmRoot()));
  }
  /// A populated, mounted chip (not ready) named @p chip (default: the rig's), with every
  /// logical field's initial value @p initial.
  Kiv::Ptr<TarnRegFile::LogicalChip> mountedChip(Kiv::Ptr<Kiv::Shm::EntityManager> const& em,
                                                 std::string const& chip = {}, U32 initial = 0) const {
    auto lChip = TarnRegFile::LogicalChip::LogicalChipIs(Kiv::String(name(chip)));
    for (int r = 0; r < registers_; ++r) {
      Kiv::String const reg("R" + std::to_string(r));
      for (int f = 0; f < kFieldsPerRegister; ++f) {
        Kiv::String const field("f" + std::to_string(f));
        lChip->physicalFieldCountIs(static_cast<U32>(4 * r));  // the shadow address is the register's
        lChip->populatePhysicalField(reg, field, static_cast<U8>(8 * f), 8);
        lChip->populateLogicalField(reg, field, static_cast<U8>(8 * f), 8, initial);
        lChip->translationIs()->populate(reg, field, reg, field);
      }
    }
    lChip->physicalFieldCountIs(static_cast<U32>(4 * registers_));
    lChip->mountShadowFields(em, Kiv::String(configPath(chip)), Kiv::String(statusPath(chip)));
    return lChip;
  }
  /// A transport named @p chip (default: the rig's chip) over the window file; @p counter
  /// receives its implementation.
  Kiv::Ptr<TarnRegFile::TransportMethod> transport(CountingPciTransport** counter = nullptr,
                                                   std::string const& chip = {}) const {
    auto transport = TarnRegFile::TransportMethod::TransportMethodIs(Kiv::String(name(chip)));
    auto* impl = new CountingPciTransport(windowPath(), csvPath());
    transport->implPtrIs(impl);
    if (counter) *counter = impl;
    return transport;
  }

  /// The register's value in the window file, read past any mapping.
  uint32_t fileRegister(int index) const {
    uint32_t value = 0;
    std::ifstream window(windowPath(), std::ios::binary);
    if (!window.seekg(4 * index).read(reinterpret_cast<char*>(&value), 4))
      throw std::runtime_error("ChipRig: cannot read the window");
    return value;
  }
  void fileRegisterIs(int index, uint32_t value) const {
    std::fstream window(windowPath(), std::ios::in | std::ios::out | std::ios::binary);
    if (!window.seekp(4 * index).write(reinterpret_cast<char const*>(&value), 4).flush())
      throw std::runtime_error("ChipRig: cannot write the window");
  }
  /// The shadow key of field @p field of register @p index.
  static TarnRegFile::ShadowFieldKey key(int index, int field) {
    return TarnRegFile::ShadowFieldKey(static_cast<U32>(4 * index), static_cast<U8>(8 * field), 8);
  }
  /// @p image with the field (@p start, @p len) set to @p value, as the shadow state machine merges it.
  static U32 merged(U32 image, U16 start, U8 len, U64 value) {
    U8 bytes[4] = {U8(image), U8(image >> 8), U8(image >> 16), U8(image >> 24)};
    TarnRegFile::bitStreamSet(bytes, start, len, value);
    return U32(bytes[0]) | U32(bytes[1]) << 8 | U32(bytes[2]) << 16 | U32(bytes[3]) << 24;
  }
  /// The register images assembled from every entry of the shared table at @p path.
  std::vector<uint32_t> images(std::string const& path) const {
    std::vector<uint32_t> out(static_cast<size_t>(registers_), 0);
    for (auto const& v : TarnRegFile::ShadowFields::readShadowTable(Kiv::Shm::Root(shmRoot()), path))
      out.at(v.key.address / 4) = merged(out.at(v.key.address / 4), v.key.start, v.key.size, v.value);
    return out;
  }

private:
  std::string name(std::string const& chip) const { return chip.empty() ? chipName_ : chip; }

  std::string chipName_;
  int registers_;
  std::string dir_;
};

}  // namespace TarnTest
