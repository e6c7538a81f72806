// Cost of a register access through the PCI access object: plain volatile
// access versus the SIGBUS-guarded one, over a real shared file mapping.

#include "TarnRegFile/platform/PciDov.h"
#include "TarnRegFile/platform/SigbusGuard.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

class MappedPage {
public:
  MappedPage() {
    char name[] = "/tmp/tarn-sigbus-bench-XXXXXX";
    int const fd = mkstemp(name);
    if (fd < 0) std::abort();
    path_ = name;
    if (ftruncate(fd, 4096) != 0) std::abort();
    close(fd);
    dov_ = Hardware::pciDovImplFactory(path_);
  }
  ~MappedPage() { unlink(path_.c_str()); }
  Hardware::PciDovImpl& dov() { return *dov_; }

private:
  std::string path_;
  Kiv::Ptr<Hardware::PciDovImpl> dov_;
};

void BM_PlainRead32(benchmark::State& state) {
  MappedPage page;
  for (auto _ : state) benchmark::DoNotOptimize(page.dov().read32(0x40));
}
BENCHMARK(BM_PlainRead32);

void BM_GuardedRead32(benchmark::State& state) {
  MappedPage page;
  Kiv::SigbusGuard::init();
  for (auto _ : state) benchmark::DoNotOptimize(page.dov().guardedRead32(0x40));
}
BENCHMARK(BM_GuardedRead32);

void BM_GuardedWrite32(benchmark::State& state) {
  MappedPage page;
  Kiv::SigbusGuard::init();
  U32 value = 0;
  for (auto _ : state) page.dov().guardedWrite32(0x40, ++value);
}
BENCHMARK(BM_GuardedWrite32);

void BM_SelfGuardedPlainRead32(benchmark::State& state) {
  char name[] = "/tmp/tarn-sigbus-bench-XXXXXX";
  int const fd = mkstemp(name);
  if (fd < 0 || ftruncate(fd, 4096) != 0) std::abort();
  close(fd);
  auto dov = Hardware::pciDovImplFactory(name, true);
  for (auto _ : state) benchmark::DoNotOptimize(dov->read32(0x40));
  unlink(name);
}
BENCHMARK(BM_SelfGuardedPlainRead32);

}  // namespace
