#include "tarskel/store/CCLinkStore.hpp"

#include <utility>

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

using Value = SQLiteDatabase::Value;

// UTC to the whole second, so that the text sorts in time order.
Value insertTime() { return Value::text(formatISO8601(Date::now())); }

template <class T>
std::optional<T> decodeText(const Value& column) {
  const std::string* text = column.textPointer();
  if (text == nullptr) return std::nullopt;
  try {
    return TarskelJSON::decoder().decode<T>(*text);
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

std::string textOf(const SQLiteDatabase::Row& row, const char* column) {
  auto it = row.find(column);
  if (it == row.end()) return {};
  const std::string* text = it->second.textPointer();
  return text != nullptr ? *text : std::string();
}

}  // namespace

CCLinkStore::CCLinkStore(std::shared_ptr<SQLiteDatabase> db) : db_(std::move(db)) {
  (void)db_->exec(std::string(kSchema));
  (void)db_->exec(std::string(kCreatedAtIndex));
  if (!db_->exec(std::string(kAckCount))) (void)db_->exec("ROLLBACK;");
}

void CCLinkStore::enqueue(const CCEvent& event) {
  std::string json = TarskelJSON::encoder().encode(event);
  db_->execute("INSERT OR IGNORE INTO cc_events (event_id, payload, created_at) VALUES (?, ?, ?)",
               {Value::text(event.eventId), Value::text(std::move(json)), insertTime()});
}

std::vector<CCEvent> CCLinkStore::pendingEvents(std::int64_t limit) {
  std::vector<CCEvent> events;
  db_->forEachRow("SELECT payload FROM cc_events ORDER BY seq ASC LIMIT ?", {Value::integer(limit)},
                  [&events](SQLiteDatabase::Row& row) {
                    if (auto event = decodeText<CCEvent>(row["payload"]))
                      events.push_back(std::move(*event));
                    return true;
                  });
  return events;
}

void CCLinkStore::removeEvent(const std::string& eventId) {
  db_->execute("DELETE FROM cc_events WHERE event_id = ?", {Value::text(eventId)});
}

std::int64_t CCLinkStore::pendingCount() {
  std::vector<SQLiteDatabase::Row> rows = db_->query("SELECT COUNT(*) AS n FROM cc_events");
  if (rows.empty()) return 0;
  const Value& n = rows.front()["n"];
  return n.kind() == Value::Kind::integer ? *n.intValue() : 0;
}

std::optional<CCAck> CCLinkStore::cachedAck(const std::string& cmdId) {
  std::vector<SQLiteDatabase::Row> rows =
      db_->query("SELECT ack FROM cc_cmd_dedupe WHERE cmd_id = ?", {Value::text(cmdId)});
  if (rows.empty()) return std::nullopt;
  return decodeText<CCAck>(rows.front()["ack"]);
}

void CCLinkStore::storeAck(const CCAck& ack, std::int64_t keepLast) {
  std::string json = TarskelJSON::encoder().encode(ack);
  db_->execute("INSERT OR REPLACE INTO cc_cmd_dedupe (cmd_id, ack, created_at) VALUES (?, ?, ?)",
               {Value::text(ack.cmdId), Value::text(std::move(json)), insertTime()});
  // Keeping the keepLast newest is dropping the count-minus-keepLast oldest,
  // in the reverse of the order the newest are kept in (created_at, then
  // cmd_id), so the same entries stay; a negative keepLast drops none.
  db_->execute(
      "DELETE FROM cc_cmd_dedupe WHERE rowid IN\n"
      "  (SELECT rowid FROM cc_cmd_dedupe ORDER BY created_at ASC, cmd_id ASC\n"
      "   LIMIT max(0, CASE WHEN ?1 < 0 THEN 0 ELSE coalesce(\n"
      "     (SELECT n FROM cc_cmd_dedupe_count), (SELECT COUNT(*) FROM cc_cmd_dedupe)) - ?1 END))",
      {Value::integer(keepLast)});
}

SQLiteDatabase::ScanEnd CCLinkStore::forEachOutboxRow(
    const std::function<bool(OutboxRow&)>& visit) {
  OutboxRow out;
  return db_->forEachRow(
      "SELECT seq, event_id, payload, created_at FROM cc_events ORDER BY seq ASC", {},
      [&](SQLiteDatabase::Row& row) {
        out = OutboxRow{row["seq"].intValue().value_or(0), textOf(row, "event_id"),
                        std::move(row["payload"]), textOf(row, "created_at")};
        return visit(out);
      });
}

std::optional<CCLinkStore::AckRow> CCLinkStore::ackRow(const std::string& cmdId) {
  std::vector<SQLiteDatabase::Row> rows = db_->query(
      "SELECT cmd_id, ack, created_at FROM cc_cmd_dedupe WHERE cmd_id = ?", {Value::text(cmdId)});
  if (rows.empty()) return std::nullopt;
  SQLiteDatabase::Row& row = rows.front();
  return AckRow{textOf(row, "cmd_id"), std::move(row["ack"]), textOf(row, "created_at")};
}

}  // namespace tarskel
