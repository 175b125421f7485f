#include "tarskel/store/SQLiteDatabase.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/base/UTF8.hpp"

namespace tarskel {
namespace {

// SQLite's SQLITE_TRANSIENT: bound text is copied at once. Spelled out
// because the macro is an old-style cast.
const sqlite3_destructor_type kTransient = reinterpret_cast<sqlite3_destructor_type>(-1);

[[noreturn]] void fault(const char* what) {
  std::fprintf(stderr, "SQLiteDatabase: %s\n", what);
  std::fflush(stderr);
  std::abort();
}

// SQLite promises text here; a null pointer means the library broke that
// promise, which no caller could handle.
const char* requireText(const char* text, const char* what) {
  if (text == nullptr) fault(what);
  return text;
}

std::string textOf(const char* text) { return sanitizedUTF8(text); }

std::string errorMessage(sqlite3* handle) {
  return textOf(requireText(sqlite3_errmsg(handle), "sqlite3_errmsg returned no text"));
}

// Puts a cached statement back as it was found, on every path out of its
// use: reset (which also ends its read of the file) and no bindings left.
struct StatementUse {
  sqlite3_stmt* stmt;
  ~StatementUse() {
    if (stmt == nullptr) return;  // handed back already
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
  }
};

constexpr mode_t kGroupAndOther = S_IRWXG | S_IRWXO;

// Clears the group and other bits of an existing file we own; anything else
// (no file, not ours) is left to SQLite to report or to live with. A link
// is never followed; one planted as the -wal or -shm (`companion`) is
// removed, so that neither this nor SQLite writes through it to whatever it
// names.
void restrictExisting(const std::string& path, bool companion) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return;
  if (S_ISLNK(info.st_mode)) {
    if (companion) ::unlink(path.c_str());
    return;
  }
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return;
  if (::fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode) &&
      (info.st_mode & kGroupAndOther) != 0) {
    static_cast<void>(::fchmod(file.get(), info.st_mode & 07700));
  }
}

// A new database file 0600, and an existing one with its -wal and -shm
// restricted to its owner. SQLite gives the -wal and -shm it creates the
// mode of the database file, so this covers them too.
void makeOwnerOnly(const std::string& path) {
  if (path.empty() || path == ":memory:" || path.rfind("file:", 0) == 0) return;
  // Closed at once; a failure shows in sqlite3_open, with SQLite's text.
  const FileDescriptor created(
      ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  restrictExisting(path, false);
  for (const char* suffix : {"-wal", "-shm"}) restrictExisting(path + suffix, true);
}

}  // namespace

// ---- Value -----------------------------------------------------------------

std::optional<std::string> SQLiteDatabase::Value::stringValue() const& {
  if (const auto* s = std::get_if<0>(&storage_)) return *s;
  return std::nullopt;
}

std::optional<std::string> SQLiteDatabase::Value::stringValue() && {
  if (auto* s = std::get_if<0>(&storage_)) return std::move(*s);
  return std::nullopt;
}

std::optional<std::int64_t> SQLiteDatabase::Value::intValue() const {
  if (const auto* i = std::get_if<1>(&storage_)) return *i;
  if (const auto* d = std::get_if<2>(&storage_)) {
    // [-2^63, 2^63): the doubles whose truncation fits an int64.
    if (!std::isfinite(*d) || *d < -9223372036854775808.0 || *d >= 9223372036854775808.0) {
      fault("intValue of a double outside the signed 64-bit range");
    }
    return static_cast<std::int64_t>(*d);
  }
  return std::nullopt;
}

std::optional<double> SQLiteDatabase::Value::doubleValue() const {
  if (const auto* d = std::get_if<2>(&storage_)) return *d;
  if (const auto* i = std::get_if<1>(&storage_)) return static_cast<double>(*i);
  return std::nullopt;
}

// ---- DBError ---------------------------------------------------------------

namespace {
const char* prefixOf(SQLiteDatabase::DBError::Kind kind) {
  switch (kind) {
    case SQLiteDatabase::DBError::Kind::open:
      return "sqlite open: ";
    case SQLiteDatabase::DBError::Kind::prepare:
      return "sqlite prepare: ";
    case SQLiteDatabase::DBError::Kind::step:
      return "sqlite step: ";
  }
  return "sqlite: ";
}
}  // namespace

