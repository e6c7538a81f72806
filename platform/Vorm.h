#pragma once
/// @file Vorm.h
/// @brief The asynchronous hardware-access manager `Hardware::Vorm`: register
/// accesses handed over as requests, performed on a worker thread of their bus,
/// and finished on the owner's event loop.
///
/// One manager per bus. A manager owns one backend (the bus: an i2c-dev adapter,
/// VormI2cDev.h, or the chip simulator, VormSim.h) and one worker thread that
/// performs the bus's requests one at a time, in the order they were issued. A
/// slow or stuck bus therefore never blocks the owner; it only delays that bus's
/// own requests.
///
/// A request, from the owner's side (every call below on the owner's thread):
///
///     Ptr<VormRequest> r = vorm->newRequest();              // state 0, status 0
///     r->opIs(VormOp::Opcode::read, SmbusAddress(0x10, U7(0x50), 2), &word, 1, 4, 4, 0);
///     r->stateIs(1);                                        // issued: status 1
///     ... the loop polls vorm->fd(); when readable it calls vorm->dispatch(),
///     which copies the value read into `word` and sets status 3 (completed) or
///     2 / 4 / 5 (failed, timed out, refused), notifying r's observers.
///
/// Threads. The manager, its requests and their observers belong to the owner's
/// thread (the agent's event loop); nothing of them is touched by the worker.
/// Issuing copies the access (opcode, address, value to write) into a job of the
/// manager's queue; the worker writes its result only into manager-owned memory
/// and signals an eventfd. `dispatch()` moves results to the requests: it writes
/// the caller's data word and sets `status`, so notifications run inside
/// dispatch and nowhere else. Reference counts of the entity runtime need not be
/// atomic for any of this.
///
/// The pollable descriptor `fd()` is an epoll descriptor over that eventfd and a
/// timerfd armed at the earliest deadline: it is readable when requests have
/// finished or may have timed out. `dispatch()` drains both; calling it when
/// nothing is ready costs one read that finds nothing.
///
/// Timeouts. A request times out `timeout()` after it was issued (the same for
/// every request of the manager, so deadlines come in issue order). When a
/// dispatch runs after a deadline and the bus has not finished that request, it
/// ends with status 4 (timed out). A timed-out request that the worker had not
/// started yet is never performed; one the worker is in the middle of (a stuck
/// transaction) may still happen on the bus: its late result is discarded. So a
/// timed-out write means "not known to have happened", not "did not happen".
///
/// Abandoned requests. A request that only the manager still references when it
/// finishes (its requester dropped it) is finished silently: its data word is not
/// written and nobody is notified, because nobody can be waiting for it. A
/// requester that keeps a request must keep its data word alive until it finishes.
///
/// Destruction. When the manager's last reference goes, the worker is told to
/// stop: queued requests are dropped without being performed and the transaction
/// in progress, if any, is allowed `timeout()` to finish; then the worker is
/// joined. A worker still stuck in the backend after that is detached, not
/// killed (a thread inside an ioctl cannot be cancelled safely): it shares only
/// the queue, the eventfd and the backend with the manager, held by a shared
/// reference, so it touches nothing freed and releases them when its transaction
/// returns. Requests in flight at destruction never finish: their status stays 1
/// and no notification runs (an agent tearing the manager down is tearing down
/// their observers too). They no longer have a manager: issuing them again throws.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <chrono>
#include <memory>
#include <string>

namespace Hardware {

/// @brief A 7-bit I2C peripheral address.
class TARN_API U7 {
public:
  U7() noexcept = default;
  /// @throws Kiv::RangeException "U7::value < 0 or > 0x7f not allowed"
  explicit U7(long long value);

