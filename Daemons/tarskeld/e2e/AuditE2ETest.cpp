// The audit chain of the running daemon under what a client or an operator
// may do to it: any bytes in a request, a second daemon on the same root,
// other users reading the files.

#include <sys/stat.h>

#include <cstdio>

#include "E2EFixture.hpp"

namespace tarskel::e2e {
namespace {

using AuditE2ETest = E2EFixture;

// The chain as Python's own sqlite3 and hashlib read it from the file.
std::string independentVerdict(const std::filesystem::path& db) {
  std::string out;
  FILE* pipe = popen(("python3 '" TARSKEL_CHAIN_CHECK "' '" + db.string() + "' 2>&1").c_str(), "r");
  char buffer[256];
  while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr) out += buffer;
  if (pipe != nullptr) pclose(pipe);
  return out;
}

// Regression: {"op":"a\u0000b"} from any client broke the chain for good,
// and a 15 MiB op name was stored whole.
TEST_F(AuditE2ETest, AnyBytesInARequestLeaveABoundedRowOnAChainThatHolds) {
  start();
  const std::string nul("a\0b", 3);
  EXPECT_EQ(codeOf(call(nul, {}, nul, nul)), "unknownOp");
  EXPECT_EQ(codeOf(call(std::string(200000, 'x'), {}, std::string(200000, 's'))), "unknownOp");
  EXPECT_EQ(codeOf(call("daemon.info", {}, std::nullopt, "after")), "ok");

  std::vector<AuditStore::Entry> rows = auditRows();
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].tool,
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(rows[0].correlationId, rows[0].tool);
  EXPECT_EQ(rows[1].tool.size(), AuditStore::kMaxTextBytes);
  EXPECT_LE(rows[1].caller.size(), AuditStore::kMaxTextBytes);
  EXPECT_TRUE(chainHolds());
  EXPECT_EQ(independentVerdict(auditPath()).substr(0, 5), "ok 3 ")
      << independentVerdict(auditPath());
}

// Regression: two daemons on one root each wrote from their own head and
// forked the chain at the second row.
TEST_F(AuditE2ETest, ASecondDaemonOnTheSameRootStopsAtOnce) {
  DaemonProcess& first = start();
  DaemonProcess second(DaemonProcess::Options{
      TARSKELD_PATH,
      {"--mach-service", (dir / "other.sock").string(), "--root", root().string()},
      {}});
  std::optional<int> status = second.waitForExit(5s);
  ASSERT_TRUE(status) << "the second daemon kept running";
  EXPECT_NE(*status, 0);
  std::string log;
  for (const std::string& line : second.lines()) log += line + "\n";
  EXPECT_NE(log.find("another tarskeld (pid " + std::to_string(first.pid()) +
                     ") already serves the root"),
            std::string::npos)
      << log;
  EXPECT_EQ(codeOf(call("daemon.info")), "ok");
  EXPECT_TRUE(chainHolds());

  stop();  // the lock goes with the process, however it ends
  start();
  EXPECT_EQ(codeOf(call("daemon.info")), "ok");
}

// Regression: audit.db, -wal and -shm were 0644: any user read every row.
TEST_F(AuditE2ETest, TheAuditFilesAreRootsAlone) {
  start();
  EXPECT_EQ(codeOf(call("daemon.info")), "ok");
  for (const char* suffix : {"", "-wal", "-shm"}) {
    struct stat info {};
    ASSERT_EQ(::stat((auditPath().string() + suffix).c_str(), &info), 0) << suffix;
    EXPECT_EQ(info.st_mode & 0777, 0600u) << suffix;
  }
}

}  // namespace
}  // namespace tarskel::e2e
