// The hardware-access manager over the chip simulator: request lifecycle, completion
// only through dispatch on the owner's thread, the descriptor, timeouts, destruction
// with requests in flight, and a load of 10,000 requests over four buses. The i2c-dev
// bus is exercised against the kernel's i2c-stub in tests/vm/Vorm_vmtest.cpp; here only
// its byte images and its refusal of a node that is not an adapter.

#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/Vorm.h"
#include "TarnRegFile/platform/VormI2cDev.h"
#include "TarnRegFile/platform/VormSim.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/VormLoop.h"

#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <poll.h>

namespace {

using TarnTest::runUntil;

using namespace std::chrono_literals;
using Hardware::SmbusAddress;
using Hardware::U7;
using Hardware::Vorm;
using Hardware::VormOp;
using Hardware::VormRequest;
using Hardware::VormSimBackend;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr auto kRead = VormOp::Opcode::read;
constexpr auto kWrite = VormOp::Opcode::write;
U7 const kChip(0x50);

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
  explicit Bus(Vorm::Duration timeout = 1s, U32 seed = 1)
      : sim(std::make_shared<VormSimBackend>(seed)), vorm(Vorm::VormIs("sim", sim, timeout)) {
    sim->chipIs(kChip);
  }
  Kiv::Ptr<VormRequest> issue(VormOp::Opcode opcode, U16 offset, U32* word, U7 peripheral = kChip) {
    auto r = vorm->newRequest();
    r->opIs(opcode, SmbusAddress(offset, peripheral, 2), word, 1, 4, 4, 0);
    r->stateIs(1);
    return r;
  }
  std::shared_ptr<VormSimBackend> sim;
  Kiv::Ptr<Vorm> vorm;
};

TEST(VormValues, RangesAndOperationArgumentsAreChecked) {
  EXPECT_THAT([] { U7(0x80); }, ThrowsMessage<Kiv::RangeException>("U7::value < 0 or > 0x7f not allowed"));
  EXPECT_THAT([] { U7(-1); }, ThrowsMessage<Kiv::RangeException>("U7::value < 0 or > 0x7f not allowed"));
  EXPECT_EQ(0x7f, U7(0x7f).value());
  EXPECT_THROW(SmbusAddress(0, kChip, 3), Kiv::RangeException);
  EXPECT_THROW(SmbusAddress(0x100, kChip, 1), Kiv::RangeException);
  EXPECT_EQ(0xffff, SmbusAddress(0xffff, kChip, 2).regOffset());

  Bus bus;
  auto r = bus.vorm->newRequest();
  U32 word = 0;
  SmbusAddress const at(0x10, kChip, 2);
  struct Case {
    U32* data;
    U32 count, size, maxTransfer, flags;
    char const* message;
  } const cases[] = {
      {nullptr, 1, 4, 4, 0, "no data word"}, {&word, 2, 4, 4, 0, "count 2"},     {&word, 1, 2, 4, 0, "size 2"},
      {&word, 1, 4, 2, 0, "maxTransfer 2"},  {&word, 1, 4, 4, 1, "unknown flags"},
  };
  for (auto const& c : cases)
    EXPECT_THAT([&] { r->opIs(kRead, at, c.data, c.count, c.size, c.maxTransfer, c.flags); },
                ThrowsMessage<std::runtime_error>(HasSubstr(c.message)));
  EXPECT_THAT([&] { r->opIs(VormOp::Opcode(2), at, &word, 1, 4, 4, 0); },
              ThrowsMessage<std::runtime_error>(HasSubstr("unknown opcode 2")));
  EXPECT_THAT([&] { r->stateIs(1); }, ThrowsMessage<std::runtime_error>(HasSubstr("without an operation")));
  EXPECT_THROW(r->stateIs(2), Kiv::RangeException);
  EXPECT_EQ(0, r->state());
  EXPECT_EQ(VormRequest::kStatusIdle, r->status());
}