  U8 value() const noexcept { return value_; }
  bool operator==(U7 const&) const noexcept = default;

private:
  U8 value_ = 0;
};

/// @brief Where a register is on the bus: its register offset, the peripheral and how many
/// bytes the offset takes on the wire (1 or 2, most significant byte first).
class TARN_API SmbusAddress {
public:
  SmbusAddress() noexcept = default;
  /// @throws Kiv::RangeException when @p addressSize is not 1 or 2, or when the offset
  ///         does not fit one byte and @p addressSize is 1.
  SmbusAddress(U16 regOffset, U7 peripheral, U8 addressSize);

  U16 regOffset() const noexcept { return regOffset_; }
  U7 peripheral() const noexcept { return peripheral_; }
  U8 addressSize() const noexcept { return addressSize_; }
  bool operator==(SmbusAddress const&) const noexcept = default;

private:
  U16 regOffset_ = 0;
  U7 peripheral_;
  U8 addressSize_ = 2;
};

/// @brief One operation of a request.
///
/// The manager moves one 32-bit register per operation: `count` 1 element of
/// `size` 4 bytes, most significant byte first on the wire. `maxTransfer` is the
/// largest number of data bytes the requester allows in one bus transaction; the
/// manager never splits a register across transactions, so it must be at least
/// `size` (4: the register moves whole, in one transaction). `flags` selects
/// optional behaviours; none are defined, so it must be 0 (a requester written for
/// a manager that knows more flags is refused, not silently served without them).
struct TARN_API VormOp {
  enum class Opcode : U8 { read = 0, write = 1 };

  Opcode opcode = Opcode::read;
  SmbusAddress address;
  U32* data = nullptr;  ///< the requester's word: read from at issue (write), filled at dispatch (read)
  U32 count = 1;
  U32 size = 4;
  U32 maxTransfer = 4;
  U32 flags = 0;
};

class Vorm;
class VormLink;

/// @brief One register access through a manager (see the file comment for its life).
///
/// `state` is the requester's: 0 idle, 1 issued (setting 1 issues). `status` is the
/// manager's: 0 never issued, 1 issued and not finished, 3 completed, 2 failed on the
/// bus, 4 timed out, 5 refused (the bus cannot address the register). Every value
/// from 2 up except 3 is a failure. Both notify observers when they change.
class TARN_API VormRequest : public Kiv::Entity {
public:
  static constexpr U8 kStatusIdle = 0;
  static constexpr U8 kStatusIssued = 1;
  static constexpr U8 kStatusFailed = 2;
  static constexpr U8 kStatusCompleted = 3;
  static constexpr U8 kStatusTimedOut = 4;
  static constexpr U8 kStatusRefused = 5;

  class TARN_API Notifiee : public Kiv::Notifiee<VormRequest> {
  public:
    virtual void onState() {}
    virtual void onStatus() {}
  };

  ~VormRequest() override;

  /// @brief 0 idle, 1 issued.
  U8 state() const noexcept { return state_; }
  /// @brief Issues the request (1) or makes a finished one idle again (0) for another operation.
  /// @throws Kiv::RangeException for a value above 1
  /// @throws std::runtime_error when issuing without an operation or after the manager
  ///         has gone, or when making a request idle that is still in flight (a request
  ///         left in flight by a manager that has gone can be made idle).
  void stateIs(U8 state);

  /// @brief The manager's status of the request (see the class comment).
  U8 status() const noexcept { return status_; }
  /// @brief "idle", "issued", "failed", "completed", "timed out", "refused", or "unknown".
  static char const* statusText(U8 status) noexcept;

  /// @brief The operation (meaningful once hasOp()).
  VormOp const& op() const noexcept { return op_; }
  bool hasOp() const noexcept { return hasOp_; }
  /// @brief Sets the one operation of the request (see VormOp). Only while idle.
  /// @throws std::runtime_error for a null data pointer, an unknown opcode, a count
  ///         other than 1, a size other than 4, a maxTransfer below the size, non-zero
  ///         flags, or a request that is issued.
  void opIs(VormOp::Opcode opcode, SmbusAddress const& address, U32* data, U32 count, U32 size,
            U32 maxTransfer, U32 flags);

