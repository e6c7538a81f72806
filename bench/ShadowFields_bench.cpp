// Per-field-change costs of a shadow-field collection mounted in shared memory
// with 65,536 entries: the copying write, the zero-copy commit and lookups.

#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/ShadowTypes.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <stdlib.h>

namespace {

using TarnRegFile::ShadowFieldKey;
using TarnRegFile::ShadowFieldsConfig;
using TarnRegFile::ShadowFieldValue;

constexpr U32 kEntries = 65536;

ShadowFieldKey keyOf(U32 i) { return ShadowFieldKey(i / 4, static_cast<U8>((i % 4) * 8), 8); }

/// One full collection for every benchmark of the run, in a private root removed at exit.
struct Mounted {
  std::string dir;
  Kiv::Ptr<Kiv::Shm::EntityManager> em;
  Kiv::Ptr<ShadowFieldsConfig> config;
  std::vector<ShadowFieldKey> keys;

  Mounted() {
    char pattern[] = "/dev/shm/tarn-shadow-bench.XXXXXX";
    if (!::mkdtemp(pattern))
      throw std::runtime_error("cannot make a private root");
    dir = pattern;
    em = Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(dir + "/root"));
    auto group = em->mountGroup();
    std::string const path = "TarnRegFile/shadowFieldsConfig/bench";
    group.mount(path, "TarnRegFile::ShadowFieldsConfig", Kiv::Shm::MountDescription().collectionIs("field", kEntries));
    config = Kiv::ptr_cast<ShadowFieldsConfig>(em->entity(path));
    group.close();
    for (U32 i = 0; i < kEntries; ++i) {
      keys.push_back(keyOf(i));
      config->fieldIs(ShadowFieldValue(keys.back(), i));
    }
  }
  ~Mounted() {
    config = nullptr;
    em = nullptr;
    std::filesystem::remove_all(dir);
  }
};

Mounted& mounted() {
  static Mounted m;
  return m;
}

/// A reactor like the shadow state machine's, so that the write includes one notification.
struct Reactor : ShadowFieldsConfig::Notifiee {
  U32 seen = 0;
  void onField(ShadowFieldKey const& key) override { seen += key.address; }
};

void BM_FieldIsReplace(benchmark::State& state) {
  Mounted& m = mounted();
  Reactor reactor;
  reactor.notifierIs(m.config);
  U32 i = 0;
  for (auto _ : state) {
    m.config->fieldIs(ShadowFieldValue(m.keys[i], i));
    i = (i + 7919) % kEntries;
  }
  benchmark::DoNotOptimize(reactor.seen);
}
BENCHMARK(BM_FieldIsReplace);

void BM_FieldCommitInSlot(benchmark::State& state) {
  Mounted& m = mounted();
  U32 i = 0;
  for (auto _ : state) {
    ShadowFieldValue* slot = m.config->fieldSlot();
    slot->key = m.keys[i];
    slot->value = i;
    m.config->fieldCommit(slot);
    i = (i + 7919) % kEntries;
  }
}
BENCHMARK(BM_FieldCommitInSlot);

void BM_FieldLookupPresent(benchmark::State& state) {
  Mounted& m = mounted();
  U32 i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(m.config->field(m.keys[i]));
    i = (i + 7919) % kEntries;
  }
}
BENCHMARK(BM_FieldLookupPresent);

void BM_FieldLookupAbsent(benchmark::State& state) {
  Mounted& m = mounted();
  U32 i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(m.config->field(ShadowFieldKey(kEntries + i, 0, 8)));
    i = (i + 7919) % kEntries;
  }
}
BENCHMARK(BM_FieldLookupAbsent);

}  // namespace
