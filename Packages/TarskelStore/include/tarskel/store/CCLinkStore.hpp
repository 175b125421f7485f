#pragma once

// What the link to the control centre must not lose across restarts: an
// outbox of events the centre hasn't confirmed yet, and the acks already
// given, so that a command delivered twice runs once and is answered twice
// with the same ack:
//
//   if (auto ack = store.cachedAck(cmd.cmdId)) return *ack;   // known: answer again
//   CCAck ack = run(cmd);
//   store.storeAck(ack, keepLast);
//   return ack;
//
// Ownership: the store shares the SQLiteDatabase it is given and keeps no
// state of its own; both tables live in that database's file.
//
// Threads: any thread may call any member. Each statement is atomic under the
// connection's lock, but nothing here serialises more than one statement:
// storeAck's insert and trim are two steps, and two concurrent deliveries of
// one new command may both miss cachedAck and both run it. Callers that care
// serialise themselves.
//
// Failures: encoding errors (EncodingError) and SQLiteDatabase::DBError reach
// the caller unchanged; nothing is logged. Rows that don't decode are skipped
// by pendingEvents and read as absent by cachedAck, without an error. A step
// failure inside a query (say SQLITE_BUSY) ends its rows early, so
// pendingEvents may return fewer events than there are and pendingCount 0.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/cc/CCCommand.hpp"
#include "tarskel/protocol/cc/DeviceReports.hpp"
#include "tarskel/store/SQLiteDatabase.hpp"

namespace tarskel {

class CCLinkStore {
 public:
  // The two tables, run by one exec.
  static constexpr std::string_view kSchema =
      "CREATE TABLE IF NOT EXISTS cc_events (\n"
      "    seq INTEGER PRIMARY KEY AUTOINCREMENT,\n"
      "    event_id TEXT UNIQUE NOT NULL,\n"
      "    payload TEXT NOT NULL,\n"
      "    created_at TEXT NOT NULL\n"
      ");\n"
      "CREATE TABLE IF NOT EXISTS cc_cmd_dedupe (\n"
      "    cmd_id TEXT PRIMARY KEY,\n"
      "    ack TEXT NOT NULL,\n"
      "    created_at TEXT NOT NULL\n"
      ");";

  // The trim of storeAck drops the oldest entries beyond keepLast; with this
  // index SQLite reaches them from the oldest end instead of sorting the
  // table. Created apart from kSchema, which stays as it is.
  static constexpr std::string_view kCreatedAtIndex =
      "CREATE INDEX IF NOT EXISTS cc_cmd_dedupe_created_at ON cc_cmd_dedupe (created_at, cmd_id);";

  // The number of dedupe entries, kept by triggers in the same statement as
  // each insert and delete (on any connection), so that the trim knows how
  // many of the oldest to drop without counting the table. Set up once, in
  // one transaction, from the count of the table as it is.
  static constexpr std::string_view kAckCount =
      "BEGIN IMMEDIATE;\n"
      "CREATE TABLE IF NOT EXISTS cc_cmd_dedupe_count (\n"
      "    id INTEGER PRIMARY KEY CHECK (id = 0),\n"
      "    n INTEGER NOT NULL\n"
      ");\n"
      "INSERT OR IGNORE INTO cc_cmd_dedupe_count (id, n) SELECT 0, COUNT(*) FROM cc_cmd_dedupe;\n"
      "CREATE TRIGGER IF NOT EXISTS cc_cmd_dedupe_counted_insert BEFORE INSERT ON cc_cmd_dedupe\n"
      "  WHEN NOT EXISTS (SELECT 1 FROM cc_cmd_dedupe WHERE cmd_id = NEW.cmd_id)\n"
      "  BEGIN UPDATE cc_cmd_dedupe_count SET n = n + 1; END;\n"
      "CREATE TRIGGER IF NOT EXISTS cc_cmd_dedupe_counted_delete AFTER DELETE ON cc_cmd_dedupe\n"
      "  BEGIN UPDATE cc_cmd_dedupe_count SET n = n - 1; END;\n"
      "COMMIT;";

  // Runs kSchema, then kCreatedAtIndex and kAckCount, ignoring whether each
  // took (a read-only connection can't create them, and a tool may still
  // read through it). Never throws.
  explicit CCLinkStore(std::shared_ptr<SQLiteDatabase> db);

  const std::shared_ptr<SQLiteDatabase>& db() const { return db_; }

  // Queues the event, stamped with the current time. An id already queued is
  // ignored without an error: the first copy keeps its payload and its place.
  // An id removed earlier can be queued again. When this returns, the event
  // is committed. Throws EncodingError, DBError.
  void enqueue(const CCEvent& event);

  // Up to `limit` queued events, oldest first; a negative limit means all.
  // Rows that don't decode are left out (and left in the table), yet each
  // takes a place in the limit. Removes nothing. Throws DBError(prepare).
  std::vector<CCEvent> pendingEvents(std::int64_t limit);

  // Removes the event; an unknown id is no error. Throws DBError.
  void removeEvent(const std::string& eventId);

  // The number of queued rows, undecodable ones included; 0 when the count
  // can't be read. Throws DBError(prepare).
  std::int64_t pendingCount();

  // The ack stored for the command, or nothing when there is none or it can't
  // be read (a damaged entry reads as an unknown command). Throws DBError(prepare).
  std::optional<CCAck> cachedAck(const std::string& cmdId);

  // Stores the ack (replacing an earlier one for the same command, whose
  // created_at moves forward), then keeps only the `keepLast` entries with the
  // greatest created_at: 0 empties the table, the new ack included; a negative
  // value keeps everything. Entries of one second are not told apart, so at
  // the boundary any of them may go. A failing trim leaves the new entry
  // stored and throws all the same. The cost stays that of a few index
  // steps however large keepLast is. Throws EncodingError, DBError.
  void storeAck(const CCAck& ack, std::int64_t keepLast);

  // For people who inspect or repair a store by hand: the raw rows, as stored,
  // decodable or not.
  struct OutboxRow {
    std::int64_t seq = 0;
    std::string eventId;
    SQLiteDatabase::Value payload;
    std::string createdAt;
  };
  // Every queued row, oldest first, one at a time: `visit` returns false to
  // stop, and may move values out of the row, which is reused. Holds one row
  // in memory whatever the table's size. The walk's end says whether it
  // reached the last row or met an error (a damaged page) before it.
  // Throws DBError(prepare).
  SQLiteDatabase::ScanEnd forEachOutboxRow(const std::function<bool(OutboxRow&)>& visit);

  struct AckRow {
    std::string cmdId;
    SQLiteDatabase::Value ack;
    std::string createdAt;
  };
  // The stored entry for the command, as stored. Throws DBError(prepare).
  std::optional<AckRow> ackRow(const std::string& cmdId);

 private:
  std::shared_ptr<SQLiteDatabase> db_;
};

}  // namespace tarskel
