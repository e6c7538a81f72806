// Loading register maps and looking registers up in them, beside two flat hash maps and
// the machine's cost of one dependent cache miss.
//
// Peers: boost::unordered_flat_map and absl::flat_hash_map holding the same names as
// std::string keys with the register's index as value, and the addresses likewise
// (address -> index, the name then found through the index). Loading is compared with
// Python's csv.DictReader filling two dicts from the same file (run once as a
// subprocess; its time per register and our ratio to it are counters of the file load).
//
// Counters: "time_per_register" of a load is the time to load one register;
// "misses" of a lookup is its time over the cost of one dependent cache miss,
// measured by a pointer chase over as many bytes as our index holds;
// "bytes_per_register" of a memory benchmark is the growth of the process's resident
// memory per register of a 1,000,000-register map, the names' characters not counted.

#include "TarnRegFile/RegisterFile.h"

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <boost/unordered/unordered_flat_map.hpp>
#include <fmt/format.h>

#include <malloc.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using TarnRegFile::RegisterFile;

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

// The 1,000,000-register map as a file, written once per run and removed at exit.
std::string const& loadFile() {
  static std::string const path = [] {
    char pattern[] = "/tmp/tarn_regfile_bench_XXXXXX";
    int const fd = mkstemp(pattern);
    std::string const csv = makeCsv(kLoadRegisters);
    bool const written = fd >= 0 && write(fd, csv.data(), csv.size()) == ssize_t(csv.size());
    if (fd >= 0) close(fd);
    static std::string const kept = pattern;
    std::atexit([] { unlink(kept.c_str()); });
    return written ? std::string(pattern) : std::string();
  }();
  return path;
}

// Seconds Python's csv.DictReader takes to fill a name dict and an address dict from @p path
// (keeping the first of a duplicated name or address, as the loader does); < 0 if it cannot run.
double pythonSeconds(std::string const& path) {
  static double const seconds = [&] {
    std::string const command =
        "python3 -c '\n"
        "import csv, sys, time\n"
        "t = time.perf_counter()\n"
        "by_name, by_address = {}, {}\n"
        "with open(sys.argv[1], newline=\"\") as f:\n"
        "    for row in csv.DictReader(f):\n"
        "        by_name.setdefault(row[\"name\"], row)\n"
        "        by_address.setdefault(int(row[\"number\"]) * 4, row[\"name\"])\n"
        "print(time.perf_counter() - t, len(by_name))\n"
        "' " + path;
    FILE* const p = popen(command.c_str(), "r");
    if (p == nullptr) return -1.0;
    double s = -1.0;
    unsigned long n = 0;
    if (std::fscanf(p, "%lf %lu", &s, &n) != 2 || n != kLoadRegisters) s = -1.0;
    pclose(p);
    return s;
  }();
  return seconds;
}

// This thread's CPU time in nanoseconds: what the figures compare (the machine is shared, and
// wall time would count the time other processes ran).
double cpuNanoseconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

