// The reconcile path, measured end to end.
//
//  - BM_FieldWriteToRegister: LogicalChip::fieldWrite on a ready chip with its LogicalWriteSm
//    and ShadowFieldsSm attached, through a TransportMethod over PCI on a mapped regular file:
//    the logical field, the desired shadow value, the register write and the applied shadow
//    value, including the always-on level-0 "Write field" ring record.
//  - BM_FieldWriteUnchanged: the same call with the value the field already holds.
//  - BM_HandleInitialized/65536: a new ShadowFieldsSm over a chip whose two collections hold
//    65,536 fields with equal images: both images rebuilt, every field re-recorded, no write.
//  - BM_SystemBringUp: 64 chips of 16,384 physical fields each (4,096 registers of 4 fields,
//    logical fields mapped one to one) published in a system status and brought up by a
//    SystemChipStatusSmBase whose hooks populate and mount each chip and build its PCI
//    transport: time to every chip's shadow state machine, process memory per field (anonymous
//    memory: the shared tables are counted apart, as shm_bytes_per_field).

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/LogicalChip.h"
#include "TarnRegFile/LogicalSms.h"
#include "TarnRegFile/ShadowSms.h"
#include "TarnRegFile/SystemChipStatusSm.h"
#include "TarnRegFile/SystemModels.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"

#include <benchmark/benchmark.h>

#include <algorithm>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
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

  std::string const& dir() const { return dir_; }
  Kiv::Ptr<Kiv::Shm::EntityManager> const& entityManager() const { return em_; }

  /// A transport built the way an agent builds one: a PCI descriptor and the CSV map.
  Kiv::Ptr<TransportMethod> transport(Kiv::String const& name = "chip0") const {
    auto tm = TransportMethod::TransportMethodIs(name);
    tm->init(pciTransportDescriptorFactory(Hardware::pciDovImplFactory(dir_ + "/resource0")),
             Kiv::String(dir_ + "/chip.csv"));
    return tm;
  }

  /// A ready chip whose registers hold four 8-bit fields f0..f3 each, shadow keys at the register addresses.
  Kiv::Ptr<LogicalChip> chip() const {
    auto chip = mountedChip("chip0");
    chip->readyIs(true);
    return chip;
  }

  /// The same chip, mounted but not ready, named @p name.
  Kiv::Ptr<LogicalChip> mountedChip(Kiv::String const& name) const {
    auto chip = LogicalChip::LogicalChipIs(name);
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
    chip->mountShadowFields(em_, Kiv::String("TarnRegFile/shadowFieldsConfig/" + name.str()),
                            Kiv::String("TarnRegFile/shadowFieldsStatus/" + name.str()));
    return chip;
  }

private:
  int registers_;
  std::string dir_;
  Kiv::Ptr<Kiv::Shm::EntityManager> em_;
};

/// A ready chip of 64 registers with both state machines, writing through PCI on a mapped file.
struct WritePath {
  Bench bench{64};
  Kiv::Ptr<LogicalChip> chip = bench.chip();
  Kiv::Ptr<TransportMethod> transport = bench.transport();
  Kiv::Ptr<LogicalWriteSm> writeSm = logicalWriteSmFactory(chip);
  Kiv::Ptr<ShadowFieldsSm> shadowSm =
      shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), transport, false);
  Kiv::String reg{"R17"};
  Kiv::String field{"f2"};
};

void BM_FieldWriteToRegister(benchmark::State& state) {
  WritePath path;
  U32 value = 0x5A;
  for (auto _ : state) {
    value ^= 0xFF;  // 0x5A and 0xA5 in turn: every write reaches the register
    path.chip->fieldWrite(path.reg, path.field, value);
  }
  if (path.transport->regRead("R17") != (value << 16)) state.SkipWithError("the register did not follow");
}
BENCHMARK(BM_FieldWriteToRegister);

void BM_FieldWriteUnchanged(benchmark::State& state) {
  WritePath path;
  path.chip->fieldWrite(path.reg, path.field, 0x5A);
  for (auto _ : state) path.chip->fieldWrite(path.reg, path.field, 0x5A);
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

/// An agent's chip-status state machine over the bench's chips.
class BenchAgent : public SystemChipStatusSmBase {
public:
  BenchAgent(Bench const& bench, Kiv::Ptr<PossibleSystemStatus> const& status, Kiv::Ptr<LogicalModel> const& logical,
             Kiv::Ptr<PhysicalModel> const& physical)
      : SystemChipStatusSmBase(bench.entityManager(), status, logical, physical), bench_(bench) {}
  Kiv::Ptr<LogicalChip> createLogicalChip(Kiv::String const& name) override { return bench_.mountedChip(name); }
  Kiv::Ptr<TransportMethod> createTransport(Kiv::String const& name) override { return bench_.transport(name); }

private:
  Bench const& bench_;
};

long statusKb(char const* field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::string(field).size()));
  return 0;
}

void BM_SystemBringUp(benchmark::State& state) {
  constexpr int kChips = 64;
  constexpr int kRegisters = 4096;
  double anonBytes = 0;
  double shmBytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto bench = std::make_unique<Bench>(kRegisters);
    auto const status = possibleSystemStatusFactory("bench");
    auto const logical = logicalModelFactory();
    auto const physical = physicalModelFactory();
    auto agent = Kiv::create<BenchAgent>(*bench, status, logical, physical);
    long const anonBefore = statusKb("RssAnon:");
    state.ResumeTiming();

    for (int c = 0; c < kChips; ++c) status->chipStatusIs(Kiv::String("chip" + std::to_string(c)));

    state.PauseTiming();
    if (physical->shadowSmEntries().size() != kChips) state.SkipWithError("not every chip came up");
    // The first bring-up counts: later ones reuse what the allocator kept from the one before.
    anonBytes = std::max(anonBytes, 1024.0 * static_cast<double>(statusKb("RssAnon:") - anonBefore));
    shmBytes = 0;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(bench->dir() + "/shm"))
      if (entry.is_regular_file()) shmBytes += static_cast<double>(entry.file_size());
    status->chipStatusDelAll();
    agent = nullptr;
    bench.reset();
    state.ResumeTiming();
  }
  double const fields = double(kChips) * kRegisters * kFieldsPerRegister;
  state.counters["bytes_per_field"] = anonBytes / fields;
  state.counters["shm_bytes_per_field"] = shmBytes / fields;
}
BENCHMARK(BM_SystemBringUp)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
