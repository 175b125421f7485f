// The link store against real SQLite files: the outbox's order and
// duplicates, damaged rows, the ack memory and its trimming, and a writer
// killed mid-enqueue.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tarskel/store/CCLinkStore.hpp"
#include "tarskel/testing/StoreTesting.hpp"

namespace tarskel {
namespace {

CCEvent event(const std::string& id, const std::string& type = "service.crashed") {
  return CCEvent{id, "dev1", *parseISO8601("2026-01-02T03:04:05Z"), type,
                 JSONValue::Object{{"n", 1}}};
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
    for (auto& row : db->query("SELECT cmd_id FROM cc_cmd_dedupe"))
      out.insert(*row["cmd_id"].stringValue());
    return out;
  }

  testing::TempDir dir;
  std::shared_ptr<SQLiteDatabase> db = SQLiteDatabase::open(path());
  CCLinkStore store{db};
};

TEST_F(CCLinkStoreTest, OutboxKeepsArrivalOrderAndTheFirstCopy) {
  for (const char* id : {"e1", "e2", "e3"}) store.enqueue(event(id));
  store.enqueue(event("e1", "second.copy"));
  EXPECT_EQ(store.pendingCount(), 3);
  EXPECT_EQ(store.pendingEvents(2), (std::vector<CCEvent>{event("e1"), event("e2")}));
  EXPECT_TRUE(store.pendingEvents(0).empty());
  EXPECT_EQ(ids(store.pendingEvents(-1)), (std::vector<std::string>{"e1", "e2", "e3"}));

  store.removeEvent("e2");
  store.removeEvent("unknown");
  EXPECT_EQ(store.pendingCount(), 2);
  store.enqueue(event("e2"));
  EXPECT_EQ(ids(store.pendingEvents(-1)), (std::vector<std::string>{"e1", "e3", "e2"}));
}

TEST_F(CCLinkStoreTest, UndecodableRowsAreSkippedYetCountedAndHoldTheirPlace) {
  for (const char* payload : {"'{not json'", R"('{"eventId":"x"}')", "X'7B7D'"}) {
    ASSERT_TRUE(db->exec(std::string("INSERT INTO cc_events (event_id, payload, created_at) ") +
                         "VALUES (" + payload + ", " + payload + ", '2026-01-02T03:04:05Z')"));
  }
  store.enqueue(event("good"));
  EXPECT_EQ(store.pendingCount(), 4);
  EXPECT_TRUE(store.pendingEvents(3).empty());  // three damaged rows at the front
  EXPECT_EQ(ids(store.pendingEvents(-1)), std::vector<std::string>{"good"});
}

TEST_F(CCLinkStoreTest, CachedAckAnswersOnlyForAReadableEntry) {
  EXPECT_FALSE(store.cachedAck("c1").has_value());
  store.storeAck(CCAck("c1", CCAck::Status::nacked, std::nullopt, JSONRPCError(-32603, "x")), 10);
  const CCAck later("c1", CCAck::Status::acked, JSONValue("ok"), std::nullopt, 4);
  store.storeAck(later, 10);
  EXPECT_EQ(store.cachedAck("c1"), later);
  EXPECT_EQ(storedCommands(), std::set<std::string>{"c1"});
  for (const char* damage : {"'not json'", R"('{"cmdId":"c1","status":"ok"}')", "X'00'"}) {
    ASSERT_TRUE(db->exec(std::string("UPDATE cc_cmd_dedupe SET ack = ") + damage));
    EXPECT_FALSE(store.cachedAck("c1").has_value()) << damage;
  }
}

TEST_F(CCLinkStoreTest, StoreAckKeepsTheNewestKeepLastEntries) {
  // "a" and "b" stored at distinct past seconds, then one ack stored now.
  const struct {
    std::int64_t keepLast;
    const char* storedNow;
    std::set<std::string> left;
  } cases[] = {{2, "new", {"b", "new"}},
               {0, "new", {}},
               {-1, "new", {"a", "b", "new"}},
               {2, "a", {"b", "a"}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.keepLast) + " " + c.storedNow);
    ASSERT_TRUE(db->exec("DELETE FROM cc_cmd_dedupe"));
    store.storeAck(CCAck("a", CCAck::Status::acked), -1);
    store.storeAck(CCAck("b", CCAck::Status::acked), -1);
    ASSERT_TRUE(
        db->exec("UPDATE cc_cmd_dedupe SET created_at = '2020-01-01T00:00:0' || "
                 "CASE cmd_id WHEN 'a' THEN '1Z' ELSE '2Z' END"));
    store.storeAck(CCAck(c.storedNow, CCAck::Status::acked), c.keepLast);
    EXPECT_EQ(storedCommands(), c.left);
  }
  const std::string createdAt =
      *db->query("SELECT MAX(created_at) AS t FROM cc_cmd_dedupe")[0]["t"].stringValue();
  EXPECT_NEAR(parseISO8601(createdAt).value().secondsSinceReferenceDate,
              Date::now().secondsSinceReferenceDate, 5);
}

// Every event whose enqueue returned before SIGKILL is there, oldest first,
// and no damaged row is left.
TEST(KilledLinkTest, EveryEnqueuedEventSurvivesSIGKILLInOrder) {
  testing::TempDir dir;
  const std::string path = dir.file("link.db");
  const std::vector<std::string> returned = testing::linesBeforeSIGKILL(1500, [&] {
    auto store = std::make_shared<CCLinkStore>(SQLiteDatabase::open(path));
    return [store](int i) {
      store->enqueue(event("e" + std::to_string(i)));
      return "e" + std::to_string(i);
    };
  });
  CCLinkStore store(SQLiteDatabase::open(path));
  const std::vector<std::string> stored = ids(store.pendingEvents(-1));
  ASSERT_GE(stored.size(), returned.size());
  EXPECT_EQ(std::vector<std::string>(stored.begin(), stored.begin() + std::ssize(returned)),
            returned);
  EXPECT_EQ(store.pendingCount(), std::ssize(stored));
  store.enqueue(event("after"));
  EXPECT_EQ(store.pendingEvents(-1).back().eventId, "after");
}

}  // namespace
}  // namespace tarskel
