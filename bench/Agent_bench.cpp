// tarnagent's three figures: a cold start from a description of 64 chips of 16,384 fields (the
// status published, the description read and checked, every chip built and ready); a field
// write through the control socket, request to answer; and a chip published by another process
// to its objects built in the agent.
//
// Chips sit on the PCI transport over regular files standing in for their windows, in a private
// shared-memory root under /dev/shm. The agent runs in this process (its loop on a thread of its
// own where a client or a publisher must reach it); the publisher of the last figure is a
// separate process.

#include "Agent.h"
#include "ControlProtocol.h"
#include "SystemDescription.h"

#include "TarnRegFile/SystemStatusShm.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;

// A scratch directory: maps, windows, the shared-memory root and the runtime directory.
struct Scratch {
  Scratch() {
    char pattern[] = "/dev/shm/tarn-agent-bench.XXXXXX";
    if (!::mkdtemp(pattern)) std::abort();
    dir = pattern;
  }
  ~Scratch() { std::filesystem::remove_all(dir); }
  std::string dir;
};

// A description of @p chips chips of one type with @p registers registers of 4 fields of 8 bits.
std::string description(Scratch const& s, int chips, int registers) {
  {
    std::ofstream map(s.dir + "/chip.csv");
    map << "number,name,type,writeable,width\n";
    for (int r = 0; r < registers; ++r) map << r << ",R" << r << ",cfg,true,32\n";
  }
  Json fields = Json::array(), regs = Json::array();
  for (int r = 0; r < registers; ++r) {
    Json lfields = Json::array();
    for (int f = 0; f < 4; ++f) {
      std::string const reg = "R" + std::to_string(r), field = "f" + std::to_string(f);
      fields.push_back({{"register", reg}, {"field", field}, {"start", 8 * f}, {"size", 8}});
      lfields.push_back({{"name", field}, {"start", 8 * f}, {"size", 8}, {"initial", (r + f) & 1},
                         {"physical", {{"register", reg}, {"field", field}}}});
    }
    regs.push_back({{"name", "L" + std::to_string(r)}, {"fields", lfields}});
  }
  Json list = Json::array();
  for (int c = 0; c < chips; ++c) {
    std::string const window = fmt::format("{}/window{}", s.dir, c);
    std::ofstream(window).close();
    std::filesystem::resize_file(window, 4 * static_cast<size_t>(registers));
    list.push_back({{"name", fmt::format("chip{}", c)}, {"type", "asic"}, {"transport", {{"kind", "pci"}, {"resource", window}}}});
  }
  Json const d = {{"system", "bench"},
                  {"chipTypes", {{"asic", {{"map", s.dir + "/chip.csv"}, {"fields", fields}, {"registers", regs}}}}},
                  {"chips", list}};
  return d.dump();
}

void BM_ColdStart64ChipsOf16384Fields(benchmark::State& state) {
  constexpr int kChips = 64, kRegisters = 4096;
  for (auto _ : state) {
    state.PauseTiming();
    auto scratch = std::make_unique<Scratch>();
    std::string const text = description(*scratch, kChips, kRegisters);
    state.ResumeTiming();

    Kiv::Shm::Root const root(scratch->dir + "/shm");
    auto publisher = TarnRegFile::SystemStatusPublisher::open(root, "bench");
    for (int c = 0; c < kChips; ++c) publisher.chipIs(fmt::format("chip{}", c), Hardware::DevId(1), "p1");
    boost::asio::io_context io;
    TarnAgent::AgentOptions options;
    options.shmRoot = root.dir();
    auto agent = std::make_unique<TarnAgent::Agent>(io, TarnAgent::parseSystemDescription(text, ""), options);
    agent->start();
    if (agent->readyChips() != kChips) state.SkipWithError("not every chip is ready");

    state.PauseTiming();
    agent.reset();
    scratch.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ColdStart64ChipsOf16384Fields)->Unit(benchmark::kMillisecond)->Iterations(3);

// An agent with its loop on a thread of its own, one chip published before it starts.
struct RunningAgent {
  RunningAgent(int registers, bool publish) {
    std::string const text = description(scratch, 1, registers);
    Kiv::Shm::Root const root(scratch.dir + "/shm");
    publisher.emplace(TarnRegFile::SystemStatusPublisher::open(root, "bench"));
    if (publish) publisher->chipIs("chip0", Hardware::DevId(1), "p1");
    TarnAgent::AgentOptions options;
    options.shmRoot = root.dir();
    options.runtimeDir = scratch.dir + "/run";
    agent = std::make_unique<TarnAgent::Agent>(io, TarnAgent::parseSystemDescription(text, ""), options);
    agent->start();
    loop = std::thread([this] { io.run(); });
  }
  ~RunningAgent() {
    boost::asio::post(io, [this] {
      agent->stop();
      io.stop();
    });
    loop.join();
  }
  Scratch scratch;
  std::optional<TarnRegFile::SystemStatusPublisher> publisher;
  boost::asio::io_context io;
  std::unique_ptr<TarnAgent::Agent> agent;
  std::thread loop;
};

void percentiles(benchmark::State& state, std::vector<double>& us) {
  if (us.empty()) return;
  std::sort(us.begin(), us.end());
  state.counters["p50_us"] = us[us.size() / 2];
  state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
}

void BM_FieldWriteThroughTheControlSocket(benchmark::State& state) {
  RunningAgent running(64, true);
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", running.agent->socketPath().c_str());
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    state.SkipWithError("cannot connect");
    return;
  }
  std::vector<double> us;
  us.reserve(1 << 20);
  char answer[64];
  U32 value = 0;
  for (auto _ : state) {
    // A new value each time: every request changes a field, its register goes out.
    std::string const request = fmt::format("call chip0 fieldWrite L{} f{} {}\n", value % 64, value % 4, value & 0xff);
    ++value;
    auto const t0 = Clock::now();
    if (::send(fd, request.data(), request.size(), 0) != ssize_t(request.size())) std::abort();
    ssize_t n = 0;
    while (n == 0 || answer[n - 1] != '\n') {
      ssize_t const got = ::recv(fd, answer + n, sizeof answer - size_t(n), 0);
      if (got <= 0) std::abort();
      n += got;
    }
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    if (answer[0] != 'o') state.SkipWithError("refused");
  }
  ::close(fd);
  percentiles(state, us);
}
BENCHMARK(BM_FieldWriteThroughTheControlSocket)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The publisher process: for each byte read from @p in it publishes ('+') or withdraws ('-')
// chip0 and writes the monotonic time just before the change to @p out.
[[noreturn]] void publisherProcess(std::string const& shmRoot, int in, int out) {
  auto status = TarnRegFile::SystemStatusPublisher::open(Kiv::Shm::Root(shmRoot), "bench");
  char c;
  while (::read(in, &c, 1) == 1) {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    if (c == '+') status.chipIs("chip0", Hardware::DevId(1), "p1");
    else status.chipDel("chip0");
    if (::write(out, &now, sizeof now) != sizeof now) break;
  }
  ::_exit(0);
}

