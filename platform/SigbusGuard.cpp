#include "TarnRegFile/platform/SigbusGuard.h"

#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <mutex>
#include <string>

#include <pthread.h>
#include <signal.h>

// How a guarded access works, and why jumping out of the signal handler is safe:
//
//  - The accessor saves a jump buffer on its own stack with sigsetjmp(env, 0),
//    publishes its address in a thread-local pointer, performs the one volatile
//    load or store, and clears the pointer again. Nothing else happens between
//    arming and disarming: no call, no allocation, no C++ object with a
//    destructor is created there. A jump back from the handler therefore skips
//    no destructor and leaves no half-updated state behind; the accessor simply
//    resumes at sigsetjmp's second return and reports the fault.
//  - SIGBUS from a memory access is synchronous: the kernel delivers it to the
//    thread that made the access, so the thread-local pointer read by the handler
//    is the one the faulting accessor armed.
//  - sigsetjmp(env, 0) does not record the signal mask, so arming costs no
//    sigprocmask system call. That is correct only because the handler is
//    installed with SA_NODEFER: the kernel does not add SIGBUS to the mask while
//    the handler runs, and the (empty) sa_mask adds nothing else, so the mask in
//    force when the handler jumps out is exactly the one the accessor had.
//  - The handler only reads a thread-local pointer (initial-exec model: a fixed
//    offset from the thread pointer, no lazy allocation) and calls
//    siglongjmp, sigaction, raise and pthread_sigmask, all async-signal-safe.

namespace Kiv {

SigbusException::SigbusException() : std::runtime_error("Caught SIGBUS") {}

namespace SigbusGuard {
namespace {

struct JumpTarget {
  sigjmp_buf env;
};

// The guarded access in progress on this thread, or null outside one.
[[gnu::tls_model("initial-exec")]] thread_local JumpTarget* tArmed = nullptr;

// The disposition SIGBUS had before the guard; written once before the handler
// is installed and only read afterwards.
struct sigaction gPrevious;
// Set when a previous handler installed with SA_RESETHAND has run once: the
// kernel would have restored the default action at that point.
std::atomic<bool> gPreviousWasReset{false};

std::atomic<bool> gInstalled{false};
std::atomic<bool> gAutoInstall{true};
std::once_flag gInstallOnce;

bool isAccessFault(siginfo_t const* info) noexcept {
  // Positive codes come from the kernel; a signal sent with kill() or raise()
  // has SI_USER, SI_TKILL or SI_QUEUE (zero or negative). An action-optional
  // machine-check notice arrives asynchronously and is not about our access.
  return info != nullptr && info->si_code > 0 && info->si_code != BUS_MCEERR_AO;
}

void restoreDefaultAndRedeliver(siginfo_t const* info) noexcept {
  struct sigaction dfl;
  std::memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(SIGBUS, &dfl, nullptr);
  // A faulting access is re-executed when the handler returns and now meets the
  // default action (termination with a core dump pointing at the real fault).
  // A signal sent by someone is not repeated, so it is sent again; SIGBUS is not
  // blocked here (SA_NODEFER), so it is delivered before raise returns.
  if (!isAccessFault(info)) raise(SIGBUS);
}

// Gives a bus error that is not ours to whatever handled SIGBUS before the guard.
void passOn(int sig, siginfo_t* info, void* context) noexcept {
  struct sigaction const& prev = gPrevious;
  bool const reset = gPreviousWasReset.load(std::memory_order_relaxed);
  if (reset || prev.sa_handler == SIG_DFL) {
    restoreDefaultAndRedeliver(info);
    return;
  }
  if (prev.sa_handler == SIG_IGN) {
    // The kernel does not let a real fault be ignored: it kills the process.
    if (isAccessFault(info)) restoreDefaultAndRedeliver(info);
    return;
  }
  // Run the previous handler the way the kernel would have: under its own mask,
  // with SIGBUS blocked unless it asked for SA_NODEFER.
  sigset_t mask = prev.sa_mask;
  if ((prev.sa_flags & SA_NODEFER) == 0) sigaddset(&mask, sig);
  sigset_t old;
  pthread_sigmask(SIG_BLOCK, &mask, &old);
  if (prev.sa_flags & SA_RESETHAND) gPreviousWasReset.store(true, std::memory_order_relaxed);
  if (prev.sa_flags & SA_SIGINFO)
    prev.sa_sigaction(sig, info, context);
  else
    prev.sa_handler(sig);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void onSigbus(int sig, siginfo_t* info, void* context) {
  JumpTarget* const target = tArmed;
  if (target != nullptr && isAccessFault(info)) siglongjmp(target->env, 1);
  passOn(sig, info, context);
}

void install() {
  struct sigaction previous;
  std::memset(&previous, 0, sizeof previous);
  if (sigaction(SIGBUS, nullptr, &previous) != 0)
    throw std::runtime_error(std::string("Cannot read the SIGBUS disposition: ") + std::strerror(errno));
  gPrevious = previous;

  struct sigaction mine;
  std::memset(&mine, 0, sizeof mine);
  mine.sa_sigaction = onSigbus;
  sigemptyset(&mine.sa_mask);
  mine.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK | SA_RESTART;
  if (sigaction(SIGBUS, &mine, nullptr) != 0)
    throw std::runtime_error(std::string("Cannot install the SIGBUS handler: ") + std::strerror(errno));
  gInstalled.store(true, std::memory_order_release);
}

void ensureInstalled() {
  if (!gInstalled.load(std::memory_order_acquire)) [[unlikely]]
    init();
}

[[noreturn, gnu::noinline, gnu::cold]] void throwSigbus() { throw SigbusException(); }

}  // namespace

void init() { std::call_once(gInstallOnce, install); }

bool initialized() noexcept { return gInstalled.load(std::memory_order_acquire); }

bool tryRead32(U32 const volatile* addr, U32& value) {
  ensureInstalled();
  JumpTarget target;
  JumpTarget* const outer = tArmed;  // a guarded access made by a signal handler nests
  if (sigsetjmp(target.env, 0) != 0) {
    tArmed = outer;
    return false;
  }
  tArmed = &target;
  // Compiler barriers: the access must stay between arming and disarming.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  U32 const loaded = *addr;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  tArmed = outer;
  value = loaded;
  return true;
}

bool tryWrite32(U32 volatile* addr, U32 value) {
  ensureInstalled();
  JumpTarget target;
  JumpTarget* const outer = tArmed;
  if (sigsetjmp(target.env, 0) != 0) {
    tArmed = outer;
    return false;
  }
  tArmed = &target;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  *addr = value;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  tArmed = outer;
  return true;
}

U32 guardedRead32(U32 const volatile* addr) {
  U32 value;
  if (!tryRead32(addr, value)) throwSigbus();
  return value;
}

void guardedWrite32(U32 volatile* addr, U32 value) {
  if (!tryWrite32(addr, value)) throwSigbus();
}

void autoHandlerInstallIs(bool on) noexcept { gAutoInstall.store(on, std::memory_order_relaxed); }

bool autoHandlerInstall() noexcept { return gAutoInstall.load(std::memory_order_relaxed); }

}  // namespace SigbusGuard
}  // namespace Kiv