SQLiteDatabase::DBError::DBError(Kind kind, std::string message, int code)
    : Error(prefixOf(kind) + message), kind_(kind), message_(std::move(message)), code_(code) {}

// ---- Opening and closing ---------------------------------------------------

SQLiteDatabase::SQLiteDatabase(const std::string& path) {
  makeOwnerOnly(path);
  if (int rc = sqlite3_open(path.c_str(), &handle_); rc != SQLITE_OK) {
    std::string message = handle_ != nullptr ? errorMessage(handle_) : "?";
    sqlite3_close(handle_);
    handle_ = nullptr;
    throw DBError(DBError::Kind::open, message, rc & 0xFF);
  }
  exec("PRAGMA journal_mode=WAL;");
  exec("PRAGMA synchronous=NORMAL;");
  exec("PRAGMA busy_timeout=3000;");
}

SQLiteDatabase::SQLiteDatabase(const std::string& path, ReadOnlyTag) {
  if (int rc = sqlite3_open_v2(path.c_str(), &handle_, SQLITE_OPEN_READONLY, nullptr);
      rc != SQLITE_OK) {
    std::string message = handle_ != nullptr ? errorMessage(handle_) : "?";
    sqlite3_close(handle_);
    handle_ = nullptr;
    throw DBError(DBError::Kind::open, message, rc & 0xFF);
  }
  exec("PRAGMA busy_timeout=3000;");
}

std::shared_ptr<SQLiteDatabase> SQLiteDatabase::open(const std::string& path) {
  return std::make_shared<SQLiteDatabase>(path);
}

std::shared_ptr<SQLiteDatabase> SQLiteDatabase::openReadOnly(const std::string& path) {
  return std::shared_ptr<SQLiteDatabase>(new SQLiteDatabase(path, ReadOnlyTag{}));
}

SQLiteDatabase::~SQLiteDatabase() {
  // A connection with statements alive would refuse to close.
  for (auto& entry : statements_) sqlite3_finalize(entry.second);
  sqlite3_close(handle_);
}

// ---- Running SQL -----------------------------------------------------------

namespace {

void bind(sqlite3_stmt* stmt, const std::vector<SQLiteDatabase::Value>& params) {
  using Kind = SQLiteDatabase::Value::Kind;
  int index = 1;
  // Results are ignored on purpose: a surplus parameter is dropped, an unbound
  // one reads as NULL.
  for (const auto& value : params) {
    switch (value.kind()) {
      case Kind::text:
        sqlite3_bind_text(stmt, index, value.stringValue()->c_str(), -1, kTransient);
        break;
      case Kind::integer:
        sqlite3_bind_int64(stmt, index, *value.intValue());
        break;
      case Kind::real:
        sqlite3_bind_double(stmt, index, *value.doubleValue());
        break;
      case Kind::null:
        sqlite3_bind_null(stmt, index);
        break;
    }
    ++index;
  }
}

}  // namespace

