#pragma once

// Shared by the in-process tests and the end-to-end tests of the daemon.

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <filesystem>
#include <memory>
#include <string>

#include "tarskel/daemon/DaemonCore.hpp"
#include "tarskel/daemon/GrantsStore.hpp"
#include "tarskel/daemon/PlatformFiles.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/store/AuditStore.hpp"
#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/testing/XPCTesting.hpp"

namespace tarskel::testing {

using TempDir = TempDirectory;

// The text of the error that running `op` on `args` ends in, or "" on
// success. Caught where it is thrown, on the pool, so that no exception
// object is shared between threads.
inline boost::asio::awaitable<std::string> failureOf(const DaemonOp& op, JSONObject args) {
  const DaemonOpContext context{{}, DaemonPeerVerdict::unverified("t")};
  try {
    JSONValue ignored = co_await op.execute(args, context);
  } catch (const Error& e) {
    co_return e.description();  // whole, past any NUL
  } catch (const std::exception& e) {
    co_return std::string(e.what());
  }
  co_return std::string();
}

template <class T>
T runOn(boost::asio::thread_pool& pool, boost::asio::awaitable<T> task) {
  return boost::asio::co_spawn(pool, std::move(task), boost::asio::use_future).get();
}

inline std::string requestBytes(const std::string& op, JSONObject args = {}) {
  return TarskelJSON::encoder().encode(
      DaemonRequest{op, std::move(args), std::nullopt, std::nullopt});
}

// The system's file calls, but for the executable's path, who the daemon
// runs as, and an owner change refused for paths ending in `refusedSuffix`.
class ScriptedPlatformFiles final : public PlatformFiles {
 public:
  using Path = std::filesystem::path;
  int exchange(const Path& a, const Path& b) const override { return system()->exchange(a, b); }
  std::optional<Path> executablePath() const override { return executable; }
  uid_t effectiveUserId() const override { return euid; }
  int changeOwnerToRootWheel(const Path& path) const override {
    changed.push_back(path);
    if (!refusedSuffix.empty() && path.string().ends_with(refusedSuffix)) return EPERM;
    return system()->changeOwnerToRootWheel(path);
  }

  std::optional<Path> executable;
  uid_t euid = 0;
  std::string refusedSuffix;
  mutable std::vector<Path> changed;  // one operation at a time in these tests
};

// A worker pool, a real audit database and a grants file in a temporary
// directory: what the daemon runs on, minus the transport.
class DaemonFixture : public ::testing::Test {
 protected:
  void openStores(const std::string& grantsJSON = "") {
    if (!grantsJSON.empty()) writeFile(grantsPath(), grantsJSON);
    db = SQLiteDatabase::open(dir.file("audit.db").string());
    audit = std::make_shared<AuditStore>(db, pool.get_executor());
    grants = std::make_shared<GrantsStore>(grantsPath(), pool.get_executor());
  }

  std::filesystem::path grantsPath() const { return dir.file("grants.json"); }

  std::int64_t auditRows() const {
    return *db->query("SELECT COUNT(*) AS n FROM audit;").at(0).at("n").intValue();
  }

  DaemonResponse handle(const DaemonCore& core, DaemonRequest request,
                        DaemonPeerVerdict peer = DaemonPeerVerdict::unverified("t")) {
    return runOn(pool, core.handle(std::move(request), std::move(peer)));
  }

  // Every task has finished before the stores go; the strands of the stores
  // must in turn be gone before the pool that serves them.
  void TearDown() override { pool.join(); }

  TempDir dir;
  boost::asio::thread_pool pool{4};
  std::shared_ptr<SQLiteDatabase> db;
  std::shared_ptr<AuditStore> audit;
  std::shared_ptr<GrantsStore> grants;
};

}  // namespace tarskel::testing
