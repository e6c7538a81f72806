// The logical chip's two costs:
//  - its per-field entry points on a ready chip with no observer attached: a field write that
//    changes the value, one that writes the value the field already holds (it still records the
//    level-0 "Write field" line in the trace ring), and reading a field back; each call looks the
//    register and the field up by name;
//  - describing a chip of 16,384 fields (physical field, logical field and translation pair
//    per field, as a chip-creation hook does): time and process memory per field.

#include "TarnRegFile/LogicalChip.h"

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using TarnRegFile::LogicalChip;

// A chip of realistic size: 64 registers of 4 fields each, names as agents write them.
Kiv::Ptr<LogicalChip> populatedChip() {
  auto chip = LogicalChip::LogicalChipIs("switchChip0");
  for (int r = 0; r < 64; ++r) {
    Kiv::String const reg("portControl" + std::to_string(r));
    for (int f = 0; f < 4; ++f) {
      Kiv::String const field("laneEnable" + std::to_string(f));
      chip->populatePhysicalField(reg, field, static_cast<U8>(f * 8), 8);
      chip->populateLogicalField(reg, field, static_cast<U8>(f * 8), 8, 0);
      chip->translationIs()->populate(reg, field, reg, field);
    }
  }
  chip->readyIs(true);
  return chip;
}

void BM_FieldWrite(benchmark::State& state) {
  auto chip = populatedChip();
  Kiv::String const reg("portControl17");
  Kiv::String const field("laneEnable2");
  U32 value = 0x5A;
  for (auto _ : state) {
    value ^= 0xFF;  // alternate 0x5A / 0xA5: every write is a real change
    chip->fieldWrite(reg, field, value);
  }
  benchmark::DoNotOptimize(chip->fieldGetLastWritten(reg, field));
}
BENCHMARK(BM_FieldWrite);

void BM_FieldWriteUnchanged(benchmark::State& state) {
  auto chip = populatedChip();
  Kiv::String const reg("portControl17");
  Kiv::String const field("laneEnable2");
  chip->fieldWrite(reg, field, 0x5A);
  for (auto _ : state) chip->fieldWrite(reg, field, 0x5A);
}
BENCHMARK(BM_FieldWriteUnchanged);

void BM_FieldGetLastWritten(benchmark::State& state) {
  auto chip = populatedChip();
  Kiv::String const reg("portControl17");
  Kiv::String const field("laneEnable2");
  for (auto _ : state) benchmark::DoNotOptimize(chip->fieldGetLastWritten(reg, field));
}
BENCHMARK(BM_FieldGetLastWritten);

// ---- describing chips

constexpr int kDescribedRegisters = 4096;
constexpr int kDescribedFieldsPerRegister = 4;
constexpr int kDescribedFields = kDescribedRegisters * kDescribedFieldsPerRegister;

/// Resident set size in bytes, from /proc/self/statm.
long residentBytes() {
  long pages = 0;
  long resident = 0;
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f) return -1;
  int const read = std::fscanf(f, "%ld %ld", &pages, &resident);
  std::fclose(f);
  return read == 2 ? resident * ::sysconf(_SC_PAGESIZE) : -1;
}

/// Bytes the allocator has handed out and not taken back.
long heapBytes() {
  struct mallinfo2 const m = mallinfo2();
  return static_cast<long>(m.uordblks + m.hblkhd);
}

/// One chip as a chip-creation hook describes it: registers "portControlRegister<r>" of four 8-bit
/// fields "laneEnableField<f>", each physical field at the register's address, each logical field
/// of the same name mapped onto it.
Kiv::Ptr<LogicalChip> describedChip(std::string const& name) {
  auto chip = LogicalChip::LogicalChipIs(Kiv::String(name));
  std::vector<Kiv::String> fields;
  for (int f = 0; f < kDescribedFieldsPerRegister; ++f) fields.emplace_back("laneEnableField" + std::to_string(f));
  for (int r = 0; r < kDescribedRegisters; ++r) {
    Kiv::String const reg("portControlRegister" + std::to_string(r));
    for (int f = 0; f < kDescribedFieldsPerRegister; ++f) {
      chip->physicalFieldCountIs(static_cast<U32>(4 * r));
      chip->populatePhysicalField(reg, fields[f], static_cast<U8>(8 * f), 8);
      chip->populateLogicalField(reg, fields[f], static_cast<U8>(8 * f), 8, 0);
      chip->translationIs()->populate(reg, fields[f], reg, fields[f]);
    }
  }
  return chip;
}

/// Describes state.range(0) chips per iteration and keeps them until the iteration ends, so
/// that the resident set grows by what they hold. Freed memory is trimmed between iterations:
/// each iteration starts from a heap that gives nothing back for free.
void BM_DescribeChips(benchmark::State& state) {
  int const chips = static_cast<int>(state.range(0));
  double residentGrowth = 0;
  double heapGrowth = 0;
  for (auto _ : state) {
    state.PauseTiming();
    malloc_trim(0);
    long const resident0 = residentBytes();
    long const heap0 = heapBytes();
    std::vector<Kiv::Ptr<LogicalChip>> described;
    described.reserve(static_cast<size_t>(chips));
    state.ResumeTiming();
    for (int c = 0; c < chips; ++c) described.push_back(describedChip("switchChip" + std::to_string(c)));
    state.PauseTiming();
    residentGrowth += static_cast<double>(residentBytes() - resident0);
    heapGrowth += static_cast<double>(heapBytes() - heap0);
    described.clear();
    state.ResumeTiming();
  }
  double const fields = static_cast<double>(state.iterations()) * chips * kDescribedFields;
  // Inverted rate: seconds per field, printed with an SI prefix (e.g. "250n" is 250 ns).
  state.counters["time_per_field"] = benchmark::Counter(
      chips * kDescribedFields, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["rss_bytes_per_field"] = residentGrowth / fields;
  state.counters["heap_bytes_per_field"] = heapGrowth / fields;
}
BENCHMARK(BM_DescribeChips)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond);

}  // namespace
