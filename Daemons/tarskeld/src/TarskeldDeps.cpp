#include "tarskel/daemon/TarskeldDeps.hpp"

#include <unistd.h>

#include <boost/asio/execution/blocking.hpp>
#include <boost/asio/require.hpp>
#include <thread>
#include <utility>

#include "tarskel/codesign/TeamTrust.hpp"
#include "tarskel/daemon/DaemonCatalog.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/base/TrustedPath.hpp"
#include "tarskel/vendor/VendorSeed.hpp"

namespace tarskel {
namespace fs = std::filesystem;

namespace {

constexpr fs::perms kStateDirectoryMode = fs::perms::owner_all | fs::perms::group_read |
                                          fs::perms::group_exec | fs::perms::others_read |
                                          fs::perms::others_exec;

unsigned workerCount() {
  unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 2 : n;
}

}  // namespace

TarskeldDeps::Seams TarskeldDeps::Seams::ofProcess() {
  std::shared_ptr<const PlatformFiles> files = PlatformFiles::system();
  std::optional<fs::path> executable = files->executablePath();
  return Seams{nullptr, std::move(files), DaemonCatalog::processEnvironment(),
               std::move(executable)};
}

TarskeldDeps::TarskeldDeps() : pool_(workerCount()), loop_(std::make_shared<DaemonEventLoop>()) {}

// Only reached when create() fails part-way: a started daemon is never torn
// down. Tasks already on the pool finish before the stores go.
TarskeldDeps::~TarskeldDeps() {
  server_.reset();
  pool_.join();
}

fs::path TarskeldDeps::makeStateDirectory(const fs::path& rootURL) {
  fs::path target = rootURL / "daemon";
  fs::path partial;
  for (const fs::path& component : target) {
    partial /= component;
    if (partial == partial.root_path() || component == "." || component == "..") continue;
    // create_directory answers false, without error, for a directory that is
    // there already; anything else in the way is an error.
    if (fs::create_directory(partial)) fs::permissions(partial, kStateDirectoryMode);
  }
  // Whoever may change a directory on the way could plant links where the
  // daemon writes as root (the audit database's -wal and -shm).
  if (auto why = untrustedDirectory(target, ::geteuid())) throw Error(*why);
  return target;
}

void TarskeldDeps::seedVendorAllowlist(const fs::path& rootURL, const Seams& seams,
                                       const Logger& logger) {
  std::optional<fs::path> seedURL =
      VendorSeed::resolveSeedURL(seams.environment, seams.executableURL);
  if (!seedURL) return;
  bool seeded = false;
  try {
    seeded = VendorSeed::seedIfAbsent(rootURL, *seedURL);
  } catch (...) {
    // A daemon without an allowlist still serves; an update then says why.
    return;
  }
  if (seeded) logger.info("allowlist vendor de máquina sembrada desde la distribución");
}

std::optional<std::vector<std::string>> TarskeldDeps::loadGateTeams(const fs::path& rootURL,
                                                                    const Logger& logger) {
  std::optional<TeamTrust> trust = TeamTrust::loadIfProvisioned(rootURL, logger);
  if (!trust) {
    logger.warning("gate XPC sin provisionar — clientes pasan como unverified");
    return std::nullopt;
  }
  logger.info("gate XPC activo: " + std::to_string(trust->teamIds.size()) + " team(s) confiados");
  return std::move(trust->teamIds);
}

std::unique_ptr<TarskeldDeps> TarskeldDeps::create(const fs::path& rootURL,
                                                   const std::string& machService,
                                                   const Logger& logger, Seams seams) {
  std::unique_ptr<TarskeldDeps> deps(new TarskeldDeps());
  fs::path stateDirectory = makeStateDirectory(rootURL);

  deps->db_ = SQLiteDatabase::open((stateDirectory / "audit.db").string());
  // The stores serialise on the event loop, where requests are handled: a
  // short request's audit row is written without waking another thread.
  deps->audit_ = std::make_shared<AuditStore>(deps->db_, deps->loop_->executor());
  deps->audit_->serialisedByThread(deps->loop_->threadId());

  seedVendorAllowlist(rootURL, seams, logger);
  std::optional<std::vector<std::string>> teamIds = loadGateTeams(rootURL, logger);
  // An unprovisioned gate asks no platform anything, and reads no keys.
  if (teamIds && !seams.gatePlatform) {
    seams.gatePlatform = CodeSignPlatform::systemAnchoredAt(rootURL, logger);
  }

  deps->grants_ =
      std::make_shared<GrantsStore>(stateDirectory / "grants.json", deps->loop_->executor());
  deps->core_.emplace(DaemonCatalog::operations(deps->grants_, rootURL, seams.files,
                                                seams.environment, seams.executableURL, logger),
                      deps->audit_, deps->grants_);

  // Long operations go to the pool, never inline on the loop.
  boost::asio::any_io_executor longOps =
      boost::asio::require(deps->pool_.get_executor(), boost::asio::execution::blocking.never);
  deps->server_ = std::make_unique<DaemonXPCServer>(
      machService, *deps->core_, DaemonPeerGate{std::move(teamIds), std::move(seams.gatePlatform)},
      std::move(longOps), DaemonServerLimits{}, deps->loop_);
  deps->server_->start();
  return deps;
}

}  // namespace tarskel
