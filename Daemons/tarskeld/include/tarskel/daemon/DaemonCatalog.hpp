#pragma once

// The daemon's own catalogue of operations, built from what the outside world
// gives it. It sits with the operations, above the core: the core only
// holds the list it is handed.
//
// Threads. operations() may run on any thread; processEnvironment() reads
// the environment, so call it before other threads exist.

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tarskel/daemon/DaemonCore.hpp"
#include "tarskel/daemon/GrantsStore.hpp"
#include "tarskel/daemon/PlatformFiles.hpp"
#include "tarskel/protocol/base/Logger.hpp"

namespace tarskel {

class DaemonCatalog {
 public:
  // In order: daemon.info, daemon.grants.sync on `grants`,
  // fs.readProtectedPath, then, only with a root, platform.applyUpdate on
  // `rootURL` and platform.uninstallMachine of the bundle derived from
  // `environment` and `executableURL`, reporting `rootURL` as the data it
  // keeps. Both platform operations work through `files`. Three operations
  // without a root, five with one. A machine fault an answer can't name in
  // full (an allowlist that does not decode) is logged through `logger`
  // when one is given.
  static DaemonCore::OpList operations(const std::shared_ptr<GrantsStore>& grants,
                                       const std::optional<std::filesystem::path>& rootURL,
                                       std::shared_ptr<const PlatformFiles> files,
                                       const std::map<std::string, std::string>& environment,
                                       const std::optional<std::filesystem::path>& executableURL,
                                       const std::optional<Logger>& logger = std::nullopt);

  // The process environment by name; the first definition of a name wins,
  // as getenv would answer.
  static std::map<std::string, std::string> processEnvironment();
};

}  // namespace tarskel