void reportPerRegister(benchmark::State& state, U32 registers) {
  state.SetItemsProcessed(int64_t(state.iterations()) * registers);
  // Inverted rate: seconds per register, printed with an SI prefix (e.g. "312n" is 312 ns).
  state.counters["time_per_register"] =
      benchmark::Counter(registers, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Freeing a large map is not part of loading; trimming leaves each load a heap like a fresh process's.
void release(std::unique_ptr<RegisterFile>& file) {
  file.reset();
  malloc_trim(0);
}

void BM_LoadFromFile(benchmark::State& state) {
  std::string const& path = loadFile();
  if (path.empty()) return state.SkipWithError("cannot write the map file");
  double const start = cpuNanoseconds();
  for (auto _ : state) {
    auto file = std::make_unique<RegisterFile>(path.c_str(), kBlockSize);
    if (file->size() != kLoadRegisters) state.SkipWithError("wrong register count");
    state.PauseTiming();
    release(file);
    state.ResumeTiming();
  }
  double const ours = (cpuNanoseconds() - start) / 1e9 / double(state.iterations()) / kLoadRegisters;
  reportPerRegister(state, kLoadRegisters);
  double const python = pythonSeconds(path) / kLoadRegisters;
  if (python > 0) {
    state.counters["python_ns_per_register"] = python * 1e9;
    // CPU time of ours, release included (so the ratio is if anything in Python's favour),
    // against Python's wall time of the same work (it runs alone in its process).
    state.counters["python_over_ours"] = python / ours;
  }
}
BENCHMARK(BM_LoadFromFile)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_LoadFromStringStream(benchmark::State& state) {
  static std::string const csv = makeCsv(kLoadRegisters);
  for (auto _ : state) {
    std::istringstream in(csv);
    auto file = std::make_unique<RegisterFile>(in, kBlockSize);
    if (file->size() != kLoadRegisters) state.SkipWithError("wrong register count");
    state.PauseTiming();
    release(file);
    state.ResumeTiming();
  }
  reportPerRegister(state, kLoadRegisters);
}
BENCHMARK(BM_LoadFromStringStream)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// ---------------------------------------------------------------- the peers

// Names as std::string keys with the register's index as value, addresses likewise; the
// name of an address is the key its index leads to. Filled in file order, first wins.
template <template <class...> class Map>
struct Peer {
  Map<std::string, U32> byName;
  Map<U32, U32> byAddress;
  std::vector<std::string const*> keyOf;

  explicit Peer(U32 count) {
    byName.reserve(count);
    byAddress.reserve(count);
    for (U32 i = 0; i < count; ++i) {
      byName.emplace(registerName(i), i);
      byAddress.emplace(i * kBlockSize, i);
    }
    keyOf.resize(count);
    for (auto const& [name, index] : byName) keyOf[index] = &name;
  }
  U32 findByName(char const* name) const {
    // Heterogeneous lookup, through absl's own string view for absl's map.
    using View = std::conditional_t<std::is_same_v<Map<int, int>, absl::flat_hash_map<int, int>>, absl::string_view,
                                    std::string_view>;
    auto const it = byName.find(View(name));
    if (it == byName.end()) throw std::runtime_error("missing");
    return it->second;
  }
  char const* nameAt(U32 address) const {
    auto const it = byAddress.find(address);
    if (it == byAddress.end()) throw std::runtime_error("missing");
    return keyOf[it->second]->c_str();
  }
};

struct StringHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept { return boost::hash<std::string_view>()(s); }
};
template <class K, class V>
using BoostMap = std::conditional_t<std::is_same_v<K, std::string>,
                                    boost::unordered_flat_map<K, V, StringHash, std::equal_to<>>,
                                    boost::unordered_flat_map<K, V>>;
template <class K, class V>
using AbslMap = absl::flat_hash_map<K, V>;

RegisterFile const& ours() {
  static RegisterFile const file = [] {
    std::istringstream in(makeCsv(kLookupRegisters));
    return RegisterFile(in, kBlockSize);
  }();
  return file;
}
template <template <class...> class Map>
Peer<Map> const& peer() {
  static Peer<Map> const p(kLookupRegisters);
  return p;
}

// The cost of one dependent cache miss: a walk through a random cycle of cache lines
// spread over as many bytes as our 100,000-register index holds.
double missNanoseconds() {
  static double const ns = [] {
    size_t const lines = std::max<size_t>(ours().index().bytes() / 64, 2);
    struct alignas(64) Line {
      Line const* next;
    };
    std::vector<Line> memory(lines);
    std::vector<size_t> order(lines);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin() + 1, order.end(), std::mt19937(7));
    for (size_t i = 0; i < lines; ++i) memory[order[i]].next = &memory[order[(i + 1) % lines]];
    Line const* p = &memory[0];
    constexpr size_t kHops = 4'000'000;
    double best = 1e9;
    for (int round = 0; round < 3; ++round) {  // the best of three: the machine is shared
      double const start = cpuNanoseconds();
      for (size_t i = 0; i < kHops; ++i) p = p->next;
      benchmark::DoNotOptimize(p);
      best = std::min(best, (cpuNanoseconds() - start) / kHops);
    }
    return best;
  }();
  return ns;
}

void BM_DependentMiss(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(missNanoseconds());
  state.counters["miss_ns"] = missNanoseconds();
  state.counters["index_bytes"] = double(ours().index().bytes());
}
BENCHMARK(BM_DependentMiss)->Iterations(1);

// Register indices the lookups choose from: @p count of them, spread over the whole map.
std::vector<U32> workingSet(U32 count, unsigned seed) {
  std::vector<U32> all(kLookupRegisters);
  std::iota(all.begin(), all.end(), 0);
  std::shuffle(all.begin(), all.end(), std::mt19937(seed));
  all.resize(count);
  return all;
}

// Runs @p lookup(i) over the samples and reports its cost in dependent misses.
template <class Lookup>
void timeLookups(benchmark::State& state, Lookup&& lookup) {
  size_t i = 0;
  double const start = cpuNanoseconds();
  for (auto _ : state) lookup(i++ & (kLookupSamples - 1));
  double const ns = (cpuNanoseconds() - start) / double(state.iterations());
  state.counters["misses"] = ns / missNanoseconds();
  state.SetItemsProcessed(state.iterations());
}

// state.range(0): how many distinct registers the lookups visit. The whole map gives the
// cold case (every lookup waits for memory); 1,000 is an agent polling the same registers.
// The query names lie one after the other in one buffer, as they are read: fetching the
// next query streams from memory instead of chasing a pointer per name.
struct NameQueries {
  std::string text;
  std::vector<U32> offsets;
  explicit NameQueries(U32 distinct) : offsets(kLookupSamples) {
    std::vector<U32> const set = workingSet(distinct, 42);
    std::mt19937 random(42);
    std::uniform_int_distribution<size_t> pick(0, set.size() - 1);
    for (auto& offset : offsets) {
      offset = U32(text.size());
      text += registerName(set[pick(random)]);
      text += '\0';
    }
  }
  char const* operator[](size_t i) const { return text.data() + offsets[i]; }
};

