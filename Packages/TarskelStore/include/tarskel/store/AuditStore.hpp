#pragma once

// The hash-chained log of what the daemon did: table `audit` of
// daemon/audit.db. Each row carries the hash of the row before it and its own
// hash over
//
//   preimage := prev_hash "|" ts "|" caller "|" tool "|" origin "|" outcome "|" correlation_id
//
// (UTF-8 bytes as they stand, no quoting or escaping; `ts` rendered by
// renderTimestamp). seq and duration_ms are not covered. The first row's
// prev_hash is kGenesisHash. Removing, inserting or editing a covered value
// breaks the chain from that row on.
//
// Threads and ownership. The store serialises itself on a strand of the
// executor it is given (the process's worker pool or event loop); it keeps
// the head of the chain (lastHash) in memory, touched only on that strand.
// The awaitable members may be awaited from any coroutine on any thread; each
// hops to the strand for its one call and back. Only one AuditStore may be
// attached to a chain (two would fork it), and it must outlive every call in
// flight.
//
// Group commits. The store alone opens transactions on its database. A
// record() takes its place in the chain at once (its hash and the head are
// fixed when it reaches the strand) and waits for its row to be written:
// rows are written by a commit the strand runs once the work already queued
// on it has run, so the rows of requests handled together (several clients
// at once) share one transaction, and a row that comes while a commit is
// being written joins the next. A lone row is written on its own, without
// BEGIN and COMMIT. record() completes once the commit that holds its row
// has ended: no caller hears of a row before it is stored, unless the store
// gave up on it. A group is all or nothing: when an insert or the COMMIT
// fails, the group is rolled back and every row of it is lost as a failed
// insert loses one (see record()).
//
// The synchronous members run on the caller's thread:
//  - the readers (recentSync, entriesSync, verifyChainSync, inspectChain) only
//    read the database, whose connection has its own lock: any thread, any
//    time;
//  - recordSync and lastHash touch the head without the strand: call them
//    only while no asynchronous call can run (start-up, tools, tests).

#include <boost/asio/any_completion_handler.hpp>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/strand.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/store/SQLiteDatabase.hpp"

namespace tarskel {

class AuditStore {
 public:
  // Must be safe to call from any thread.
  using Clock = std::function<Date()>;

  static constexpr std::string_view kGenesisHash =
      "0000000000000000000000000000000000000000000000000000000000000000";

  static constexpr std::string_view kSchema =
      "CREATE TABLE IF NOT EXISTS audit (\n"
      "    seq INTEGER PRIMARY KEY AUTOINCREMENT,\n"
      "    ts REAL NOT NULL, caller TEXT NOT NULL, tool TEXT NOT NULL,\n"
      "    origin TEXT NOT NULL, outcome TEXT NOT NULL, duration_ms REAL NOT NULL,\n"
      "    correlation_id TEXT NOT NULL, prev_hash TEXT NOT NULL, hash TEXT NOT NULL\n"
      ");";

  struct Entry {
    std::int64_t seq = 0;
    Date ts;
    std::string caller;
    std::string tool;
    std::string origin;
    std::string outcome;
    double durationMs = 0;
    std::string correlationId;
    std::string prevHash;
    std::string hash;

    friend bool operator==(const Entry&, const Entry&) = default;
  };

  // The most one text column of a row holds, in bytes; with the numbers and
  // hashes a row stays under 21 KiB whatever a client sends.
  static constexpr std::size_t kMaxTextBytes = 4096;

  // Where a walk of the chain first failed, and why, in words for people:
  //  - broken: the row at `seq` does not decode or does not chain (nothing
  //    in `seq` when the row has no readable seq);
  //  - damaged: SQLite stopped reading after the row at `seq` (0: before the
  //    first), so the rows beyond it were never judged;
  //  - cut: every stored row chains, but the table's sequence says rows were
  //    issued after the last one (`seq`), or has no record of the table.
  struct ChainBreak {
    enum class Kind { broken, damaged, cut };
    Kind kind = Kind::broken;
    std::optional<std::int64_t> seq;
    std::string reason;
  };

  struct ChainReport {
    std::int64_t rowsChecked = 0;          // rows that passed
    std::optional<ChainBreak> firstBreak;  // nothing when the chain holds
    // The last row that passed (seq 0 and the start hash when none did):
    // the head to anchor elsewhere when the chain holds.
    std::int64_t headSeq = 0;
    std::string headHash;
    bool holds() const { return !firstBreak; }
  };

  // Creates the table when missing and reads the head of the chain from the
  // last row (kGenesisHash for an empty table or an unreadable hash).
  // `now` defaults to Date::now. Throws SQLiteDatabase::DBError when the head
  // can't be queried; no store results then.
  AuditStore(std::shared_ptr<SQLiteDatabase> db, boost::asio::any_io_executor executor,
             Clock now = {});

  AuditStore(const AuditStore&) = delete;
  AuditStore& operator=(const AuditStore&) = delete;

  // Tells the store that the executor it was given is run by `thread` alone
  // (a one-thread event loop). A record() awaited on that thread then takes
  // its place in the chain at once, without the hop through the strand:
  // every handler of the strand runs on that thread too, so none can be
  // running meanwhile. Call before the first asynchronous call.
  void serialisedByThread(std::thread::id thread) { owner_ = thread; }

