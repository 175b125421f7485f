#pragma once

// Hashing of many content files with a few threads, with results exactly as
// if the files were hashed one after another in order.

#include <cstddef>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tarskel/vendor/BundleSeal.hpp"

namespace tarskel {

// The outcome for one file: its digest, or the error its reading threw.
struct ContentDigest {
  std::string sha256;
  std::exception_ptr error;
  bool done = false;  // false for a file never started, after an earlier failure
};

// Hashes root/paths[i] for every i. Files are started in ascending order.
// When `isFailure(i, digest)` answers true for a file, or its read throws, no
// later file is started, while every earlier one is finished. So the first
// failure found by scanning the result in order is the one a sequential loop
// would have met. `isFailure` may be called from several threads at once.
std::vector<ContentDigest> hashContent(
    const std::filesystem::path& root, const std::vector<std::string>& paths,
    const SealHashing& hashing,
    const std::function<bool(std::size_t, const std::string&)>& isFailure);

}  // namespace tarskel
