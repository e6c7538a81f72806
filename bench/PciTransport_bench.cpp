// One register access by name through TransportMethod over the PCI transport: the
// name lookup in the register map, the readiness and width checks, the 32-bit load
// or store in the mapping (a temporary file mapped shared, as a PCI resource is) and
// the failure handling around it on the success path.
//
// The map has 256 registers; names are Kiv::String objects made once, as callers
// hold them, and the accesses walk through the registers in a scrambled order so
// that lookups do not always hit the same hash bucket.
//
// Counter "allocs": heap allocations per access, counted by this program's own
// malloc; it must stay 0.
//
// "Guarded" transports use the SIGBUS guard for each access (the access object does
// not handle bus errors); "SelfManaged" ones leave bus errors to the access object,
// whose plain accessors then guard themselves. "Impl" variants call the
// implementation directly, without TransportMethod, to show what the entity adds.

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/SigbusGuard.h"

#include "TarnRegFile/PciTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <benchmark/benchmark.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::atomic<unsigned long> gAllocations{0};

}  // namespace

// Every heap allocation of the program (operator new and Kiv::String both end in
// malloc) is counted here and served by the C library's own allocator.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}
void* realloc(void* p, size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, size);
}
void* memalign(size_t alignment, size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** out, size_t alignment, size_t size) {
  void* const p = memalign(alignment, size);
  if (!p) return ENOMEM;
  *out = p;
  return 0;
}
void free(void* p) { __libc_free(p); }
}

namespace {

using TarnRegFile::PciTransportDescriptor;
using TarnRegFile::PciTransportMethodImpl;
using TarnRegFile::TransportMethod;

constexpr unsigned kRegisters = 256;

class Window {
public:
  Window() {
    char pattern[] = "/tmp/tarn-pcibench-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    int const fd = ::open(resource().c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, kRegisters * 4) != 0) throw std::runtime_error("cannot create the window");
    ::close(fd);
    std::ofstream out(csv());
    out << "number,name,type,writeable,width\n";
    for (unsigned i = 0; i < kRegisters; ++i) out << i << ",chip_reg_" << i << ",cfg,true," << (i % 2 ? 16 : 32) << "\n";
  }
  ~Window() { std::filesystem::remove_all(dir_); }
  std::string resource() const { return dir_ + "/resource0"; }
  std::string csv() const { return dir_ + "/chip.csv"; }

private:
  std::string dir_;
};

// Names in a scrambled order: i * 97 mod 256 visits every register once.
std::vector<Kiv::String> names() {
  std::vector<Kiv::String> out;
  for (unsigned i = 0; i < kRegisters; ++i) out.emplace_back("chip_reg_" + std::to_string((i * 97) % kRegisters));
  return out;
}

Kiv::Ptr<TransportMethod> pciTransport(Window const& window, bool managesSigbus) {
  // A guarded transport switches automatic handler installation off for the process;
  // switched back on, the self-managed access object guards its accesses itself.
  if (managesSigbus) Kiv::SigbusGuard::autoHandlerInstallIs(true);
  auto tm = TransportMethod::TransportMethodIs("bench");
  tm->init(PciTransportDescriptor::PciTransportDescriptorIs(
               Hardware::pciDovImplFactory(window.resource(), managesSigbus)),
           Kiv::String(window.csv()));
  if (!dynamic_cast<PciTransportMethodImpl*>(tm->implPtr())) throw std::runtime_error("not a PCI transport");
  return tm;
}

template <class Access>
void run(benchmark::State& state, Access&& access) {
  auto const all = names();
  size_t i = 0;
  unsigned long const before = gAllocations.load();
  for (auto _ : state) {
    access(all[i]);
    i = (i + 1) % kRegisters;
  }
  state.counters["allocs"] =
      benchmark::Counter(double(gAllocations.load() - before), benchmark::Counter::kAvgIterations);
}

void BM_PciRegRead(benchmark::State& state, bool managesSigbus) {
  Window window;
  auto tm = pciTransport(window, managesSigbus);
  run(state, [&](Kiv::String const& name) { benchmark::DoNotOptimize(tm->regRead(name)); });
  if (tm->errorNotifier()->error()) state.SkipWithError("an access failed");
}

void BM_PciRegWrite(benchmark::State& state, bool managesSigbus) {
  Window window;
  auto tm = pciTransport(window, managesSigbus);
  uint32_t value = 0;
  run(state, [&](Kiv::String const& name) { tm->regWrite(name, ++value); });
  if (tm->errorNotifier()->error()) state.SkipWithError("an access failed");
}

void BM_PciImplRegRead(benchmark::State& state, bool managesSigbus) {
  Window window;
  auto tm = pciTransport(window, managesSigbus);
  auto* impl = tm->implPtr();
  run(state, [&](Kiv::String const& name) { benchmark::DoNotOptimize(impl->regRead(name.c_str())); });
}

// A caller that passes character strings pays for a Kiv::String per access
// (TransportMethod takes names as Kiv::String): shown for comparison.
void BM_PciRegReadFromCharPointer(benchmark::State& state) {
  Window window;
  auto tm = pciTransport(window, false);
  std::vector<std::string> plain;
  for (auto const& name : names()) plain.push_back(name.str());
  size_t i = 0;
  unsigned long const before = gAllocations.load();
  for (auto _ : state) {
    benchmark::DoNotOptimize(tm->regRead(plain[i].c_str()));
    i = (i + 1) % kRegisters;
  }
  state.counters["allocs"] =
      benchmark::Counter(double(gAllocations.load() - before), benchmark::Counter::kAvgIterations);
}

BENCHMARK_CAPTURE(BM_PciRegRead, Guarded, false);
BENCHMARK_CAPTURE(BM_PciRegRead, SelfManaged, true);
BENCHMARK_CAPTURE(BM_PciRegWrite, Guarded, false);
BENCHMARK_CAPTURE(BM_PciRegWrite, SelfManaged, true);
BENCHMARK_CAPTURE(BM_PciImplRegRead, Guarded, false);
BENCHMARK(BM_PciRegReadFromCharPointer);

}  // namespace
