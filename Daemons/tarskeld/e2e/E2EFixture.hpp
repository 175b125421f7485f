#pragma once

// A fixture per test: a temporary state root and socket, helpers to start
// the built daemon on them and to talk to it with the real client.

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "DaemonProcess.hpp"
#include "tarskel/protocol/json/JSONValue.hpp"
#include "tarskel/store/AuditStore.hpp"
#include "tarskel/xpc/DaemonWire.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"

namespace tarskel::e2e {

inline constexpr const char* kServingLine = "tarskeld v0.1.0 sirviendo ";
inline constexpr const char* kUnprovisionedCaller =
    "unverified:gate SO sin provisionar (sin vendor/teams.json)";

class E2EFixture : public ::testing::Test {
 protected:
  using Environment = std::map<std::string, std::optional<std::string>>;

  // A failed test shows what the daemon wrote.
  void TearDown() override;

  std::filesystem::path root() const { return dir / "root"; }
  std::string socketPath() const { return (dir / "d.sock").string(); }
  std::filesystem::path auditPath() const { return root() / "daemon" / "audit.db"; }

  // Starts `executable` (the shipped daemon by default) on root() and
  // socketPath() and waits for its serving line. The variables the daemon
  // reads are cleared unless `environment` sets them.
  DaemonProcess& start(Environment environment = {},
                       const std::filesystem::path& executable = TARSKELD_PATH);

  // Kills the running daemon the hard way, as a service manager would.
  void stop();

  // One request through a fresh client.
  DaemonResponse call(const std::string& op, JSONObject args = {},
                      std::optional<std::string> serviceId = std::nullopt,
                      std::optional<std::string> correlationId = std::nullopt);

  // The rows of the audit chain, read beside the running daemon.
  std::vector<AuditStore::Entry> auditRows() const;
  // Whether the chain holds, read beside the running daemon.
  bool chainHolds() const;

  TempDir dir;
  std::unique_ptr<DaemonProcess> daemon;
};

// The error code of a failed response, or "ok".
std::string codeOf(const DaemonResponse& response);
// The message of a failed response, or "".
std::string messageOf(const DaemonResponse& response);
// result[key] of a successful response; throws when it's not there.
const JSONValue& resultAt(const DaemonResponse& response, const std::string& key);

}  // namespace tarskel::e2e
