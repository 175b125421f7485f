// The control-centre link's costs, each beside a reference in the same run:
//  - CCLinkStore enqueue + removeEvent of one event, beside raw SQLite
//    inserting and deleting the same rows (same pragmas, same schema,
//    statements prepared once; target >= 0.8);
//  - storeAck with keepLast 1,000 and 100,000 (the table holding that many
//    entries) beside keepLast 10, printed as how many times slower a store
//    gets as the table grows, with and without the index on created_at;
//  - WireMessage::decode of a heartbeat of 50 services, beside nlohmann::json
//    parsing the same text (target >= 2), and the bare tree beside both.
// Figures are CPU time (system time included): on a machine shared with
// other work, wall-clock time measures the scheduler more than the store.
// The goals close the output as "target NAME: MEDIAN (min, max) goal OP VALUE".
//
//   make bench && build/bench/bench/CCBench [--benchmark_repetitions=N]

#include <sqlite3.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "RatioReporter.hpp"
#include "tarskel/protocol/cc/WireMessage.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/store/CCLinkStore.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace {

using tarskel::CCAck;
using tarskel::CCEvent;
using tarskel::CCLinkStore;
using tarskel::Date;
using tarskel::SQLiteDatabase;
namespace fs = std::filesystem;

// Removed, with everything in it, when the process ends.
const fs::path& workDir() {
  static const tarskel::testing::TempDirectory dir("tarskel-cc-bench");
  return dir.path();
}

std::string freshDatabase(const std::string& name) {
  static int counter = 0;
  return (workDir() / (name + std::to_string(counter++) + ".db")).string();
}

// A crash report of the size a link queues.
CCEvent sampleEvent(std::int64_t n) {
  return CCEvent{"7d3c1e52-0000-4000-8000-" + std::to_string(n), "device-0042",
                 *tarskel::parseISO8601("2026-01-02T03:04:05Z"), "service.crashed",
                 tarskel::JSONValue::Object{
                     {"service", "net.example.notes"}, {"signal", 11}, {"restarts", 2}}};
}

// --- outbox -------------------------------------------------------------------

void CCLinkEnqueueRemove(benchmark::State& state) {
  CCLinkStore store(SQLiteDatabase::open(freshDatabase("store")));
  std::int64_t n = 0;
  for (auto _ : state) {
    const CCEvent event = sampleEvent(n++);
    store.enqueue(event);
    store.removeEvent(event.eventId);
  }
  state.SetItemsProcessed(state.iterations());
}

