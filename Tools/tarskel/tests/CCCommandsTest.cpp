#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "ToolRunner.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel::tool::testing {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDraft =
    R"({"cmdId":"c1","target":"dev1","method":"config.set","params":{"retries":3,"mode":"x"},)"
    R"("deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","dualControl":{"required":true,"approvedBy":"ana"}})";

class CCCommandsTest : public ::testing::Test {
 protected:
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
    write("allowlist.json",
          runTool({"vendor", "allowlist", "--revision", "1", path("k1.key")}).out);
  }

  ToolRun verify(const std::string& file,
                 std::vector<std::string> extra = {"--now", "2026-01-01T00:00:00Z"}) {
    std::vector<std::string> args{"cc", "verify", path(file), "--allowlist",
                                  path("allowlist.json")};
    args.insert(args.end(), extra.begin(), extra.end());
    return runTool(args);
  }

  tarskel::testing::TempDirectory scratch{"tarskel-cc-tool"};
  const fs::path dir = scratch.path();
};

TEST_F(CCCommandsTest, PayloadIsTheExactSignedBytes) {
  const ToolRun run = runTool({"cc", "payload", "-"}, kDraft);
  EXPECT_EQ(run.out,
            R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"approvedBy":"ana",)"
            R"("required":true},"issuedBy":"ops","method":"config.set","params":{"mode":"x",)"
            R"("retries":3},"target":"dev1"})");
  EXPECT_EQ(runTool({"cc", "payload", "-"}, R"({"cmdId":"c1"})").exitCode, 2);
}

TEST_F(CCCommandsTest, SignedCommandVerifiesAndFailsAfterAnyChangeToASignedField) {
  makeKeys();
  write("draft.json", kDraft);
  const ToolRun signedRun = runTool({"cc", "sign", path("draft.json"), "--key", path("k1.key")});
  write("signed.json", signedRun.out);
  const ToolRun ok = verify("signed.json");
  EXPECT_EQ(ok.exitCode, 0) << ok.err;
  EXPECT_EQ(ok.out, "verified: c1 (config.set → dev1), key k1, deadline 2026-01-02T03:04:05Z\n");

  const JSONValue original = TarskelJSON::decoder().decode<JSONValue>(signedRun.out);
  // One signed field changed, one dropped: the library's tests hold the rest.
  const std::pair<const char*, JSONValue> changes[] = {{"target", "dev2"}, {"params", nullptr}};
  for (const auto& [key, value] : changes) {
    JSONValue changed = original;
    changed.objectValue()->set(key, value);
    write("changed.json", TarskelJSON::encoder().encode(changed));
    const ToolRun run = verify("changed.json");
    EXPECT_EQ(run.exitCode, 1) << key;
    EXPECT_NE(run.err.find("la firma del comando no verifica bajo la clave 'k1'"),
              std::string::npos)
        << key << ": " << run.err;
  }
}

TEST_F(CCCommandsTest, VerifyRefusesOrFindsInputUnusable) {
  makeKeys();
  write("draft.json", kDraft);
  write("byK2.json", runTool({"cc", "sign", path("draft.json"), "--key", path("k2.key")}).out);
  write("byK1.json", runTool({"cc", "sign", path("draft.json"), "--key", path("k1.key")}).out);
  const struct {
    ToolRun run;
    int exitCode;
    const char* message;
  } cases[] = {
      {verify("byK2.json"), 1, "keyId 'k2' no está en la allowlist"},
      {verify("byK1.json", {"--now", "2026-01-02T03:04:06Z"}), 1,
       "comando vencido: deadline 2026-01-02 03:04:05 +0000, ahora es 2026-01-02 03:04:06 +0000"},
      {verify("draft.json"), 2, "falta la clave \"sig\""},
      {verify("byK1.json", {"--now", "mañana"}), 2, "--now expects"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.run.exitCode, c.exitCode) << c.message;
    EXPECT_NE(c.run.err.find(c.message), std::string::npos) << c.run.err;
  }
}

