#pragma once

// The one door to SQLite for the whole tree: one connection to one database
// file, three ways of running SQL, and a small tagged value type.
//
// Ownership: a SQLiteDatabase is shared by the stores that use it through
// std::shared_ptr; the connection closes when the last owner lets go.
//
// Threads: any thread may call any member at any time. One mutex per
// connection is held for the whole of each statement (from prepare to
// finalize, row gathering included), so there is never more than one
// statement alive on a connection. The mutex is not recursive: nothing that
// runs while it is held (a forEachRow visitor) may call back into the object.
// Between processes the protection is SQLite's own: write-ahead log and a
// busy time-out of 3000 ms.
//
// Statements are cached per connection and SQL text: the first call with a
// text prepares it, later calls reuse the compiled statement, which is reset
// and cleared of its bindings after every use, on every path out. A statement
// is only ever used under the mutex, so it is never shared by two calls. The
// cache holds at most kStatementCacheSize texts; beyond that it starts afresh.
//
// Files. A database opened for writing is its owner's alone: a new file is
// created 0600 (so are SQLite's -wal and -shm beside it, which take the
// database's mode), and an existing one, with its -wal and -shm, loses any
// group and other permission bits.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "tarskel/protocol/base/Error.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace tarskel {

class SQLiteDatabase {
 public:
  // A tagged value with exactly four cases. There is no blob case: a blob
  // column reads as null, and nothing can be bound as a blob.
  class Value {
   public:
    enum class Kind { text, integer, real, null };

    Value() = default;  // null
    static Value text(std::string s) {
      return Value(Storage(std::in_place_index<0>, std::move(s)));
    }
    static Value integer(std::int64_t i) { return Value(Storage(std::in_place_index<1>, i)); }
    static Value real(double d) { return Value(Storage(std::in_place_index<2>, d)); }
    static Value null() { return Value(); }

    Kind kind() const { return static_cast<Kind>(storage_.index()); }

    // The payload of `text`; nothing for the other cases. Converts nothing.
    std::optional<std::string> stringValue() const&;
    std::optional<std::string> stringValue() &&;
    // The payload of `text` without a copy; nullptr for the other cases.
    const std::string* textPointer() const { return std::get_if<0>(&storage_); }
    // The payload of `integer`; a `real` truncated toward zero; nothing for
    // `text` and `null`. A real that is not finite or lies outside the signed
    // 64-bit range is a programming fault: the process ends (std::abort).
    std::optional<std::int64_t> intValue() const;
    // The payload of `real`; an `integer` converted to double; nothing for
    // `text` and `null`.
    std::optional<double> doubleValue() const;

    friend bool operator==(const Value&, const Value&) = default;

   private:
    // Alternative order follows Kind.
    using Storage = std::variant<std::string, std::int64_t, double, std::monostate>;
    explicit Value(Storage s) : storage_(std::move(s)) {}
    friend class SQLiteDatabase;

    Storage storage_{std::in_place_index<3>};
  };

  // One result row: column name to value. Where two result columns bear one
  // name, the later column's value stands.
  using Row = std::unordered_map<std::string, Value>;

  // The wrapper's only error. description() is "sqlite open: <message>",
  // "sqlite prepare: <message>" or "sqlite step: <message>", the message
  // being SQLite's own (sqlite3_errmsg).
  class DBError : public Error {
   public:
    enum class Kind { open, prepare, step };
    DBError(Kind kind, std::string message, int code = 0);
    Kind kind() const { return kind_; }
    const std::string& message() const { return message_; }
    // SQLite's primary result code (SQLITE_CORRUPT, SQLITE_CANTOPEN, ...);
    // 0 when unknown.
    int code() const { return code_; }

   private:
    Kind kind_;
    std::string message_;
    int code_;
  };

  // How a walk over rows ended. `complete` is false when SQLite answered an
  // error before the last row (a damaged page, say); `message` and `code` are
  // then SQLite's. A visitor that stops the walk leaves it complete.
  struct ScanEnd {
    bool complete = true;
    int code = 0;
    std::string message;
  };

  static constexpr std::size_t kStatementCacheSize = 64;

  // Opens (creating when missing, read-write) the database at `path`, then
  // sets journal_mode=WAL, synchronous=NORMAL and busy_timeout=3000, ignoring
  // whether each pragma took. File permissions follow the caller's umask.
  // Throws DBError(open).
  explicit SQLiteDatabase(const std::string& path);

  // The same, shared.
  static std::shared_ptr<SQLiteDatabase> open(const std::string& path);

  // Opens an existing database read-only: never creates a file and never
  // writes (no journal-mode pragma; busy_timeout only). For tools that
  // inspect a database another process owns. Throws DBError(open), also when
  // `path` does not exist.
  static std::shared_ptr<SQLiteDatabase> openReadOnly(const std::string& path);

  ~SQLiteDatabase();
  SQLiteDatabase(const SQLiteDatabase&) = delete;
  SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;

  // Runs every statement of `sql` (the only call that runs several). Never
  // throws; true when SQLite answered SQLITE_OK. Used for schemas and
  // pragmas, whose failure callers deliberately ignore.
  bool exec(const std::string& sql);

  // Runs the first statement of `sql`, which must yield no row. Element i of
  // `params` binds to parameter i + 1; surplus parameters are dropped and
  // unbound ones read as NULL. Text binds as a NUL-terminated copy, so it
  // ends at its first NUL byte.
  // Throws DBError(prepare) when the statement does not compile, and
  // DBError(step) when stepping does not answer SQLITE_DONE (a row included).
  void execute(const std::string& sql, const std::vector<Value>& params = {});

  // Runs the first statement of `sql` and returns its rows in step order.
  // Binding as in execute. Throws DBError(prepare) only: a failing step (say
  // SQLITE_BUSY after the time-out) ends the rows, and the caller gets those
  // gathered so far. That asymmetry with execute is intended.
  std::vector<Row> query(const std::string& sql, const std::vector<Value>& params = {});

  // query() without materialising the result: `visit` sees each row in step
  // order while the connection's mutex is held, and returns false to stop.
  // The Row passed is reused between calls; `visit` may move values out of
  // it. Same errors as query(); unlike query(), it says how the rows ended,
  // so that a reader which must see every row can tell an early stop.
  ScanEnd forEachRow(const std::string& sql, const std::vector<Value>& params,
                     const std::function<bool(Row&)>& visit);

 private:
  struct ReadOnlyTag {};
  struct CachedStatement;
  SQLiteDatabase(const std::string& path, ReadOnlyTag);
  static void readColumn(sqlite3_stmt* stmt, int column, Value& out);
  // The compiled statement for `sql`, from the cache or prepared now. Call
  // with the mutex held. Throws DBError(prepare).
  sqlite3_stmt* statementFor(const std::string& sql);
  // Drops the kept statement for `sql` and compiles it afresh: throws
  // DBError(prepare) when it no longer compiles. Mutex held.
  void recompile(const std::string& sql);

  sqlite3* handle_ = nullptr;
  std::mutex lock_;
  std::unordered_map<std::string, sqlite3_stmt*> statements_;  // under lock_
};

}  // namespace tarskel
