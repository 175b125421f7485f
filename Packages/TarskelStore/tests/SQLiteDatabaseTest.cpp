#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "tarskel/store/SQLiteDatabase.hpp"
#include "tarskel/testing/StoreTesting.hpp"

namespace tarskel {
namespace {

using Value = SQLiteDatabase::Value;
using DBError = SQLiteDatabase::DBError;

class SQLiteDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db = SQLiteDatabase::open(dir.file("test.db"));
    ASSERT_TRUE(db->exec("CREATE TABLE t (a, b);"));
  }

  // The error kind a call throws (its text kept in lastError), or nothing.
  template <class Fn>
  std::optional<DBError::Kind> errorOf(Fn fn) {
    try {
      fn();
    } catch (const DBError& e) {
      lastError = e.what();
      return e.kind();
    }
    return std::nullopt;
  }

  std::int64_t count() { return *db->query("SELECT count(*) AS n FROM t;")[0]["n"].intValue(); }

  testing::TempDir dir;
  std::shared_ptr<SQLiteDatabase> db;
  std::string lastError;
};

TEST_F(SQLiteDatabaseTest, OpeningFailuresAndReadOnlyOpening) {
  EXPECT_EQ(errorOf([&] { SQLiteDatabase(dir.file("no/such/dir/x.db")); }), DBError::Kind::open);
  EXPECT_TRUE(lastError.starts_with("sqlite open: ")) << lastError;
  EXPECT_EQ(db->query("PRAGMA journal_mode;")[0]["journal_mode"], Value::text("wal"));
  EXPECT_THROW(SQLiteDatabase::openReadOnly(dir.file("absent.db")), DBError);
  EXPECT_FALSE(std::filesystem::exists(dir.file("absent.db")));
  auto ro = SQLiteDatabase::openReadOnly(dir.file("test.db"));
  EXPECT_EQ(errorOf([&] { ro->execute("INSERT INTO t VALUES (1, 2);"); }), DBError::Kind::step);
}

TEST_F(SQLiteDatabaseTest, FailuresLeaveTheConnectionUsable) {
  EXPECT_FALSE(db->exec("CREATE TABLE oops ("));
  EXPECT_EQ(errorOf([&] { db->query("SELEC nonsense"); }), DBError::Kind::prepare);
  EXPECT_EQ(errorOf([&] { db->execute("SELEC nonsense"); }), DBError::Kind::prepare);
  db->execute("INSERT INTO t VALUES (1, 2);");
  // A row where none is expected is a step failure of execute only.
  EXPECT_EQ(errorOf([&] { db->execute("SELECT * FROM t;"); }), DBError::Kind::step);
  EXPECT_TRUE(db->query("INSERT INTO t VALUES (3, 4);").empty());
  EXPECT_EQ(count(), 2);
  ASSERT_TRUE(db->exec("CREATE TABLE u (k UNIQUE); INSERT INTO u VALUES (1);"));
  EXPECT_EQ(errorOf([&] { db->execute("INSERT INTO u VALUES (1);"); }), DBError::Kind::step);
  EXPECT_EQ(lastError, "sqlite step: UNIQUE constraint failed: u.k");
}

// Regression: audit.db and its -wal and -shm were 0644, so any user read
// every row. New files are the owner's alone, and old ones are tightened.
TEST_F(SQLiteDatabaseTest, DatabaseFilesAreTheOwnersAlone) {
  auto mode = [](const std::string& path) {
    return std::filesystem::status(path).permissions() & std::filesystem::perms::all;
  };
  const auto ownerOnly = std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;
  db->execute("INSERT INTO t VALUES (1, 2);");
  for (const char* suffix : {"", "-wal", "-shm"})
    EXPECT_EQ(mode(dir.file("test.db") + suffix), ownerOnly) << suffix;

  const std::string old = dir.file("old.db");
  std::filesystem::copy_file(dir.file("test.db"), old);
  std::filesystem::permissions(
      old, std::filesystem::perms::owner_all | std::filesystem::perms::others_read);
  // Regression: links planted as the -wal and -shm had the files they name
  // chmodded; they are removed, never followed.
  const std::string someoneElses = dir.file("elsewhere");
  testing::writeFile(someoneElses, "kept");
  std::filesystem::permissions(someoneElses, std::filesystem::perms(0644));
  for (const char* suffix : {"-wal", "-shm"})
    std::filesystem::create_symlink(someoneElses, old + suffix);
  SQLiteDatabase reopened(old);
  EXPECT_EQ(mode(old), std::filesystem::perms::owner_all);
  EXPECT_EQ(mode(someoneElses), std::filesystem::perms(0644));
  EXPECT_EQ(testing::readFile(someoneElses), "kept");
}