// Notes, on the agent's loop, the moment chip0's objects are complete (its shadow state machine,
// the last one built, enters the model) or gone.
struct BuiltWatch : TarnRegFile::PhysicalModel::Notifiee {
  void onShadowSm(Kiv::String const& key) override {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    std::lock_guard lock(mutex);
    built = now;
    present = notifier()->shadowSmHas(key);
    cv.notify_one();
  }
  // Waits until chip0 is @p want; false after 5 s.
  bool await(bool want) {
    std::unique_lock lock(mutex);
    return cv.wait_for(lock, std::chrono::seconds(5), [&] { return present == want; });
  }
  std::mutex mutex;
  std::condition_variable cv;
  timespec built{};
  bool present = false;
};

void BM_PublishedChipToObjectsBuilt(benchmark::State& state) {
  int const registers = static_cast<int>(state.range(0));
  RunningAgent running(registers, false);
  BuiltWatch watch;
  std::promise<void> attached;
  boost::asio::post(running.io, [&] {
    watch.notifierIs(running.agent->physicalModel());
    attached.set_value();
  });
  attached.get_future().wait();
  running.publisher.reset();  // the other process publishes from now on
  int toChild[2], fromChild[2];
  if (::pipe(toChild) || ::pipe(fromChild)) std::abort();
  pid_t const child = ::fork();
  if (child == 0) {
    ::close(toChild[1]);  // so that the parent's close ends the child
    ::close(fromChild[0]);
    publisherProcess(running.scratch.dir + "/shm", toChild[0], fromChild[1]);
  }
  std::vector<double> us;
  auto const exchange = [&](char c) {
    timespec sent;
    if (::write(toChild[1], &c, 1) != 1 || ::read(fromChild[0], &sent, sizeof sent) != sizeof sent) std::abort();
    return sent;
  };
  for (auto _ : state) {
    timespec const sent = exchange('+');
    if (!watch.await(true)) {
      state.SkipWithError("the chip was not built within 5 s");
      break;
    }
    {
      std::lock_guard lock(watch.mutex);
      us.push_back(double(watch.built.tv_sec - sent.tv_sec) * 1e6 + double(watch.built.tv_nsec - sent.tv_nsec) / 1e3);
    }
    state.PauseTiming();
    exchange('-');
    if (!watch.await(false)) state.SkipWithError("the chip was not removed within 5 s");
    state.ResumeTiming();
  }
  ::close(toChild[1]);
  ::waitpid(child, nullptr, 0);
  ::close(toChild[0]);
  ::close(fromChild[0]);
  ::close(fromChild[1]);
  std::promise<void> detached;
  boost::asio::post(running.io, [&] {
    watch.notifierIs(nullptr);
    detached.set_value();
  });
  detached.get_future().wait();
  percentiles(state, us);
  state.counters["fields"] = registers * 4;
}
BENCHMARK(BM_PublishedChipToObjectsBuilt)->Arg(64)->Arg(1024)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(200);

}  // namespace
