// Write and lookup on a 65,536-entry shared-memory collection, side by side
// with a map in a managed shared-memory segment guarded by an interprocess
// mutex (the usual way to share a map between processes), same keys, values
// and operations. Then the cost of a chip's shadow table: creating it and
// filling it with 16,384 fields whose register addresses reach 0x400000, with
// that capacity (4,194,304) and with a capacity of 16,384, side by side: the
// table grows with its entries, so the two should cost the same, in time and
// in file size. The program ends with one line per comparison.

#include "TarnRegFile/platform/ShmCollection.h"
#include "TarnRegFile/ShadowTypes.h"

#include <benchmark/benchmark.h>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/unordered_map.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

namespace bip = boost::interprocess;

constexpr U32 kEntries = 65536;

struct FieldKey {
  U32 address = 0;
  U8 start = 0;
  U8 size = 0;
  bool operator==(FieldKey const&) const = default;
};

struct FieldValue {
  FieldKey key;
  U32 value = 0;
};

U32 seededHash(FieldKey const& key, U32 seed) {
  U32 h = seed;
  for (U32 word : {key.address, U32{key.start} | (U32{key.size} << 8)}) {
    word *= 0xCC9E2D51u;
    word = (word << 15) | (word >> 17);
    h ^= word * 0x1B873593u;
    h = ((h << 13) | (h >> 19)) * 5u + 0xE6546B64u;
  }
  h ^= h >> 16;
  h *= 0x85EBCA6Bu;
  h ^= h >> 13;
  h *= 0xC2B2AE35u;
  return h ^ (h >> 16);
}

struct FieldTraits {
  using Value = FieldValue;
  using Key = FieldKey;
  static constexpr U32 keySize = 6;
  static constexpr U32 valueSize = 10;
  static void encodeKey(Key const& key, std::byte* out) {
    std::memcpy(out, &key.address, 4);
    out[4] = std::byte{key.start};
    out[5] = std::byte{key.size};
  }
  static void encode(Value const& value, std::byte* out) {
    encodeKey(value.key, out);
    std::memcpy(out + 6, &value.value, 4);
  }
  static Value decode(std::byte const* in) {
    Value v;
    std::memcpy(&v.key.address, in, 4);
    v.key.start = static_cast<U8>(in[4]);
    v.key.size = static_cast<U8>(in[5]);
    std::memcpy(&v.value, in + 6, 4);
    return v;
  }
  static Key keyOf(Value const& value) { return value.key; }
  static U32 hash(Key const& key, U32 seed) { return seededHash(key, seed); }
};

using Fields = Kiv::Shm::Collection<FieldTraits>;

struct BoostKeyHash {
  std::size_t operator()(FieldKey const& key) const { return seededHash(key, 0x1234567u); }
};
using BoostAllocator = bip::allocator<std::pair<FieldKey const, U32>, bip::managed_shared_memory::segment_manager>;
using BoostMap = boost::unordered_map<FieldKey, U32, BoostKeyHash, std::equal_to<FieldKey>, BoostAllocator>;

/// The keys of the table in a random order; @p order 0 is the order of filling,
/// 1 another order for the timed operations (so that neither table is walked in
/// the order its memory was laid out in).
std::vector<FieldKey> const& keys(int order = 1) {
  static std::vector<FieldKey> const filling = [] {
    std::vector<FieldKey> k(kEntries);
    for (U32 i = 0; i < kEntries; ++i)
      k[i] = FieldKey{(i / 8) * 4, static_cast<U8>((i % 8) * 4), 4};
    std::shuffle(k.begin(), k.end(), std::mt19937(42));
    return k;
  }();
  static std::vector<FieldKey> const operations = [] {
    std::vector<FieldKey> k = filling;
    std::shuffle(k.begin(), k.end(), std::mt19937(43));
    return k;
  }();
  return order == 0 ? filling : operations;
}

/// A full 65,536-entry collection in a private root, removed at exit.
struct ShmFixture {
  std::string dir;
  Kiv::Shm::Root root;
  Fields fields;

  static std::string makeDir() {
    char name[] = "/dev/shm/tarn-bench.XXXXXX";
    if (::mkdtemp(name) == nullptr)
      std::abort();
    return name;
  }
  ShmFixture() : dir(makeDir()), root(dir + "/root"), fields(Fields::openWriter(root, "bench/fields", kEntries)) {
    for (FieldKey const& k : keys(0))
      fields.write(FieldValue{k, k.address});
  }
  ~ShmFixture() { std::filesystem::remove_all(dir); }
};

ShmFixture& shm() {
  static ShmFixture fixture;
  return fixture;
}

/// The same content in a managed segment.
struct BoostFixture {
  std::string name = "tarn-bench-" + std::to_string(::getpid());
  bip::managed_shared_memory segment;
  bip::interprocess_mutex* mutex;
  BoostMap* map;

