// The asynchronous I2C transport over the hardware-access manager's chip simulator:
// what reaches the bus, outcomes by status, callbacks only from dispatch on the owner's
// thread, the device address check, construction through TransportMethod, a load of
// 10,000 accesses over four buses, and deletion with accesses in flight.

#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/Trace.h"
#include "TarnRegFile/platform/Vorm.h"
#include "TarnRegFile/platform/VormSim.h"

#include "TarnRegFile/I2cTransportVormImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/VormLoop.h"

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>

namespace {

using TarnTest::runUntil;

using namespace std::chrono_literals;
using namespace TarnRegFile;
using Hardware::U7;
using Hardware::Vorm;
using Hardware::VormOp;
using Hardware::VormRequest;
using Hardware::VormSimBackend;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;
using ::testing::ThrowsMessage;

std::string const kDemoCsv = TARN_SOURCE_DIR "/examples/maps/demo_chip.csv";
U7 const kChip(0x50);

// One register per 4-byte word, "r0" at 0 up to "r<count-1>", plus "wide" (64 bits).
Kiv::Ptr<HardwareRegisterFile> wordModel(U32 count) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("words");
  for (U32 i = 0; i < count; ++i)
    model->registerIs({Kiv::String(("r" + std::to_string(i)).c_str()), HardwareRegisterType::cfg, true, i * 4, 32, 32});
  model->registerIs({"wide", HardwareRegisterType::cfg, true, count * 4, 64, 32});
  return model;
}


// The simulator, recording every transfer that reaches it.
class RecordingSim : public VormSimBackend {
public:
  Hardware::VormOutcome transfer(Hardware::VormTransfer& t) noexcept override {
    {
      std::lock_guard lock(mutex_);
      seen_.push_back(t);
    }
    return VormSimBackend::transfer(t);
  }
  std::vector<Hardware::VormTransfer> seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }

private:
  mutable std::mutex mutex_;
  std::vector<Hardware::VormTransfer> seen_;
};

struct Outcome {
  int calls = 0;
  RegCallbackStatus status{};
  uint32_t value = 0;
  std::thread::id thread;
};

RegReadCallback reader(Outcome& o) {
  return [&o](char const*, RegCallbackStatus s, uint32_t v) {
    ++o.calls;
    o.status = s;
    o.value = v;
    o.thread = std::this_thread::get_id();
  };
}

RegWriteCallback writer(Outcome& o) {
  return [&o](char const*, RegCallbackStatus s) {
    ++o.calls;
    o.status = s;
    o.thread = std::this_thread::get_id();
  };
}

struct Rig {
  explicit Rig(U32 devId = 0x50, Vorm::Duration timeout = 1s)
      : sim(std::make_shared<RecordingSim>()),
        vorm(Vorm::VormIs("sim", sim, timeout)),
        impl(std::make_unique<I2cTransportVormImpl>(vorm, devId, kDemoCsv.c_str(), nullptr)) {
    sim->chipIs(kChip);
  }
  size_t outstanding() const { return impl->sm()->i2cTransportRequestCount(); }
  void runUntilCalled(std::vector<Outcome const*> const& os) {
    runUntil({vorm}, [&] {
      for (auto const* o : os)
        if (o->calls == 0) return false;
      return true;
    });
  }
  std::shared_ptr<RecordingSim> sim;
  Kiv::Ptr<Vorm> vorm;
  std::unique_ptr<I2cTransportVormImpl> impl;
};

TEST(I2cTransportVorm, ReadReachesTheBusAsOneRequestAndCompletesFromDispatchOnly) {
  Rig rig;
  rig.sim->regIs(kChip, 0x10, 0xCAFE0004);
  Outcome o;
  Kiv::TraceCapture cap("TarnRegFile/I2cTransportVormImplSm");
  rig.impl->regReadWithCallback("i2c_mux_select", reader(o));  // number 16: byte address 0x40
  // Issuing notified status 1, which is not an end: the entry stays.
  EXPECT_EQ(rig.outstanding(), 1u);
  EXPECT_EQ(rig.vorm->requestsInFlight(), 1u);
  pollfd ready{rig.vorm->fd(), POLLIN, 0};
  ASSERT_EQ(::poll(&ready, 1, 5000), 1);
  EXPECT_EQ(rig.sim->transactions(), 1u);
  EXPECT_EQ(o.calls, 0) << "the bus has finished; the completion waits for dispatch";

  rig.runUntilCalled({&o});
  EXPECT_EQ(o.calls, 1);
  EXPECT_EQ(o.status, RegCallbackStatusSuccess);
  EXPECT_EQ(o.value, 0xCAFE0004u) << "the whole word as the bus delivered it";
  EXPECT_EQ(o.thread, std::this_thread::get_id());
  EXPECT_EQ(rig.outstanding(), 0u);
  auto const seen = rig.sim->seen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].opcode, VormOp::Opcode::read);
  EXPECT_EQ(seen[0].address, Hardware::SmbusAddress(0x10, kChip, 2));
  EXPECT_TRUE(cap.contains(
      "I2cTransportVormImplSm::onStatus read with callback success reg: i2c_mux_select value: 3405643780", 5));
}

