// The link store against real SQLite files: the outbox's order and
// duplicates, damaged rows, the ack memory and its trimming, and a writer
// killed mid-enqueue.

#include "tarskel/store/CCLinkStore.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "StoreTestSupport.hpp"

namespace tarskel {
namespace {

using Value = SQLiteDatabase::Value;

CCEvent event(const std::string& id, const std::string& type = "service.crashed") {
  return CCEvent{id, "dev1", *parseISO8601("2026-01-02T03:04:05Z"), type, JSONValue::Object{{"n", 1}}};
}

std::vector<std::string> ids(const std::vector<CCEvent>& events) {
  std::vector<std::string> out;
  for (const CCEvent& e : events) out.push_back(e.eventId);
  return out;
}

class CCLinkStoreTest : public ::testing::Test {
 protected:
  std::string path() const { return dir.file("link.db"); }

  // Every cmd_id in the dedupe table, in no order.
  std::set<std::string> storedCommands() {
    std::set<std::string> out;
    for (auto& row : db->query("SELECT cmd_id FROM cc_cmd_dedupe")) out.insert(*row["cmd_id"].stringValue());
    return out;
  }

  void insertRawEvent(const std::string& id, const std::string& payloadSQL) {
    ASSERT_TRUE(db->exec("INSERT INTO cc_events (event_id, payload, created_at) VALUES ('" + id + "', " +
                         payloadSQL + ", '2026-01-02T03:04:05Z')"));
  }

