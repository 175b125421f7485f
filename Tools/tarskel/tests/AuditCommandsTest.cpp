#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "ToolRunner.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::tool::testing {
namespace {

namespace fs = std::filesystem;

// Three rows whose hashes were computed independently of this code base;
// correlation ids alternate req-0, req-1, req-0.
constexpr const char* kChain = R"SQL(
CREATE TABLE audit (
    seq INTEGER PRIMARY KEY AUTOINCREMENT,
    ts REAL NOT NULL, caller TEXT NOT NULL, tool TEXT NOT NULL,
    origin TEXT NOT NULL, outcome TEXT NOT NULL, duration_ms REAL NOT NULL,
    correlation_id TEXT NOT NULL, prev_hash TEXT NOT NULL, hash TEXT NOT NULL
);
INSERT INTO audit VALUES (1, 784926483.5, 'com.example.app', 'daemon.info', 'xpc', 'ok', 1.5, 'req-0',
  '0000000000000000000000000000000000000000000000000000000000000000',
  'd58f7d6e83389f2bd41017912bb571d9ded314b835f96c9256a50ec7705153e8');
INSERT INTO audit VALUES (2, 784926484.0, 'com.example.app', 'daemon.info', 'xpc', 'ok', 1.5, 'req-1',
  'd58f7d6e83389f2bd41017912bb571d9ded314b835f96c9256a50ec7705153e8',
  '517b3912bd8cbd7c19145c87f0323620eea4bcefe7b47650e2f1a7d54df26468');
INSERT INTO audit VALUES (3, 784926490.25, 'com.example.app', 'daemon.info', 'xpc', 'ok', 1.5, 'req-0',
  '517b3912bd8cbd7c19145c87f0323620eea4bcefe7b47650e2f1a7d54df26468',
  '630a860e28a251d71b856207e7da1d233c2a14a3183149f4c71ab1c44377374f');
)SQL";

class AuditCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = fs::temp_directory_path() / ("tarskel-audit-" + std::to_string(::getpid()));
    fs::remove_all(root);
    fs::create_directories(root / "daemon");
    sql(kChain);
  }
  void TearDown() override { fs::remove_all(root); }

  // Runs SQL on the fixture through the sqlite3 shell, outside our own code.
  void sql(const std::string& text) {
    std::string command = "sqlite3 " + shellQuote(db()) + " " + shellQuote(text);
    ASSERT_EQ(std::system(command.c_str()), 0) << text;
  }
  std::string db() const { return (root / "daemon" / "audit.db").string(); }
  // Runs a shell command line with the tool's path in front of `args`.
  static int shell(const std::string& args) {
    return std::system((shellQuote(TARSKEL_TOOL_PATH) + " " + args).c_str());
  }

  fs::path root;
};

constexpr const char* kHead = "630a860e28a251d71b856207e7da1d233c2a14a3183149f4c71ab1c44377374f";

TEST_F(AuditCommandsTest, VerifyGivesTheHeadOrTheFirstFault) {
  const std::string ok = std::string("chain ok: 3 rows, head seq 3 hash ") + kHead + "\n";
  for (const auto& args : {std::vector<std::string>{"audit", "verify", "--root", root.string()},
                           std::vector<std::string>{"audit", "verify", "--db", db()}}) {
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, ok);
  }
  const std::pair<const char*, std::string> cases[] = {
      {"UPDATE audit SET caller = 'mallory' WHERE seq = 2;",
       "chain broken at seq 2: hash does not match the row's contents\n"},
      {"DELETE FROM audit WHERE seq = 2;",
       "chain broken at seq 3: prev_hash differs from the hash of the row before\n"},
      // Regression: a cut tail was reported as a shorter chain that holds.
      {"DELETE FROM audit WHERE seq = 3;",
       "chain cut after seq 2: the table's sequence stands at 3\n"},
      {"UPDATE audit SET duration_ms = 7 WHERE seq = 3;", ok},
  };
  for (const auto& [change, expected] : cases) {
    SCOPED_TRACE(change);
    SetUp();
    sql(change);
    ToolRun run = runTool({"audit", "verify", "--db", db()});
    EXPECT_EQ(run.out, expected);
    EXPECT_EQ(run.exitCode, expected == ok ? 0 : 1) << run.err;
  }
  SetUp();
  sql("UPDATE audit SET caller = 'mallory' WHERE seq = 1;");
  EXPECT_EQ(runTool({"audit", "verify", "--from", "2", "--db", db()}).out,
            std::string("chain ok from seq 2: 2 rows, head seq 3 hash ") + kHead + "\n");
  EXPECT_EQ(runTool({"audit", "verify", "--json", "--db", db()}).out,
            R"({"fromSeq":1,"headHash":")" + std::string(64, '0') +
                R"(","headSeq":0,"ok":false,"problem":"broken",)"
                R"("reason":"hash does not match the row's contents","rowsChecked":0,"seq":1})"
                "\n");
}

