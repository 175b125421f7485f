#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <cstdio>

#include "tarskel/store/AuditStore.hpp"
#include "tarskel/store/Hashing.hpp"
#include "tarskel/testing/StoreTesting.hpp"

namespace tarskel {
namespace {

using Kind = AuditStore::ChainBreak::Kind;

// The chain as Python's sqlite3 and hashlib see it, apart from this code.
std::string independentVerdict(const std::string& db) {
  const std::string script = TARSKEL_CHAIN_CHECK;
  std::string out;
  FILE* pipe = popen(("python3 '" + script + "' '" + db + "' 2>&1").c_str(), "r");
  char buffer[256];
  while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr) out += buffer;
  if (pipe != nullptr) pclose(pipe);
  return out;
}

class AuditStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { reopen(); }

  // Drops the store and attaches a new one to the same file, as a restart does.
  void reopen() {
    store.reset();
    db = SQLiteDatabase::open(path());
    store = std::make_unique<AuditStore>(db, io.get_executor(), [this] { return clock; });
  }

  std::string record(const std::string& caller, const std::string& correlation = "corr") {
    clock.secondsSinceReferenceDate += 1.25;
    return store->recordSync(caller, "daemon.info", "xpc", "ok", 3.5, correlation);
  }

  void sql(const std::string& text) { ASSERT_TRUE(db->exec(text)) << text; }
  std::string path() const { return dir.file("audit.db"); }

  testing::TempDir dir;
  boost::asio::io_context io;
  Date clock{784926483.0};
  std::shared_ptr<SQLiteDatabase> db;
  std::unique_ptr<AuditStore> store;
};

TEST_F(AuditStoreTest, FirstRowMatchesTheKnownVector) {
  clock = Date{784926483.5};
  std::string hash = store->recordSync("c", "t", "o", "ok", 12.0, "x");
  EXPECT_EQ(hash, "36d874e307c10d54054ba1fbae5b1e429196e63730f9a8743e931b915c22f806");
  EXPECT_EQ(store->recentSync(10),
            (std::vector{AuditStore::Entry{1, Date{784926483.5}, "c", "t", "o", "ok", 12.0, "x",
                                           std::string(AuditStore::kGenesisHash), hash}}));
}

// Regression: a NUL in a client's op was hashed whole but stored cut, and the
// chain read as broken from that row on for good. The stored text is what is
// hashed, and Python's own reading of the file agrees.
TEST_F(AuditStoreTest, WhatIsHashedIsWhatIsStoredWhateverTheBytes) {
  const std::string kFFFD = "\xEF\xBF\xBD";
  const std::string longText(5000, 'a');
  const std::pair<std::string, std::string> cases[] = {
      {"a|b señal ü", "a|b señal ü"},  // honest texts as they stand
      {std::string("a\0b", 3), "a" + kFFFD + "b"},
      {"a\xFF"
       "b\xC3",
       "a" + kFFFD + "b" + kFFFD},
      {"\xED\xA0\x80", kFFFD + kFFFD + kFFFD},  // a surrogate is no character
      {longText, std::string(AuditStore::kMaxTextBytes - 3, 'a') + "\xE2\x80\xA6"},
      {std::string(4095, 'a') + "ñ", std::string(4093, 'a') + "\xE2\x80\xA6"}};
  clock = Date{1.0};
  for (const auto& [sent, stored] : cases) {
    SCOPED_TRACE(stored.substr(0, 20));
    EXPECT_EQ(AuditStore::storedText(sent), stored);
    std::string prev = store->lastHash();
    std::string hash = store->recordSync(sent, sent, "o", "ok", 0, sent);
    EXPECT_EQ(hash, Hashing::sha256Hex(prev + "|1.0|" + stored + "|" + stored + "|o|ok|" + stored));
    EXPECT_EQ(store->recentSync(1).at(0).tool, stored);
  }
  EXPECT_TRUE(store->verifyChainSync());
  EXPECT_EQ(independentVerdict(path()).substr(0, 5), "ok 6 ") << independentVerdict(path());
}

TEST_F(AuditStoreTest, EditingACoveredColumnBreaksTheChain) {
  const std::pair<const char*, bool> cases[] = {
      {"ts = ts + 0.5", false},      {"caller = 'mallory'", false},
      {"tool = 'x'", false},         {"origin = 'x'", false},
      {"outcome = 'denied'", false}, {"correlation_id = 'x'", false},
      {"prev_hash = hash", false},   {"hash = prev_hash", false},
      {"duration_ms = 99999", true},  // not covered by the chain
      {"caller = 7", false},          // no longer decodes
  };
  for (const auto& [change, holds] : cases) {
    SCOPED_TRACE(change);
    sql("DELETE FROM audit; DELETE FROM sqlite_sequence;");
    reopen();
    for (int i = 0; i < 3; ++i) record("caller" + std::to_string(i));
    sql(std::string("UPDATE audit SET ") + change + " WHERE seq = 2;");
    auto report = store->inspectChain();
    EXPECT_EQ(report.holds(), holds);
    if (!holds) {
      EXPECT_EQ(report.firstBreak->kind, Kind::broken);
      EXPECT_EQ(report.firstBreak->seq, 2);
      EXPECT_EQ(report.rowsChecked, 1);
    }
  }
}

