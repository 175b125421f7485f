#include "ContentHashing.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>

#include "tarskel/vendor/VendorHashing.hpp"

namespace tarskel {
namespace {

// More threads than this only contend for the same disk and memory bus.
constexpr unsigned kMaxThreads = 8;

unsigned threadCount(const SealHashing& hashing, std::size_t files) {
  unsigned wanted = hashing.threads;
  if (wanted == 0) wanted = std::max(1u, std::thread::hardware_concurrency());
  wanted = std::min(wanted, kMaxThreads);
  return static_cast<unsigned>(std::min<std::size_t>(wanted, std::max<std::size_t>(files, 1)));
}

class OrderedHasher {
 public:
  OrderedHasher(const std::filesystem::path& root, const std::vector<std::string>& paths,
                const SealHashing& hashing,
                const std::function<bool(std::size_t, const std::string&)>& isFailure)
      : root_(root),
        paths_(paths),
        hashing_(hashing),
        isFailure_(isFailure),
        results_(paths.size()),
        firstFailure_(paths.size()) {}

  std::vector<ContentDigest> run(unsigned threads) {
    std::vector<std::jthread> helpers;
    helpers.reserve(threads - 1);
    try {
      for (unsigned i = 1; i < threads; ++i) helpers.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
      // No more threads to be had: the ones there are do all the work.
    }
    work();
    helpers.clear();  // joins
    return std::move(results_);
  }

 private:
  void work() {
    for (;;) {
      const std::size_t i = next_.fetch_add(1);
      if (i >= paths_.size() || i > firstFailure_.load()) return;
      if (!hashOne(i)) lowerFirstFailure(i);
      reportProgress();
    }
  }

  // False when this file is a failure.
  bool hashOne(std::size_t i) {
    ContentDigest& result = results_[i];
    result.done = true;
    try {
      result.sha256 = VendorHashing::sha256HexOfFile(root_ / paths_[i], hashing_.budget);
      return !isFailure_(i, result.sha256);
    } catch (...) {
      result.error = std::current_exception();
      return false;
    }
  }

  void lowerFirstFailure(std::size_t i) {
    std::size_t seen = firstFailure_.load();
    while (i < seen && !firstFailure_.compare_exchange_weak(seen, i)) {
    }
  }

  void reportProgress() {
    if (!hashing_.progress) return;
    std::lock_guard lock(progressMutex_);
    hashing_.progress(++done_, paths_.size());
  }

  const std::filesystem::path& root_;
  const std::vector<std::string>& paths_;
  const SealHashing& hashing_;
  const std::function<bool(std::size_t, const std::string&)>& isFailure_;
  std::vector<ContentDigest> results_;  // each slot written by the one thread that claimed it
  std::atomic<std::size_t> next_{0};
  std::atomic<std::size_t> firstFailure_;
  std::mutex progressMutex_;
  std::size_t done_ = 0;  // guarded by progressMutex_
};

}  // namespace

std::vector<ContentDigest> hashContent(
    const std::filesystem::path& root, const std::vector<std::string>& paths,
    const SealHashing& hashing,
    const std::function<bool(std::size_t, const std::string&)>& isFailure) {
  OrderedHasher hasher(root, paths, hashing, isFailure);
  return hasher.run(threadCount(hashing, paths.size()));
}

}  // namespace tarskel
