#pragma once

// Everything a running tarskeld is made of, built in one place and in the
// start-up order: the worker pool, the state directory, the audit chain, the
// vendor seed, the team trust, the grants, the five operations, the core
// holding them and the started listener. This is the one place that wires
// the daemon: the parts below take what they use as arguments.
//
// The outside world comes in through Seams, so that a test build can make
// the same daemon with a scripted code-signing platform behind the peer gate
// and its own environment; the shipped executable passes the real ones.
//
// Ownership and threads. create() runs on the main thread, before anything
// is served; the object it returns owns every part and must live as long as
// the process (the daemon never destroys it). Once create() returns, the
// listener's handlers and the pool's tasks use the stores on their own
// threads; nothing here may be called again.

#include <boost/asio/thread_pool.hpp>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tarskel/codesign/CodeSignPlatform.hpp"
#include "tarskel/daemon/DaemonCore.hpp"
#include "tarskel/daemon/DaemonPeerGate.hpp"
#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/daemon/GrantsStore.hpp"
#include "tarskel/daemon/PlatformFiles.hpp"
#include "tarskel/protocol/base/Logger.hpp"
#include "tarskel/store/AuditStore.hpp"
#include "tarskel/store/SQLiteDatabase.hpp"

namespace tarskel {

class TarskeldDeps {
 public:
  // The outside world, as the daemon sees it: read once, at start-up, and
  // handed to whatever needs it. Nothing below reads the environment or
  // reaches for a system object on its own.
  struct Seams {
    // What the peer gate judges senders with. Empty: the system's own,
    // anchored where the daemon's root says (CodeSignPlatform::
    // systemAnchoredAt), made only for a provisioned gate.
    std::shared_ptr<const CodeSignPlatform> gatePlatform;
    // The system calls of the platform operations.
    std::shared_ptr<const PlatformFiles> files;
    // The process environment (TARSKEL_VENDOR_SEED, TARSKEL_INSTALLED_APP).
    std::map<std::string, std::string> environment;
    // The running executable: the seed and the installed bundle lie around it.
    std::optional<std::filesystem::path> executableURL;

    // This process's own: the system's code-signing services (left empty,
    // see gatePlatform) and files, the
    // environment as it stands now and the running executable. Call it on
    // the main thread before other threads exist: it reads the environment.
    static Seams ofProcess();
  };

  // Builds and starts the daemon on `rootURL`, serving `machService`, and
  // writes the seed and gate lines through `logger` (not the serving line:
  // that is the caller's, once this returns).
  //
  // Throws std::filesystem::filesystem_error when <rootURL>/daemon can't be
  // made (a root that is a file, say) and SQLiteDatabase::DBError when the
  // audit database can't be opened or attached; nothing is logged and nothing
  // is served then. Every other failure only reduces the daemon.
  static std::unique_ptr<TarskeldDeps> create(const std::filesystem::path& rootURL,
                                              const std::string& machService, const Logger& logger,
                                              Seams seams);

  // <rootURL>/daemon, made with its parents, each new directory 0755 (the
  // umask notwithstanding). One that is there already keeps its mode.
  // Throws tarskel::Error when a directory from "/" to it could be changed
  // by another user than root or this process's (untrustedDirectory).
  static std::filesystem::path makeStateDirectory(const std::filesystem::path& rootURL);

  // Copies the machine's first vendor allowlist from the distribution when
  // there is one and none is in place; one info line when it did. Any
  // failure is dropped without a word.
  static void seedVendorAllowlist(const std::filesystem::path& rootURL, const Seams& seams,
                                  const Logger& logger);

  // The gate's teams, or nothing for an unprovisioned gate; one info or
  // warning line either way.
  static std::optional<std::vector<std::string>> loadGateTeams(const std::filesystem::path& rootURL,
                                                               const Logger& logger);

  TarskeldDeps(const TarskeldDeps&) = delete;
  TarskeldDeps& operator=(const TarskeldDeps&) = delete;
  ~TarskeldDeps();

  const DaemonCore& core() const { return *core_; }

 private:
  TarskeldDeps();

  // Declared first: they go last, after everything that posts to them. The
  // pool runs the long operations; the loop everything else.
  boost::asio::thread_pool pool_;
  std::shared_ptr<DaemonEventLoop> loop_;
  std::shared_ptr<SQLiteDatabase> db_;
  std::shared_ptr<AuditStore> audit_;
  std::shared_ptr<GrantsStore> grants_;
  std::optional<DaemonCore> core_;
  std::unique_ptr<DaemonXPCServer> server_;
};

}  // namespace tarskel