// A cut tail shows in the table's sequence; verifying from a seq takes that
// row's prev_hash as the anchor.
TEST_F(AuditStoreTest, ChainReportsOfACutTailAndFromASeq) {
  for (int i = 0; i < 5; ++i) record("c");
  AuditStore::ChainReport whole = store->inspectChain();
  EXPECT_TRUE(whole.holds());
  EXPECT_EQ(whole.headSeq, 5);
  EXPECT_EQ(whole.headHash, store->lastHash());
  sql("DELETE FROM audit WHERE seq = 5;");
  AuditStore::ChainReport cut = store->inspectChain();
  ASSERT_FALSE(cut.holds());
  EXPECT_EQ(cut.firstBreak->kind, Kind::cut);
  EXPECT_EQ(cut.firstBreak->seq, 4);
  EXPECT_EQ(cut.firstBreak->reason, "the table's sequence stands at 5");
  sql("DELETE FROM sqlite_sequence;");
  EXPECT_EQ(store->inspectChain().firstBreak->reason, "the table's sequence has no record of it");

  sql("DELETE FROM audit; DELETE FROM sqlite_sequence;");
  reopen();
  for (int i = 0; i < 5; ++i) record("c");
  sql("UPDATE audit SET caller = 'mallory' WHERE seq = 2;");
  EXPECT_EQ(store->inspectChain().firstBreak->seq, 2);
  AuditStore::ChainReport from = store->inspectChain(3);
  EXPECT_TRUE(from.holds());
  EXPECT_EQ(from.rowsChecked, 3);
  EXPECT_EQ(from.headSeq, 5);
  EXPECT_TRUE(store->inspectChain(6).holds()) << "nothing issued after the head";
  sql("DELETE FROM audit WHERE seq = 4;");
  EXPECT_EQ(store->inspectChain(4).firstBreak->reason, "no row has this seq");
}

TEST_F(AuditStoreTest, RecentAndCorrelationListings) {
  for (int i = 0; i < 5; ++i) record("c" + std::to_string(i), i % 2 == 0 ? "even" : "odd");
  sql("INSERT INTO audit VALUES (NULL, 1.0, 'c', 't', 'o', 'ok', 1.0, 'odd', 'p', x'00');");

  auto seqs = [](const std::vector<AuditStore::Entry>& entries) {
    std::vector<std::int64_t> out;
    for (const auto& e : entries) out.push_back(e.seq);
    return out;
  };
  // The undecodable row (a blob hash) is skipped by both listings.
  EXPECT_EQ(seqs(store->recentSync(2)), (std::vector<std::int64_t>{5}));
  EXPECT_TRUE(store->recentSync(0).empty());
  EXPECT_EQ(seqs(store->recentSync(-1)), (std::vector<std::int64_t>{1, 2, 3, 4, 5}));
  EXPECT_EQ(seqs(store->entriesSync("odd")), (std::vector<std::int64_t>{2, 4}));
  EXPECT_EQ(store->inspectChain().firstBreak->seq, 6);
}

TEST_F(AuditStoreTest, AnIntegralTimestampDecodesAndRendersWithAFraction) {
  db = SQLiteDatabase::open(dir.file("plain.db"));
  // A table without column affinities keeps an integer ts as an integer.
  ASSERT_TRUE(
      db->exec("CREATE TABLE audit (seq INTEGER PRIMARY KEY AUTOINCREMENT, ts, caller, tool, "
               "origin, outcome, duration_ms, correlation_id, prev_hash, hash);"));
  std::string genesis(AuditStore::kGenesisHash);
  db->execute(
      "INSERT INTO audit VALUES (NULL, 100, 'c', 't', 'o', 'ok', 2, 'x', ?, ?);",
      {SQLiteDatabase::Value::text(genesis), SQLiteDatabase::Value::text(AuditStore::chainHash(
                                                 genesis, Date{100.0}, "c", "t", "o", "ok", "x"))});
  store = std::make_unique<AuditStore>(db, io.get_executor());
  EXPECT_EQ(store->recentSync(1).at(0).ts, Date{100.0});
  EXPECT_TRUE(store->verifyChainSync());
}

}  // namespace
}  // namespace tarskel