std::vector<U32> addressQueries(U32 distinct) {
  std::vector<U32> const set = workingSet(distinct, 43);
  std::mt19937 random(43);
  std::uniform_int_distribution<size_t> pick(0, set.size() - 1);
  std::vector<U32> out(kLookupSamples);
  for (auto& address : out) address = set[pick(random)] * kBlockSize;
  return out;
}

void BM_FindRegisterByName(benchmark::State& state) {
  auto const& file = ours();
  NameQueries const q(U32(state.range(0)));
  timeLookups(state, [&](size_t i) { benchmark::DoNotOptimize(file.findRegisterByName(q[i]).number); });
}
template <template <class...> class Map>
void BM_PeerFindByName(benchmark::State& state) {
  auto const& p = peer<Map>();
  NameQueries const q(U32(state.range(0)));
  timeLookups(state, [&](size_t i) { benchmark::DoNotOptimize(p.findByName(q[i])); });
}
BENCHMARK(BM_FindRegisterByName)->Arg(kLookupRegisters)->Arg(1000);
BENCHMARK(BM_PeerFindByName<BoostMap>)->Name("BM_FindByName/boost_flat")->Arg(kLookupRegisters)->Arg(1000);
BENCHMARK(BM_PeerFindByName<AbslMap>)->Name("BM_FindByName/absl_flat")->Arg(kLookupRegisters)->Arg(1000);

// findRegNameByAddr returns the name as a new std::string; nameAt returns the map's own
// characters. The peers' answer is the key's characters (no copy), as nameAt's.
void BM_FindRegNameByAddr(benchmark::State& state) {
  auto const& file = ours();
  auto const q = addressQueries(U32(state.range(0)));
  timeLookups(state, [&](size_t i) {
    std::string name = file.findRegNameByAddr(q[i]);
    benchmark::DoNotOptimize(name.data());
  });
}
void BM_NameAt(benchmark::State& state) {
  auto const& file = ours();
  auto const q = addressQueries(U32(state.range(0)));
  timeLookups(state, [&](size_t i) { benchmark::DoNotOptimize(*file.nameAt(q[i])); });
}
template <template <class...> class Map>
void BM_PeerNameAt(benchmark::State& state) {
  auto const& p = peer<Map>();
  auto const q = addressQueries(U32(state.range(0)));
  timeLookups(state, [&](size_t i) { benchmark::DoNotOptimize(*p.nameAt(q[i])); });
}
BENCHMARK(BM_FindRegNameByAddr)->Arg(kLookupRegisters)->Arg(1000);
BENCHMARK(BM_NameAt)->Arg(kLookupRegisters)->Arg(1000);
BENCHMARK(BM_PeerNameAt<BoostMap>)->Name("BM_NameAt/boost_flat")->Arg(kLookupRegisters)->Arg(1000);
BENCHMARK(BM_PeerNameAt<AbslMap>)->Name("BM_NameAt/absl_flat")->Arg(kLookupRegisters)->Arg(1000);

// ---------------------------------------------------------------- memory

size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * size_t(sysconf(_SC_PAGESIZE));
}

size_t nameCharacters(U32 count) {
  size_t n = 0;
  for (U32 i = 0; i < count; ++i) n += registerName(i).size();
  return n;
}

// Resident growth of building @p make() (kept alive while measured), per register, names'
// characters not counted. Input text is made before the first reading and freed after the last.
template <class Make>
void measureMemory(benchmark::State& state, Make&& make) {
  static size_t const characters = nameCharacters(kLoadRegisters);
  double perRegister = 0;
  for (auto _ : state) {
    malloc_trim(0);
    size_t const before = residentBytes();
    auto held = make();
    size_t const after = residentBytes();
    perRegister = (double(after) - double(before) - double(characters)) / kLoadRegisters;
    held.reset();
    malloc_trim(0);
  }
  state.counters["bytes_per_register"] = perRegister;
}

void BM_Memory(benchmark::State& state) {
  std::string const& path = loadFile();
  measureMemory(state, [&] { return std::make_unique<RegisterFile>(path.c_str(), kBlockSize); });
}
template <template <class...> class Map>
void BM_PeerMemory(benchmark::State& state) {
  // The peer's names are made inside the measurement: they are what it holds.
  measureMemory(state, [] { return std::make_unique<Peer<Map>>(kLoadRegisters); });
}
BENCHMARK(BM_Memory)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeerMemory<BoostMap>)->Name("BM_Memory/boost_flat")->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeerMemory<AbslMap>)->Name("BM_Memory/absl_flat")->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
