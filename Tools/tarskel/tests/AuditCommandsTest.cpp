#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

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

  fs::path root;
};

TEST_F(AuditCommandsTest, VerifyReportsAnIntactChainByRootOrFile) {
  for (const auto& args : {std::vector<std::string>{"audit", "verify", "--root", root.string()},
                           std::vector<std::string>{"audit", "verify", "--db", db()}}) {
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "chain ok: 3 rows\n");
  }
}

TEST_F(AuditCommandsTest, VerifyNamesTheFirstBrokenRow) {
  const std::pair<const char*, const char*> cases[] = {
      {"UPDATE audit SET caller = 'mallory' WHERE seq = 2;",
       "chain broken at seq 2: hash does not match the row's contents\n"},
      {"DELETE FROM audit WHERE seq = 2;",
       "chain broken at seq 3: prev_hash differs from the hash of the row before\n"},
      {"UPDATE audit SET ts = ts + 1 WHERE seq = 1;",
       "chain broken at seq 1: hash does not match the row's contents\n"},
      {"UPDATE audit SET duration_ms = 7 WHERE seq = 3;", "chain ok: 3 rows\n"},
  };
  for (const auto& [change, expected] : cases) {
    SCOPED_TRACE(change);
    SetUp();
    sql(change);
    ToolRun run = runTool({"audit", "verify", "--db", db()});
    EXPECT_EQ(run.out, expected);
    EXPECT_EQ(run.exitCode, std::string(expected).rfind("chain ok", 0) == 0 ? 0 : 1) << run.err;
  }
}

TEST_F(AuditCommandsTest, UnusableSourcesAreBadUsageAndCreateNothing) {
  const fs::path missing = root / "missing.db";
  const std::vector<std::string> cases[] = {
      {"audit", "verify", "--db", missing.string()},
      {"audit", "tail", "--root", (root / "elsewhere").string()},
      {"audit", "verify"},
      {"audit", "verify", "--root", root.string(), "--db", db()},
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

TEST_F(AuditCommandsTest, TailAndShowForPeople) {
  ToolRun tail = runTool({"audit", "tail", "-n", "2", "--db", db()});
  ASSERT_EQ(tail.exitCode, 0) << tail.err;
  EXPECT_EQ(tail.out,
            "SEQ  TIME                  OP           OUTCOME  ORIGIN  CORRELATION  MS   CALLER\n"
            "2    2025-11-15T19:08:04Z  daemon.info  ok       xpc     req-1        1.5  com.example.app\n"
            "3    2025-11-15T19:08:10Z  daemon.info  ok       xpc     req-0        1.5  com.example.app\n");
}

TEST_F(AuditCommandsTest, JsonLinesCarryAllColumnsExactly) {
  ToolRun show = runTool({"audit", "show", "--correlation", "req-0", "--json", "--root", root.string()});
  ASSERT_EQ(show.exitCode, 0) << show.err;
  std::vector<JSONObject> rows;
  std::size_t start = 0;
  for (std::size_t end; (end = show.out.find('\n', start)) != std::string::npos; start = end + 1) {
    rows.push_back(TarskelJSON::decoder().decode<JSONObject>(show.out.substr(start, end - start)));
  }
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].size(), 10u);
  EXPECT_EQ(*rows[1].find("seq"), JSONValue(3.0));
  EXPECT_EQ(*rows[1].find("ts"), JSONValue(784926490.25));
  EXPECT_EQ(*rows[1].find("prev_hash"),
            JSONValue(std::string("517b3912bd8cbd7c19145c87f0323620eea4bcefe7b47650e2f1a7d54df26468")));

  ToolRun tail = runTool({"audit", "tail", "--json", "--db", db()});
  EXPECT_EQ(std::count(tail.out.begin(), tail.out.end(), '\n'), 3);
}

}  // namespace
}  // namespace tarskel::tool::testing
