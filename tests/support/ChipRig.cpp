#include "support/ChipRig.h"

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/ShadowSms.h"
#include "TarnRegFile/ShadowTypes.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <numeric>
#include <stdexcept>

namespace TarnTest {

using namespace TarnRegFile;

CountingPciTransport::CountingPciTransport(std::string const& window, std::string const& csv)
    : BaseTransportMethodImpl(csv.c_str(), 4, nullptr), pci_(Hardware::pciDovImplFactory(window), csv.c_str(), nullptr) {}

void CountingPciTransport::regWrite(char const* regName, uint32_t value) {
  ++writes[regName];
  pci_.regWrite(regName, value);
}

int CountingPciTransport::totalWrites() const {
  return std::accumulate(writes.begin(), writes.end(), 0, [](int n, auto const& kv) { return n + kv.second; });
}

ChipRig::ChipRig(int registers, std::string const& chipName) : chipName_(chipName), registers_(registers) {
  if (registers < 1 || registers > 1024) throw std::invalid_argument("ChipRig: 1 to 1024 registers");
  char pattern[] = "/tmp/tarn-chiprig.XXXXXX";
  if (!::mkdtemp(pattern)) throw std::runtime_error("ChipRig: mkdtemp failed");
  dir_ = pattern;
  window_ = dir_ + "/resource0";
  csv_ = dir_ + "/chip.csv";
  std::ofstream map(csv_);
  map << "number,name,type,writeable,width\n";
  for (int r = 0; r < registers; ++r) map << r << ",R" << r << ",cfg,true,32\n";
  map.close();
  std::ofstream(window_).close();
  std::filesystem::resize_file(window_, 4096);
}

ChipRig::~ChipRig() { std::filesystem::remove_all(dir_); }

Kiv::Ptr<Kiv::Shm::EntityManager> ChipRig::entityManager() const {
  return Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(shmRoot()));
}

Kiv::Ptr<LogicalChip> ChipRig::mountedChip(Kiv::Ptr<Kiv::Shm::EntityManager> const& em) const {
  auto chip = LogicalChip::LogicalChipIs(Kiv::String(chipName_));
  for (int r = 0; r < registers_; ++r) {
    Kiv::String const reg("R" + std::to_string(r));
    for (int f = 0; f < kFieldsPerRegister; ++f) {
      Kiv::String const field("f" + std::to_string(f));
      chip->physicalFieldCountIs(static_cast<U32>(4 * r));  // the shadow address is the register's
      chip->populatePhysicalField(reg, field, static_cast<U8>(8 * f), 8);
      chip->populateLogicalField(reg, field, static_cast<U8>(8 * f), 8, 0);
      chip->translationIs()->populate(reg, field, reg, field);
    }
  }
  chip->physicalFieldCountIs(static_cast<U32>(4 * registers_));
  chip->mountShadowFields(em, Kiv::String(configPath()), Kiv::String(statusPath()));
  return chip;
}

Kiv::Ptr<TransportMethod> ChipRig::transport(CountingPciTransport** counter) const {
  auto transport = TransportMethod::TransportMethodIs(Kiv::String(chipName_));
  auto* impl = new CountingPciTransport(window_, csv_);
  transport->implPtrIs(impl);
  if (counter) *counter = impl;
  return transport;
}

uint32_t ChipRig::fileRegister(int index) const {
  uint32_t value = 0;
  int const fd = ::open(window_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || ::pread(fd, &value, 4, 4 * index) != 4) throw std::runtime_error("ChipRig: cannot read the window");
  ::close(fd);
  return value;
}

void ChipRig::fileRegisterIs(int index, uint32_t value) const {
  int const fd = ::open(window_.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0 || ::pwrite(fd, &value, 4, 4 * index) != 4) throw std::runtime_error("ChipRig: cannot write the window");
  ::close(fd);
}

ShadowFieldKey ChipRig::key(int index, int field) {
  return ShadowFieldKey(static_cast<U32>(4 * index), static_cast<U8>(8 * field), 8);
}

std::vector<uint32_t> ChipRig::images(std::string const& path) const {
  std::vector<uint32_t> out(static_cast<size_t>(registers_), 0);
  for (ShadowFieldValue const& v : ShadowFields::readShadowTable(Kiv::Shm::Root(shmRoot()), path)) {
    auto& image = out.at(v.key.address / 4);
    U8 bytes[4] = {U8(image), U8(image >> 8), U8(image >> 16), U8(image >> 24)};
    bitStreamSet(bytes, v.key.start, v.key.size, v.value);
    image = U32(bytes[0]) | U32(bytes[1]) << 8 | U32(bytes[2]) << 16 | U32(bytes[3]) << 24;
  }
  return out;
}

}  // namespace TarnTest
