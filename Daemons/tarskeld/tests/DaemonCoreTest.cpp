// DaemonCore's decisions, as a client and the audit chain see them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <stdexcept>

#include "DaemonTestSupport.hpp"
#include "tarskel/daemon/InfoOp.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

using boost::asio::awaitable;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// An operation that ends the way it is told to.
class ScriptedOp final : public DaemonOp {
 public:
  enum class Ending { opError, otherError, nonFinite, notUTF8 };
  ScriptedOp(std::string name, Ending ending)
      : DaemonOp(std::move(name), {}, false), ending_(ending) {}

  awaitable<JSONValue> execute(const JSONObject&, const DaemonOpContext&) const override {
    if (ending_ == Ending::opError) throw DaemonOpError("me negué");
    if (ending_ == Ending::otherError) throw std::runtime_error("runtime says no");
    if (ending_ == Ending::notUTF8)
      throw DaemonOpError(
          "a\xff"
          "b");
    co_return JSONValue(std::numeric_limits<double>::infinity());
  }

 private:
  Ending ending_;
};

class DaemonCoreTest : public testing::DaemonFixture {
 protected:
  void SetUp() override { openStores(R"({"grants":{"svc.reader":["fs.readProtectedPath"]}})"); }

  DaemonCore core(std::optional<DaemonCore::OpList> ops = std::nullopt) const {
    return DaemonCore(std::move(ops), audit, grants);
  }

  AuditStore::Entry lastRow() const { return audit->recentSync(1).at(0); }
};

const DaemonPeerVerdict kUnverified = DaemonPeerVerdict::unverified("sin lista");

// peer | op | args | service ("-": none) | the answer: "ok", or "<code>:
// <message>" (a prefix when it ends in '*', a suffix when it begins with one) |
// the row's "<outcome> <caller>". $DIR is the test's directory, $MANY an
// object of 100 undeclared keys.
TEST_F(DaemonCoreTest, EachOutcomeIsAnsweredAndRecordedOnce) {
  std::string undeclared = "{";  // answered with the first 64 of its 100 violations
  for (int i = 0; i < 100; ++i) undeclared += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":1";
  undeclared += "}";
  DaemonCore c = core();
  std::int64_t rows = 0;
  for (testing::Row row : testing::rows(R"(
# A rejected peer is refused before the catalogue is looked at.
rejected | no.such.op | {} | svc.x | unauthorizedClient: cliente XPC rechazado: firma rota | denied rejected:firma rota svc:svc.x
unverified | no.such.op | {} | - | unknownOp: op fuera del catálogo: no.such.op | denied unverified:sin lista
# Without a service the arguments are not looked at.
unverified | fs.readProtectedPath | {"bogus":1} | - | notGranted: sin concesión para fs.readProtectedPath (service: ninguno) | denied unverified:sin lista
trusted | fs.readProtectedPath | {"path":"$DIR"} | svc.other | notGranted: sin concesión para fs.readProtectedPath (service: svc.other) | denied team:TEAM1 svc:svc.other
unverified | fs.readProtectedPath | {"path":"","extra":1} | svc.reader | invalidArgs: args fuera del schema: * | denied unverified:sin lista svc:svc.reader
unverified | fs.readProtectedPath | {"path":"$DIR"} | svc.reader | opFailed: fs.readProtectedPath falló: no es un archivo regular: $DIR | error unverified:sin lista svc:svc.reader
unverified | daemon.info | {} | - | ok | ok unverified:sin lista
unverified | daemon.info | $MANY | - | *campo no declarado en el schema; … (36 más) | denied unverified:sin lista
)")) {
    SCOPED_TRACE(row.line);
    for (std::string& cell : row.cells) {
      if (const auto at = cell.find("$DIR"); at != std::string::npos)
        cell.replace(at, 4, dir.path().string());
      if (cell == "$MANY") cell = undeclared;
    }
    const DaemonPeerVerdict peer = row[0] == "rejected"  ? DaemonPeerVerdict::rejected("firma rota")
                                   : row[0] == "trusted" ? DaemonPeerVerdict::trusted("TEAM1")
                                                         : kUnverified;
    const std::string id = "c" + std::to_string(rows);
    const std::optional<std::string> service = row[3] == "-" ? std::nullopt : std::optional(row[3]);
    const DaemonResponse response =
        handle(c, {row[1], testing::decode<JSONObject>(row[2]), id, service}, peer);
    EXPECT_EQ(response.ok, row[4] == "ok");
    EXPECT_EQ(response.result.has_value(), response.ok);
    const std::string answer =
        response.error ? response.error->code + ": " + response.error->message : "ok";
    if (row[4].starts_with('*')) {
      EXPECT_THAT(answer, ::testing::EndsWith(row[4].substr(1)));
    } else if (row[4].ends_with('*')) {
      EXPECT_THAT(answer, StartsWith(row[4].substr(0, row[4].size() - 1)));
    } else {
      EXPECT_EQ(answer, row[4]);
    }
    EXPECT_EQ(auditRows(), ++rows) << "exactly one row per decided request";
    const AuditStore::Entry last = lastRow();
    EXPECT_EQ(last.outcome + " " + last.caller + " " + last.tool + " " + last.origin + " " +
                  last.correlationId,
              row[5] + " " + row[1] + " xpc " + id);
    EXPECT_GE(last.durationMs, 0.0);
  }
  EXPECT_TRUE(audit->verifyChainSync());
}