TEST(I2cTransportVorm, OnlyTheLowSevenBitsOfDevIdAddressThePeripheral) {
  // 0x150 and 0xFF50: bits above the low byte are ignored. 0x80 and 0xD0: bit 7 of the low
  // byte is refused at issue, after the entry was added.
  for (U32 const devId : {0x150u, 0xFF50u}) {
    Rig rig(devId);
    Outcome o;
    rig.impl->regWriteWithCallback("scratch", 0x12345678, writer(o));  // number 2: offset 2
    rig.runUntilCalled({&o});
    EXPECT_EQ(o.status, RegCallbackStatusSuccess);
    EXPECT_EQ(rig.sim->reg(kChip, 2), 0x12345678u);
    ASSERT_EQ(rig.sim->seen().size(), 1u);
    EXPECT_EQ(rig.sim->seen()[0].opcode, VormOp::Opcode::write);
    EXPECT_EQ(rig.sim->seen()[0].address, Hardware::SmbusAddress(2, kChip, 2));
  }
  for (U32 const devId : {0x80u, 0xD0u}) {
    Rig rig(devId);
    Outcome o;
    EXPECT_THAT([&] { rig.impl->regReadWithCallback("scratch", reader(o)); },
                ThrowsMessage<Kiv::RangeException>("U7::value < 0 or > 0x7f not allowed"));
    EXPECT_EQ(rig.outstanding(), 1u);
    EXPECT_EQ(rig.vorm->requestsInFlight(), 0u);
    rig.impl->sm()->i2cTransportRequestDelAll();
    EXPECT_EQ(rig.outstanding(), 0u);
    EXPECT_EQ(o.calls, 0);
  }
}

TEST(I2cTransportVorm, OutcomeFollowsTheFinalStatus) {
  // 3: outcome 1 and the data word; 2 (NACK) and 4 (timed out): outcome 2 and 0xFFFFFFFF for
  // reads, outcome 2 for writes. Every access to one register is a request of its own.
  Rig rig(0x50, 200ms);
  rig.sim->regIs(kChip, 2, 0x0BADF00D);
  Kiv::TraceCapture cap("TarnRegFile/I2cTransportVormImplSm");
  Outcome ok, again, nacked, nackedWrite;
  rig.impl->regReadWithCallback("scratch", reader(ok));
  rig.impl->regReadWithCallback("scratch", reader(again));
  rig.runUntilCalled({&ok, &again});
  rig.sim->nackNextIs(2);
  rig.impl->regReadWithCallback("scratch", reader(nacked));
  rig.impl->regWriteWithCallback("scratch", 7, writer(nackedWrite));
  rig.runUntilCalled({&nacked, &nackedWrite});
  rig.sim->hangNextIs(1);
  Outcome timedOut;
  rig.impl->regReadWithCallback("scratch", reader(timedOut));
  rig.runUntilCalled({&timedOut});
  rig.sim->releaseHangs();

  for (Outcome const* o : {&ok, &again}) {
    EXPECT_EQ(o->calls, 1);
    EXPECT_EQ(o->status, RegCallbackStatusSuccess);
    EXPECT_EQ(o->value, 0x0BADF00Du);
  }
  for (Outcome const* o : {&nacked, &timedOut}) {
    EXPECT_EQ(o->calls, 1);
    EXPECT_EQ(o->status, RegCallbackStatusFailure);
    EXPECT_EQ(o->value, 0xFFFFFFFFu);
  }
  EXPECT_EQ(nackedWrite.calls, 1);
  EXPECT_EQ(nackedWrite.status, RegCallbackStatusFailure);
  EXPECT_EQ(rig.sim->reg(kChip, 2), 0x0BADF00Du);
  EXPECT_EQ(rig.outstanding(), 0u);
  EXPECT_EQ(cap.count("I2cTransportVormImplSm::onStatus read with callback fail reg: scratch"), 2u);
  EXPECT_EQ(cap.count("read with callback success reg: scratch value: 195948557"), 2u);
}

