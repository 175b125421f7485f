#pragma once

// The end-to-end harness: the built tarskeld as a process on a temporary
// root and socket, its standard error kept in a file, reached with the real
// client or a raw connection.

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DaemonTestSupport.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"

namespace tarskel::e2e {

using namespace std::chrono_literals;
using testing::RawConnection;
using testing::readFile;
using testing::requestBytes;
using testing::writeFile;

inline constexpr const char* kServingLine = "tarskeld v0.1.0 sirviendo ";
inline constexpr const char* kUnprovisionedCaller =
    "unverified:gate SO sin provisionar (sin vendor/teams.json)";

// Under /tmp, so that socket paths fit.
class TempDir : public testing::TempDirectory {
 public:
  TempDir() : TempDirectory("tarskeld-e2e", "/tmp") {}
  std::filesystem::path operator/(const std::string& name) const { return path() / name; }
};

// One started process; its standard error goes to a file of its own,
// standard output nowhere. The destructor kills what is still running.
class DaemonProcess {
 public:
  using Environment = std::map<std::string, std::optional<std::string>>;  // nothing: unset
  DaemonProcess(const std::filesystem::path& executable, const std::vector<std::string>& arguments,
                const Environment& environment = {});
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until standard error holds `text`; false at the time limit or when
  // the process ends first.
  bool waitForLine(const std::string& text, std::chrono::milliseconds limit = 10s);
  std::string log() const { return readFile(logFile_.file("stderr")); }
  std::vector<std::string> lines() const;
  // Sends `signal` and reaps the process; its wait status.
  int kill(int signal);
  // Its wait status once it ends by itself, or nothing at the time limit.
  std::optional<int> waitForExit(std::chrono::milliseconds limit = 10s);

 private:
  testing::TempDirectory logFile_{"tarskeld-e2e-log"};
  pid_t pid_ = -1;
  std::optional<int> status_;
};

class E2EFixture : public ::testing::Test {
 protected:
  using Environment = DaemonProcess::Environment;

  // A failed test shows what the daemon wrote.
  void TearDown() override;

  std::filesystem::path root() const { return dir / "root"; }
  std::string socketPath() const { return (dir / "d.sock").string(); }
  std::filesystem::path auditPath() const { return root() / "daemon" / "audit.db"; }
  std::vector<std::string> daemonArguments() const {
    return {"--mach-service", socketPath(), "--root", root().string()};
  }

  // Starts the daemon on root() and socketPath() and waits for its serving
  // line. The variables the daemon reads are cleared unless set here.
  DaemonProcess& start(Environment environment = {});
  // Kills the running daemon the hard way, as a service manager would.
  void stop();

  DaemonResponse call(const std::string& op, JSONObject args = {},
                      std::optional<std::string> serviceId = std::nullopt,
                      std::optional<std::string> correlationId = std::nullopt);

  // The audit chain, read beside the running daemon.
  std::vector<AuditStore::Entry> auditRows() const;
  bool chainHolds() const;

  TempDir dir;
  std::unique_ptr<DaemonProcess> daemon;
};

// A log line's "<level> <message>", or nothing for a line of another form.
std::optional<std::string> logMessage(const std::string& line);
// Every line of `process` as above; a line of another form fails the test.
std::vector<std::string> logMessages(const DaemonProcess& process);

// The error code of a failed response, or "ok".
std::string codeOf(const DaemonResponse& response);
// The message of a failed response, or "".
std::string messageOf(const DaemonResponse& response);
// result[key] of a successful response; throws when it's not there.
const JSONValue& resultAt(const DaemonResponse& response, const std::string& key);

}  // namespace tarskel::e2e
