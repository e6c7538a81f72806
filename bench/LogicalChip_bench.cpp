// Cost of the logical chip's per-field entry points on a ready chip with no observer
// attached: a field write that changes the value, one that writes the value the field
// already holds (it still records the level-0 "Write field" line in the trace ring), and
// reading a field back. Each call looks the register and the field up by name.

#include "TarnRegFile/LogicalChip.h"

#include <benchmark/benchmark.h>

#include <string>

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

}  // namespace
