// The audit chain under faults that really happen: a database that refuses
// writes, a writer killed mid-stream, and many writers at once.

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <thread>

#include "tarskel/store/AuditStore.hpp"
#include "tarskel/testing/StoreTesting.hpp"

namespace tarskel {
namespace {

using namespace std::string_literals;

using boost::asio::awaitable;

std::set<std::string> storedHashes(SQLiteDatabase& db) {
  std::set<std::string> out;
  for (auto& row : db.query("SELECT hash FROM audit;")) out.insert(*row["hash"].stringValue());
  return out;
}

// A group's commit that fails loses the group as a failed insert loses a
// lone row: each record still returns its hash, none of the group is in the
// file (not even the rows that alone would have fitted), and the head has
// moved past them, so that the next stored row breaks the chain at the first
// lost row's seq; a restart before that row closes the hole.
TEST(RefusingDatabaseTest, AFailedGroupCommitLeavesAHoleThatARestartCloses) {
  testing::TempDir dir;
  boost::asio::io_context io;
  auto db = SQLiteDatabase::open(dir.file("audit.db"));
  auto store = std::make_unique<AuditStore>(db, io.get_executor());
  const std::string kept = store->recordSync("a", "t", "xpc", "ok", 1, "1");
  // The file may not grow: a row that needs a page of its own can't be stored.
  auto pages = db->query("PRAGMA page_count;").at(0).at("page_count").intValue();
  ASSERT_TRUE(db->exec("PRAGMA max_page_count = " + std::to_string(*pages) + ";"));

  std::vector<std::future<std::string>> records;
  for (const std::string& caller : {"b"s, std::string(4000, 'x'), "d"s})
    records.push_back(boost::asio::co_spawn(io, store->record(caller, "t", "xpc", "ok", 1, "group"),
                                            boost::asio::use_future));
  io.run();  // the three reach the store together and share one commit
  std::vector<std::string> lost;
  for (auto& r : records) lost.push_back(r.get());
  lost.push_back(store->recordSync(std::string(4000, 'y'), "t", "xpc", "ok", 1, "alone"));
  for (const auto& hash : lost) EXPECT_EQ(storedHashes(*db).count(hash), 0u);
  EXPECT_EQ(store->lastHash(), lost.back());
  EXPECT_EQ(AuditStore(db, io.get_executor()).lastHash(), kept) << "a restart closes the hole";

  ASSERT_TRUE(db->exec("PRAGMA max_page_count = 1000000;"));
  store->recordSync("e", "t", "xpc", "ok", 1, "after");
  EXPECT_EQ(store->recentSync(1).at(0).prevHash, lost.back());
  EXPECT_EQ(store->inspectChain().firstBreak->seq, 2) << "where the first lost row would be";
}

// Regression: with one page of a 20,000-row chain overwritten, SQLite stopped
// reading part-way and the walk took that for the end: "chain ok: 8946 rows".
TEST(DamagedFileTest, AReadThatStopsEarlyIsDamageNotTheEndOfTheChain) {
  testing::TempDir dir;
  const std::string path = dir.file("audit.db");
  {
    boost::asio::io_context io;
    auto db = SQLiteDatabase::open(path);
    AuditStore store(db, io.get_executor());
    ASSERT_TRUE(db->exec("BEGIN;"));
    for (int i = 0; i < 20000; ++i)
      store.recordSync("caller", "daemon.info", "xpc", "ok", 1, std::to_string(i));
    ASSERT_TRUE(db->exec("COMMIT;"));
  }  // the last connection checkpoints the log into the file
  const auto size = std::filesystem::file_size(path);
  ASSERT_GT(size, 100u * 4096u);
  {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(size / 4096 / 2 * 4096));
    file << std::string(4096, 'Z');
  }
  boost::asio::io_context io;
  AuditStore store(SQLiteDatabase::openReadOnly(path), io.get_executor());
  AuditStore::ChainReport report = store.inspectChain();
  ASSERT_FALSE(report.holds());
  EXPECT_EQ(report.firstBreak->kind, AuditStore::ChainBreak::Kind::damaged);
  EXPECT_EQ(report.firstBreak->seq, report.headSeq);
  EXPECT_LT(report.rowsChecked, 20000);
  EXPECT_EQ(report.firstBreak->reason, "database disk image is malformed");
}

// Every hash a child's record returned before SIGKILL is in the file.
TEST(KilledWriterTest, EveryReturnedRecordSurvivesSIGKILL) {
  testing::TempDir dir;
  const std::string path = dir.file("audit.db");
  const std::vector<std::string> returned = testing::linesBeforeSIGKILL(2000, [&] {
    auto io = std::make_shared<boost::asio::io_context>();
    auto store = std::make_shared<AuditStore>(SQLiteDatabase::open(path), io->get_executor());
    return [io, store](int i) {
      return store->recordSync("child", "daemon.info", "xpc", "ok", 0.5, std::to_string(i));
    };
  });
  auto db = SQLiteDatabase::open(path);
  boost::asio::io_context io;
  AuditStore store(db, io.get_executor());
  EXPECT_TRUE(store.verifyChainSync());
  const std::set<std::string> stored = storedHashes(*db);
  std::size_t missing = 0;
  for (const auto& hash : returned) missing += stored.count(hash) == 0 ? 1 : 0;
  EXPECT_EQ(missing, 0u) << "of " << returned.size() << " returned records";
  EXPECT_GE(stored.size(), returned.size());
}

TEST(ConcurrentRecordTest, EachRecordLeavesExactlyOneRowOnAChainThatHolds) {
  testing::TempDir dir;
  auto db = SQLiteDatabase::open(dir.file("audit.db"));
  boost::asio::thread_pool pool(4);
  AuditStore store(db, pool.get_executor());
  constexpr int kRecords = 400;

  // A reader outside the pool checks the connection's own locking.
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) (void)store.verifyChainSync();
  });

  std::vector<std::future<std::string>> results;
  for (int i = 0; i < kRecords; ++i) {
    auto task = [&store, i]() -> awaitable<std::string> {
      if (i % 50 == 0) {
        bool holds = co_await store.verifyChain();
        EXPECT_TRUE(holds);
      }
      std::string hash = co_await store.record("peer", "daemon.info", "xpc", "ok", 1.0,
                                               "req-" + std::to_string(i));
      co_return hash;
    };
    results.push_back(boost::asio::co_spawn(pool, task, boost::asio::use_future));
  }
  std::set<std::string> returned;
  for (auto& r : results) returned.insert(r.get());
  done = true;
  reader.join();

  EXPECT_EQ(returned.size(), static_cast<std::size_t>(kRecords));
  EXPECT_EQ(storedHashes(*db), returned);
  auto recent = boost::asio::co_spawn(pool, store.recent(1), boost::asio::use_future).get();
  EXPECT_EQ(recent.at(0).hash, store.lastHash());
  EXPECT_TRUE(store.verifyChainSync());
  pool.join();
}

}  // namespace
}  // namespace tarskel
