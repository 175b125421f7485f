#pragma once

#include <filesystem>
#include <string>

#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel::testing {

// A fresh directory whose files are named as the stores take them: as text.
class TempDir : public TempDirectory {
 public:
  TempDir() : TempDirectory("tarskel-store") {}
  std::string file(const std::string& name) const { return (path() / name).string(); }
};

}  // namespace tarskel::testing
