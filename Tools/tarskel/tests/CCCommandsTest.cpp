#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "ToolRunner.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::tool::testing {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDraft =
    R"({"cmdId":"c1","target":"dev1","method":"config.set","params":{"retries":3,"mode":"x"},)"
    R"("deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","dualControl":{"required":true,"approvedBy":"ana"}})";

class CCCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("tarskel-cc-tool-" + std::to_string(::getpid()) + "-" +
                                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir);
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }

  std::string path(const std::string& name) const { return (dir / name).string(); }
  void write(const std::string& name, const std::string& content) const {
    std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << content;
  }
  // Runs SQL on a store through the sqlite3 shell, outside our own code.
  void sql(const std::string& text) const {
    const std::string command = "sqlite3 " + shellQuote(path("link.db")) + " " + shellQuote(text);
    ASSERT_EQ(std::system(command.c_str()), 0) << text;
  }

  // k1 signs; the allowlist holds k1 only.
  void makeKeys() {
    ASSERT_EQ(runTool({"vendor", "keygen", "--key-id", "k1", "--out", path("k1.key")}).exitCode, 0);
    ASSERT_EQ(runTool({"vendor", "keygen", "--key-id", "k2", "--out", path("k2.key")}).exitCode, 0);
    write("allowlist.json", runTool({"vendor", "allowlist", "--revision", "1", path("k1.key")}).out);
  }

  ToolRun verify(const std::string& file, std::vector<std::string> extra = {"--now", "2026-01-01T00:00:00Z"}) {
    std::vector<std::string> args{"cc", "verify", path(file), "--allowlist", path("allowlist.json")};
    args.insert(args.end(), extra.begin(), extra.end());
    return runTool(args);
  }

  fs::path dir;
};

TEST_F(CCCommandsTest, PayloadIsTheExactSignedBytes) {
  const ToolRun run = runTool({"cc", "payload", "-"}, kDraft);
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out,
            R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"approvedBy":"ana","required":true},)"
            R"("issuedBy":"ops","method":"config.set","params":{"mode":"x","retries":3},"target":"dev1"})");
  EXPECT_EQ(runTool({"cc", "payload", "-"}, R"({"cmdId":"c1"})").exitCode, 2);
}

TEST_F(CCCommandsTest, SignedCommandVerifiesAndFailsAfterAnyChangeToASignedField) {
  makeKeys();
  write("draft.json", kDraft);
  const ToolRun signedRun = runTool({"cc", "sign", path("draft.json"), "--key", path("k1.key")});
  ASSERT_EQ(signedRun.exitCode, 0) << signedRun.err;
  write("signed.json", signedRun.out);
  const ToolRun ok = verify("signed.json");
  EXPECT_EQ(ok.exitCode, 0) << ok.err;
  EXPECT_EQ(ok.out, "verificado: c1 (config.set → dev1), clave k1, deadline 2026-01-02T03:04:05Z\n");

  const JSONValue original = TarskelJSON::decoder().decode<JSONValue>(signedRun.out);
  const struct {
    const char* key;
    JSONValue value;
  } changes[] = {
      {"cmdId", "c2"},
      {"target", "dev2"},
      {"method", "platform.disable"},
      {"params", JSONValue::Object{{"retries", 4}, {"mode", "x"}}},
      {"deadline", "2026-01-02T03:04:06Z"},
      {"issuedBy", "root"},
      {"dualControl", JSONValue::Object{{"required", true}, {"approvedBy", "eve"}}},
  };
  for (const auto& c : changes) {
    SCOPED_TRACE(c.key);
    JSONValue changed = original;
    changed.objectValue()->set(c.key, c.value);
    write("changed.json", TarskelJSON::encoder().encode(changed));
    const ToolRun run = verify("changed.json");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("la firma del comando no verifica bajo la clave 'k1'"), std::string::npos) << run.err;
  }
  for (const char* key : {"params", "dualControl"}) {
    SCOPED_TRACE(std::string("without ") + key);
    JSONValue changed = original;
    changed.objectValue()->erase(key);
    write("changed.json", TarskelJSON::encoder().encode(changed));
    EXPECT_EQ(verify("changed.json").exitCode, 1);
  }
}