  BoostFixture() : segment((bip::shared_memory_object::remove(name.c_str()), bip::create_only), name.c_str(), 16u << 20) {
    mutex = segment.construct<bip::interprocess_mutex>("mutex")();
    map = segment.construct<BoostMap>("map")(kEntries, BoostKeyHash(), std::equal_to<FieldKey>(),
                                             BoostAllocator(segment.get_segment_manager()));
    for (FieldKey const& k : keys(0))
      (*map)[k] = k.address;
  }
  ~BoostFixture() { bip::shared_memory_object::remove(name.c_str()); }
};

BoostFixture& boostMap() {
  static BoostFixture fixture;
  return fixture;
}

void BM_ShmWrite(benchmark::State& state) {
  Fields& fields = shm().fields;
  auto const& k = keys();
  U32 i = 0;
  for (auto _ : state) {
    fields.write(FieldValue{k[i & (kEntries - 1)], i});
    ++i;
  }
}
BENCHMARK(BM_ShmWrite);

void BM_ShmLookup(benchmark::State& state) {
  Fields& fields = shm().fields;
  auto const& k = keys();
  U32 i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(fields.lookup(k[i & (kEntries - 1)]));
    ++i;
  }
}
BENCHMARK(BM_ShmLookup);

void BM_BoostWrite(benchmark::State& state) {
  BoostFixture& b = boostMap();
  auto const& k = keys();
  U32 i = 0;
  for (auto _ : state) {
    bip::scoped_lock<bip::interprocess_mutex> lock(*b.mutex);
    (*b.map)[k[i & (kEntries - 1)]] = i;
    ++i;
  }
}
BENCHMARK(BM_BoostWrite);

void BM_BoostLookup(benchmark::State& state) {
  BoostFixture& b = boostMap();
  auto const& k = keys();
  U32 i = 0;
  for (auto _ : state) {
    std::optional<FieldValue> found;
    {
      bip::scoped_lock<bip::interprocess_mutex> lock(*b.mutex);
      auto it = b.map->find(k[i & (kEntries - 1)]);
      if (it != b.map->end())
        found = FieldValue{it->first, it->second};
    }
    benchmark::DoNotOptimize(found);
    ++i;
  }
}
BENCHMARK(BM_BoostLookup);

// ---- a wide chip's table, filled from empty ----

constexpr U32 kChipFields = 16384;
constexpr U32 kChipAddressLimit = 0x400000;  // highest register byte address + 1: the chip's capacity
std::map<U32, std::uintmax_t> chipFileBytes;  // by capacity

void BM_ShmFillChip(benchmark::State& state) {
  U32 const capacity = static_cast<U32>(state.range(0));
  Kiv::Shm::Root const& root = shm().root;
  std::string const path = "bench/chip" + std::to_string(capacity);
  for (auto _ : state) {
    auto fields = TarnRegFile::ShadowFieldCollection::openWriter(root, path, capacity);
    for (U32 i = 0; i < kChipFields; ++i)  // one field per register, registers spread over the address range
      fields.write(TarnRegFile::ShadowFieldValue(
          TarnRegFile::ShadowFieldKey(i * (kChipAddressLimit / kChipFields), 0, 32), i));
    state.PauseTiming();
    chipFileBytes[capacity] = std::filesystem::file_size(shm().dir + "/root/" + path);
    root.remove(path);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ShmFillChip)->Arg(kChipFields)->Arg(kChipAddressLimit)->Unit(benchmark::kMicrosecond);

/// Prints as usual and keeps the time per iteration of every run for the summary.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
  void ReportRuns(std::vector<Run> const& runs) override {
    // With repetitions the median stands for the operation, otherwise the single run does.
    for (Run const& run : runs) {
      std::string const name = run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
      if (run.run_type == Run::RT_Aggregate ? run.aggregate_name == "median" : !medians.count(name)) {
        // CPU time is steadier on a shared machine; kept in ns whatever the run's unit.
        nanoseconds[name] = run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
        if (run.run_type == Run::RT_Aggregate)
          medians.insert(name);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> nanoseconds;
  std::set<std::string> medians;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  shm();  // both tables are filled before anything is timed
  boostMap();
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  auto& ns = reporter.nanoseconds;
  for (char const* op : {"Write", "Lookup"}) {
    std::string const ours = std::string("BM_Shm") + op, theirs = std::string("BM_Boost") + op;
    if (ns.count(ours) && ns.count(theirs))
      std::printf("%-6s shared-memory collection %6.1f ns, mutex-guarded segment map %6.1f ns: %.2fx faster\n", op,
                  ns[ours], ns[theirs], ns[theirs] / ns[ours]);
  }
  std::string const narrow = "BM_ShmFillChip/" + std::to_string(kChipFields),
                    wide = "BM_ShmFillChip/" + std::to_string(kChipAddressLimit);
  if (ns.count(narrow) && ns.count(wide))
    std::printf("Chip of %u fields, capacity %u: %.0f us, %ju-byte file; capacity %u: %.0f us, %ju-byte file: "
                "%.2fx the time\n",
                kChipFields, kChipAddressLimit, ns[wide] / 1000, chipFileBytes[kChipAddressLimit], kChipFields,
                ns[narrow] / 1000, chipFileBytes[kChipFields], ns[wide] / ns[narrow]);
  return 0;
}