bool SQLiteDatabase::exec(const std::string& sql) {
  std::lock_guard guard(lock_);
  return sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

sqlite3_stmt* SQLiteDatabase::statementFor(const std::string& sql) {
  if (auto it = statements_.find(sql); it != statements_.end()) return it->second;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(handle_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    throw DBError(DBError::Kind::prepare, errorMessage(handle_), sqlite3_errcode(handle_) & 0xFF);
  }
  // Text that compiles to nothing (a comment, blanks) has no statement to
  // keep: it runs as an empty statement every time.
  if (stmt == nullptr) return nullptr;
  if (statements_.size() >= kStatementCacheSize) {
    // Callers use a handful of fixed texts; a caller that builds many starts
    // the cache afresh rather than growing it without bound.
    for (auto& entry : statements_) sqlite3_finalize(entry.second);
    statements_.clear();
  }
  statements_.emplace(sql, stmt);
  return stmt;
}

void SQLiteDatabase::recompile(const std::string& sql) {
  if (auto it = statements_.find(sql); it != statements_.end()) {
    sqlite3_finalize(it->second);
    statements_.erase(it);
  }
  statementFor(sql);
}

void SQLiteDatabase::execute(const std::string& sql, const std::vector<Value>& params) {
  std::lock_guard guard(lock_);
  const bool cached = statements_.count(sql) != 0;
  sqlite3_stmt* stmt = statementFor(sql);
  if (stmt == nullptr) {
    // SQL without a statement steps as a misuse, as it always has.
    throw DBError(DBError::Kind::step, errorMessage(handle_), SQLITE_MISUSE);
  }
  StatementUse use{stmt};
  bind(stmt, params);
  if (sqlite3_step(stmt) != SQLITE_DONE) {
    // Read before the reset, which may replace the message.
    DBError error(DBError::Kind::step, errorMessage(handle_), sqlite3_errcode(handle_) & 0xFF);
    // A kept statement whose table has gone fails here, where a fresh one
    // would not have compiled: report it as the prepare it is.
    if (cached) {
      use.stmt = nullptr;
      sqlite3_reset(stmt);
      sqlite3_clear_bindings(stmt);
      recompile(sql);
    }
    throw error;
  }
}

std::vector<SQLiteDatabase::Row> SQLiteDatabase::query(const std::string& sql,
                                                       const std::vector<Value>& params) {
  std::vector<Row> rows;
  forEachRow(sql, params, [&rows](Row& row) {
    rows.push_back(row);
    return true;
  });
  return rows;
}

SQLiteDatabase::ScanEnd SQLiteDatabase::forEachRow(const std::string& sql,
                                                   const std::vector<Value>& params,
                                                   const std::function<bool(Row&)>& visit) {
  std::lock_guard guard(lock_);
  const bool cached = statements_.count(sql) != 0;
  sqlite3_stmt* stmt = statementFor(sql);
  if (stmt == nullptr) return {};
  StatementUse use{stmt};
  bind(stmt, params);

  Row row;
  // Where each column lands in `row`. Elements of an unordered_map never
  // move, so the names are hashed once per statement, not once per row; a
  // later column of the same name shares the slot and overwrites it.
  std::vector<Value*> slots;
  int rc = SQLITE_DONE;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    if (slots.empty()) {
      int count = sqlite3_column_count(stmt);
      for (int i = 0; i < count; ++i) {
        const char* name =
            requireText(sqlite3_column_name(stmt, i), "sqlite3_column_name returned no text");
        slots.push_back(&row[textOf(name)]);
      }
    }
    for (std::size_t i = 0; i < slots.size(); ++i) readColumn(stmt, static_cast<int>(i), *slots[i]);
    if (!visit(row)) return {};
  }
  // Any other step result ends the rows. query() takes that as the end; the
  // caller that must know can tell an error from the last row here.
  if (rc == SQLITE_DONE) return {};
  ScanEnd end{false, sqlite3_errcode(handle_) & 0xFF, errorMessage(handle_)};
  if (cached && slots.empty()) {
    use.stmt = nullptr;
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    recompile(sql);  // as in execute: a vanished table is a prepare error
  }
  return end;
}

void SQLiteDatabase::readColumn(sqlite3_stmt* stmt, int i, Value& out) {
  switch (sqlite3_column_type(stmt, i)) {
    case SQLITE_INTEGER:
      out = SQLiteDatabase::Value::integer(sqlite3_column_int64(stmt, i));
      return;
    case SQLITE_FLOAT:
      out = SQLiteDatabase::Value::real(sqlite3_column_double(stmt, i));
      return;
    case SQLITE_TEXT: {
      const char* text = requireText(reinterpret_cast<const char*>(sqlite3_column_text(stmt, i)),
                                     "sqlite3_column_text returned no text");
      std::size_t length = std::char_traits<char>::length(text);
      // Reuse the slot's string when it already holds text: rows of one
      // statement mostly keep their shapes.
      if (auto* s = std::get_if<0>(&out.storage_); s != nullptr && isValidUTF8({text, length})) {
        s->assign(text, length);
      } else {
        out = SQLiteDatabase::Value::text(sanitizedUTF8({text, length}));
      }
      return;
    }
    default:  // SQLITE_NULL, and SQLITE_BLOB: there is no blob case
      out = SQLiteDatabase::Value::null();
      return;
  }
}

}  // namespace tarskel
