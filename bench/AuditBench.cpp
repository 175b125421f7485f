// The audit chain's two costs, each beside its floor in the same run:
//  - verifying a chain of 1,000,000 rows, beside a bare loop of SELECT and
//    SHA-256 over the same table (target >= 0.7);
//  - recording, beside raw SQLite inserts of the same row shape with the same
//    pragmas and a prepare/finalize per insert (AuditRowReference.hpp), and
//    beside the floor SQLiteDatabase's statement cache aims at: one statement
//    prepared once, then bound, stepped, reset and cleared per row.

#include <openssl/evp.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "AuditRowReference.hpp"
#include "RatioReporter.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/store/AuditStore.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace {

using tarskel::AuditStore;
using tarskel::Date;
using tarskel::SQLiteDatabase;
namespace fs = std::filesystem;

constexpr std::int64_t kChainRows = 1000000;

// Removed, with everything in it, when the process ends.
const fs::path& workDir() {
  static const tarskel::testing::TempDirectory dir("tarskel-audit-bench");
  return dir.path();
}

// A valid chain of kChainRows rows, written once in one transaction.
const std::string& chainPath() {
  static const std::string path = [] {
    std::string p = (workDir() / "chain.db").string();
    sqlite3* db = tarskel::bench::openWithAuditPragmas(p);
    sqlite3_exec(db, "BEGIN;", nullptr, nullptr, nullptr);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO audit (ts, caller, tool, origin, outcome, duration_ms, "
                       "correlation_id, prev_hash, hash) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?);",
                       -1, &stmt, nullptr);
    std::string prev(AuditStore::kGenesisHash);
    for (std::int64_t i = 0; i < kChainRows; ++i) {
      Date ts{784926483.5 + static_cast<double>(i) * 0.037};
      std::string caller =
          "/Applications/Tarskel.app/Contents/MacOS/agent-" + std::to_string(i % 7);
      std::string correlation = "req-" + std::to_string(i);
      std::string hash =
          AuditStore::chainHash(prev, ts, caller, "daemon.info", "xpc", "ok", correlation);
      sqlite3_bind_double(stmt, 1, ts.secondsSinceReferenceDate);
      sqlite3_bind_text(stmt, 2, caller.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(stmt, 3, "daemon.info", -1, SQLITE_STATIC);
      sqlite3_bind_text(stmt, 4, "xpc", -1, SQLITE_STATIC);
      sqlite3_bind_text(stmt, 5, "ok", -1, SQLITE_STATIC);
      sqlite3_bind_double(stmt, 6, 0.25);
      sqlite3_bind_text(stmt, 7, correlation.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(stmt, 8, prev.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(stmt, 9, hash.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(stmt);
      sqlite3_reset(stmt);
      prev = std::move(hash);
    }
    sqlite3_finalize(stmt);
    sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return p;
  }();
  return path;
}

const char* column(sqlite3_stmt* stmt, int i) {
  return reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
}

// The floor: step the rows, build each preimage, digest it, compare.
void BareSelectSha256(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(chainPath().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  EVP_MD* md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  std::string preimage;
  for (auto _ : state) {
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT * FROM audit ORDER BY seq ASC;", -1, &stmt, nullptr);
    std::string expected(AuditStore::kGenesisHash);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      preimage.assign(column(stmt, 8));
      preimage += '|';
      preimage += tarskel::formatNumberWithFraction(sqlite3_column_double(stmt, 1));
      for (int c : {2, 3, 4, 5, 7}) {
        preimage += '|';
        preimage += column(stmt, c);
      }
      unsigned char digest[EVP_MAX_MD_SIZE];
      unsigned int length = 0;
      EVP_Digest(preimage.data(), preimage.size(), digest, &length, md, nullptr);
      static constexpr char kHex[] = "0123456789abcdef";
      char hex[64];
      for (unsigned int i = 0; i < 32; ++i) {
        hex[2 * i] = kHex[digest[i] >> 4];
        hex[2 * i + 1] = kHex[digest[i] & 15];
      }
      if (expected != column(stmt, 8) || std::string_view(hex, 64) != column(stmt, 9)) {
        state.SkipWithError("chain does not hold");
        break;
      }
      expected.assign(hex, 64);
    }
    sqlite3_finalize(stmt);
  }
  EVP_MD_free(md);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * kChainRows);
}

void AuditVerifyChain(benchmark::State& state) {
  boost::asio::io_context io;
  AuditStore store(SQLiteDatabase::openReadOnly(chainPath()), io.get_executor());
  for (auto _ : state) {
    if (!store.verifyChainSync()) state.SkipWithError("chain does not hold");
  }
  state.SetItemsProcessed(state.iterations() * kChainRows);
}

std::string freshDatabase(const char* name) {
  static int counter = 0;
  return (workDir() / (name + std::to_string(counter++) + ".db")).string();
}

void RawAuditInsert(benchmark::State& state) {
  sqlite3* db = tarskel::bench::openWithAuditPragmas(freshDatabase("raw"));
  std::int64_t n = 0;
  for (auto _ : state) {
    if (!tarskel::bench::insertAuditRowRaw(db, n++)) state.SkipWithError("insert failed");
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}

// The floor with a cached statement: what a per-row insert costs at best.
void RawAuditInsertCached(benchmark::State& state) {
  sqlite3* db = tarskel::bench::openWithAuditPragmas(freshDatabase("cached"));
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(
      db,
      "INSERT INTO audit (ts, caller, tool, origin, outcome, duration_ms, correlation_id, "
      "prev_hash, hash)\nVALUES (?, ?, ?, ?, ?, ?, ?, ?, ?);",
      -1, &stmt, nullptr);
  static const char* kHash = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";
  std::int64_t n = 0;
  for (auto _ : state) {
    std::string correlation = "7d3c1e52-0000-4000-8000-" + std::to_string(n);
    sqlite3_bind_double(stmt, 1, 784926483.5 + static_cast<double>(n++) * 0.001);
    sqlite3_bind_text(stmt, 2, "/Applications/Tarskel.app/Contents/MacOS/tarskel-agent", -1,
                      SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 3, "daemon.info", -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 4, "xpc", -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 5, "ok", -1, SQLITE_TRANSIENT);
    sqlite3_bind_double(stmt, 6, 0.25);
    sqlite3_bind_text(stmt, 7, correlation.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 8, kHash, -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 9, kHash, -1, SQLITE_TRANSIENT);
    if (sqlite3_step(stmt) != SQLITE_DONE) state.SkipWithError("insert failed");
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}

void AuditRecord(benchmark::State& state) {
  boost::asio::io_context io;
  AuditStore store(SQLiteDatabase::open(freshDatabase("record")), io.get_executor());
  std::int64_t n = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        store.recordSync("/Applications/Tarskel.app/Contents/MacOS/tarskel-agent", "daemon.info",
                         "xpc", "ok", 0.25, "7d3c1e52-0000-4000-8000-" + std::to_string(n++)));
  }
  state.SetItemsProcessed(state.iterations());
}

// Records awaited from the worker pool, 64 in flight, through the strand.
void AuditRecordAsync64(benchmark::State& state) {
  boost::asio::thread_pool pool(2);
  AuditStore store(SQLiteDatabase::open(freshDatabase("async")), pool.get_executor());
  constexpr int kInFlight = 64;
  std::int64_t n = 0;
  for (auto _ : state) {
    std::vector<std::future<std::string>> batch;
    batch.reserve(kInFlight);
    for (int i = 0; i < kInFlight; ++i) {
      batch.push_back(boost::asio::co_spawn(
          pool,
          store.record("/Applications/Tarskel.app/Contents/MacOS/tarskel-agent", "daemon.info",
                       "xpc", "ok", 0.25, "7d3c1e52-0000-4000-8000-" + std::to_string(n++)),
          boost::asio::use_future));
    }
    for (auto& f : batch) benchmark::DoNotOptimize(f.get());
  }
  pool.join();
  state.SetItemsProcessed(state.iterations() * kInFlight);
}

BENCHMARK(BareSelectSha256)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(AuditVerifyChain)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(RawAuditInsert)->UseRealTime();
BENCHMARK(RawAuditInsertCached)->UseRealTime();
BENCHMARK(AuditRecord)->UseRealTime();
BENCHMARK(AuditRecordAsync64)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return tarskel::bench::runWithRatios(
      argc, argv,
      {{"AuditVerifyChain/real_time", "BareSelectSha256/real_time", 0.7},
       {"AuditRecord/real_time", "RawAuditInsert/real_time", 0.8},
       {"AuditRecord/real_time", "RawAuditInsertCached/real_time", 0.8},
       {"AuditRecordAsync64/real_time", "RawAuditInsert/real_time", 0.8}});
}
