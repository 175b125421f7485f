#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tarskel/daemon/DaemonOp.hpp"
#include "tarskel/daemon/PlatformFiles.hpp"

namespace tarskel {

// "platform.uninstallMachine": removes the machine-wide installation of the
// application bundle. What it removes is fixed when the daemon starts, never
// named by the caller: the operation takes no arguments (any key is a schema
// violation) and needs no grant.
//
// When the daemon runs as root, only a bundle owned by root (a machine
// installation) is removed; a user's own bundle is refused. Not as root, the
// bundle is removed as far as the file system allows. The state root is
// never touched, only reported. Returns
//   {"removed": [<bundle>], "dataPreserved": [<dataRoot>]}
// Failures it words are DaemonOpError; a failed owner lookup or removal
// throws FileSystemError (a removal may leave the tree in part). execute has
// no suspension point and blocks its worker thread.
class PlatformUninstallMachineOp final : public DaemonOp {
 public:
  PlatformUninstallMachineOp(std::optional<std::filesystem::path> installedApp,
                             std::filesystem::path dataRoot,
                             std::shared_ptr<const PlatformFiles> platform);

  // The bundle this daemon was installed from, out of the process's
  // `environment` and its `executable` as read at start-up:
  // TARSKEL_INSTALLED_APP as it stands when set (made absolute, not otherwise
  // checked); otherwise the executable's path with links resolved and three
  // components removed (<bundle>.app/Contents/MacOS/<executable>), when that
  // ends in ".app". Nothing for a daemon started from anywhere else.
  static std::optional<std::filesystem::path> derivedInstalledApp(
      const std::map<std::string, std::string>& environment,
      const std::optional<std::filesystem::path>& executable);

  boost::asio::awaitable<JSONValue> execute(const JSONObject& args,
                                            const DaemonOpContext& context) const override;

  const std::optional<std::filesystem::path>& installedApp() const { return installedApp_; }
  const std::filesystem::path& dataRoot() const { return dataRoot_; }

 private:
  void requireRootOwnership(const std::filesystem::path& bundle) const;

  std::optional<std::filesystem::path> installedApp_;
  std::filesystem::path dataRoot_;
  std::shared_ptr<const PlatformFiles> platform_;
};

}  // namespace tarskel
