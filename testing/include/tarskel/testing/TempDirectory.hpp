#pragma once

// Test support, shipped nowhere: a fresh directory and small file verbs.

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarskel::testing {

// A fresh directory under `parent` (the system's temporary directory unless
// given), removed with everything in it when the value goes.
class TempDirectory {
 public:
  explicit TempDirectory(
      std::string_view prefix = "tarskel-test",
      const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = (parent / (std::string(prefix) + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path file(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Writes `content` to `path`, making the parent directories.
inline void writeFile(const std::filesystem::path& path, std::string_view content) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

// The whole file, or "" when it can't be read.
inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace tarskel::testing
