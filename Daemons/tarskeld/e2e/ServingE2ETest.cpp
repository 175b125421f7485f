// Requests through the running daemon: what it answers, what the audit
// chain keeps, who may reach it, and what a start provisions.

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "E2EFixture.hpp"
#include "tarskel/protocol/base/Base64.hpp"

namespace tarskel::e2e {
namespace {

namespace fs = std::filesystem;
using ServingE2ETest = E2EFixture;

// The errno of connecting to `path` as user and group 65534, or 0.
int connectErrnoAsNobody(const std::string& path) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) _exit(90);
    _exit(testing::connectedSocket(path) >= 0 ? 0 : errno);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

TEST_F(ServingE2ETest, OneDaemonAnswersRecordsAndKeepsItsFilesToRoot) {
  ::chmod(dir.path().c_str(), 0755);  // anyone may pass: only the socket's own mode stops them
  // The distribution's allowlist is copied while none is in place (the
  // seed's rules are VendorSeedTest's).
  writeFile(dir / "dist/allowlist.json", R"({"revision":1,"keys":[]})");
  start({{"TARSKEL_VENDOR_SEED", (dir / "dist/allowlist.json").string()}});
  EXPECT_EQ(
      logMessages(*daemon),
      (std::vector<std::string>{"info allowlist vendor de máquina sembrada desde la distribución",
                                "warning gate XPC sin provisionar — clientes pasan como unverified",
                                "info tarskeld v0.1.0 sirviendo " + socketPath()}));
  EXPECT_EQ(readFile(root() / "vendor/allowlist.json"), R"({"revision":1,"keys":[]})");
  EXPECT_EQ(fs::status(root() / "daemon").permissions(), fs::perms(0755));

  // The catalogue, the outcomes and the chain are the core's and the store's
  // to check; here, that a request reaches them through the real process.
  const DaemonResponse info = call("daemon.info", {}, std::nullopt, "corr-info");
  ASSERT_EQ(codeOf(info), "ok");
  EXPECT_EQ(resultAt(info, "pid").numberValue(), static_cast<double>(daemon->pid()));
  EXPECT_EQ(codeOf(call("daemon.shutdown")), "unknownOp");
  const std::vector<AuditStore::Entry> rows = auditRows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(
      rows[0].caller + " " + rows[0].tool + " " + rows[0].outcome + " " + rows[0].correlationId,
      std::string(kUnprovisionedCaller) + " daemon.info ok corr-info");
  EXPECT_TRUE(chainHolds());

  // Regression: audit.db, -wal and -shm were 0644: any user read every row.
  for (const std::string& file : {auditPath().string(), auditPath().string() + "-wal",
                                  auditPath().string() + "-shm", socketPath()}) {
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0) << file;
    EXPECT_EQ(st.st_mode & 0777, 0600u) << file;
  }
  EXPECT_EQ(connectErrnoAsNobody(socketPath()), EACCES);
}

TEST_F(ServingE2ETest, GrantsSurviveARestartAndGateTheRead) {
  start();
  const JSONObject grants{
      {"grants", JSONObject{{"svc.reader", JSONValue::Array{"fs.readProtectedPath"}},
                            {"svc.other", JSONValue::Array{"daemon.info"}}}}};
  ASSERT_EQ(codeOf(call("daemon.grants.sync", grants)), "ok");
  stop();
  start();

  writeFile(dir / "file", "\xff bytes");
  const JSONObject args{{"path", (dir / "file").string()}};
  const DaemonResponse granted = call("fs.readProtectedPath", args, "svc.reader");
  ASSERT_EQ(codeOf(granted), "ok") << messageOf(granted);
  EXPECT_EQ(base64Decode(*resultAt(granted, "contentsBase64").stringValue()), "\xff bytes");
  EXPECT_EQ(codeOf(call("fs.readProtectedPath", args, "svc.other")), "notGranted");
}

}  // namespace
}  // namespace tarskel::e2e