TEST_F(DaemonCoreTest, HowAnOperationEndsIsAnsweredAndRecorded) {
  struct Case {
    ScriptedOp::Ending ending;
    std::string answer;  // within the encoded response
    std::string outcome;
  };
  const std::vector<Case> cases = {
      {ScriptedOp::Ending::opError, R"(t.op falló: me negué)", "error"},
      {ScriptedOp::Ending::otherError, R"(t.op falló: runtime says no)", "error"},
      // Regressions: both were answered with zero bytes.
      {ScriptedOp::Ending::nonFinite, "t.op falló: la respuesta no se pudo codificar", "ok"},
      {ScriptedOp::Ending::notUTF8, R"(t.op falló: a\\xffb)", "error"},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.answer);
    DaemonCore c = core(DaemonCore::OpList{std::make_shared<ScriptedOp>("t.op", tc.ending)});
    std::string answer =
        testing::runOn(pool, c.handleEncoded(R"({"op":"t.op","args":{}})", kUnverified));
    EXPECT_THAT(answer, HasSubstr(R"("code":"opFailed")"));
    EXPECT_THAT(answer, HasSubstr(tc.answer));
    EXPECT_EQ(lastRow().outcome, tc.outcome);
  }
}

TEST_F(DaemonCoreTest, CorrelationIdIsMadeOnlyWhenAbsent) {
  DaemonCore c = core();
  handle(c, {"daemon.info", {}, "", std::nullopt}, kUnverified);
  EXPECT_EQ(lastRow().correlationId, "") << "an empty id is kept";

  std::string answer =
      testing::runOn(pool, c.handleEncoded(R"({"op":"daemon.info","args":{}})", kUnverified));
  const std::regex upperUUID("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::string fresh = lastRow().correlationId;
  EXPECT_TRUE(std::regex_match(fresh, upperUUID)) << fresh;
  EXPECT_EQ(answer.find(fresh), std::string::npos) << "the response carries no id";
}

TEST_F(DaemonCoreTest, UnreadableBytesAnswerMalformedWithoutARow) {
  for (const std::string bytes : {"\xff\xfe", R"({"op":"daemon.info"})"}) {
    SCOPED_TRACE(bytes);
    // A rejected peer learns that its bytes are bad, not that it is rejected.
    const auto response = TarskelJSON::decoder().decode<DaemonResponse>(
        testing::runOn(pool, core().handleEncoded(bytes, DaemonPeerVerdict::rejected("x"))));
    ASSERT_TRUE(response.error && !response.ok);
    EXPECT_THAT(response.error->code + ": " + response.error->message,
                StartsWith("malformedRequest: request ilegible: "));
  }
  EXPECT_EQ(auditRows(), 0);
}

TEST_F(DaemonCoreTest, CatalogueSizeFollowsOpsAndRoot) {
  EXPECT_THAT(core().catalog(),
              ::testing::ElementsAre("daemon.grants.sync", "daemon.info", "fs.readProtectedPath"));
  DaemonCore empty = core(DaemonCore::OpList{});
  EXPECT_TRUE(empty.catalog().empty());
  // A root and no list: the daemon's whole catalogue.
  DaemonCore full(std::nullopt, audit, grants, dir.path());
  EXPECT_THAT(full.catalog(),
              ::testing::ElementsAre("daemon.grants.sync", "daemon.info", "fs.readProtectedPath",
                                     "platform.applyUpdate", "platform.uninstallMachine"));
}

TEST(DaemonCoreDeathTest, DuplicateNameEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto build = [] {
    DaemonCore(DaemonCore::OpList{std::make_shared<InfoOp>(), std::make_shared<InfoOp>()}, nullptr,
               nullptr);
  };
  EXPECT_DEATH(build(), "Duplicate values for key: 'daemon.info'");
}

// Many requests at once on the worker pool: each leaves exactly one row, and
// the rows still chain.
TEST_F(DaemonCoreTest, ConcurrentRequestsEachLeaveOneChainedRow) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 100;
  boost::asio::thread_pool workers(kThreads);
  DaemonCore c = core();
  std::vector<std::future<DaemonResponse>> answers;
  for (int i = 0; i < kThreads * kPerThread; ++i) {
    DaemonRequest request{
        i % 3 == 0 ? "no.such.op" : "daemon.info", {}, std::to_string(i), std::nullopt};
    answers.push_back(boost::asio::co_spawn(workers, c.handle(std::move(request), kUnverified),
                                            boost::asio::use_future));
  }
  for (auto& answer : answers) answer.get();
  // The store's thread may still be handing its last completions to the
  // pool; a call through its strand waits that out before the pool goes.
  EXPECT_TRUE(boost::asio::co_spawn(workers, audit->verifyChain(), boost::asio::use_future).get());

  auto counts =
      db->query("SELECT count(*) AS n, count(DISTINCT correlation_id) AS ids FROM audit;");
  EXPECT_EQ(counts[0]["n"], SQLiteDatabase::Value::integer(kThreads * kPerThread));
  EXPECT_EQ(counts[0]["ids"], SQLiteDatabase::Value::integer(kThreads * kPerThread))
      << "one row per request";
}

}  // namespace
}  // namespace tarskel
