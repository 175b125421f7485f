#pragma once

// Progress of a long seal or verify, for people watching a terminal:
//   sealing 120/3400 files, 1.2 GB of 2.0 GB, 85.0 MB/s, 10 s left
// redrawn a few times a second on standard error, and wiped at the end.
// Nothing at all when standard error is not a terminal or under -q.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "tarskel/vendor/BundleSeal.hpp"

namespace tarskel::tool {

class Progress {
 public:
  // `tree` is walked once up front for the number of files and bytes to come.
  Progress(std::string verb, const std::filesystem::path& tree);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // The hashing settings that feed this display.
  SealHashing hashing();

 private:
  void draw(bool last);
  std::uint64_t bytesRead() const;

  std::string verb_;
  bool active_ = false;
  std::size_t totalFiles_ = 0;
  std::uint64_t totalBytes_ = 0;
  std::uint64_t startBytes_ = 0;
  std::chrono::steady_clock::time_point start_;
  std::atomic<std::size_t> files_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool done_ = false;
  std::thread drawer_;
};

}  // namespace tarskel::tool
