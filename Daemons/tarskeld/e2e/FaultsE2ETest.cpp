// The daemon killed the hard way: what the clients see, and what the chain
// keeps.

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
  start();
  std::mutex mutex;
  std::vector<std::string> acknowledged;
  std::atomic<int> transportErrors{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < 4; ++t) {
    clients.emplace_back([&, t] {
      DaemonXPCClient client(socketPath());
      for (int n = 0;; ++n) {
        std::string id = "load-" + std::to_string(t) + "-" + std::to_string(n);
        try {
          DaemonResponse response = client.request({"daemon.info", {}, id, std::nullopt});
          if (!response.ok) continue;
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

  start();
  EXPECT_EQ(codeOf(call("daemon.info", {}, std::nullopt, "after-restart")), "ok");
  stop();

  std::set<std::string> recorded;
  for (const AuditStore::Entry& row : auditRows()) recorded.insert(row.correlationId);
  for (const std::string& id : acknowledged) EXPECT_EQ(recorded.count(id), 1u) << id;
  EXPECT_EQ(recorded.count("after-restart"), 1u);
  EXPECT_TRUE(chainHolds());
}

TEST_F(FaultTest, ClientOfAStoppedDaemonSeesATransportError) {
  start();
  DaemonXPCClient client(socketPath());
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);
  stop();
  try {
    client.request({"daemon.info", {}, std::nullopt, std::nullopt});
    ADD_FAILURE() << "a stopped daemon answered";
  } catch (const DaemonClientError& e) {
    EXPECT_EQ(std::string(e.what()).rfind("daemon no disponible: ", 0), 0u) << e.what();
  }
}

}  // namespace
}  // namespace tarskel::e2e