// Statements are cached per text: each use must leave its statement reset
// and unbound, or the next call would see the last one's rows or values, and
// an unfinished read would keep the table locked.
TEST_F(SQLiteDatabaseTest, CachedStatementsCarryNothingFromOneCallToTheNext) {
  const std::string insert = "INSERT INTO t VALUES (?, ?);";
  db->execute(insert, {Value::integer(1), Value::integer(2)});
  db->execute(insert, {Value::integer(3)});  // b unbound: NULL, not 2
  EXPECT_EQ(db->query("SELECT b FROM t WHERE a = 3;")[0]["b"], Value::null());

  int seen = 0;
  db->forEachRow("SELECT * FROM t;", {}, [&](SQLiteDatabase::Row&) { return ++seen < 1; });
  EXPECT_EQ(seen, 1);
  EXPECT_TRUE(db->exec("DROP TABLE t;")) << "a stopped read left the table locked";
  EXPECT_EQ(errorOf([&] { db->execute(insert, {Value::integer(1)}); }), DBError::Kind::prepare);
  ASSERT_TRUE(db->exec("CREATE TABLE t (a, b);"));
  db->execute(insert, {Value::integer(5), Value::integer(6)});  // recompiled for the new table
  for (int i = 0; i < 200; ++i)
    db->query("SELECT " + std::to_string(i) + " AS n;");  // beyond the cache
  EXPECT_EQ(count(), 1);
}

TEST_F(SQLiteDatabaseTest, ValuesRoundTripByCase) {
  db->execute("INSERT INTO t VALUES (?, ?);", {Value::text("ñandú"), Value::integer(-7)});
  db->execute("INSERT INTO t VALUES (?, ?);", {Value::real(2.5), Value::null()});
  db->execute("INSERT INTO t VALUES (x'00ff', ?);", {Value::text(std::string("ab\0cd", 5))});
  // A surplus parameter is dropped.
  db->execute("INSERT INTO t VALUES (?, 0);", {Value::integer(2), Value::integer(99)});
  // execute runs only the first statement, exec runs them all.
  db->execute("INSERT INTO t VALUES (7, 7); INSERT INTO t VALUES (8, 8);");
  EXPECT_EQ(count(), 5);
  ASSERT_TRUE(db->exec("DELETE FROM t WHERE a = 8; DELETE FROM t WHERE a = 7;"));
  EXPECT_EQ(count(), 4);

  // A blob reads as null, and text ends at its first NUL.
  std::vector<std::pair<Value, Value>> got;
  for (auto& row : db->query("SELECT a, b FROM t ORDER BY rowid;"))
    got.emplace_back(row["a"], row["b"]);
  EXPECT_EQ(got, (std::vector<std::pair<Value, Value>>{{Value::text("ñandú"), Value::integer(-7)},
                                                       {Value::real(2.5), Value::null()},
                                                       {Value::null(), Value::text("ab")},
                                                       {Value::integer(2), Value::integer(0)}}));
}

TEST_F(SQLiteDatabaseTest, ColumnsByNameTheLaterStandsAndInvalidUTF8IsReplaced) {
  auto rows = db->query("SELECT 1 AS x, 2 AS x, CAST(x'61ff62' AS TEXT) AS s;");
  EXPECT_EQ(rows.at(0), (SQLiteDatabase::Row{{"x", Value::integer(2)},
                                             {"s", Value::text("a\xEF\xBF\xBD"
                                                               "b")}}));
}

// value | as text | as an integer (a double truncated toward zero) | as a double
TEST(SQLiteValueTest, Accessors) {
  using S = std::optional<std::string>;
  using I = std::optional<std::int64_t>;
  using D = std::optional<double>;
  const std::tuple<Value, S, I, D> cases[] = {{Value::text("3"), "3", {}, {}},
                                              {Value::integer(3), {}, 3, 3.0},
                                              {Value::real(1.9), {}, 1, 1.9},
                                              {Value::real(-1.9), {}, -1, -1.9},
                                              {Value::null(), {}, {}, {}}};
  for (const auto& [value, s, i, d] : cases) {
    EXPECT_EQ(value.stringValue(), s);
    EXPECT_EQ(value.intValue(), i) << value.doubleValue().value_or(0);
    EXPECT_EQ(value.doubleValue(), d);
  }
}

TEST(SQLiteValueDeathTest, IntValueOfAnUnrepresentableDoubleEndsTheProcess) {
  EXPECT_DEATH((void)Value::real(std::nan("")).intValue(), "signed 64-bit");
  EXPECT_DEATH((void)Value::real(9223372036854775808.0).intValue(), "signed 64-bit");
  EXPECT_EQ(Value::real(-9223372036854775808.0).intValue(),
            std::numeric_limits<std::int64_t>::min());
}

}  // namespace
}  // namespace tarskel