  /// @brief The system error number of the last failure reported by the bus, or 0.
  int error() const noexcept { return error_; }

  /// @brief The manager, or null once it has gone.
  Kiv::Ptr<Vorm> vorm() const noexcept;

  char const* fwkType() const override { return "Hardware::VormRequest"; }

private:
  friend class Vorm;
  explicit VormRequest(Kiv::Ptr<VormLink> link);
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

  void statusIs(U8 status);

  Kiv::Ptr<VormLink> link_;
  VormOp op_;
  int error_ = 0;
  U8 state_ = 0;
  U8 status_ = kStatusIdle;
  bool hasOp_ = false;
};

/// @brief Outcome of one transaction as a backend reports it.
struct VormOutcome {
  U8 status = VormRequest::kStatusCompleted;  ///< completed, failed or refused
  int error = 0;                              ///< errno value of a failure or refusal
};

/// @brief One register access as the worker hands it to the backend.
struct VormTransfer {
  VormOp::Opcode opcode = VormOp::Opcode::read;
  SmbusAddress address;
  U32 value = 0;  ///< in: the value to write; out: the value read
  std::chrono::steady_clock::time_point issued;  ///< when the requester issued it
};

/// @brief A bus. `transfer` runs on the manager's worker thread only, one call at a time;
/// everything else a backend offers must be safe to call from other threads meanwhile.
class TARN_API VormBackend {
public:
  VormBackend() = default;
  VormBackend(VormBackend const&) = delete;
  VormBackend& operator=(VormBackend const&) = delete;
  virtual ~VormBackend();

  /// @brief Performs one register access; never throws.
  virtual VormOutcome transfer(VormTransfer& transfer) noexcept = 0;
  /// @brief What the bus is, for traces ("i2c-dev /dev/i2c-0 (I2C transfers)").
  virtual std::string description() const = 0;
};

/// @brief The manager of one bus (see the file comment).
class TARN_API Vorm : public Kiv::Entity {
public:
  using Duration = std::chrono::steady_clock::duration;

  /// @brief A manager named @p name (traces, the worker thread's name) over @p backend.
  /// @throws std::runtime_error for a null backend, a timeout that is not positive, or
  ///         when the descriptors or the worker thread cannot be created.
  static Kiv::Ptr<Vorm> VormIs(Kiv::String const& name, std::shared_ptr<VormBackend> backend,
                               Duration timeout = std::chrono::seconds(1));

  /// @brief A fresh idle request of this manager.
  Kiv::Ptr<VormRequest> newRequest();

  /// @brief Readable when dispatch() has something to do; never changes.
  int fd() const noexcept;

  /// @brief Finishes every request the worker has completed and every request past its
  /// deadline, on the calling (owner's) thread: data words are written, statuses set
  /// and observers notified. Never blocks. Returns the number of requests finished.
  /// A notification that throws does not stop the others; the first exception is
  /// rethrown at the end. Called from inside one of its own notifications it returns 0.
  U32 dispatch();

  /// @brief How long a request may take from issue to its bus finishing it.
  Duration timeout() const noexcept { return timeout_; }
  /// @brief Requests issued and not finished yet.
  U32 requestsInFlight() const noexcept;
  /// @brief The bus.
  std::shared_ptr<VormBackend> const& backend() const noexcept;

  char const* fwkType() const override { return "Hardware::Vorm"; }

private:
  struct Impl;
  friend class VormRequest;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

  Vorm(Kiv::String const& name, std::shared_ptr<VormBackend> backend, Duration timeout);
  ~Vorm() override;

  void issue(VormRequest& request);

  Duration timeout_;
  std::unique_ptr<Impl> impl_;
};

/// @brief Free factory of Vorm.
TARN_API Kiv::Ptr<Vorm> vormFactory(Kiv::String const& name, std::shared_ptr<VormBackend> backend,
                                    Vorm::Duration timeout = std::chrono::seconds(1));

}  // namespace Hardware
