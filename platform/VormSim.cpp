#include "TarnRegFile/platform/VormSim.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include <sys/prctl.h>

namespace Hardware {
namespace {

using Clock = std::chrono::steady_clock;

// Sleeps until @p when on CLOCK_MONOTONIC (the steady clock's). The default timer
// slack of 50 us would stretch every 100 us transaction by half: the worker that
// runs the simulator asks for precise wake-ups.
void sleepUntil(Clock::time_point when) {
  thread_local bool const precise = ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL) == 0;
  (void)precise;
  auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
  timespec ts{};
  ts.tv_sec = static_cast<time_t>(ns / 1000000000);
  ts.tv_nsec = static_cast<long>(ns % 1000000000);
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

}  // namespace

VormSimBackend::VormSimBackend(U32 seed) : random_(seed) {}

VormSimBackend::~VormSimBackend() = default;

void VormSimBackend::chipIs(U7 peripheral) {
  std::lock_guard lock(mutex_);
  chips_[peripheral.value()] = true;
}

void VormSimBackend::chipDel(U7 peripheral) {
  std::lock_guard lock(mutex_);
  chips_[peripheral.value()] = false;
}

U32 VormSimBackend::reg(U7 peripheral, U16 offset) const {
  std::lock_guard lock(mutex_);
  auto const it = regs_.find(key(peripheral, offset));
  return it == regs_.end() ? 0 : it->second;
}

void VormSimBackend::regIs(U7 peripheral, U16 offset, U32 value) {
  std::lock_guard lock(mutex_);
  chips_[peripheral.value()] = true;
  regs_[key(peripheral, offset)] = value;
}

void VormSimBackend::latencyIs(Duration min, Duration max) {
  std::lock_guard lock(mutex_);
  latencyMin_ = min < Duration::zero() ? Duration::zero() : min;
  latencyMax_ = max < latencyMin_ ? latencyMin_ : max;
}

void VormSimBackend::failureRateIs(double rate) {
  std::lock_guard lock(mutex_);
  failureRate_ = rate < 0.0 ? 0.0 : rate > 1.0 ? 1.0 : rate;
}

void VormSimBackend::nackNextIs(U32 count) {
  std::lock_guard lock(mutex_);
  nackNext_ = count;
}

void VormSimBackend::hangNextIs(U32 count) {
  std::lock_guard lock(mutex_);
  hangNext_ = count;
}

void VormSimBackend::releaseHangs() {
  std::lock_guard lock(mutex_);
  hangNext_ = 0;
  ++hangGeneration_;
  released_.notify_all();
}

U64 VormSimBackend::transactions() const {
  std::lock_guard lock(mutex_);
  return transactions_;
}

U64 VormSimBackend::nacks() const {
  std::lock_guard lock(mutex_);
  return nacks_;
}

U32 VormSimBackend::hanging() const {
  std::lock_guard lock(mutex_);
  return hanging_;
}

VormOutcome VormSimBackend::transfer(VormTransfer& t) noexcept {
  std::unique_lock lock(mutex_);
  if (hangNext_ > 0) {
    --hangNext_;
    ++hanging_;
    U64 const generation = hangGeneration_;
    released_.wait(lock, [&] { return hangGeneration_ != generation; });
    --hanging_;
    busFreeAt_ = std::max(busFreeAt_, Clock::now());
  }
  bool nack = false;
  if (nackNext_ > 0) {
    --nackNext_;
    nack = true;
  } else if (failureRate_ > 0.0) {
    nack = std::uniform_real_distribution<double>(0.0, 1.0)(random_) < failureRate_;
  }
  Duration latency = latencyMin_;
  if (latencyMax_ > latencyMin_)
    latency = Duration(std::uniform_int_distribution<Duration::rep>(latencyMin_.count(), latencyMax_.count())(random_));
  if (latency > Duration::zero()) {
    // A bus serving its queue: the transaction starts when it was issued or when the
    // previous one ended, whichever is later, however late the worker woke.
    Clock::time_point const start = std::max(t.issued, busFreeAt_);
    busFreeAt_ = start + latency;
    Clock::time_point const end = busFreeAt_;
    lock.unlock();
    sleepUntil(end);
    lock.lock();
  }
  ++transactions_;
  U7 const peripheral = t.address.peripheral();
  if (nack || !chips_[peripheral.value()]) {
    ++nacks_;
    return VormOutcome{VormRequest::kStatusFailed, ENXIO};
  }
  U32 const k = key(peripheral, t.address.regOffset());
  if (t.opcode == VormOp::Opcode::write) {
    regs_[k] = t.value;
  } else {
    auto const it = regs_.find(k);
    t.value = it == regs_.end() ? 0 : it->second;
  }
  return VormOutcome{VormRequest::kStatusCompleted, 0};
}

}  // namespace Hardware