// The same rows through SQLite's C API alone: the event's JSON and the time
// text are made per row as the store makes them, the statements are prepared
// once.
void RawInsertDelete(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open(freshDatabase("raw").c_str(), &db);
  for (const char* pragma :
       {"PRAGMA journal_mode=WAL;", "PRAGMA synchronous=NORMAL;", "PRAGMA busy_timeout=3000;"}) {
    sqlite3_exec(db, pragma, nullptr, nullptr, nullptr);
  }
  sqlite3_exec(db, std::string(CCLinkStore::kSchema).c_str(), nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_stmt* remove = nullptr;
  sqlite3_prepare_v2(
      db, "INSERT OR IGNORE INTO cc_events (event_id, payload, created_at) VALUES (?, ?, ?)", -1,
      &insert, nullptr);
  sqlite3_prepare_v2(db, "DELETE FROM cc_events WHERE event_id = ?", -1, &remove, nullptr);
  const tarskel::JSONEncoder encoder = tarskel::TarskelJSON::encoder();
  std::int64_t n = 0;
  for (auto _ : state) {
    const CCEvent event = sampleEvent(n++);
    const std::string payload = encoder.encode(event);
    const std::string createdAt = tarskel::formatISO8601(Date::now());
    sqlite3_bind_text(insert, 1, event.eventId.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(insert, 2, payload.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(insert, 3, createdAt.c_str(), -1, SQLITE_STATIC);
    if (sqlite3_step(insert) != SQLITE_DONE) state.SkipWithError("insert failed");
    sqlite3_reset(insert);
    sqlite3_bind_text(remove, 1, event.eventId.c_str(), -1, SQLITE_STATIC);
    if (sqlite3_step(remove) != SQLITE_DONE) state.SkipWithError("delete failed");
    sqlite3_reset(remove);
  }
  sqlite3_finalize(insert);
  sqlite3_finalize(remove);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}

// --- ack memory ---------------------------------------------------------------

// keepLast entries stored at distinct past seconds, so that each new ack
// trims exactly the oldest one.
void fillAcks(SQLiteDatabase& db, std::int64_t rows) {
  db.exec("BEGIN;");
  const std::string ack =
      tarskel::TarskelJSON::encoder().encode(CCAck("old", CCAck::Status::acked));
  for (std::int64_t i = 0; i < rows; ++i) {
    db.execute(
        "INSERT INTO cc_cmd_dedupe (cmd_id, ack, created_at) VALUES (?, ?, ?)",
        {SQLiteDatabase::Value::text("old-" + std::to_string(i)), SQLiteDatabase::Value::text(ack),
         SQLiteDatabase::Value::text(tarskel::formatISO8601(Date{600000000.0 + double(i)}))});
  }
  db.exec("COMMIT;");
}

void storeAcks(benchmark::State& state, bool withoutIndex) {
  const std::int64_t keepLast = state.range(0);
  auto db = SQLiteDatabase::open(freshDatabase("acks"));
  CCLinkStore store(db);
  if (withoutIndex) db->exec("DROP INDEX IF EXISTS cc_cmd_dedupe_created_at;");
  fillAcks(*db, keepLast);
  std::int64_t n = 0;
  for (auto _ : state) {
    store.storeAck(CCAck("cmd-" + std::to_string(n++), CCAck::Status::acked), keepLast);
  }
  state.SetItemsProcessed(state.iterations());
}

void StoreAck(benchmark::State& state) { storeAcks(state, false); }
void StoreAckWithoutIndex(benchmark::State& state) { storeAcks(state, true); }

// --- wire ---------------------------------------------------------------------

const std::string& heartbeatText() {
  static const std::string text = [] {
    tarskel::Heartbeat beat{"device-0042",
                            "session-7",
                            true,
                            "2.3.0",
                            *tarskel::parseISO8601("2026-01-02T03:04:05Z"),
                            {},
                            {},
                            tarskel::DeviceMetrics{86400}};
    for (int i = 0; i < 50; ++i) {
      beat.services.push_back(
          {"net.example.service" + std::to_string(i), "1." + std::to_string(i) + ".0",
           i % 7 == 0 ? tarskel::ServiceState::degraded : tarskel::ServiceState::running, i % 3,
           0.25 * i, 64.5 + i});
      beat.configEpochs["service" + std::to_string(i)] = 1000 + i;
    }
    return tarskel::WireMessage{beat}.encodedString();
  }();
  return text;
}

void WireDecodeHeartbeat50(benchmark::State& state) {
  for (auto _ : state) {
    tarskel::WireMessage m = tarskel::WireMessage::decode(heartbeatText());
    benchmark::DoNotOptimize(m);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * heartbeatText().size()));
}

// The tree alone, without the records: what the record layer adds.
void TreeParseHeartbeat50(benchmark::State& state) {
  const tarskel::JSONDecoder decoder = tarskel::TarskelJSON::decoder();
  for (auto _ : state) {
    tarskel::JSONValue v = decoder.decode<tarskel::JSONValue>(heartbeatText());
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * heartbeatText().size()));
}

void NlohmannParseHeartbeat50(benchmark::State& state) {
  for (auto _ : state) {
    nlohmann::json v = nlohmann::json::parse(heartbeatText());
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * heartbeatText().size()));
}

BENCHMARK(RawInsertDelete);
BENCHMARK(CCLinkEnqueueRemove);
BENCHMARK(StoreAck)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(StoreAckWithoutIndex)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(NlohmannParseHeartbeat50);
BENCHMARK(TreeParseHeartbeat50);
BENCHMARK(WireDecodeHeartbeat50);

}  // namespace

int main(int argc, char** argv) {
  return tarskel::bench::runWithRatios(
      argc, argv,
      {// Slow-downs: the small table's rate over the large one's.
       {"StoreAck/10", "StoreAck/1000", 0},
       {"StoreAck/10", "StoreAck/100000", 0},
       {"StoreAckWithoutIndex/10", "StoreAckWithoutIndex/1000", 0},
       {"StoreAckWithoutIndex/10", "StoreAckWithoutIndex/100000", 0},
       {"StoreAck/1000", "StoreAckWithoutIndex/1000", 0},
       {"StoreAck/100000", "StoreAckWithoutIndex/100000", 0},
       {"TreeParseHeartbeat50", "NlohmannParseHeartbeat50", 0}},
      {{"cc-enqueue-remove-vs-raw-sqlite", "CCLinkEnqueueRemove", "RawInsertDelete", ">=", 0.8},
       {"storeack-keeplast-100k-over-1k", "StoreAck/100000", "StoreAck/1000", "<=", 2},
       {"heartbeat-decode-vs-nlohmann", "WireDecodeHeartbeat50", "NlohmannParseHeartbeat50",
        ">=", 2}});
}
