#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "tarskel/daemon/DaemonOp.hpp"
#include "tarskel/daemon/PlatformFiles.hpp"
#include "tarskel/protocol/base/Logger.hpp"

namespace tarskel {

// "platform.applyUpdate": exchanges the installed application bundle for one
// that an unprivileged process has staged and sealed, or takes such an
// exchange back. Root never installs what it cannot verify: the staged tree
// must carry a seal, of a platform artefact, under a key of the allowlist at
// <rootURL>/vendor/allowlist.json. Needs no grant.
//
// Arguments (no other keys):
//   "action"        "swap" | "rollback"
//   "installedApp"  the installed bundle; must end in ".app" (both actions)
//   "previousPath"  where the version before the last swap is kept
//   "stagedRoot", "appName"  swap: the sealed tree and the .app inside it
//   "failedPath"    rollback: where the version rolled back from goes
// Paths are file paths; a relative one is taken from the current directory.
//
// A swap verifies the seal, then installs only bytes out of the stager's
// reach: the sealed files are copied (reflink-cloned where the file system
// can) with descriptor-relative opens that follow no link, into a directory
// of root's own beside installedApp, together with every directory of the
// content (empty ones too), each keeping its times, its extended attributes
// but privileged ones, and its mode less group and other write and set-id
// bits; the copy is verified again, its ACLs stripped, and it is handed to
// root (when the daemon runs as root). Then previousPath is emptied, the
// copy of the .app is exchanged with the installed one in one system call,
// the old version is moved to previousPath, and the staged .app is removed
// without following links: {"swapped": true, "to": <manifest version>}.
// appName must be one name of the sealed content (a trailing "/" is
// dropped): not empty, no "/", not "vendor", "." or "..", and a directory
// holding sealed files. installedApp, previousPath and stagedRoot/appName
// must not be the same place nor lie one inside another.
// A rollback exchanges previousPath with installedApp and moves the failed
// version to failedPath: {"rolledback": true}; installedApp, previousPath
// and failedPath must not overlap either. Neither undoes a step, and at
// every instant a whole bundle lies at installedApp. What a failed swap
// leaves: nothing moved and nothing installed in every case but these
//   exchange refused            previousPath emptied, the old version
//                               installed (also when installedApp's
//                               directory is missing: errno 2)
//   old version not kept        still a success; previousPath empty, the old
//                               version at stagedRoot/appName, or, when it
//                               can't go there either, in the
//                               ".<app>.update-*" directory beside
//                               installedApp; a rollback finds nothing to go
//                               back to
// After a rollback previousPath is empty: a second one in a row is refused.
//
// A swap charges its budget (the context's, when it has one) for every file
// it walks, hashes or copies and every byte it reads, in both verifications
// and the copy: a spent budget or a departed client ends it with the
// budget's WorkAbandoned, before anything is installed.
//
// Failures it words are DaemonOpError; the allowlist's DecodingError and the
// seal's SealError go out as they are. The decoder's text names no file, so
// an allowlist that does not decode is also logged, as an error naming the
// file, through `logger` when one is given. execute has no suspension point: its
// file operations block the worker thread, and two requests at once are not
// excluded from each other.
class PlatformApplyUpdateOp final : public DaemonOp {
 public:
  PlatformApplyUpdateOp(std::filesystem::path rootURL,
                        std::shared_ptr<const PlatformFiles> platform,
                        std::optional<Logger> logger = std::nullopt);

  boost::asio::awaitable<JSONValue> execute(const JSONObject& args,
                                            const DaemonOpContext& context) const override;

  // Gives the tree at `at` (its root first, then every entry below it in the
  // enumeration's order) to uid 0, gid 0, links changed themselves. The first
  // refusal throws DaemonOpError "chown de <path> falló: errno <n>"; entries
  // changed before it stay changed. A walk that can't reach every entry
  // throws "recorrido de <path> incompleto: errno <n>". Modes are left as
  // they are.
  static void chownTreeToRootWheel(const std::filesystem::path& at, const PlatformFiles& platform);

  const std::filesystem::path& rootURL() const { return rootURL_; }

 private:
  JSONValue swap(const std::filesystem::path& stagedRoot, const std::string& appName,
                 const std::filesystem::path& installedApp,
                 const std::filesystem::path& previousURL, WorkBudget* budget) const;
  JSONValue rollback(const std::filesystem::path& installedApp,
                     const std::filesystem::path& previousURL,
                     const std::filesystem::path& failedURL) const;

  std::filesystem::path rootURL_;
  std::shared_ptr<const PlatformFiles> platform_;
  std::optional<Logger> logger_;
};

}  // namespace tarskel
