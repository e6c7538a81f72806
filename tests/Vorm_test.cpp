// The hardware-access manager and the asynchronous I2C transport above it, over the
// manager's chip simulator: request lifecycle, completion only through dispatch on the
// owner's thread, the descriptor, destruction with requests in flight; the transport's
// refusals, a load of 10,000 accesses over four buses through TransportMethod, and its
// deletion with accesses in flight. Timeouts, bus failures, the transport's callbacks and
// traces, and the i2c-dev bus under both are exercised against the kernel's i2c-stub in
// tests/vm/I2cTransport_vmtest.cpp, here only the bus's refusal of a node that does not
// exist (one that is no adapter by Tarnreg_test.cpp).

#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/Vorm.h"
#include "TarnRegFile/platform/VormI2cDev.h"
#include "TarnRegFile/platform/VormSim.h"

#include "TarnRegFile/I2cTransportVormImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/VormLoop.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>

namespace {

using namespace std::chrono_literals;
using namespace Hardware;
using namespace Hardware::TarnRegFile;
using namespace ::TarnRegFile;
using TarnTest::issue;
using TarnTest::runUntil;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr auto kRead = VormOp::Opcode::read;
constexpr auto kWrite = VormOp::Opcode::write;
U7 const kChip(0x50);
std::string const kDemoCsv = TARN_SOURCE_DIR "/examples/maps/demo_chip.csv";

bool readable(int fd, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, timeoutMs) == 1;
}

// Records every status it hears of, with the thread it heard it on.
struct Recorder : VormRequest::Notifiee {
  explicit Recorder(Kiv::Ptr<VormRequest> const& r) { notifierIs(r); }
  void onStatus() override {
    statuses.push_back(notifier()->status());
    threads.push_back(std::this_thread::get_id());
  }
  std::vector<U8> statuses;
  std::vector<std::thread::id> threads;
};

struct Bus {
  explicit Bus(Vorm::Duration timeout = 1s)
      : sim(std::make_shared<VormSimBackend>()), vorm(Vorm::VormIs("sim", sim, timeout)) {
    sim->chipIs(kChip);
  }
  std::shared_ptr<VormSimBackend> sim;
  Kiv::Ptr<Vorm> vorm;
};

// One register per 4-byte word, "r0" at 0 up to "r<count-1>", plus "wide" (64 bits).
Kiv::Ptr<HardwareRegisterFile> wordModel(U32 count) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("words");
  for (U32 i = 0; i < count; ++i)
    model->registerIs({Kiv::String(("r" + std::to_string(i)).c_str()), HardwareRegisterType::cfg, true, i * 4, 32, 32});
  model->registerIs({"wide", HardwareRegisterType::cfg, true, count * 4, 64, 32});
  return model;
}

// What the transport's callbacks reported for one access.
struct Outcome {
  int calls = 0;
  RegCallbackStatus status{};
  uint32_t value = 0;
  bool operator==(Outcome const&) const = default;
};

RegReadCallback reader(Outcome& o) {
  return [&o](char const*, RegCallbackStatus s, uint32_t v) { o = {o.calls + 1, s, v}; };
}

RegWriteCallback writer(Outcome& o) {
  return [&o](char const*, RegCallbackStatus s) { o = {o.calls + 1, s, o.value}; };
}

// ---------------------------------------------------------------- the manager

