#pragma once
/// @file VormSim.h
/// @brief An in-process bus of simulated chips for the hardware-access manager, with
/// programmable transaction time, NACKs and hangs: what tests and benchmarks run
/// `Hardware::Vorm` on when no hardware is at hand.
///
/// Chips are added by peripheral address; each has 65536 32-bit registers (one per
/// register offset), all 0 at first and kept sparsely. An access to an address with
/// no chip is NACKed (ENXIO, what most i2c-dev adapters report for an address nobody answers).
///
/// Time. Every transaction occupies the bus for a latency drawn uniformly from
/// [min, max] (0 by default). The simulated bus serves its queue as a real one does:
/// a transaction starts when it was issued or when the previous one ended, whichever
/// is later, and ends one latency after that; the worker sleeps until that end (not
/// at all if it is already past). So the worker's wake-up delays on a busy machine
/// delay when results are reported, not the bus: a bus of 100 us transactions with
/// work queued performs 10,000 a second, and a worker that woke late catches up. A
/// hung transaction starts when it is released.
///
/// Faults, decided per transaction in this order: a pending hang (hangNextIs), then
/// a pending NACK (nackNextIs), then a random NACK (failureRateIs, from a seeded
/// generator, so a run is repeatable). A NACKed transaction changes nothing. A hung
/// transaction blocks the worker until releaseHangs(); then it completes normally.
///
/// Every member is safe to call from any thread while the worker runs.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"
#include "TarnRegFile/platform/Vorm.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>

namespace Hardware {

class TARN_API VormSimBackend : public VormBackend {
public:
  using Duration = std::chrono::steady_clock::duration;

  explicit VormSimBackend(U32 seed = 1);
  ~VormSimBackend() override;

  /// @brief Adds a chip answering at @p peripheral (its registers keep their values if it was there).
  void chipIs(U7 peripheral);
  /// @brief Removes the chip at @p peripheral: its address is NACKed from now on.
  void chipDel(U7 peripheral);

  /// @brief A register of a chip (0 if never written or no chip).
  U32 reg(U7 peripheral, U16 offset) const;
  /// @brief Sets a register of a chip directly, adding the chip if needed.
  void regIs(U7 peripheral, U16 offset, U32 value);

  /// @brief Bus time of each transaction: uniform in [@p min, @p max].
  void latencyIs(Duration min, Duration max);
  /// @brief Probability in [0, 1] that a transaction is NACKed.
  void failureRateIs(double rate);
  /// @brief The next @p count transactions are NACKed.
  void nackNextIs(U32 count);
  /// @brief The next @p count transactions hang until releaseHangs().
  void hangNextIs(U32 count);
  /// @brief Lets every hung transaction (and later ones) proceed; cancels pending hangs.
  void releaseHangs();

  /// @brief Transactions performed (completed or NACKed), not counting one in progress.
  U64 transactions() const;
  /// @brief Transactions NACKed so far.
  U64 nacks() const;
  /// @brief Transactions hanging now.
  U32 hanging() const;

  VormOutcome transfer(VormTransfer& transfer) noexcept override;
  std::string description() const override { return "simulated bus"; }

private:
  static U32 key(U7 peripheral, U16 offset) noexcept { return U32(peripheral.value()) << 16 | offset; }

  mutable std::mutex mutex_;
  std::condition_variable released_;
  std::unordered_map<U32, U32> regs_;
  bool chips_[128] = {};
  std::mt19937 random_;
  Duration latencyMin_{};
  Duration latencyMax_{};
  double failureRate_ = 0.0;
  U32 nackNext_ = 0;
  U32 hangNext_ = 0;
  U64 hangGeneration_ = 0;
  U32 hanging_ = 0;
  U64 transactions_ = 0;
  U64 nacks_ = 0;
  std::chrono::steady_clock::time_point busFreeAt_{};  // end of the previous transaction
};

}  // namespace Hardware
