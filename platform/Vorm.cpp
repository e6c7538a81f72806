#include "TarnRegFile/platform/Vorm.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/Fd.h"
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace Hardware {

// The requests' way back to their manager: cleared when the manager goes, so that a
// request outliving it learns so instead of following a dangling pointer.
class VormLink : public Kiv::PtrInterface {
public:
  explicit VormLink(Vorm* vorm) : vorm(vorm) {}
  Vorm* vorm;
};

namespace {

Kiv::TraceHandle kTrace("Hardware/Vorm");

using Clock = std::chrono::steady_clock;

char const* opcodeText(VormOp::Opcode opcode) { return opcode == VormOp::Opcode::write ? "write" : "read"; }

// A FIFO on a power-of-two array that keeps its capacity: no allocation once it has
// grown to the deepest queue seen.
template <class T>
class Ring {
public:
  bool empty() const noexcept { return size_ == 0; }
  size_t size() const noexcept { return size_; }
  T& front() noexcept { return slots_[head_]; }
  /// Makes room for one more, so that the next push cannot fail.
  void reserveOne() {
    if (size_ == slots_.size()) grow();
  }
  void push(T value) {
    reserveOne();
    slots_[(head_ + size_) & (slots_.size() - 1)] = std::move(value);
    ++size_;
  }
  T pop() noexcept {
    T value = std::move(slots_[head_]);
    slots_[head_] = T();
    head_ = (head_ + 1) & (slots_.size() - 1);
    --size_;
    return value;
  }

private:
  void grow() {
    std::vector<T> bigger(slots_.empty() ? 64 : slots_.size() * 2);
    for (size_t i = 0; i < size_; ++i) bigger[i] = std::move(slots_[(head_ + i) & (slots_.size() - 1)]);
    slots_.swap(bigger);
    head_ = 0;
  }

  std::vector<T> slots_;
  size_t head_ = 0;
  size_t size_ = 0;
};

using Kiv::Fd;

int checkedFd(int fd, char const* what, Kiv::String const& name) {
  if (fd < 0)
    throw std::runtime_error(fmt::format("Vorm {}: cannot create the {}: {}", name, what, std::strerror(errno)));
  return fd;
}

struct Job {
  U64 ticket = 0;
  VormTransfer transfer;
};

struct Done {
  U64 ticket = 0;
  VormOutcome outcome;
  U32 value = 0;
};

// What the manager shares with its worker. The worker holds it by a shared reference, so
// an abandoned worker keeps it (and the eventfd it signals) alive until it leaves.
struct Core {
  explicit Core(std::shared_ptr<VormBackend> b, std::string n) : backend(std::move(b)), name(std::move(n)) {}

  std::shared_ptr<VormBackend> const backend;
  std::string const name;
  Fd eventFd;

  std::mutex mutex;
  std::condition_variable wake;    // jobs arrived, or stop
  std::condition_variable exited;  // the worker has left its loop
  Ring<Job> pending;
  std::vector<Done> done;
  U64 abandonedUpTo = 0;  // tickets up to this one timed out: not to be performed
  bool stop = false;
  bool workerExited = false;
};

void signalEvent(int fd) {
  U64 const one = 1;
  while (::write(fd, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void workerMain(std::shared_ptr<Core> core) {
  // Process-directed signals are for the agent's own threads.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  std::string const threadName = ("vorm " + core->name).substr(0, 15);
  pthread_setname_np(pthread_self(), threadName.c_str());

  std::unique_lock lock(core->mutex);
  for (;;) {
    core->wake.wait(lock, [&] { return core->stop || !core->pending.empty(); });
    if (core->stop) break;
    Job job = core->pending.pop();
    if (job.ticket <= core->abandonedUpTo) continue;  // timed out while queued: never performed
    lock.unlock();
    VormOutcome const outcome = core->backend->transfer(job.transfer);
    lock.lock();
    bool const first = core->done.empty();
    core->done.push_back(Done{job.ticket, outcome, job.transfer.value});
    if (first) {
      // One signal per batch: the owner takes every result at once.
      lock.unlock();
      signalEvent(core->eventFd.get());
      lock.lock();
    }
  }
  core->workerExited = true;
  core->exited.notify_all();
}

struct InFlight {
  U64 ticket = 0;
  Clock::time_point deadline;
  Kiv::Ptr<VormRequest> request;
};

struct Finished {
  Kiv::Ptr<VormRequest> request;
  U8 status = 0;
  int error = 0;
  U32 value = 0;
};

}  // namespace

// ---------------------------------------------------------------- value types

U7::U7(long long value) {
  if (value < 0 || value > 0x7f) throw Kiv::RangeException("U7::value < 0 or > 0x7f not allowed");
  value_ = static_cast<U8>(value);
}

SmbusAddress::SmbusAddress(U16 regOffset, U7 peripheral, U8 addressSize)
    : regOffset_(regOffset), peripheral_(peripheral), addressSize_(addressSize) {
  if (addressSize < 1 || addressSize > 2)
    throw Kiv::RangeException("Hardware::SmbusAddress::addressSize < 1 or > 2 not allowed");
  if (addressSize == 1 && regOffset > 0xff)
    throw Kiv::RangeException("Hardware::SmbusAddress::regOffset > 0xff not allowed with a 1-byte address");
}

VormBackend::~VormBackend() = default;

// ---------------------------------------------------------------- request

VormRequest::VormRequest(Kiv::Ptr<VormLink> link) : link_(std::move(link)) {}

VormRequest::~VormRequest() = default;

char const* VormRequest::statusText(U8 status) noexcept {
  switch (status) {
    case kStatusIdle: return "idle";
    case kStatusIssued: return "issued";
    case kStatusFailed: return "failed";
    case kStatusCompleted: return "completed";
    case kStatusTimedOut: return "timed out";
    case kStatusRefused: return "refused";
    default: return "unknown";
  }
}

Kiv::Ptr<Vorm> VormRequest::vorm() const noexcept { return Kiv::Ptr<Vorm>(link_->vorm); }

void VormRequest::opIs(VormOp::Opcode opcode, SmbusAddress const& address, U32* data, U32 count, U32 size,
                       U32 maxTransfer, U32 flags) {
  if (state_ != 0) throw std::runtime_error("VormRequest::opIs: the request is issued; set its state to 0 first");
  if (opcode != VormOp::Opcode::read && opcode != VormOp::Opcode::write)
    throw std::runtime_error(fmt::format("VormRequest::opIs: unknown opcode {}", static_cast<unsigned>(opcode)));
  if (data == nullptr) throw std::runtime_error("VormRequest::opIs: no data word");
  if (count != 1) throw std::runtime_error(fmt::format("VormRequest::opIs: count {} (only 1 register per operation)", count));
  if (size != 4) throw std::runtime_error(fmt::format("VormRequest::opIs: size {} (registers are 4 bytes)", size));
  if (maxTransfer < size)
    throw std::runtime_error(fmt::format(
        "VormRequest::opIs: maxTransfer {} below size {} (a register is never split across transactions)",
        maxTransfer, size));
  if (flags != 0) throw std::runtime_error(fmt::format("VormRequest::opIs: unknown flags {:#x}", flags));
  op_ = VormOp{opcode, address, data, count, size, maxTransfer, flags};
  hasOp_ = true;
}

void VormRequest::stateIs(U8 state) {
  if (state > 1) throw Kiv::RangeException("Hardware::VormRequest::state < 0 or > 1 not allowed");
  if (state == state_) return;
  if (state == 1) {
    Vorm* const vorm = link_->vorm;
    if (vorm == nullptr)
      throw std::runtime_error("VormRequest: its hardware-access manager is gone; the request cannot be issued");
    if (!hasOp_) throw std::runtime_error("VormRequest: issued without an operation (opIs first)");
    vorm->issue(*this);  // queued, or an exception with nothing changed
    // Both attributes change before anyone hears of either; a throwing observer does
    // not keep the other attribute's observers uninformed.
    bool const statusChanges = status_ != kStatusIssued;
    state_ = 1;
    status_ = kStatusIssued;
    error_ = 0;
    std::exception_ptr first;
    try {
      notify<Notifiee>([](Notifiee& n) { n.onState(); });
    } catch (...) {
      first = std::current_exception();
    }
    if (statusChanges) {
      try {
        notify<Notifiee>([](Notifiee& n) { n.onStatus(); });
      } catch (...) {
        if (!first) first = std::current_exception();
      }
    }
    if (first) std::rethrow_exception(first);
    return;
  }
  if (status_ == kStatusIssued && link_->vorm != nullptr)
    throw std::runtime_error("VormRequest: still in flight; it can be made idle once it has finished");
  state_ = 0;
  notify<Notifiee>([](Notifiee& n) { n.onState(); });
}

void VormRequest::statusIs(U8 status) {
  if (status == status_) return;
  status_ = status;
  notify<Notifiee>([](Notifiee& n) { n.onStatus(); });
}

// ---------------------------------------------------------------- manager

struct Vorm::Impl {
  std::shared_ptr<Core> core;
  std::thread worker;
  Kiv::Ptr<VormLink> link;
  Fd epollFd;
  Fd timerFd;
  Ring<InFlight> inFlight;     // issue order, which is also the order the worker finishes them
  std::vector<Done> taken;     // swapped with core->done, keeps its capacity
  std::vector<Finished> batch;  // what one dispatch delivers
  U64 nextTicket = 1;
  U64 abandonedUpTo = 0;
  Clock::time_point timerExpiry;
  bool timerArmed = false;
  bool dispatching = false;

  void armTimer(Clock::time_point when, bool on) {
    itimerspec timer{};
    if (on) {
      auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
      timer.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
      timer.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
      if (timer.it_value.tv_sec == 0 && timer.it_value.tv_nsec == 0) timer.it_value.tv_nsec = 1;
    }
    // Re-arming (or disarming) also clears an expiry nobody has read: the descriptor
    // stops being readable for a deadline that has been dealt with.
    ::timerfd_settime(timerFd.get(), TFD_TIMER_ABSTIME, &timer, nullptr);
    timerArmed = on;
    timerExpiry = when;
  }
};

Vorm::Vorm(Kiv::String const& name, std::shared_ptr<VormBackend> backend, Duration timeout)
    : Kiv::Entity(name), timeout_(timeout), impl_(std::make_unique<Impl>()) {
  if (!backend) throw std::runtime_error(fmt::format("Vorm {}: no backend", name));
  if (timeout <= Duration::zero()) throw std::runtime_error(fmt::format("Vorm {}: the timeout must be positive", name));
  Impl& m = *impl_;
  m.core = std::make_shared<Core>(std::move(backend), std::string(name.c_str()));
  m.core->eventFd = Fd(checkedFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd", name));
  m.timerFd = Fd(checkedFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd", name));
  m.epollFd = Fd(checkedFd(::epoll_create1(EPOLL_CLOEXEC), "epoll descriptor", name));
  for (int fd : {m.core->eventFd.get(), m.timerFd.get()}) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (::epoll_ctl(m.epollFd.get(), EPOLL_CTL_ADD, fd, &ev) != 0)
      throw std::runtime_error(fmt::format("Vorm {}: epoll_ctl: {}", name, std::strerror(errno)));
  }
  m.link = Kiv::Ptr<VormLink>(new VormLink(this));
  try {
    m.worker = std::thread(workerMain, m.core);
  } catch (std::system_error const& e) {
    throw std::runtime_error(fmt::format("Vorm {}: cannot start the worker thread: {}", name, e.what()));
  }
  kTrace.line(1, "Vorm {}: worker started on {}, timeout {} us", name, m.core->backend->description(),
              std::chrono::duration_cast<std::chrono::microseconds>(timeout).count());
}

Vorm::~Vorm() {
  Impl& m = *impl_;
  m.link->vorm = nullptr;
  Core& core = *m.core;
  bool stuck;
  {
    std::unique_lock lock(core.mutex);
    core.stop = true;
    core.wake.notify_all();
    stuck = !core.exited.wait_for(lock, timeout_, [&] { return core.workerExited; });
  }
  if (stuck) {
    kTrace.line(0, "Vorm {}: the worker is stuck in a transaction on {}; abandoned", name(),
                core.backend->description());
    m.worker.detach();
  } else {
    m.worker.join();
  }
  if (!m.inFlight.empty())
    kTrace.line(1, "Vorm {}: destroyed with {} request(s) in flight; they never finish", name(), m.inFlight.size());
  // The requests in flight are released without a notification (see the file comment).
}

Kiv::Ptr<Vorm> Vorm::VormIs(Kiv::String const& name, std::shared_ptr<VormBackend> backend, Duration timeout) {
  return Kiv::create<Vorm>(name, std::move(backend), timeout);
}

Kiv::Ptr<Vorm> vormFactory(Kiv::String const& name, std::shared_ptr<VormBackend> backend, Vorm::Duration timeout) {
  return Vorm::VormIs(name, std::move(backend), timeout);
}

Kiv::Ptr<VormRequest> Vorm::newRequest() { return Kiv::create<VormRequest>(impl_->link); }

int Vorm::fd() const noexcept { return impl_->epollFd.get(); }

U32 Vorm::requestsInFlight() const noexcept { return static_cast<U32>(impl_->inFlight.size()); }

std::shared_ptr<VormBackend> const& Vorm::backend() const noexcept { return impl_->core->backend; }

void Vorm::issue(VormRequest& request) {
  Impl& m = *impl_;
  VormOp const& op = request.op_;
  U64 const ticket = m.nextTicket;
  Clock::time_point const now = Clock::now();
  Clock::time_point const deadline = now + timeout_;
  // The requester's word is read here, on its thread; the worker sees only the copy.
  Job job{ticket, VormTransfer{op.opcode, op.address, op.opcode == VormOp::Opcode::write ? *op.data : 0, now}};
  // Room first, so that a job once queued always has its book entry.
  m.inFlight.reserveOne();
  {
    std::lock_guard lock(m.core->mutex);
    m.core->pending.push(std::move(job));
  }
  m.core->wake.notify_one();
  m.inFlight.push(InFlight{ticket, deadline, Kiv::Ptr<VormRequest>(&request)});
  ++m.nextTicket;
  if (!m.timerArmed) m.armTimer(deadline, true);
}

U32 Vorm::dispatch() {
  Impl& m = *impl_;
  if (m.dispatching) return 0;
  Kiv::Ptr<Vorm> const self(this);  // a notification may drop the owner's last reference
  m.dispatching = true;
  struct Reset {
    bool& flag;
    ~Reset() { flag = false; }
  } const reset{m.dispatching};

  U64 events;
  while (::read(m.core->eventFd.get(), &events, sizeof events) < 0 && errno == EINTR) {
  }
  // Read before taking the results: a request the worker has not finished by the time
  // they are taken had not finished at `now` either.
  Clock::time_point const now = Clock::now();
  {
    std::lock_guard lock(m.core->mutex);
    m.taken.swap(m.core->done);
  }
  for (Done const& d : m.taken) {
    if (d.ticket <= m.abandonedUpTo) {
      kTrace.line(2, "Vorm {}: late result of timed-out request {} discarded ({})", name(), d.ticket,
                  VormRequest::statusText(d.outcome.status));
      continue;
    }
    KIV_ASSERT(kTrace, !m.inFlight.empty() && m.inFlight.front().ticket == d.ticket)
        << "Vorm " << name() << ": result of request " << d.ticket << " does not match the oldest in flight";
    m.batch.push_back(Finished{m.inFlight.pop().request, d.outcome.status, d.outcome.error, d.value});
  }
  m.taken.clear();
  U64 const abandonedBefore = m.abandonedUpTo;
  while (!m.inFlight.empty() && m.inFlight.front().deadline <= now) {
    InFlight f = m.inFlight.pop();
    m.abandonedUpTo = f.ticket;
    m.batch.push_back(Finished{std::move(f.request), VormRequest::kStatusTimedOut, ETIMEDOUT, 0});
  }
  if (m.abandonedUpTo != abandonedBefore) {
    std::lock_guard lock(m.core->mutex);
    m.core->abandonedUpTo = m.abandonedUpTo;
  }
  if (m.timerArmed && now >= m.timerExpiry) {
    if (m.inFlight.empty())
      m.armTimer(Clock::time_point(), false);
    else
      m.armTimer(m.inFlight.front().deadline, true);
  }

  // Delivery last: observers may issue new requests or make these idle meanwhile.
  std::vector<Finished> batch;
  batch.swap(m.batch);
  std::exception_ptr first;
  U32 finished = 0;
  for (Finished& f : batch) {
    VormRequest& r = *f.request;
    ++finished;
    if (f.status != VormRequest::kStatusCompleted)
      kTrace.line(1, "Vorm {}: {} of offset {:#x} at peripheral {:#x} {}: {}", name(), opcodeText(r.op_.opcode),
                  r.op_.address.regOffset(), r.op_.address.peripheral().value(), VormRequest::statusText(f.status),
                  std::strerror(f.error));
    if (f.request->references() == 1) continue;  // the requester let go: nobody to tell
    if (f.status == VormRequest::kStatusCompleted && r.op_.opcode == VormOp::Opcode::read) *r.op_.data = f.value;
    r.error_ = f.error;
    try {
      r.statusIs(f.status);
    } catch (...) {
      if (!first)
        first = std::current_exception();
      else
        kTrace.line(0, "Vorm {}: another observer of a finished request failed as well", name());
    }
  }
  batch.clear();
  if (m.batch.empty()) batch.swap(m.batch);  // keep the capacity for the next dispatch
  if (first) std::rethrow_exception(first);
  return finished;
}

}  // namespace Hardware