TEST(Vorm, RequestsFinishOnlyThroughDispatchOnTheOwnersThread) {
  Bus bus;
  bus.sim->regIs(kChip, 0x10, 0xcafef00d);
  struct Case {
    char const* what;
    VormOp::Opcode opcode;
    U16 offset;
    U7 peripheral;
    bool nack;
    U8 status;
    U32 wordAfter;
  } const cases[] = {
      {"read", kRead, 0x10, kChip, false, VormRequest::kStatusCompleted, 0xcafef00d},
      {"write", kWrite, 0x20, kChip, false, VormRequest::kStatusCompleted, 0x11223344},
      {"NACKed read leaves the word alone", kRead, 0x10, kChip, true, VormRequest::kStatusFailed, 0x11223344},
      {"NACKed write changes nothing", kWrite, 0x21, kChip, true, VormRequest::kStatusFailed, 0x11223344},
      {"no chip at the address", kRead, 0x10, U7(0x52), false, VormRequest::kStatusFailed, 0x11223344},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    U32 word = 0x11223344;
    if (c.nack) bus.sim->nackNextIs(1);
    U64 const before = bus.sim->transactions();
    auto r = bus.vorm->newRequest();
    Recorder rec(r);
    r->opIs(c.opcode, SmbusAddress(c.offset, c.peripheral, 2), &word, 1, 4, 4, 0);
    r->stateIs(1);
    EXPECT_EQ(1, r->state());
    EXPECT_THAT(rec.statuses, ElementsAre(VormRequest::kStatusIssued));
    EXPECT_EQ(1u, bus.vorm->requestsInFlight());

    // The bus finishes on the worker; nothing reaches the request before dispatch.
    ASSERT_TRUE(readable(bus.vorm->fd(), 5000));
    while (bus.sim->transactions() == before) std::this_thread::yield();
    EXPECT_EQ(VormRequest::kStatusIssued, r->status());
    EXPECT_EQ(0x11223344u, word);

    EXPECT_EQ(1u, bus.vorm->dispatch());
    EXPECT_FALSE(readable(bus.vorm->fd(), 0)) << "dispatch drains the descriptor";
    EXPECT_EQ(0u, bus.vorm->dispatch());
    EXPECT_THAT(rec.statuses, ElementsAre(VormRequest::kStatusIssued, c.status));
    EXPECT_THAT(rec.threads, ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
    EXPECT_EQ(c.wordAfter, word);
    EXPECT_EQ(c.status == VormRequest::kStatusFailed ? ENXIO : 0, r->error());
    if (c.opcode == kWrite) {
      EXPECT_EQ(c.status == VormRequest::kStatusCompleted ? 0x11223344u : 0u, bus.sim->reg(c.peripheral, c.offset));
    }
    EXPECT_EQ(0u, bus.vorm->requestsInFlight());

    // A finished request is made idle and reused.
    EXPECT_THROW(r->opIs(kRead, SmbusAddress(0x10, kChip, 2), &word, 1, 4, 4, 0), std::runtime_error);
    r->stateIs(0);
    r->opIs(kRead, SmbusAddress(0x10, kChip, 2), &word, 1, 4, 4, 0);
    r->stateIs(1);
    EXPECT_THROW(r->stateIs(0), std::runtime_error) << "in flight";
    runUntil({bus.vorm}, [&] { return r->status() != VormRequest::kStatusIssued; });
    EXPECT_EQ(VormRequest::kStatusCompleted, r->status());
    EXPECT_EQ(0xcafef00du, word);
  }
}

TEST(Vorm, AThrowingObserverDoesNotCostTheOthersTheirCompletion) {
  Bus bus;
  struct Thrower : VormRequest::Notifiee {
    void onStatus() override {
      if (notifier()->status() >= 2) throw std::runtime_error("observer failed");
    }
  };
  U32 words[3] = {};
  std::vector<Kiv::Ptr<VormRequest>> rs;
  for (U16 i = 0; i < 3; ++i) rs.push_back(bus.issue(kRead, i, &words[i]));
  Thrower thrower;
  thrower.notifierIs(rs[0]);
  Recorder last(rs[2]);
  ASSERT_TRUE(readable(bus.vorm->fd(), 5000));
  while (bus.sim->transactions() < 3) std::this_thread::yield();
  EXPECT_THAT([&] { bus.vorm->dispatch(); }, ThrowsMessage<std::runtime_error>("observer failed"));
  for (auto const& r : rs) EXPECT_EQ(VormRequest::kStatusCompleted, r->status());
  EXPECT_THAT(last.statuses, ElementsAre(VormRequest::kStatusCompleted));
}

TEST(Vorm, AStuckBusTimesOutItsRequestsAndItsLateResultIsDiscarded) {
  Bus bus(100ms);
  bus.sim->hangNextIs(1);
  U32 a = 0xaaaa, b = 0xbbbb, c = 0;
  auto ra = bus.issue(kWrite, 0x1, &a);
  auto rb = bus.issue(kWrite, 0x2, &b);
  Recorder recA(ra), recB(rb);
  while (bus.sim->hanging() == 0) std::this_thread::yield();

  auto const issued = std::chrono::steady_clock::now();
  EXPECT_FALSE(readable(bus.vorm->fd(), 50));
  ASSERT_TRUE(readable(bus.vorm->fd(), 5000)) << "the deadline makes the descriptor readable";
  EXPECT_GE(std::chrono::steady_clock::now() - issued, 40ms);
  runUntil({bus.vorm}, [&] { return rb->status() != VormRequest::kStatusIssued; });
  EXPECT_FALSE(readable(bus.vorm->fd(), 0));
  EXPECT_THAT(recA.statuses, ElementsAre(VormRequest::kStatusTimedOut));
  EXPECT_THAT(recB.statuses, ElementsAre(VormRequest::kStatusTimedOut));
  EXPECT_EQ(ETIMEDOUT, ra->error());

  // The stuck write happens late, without a second word to its requester; the queued
  // one was given up before it started and never reaches the bus.
  bus.sim->releaseHangs();
  auto rc = bus.issue(kRead, 0x1, &c);
  runUntil({bus.vorm}, [&] { return rc->status() != VormRequest::kStatusIssued; });
  EXPECT_EQ(VormRequest::kStatusCompleted, rc->status());
  EXPECT_EQ(0xaaaau, c);
  EXPECT_EQ(0u, bus.sim->reg(kChip, 0x2));
  EXPECT_EQ(2u, bus.sim->transactions());
  EXPECT_THAT(recA.statuses, ElementsAre(VormRequest::kStatusTimedOut));
}

TEST(Vorm, DestructionWithRequestsInFlightNotifiesNobody) {
  for (bool stuck : {false, true}) {
    SCOPED_TRACE(stuck ? "worker stuck in a hang: abandoned" : "worker in a slow transaction: joined");
    Bus bus(50ms);
    if (stuck)
      bus.sim->hangNextIs(1);
    else
      bus.sim->latencyIs(20ms, 20ms);
    U32 words[4] = {};
    std::vector<Kiv::Ptr<VormRequest>> rs;
    std::vector<std::unique_ptr<Recorder>> recs;
    for (U16 i = 0; i < 4; ++i) {
      rs.push_back(bus.issue(kWrite, i, &words[i]));
      recs.push_back(std::make_unique<Recorder>(rs.back()));
    }
    while (bus.sim->hanging() == 0 && bus.sim->transactions() == 0 && stuck) std::this_thread::yield();
    std::weak_ptr<VormSimBackend> const backend = bus.sim;
    bus.vorm = nullptr;
    for (size_t i = 0; i < rs.size(); ++i) {
      EXPECT_EQ(VormRequest::kStatusIssued, rs[i]->status());
      EXPECT_TRUE(recs[i]->statuses.empty());
      EXPECT_EQ(nullptr, rs[i]->vorm());
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

TEST(Vorm, AbandonedRequestsFinishSilently) {
  Bus bus;
  bus.sim->latencyIs(5ms, 5ms);
  U32 word = 7;
  bus.issue(kRead, 0x10, &word);  // the reference is dropped at once
  EXPECT_EQ(1u, bus.vorm->requestsInFlight());
  runUntil({bus.vorm}, [&] { return bus.vorm->requestsInFlight() == 0; });
  EXPECT_EQ(7u, word);
}

TEST(Vorm, TenThousandRequestsOverFourBusesCompleteOnceEachWithTheirValue) {
  constexpr U32 kRequests = 10000;
  constexpr U32 kBuses = 4;
  std::vector<std::unique_ptr<Bus>> buses;
  std::vector<Kiv::Ptr<Vorm>> vorms;
  for (U32 b = 0; b < kBuses; ++b) {
    buses.push_back(std::make_unique<Bus>(60s, b + 1));
    buses[b]->sim->latencyIs(0us, 20us);
    buses[b]->sim->failureRateIs(0.1);
    vorms.push_back(buses[b]->vorm);
  }
  auto value = [](U32 i) { return i * 2654435761u; };
  struct Access {
    Kiv::Ptr<VormRequest> request;
    std::unique_ptr<Recorder> recorder;
    U32 word = 0;
  };
  std::vector<Access> accesses(kRequests);
  std::mt19937 random(7);
  U32 finished = 0;
  struct Counter : VormRequest::Notifiee {
    U32* finished;
    void onStatus() override { *finished += notifier()->status() >= 2; }
  };
  std::vector<Counter> counters(kRequests);
  for (U32 i = 0; i < kRequests; ++i) {
    Bus& bus = *buses[i % kBuses];
    U16 const offset = static_cast<U16>(i / kBuses);
    bool const write = random() & 1;
    if (write) {
      accesses[i].word = value(i);
    } else {
      bus.sim->regIs(kChip, offset, value(i));
      accesses[i].word = 0xdeadbeef;
    }
    auto r = accesses[i].request = bus.vorm->newRequest();
    accesses[i].recorder = std::make_unique<Recorder>(r);
    counters[i].finished = &finished;
    counters[i].notifierIs(r);
    r->opIs(write ? kWrite : kRead, SmbusAddress(offset, kChip, 2), &accesses[i].word, 1, 4, 4, 0);
    r->stateIs(1);
  }
  runUntil(vorms, [&] { return finished == kRequests; });
  ASSERT_EQ(kRequests, finished);

  U64 failures = 0;
  for (U32 i = 0; i < kRequests; ++i) {
    Access const& a = accesses[i];
    auto const& statuses = a.recorder->statuses;
    ASSERT_EQ(2u, statuses.size()) << i;
    ASSERT_TRUE(statuses[1] == VormRequest::kStatusCompleted || statuses[1] == VormRequest::kStatusFailed) << i;
    EXPECT_EQ(std::this_thread::get_id(), a.recorder->threads[1]);
    bool const ok = statuses[1] == VormRequest::kStatusCompleted;
    failures += !ok;
    U32 const chip = buses[i % kBuses]->sim->reg(kChip, static_cast<U16>(i / kBuses));
    if (a.request->op().opcode == kWrite) {
      EXPECT_EQ(ok ? value(i) : 0u, chip) << i;
    } else {
      EXPECT_EQ(ok ? value(i) : 0xdeadbeef, a.word) << i;
    }
  }
  U64 nacks = 0;
  for (auto const& b : buses) nacks += b->sim->nacks();
  EXPECT_EQ(nacks, failures);
  EXPECT_GT(failures, kRequests / 20);
  for (auto const& v : vorms) EXPECT_EQ(0u, v->requestsInFlight());
}

TEST(VormI2cDev, ByteImagesOfRegisterAccesses) {
  using namespace Hardware::vormwire;
  I2cRdwr w;
  i2cWrite(w, SmbusAddress(0x0104, kChip, 2), 0x12345678);
  ASSERT_EQ(1u, w.count);
  EXPECT_EQ(0x50, w.msgs[0].addr);
  EXPECT_EQ(0, w.msgs[0].flags);
  EXPECT_THAT(std::vector<U8>(w.msgs[0].buf, w.msgs[0].buf + w.msgs[0].len),
              ElementsAre(0x01, 0x04, 0x12, 0x34, 0x56, 0x78));
  I2cRdwr r;
  i2cRead(r, SmbusAddress(0x42, kChip, 1));
  ASSERT_EQ(2u, r.count);
  EXPECT_THAT(std::vector<U8>(r.msgs[0].buf, r.msgs[0].buf + r.msgs[0].len), ElementsAre(0x42));
  EXPECT_EQ(I2C_M_RD, r.msgs[1].flags);
  EXPECT_EQ(4, r.msgs[1].len);
  U8 const in[4] = {0xaa, 0xbb, 0xcc, 0xdd};
  std::copy(in, in + 4, r.msgs[1].buf);
  EXPECT_EQ(0xaabbccddu, i2cReadValue(r));

  SmbusRequest const bw = smbusBlockWrite(0x10, 0xdeadbeef);
  EXPECT_EQ(I2C_SMBUS_WRITE, bw.readWrite);
  EXPECT_EQ(0x10, bw.command);
  EXPECT_EQ(unsigned(I2C_SMBUS_I2C_BLOCK_DATA), bw.size);
  EXPECT_THAT(std::vector<U8>(bw.data.block, bw.data.block + 5), ElementsAre(4, 0xde, 0xad, 0xbe, 0xef));
  SmbusRequest const br = smbusBlockRead(0x10);
  EXPECT_EQ(I2C_SMBUS_READ, br.readWrite);
  EXPECT_EQ(4, br.data.block[0]);
  EXPECT_EQ(0xdeadbeefu, smbusBlockValue(bw.data));
}

TEST(VormI2cDev, ANodeThatIsNotAnAdapterIsRefusedWithItsReason) {
  EXPECT_THAT([] { Hardware::VormI2cDevBackend("/nonexistent/i2c-9"); },
              ThrowsMessage<std::runtime_error>(HasSubstr("/nonexistent/i2c-9: No such file or directory")));
  EXPECT_THAT([] { Hardware::VormI2cDevBackend("/dev/null"); },
              ThrowsMessage<std::runtime_error>(HasSubstr("functions of I2C adapter /dev/null")));
}

}  // namespace