TEST(I2cTransportVorm, RefusesSynchronousAccessesWideRegistersAndUnknownNamesBeforeAnyRequest) {
  auto sim = std::make_shared<VormSimBackend>();
  auto vorm = Vorm::VormIs("sim", sim);
  I2cTransportVormImpl impl(vorm, 0x50, nullptr, wordModel(4));
  EXPECT_THAT([&] { impl.regRead("r1"); }, ThrowsMessage<std::runtime_error>("regRead(r1) not supported"));
  EXPECT_THAT([&] { impl.regWrite("r1", 5); }, ThrowsMessage<std::runtime_error>("regWrite(r1, 5) not supported"));
  EXPECT_THAT([&] { impl.regReadWithCallback("wide", nullptr); },
              ThrowsMessage<TransportError>("Unexpected width of register wide (got 64 bits, expected at most 32 bits)"));
  EXPECT_THROW(impl.regWriteWithCallback("nope", 1, nullptr), LookupError);
  EXPECT_EQ(impl.sm()->i2cTransportRequestCount(), 0u);
  EXPECT_EQ(vorm->requestsInFlight(), 0u);
  EXPECT_THAT([] { I2cTransportVormImpl(nullptr, 0x50, nullptr, wordModel(1)); },
              ThrowsMessage<std::runtime_error>("I2cTransportVormImpl needs a hardware-access manager"));
}

TEST(I2cTransportVorm, BuiltThroughTransportMethodWhichReportsItsFailures) {
  auto sim = std::make_shared<VormSimBackend>();
  sim->chipIs(kChip);
  auto vorm = Vorm::VormIs("sim", sim);
  auto tm = TransportMethod::TransportMethodIs("chip0");
  EXPECT_THAT([&] { tm->init(i2cVormTransportDescriptorFactory(nullptr, 0x50), kDemoCsv); },
              ThrowsMessage<std::runtime_error>(
                  "descriptor of transport 'i2c/I2cVorm/I2cSmbusVorm' holds no hardware-access manager"));
  tm->init(i2cVormTransportDescriptorFactory(vorm, 0x50), kDemoCsv);
  ASSERT_NE(dynamic_cast<I2cTransportVormImpl*>(tm->implPtr()), nullptr);
  EXPECT_EQ(tm->regRead("scratch"), 0xFFFFFFFFu);
  EXPECT_EQ(tm->errorNotifier()->lastFailure().reason, "regRead(scratch) not supported");

  // A device address the bus cannot carry: the callback reports the failure at once.
  auto bad = TransportMethod::TransportMethodIs("chip1");
  bad->init(i2cVormTransportDescriptorFactory(vorm, 0xA0), kDemoCsv);
  Outcome o;
  bad->regReadWithCallback("scratch", reader(o));
  EXPECT_EQ(o.calls, 1);
  EXPECT_EQ(o.status, RegCallbackStatusFailure);
  EXPECT_EQ(bad->errorNotifier()->lastFailure().kind, TransportErrorKind::OutOfRange);

  Outcome w, r;
  tm->regWriteWithCallback("scratch", 0xA5A5, writer(w));
  tm->regReadWithCallback("scratch", reader(r));
  runUntil({vorm}, [&] { return r.calls > 0; });
  EXPECT_EQ(w.calls, 1);
  EXPECT_EQ(w.status, RegCallbackStatusSuccess);
  EXPECT_EQ(r.value, 0xA5A5u);
}

