#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <fstream>

#include "ToolRunner.hpp"
#include "tarskel/store/AuditStore.hpp"
#include "tarskel/testing/JSONTesting.hpp"

namespace tarskel::tool::testing {
namespace {

// The head of the three rows every test starts from; the store's own tests
// pin the hash against an outside implementation.
const std::string kHead = "630a860e28a251d71b856207e7da1d233c2a14a3183149f4c71ab1c44377374f";

class AuditCommandsTest : public ToolFiles {
 protected:
  void SetUp() override { reset(""); }
  // Three rows as the daemon writes them, correlation ids req-0, req-1,
  // req-0, then `change` made through the sqlite3 shell.
  void reset(const std::string& change) {
    fs::create_directories(scratch.file("daemon"));
    fs::remove(db());
    {
      const double times[] = {784926483.5, 784926484.0, 784926490.25};
      std::size_t next = 0;
      boost::asio::io_context io;
      AuditStore store(SQLiteDatabase::open(db()), io.get_executor(),
                       [&] { return Date{times[next]}; });
      for (; next < 3; ++next)
        store.recordSync("com.example.app", "daemon.info", "xpc", "ok", 1.5,
                         "req-" + std::to_string(next % 2));
    }
    if (!change.empty()) sql(change);
  }
  void sql(const std::string& text) { ToolFiles::sql(db(), text); }
  std::string db() const { return path("daemon/audit.db"); }
  std::map<std::string, std::string> vars() const {
    return {{"$DB", db()}, {"$HEAD", kHead}, {"$ROOT", scratch.path().string()}};
  }
};

TEST_F(AuditCommandsTest, VerifyGivesTheHeadOrTheFirstFault) {
  expectRuns(R"(
    audit verify --root $ROOT | 0 |  | chain ok: 3 rows, head seq 3 hash $HEAD\n
    audit verify --root $ROOT --expect-head 3:$HEAD | 0 |  | chain ok: 3 rows, head seq 3 hash $HEAD\n
    audit verify --root $ROOT --expect-head 2:$HEAD | 1 |  | chain ok: 3 rows, head seq 3 hash $HEAD\nanchor not held: seq 2 has hash 517b3912bd8cbd7c19145c87f0323620eea4bcefe7b47650e2f1a7d54df26468, not the kept $HEAD\n
    audit verify --root $ROOT --expect-head 3 | 2 | --expect-head takes SEQ:HASH
  )",
             vars());
  // Regression: a cut tail was reported as a shorter chain that holds.
  reset("DELETE FROM audit WHERE seq = 3;");
  expectRuns(
      "audit verify --db $DB | 1 |  | chain cut after seq 2: the table's sequence stands at 3\\n",
      vars());
  reset("UPDATE audit SET caller = 'mallory' WHERE seq = 1;");
  expectRuns(R"(
    audit verify --db $DB | 1 |  | chain broken at seq 1: hash does not match the row's contents\n
    audit verify --from 2 --db $DB | 0 |  | chain ok from seq 2: 2 rows, head seq 3 hash $HEAD\n
    audit verify --json --db $DB | 1 |  | {"fromSeq":1,"headHash":"0000000000000000000000000000000000000000000000000000000000000000","headSeq":0,"ok":false,"problem":"broken","reason":"hash does not match the row's contents","rowsChecked":0,"seq":1}\n
  )",
             vars());
}

// Regression: with one page of a 20,000-row database overwritten, verify
// said "chain ok: 8946 rows" and exit 0. The store's tests walk into a damaged
// page; here, the tool's verdict on a file whose audit table can't be read.
TEST_F(AuditCommandsTest, VerifyNeverSaysOkOnADamagedFile) {
  std::fstream(db(), std::ios::in | std::ios::out | std::ios::binary).seekp(4096)
      << std::string(4096, 'Z');  // the audit table's only page
  expectRuns(
      "audit verify --db $DB | 1 |  | database damaged after seq 0: database disk image is "
      "malformed\\n",
      vars());
}

TEST_F(AuditCommandsTest, UnusableSourcesAreBadUsageAndCreateNothing) {
  expectRuns(R"(
    audit verify --db $ROOT/missing.db | 2 | $ROOT/missing.db: No such file or directory
    audit tail --root $ROOT/elsewhere | 2 | $ROOT/elsewhere/daemon/audit.db: No such file or directory
    audit verify | 2 | /daemon/audit.db
    audit verify --root $ROOT --db $DB | 2 | --root excludes --db
    audit tail --outcome maybe --db $DB | 2 | --outcome: maybe not in {ok,denied,error}
    audit tail --since 1h --db $DB | 2 | --since: not a time: 1h
  )",
             vars());
  EXPECT_FALSE(fs::exists(path("missing.db")));
  EXPECT_FALSE(fs::exists(path("elsewhere")));
}

// The daemon's files are 0600: another user is told why, not "unable to open".
TEST_F(AuditCommandsTest, AFileTheUserMayNotReadIsSaidSo) {
  const bool root = ::geteuid() == 0;
  fs::permissions(scratch.path(), fs::perms::others_exec, fs::perm_options::add);
  fs::permissions(db(), root ? fs::perms::owner_read | fs::perms::owner_write : fs::perms::none);
  const ToolRun run =
      runShell(std::string(root ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "") +
               quote(TARSKEL_TOOL_PATH) + " audit verify --db " + quote(db()));
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(
      run.err.find("audit.db: permission denied: the audit database is readable by its owner"),
      std::string::npos)
      << run.err;
}