// Regression: with one page of a 20,000-row database overwritten, verify
// said "chain ok: 8946 rows" and exit 0.
TEST_F(AuditCommandsTest, VerifyNeverSaysOkOnADamagedFile) {
  fs::remove(db());
  // A valid chain written by Python alone, then one page in the middle lost.
  std::ofstream(root / "make.py") << R"PY(
import hashlib, sqlite3, sys
db = sqlite3.connect(sys.argv[1])
db.execute("CREATE TABLE audit (seq INTEGER PRIMARY KEY AUTOINCREMENT, ts REAL NOT NULL, caller TEXT NOT NULL, tool TEXT NOT NULL, origin TEXT NOT NULL, outcome TEXT NOT NULL, duration_ms REAL NOT NULL, correlation_id TEXT NOT NULL, prev_hash TEXT NOT NULL, hash TEXT NOT NULL)")
prev = "0" * 64
for i in range(20000):
    ts = 784926483.5 + i
    h = hashlib.sha256("|".join([prev, repr(ts), "c", "daemon.info", "xpc", "ok", "req-%d" % i]).encode()).hexdigest()
    db.execute("INSERT INTO audit VALUES (NULL, ?, 'c', 'daemon.info', 'xpc', 'ok', 1.0, ?, ?, ?)", (ts, "req-%d" % i, prev, h))
    prev = h
db.commit()
)PY";
  ASSERT_EQ(
      std::system(
          ("python3 " + shellQuote((root / "make.py").string()) + " " + shellQuote(db())).c_str()),
      0);
  ToolRun intact = runTool({"audit", "verify", "--db", db()});
  ASSERT_EQ(intact.exitCode, 0) << intact.out;
  const auto size = fs::file_size(db());
  {
    std::fstream file(db(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(size / 4096 / 2 * 4096));
    file << std::string(4096, 'Z');
  }
  ToolRun run = runTool({"audit", "verify", "--db", db()});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out.rfind("database damaged after seq ", 0), 0u) << run.out;
}

TEST_F(AuditCommandsTest, UnusableSourcesAreBadUsageAndCreateNothing) {
  const fs::path missing = root / "missing.db";
  const std::vector<std::string> cases[] = {
      {"audit", "verify", "--db", missing.string()},
      {"audit", "tail", "--root", (root / "elsewhere").string()},
      {"audit", "verify"},
      {"audit", "verify", "--root", root.string(), "--db", db()},
      {"audit", "tail", "--outcome", "maybe", "--db", db()},
      {"audit", "tail", "--since", "yesterday", "--db", db()},
  };
  for (const auto& args : cases) {
    SCOPED_TRACE(args.back());
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_FALSE(run.err.empty());
  }
  EXPECT_FALSE(fs::exists(missing));
  EXPECT_FALSE(fs::exists(root / "elsewhere"));
}

// The daemon's files are 0600: another user is told why, not "unable to open".
TEST_F(AuditCommandsTest, AFileTheUserMayNotReadIsSaidSo) {
  fs::permissions(db(), fs::perms::owner_read | fs::perms::owner_write);
  std::string drop = ::geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
  if (::geteuid() != 0) fs::permissions(db(), fs::perms::none);
  const ToolRun run =
      runShell(drop + shellQuote(TARSKEL_TOOL_PATH) + " audit verify --db " + shellQuote(db()));
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
  ToolRun tail = runTool({"audit", "tail", "-n", "2", "--db", db()});
  ASSERT_EQ(tail.exitCode, 0) << tail.err;
  EXPECT_EQ(tail.out,
            "SEQ  TIME                  OP              OUTCOME  ORIGIN  CORRELATION  MS   CALLER\n"
            "2    2025-11-15T19:08:04Z  daemon.info     ok       xpc     req-1        1.5  "
            "com.example.app\n"
            "3    2025-11-15T19:08:10Z  op\\u0085\\u202e  ok       xpc     req-0        1.5  "
            "app svc:x\\n9  fake\\x1b[31m\\\\\n");

  ToolRun json = runTool({"audit", "tail", "-n", "1", "--json", "--db", db()});
  JSONObject row = TarskelJSON::decoder().decode<JSONObject>(json.out);
  EXPECT_EQ(*row.find("caller"), JSONValue(std::string("app svc:x\n9  fake\x1b[31m\\")));
}

