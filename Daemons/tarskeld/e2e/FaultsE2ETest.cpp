// The daemon killed the hard way under load, and a second daemon on its root.

#include <signal.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "E2EFixture.hpp"

namespace tarskel::e2e {
namespace {

using FaultTest = E2EFixture;

TEST_F(FaultTest, KilledUnderLoadEveryAcknowledgedRequestHasItsRowAndTheChainHolds) {
  DaemonProcess& first = start();
  // Regression: two daemons on one root each wrote from their own head and
  // forked the chain at the second row; removing the lock file let one in.
  for (const bool pidFileRemoved : {false, true}) {
    if (pidFileRemoved) std::filesystem::remove(root() / "daemon" / "tarskeld.lock");
    DaemonProcess second(TARSKELD_PATH, {"--mach-service", (dir / "other.sock").string(), "--root",
                                         root().string()});
    const std::optional<int> status = second.waitForExit(5s);
    ASSERT_TRUE(status) << "the second daemon kept running";
    EXPECT_NE(*status, 0);
    const std::string pid = pidFileRemoved ? "" : " (pid " + std::to_string(first.pid()) + ")";
    EXPECT_NE(second.log().find("another tarskeld" + pid + " already serves the root"),
              std::string::npos)
        << second.log();
  }

  std::mutex mutex;
  std::vector<std::string> acknowledged;
  std::atomic<int> transportErrors{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < 4; ++t) {
    clients.emplace_back([&, t] {
      DaemonXPCClient client(socketPath());
      for (int n = 0;; ++n) {
        const std::string id = "load-" + std::to_string(t) + "-" + std::to_string(n);
        try {
          if (!client.request({"daemon.info", {}, id, std::nullopt}).ok) continue;
          std::lock_guard lock(mutex);
          acknowledged.push_back(id);
        } catch (const DaemonClientError&) {
          ++transportErrors;
          return;
        }
      }
    });
  }
  std::this_thread::sleep_for(400ms);
  stop();
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(transportErrors.load(), 4);
  ASSERT_GT(acknowledged.size(), 10u);

  start();  // the root's lock went with the killed process
  EXPECT_EQ(codeOf(call("daemon.info", {}, std::nullopt, "after-restart")), "ok");
  stop();
  std::set<std::string> recorded;
  for (const AuditStore::Entry& row : auditRows()) recorded.insert(row.correlationId);
  for (const std::string& id : acknowledged) EXPECT_EQ(recorded.count(id), 1u) << id;
  EXPECT_EQ(recorded.count("after-restart"), 1u);
  EXPECT_TRUE(chainHolds());
}

}  // namespace
}  // namespace tarskel::e2e