TEST_F(CCCommandsTest, VerifyRefusesOrFindsInputUnusable) {
  makeKeys();
  write("draft.json", kDraft);
  write("byK2.json", runTool({"cc", "sign", path("draft.json"), "--key", path("k2.key")}).out);
  write("byK1.json", runTool({"cc", "sign", path("draft.json"), "--key", path("k1.key")}).out);
  const struct {
    const char* name;
    std::function<ToolRun()> run;
    int exitCode;
    const char* message;
  } cases[] = {
      {"a key outside the list", [&] { return verify("byK2.json"); }, 1, "keyId 'k2' no está en la allowlist"},
      {"past the deadline", [&] { return verify("byK1.json", {"--now", "2026-01-02T03:04:06Z"}); }, 1,
       "comando vencido: deadline 2026-01-02 03:04:05 +0000, ahora es 2026-01-02 03:04:06 +0000"},
      {"the clock is past it", [&] { return verify("byK1.json", {}); }, 1, "comando vencido"},
      {"a command without sig", [&] { return verify("draft.json"); }, 2, "falta la clave \"sig\""},
      {"a bad date", [&] { return verify("byK1.json", {"--now", "mañana"}); }, 2, "--now espera"},
      {"a missing key file",
       [&] { return runTool({"cc", "sign", path("draft.json"), "--key", path("none.key")}); }, 2, "none.key"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ToolRun run = c.run();
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
  }
}

TEST_F(CCCommandsTest, DecodePrintsOneLinePerMessageAndFailsAtTheEnd) {
  const std::string input =
      "{\"type\":\"event-ack\",\"data\":{\"eventId\":\"e1\"}}\n"
      "\n"
      "{\"type\":\"event_ack\",\"data\":{\"eventId\":\"e1\"}}\r\n"
      "{\"type\":\"ack\",\"data\":{\"cmdId\":\"c\",\"status\":\"acked\"},\"extra\":1}";
  const ToolRun run = runTool({"cc", "decode"}, input);
  EXPECT_EQ(run.exitCode, 1);
  std::vector<std::string> lines;
  for (std::size_t start = 0, end; (end = run.out.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(run.out.substr(start, end - start));
  }
  ASSERT_EQ(lines.size(), 3u) << run.out;
  const auto canonical = [](const std::string& line) {
    return TarskelJSON::canonicalEncoder().encode(TarskelJSON::decoder().decode<JSONValue>(line));
  };
  EXPECT_EQ(canonical(lines[0]), R"({"kind":"event-ack","message":{"data":{"eventId":"e1"},"type":"event-ack"}})");
  EXPECT_EQ(canonical(lines[1]), R"({"error":"dataCorrupted en type: valor desconocido: \"event_ack\""})");
  EXPECT_EQ(canonical(lines[2]), R"({"kind":"ack","message":{"data":{"cmdId":"c","status":"acked"},"type":"ack"}})");

  write("good.txt", "{\"type\":\"ack\",\"data\":{\"cmdId\":\"c\",\"status\":\"nacked\"}}\n");
  EXPECT_EQ(runTool({"cc", "decode", path("good.txt")}).exitCode, 0);
  EXPECT_EQ(runTool({"cc", "decode", path("none.txt")}).exitCode, 2);
}

TEST_F(CCCommandsTest, OutboxAndAcksInspectAndRepairAStore) {
  sql("CREATE TABLE cc_events (seq INTEGER PRIMARY KEY AUTOINCREMENT, event_id TEXT UNIQUE NOT NULL, "
      "payload TEXT NOT NULL, created_at TEXT NOT NULL);"
      "CREATE TABLE cc_cmd_dedupe (cmd_id TEXT PRIMARY KEY, ack TEXT NOT NULL, created_at TEXT NOT NULL);"
      "INSERT INTO cc_events (event_id, payload, created_at) VALUES "
      "('e1', '{\"eventId\":\"e1\",\"deviceId\":\"d\",\"ts\":\"2026-01-02T03:04:05Z\",\"type\":\"service.crashed\"}', "
      "'2026-01-02T03:04:06Z'), ('bad', '{not json', '2026-01-02T03:04:07Z');"
      "INSERT INTO cc_cmd_dedupe VALUES ('c1', '{\"status\":\"acked\",\"cmdId\":\"c1\"}', '2026-01-02T03:04:08Z'),"
      "('c2', '{\"cmdId\":\"c2\",\"status\":\"ok\"}', '2026-01-02T03:04:09Z');");
  const std::string db = path("link.db");
  const auto tool = [&db](std::vector<std::string> tail) {
    std::vector<std::string> args{"cc", tail.front(), "--db", db};
    args.insert(args.end(), tail.begin() + 1, tail.end());
    return runTool(args);
  };
  const struct {
    std::vector<std::string> args;
    int exitCode;
    std::string out;  // or the start of standard error when the exit code isn't 0
  } cases[] = {
      {{"outbox", "count"}, 0, "2\n"},
      {{"outbox", "list"}, 0,
       "1  e1  2026-01-02T03:04:06Z  service.crashed\n2  bad  2026-01-02T03:04:07Z  (ilegible: dataCorrupted en "
       "<raíz>: "},
      {{"outbox", "list", "--json"}, 0,
       R"({"seq":1,"eventId":"e1","createdAt":"2026-01-02T03:04:06Z","event":{"deviceId":"d","eventId":"e1",)"
       R"("ts":"2026-01-02T03:04:05Z","type":"service.crashed"}})"},
      {{"acks", "show", "c1"}, 0, "{\"cmdId\":\"c1\",\"status\":\"acked\"}\n"},
      {{"acks", "show", "c2"}, 1, "tarskel: el ack guardado para 'c2' es ilegible: dataCorrupted en status"},
      {{"acks", "show", "c3"}, 1, "tarskel: ningún ack guardado para 'c3'"},
      {{"outbox", "remove", "nope"}, 1, "tarskel: ningún evento 'nope' en la cola"},
      {{"outbox", "remove", "bad"}, 0, "eliminado: bad\n"},
      {{"outbox", "count"}, 0, "1\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1] + (c.args.size() > 2 ? " " + c.args[2] : ""));
    const ToolRun run = tool(c.args);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    const std::string& seen = c.exitCode == 0 ? run.out : run.err;
    EXPECT_EQ(seen.substr(0, c.out.size()), c.out);
  }

  EXPECT_EQ(runTool({"cc", "outbox", "--db", path("missing.db"), "count"}).exitCode, 2);
  EXPECT_EQ(runTool({"cc", "outbox", "--db", path("missing.db"), "remove", "e1"}).exitCode, 2);
  EXPECT_FALSE(fs::exists(path("missing.db"))) << "a mistyped path leaves no store behind";
}

}  // namespace
}  // namespace tarskel::tool::testing