// Regression: a service id holding a newline forged a whole row on screen,
// and an escape sequence reached the terminal.
TEST_F(AuditCommandsTest, PeopleSeeControlCharactersEscapedMachinesSeeThemExactly) {
  sql("UPDATE audit SET caller = 'app svc:x' || char(10) || '9  fake' || char(27) || '[31m\\' "
      "WHERE seq = 3;"
      "UPDATE audit SET tool = 'op' || char(133) || char(8238) WHERE seq = 3;");
  const ToolRun tail = runTool({"audit", "tail", "-n", "2", "--db", db()});
  ASSERT_EQ(tail.exitCode, 0) << tail.err;
  EXPECT_EQ(tail.out,
            "SEQ  TIME                  OP              OUTCOME  ORIGIN  CORRELATION  MS   CALLER\n"
            "2    2025-11-15T19:08:04Z  daemon.info     ok       xpc     req-1        1.5  "
            "com.example.app\n"
            "3    2025-11-15T19:08:10Z  op\\u0085\\u202e  ok       xpc     req-0        1.5  "
            "app svc:x\\n9  fake\\x1b[31m\\\\\n");
  const ToolRun json = runTool({"audit", "tail", "-n", "1", "--json", "--db", db()});
  EXPECT_EQ(*tarskel::testing::json(json.out)["caller"],
            JSONValue(std::string("app svc:x\n9  fake\x1b[31m\\")));
}

TEST_F(AuditCommandsTest, JsonLinesCarryAllColumnsExactlyInCamelCase) {
  const ToolRun show = runTool({"audit", "show", "--correlation", "req-0", "--json", "--db", db()});
  ASSERT_EQ(show.exitCode, 0) << show.err;
  EXPECT_EQ(
      show.out.substr(show.out.find('\n') + 1),
      R"({"caller":"com.example.app","correlationId":"req-0","durationMs":1.5,"hash":")" + kHead +
          R"(","origin":"xpc","outcome":"ok",)"
          R"("prevHash":"517b3912bd8cbd7c19145c87f0323620eea4bcefe7b47650e2f1a7d54df26468",)"
          R"("seq":3,"time":"2025-11-15T19:08:10.250Z","tool":"daemon.info","ts":784926490.25})"
          "\n");
  const ToolRun exported = runTool({"audit", "export", "--from", "2", "--db", db()});
  EXPECT_EQ(std::count(exported.out.begin(), exported.out.end(), '\n'), 2);
}

TEST_F(AuditCommandsTest, FiltersSelectRows) {
  sql("UPDATE audit SET tool = 'fs.readProtectedPath', outcome = 'denied' WHERE seq = 2;");
  for (const auto& row : tarskel::testing::rows(R"(
    --op daemon.info | 13
    --outcome denied | 2
    --since 2025-11-15T19:08:04Z | 23
    --until 2025-11-15T19:08:04Z | 12
    --since 2025-11-16 | ''
    -n 1 --op daemon.info | 3
    -n 0 | ''
    --since -1h | ''
    --until yesterday | 123
    -r -n 2 | 32
  )")) {
    // The seq column of every row after the header.
    const ToolRun run = runShell("(" + quote(TARSKEL_TOOL_PATH) + " audit tail --db " +
                                 quote(db()) + " " + row[0] + " | awk 'NR > 1 { printf $1 }')");
    EXPECT_EQ(run.out, row[1] == "''" ? "" : row[1]) << row.line << run.err;
  }
}

// Regression: tail -n -1 of a million rows took 1.9 GB before the first line.
TEST_F(AuditCommandsTest, TailOfAllRowsStreams) {
  sql("WITH RECURSIVE n(i) AS (SELECT 4 UNION ALL SELECT i + 1 FROM n WHERE i < 300000) "
      "INSERT INTO audit SELECT i, 784926490.0 + i, 'com.example.app', 'daemon.info', 'xpc', "
      "'ok', 1.5, 'req-' || i, printf('%064d', i - 1), printf('%064d', i) FROM n;");
  const ToolRun count = runShell("(" + quote(TARSKEL_TOOL_PATH) + " audit tail -n -1 --db " +
                                 quote(db()) + " | wc -l)");
  EXPECT_EQ(std::stol(count.out), 300001);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // AddressSanitizer's shadow memory and quarantine swamp the figure.
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  EXPECT_LT(usage.ru_maxrss, 64 * 1024) << "kilobytes at the peak";
#endif
}

TEST_F(AuditCommandsTest, TailFollowsNewRows) {
  // The row goes in once the header shows where the tail starts, and the
  // tail stops once the row is out (or after 20 s): no guess at how long a
  // loaded machine takes to start the tool.
  const std::string out = quote(db() + ".out");
  const auto waitFor = [&](const char* text) {
    return std::string(" for i in $(seq 200); do grep -q ") + text + " " + out +
           " && break; sleep 0.1; done;";
  };
  const ToolRun run = runShell(
      "(" + quote(TARSKEL_TOOL_PATH) + " audit tail -f -n 0 --db " + quote(db()) + " > " + out +
      " &" + waitFor("SEQ") + " sqlite3 " + quote(db()) +
      " \"INSERT INTO audit VALUES (4, 784926491.0, 'late', 'daemon.info', 'xpc', 'ok', 1.5, "
      "'req-4', 'p', 'h')\";" +
      waitFor("req-4") + " kill $!; cat " + out + ")");
  EXPECT_NE(run.out.find("req-4"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("req-1"), std::string::npos) << run.out;
}

}  // namespace
}  // namespace tarskel::tool::testing