TEST_F(CCCommandsTest, DecodePrintsOneLinePerMessageAndFailsAtTheEnd) {
  const ToolRun run =
      runTool({"cc", "decode"}, R"({"type":"event_ack","data":{}})"
                                "\r\n\n"
                                R"({"type":"ack","data":{"cmdId":"c","status":"acked"},"x":1})");
  EXPECT_EQ(run.exitCode, 1);
  const std::string bad = R"({"error":"dataCorrupted en type: valor desconocido: \"event_ack\""})";
  ASSERT_EQ(run.out.substr(0, bad.size() + 1), bad + "\n");
  // Compared in canonical form: the library promises no order of keys.
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(
                TarskelJSON::decoder().decode<JSONValue>(run.out.substr(bad.size() + 1))),
            R"({"kind":"ack","message":{"data":{"cmdId":"c","status":"acked"},"type":"ack"}})");
  EXPECT_EQ(runTool({"cc", "decode", path("none.txt")}).exitCode, 2);
}

// A store as a link process leaves it, with one damaged row in each table.
constexpr const char* kStore = R"SQL(
CREATE TABLE cc_events (seq INTEGER PRIMARY KEY AUTOINCREMENT, event_id TEXT UNIQUE NOT NULL,
  payload TEXT NOT NULL, created_at TEXT NOT NULL);
CREATE TABLE cc_cmd_dedupe (cmd_id TEXT PRIMARY KEY, ack TEXT NOT NULL, created_at TEXT NOT NULL);
INSERT INTO cc_events (event_id, payload, created_at) VALUES
  ('e1', '{"eventId":"e1","deviceId":"d","ts":"2026-01-02T03:04:05Z","type":"service.crashed"}',
   '2026-01-02T03:04:06Z'),
  ('bad', '{not json', '2026-01-02T03:04:07Z');
INSERT INTO cc_cmd_dedupe VALUES ('c1', '{"status":"acked","cmdId":"c1"}', '2026-01-02T03:04:08Z'),
  ('c2', '{"cmdId":"c2","status":"ok"}', '2026-01-02T03:04:09Z');
)SQL";

TEST_F(CCCommandsTest, OutboxAndAcksInspectAndRepairAStore) {
  sql(kStore);
  const struct {
    const char* area;
    std::vector<std::string> tail;
    int exitCode;
    std::string out;  // the start of standard error when the exit code isn't 0
  } cases[] = {
      {"outbox",
       {"list"},
       0,
       "1  e1  2026-01-02T03:04:06Z  service.crashed\n"
       "2  bad  2026-01-02T03:04:07Z  (unreadable: dataCorrupted en <raíz>: "},
      {"outbox",
       {"list", "--json"},
       0,
       R"({"seq":1,"eventId":"e1","createdAt":"2026-01-02T03:04:06Z","event":{"deviceId":"d",)"
       R"("eventId":"e1","ts":"2026-01-02T03:04:05Z","type":"service.crashed"}})"},
      {"acks", {"show", "c1"}, 0, "{\"cmdId\":\"c1\",\"status\":\"acked\"}\n"},
      {"acks", {"show", "c2"}, 1, "tarskel: the ack stored for 'c2' can't be read: dataCorrupted"},
      {"outbox", {"remove", "nope"}, 1, "tarskel: no event 'nope' in the outbox"},
      {"outbox", {"remove", "bad"}, 0, "removed: bad\n"},
      {"outbox", {"count"}, 0, "1\n"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args{"cc", c.area, "--db", path("link.db")};
    args.insert(args.end(), c.tail.begin(), c.tail.end());
    const ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, c.exitCode) << c.out << run.err;
    EXPECT_EQ((c.exitCode == 0 ? run.out : run.err).substr(0, c.out.size()), c.out);
  }
  EXPECT_EQ(runTool({"cc", "outbox", "--db", path("none.db"), "remove", "e1"}).exitCode, 2);
  EXPECT_FALSE(fs::exists(path("none.db"))) << "a mistyped path leaves no store behind";
}

}  // namespace
}  // namespace tarskel::tool::testing
