#pragma once

// What one long piece of work (a verification, a copy, a removal) may spend,
// and the means to end it early.
//
// The work charges the budget as it goes: each file it opens, each chunk of
// bytes it reads, and between steps a check of the clock. A charge past a
// limit, or any charge after cancel(), throws WorkAbandoned; so does every
// later charge, since a budget once spent stays spent. The work then unwinds
// as from any other failure of its own.
//
// Threads. Every member may be called from any thread at once: the threads
// hashing one tree share one budget, and the transport cancels it from its
// own thread when the client that waits for the work has gone.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "tarskel/protocol/base/Error.hpp"

namespace tarskel {

// The work was ended before it was done; the text says why.
class WorkAbandoned : public Error {
 public:
  using Error::Error;
};

struct WorkLimits {
  // Bytes read (hashed or copied), all files together: an update reads its
  // tree twice and, without reflink clones, copies it once.
  std::uint64_t bytes = std::uint64_t{4} << 30;
  // Files opened or directory entries walked.
  std::uint64_t files = 1'000'000;
  // From the budget's construction.
  std::chrono::steady_clock::duration wallTime = std::chrono::minutes(10);
};

class WorkBudget {
 public:
  // `cancelled`, when given, is the flag cancel() sets and check() reads, so
  // that whoever holds it (a connection, for every request it carries) can
  // end the work; otherwise the budget has a flag of its own.
  explicit WorkBudget(WorkLimits limits = {},
                      std::shared_ptr<std::atomic<bool>> cancelled = nullptr);
  WorkBudget(const WorkBudget&) = delete;
  WorkBudget& operator=(const WorkBudget&) = delete;

  // Counts `n` bytes read, then check()s. Throws WorkAbandoned
  // "trabajo abandonado: más de <n> bytes leídos" past the limit.
  void chargeBytes(std::uint64_t n);
  // Counts one file, then check()s. Throws WorkAbandoned
  // "trabajo abandonado: más de <n> archivos" past the limit.
  void chargeFile();
  // Throws WorkAbandoned "trabajo abandonado: el cliente se fue" after
  // cancel(), "trabajo abandonado: más de <s> s de trabajo" past the
  // wall time, or the bytes or files text once either has been exceeded.
  void check() const;
  // Ends the work at its next charge or check. Idempotent.
  void cancel() { cancelled_->store(true, std::memory_order_relaxed); }
  bool cancelled() const { return cancelled_->load(std::memory_order_relaxed); }

  const WorkLimits& limits() const { return limits_; }

 private:
  WorkLimits limits_;
  std::chrono::steady_clock::time_point deadline_;
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::uint64_t> files_{0};
  std::shared_ptr<std::atomic<bool>> cancelled_;
};

}  // namespace tarskel
