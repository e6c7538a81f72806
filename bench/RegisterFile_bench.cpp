// Loading large CSV register maps and looking registers up in them.
//
// The "time_per_register" counter of the load benchmarks is the time to load one
// register (line parsing plus both map insertions); the time of one iteration
// of the lookup benchmarks is the time of one lookup, over names and addresses
// picked at random beforehand from a 100,000-register map.

#include "TarnRegFile/RegisterFile.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr U8 kBlockSize = 4;
constexpr U32 kLoadRegisters = 1'000'000;
constexpr U32 kLookupRegisters = 100'000;
constexpr size_t kLookupSamples = 1u << 17;  // more than the map holds, so lookups do not stay in cache

// Register names of the lengths real maps use (short ones and ones past the small-string buffer).
std::string registerName(U32 index) {
  static char const* const prefixes[] = {"scratch", "intr_status", "ctl", "rx_crc_err_cnt", "led", "sfp_tx_disable"};
  return fmt::format("{}_{}", prefixes[index % 6], index);
}

std::string makeCsv(U32 count) {
  static char const* const types[] = {"reserved", "const", "cfg", "sts", "counter", "ctl"};
  std::string csv = "number,name,type,writeable,width\n";
  csv.reserve(size_t(count) * 40);
  for (U32 i = 0; i < count; ++i)
    fmt::format_to(std::back_inserter(csv), "{},{},{},{},{}\n", i, registerName(i), types[i % 6],
                   i % 3 ? "true" : "false", 1 + i % 32);
  return csv;
}

std::string const& loadCsv() {
  static std::string const csv = makeCsv(kLoadRegisters);
  return csv;
}

void reportPerRegister(benchmark::State& state, U32 registers) {
  state.SetItemsProcessed(int64_t(state.iterations()) * registers);
  // Inverted rate: seconds per register, printed with an SI prefix (e.g. "312n" is 312 ns).
  state.counters["time_per_register"] =
      benchmark::Counter(registers, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Freeing millions of map nodes is not part of loading, and neither is the allocator
// merging those free chunks, which it would otherwise do inside the next load's
// first large allocation; trimming here leaves each load a heap like a fresh process's.
void releaseMap(std::unique_ptr<TarnRegFile::RegisterFile>& file) {
  file.reset();
  malloc_trim(0);
}

void BM_LoadFromStringStream(benchmark::State& state) {
  std::string const& csv = loadCsv();
  for (auto _ : state) {
    std::istringstream in(csv);
    auto file = std::make_unique<TarnRegFile::RegisterFile>(in, kBlockSize);
    if (file->size() != kLoadRegisters) state.SkipWithError("wrong register count");
    state.PauseTiming();
    releaseMap(file);
    state.ResumeTiming();
  }
  reportPerRegister(state, kLoadRegisters);
}
BENCHMARK(BM_LoadFromStringStream)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_LoadFromFile(benchmark::State& state) {
  char path[] = "/tmp/tarn_regfile_bench_XXXXXX";
  int const fd = mkstemp(path);
  if (fd < 0) {
    state.SkipWithError("cannot create a temporary file");
    return;
  }
  std::string const& csv = loadCsv();
  bool const written = write(fd, csv.data(), csv.size()) == ssize_t(csv.size());
  close(fd);
  if (!written) state.SkipWithError("cannot write the temporary file");
  for (auto _ : state) {
    if (!written) break;
    auto file = std::make_unique<TarnRegFile::RegisterFile>(path, kBlockSize);
    if (file->size() != kLoadRegisters) state.SkipWithError("wrong register count");
    state.PauseTiming();
    releaseMap(file);
    state.ResumeTiming();
  }
  unlink(path);
  reportPerRegister(state, kLoadRegisters);
}
BENCHMARK(BM_LoadFromFile)->Unit(benchmark::kMillisecond)->MinTime(2.0);

TarnRegFile::RegisterFile const& lookupFile() {
  static TarnRegFile::RegisterFile const file = [] {
    std::istringstream in(makeCsv(kLookupRegisters));
    return TarnRegFile::RegisterFile(in, kBlockSize);
  }();
  return file;
}

// Register indices the lookups choose from: @p count of them, spread over the whole map.
std::vector<U32> workingSet(std::mt19937& random, U32 count) {
  std::vector<U32> all(kLookupRegisters);
  for (U32 i = 0; i < kLookupRegisters; ++i) all[i] = i;
  std::shuffle(all.begin(), all.end(), random);
  all.resize(count);
  return all;
}

// state.range(0): how many distinct registers the lookups visit. The whole map gives
// the cold case (every lookup waits for memory); a small working set is what an
// agent polling the same few registers sees.
void BM_FindRegisterByName(benchmark::State& state) {
  auto const& file = lookupFile();
  std::mt19937 random(42);
  std::vector<U32> const set = workingSet(random, U32(state.range(0)));
  std::uniform_int_distribution<size_t> pick(0, set.size() - 1);
  // The query names lie one after the other in one buffer, as they are read: fetching
  // the next query streams from memory instead of chasing a pointer per name, so
  // the figure is the lookup's own.
  std::string text;
  std::vector<U32> queries(kLookupSamples);
  for (auto& offset : queries) {
    offset = U32(text.size());
    text += registerName(set[pick(random)]);
    text += '\0';
  }
  size_t i = 0;
  for (auto _ : state) {
    auto const reg = file.findRegisterByName(text.data() + queries[i++ & (kLookupSamples - 1)]);
    benchmark::DoNotOptimize(reg.number);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FindRegisterByName)->Arg(kLookupRegisters)->Arg(1000);

void BM_FindRegNameByAddr(benchmark::State& state) {
  auto const& file = lookupFile();
  std::mt19937 random(43);
  std::vector<U32> const set = workingSet(random, U32(state.range(0)));
  std::uniform_int_distribution<size_t> pick(0, set.size() - 1);
  std::vector<U32> addresses(kLookupSamples);
  for (auto& address : addresses) address = set[pick(random)] * kBlockSize;
  size_t i = 0;
  for (auto _ : state) {
    std::string name = file.findRegNameByAddr(addresses[i++ & (kLookupSamples - 1)]);
    benchmark::DoNotOptimize(name.data());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FindRegNameByAddr)->Arg(kLookupRegisters)->Arg(1000);

}  // namespace
