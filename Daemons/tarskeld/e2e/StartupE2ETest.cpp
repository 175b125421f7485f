// What a start writes to the log, and what it provisions.

#include <regex>

#include "E2EFixture.hpp"

namespace tarskel::e2e {
namespace {

using StartupLogTest = E2EFixture;

constexpr const char* kSeedLine = "allowlist vendor de máquina sembrada desde la distribución";

// The daemon's log lines, each reduced to "<level> <message>" once its form
// has been checked.
std::vector<std::string> logMessages(const DaemonProcess& process) {
  static const std::regex form(
      R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4} ([a-z]+) tarskeld : \[tarskeld\] (.*)$)");
  std::vector<std::string> out;
  for (const std::string& line : process.lines()) {
    std::smatch match;
    if (std::regex_match(line, match, form)) {
      out.push_back(match[1].str() + " " + match[2].str());
    } else {
      ADD_FAILURE() << "not a log line: " << line;
    }
  }
  return out;
}

TEST_F(StartupLogTest, UnprovisionedDaemonWarnsOnceThenServesTheGivenService) {
  start();
  EXPECT_EQ(
      logMessages(*daemon),
      (std::vector<std::string>{"warning gate XPC sin provisionar — clientes pasan como unverified",
                                "info tarskeld v0.1.0 sirviendo " + socketPath()}));
  EXPECT_EQ(std::filesystem::status(root() / "daemon").permissions(), std::filesystem::perms(0755));
}

TEST_F(StartupLogTest, SeedIsCopiedAndLoggedOnlyByTheFirstStart) {
  writeFile(dir / "dist/allowlist.json", R"({"revision":1,"keys":[]})");
  Environment withSeed{{"TARSKEL_VENDOR_SEED", (dir / "dist/allowlist.json").string()}};

  start(withSeed);
  EXPECT_EQ(logMessages(*daemon).front(), std::string("info ") + kSeedLine);
  EXPECT_EQ(readFile(root() / "vendor/allowlist.json"), R"({"revision":1,"keys":[]})");

  stop();
  writeFile(dir / "dist/allowlist.json", R"({"revision":2,"keys":[]})");
  start(withSeed);
  std::vector<std::string> second = logMessages(*daemon);
  EXPECT_EQ(second.size(), 2u);
  for (const std::string& message : second) EXPECT_EQ(message.find(kSeedLine), std::string::npos);
  EXPECT_EQ(readFile(root() / "vendor/allowlist.json"), R"({"revision":1,"keys":[]})");
}

TEST_F(StartupLogTest, SeedThatCannotBeReadIsSilent) {
  start({{"TARSKEL_VENDOR_SEED", (dir / "absent.json").string()}});
  EXPECT_EQ(logMessages(*daemon).size(), 2u);
  EXPECT_FALSE(std::filesystem::exists(root() / "vendor/allowlist.json"));
}

// Linux has no code signature: a provisioned gate shuts every client out,
// and says so in the response and in the chain.
TEST_F(StartupLogTest, ProvisionedGateOnThisSystemRejectsEveryClient) {
  writeFile(root() / "vendor/teams.json",
            R"({"revision":3,"teamIds":["TEAMA00001","TEAMB00002"]})");
  start();
  EXPECT_EQ(logMessages(*daemon).front(), "info gate XPC activo: 2 team(s) confiados");

  DaemonResponse response = call("daemon.info");
  EXPECT_EQ(codeOf(response), "unauthorizedClient");
  const std::string reason = "gate SO: firma inválida o no anclada a Apple en cliente xpc (-67062)";
  EXPECT_EQ(messageOf(response), "cliente XPC rechazado: " + reason);
  std::vector<AuditStore::Entry> rows = auditRows();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].caller, "rejected:" + reason);
  EXPECT_EQ(rows[0].outcome, "denied");
}

// What the systemd units rely on: the listening socket is handed over and
// adopted, and the service name is not bound.
TEST_F(StartupLogTest, SocketActivationAdoptsThePassedSocket) {
  const std::filesystem::path activator = "/usr/bin/systemd-socket-activate";
  if (!std::filesystem::exists(activator)) GTEST_SKIP() << "no systemd-socket-activate here";
  const std::string unbound = (dir / "unbound.sock").string();
  daemon = std::make_unique<DaemonProcess>(DaemonProcess::Options{
      activator,
      {"-l", socketPath(), TARSKELD_PATH, "--mach-service", unbound, "--root", root().string()},
      {{"LISTEN_FDS", std::nullopt}, {"LISTEN_PID", std::nullopt}}});
  ASSERT_TRUE(daemon->waitForLine("Listening on"));
  // The first connection is what starts the daemon.
  EXPECT_EQ(codeOf(call("daemon.info")), "ok");
  EXPECT_TRUE(daemon->waitForLine(kServingLine));
  EXPECT_FALSE(std::filesystem::exists(unbound));
}

}  // namespace
}  // namespace tarskel::e2e
