#include <gtest/gtest.h>

#include <fstream>

#include "ToolRunner.hpp"
#include "tarskel/testing/JSONTesting.hpp"

namespace tarskel::tool::testing {
namespace {

using CCCommandsTest = ToolFiles;

TEST_F(CCCommandsTest, PayloadSignAndVerify) {
  ASSERT_EQ(runTool({"vendor", "keygen", "--key-id", "k1", "--out", path("k1.key")}).exitCode, 0);
  write("allowlist.json", runTool({"vendor", "allowlist", "--revision", "1", path("k1.key")}).out);
  const std::string draft = write(
      "draft.json",
      R"({"cmdId":"c1","target":"dev1","method":"config.set","params":{"retries":3,"mode":"x"},)"
      R"("deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","dualControl":{"required":true,"approvedBy":"ana"}})");
  write("signed.json", runTool({"cc", "sign", draft, "--key", path("k1.key")}).out);
  // The library's own tests hold every refusal; one shows the wiring.
  expectRuns(R"(
    cc payload $DIR/draft.json | 0 |  | {"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"approvedBy":"ana","required":true},"issuedBy":"ops","method":"config.set","params":{"mode":"x","retries":3},"target":"dev1"}
    cc payload - | 2 |  | '' | {"cmdId":"c1"}
    cc verify $DIR/signed.json --allowlist $DIR/allowlist.json --now 2026-01-01T00:00:00Z | 0 |  | verified: c1 (config.set → dev1), key k1, deadline 2026-01-02T03:04:05Z\n
    cc verify $DIR/signed.json --allowlist $DIR/allowlist.json --now 2026-01-02T03:04:06Z | 1 | comando vencido: deadline 2026-01-02 03:04:05 +0000, ahora es 2026-01-02 03:04:06 +0000 | ''
    cc verify $DIR/draft.json --allowlist $DIR/allowlist.json | 2 | falta la clave "sig" | ''
    cc verify $DIR/signed.json --allowlist $DIR/allowlist.json --now mañana | 2 | --now expects | ''
  )",
             {{"$DIR", scratch.path().string()}});
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
  EXPECT_EQ(tarskel::testing::canonical(tarskel::testing::json(run.out.substr(bad.size() + 1))),
            R"({"kind":"ack","message":{"data":{"cmdId":"c","status":"acked"},"type":"ack"}})");
  EXPECT_EQ(runTool({"cc", "decode", path("none.txt")}).exitCode, 2);
}

// A store as a link process leaves it, with one damaged row in each table.
TEST_F(CCCommandsTest, OutboxAndAcksInspectAndRepairAStore) {
  sql(path("link.db"), R"SQL(
CREATE TABLE cc_events (seq INTEGER PRIMARY KEY AUTOINCREMENT, event_id TEXT UNIQUE NOT NULL,
  payload TEXT NOT NULL, created_at TEXT NOT NULL);
CREATE TABLE cc_cmd_dedupe (cmd_id TEXT PRIMARY KEY, ack TEXT NOT NULL, created_at TEXT NOT NULL);
INSERT INTO cc_events (event_id, payload, created_at) VALUES
  ('e1', '{"eventId":"e1","deviceId":"d","ts":"2026-01-02T03:04:05Z","type":"service.crashed"}',
   '2026-01-02T03:04:06Z'),
  ('bad', '{}', '2026-01-02T03:04:07Z' || char(27, 93, 48, 59, 7));
INSERT INTO cc_cmd_dedupe VALUES ('c1', '{"status":"acked","cmdId":"c1"}', '2026-01-02T03:04:08Z'),
  ('c2', '{"cmdId":"c2","status":"ok"}', '2026-01-02T03:04:09Z');
)SQL");
  expectRuns(R"(
    cc outbox --db $DB list | 0 |  | 1  e1  2026-01-02T03:04:06Z  service.crashed\n2  bad  2026-01-02T03:04:07Z\x1b]0;\x07  (unreadable: keyNotFound en <raíz>: falta la clave "eventId")\n
    cc outbox --db $DB list --json | 0 |  | {"seq":1,"eventId":"e1","createdAt":"2026-01-02T03:04:06Z","event":{"deviceId":"d","eventId":"e1","ts":"2026-01-02T03:04:05Z","type":"service.crashed"}}\n{"seq":2,"eventId":"bad","createdAt":"2026-01-02T03:04:07Z\u001b]0;\u0007","error":"keyNotFound en <raíz>: falta la clave \"eventId\""}\n
    cc acks --db $DB show c1 | 0 |  | {"cmdId":"c1","status":"acked"}\n
    cc acks --db $DB show c2 | 1 | tarskel: the ack stored for 'c2' can't be read: dataCorrupted | ''
    cc outbox --db $DB remove nope | 1 | tarskel: no event 'nope' in the outbox | ''
    cc outbox --db $DB remove bad | 0 |  | removed: bad\n
    cc outbox --db $DB count | 0 |  | 1\n
    cc outbox --db $DIR/none.db remove e1 | 2
  )",
             {{"$DB", path("link.db")}, {"$DIR", scratch.path().string()}});
  EXPECT_FALSE(fs::exists(path("none.db"))) << "a mistyped path leaves no store behind";
  // Regression: rows after a damaged page were left out, with exit 0.
  std::fstream(path("link.db"), std::ios::in | std::ios::out | std::ios::binary).seekp(4096)
      << std::string(4096, 'Z');  // the outbox's only page
  expectRuns("cc outbox --db $DB list | 1 | database damaged after seq 0: database disk image",
             {{"$DB", path("link.db")}});
}

}  // namespace
}  // namespace tarskel::tool::testing