  // Appends one row and returns its hash once the row is committed. Never
  // fails: when the row does not reach the file (its insert or its group's
  // commit failed) the error is dropped and the head still moves to the new
  // hash, so the hole shows in the chain from the next stored row on; a new
  // store on the same file (a restart) before that row closes it.
  boost::asio::awaitable<std::string> record(std::string caller, std::string tool,
                                             std::string origin, std::string outcome,
                                             double durationMs, std::string correlationId);

  // Up to `limit` newest rows, oldest first; a negative limit means all rows.
  // Rows that don't decode are skipped. Throws DBError.
  boost::asio::awaitable<std::vector<Entry>> recent(std::int64_t limit);

  // The rows of one correlation id in seq order; undecodable rows skipped.
  // Throws DBError.
  boost::asio::awaitable<std::vector<Entry>> entries(std::string correlationId);

  // True when every row chains to the one before and its hash matches its
  // preimage, SQLite read every row, and no row was issued after the last
  // (inspectChain); an empty table holds. Throws DBError.
  boost::asio::awaitable<bool> verifyChain();

  // Synchronous forms; see the thread rules above.
  std::string recordSync(const std::string& caller, const std::string& tool,
                         const std::string& origin, const std::string& outcome, double durationMs,
                         const std::string& correlationId);
  std::vector<Entry> recentSync(std::int64_t limit) const;
  std::vector<Entry> entriesSync(const std::string& correlationId) const;
  bool verifyChainSync() const;

  // The verifyChain walk, saying where and why it stopped. From `fromSeq`
  // on when above 1: a row of exactly that seq must exist, and its prev_hash
  // is taken as given (compare it with an anchor kept elsewhere). Reads row
  // by row, never the whole table at once. Throws DBError when the walk
  // can't start (the query does not compile).
  ChainReport inspectChain(std::int64_t fromSeq = 1) const;

  // Which rows a listing wants; an absent field doesn't filter.
  struct Filter {
    std::int64_t afterSeq = 0;           // rows with a greater seq
    std::optional<std::string> tool;     // exactly this op
    std::optional<std::string> outcome;  // exactly this outcome
    std::optional<Date> since;           // ts at or after
    std::optional<Date> until;           // ts at or before
  };

  // The rows that `filter` wants, in seq order, one at a time: `visit`
  // returns false to stop. Rows that don't decode are skipped. Memory stays
  // flat however many rows there are; the connection's mutex is held
  // throughout, so `visit` must not call back into the store. Throws DBError.
  void forEachEntry(const Filter& filter, const std::function<bool(const Entry&)>& visit) const;

  // The seq that starts the last `count` rows `filter` wants (count >= 1),
  // or nothing when fewer rows match. Throws DBError.
  std::optional<std::int64_t> startOfLast(const Filter& filter, std::int64_t count) const;

  // `text` as a row stores it, and so as the chain hashes it: each NUL and
  // each invalid UTF-8 sequence replaced by U+FFFD, and cut at a character
  // boundary to at most kMaxTextBytes, ending in "…" when cut.
  static std::string storedText(std::string_view text);

  // The head of the chain in memory.
  const std::string& lastHash() const { return lastHash_; }

  const boost::asio::strand<boost::asio::any_io_executor>& strand() const { return strand_; }

  // `ts` as it enters the preimage: the shortest text that reads back to the
  // same double, always with a fraction: 784926483.0, 784926483.5, 1e-05.
  static std::string renderTimestamp(Date ts);

  // sha256Hex of the preimage above.
  static std::string chainHash(std::string_view prevHash, Date ts, std::string_view caller,
                               std::string_view tool, std::string_view origin,
                               std::string_view outcome, std::string_view correlationId);

 private:
  // A row whose hash is fixed and whose insert waits for the next commit.
  struct QueuedRow {
    // Moved, never copied nor assigned: a copy would wrap the handler in
    // another, and so does Boost 1.81's move assignment of a handler.
    QueuedRow() = default;
    QueuedRow(QueuedRow&&) noexcept = default;
    QueuedRow& operator=(QueuedRow&&) = delete;

    std::vector<SQLiteDatabase::Value> params;
    std::string hash;
    std::optional<boost::asio::any_completion_handler<void(std::string)>> done;
  };
  // The rows waiting for a commit, shared with the commit posted to the
  // strand (which may run after the store object is gone at shutdown).
  struct Writer {
    std::shared_ptr<SQLiteDatabase> db;
    std::vector<QueuedRow> queued;
    bool commitPosted = false;
  };

  // Moves the head to a new row of these texts and returns it, ready to
  // insert. On the strand (or under the recordSync rule).
  QueuedRow nextRow(const std::string& caller, const std::string& tool, const std::string& origin,
                    const std::string& outcome, double durationMs,
                    const std::string& correlationId);
  // Queues a row for the next commit, posting one when none is pending. On
  // the strand.
  void enqueue(QueuedRow row);
  // Writes every queued row (one transaction for more than one), then
  // completes their records.
  static void commitQueued(const std::shared_ptr<Writer>& writer);

  // Compares the head with the last seq SQLite issued for the table.
  void checkTail(ChainReport& report) const;

  std::shared_ptr<SQLiteDatabase> db_;
  boost::asio::strand<boost::asio::any_io_executor> strand_;
  Clock now_;
  std::string lastHash_;
  std::thread::id owner_;  // the one thread the strand's executor runs on, if known
  std::shared_ptr<Writer> writer_;
};

}  // namespace tarskel
