#pragma once

// The raw SQLite floor under the audit chain: one audit-shaped row inserted
// with SQLite's C API alone, with the store's pragmas and a prepare/finalize
// per insert, as AuditStore does it, but without hashing or any wrapper.
// Benchmarks of anything that records (AuditStore, the daemon core) run this
// in the same process and report their rate as a ratio of it.

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace tarskel::bench {

// A connection to `path` (created when missing) with the store's pragmas.
inline sqlite3* openWithAuditPragmas(const std::string& path) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
    sqlite3_close(db);
    throw std::runtime_error("cannot open " + path);
  }
  sqlite3_exec(db, "PRAGMA journal_mode=WAL;", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA synchronous=NORMAL;", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA busy_timeout=3000;", nullptr, nullptr, nullptr);
  sqlite3_exec(db,
               "CREATE TABLE IF NOT EXISTS audit (\n"
               "    seq INTEGER PRIMARY KEY AUTOINCREMENT,\n"
               "    ts REAL NOT NULL, caller TEXT NOT NULL, tool TEXT NOT NULL,\n"
               "    origin TEXT NOT NULL, outcome TEXT NOT NULL, duration_ms REAL NOT NULL,\n"
               "    correlation_id TEXT NOT NULL, prev_hash TEXT NOT NULL, hash TEXT NOT NULL\n"
               ");",
               nullptr, nullptr, nullptr);
  return db;
}

// One row of the shape the daemon writes for a "daemon.info" request.
inline bool insertAuditRowRaw(sqlite3* db, std::int64_t n) {
  static const char* kHash = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";
  char correlation[64];
  std::snprintf(correlation, sizeof correlation, "7d3c1e52-0000-4000-8000-%012lld",
                static_cast<long long>(n));
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db,
                         "INSERT INTO audit (ts, caller, tool, origin, outcome, duration_ms, "
                         "correlation_id, prev_hash, hash)\nVALUES (?, ?, ?, ?, ?, ?, ?, ?, ?);",
                         -1, &stmt, nullptr) != SQLITE_OK) {
    return false;
  }
  sqlite3_bind_double(stmt, 1, 784926483.5 + static_cast<double>(n) * 0.001);
  sqlite3_bind_text(stmt, 2, "/Applications/Tarskel.app/Contents/MacOS/tarskel-agent", -1,
                    SQLITE_TRANSIENT);
  sqlite3_bind_text(stmt, 3, "daemon.info", -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(stmt, 4, "xpc", -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(stmt, 5, "ok", -1, SQLITE_TRANSIENT);
  sqlite3_bind_double(stmt, 6, 0.25);
  sqlite3_bind_text(stmt, 7, correlation, -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(stmt, 8, kHash, -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(stmt, 9, kHash, -1, SQLITE_TRANSIENT);
  bool done = sqlite3_step(stmt) == SQLITE_DONE;
  sqlite3_finalize(stmt);
  return done;
}

// Inserts `rows` rows one by one into the database at `path` and returns
// rows per second.
inline double measureRawAuditInsertRate(const std::string& path, std::int64_t rows) {
  sqlite3* db = openWithAuditPragmas(path);
  auto start = std::chrono::steady_clock::now();
  for (std::int64_t i = 0; i < rows; ++i) insertAuditRowRaw(db, i);
  std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  sqlite3_close(db);
  return static_cast<double>(rows) / elapsed.count();
}

}  // namespace tarskel::bench