TEST(I2cTransportVorm, TenThousandAccessesOverFourBusesEachCompleteOnceWithTheRightValue) {
  constexpr int kBuses = 4, kAccesses = 10000, kRegs = 256;
  std::vector<std::shared_ptr<VormSimBackend>> sims;
  std::vector<Kiv::Ptr<Vorm>> vorms;
  std::vector<Kiv::Ptr<TransportMethod>> tms;
  auto const model = wordModel(kRegs);
  for (int b = 0; b < kBuses; ++b) {
    auto sim = std::make_shared<VormSimBackend>(b + 1);
    sim->chipIs(kChip);
    sim->latencyIs(0us, 40us);
    sim->failureRateIs(0.05);
    // The low half of the registers is only read: each holds a value telling bus and register apart.
    for (U16 i = 0; i < kRegs / 2; ++i) sim->regIs(kChip, i, U32(b) << 24 | i);
    sims.push_back(sim);
    vorms.push_back(Vorm::VormIs("sim" + std::to_string(b), sim, 20s));
    tms.push_back(TransportMethod::TransportMethodIs(("chip" + std::to_string(b)).c_str()));
    tms.back()->fullInit(i2cVormTransportDescriptorFactory(vorms.back(), 0x50), TransportMethodRegFile("", model));
  }
  struct Access {
    int bus, reg;
    bool write;
    uint32_t value;
    Outcome o;
  };
  std::vector<Access> accesses(kAccesses);
  std::mt19937 random(7);
  for (int i = 0; i < kAccesses; ++i) {
    Access& a = accesses[i];
    a.bus = int(random() % kBuses);
    a.write = random() % 2;
    a.reg = int(random() % (kRegs / 2)) + (a.write ? kRegs / 2 : 0);
    a.value = random();
    std::string const name = "r" + std::to_string(a.reg);
    if (a.write)
      tms[a.bus]->regWriteWithCallback(name.c_str(), a.value, writer(a.o));
    else
      tms[a.bus]->regReadWithCallback(name.c_str(), reader(a.o));
  }
  int done = 0;
  runUntil(vorms, [&] {
    done = 0;
    for (auto const& a : accesses) done += a.o.calls;
    return done >= kAccesses;
  });
  // The bus performs a bus's accesses in issue order and a NACK changes nothing, so a written
  // register ends with the value of its last successful write.
  std::vector<std::vector<uint32_t>> lastWritten(kBuses, std::vector<uint32_t>(kRegs, 0));
  int failures = 0;
  for (auto const& a : accesses) {
    ASSERT_EQ(a.o.calls, 1);
    if (a.o.status == RegCallbackStatusFailure) {
      ++failures;
      if (!a.write) {
        EXPECT_EQ(a.o.value, 0xFFFFFFFFu);
      }
    } else if (a.write) {
      lastWritten[a.bus][a.reg] = a.value;
    } else {
      EXPECT_EQ(a.o.value, U32(a.bus) << 24 | U32(a.reg));
    }
  }
  for (int b = 0; b < kBuses; ++b) {
    for (int r = kRegs / 2; r < kRegs; ++r) EXPECT_EQ(sims[b]->reg(kChip, U16(r)), lastWritten[b][r]);
    EXPECT_EQ(dynamic_cast<I2cTransportVormImpl&>(*tms[b]->implPtr()).sm()->i2cTransportRequestCount(), 0u);
  }
  EXPECT_GT(failures, 0);
  EXPECT_LT(failures, kAccesses / 10);
}

TEST(I2cTransportVorm, DeletingTheTransportWithAccessesInFlightRunsNoCallback) {
  auto sim = std::make_shared<VormSimBackend>();
  sim->chipIs(kChip);
  sim->latencyIs(50us, 200us);
  auto vorm = Vorm::VormIs("sim", sim);
  auto tm = TransportMethod::TransportMethodIs("chip0");
  tm->init(i2cVormTransportDescriptorFactory(vorm, 0x50), kDemoCsv);
  int calls = 0;
  for (int i = 0; i < 200; ++i) {
    tm->regReadWithCallback("scratch", [&](char const*, RegCallbackStatus, uint32_t) { ++calls; });
    tm->regWriteWithCallback("scratch", U32(i), [&](char const*, RegCallbackStatus) { ++calls; });
  }
  tm = nullptr;
  runUntil({vorm}, [&] { return vorm->requestsInFlight() == 0; });
  EXPECT_EQ(vorm->requestsInFlight(), 0u);
  EXPECT_EQ(calls, 0);

  // A callback that deletes its own transport: the other accesses in flight are dropped.
  auto self = TransportMethod::TransportMethodIs("chip1");
  self->init(i2cVormTransportDescriptorFactory(vorm, 0x50), kDemoCsv);
  for (int i = 0; i < 3; ++i)
    self->regReadWithCallback("scratch", [&](char const* name, RegCallbackStatus, uint32_t) {
      ++calls;
      EXPECT_STREQ(name, "scratch");
      self = nullptr;
    });
  runUntil({vorm}, [&] { return vorm->requestsInFlight() == 0; });
  EXPECT_EQ(calls, 1);
}

}  // namespace
