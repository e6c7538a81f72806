// One register access through TransportMethod over the mock transport.
//
// The mock rewrites its whole dump file after every access, so its cost per access
// is that rewrite (open, fstat, ftruncate, write, close) plus the name lookup and
// the value map. The "NoDump" variants point the dump file into a directory that
// does not exist, so the rewrite stops at the failing open: the difference to the
// plain variants is the price of the file rewrite.
//
// The map has 22 registers, the size of the shipped demo map; every register is
// written once before measuring, so the dump file holds 22 lines as in steady use.

#include "TarnRegFile/MockTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

using TarnRegFile::MockTransportMethodImpl;
using TarnRegFile::RegCallbackStatus;
using TarnRegFile::TransportMethod;

class TempDir {
public:
  TempDir() {
    char pattern[] = "/tmp/tarn-bench-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string path(char const* name) const { return path_ + "/" + name; }
  std::string csv() const {
    std::string const p = path("chip.csv");
    std::ofstream out(p);
    out << "number,name,type,writeable,width\n";
    for (int i = 0; i < 22; ++i) out << i << ",reg_" << i << ",cfg,true,32\n";
    return p;
  }

private:
  std::string path_;
};

// A transport whose mock writes its dump to @p dumpPath, with every register written once.
Kiv::Ptr<TransportMethod> mockTransport(TempDir const& dir, std::string const& dumpPath) {
  auto tm = TransportMethod::TransportMethodIs("bench");
  tm->implPtrIs(new MockTransportMethodImpl(dir.csv().c_str(), nullptr, dumpPath));
  auto const names = tm->regList();
  for (auto const& [name, present] : names->registerNames()) tm->regWrite(name, 1);
  return tm;
}

void BM_MockRegRead(benchmark::State& state) {
  TempDir dir;
  auto const tm = mockTransport(dir, state.range(0) ? dir.path("dump.csv") : dir.path("missing/dump.csv"));
  Kiv::String const name("reg_11");
  for (auto _ : state) benchmark::DoNotOptimize(tm->regRead(name));
}
BENCHMARK(BM_MockRegRead)->ArgName("dump")->Arg(1)->Arg(0);

void BM_MockRegWrite(benchmark::State& state) {
  TempDir dir;
  auto const tm = mockTransport(dir, state.range(0) ? dir.path("dump.csv") : dir.path("missing/dump.csv"));
  Kiv::String const name("reg_2");
  U32 value = 0;
  for (auto _ : state) tm->regWrite(name, ++value);
}
BENCHMARK(BM_MockRegWrite)->ArgName("dump")->Arg(1)->Arg(0);

void BM_MockRegWriteWithCallback(benchmark::State& state) {
  TempDir dir;
  auto const tm = mockTransport(dir, dir.path("dump.csv"));
  Kiv::String const name("reg_2");
  U32 value = 0;
  unsigned completions = 0;
  TarnRegFile::RegWriteCallback const cb = [&](char const*, RegCallbackStatus) { ++completions; };
  for (auto _ : state) tm->regWriteWithCallback(name, ++value, cb);
  benchmark::DoNotOptimize(completions);
}
BENCHMARK(BM_MockRegWriteWithCallback);

// A failed access: unknown name, trace line and error notification.
void BM_MockFailedRead(benchmark::State& state) {
  TempDir dir;
  auto const tm = mockTransport(dir, dir.path("dump.csv"));
  tm->errorNotifierIs("bench");
  Kiv::String const name("no_such_register");
  for (auto _ : state) benchmark::DoNotOptimize(tm->regRead(name));
}
BENCHMARK(BM_MockFailedRead);

}  // namespace