  testing::TempDir dir;
  std::shared_ptr<SQLiteDatabase> db = SQLiteDatabase::open(path());
  CCLinkStore store{db};
};

TEST_F(CCLinkStoreTest, OutboxKeepsArrivalOrderAndTheFirstCopy) {
  EXPECT_EQ(store.pendingCount(), 0);
  store.enqueue(event("e1"));
  store.enqueue(event("e2"));
  store.enqueue(event("e3"));
  store.enqueue(event("e1", "second.copy"));

  EXPECT_EQ(store.pendingCount(), 3);
  const std::vector<CCEvent> firstTwo = store.pendingEvents(2);
  EXPECT_EQ(ids(firstTwo), (std::vector<std::string>{"e1", "e2"}));
  EXPECT_EQ(firstTwo.front(), event("e1")) << "the first copy stays";

  const struct {
    std::int64_t limit;
    std::vector<std::string> ids;
  } limits[] = {{0, {}}, {-1, {"e1", "e2", "e3"}}, {3, {"e1", "e2", "e3"}}, {100, {"e1", "e2", "e3"}}};
  for (const auto& l : limits) {
    SCOPED_TRACE(l.limit);
    EXPECT_EQ(ids(store.pendingEvents(l.limit)), l.ids);
  }
  EXPECT_EQ(store.pendingCount(), 3) << "reading removes nothing";

  store.removeEvent("e2");
  store.removeEvent("unknown");
  EXPECT_EQ(store.pendingCount(), 2);
  store.enqueue(event("e2"));
  EXPECT_EQ(ids(store.pendingEvents(-1)), (std::vector<std::string>{"e1", "e3", "e2"}))
      << "a removed id queues again, at the back";
}

TEST_F(CCLinkStoreTest, UndecodableRowsAreSkippedYetCountedAndHoldTheirPlace) {
  store.enqueue(event("good1"));
  insertRawEvent("not-json", "'{not json'");
  insertRawEvent("not-an-event", R"('{"eventId":"x"}')");
  insertRawEvent("blob", "X'7B7D'");
  store.enqueue(event("good2"));

  EXPECT_EQ(store.pendingCount(), 5);
  EXPECT_EQ(ids(store.pendingEvents(-1)), (std::vector<std::string>{"good1", "good2"}));
  EXPECT_EQ(ids(store.pendingEvents(4)), (std::vector<std::string>{"good1"})) << "damaged rows fill the limit";

  store.removeEvent("good1");
  EXPECT_TRUE(store.pendingEvents(3).empty()) << "three damaged rows at the front starve a limit of 3";
  EXPECT_EQ(store.outboxRows().size(), 4u);
  EXPECT_EQ(store.outboxRows().at(2).payload.kind(), Value::Kind::null) << "a blob reads as null";
}

TEST_F(CCLinkStoreTest, CachedAckAnswersOnlyForAReadableEntry) {
  EXPECT_FALSE(store.cachedAck("c1").has_value());
  const CCAck first("c1", CCAck::Status::nacked, std::nullopt, JSONRPCError(-32603, "falló"), 4);
  store.storeAck(first, 10);
  EXPECT_EQ(store.cachedAck("c1"), first);

  const CCAck later("c1", CCAck::Status::acked, JSONValue("ok"));
  store.storeAck(later, 10);
  EXPECT_EQ(store.cachedAck("c1"), later);
  EXPECT_EQ(storedCommands(), (std::set<std::string>{"c1"}));

  for (const char* damage : {"'not json'", R"('{"cmdId":"c1","status":"ok"}')", "X'00'"}) {
    SCOPED_TRACE(damage);
    ASSERT_TRUE(db->exec(std::string("UPDATE cc_cmd_dedupe SET ack = ") + damage + " WHERE cmd_id = 'c1'"));
    EXPECT_FALSE(store.cachedAck("c1").has_value());
    EXPECT_TRUE(store.ackRow("c1").has_value());
  }
}

TEST_F(CCLinkStoreTest, StoreAckKeepsTheNewestKeepLastEntries) {
  // Two entries from distinct past seconds, then a store now: "new" is newest.
  const struct {
    const char* name;
    std::int64_t keepLast;
    const char* storedId;  // the ack stored now
    std::set<std::string> left;
  } cases[] = {
      {"keep 2 drops the oldest", 2, "new", {"b", "new"}},
      {"keep 1 leaves the new ack", 1, "new", {"new"}},
      {"keep 0 empties the table", 0, "new", {}},
      {"negative keeps everything", -1, "new", {"a", "b", "new"}},
      {"keep exactly the count", 3, "new", {"a", "b", "new"}},
      {"a repeated ack moves forward", 2, "a", {"b", "a"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(db->exec("DELETE FROM cc_cmd_dedupe"));
    store.storeAck(CCAck("a", CCAck::Status::acked), -1);
    store.storeAck(CCAck("b", CCAck::Status::acked), -1);
    ASSERT_TRUE(db->exec("UPDATE cc_cmd_dedupe SET created_at = '2020-01-01T00:00:01Z' WHERE cmd_id = 'a';"
                         "UPDATE cc_cmd_dedupe SET created_at = '2020-01-01T00:00:02Z' WHERE cmd_id = 'b';"));
    store.storeAck(CCAck(c.storedId, CCAck::Status::acked), c.keepLast);
    EXPECT_EQ(storedCommands(), c.left);
  }
}

TEST_F(CCLinkStoreTest, CreatedAtIsUTCWholeSecondText) {
  store.enqueue(event("e1"));
  store.storeAck(CCAck("c1", CCAck::Status::acked), 10);
  const std::regex form(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
  const Date now = Date::now();
  for (const char* table : {"cc_events", "cc_cmd_dedupe"}) {
    SCOPED_TRACE(table);
    auto rows = db->query(std::string("SELECT created_at FROM ") + table);
    ASSERT_EQ(rows.size(), 1u);
    const std::string text = *rows[0]["created_at"].stringValue();
    EXPECT_TRUE(std::regex_match(text, form)) << text;
    EXPECT_NEAR(parseISO8601(text)->secondsSinceReferenceDate, now.secondsSinceReferenceDate, 5);
  }
}

// The child queues events as fast as it can and reports each id once
// enqueue has returned; the parent kills it mid-stream.
[[noreturn]] void enqueueUntilKilled(const std::string& path, int out) {
  CCLinkStore store(SQLiteDatabase::open(path));
  for (int i = 0; i < 1000000; ++i) {
    const std::string id = "e" + std::to_string(i);
    store.enqueue(event(id));
    const std::string line = id + "\n";
    if (write(out, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(3);
  }
  _exit(0);
}

TEST(KilledLinkTest, EveryEnqueuedEventSurvivesSIGKILLInOrder) {
  testing::TempDir dir;
  const std::string path = dir.file("link.db");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    enqueueUntilKilled(path, fds[1]);
  }
  close(fds[1]);

  FILE* in = fdopen(fds[0], "r");
  std::vector<std::string> returned;
  char line[64];
  while (returned.size() < 1500 && std::fgets(line, sizeof line, in) != nullptr) {
    returned.emplace_back(line, std::strlen(line) - 1);
  }
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended before it was killed";
  // Lines already in the pipe were written after their enqueue returned too.
  while (std::fgets(line, sizeof line, in) != nullptr) {
    if (line[std::strlen(line) - 1] == '\n') returned.emplace_back(line, std::strlen(line) - 1);
  }
  std::fclose(in);

  CCLinkStore store(SQLiteDatabase::open(path));
  const std::vector<std::string> stored = ids(store.pendingEvents(-1));
  ASSERT_GE(stored.size(), returned.size());
  EXPECT_EQ(std::vector<std::string>(stored.begin(), stored.begin() + static_cast<long>(returned.size())),
            returned)
      << "every acknowledged event is there, oldest first";
  EXPECT_EQ(store.pendingCount(), static_cast<std::int64_t>(stored.size())) << "no damaged row was left";
  store.enqueue(event("after"));
  EXPECT_EQ(store.pendingEvents(-1).back().eventId, "after");
}

}  // namespace
}  // namespace tarskel