TEST(Vorm, BadArgumentsAndAnAbsentNodeAreRefusedWithTheirReason) {
  EXPECT_THAT([] { VormI2cDevBackend("/nonexistent/i2c-9"); },
              ThrowsMessage<std::runtime_error>(HasSubstr("/nonexistent/i2c-9: No such file or directory")));
  EXPECT_THROW(SmbusAddress(0, kChip, 3), Kiv::RangeException);
  Bus bus;
  auto r = bus.vorm->newRequest();
  U32 word = 0;
  SmbusAddress const at(0x10, kChip, 2);
  struct Case {
    VormOp::Opcode opcode;
    U32* data;
    U32 count, size, maxTransfer, flags;
    char const* message;
  } const cases[] = {{kRead, nullptr, 1, 4, 4, 0, "no data word"}, {kRead, &word, 2, 4, 4, 0, "count 2"},
                     {kRead, &word, 1, 2, 4, 0, "size 2"},         {kRead, &word, 1, 4, 2, 0, "maxTransfer 2"},
                     {kRead, &word, 1, 4, 4, 1, "unknown flags"},  {VormOp::Opcode(2), &word, 1, 4, 4, 0, "unknown opcode 2"}};
  for (auto const& c : cases)
    EXPECT_THAT([&] { r->opIs(c.opcode, at, c.data, c.count, c.size, c.maxTransfer, c.flags); },
                ThrowsMessage<std::runtime_error>(HasSubstr(c.message)));
  EXPECT_THAT([&] { r->stateIs(1); }, ThrowsMessage<std::runtime_error>(HasSubstr("without an operation")));
  EXPECT_THROW(r->stateIs(2), Kiv::RangeException);
  EXPECT_EQ(VormRequest::kStatusIdle, r->status());
}

