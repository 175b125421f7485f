#include "tarskel/protocol/base/WorkBudget.hpp"

#include <utility>

namespace tarskel {

WorkBudget::WorkBudget(WorkLimits limits, std::shared_ptr<std::atomic<bool>> cancelled)
    : limits_(limits),
      deadline_(std::chrono::steady_clock::now() + limits.wallTime),
      cancelled_(cancelled ? std::move(cancelled) : std::make_shared<std::atomic<bool>>(false)) {}

void WorkBudget::chargeBytes(std::uint64_t n) {
  bytes_.fetch_add(n, std::memory_order_relaxed);
  check();
}

void WorkBudget::chargeFile() {
  files_.fetch_add(1, std::memory_order_relaxed);
  check();
}

void WorkBudget::check() const {
  if (cancelled()) throw WorkAbandoned("trabajo abandonado: el cliente se fue");
  if (bytes_.load(std::memory_order_relaxed) > limits_.bytes) {
    throw WorkAbandoned("trabajo abandonado: más de " + std::to_string(limits_.bytes) +
                        " bytes leídos");
  }
  if (files_.load(std::memory_order_relaxed) > limits_.files) {
    throw WorkAbandoned("trabajo abandonado: más de " + std::to_string(limits_.files) +
                        " archivos");
  }
  if (std::chrono::steady_clock::now() > deadline_) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limits_.wallTime);
    throw WorkAbandoned("trabajo abandonado: más de " + std::to_string(seconds.count()) +
                        " s de trabajo");
  }
}

}  // namespace tarskel
