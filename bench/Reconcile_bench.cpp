// The reconcile path, measured end to end.
//
//  - BM_FieldWriteToRegister: LogicalChip::fieldWrite on a ready chip with its LogicalWriteSm
//    and ShadowFieldsSm attached, through a TransportMethod over PCI on a mapped regular file:
//    the logical field, the desired shadow value, the register write and the applied shadow
//    value, including the always-on level-0 "Write field" ring record.
//  - BM_FieldWriteUnchanged: the same call with the value the field already holds.
//  - BM_HandleInitialized/65536: a new ShadowFieldsSm over a chip whose two collections hold
//    65,536 fields with equal images: both images rebuilt, every field re-recorded, no write.

#include "PciDov.h"
#include "ShmEntityManager.h"
#include "TarnRegFile/LogicalChip.h"
#include "TarnRegFile/LogicalSms.h"
#include "TarnRegFile/ShadowSms.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

using namespace TarnRegFile;

constexpr int kFieldsPerRegister = 4;

/// A directory with a register window file and its map of @p registers 32-bit registers R<n>,
/// and a private shared-memory root.
class Bench {
public:
  explicit Bench(int registers) : registers_(registers) {
    char pattern[] = "/dev/shm/tarn-bench-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    std::ofstream map(dir_ + "/chip.csv");
    map << "number,name,type,writeable,width\n";
    for (int r = 0; r < registers; ++r) map << r << ",R" << r << ",cfg,true,32\n";
    map.close();
    std::ofstream(dir_ + "/resource0").close();
    std::filesystem::resize_file(dir_ + "/resource0", 4u * static_cast<unsigned>(registers));
    em_ = Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(dir_ + "/shm"));
  }
  ~Bench() {
    em_ = nullptr;
    std::filesystem::remove_all(dir_);
  }

  /// A transport built the way an agent builds one: a PCI descriptor and the CSV map.
  Kiv::Ptr<TransportMethod> transport() const {
    auto tm = TransportMethod::TransportMethodIs("chip0");
    tm->init(pciTransportDescriptorFactory(Hardware::pciDovImplFactory(dir_ + "/resource0")),
             Kiv::String(dir_ + "/chip.csv"));
    return tm;
  }

  /// A ready chip whose registers hold four 8-bit fields f0..f3 each, shadow keys at the register addresses.
  Kiv::Ptr<LogicalChip> chip() const {
    auto chip = LogicalChip::LogicalChipIs("chip0");
    for (int r = 0; r < registers_; ++r) {
      Kiv::String const reg("R" + std::to_string(r));
      for (int f = 0; f < kFieldsPerRegister; ++f) {
        Kiv::String const field("f" + std::to_string(f));
        chip->physicalFieldCountIs(static_cast<U32>(4 * r));
        chip->populatePhysicalField(reg, field, static_cast<U8>(8 * f), 8);
        chip->populateLogicalField(reg, field, static_cast<U8>(8 * f), 8, 0);
        chip->translationIs()->populate(reg, field, reg, field);
      }
    }
    chip->physicalFieldCountIs(static_cast<U32>(4 * registers_));
    chip->mountShadowFields(em_, "TarnRegFile/shadowFieldsConfig/chip0", "TarnRegFile/shadowFieldsStatus/chip0");
    chip->readyIs(true);
    return chip;
  }

private:
  int registers_;
  std::string dir_;
  Kiv::Ptr<Kiv::Shm::EntityManager> em_;
};

void BM_FieldWriteToRegister(benchmark::State& state) {
  Bench bench(64);
  auto const chip = bench.chip();
  auto const transport = bench.transport();
  auto const writeSm = logicalWriteSmFactory(chip);
  auto const shadowSm = shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), transport, false);
  Kiv::String const reg("R17");
  Kiv::String const field("f2");
  U32 value = 0x5A;
  for (auto _ : state) {
    value ^= 0xFF;  // 0x5A and 0xA5 in turn: every write reaches the register
    chip->fieldWrite(reg, field, value);
  }
  if (transport->regRead("R17") != (value << 16)) state.SkipWithError("the register did not follow");
}
BENCHMARK(BM_FieldWriteToRegister);

void BM_FieldWriteUnchanged(benchmark::State& state) {
  Bench bench(64);
  auto const chip = bench.chip();
  auto const transport = bench.transport();
  auto const writeSm = logicalWriteSmFactory(chip);
  auto const shadowSm = shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), transport, false);
  Kiv::String const reg("R17");
  Kiv::String const field("f2");
  chip->fieldWrite(reg, field, 0x5A);
  for (auto _ : state) chip->fieldWrite(reg, field, 0x5A);
}
BENCHMARK(BM_FieldWriteUnchanged);

void BM_HandleInitialized(benchmark::State& state) {
  int const fields = static_cast<int>(state.range(0));
  Bench bench(fields / kFieldsPerRegister);
  auto const chip = bench.chip();
  auto const transport = bench.transport();
  // Desired and applied agree: one machine applies everything once, then each new one finds nothing to do.
  for (auto const& [name, physical] : chip->physicalFieldEntries())
    chip->shadowFieldsConfig()->fieldIs(ShadowFieldValue(physical.key, physical.key.address & 0xFF));
  shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), transport, false);
  for (auto _ : state) {
    auto sm = shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), transport, false);
    benchmark::DoNotOptimize(sm.ptr());
  }
  state.counters["fields"] = fields;
}
BENCHMARK(BM_HandleInitialized)->Arg(65536)->Unit(benchmark::kMillisecond);

}  // namespace
