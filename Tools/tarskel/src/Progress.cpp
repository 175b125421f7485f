#include "Progress.hpp"

#include <fmt/format.h>

#include <cstdio>
#include <fstream>

#include "ToolCommand.hpp"

namespace tarskel::tool {
namespace {

std::string size(double bytes) {
  const char* units[] = {"B", "kB", "MB", "GB", "TB"};
  int unit = 0;
  while (bytes >= 1000 && unit < 4) {
    bytes /= 1000;
    ++unit;
  }
  return unit == 0 ? fmt::format("{:.0f} B", bytes) : fmt::format("{:.1f} {}", bytes, units[unit]);
}

}  // namespace

Progress::Progress(std::string verb, const std::filesystem::path& tree) : verb_(std::move(verb)) {
  if (!progressWanted()) return;
  try {
    for (const std::string& path : BundleSeal::contentEntries(tree)) {
      std::error_code ec;
      const auto n = std::filesystem::file_size(tree / path, ec);
      if (!ec) totalBytes_ += n;
      ++totalFiles_;
    }
  } catch (const std::exception&) {
    return;  // the operation itself will say what is wrong with the tree
  }
  active_ = true;
  start_ = std::chrono::steady_clock::now();
  startBytes_ = bytesRead();
  drawer_ = std::thread([this] {
    std::unique_lock lock(mutex_);
    // Small trees finish before anything is drawn.
    while (!wake_.wait_for(lock, std::chrono::milliseconds(250), [this] { return done_; }))
      draw(false);
  });
}

Progress::~Progress() {
  if (!active_) return;
  {
    std::lock_guard lock(mutex_);
    done_ = true;
  }
  wake_.notify_all();
  drawer_.join();
  draw(true);
}

SealHashing Progress::hashing() {
  SealHashing hashing;
  if (active_) hashing.progress = [this](std::size_t done, std::size_t) { files_ = done; };
  return hashing;
}

// What this process has read so far: the kernel's count where there is one
// (a single large file moves the display too), else the share of files done.
std::uint64_t Progress::bytesRead() const {
  std::ifstream io("/proc/self/io");
  std::string key;
  std::uint64_t value = 0;
  while (io >> key >> value) {
    if (key == "rchar:") return value;
  }
  return totalFiles_ == 0 ? 0 : totalBytes_ * files_ / totalFiles_;
}

void Progress::draw(bool last) {
  static bool drawn = false;
  if (last) {
    if (drawn) std::fputs("\r\x1b[K", stderr);
    return;
  }
  drawn = true;
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const std::uint64_t bytes = std::min(totalBytes_, bytesRead() - startBytes_);
  const double rate = seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
  std::string left = "?";
  if (rate > 0) left = fmt::format("{:.0f} s", static_cast<double>(totalBytes_ - bytes) / rate);
  std::fputs(fmt::format("\r\x1b[K{} {}/{} files, {} of {}, {}/s, {} left", verb_, files_.load(),
                         totalFiles_, size(static_cast<double>(bytes)),
                         size(static_cast<double>(totalBytes_)), size(rate), left)
                 .c_str(),
             stderr);
  std::fflush(stderr);
}

}  // namespace tarskel::tool
