#include "tarskel/daemon/DaemonCatalog.hpp"

#include <string_view>
#include <utility>

#include "tarskel/daemon/FsReadProtectedPathOp.hpp"
#include "tarskel/daemon/GrantsSyncOp.hpp"
#include "tarskel/daemon/InfoOp.hpp"
#include "tarskel/daemon/PlatformApplyUpdateOp.hpp"
#include "tarskel/daemon/PlatformUninstallMachineOp.hpp"

extern char** environ;

namespace tarskel {
namespace fs = std::filesystem;

DaemonCore::OpList DaemonCatalog::operations(const std::shared_ptr<GrantsStore>& grants,
                                             const std::optional<fs::path>& rootURL,
                                             std::shared_ptr<const PlatformFiles> files,
                                             const std::map<std::string, std::string>& environment,
                                             const std::optional<fs::path>& executableURL,
                                             const std::optional<Logger>& logger) {
  DaemonCore::OpList ops{std::make_shared<InfoOp>(), std::make_shared<GrantsSyncOp>(grants),
                         std::make_shared<FsReadProtectedPathOp>()};
  if (!rootURL) return ops;
  ops.push_back(std::make_shared<PlatformApplyUpdateOp>(*rootURL, files, logger));
  ops.push_back(std::make_shared<PlatformUninstallMachineOp>(
      PlatformUninstallMachineOp::derivedInstalledApp(environment, executableURL), *rootURL,
      std::move(files)));
  return ops;
}

std::map<std::string, std::string> DaemonCatalog::processEnvironment() {
  std::map<std::string, std::string> out;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    std::string_view text(*entry);
    std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    out.emplace(std::string(text.substr(0, equals)), std::string(text.substr(equals + 1)));
  }
  return out;
}

// The core's own catalogue, for a core built without a list: defined here,
// beside the operations it names, so that the core includes none of them.
DaemonCore::OpList DaemonCore::builtInOperations(const std::shared_ptr<GrantsStore>& grants,
                                                 const std::optional<fs::path>& rootURL) {
  std::shared_ptr<const PlatformFiles> files = PlatformFiles::system();
  std::optional<fs::path> executable = files->executablePath();
  return DaemonCatalog::operations(grants, rootURL, std::move(files),
                                   DaemonCatalog::processEnvironment(), executable);
}

}  // namespace tarskel