// Failures with the bus's errno, and writes, are checked on the kernel's i2c-stub.
TEST(Vorm, RequestsFinishOnlyThroughDispatchOnTheOwnersThread) {
  Bus bus;
  bus.sim->regIs(kChip, 0x10, 0xcafef00d);
  U32 word = 0x11223344;
  auto r = bus.vorm->newRequest();
  Recorder rec(r);
  r->opIs(kRead, SmbusAddress(0x10, kChip, 2), &word, 1, 4, 4, 0);
  r->stateIs(1);
  EXPECT_THAT(rec.statuses, ElementsAre(VormRequest::kStatusIssued));
  // The bus finishes on the worker; nothing reaches the request before dispatch.
  ASSERT_TRUE(readable(bus.vorm->fd(), 5000));
  EXPECT_EQ(VormRequest::kStatusIssued, r->status());
  EXPECT_EQ(0x11223344u, word);
  EXPECT_EQ(1u, bus.vorm->dispatch());
  EXPECT_FALSE(readable(bus.vorm->fd(), 0)) << "dispatch drains the descriptor";
  EXPECT_THAT(rec.statuses, ElementsAre(VormRequest::kStatusIssued, VormRequest::kStatusCompleted));
  EXPECT_THAT(rec.threads, ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
  EXPECT_EQ(0xcafef00du, word);

  // A finished request is made idle and reused.
  EXPECT_THROW(r->opIs(kWrite, SmbusAddress(0x20, kChip, 2), &word, 1, 4, 4, 0), std::runtime_error);
  r->stateIs(0);
  r->opIs(kWrite, SmbusAddress(0x20, kChip, 2), &word, 1, 4, 4, 0);
  r->stateIs(1);
  EXPECT_THROW(r->stateIs(0), std::runtime_error) << "in flight";
  ASSERT_TRUE(TarnTest::finish(bus.vorm, {r}));
}

TEST(Vorm, AThrowingObserverDoesNotCostTheOthersTheirCompletion) {
  Bus bus;
  struct Thrower : VormRequest::Notifiee {
    void onStatus() override {
      if (notifier()->status() >= 2) throw std::runtime_error("observer failed");
    }
  } thrower;
  U32 words[3] = {};
  std::vector<Kiv::Ptr<VormRequest>> rs;
  for (U16 i = 0; i < 3; ++i) rs.push_back(issue(bus.vorm, kRead, i, &words[i]));
  thrower.notifierIs(rs[0]);
  Recorder last(rs[2]);
  while (bus.sim->transactions() < 3) std::this_thread::yield();
  EXPECT_THAT([&] { bus.vorm->dispatch(); }, ThrowsMessage<std::runtime_error>("observer failed"));
  for (auto const& r : rs) EXPECT_EQ(VormRequest::kStatusCompleted, r->status());
  EXPECT_THAT(last.statuses, ElementsAre(VormRequest::kStatusCompleted));
}

TEST(Vorm, DestructionWithRequestsInFlightNotifiesNobody) {
  for (bool stuck : {false, true}) {
    SCOPED_TRACE(stuck ? "worker stuck in a hang: abandoned" : "worker in a slow transaction: joined");
    Bus bus(50ms);
    stuck ? bus.sim->hangNextIs(1) : bus.sim->latencyIs(20ms, 20ms);
    U32 words[4] = {};
    std::vector<Kiv::Ptr<VormRequest>> rs;
    std::deque<Recorder> recs;
    for (U16 i = 0; i < 4; ++i) recs.emplace_back(rs.emplace_back(issue(bus.vorm, kWrite, i, &words[i])));
    while (stuck && bus.sim->hanging() == 0) std::this_thread::yield();
    std::weak_ptr<VormSimBackend> const backend = bus.sim;
    bus.vorm = nullptr;
    for (size_t i = 0; i < rs.size(); ++i) {
      EXPECT_EQ(VormRequest::kStatusIssued, rs[i]->status());
      EXPECT_TRUE(recs[i].statuses.empty());
    }
    EXPECT_LE(bus.sim->transactions(), 1u) << "queued requests are dropped";
    rs[0]->stateIs(0);
    EXPECT_THAT([&] { rs[0]->stateIs(1); }, ThrowsMessage<std::runtime_error>(HasSubstr("manager is gone")));
    // An abandoned worker lets go of the bus once its transaction returns.
    bus.sim->releaseHangs();
    bus.sim = nullptr;
    for (int i = 0; i < 1000 && !backend.expired(); ++i) std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(backend.expired());
  }
}

// ---------------------------------------------------------------- the transport above it

TEST(I2cTransportVorm, WhatCannotBeServedIsRefusedBeforeAnyRequest) {
  Bus bus;
  I2cTransportVormImpl impl(bus.vorm, 0x50, nullptr, wordModel(4));
  EXPECT_THAT([&] { impl.regRead("r1"); }, ThrowsMessage<std::runtime_error>("regRead(r1) not supported"));
  EXPECT_THAT([&] { impl.regReadWithCallback("wide", nullptr); },
              ThrowsMessage<TransportError>("Unexpected width of register wide (got 64 bits, expected at most 32 bits)"));
  EXPECT_EQ(impl.sm()->i2cTransportRequestCount(), 0u);

  auto tm = TransportMethod::TransportMethodIs("chip0");
  EXPECT_THAT([&] { tm->init(i2cVormTransportDescriptorFactory(nullptr, 0x50), kDemoCsv); },
              ThrowsMessage<std::runtime_error>(
                  "descriptor of transport 'i2c/I2cVorm/I2cSmbusVorm' holds no hardware-access manager"));
  // A device address the bus cannot carry (bit 7 set): the callback reports the failure at once.
  tm->init(i2cVormTransportDescriptorFactory(bus.vorm, 0xA0), kDemoCsv);
  Outcome o;
  tm->regReadWithCallback("scratch", reader(o));
  EXPECT_EQ(o, (Outcome{1, RegCallbackStatusFailure, 0xFFFFFFFF}));
  auto const& failure = tm->errorNotifier()->lastFailure();
  EXPECT_EQ(failure.kind, TransportErrorKind::OutOfRange);
  EXPECT_EQ(bus.vorm->requestsInFlight(), 0u);
}

TEST(I2cTransportVorm, TenThousandAccessesOverFourBusesEachCompleteOnceWithTheRightValue) {
  constexpr int kBuses = 4, kAccesses = 10000, kRegs = 512;  // the written half at offsets above 0xff
  std::deque<Bus> buses;
  std::vector<Kiv::Ptr<Vorm>> vorms;
  std::vector<Kiv::Ptr<TransportMethod>> tms;
  for (int b = 0; b < kBuses; ++b) {
    auto const& sim = buses.emplace_back(20s).sim;
    sim->latencyIs(0us, 40us);
    sim->failureRateIs(0.05);
    // The low half of the registers is only read: each holds a value telling bus and register apart.
    for (U16 i = 0; i < kRegs / 2; ++i) sim->regIs(kChip, i, U32(b) << 24 | i);
    vorms.push_back(buses[b].vorm);
    tms.push_back(TransportMethod::TransportMethodIs(("chip" + std::to_string(b)).c_str()));
    tms.back()->fullInit(i2cVormTransportDescriptorFactory(vorms.back(), 0x50), TransportMethodRegFile("", wordModel(kRegs)));
  }
  struct Access {
    int bus, reg;
    bool write;
    uint32_t value;
    Outcome o;
  };
  std::vector<Access> accesses(kAccesses);
  std::mt19937 random(7);
  for (Access& a : accesses) {
    a.bus = int(random() % kBuses);
    a.write = random() % 2;
    a.reg = int(random() % (kRegs / 2)) + (a.write ? kRegs / 2 : 0);
    a.value = random();
    std::string const name = "r" + std::to_string(a.reg);
    a.write ? tms[a.bus]->regWriteWithCallback(name.c_str(), a.value, writer(a.o))
            : tms[a.bus]->regReadWithCallback(name.c_str(), reader(a.o));
  }
  runUntil(vorms, [&] { return std::all_of(accesses.begin(), accesses.end(), [](auto const& a) { return a.o.calls; }); });
  // The bus performs a bus's accesses in issue order and a NACK changes nothing, so a written
  // register ends with the value of its last successful write.
  std::vector<std::vector<uint32_t>> lastWritten(kBuses, std::vector<uint32_t>(kRegs, 0));
  int failures = 0;
  for (auto const& a : accesses) {
    ASSERT_EQ(a.o.calls, 1);
    bool const ok = a.o.status == RegCallbackStatusSuccess;
    failures += !ok;
    if (a.write && ok) lastWritten[a.bus][a.reg] = a.value;
    EXPECT_TRUE(a.write || a.o.value == (ok ? U32(a.bus) << 24 | U32(a.reg) : 0xFFFFFFFFu)) << a.reg;
  }
  for (int b = 0; b < kBuses; ++b) {
    for (int r = kRegs / 2; r < kRegs; ++r) EXPECT_EQ(buses[b].sim->reg(kChip, U16(r)), lastWritten[b][r]);
    EXPECT_EQ(dynamic_cast<I2cTransportVormImpl&>(*tms[b]->implPtr()).sm()->i2cTransportRequestCount(), 0u);
  }
  EXPECT_GT(failures, 0);
}

TEST(I2cTransportVorm, DeletingTheTransportWithAccessesInFlightRunsNoCallback) {
  Bus bus;
  bus.sim->latencyIs(50us, 200us);
  auto tm = TransportMethod::TransportMethodIs("chip0");
  tm->init(i2cVormTransportDescriptorFactory(bus.vorm, 0x50), kDemoCsv);
  int calls = 0;
  for (int i = 0; i < 400; ++i)
    tm->regReadWithCallback("scratch", [&](char const*, RegCallbackStatus, uint32_t) { ++calls; });
  tm = nullptr;
  auto const drained = [&] { return bus.vorm->requestsInFlight() == 0; };
  EXPECT_TRUE(runUntil({bus.vorm}, drained));
  EXPECT_EQ(calls, 0);

  // A callback that deletes its own transport: the other accesses in flight are dropped.
  tm = TransportMethod::TransportMethodIs("chip1");
  tm->init(i2cVormTransportDescriptorFactory(bus.vorm, 0x50), kDemoCsv);
  for (int i = 0; i < 3; ++i)
    tm->regReadWithCallback("scratch", [&](char const* name, RegCallbackStatus, uint32_t) {
      ++calls;
      EXPECT_STREQ(name, "scratch");
      tm = nullptr;
    });
  EXPECT_TRUE(runUntil({bus.vorm}, drained));
  EXPECT_EQ(calls, 1);
}

}  // namespace