TEST_F(AuditCommandsTest, JsonLinesCarryAllColumnsExactlyInCamelCase) {
  ToolRun show =
      runTool({"audit", "show", "--correlation", "req-0", "--json", "--root", root.string()});
  ASSERT_EQ(show.exitCode, 0) << show.err;
  EXPECT_EQ(
      show.out.substr(show.out.find('\n') + 1),
      R"({"caller":"com.example.app","correlationId":"req-0","durationMs":1.5,"hash":")" +
          std::string(kHead) +
          R"(","origin":"xpc","outcome":"ok",)"
          R"("prevHash":"517b3912bd8cbd7c19145c87f0323620eea4bcefe7b47650e2f1a7d54df26468",)"
          R"("seq":3,"time":"2025-11-15T19:08:10.250Z","tool":"daemon.info","ts":784926490.25})"
          "\n");
  ToolRun exported = runTool({"audit", "export", "--from", "2", "--db", db()});
  EXPECT_EQ(std::count(exported.out.begin(), exported.out.end(), '\n'), 2);
}

TEST_F(AuditCommandsTest, FiltersSelectRows) {
  sql("UPDATE audit SET tool = 'fs.readProtectedPath', outcome = 'denied' WHERE seq = 2;");
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--op", "daemon.info"}, "13"},
      {{"--outcome", "denied"}, "2"},
      {{"--since", "2025-11-15T19:08:04Z"}, "23"},
      {{"--until", "2025-11-15T19:08:04Z"}, "12"},
      {{"--since", "2025-11-16"}, ""},
      {{"-n", "1", "--op", "daemon.info"}, "3"},
      {{"-n", "0"}, ""},
  };
  for (const auto& [filter, seqs] : cases) {
    SCOPED_TRACE(filter.back());
    std::vector<std::string> args{"audit", "tail", "--json", "--db", db()};
    args.insert(args.end(), filter.begin(), filter.end());
    ToolRun run = runTool(args);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::string got;
    for (std::size_t at = 0; (at = run.out.find("\"seq\":", at)) != std::string::npos; ++at)
      got += run.out[at + 6];
    EXPECT_EQ(got, seqs);
  }
}

// Regression: tail -n -1 of a million rows took 1.9 GB before the first line.
TEST_F(AuditCommandsTest, TailOfAllRowsStreams) {
  sql("WITH RECURSIVE n(i) AS (SELECT 4 UNION ALL SELECT i + 1 FROM n WHERE i < 300000) "
      "INSERT INTO audit SELECT i, 784926490.0 + i, 'com.example.app', 'daemon.info', 'xpc', 'ok', "
      "1.5, "
      "'req-' || i, printf('%064d', i - 1), printf('%064d', i) FROM n;");
  const std::string count = (root / "count").string();
  ASSERT_EQ(shell("audit tail -n -1 --db " + shellQuote(db()) + " | wc -l >" + shellQuote(count)),
            0);
  EXPECT_EQ(std::stol(readWhole(count)), 300001);
#ifndef __SANITIZE_ADDRESS__
  // AddressSanitizer's shadow memory and quarantine swamp the figure; the
  // plain build holds the bound.
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  EXPECT_LT(usage.ru_maxrss, 64 * 1024) << "kilobytes at the peak";
#endif
}

TEST_F(AuditCommandsTest, TailFollowsNewRows) {
  const std::string out = (root / "out").string();
  std::thread follower([&] {
    shell("audit tail -f -n 0 --db " + shellQuote(db()) + " >" + shellQuote(out) +
          " & sleep 3; kill $!");
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  sql("INSERT INTO audit VALUES (4, 784926491.0, 'late', 'daemon.info', 'xpc', 'ok', 1.5, 'req-4', "
      "'p', 'h');");
  follower.join();
  std::string text = readWhole(out);
  EXPECT_NE(text.find("req-4"), std::string::npos) << text;
  EXPECT_EQ(text.find("req-1"), std::string::npos) << text;
}

}  // namespace
}  // namespace tarskel::tool::testing
