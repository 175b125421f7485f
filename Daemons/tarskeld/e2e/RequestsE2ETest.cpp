// Requests through the running daemon: the catalogue, the gate's verdicts,
// what the transport drops, and the grants across a restart.

#include "E2EFixture.hpp"
#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::e2e {
namespace {

using RequestTest = E2EFixture;

std::vector<std::string> stringsOf(const JSONValue& value) {
  std::vector<std::string> out;
  if (const JSONValue::Array* array = value.arrayValue()) {
    for (const JSONValue& item : *array)
      out.push_back(item.stringValue() ? *item.stringValue() : "?");
  }
  return out;
}

TransportEnvelope message(std::uint64_t id, std::optional<std::string> body,
                          bool expectsReply = true) {
  return TransportEnvelope{id, expectsReply, std::move(body)};
}

std::string encodedRequest(const std::string& op, JSONObject args = {}) {
  return TarskelJSON::encoder().encode(
      DaemonRequest{op, std::move(args), std::nullopt, std::nullopt});
}

DaemonResponse decodedResponse(const std::optional<TransportEnvelope>& reply) {
  if (!reply || !reply->body) throw std::runtime_error("no reply");
  return TarskelJSON::decoder().decode<DaemonResponse>(*reply->body);
}

TEST_F(RequestTest, InfoListsTheFiveOperationsAndLeavesOneRow) {
  start();
  DaemonResponse info = call("daemon.info", {}, std::nullopt, "corr-info");
  ASSERT_EQ(codeOf(info), "ok");
  EXPECT_EQ(stringsOf(resultAt(info, "ops")),
            (std::vector<std::string>{"daemon.grants.sync", "daemon.info", "fs.readProtectedPath",
                                      "platform.applyUpdate", "platform.uninstallMachine"}));
  EXPECT_EQ(resultAt(info, "pid").numberValue(), static_cast<double>(daemon->pid()));
  EXPECT_EQ(*resultAt(info, "daemonVersion").stringValue(), "0.1.0");

  std::vector<AuditStore::Entry> rows = auditRows();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].caller, kUnprovisionedCaller);
  EXPECT_EQ(rows[0].tool, "daemon.info");
  EXPECT_EQ(rows[0].origin, "xpc");
  EXPECT_EQ(rows[0].outcome, "ok");
  EXPECT_EQ(rows[0].correlationId, "corr-info");
}

TEST_F(RequestTest, UnknownOperationIsDeniedAndRecorded) {
  start();
  DaemonResponse response = call("daemon.shutdown");
  EXPECT_EQ(codeOf(response), "unknownOp");
  EXPECT_EQ(messageOf(response), "op fuera del catálogo: daemon.shutdown");
  std::vector<AuditStore::Entry> rows = auditRows();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].outcome, "denied");
}

// The gate's platform is scripted through the test build's seam; the
// verdict decides before the catalogue does.
TEST_F(RequestTest, GateVerdictsReachTheClientAndTheChain) {
  struct Case {
    const char* script;
    bool provisioned;
    std::string code;
    std::string caller;
  } cases[] = {
      {"team=TEAMID0001", true, "ok", "team:TEAMID0001"},
      {"team=TEAMID0001", false, "ok", kUnprovisionedCaller},
      {"sender=-67065", true, "unauthorizedClient",
       "rejected:sin identidad de código en el mensaje xpc (-67065)"},
      {"static=-67068", true, "unauthorizedClient",
       "rejected:sin static code del cliente xpc (-67068)"},
      {"validity=-67050", true, "unauthorizedClient",
       "rejected:gate SO: firma inválida o no anclada a Apple en cliente xpc (-67050)"},
      {"team=none", true, "unauthorizedClient",
       "rejected:gate SO: sin Team ID (¿ad-hoc?) en cliente xpc"},
      {"team=OTHERTEAM1", true, "unauthorizedClient",
       "rejected:gate SO: Team ID 'OTHERTEAM1' fuera de la allowlist en cliente xpc"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    std::filesystem::remove_all(root());
    if (c.provisioned)
      writeFile(root() / "vendor/teams.json", R"({"revision":1,"teamIds":["TEAMID0001"]})");
    start({{"TARSKEL_TEST_GATE", c.script}}, TARSKELD_TESTGATE_PATH);
    DaemonResponse response = call("daemon.info");
    EXPECT_EQ(codeOf(response), c.code);
    if (c.code != "ok") {
      EXPECT_EQ(messageOf(response), "cliente XPC rechazado: " + c.caller.substr(9));
    }
    std::vector<AuditStore::Entry> rows = auditRows();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].caller, c.caller);
    stop();
  }
}

TEST_F(RequestTest, BytesThatDoNotParseAreAnsweredWithoutARow) {
  start();
  RawConnection connection(socketPath());
  connection.send(message(1, std::string("{\"op\":")));
  connection.send(message(2, std::nullopt));
  connection.send(message(3, std::string()));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(codeOf(decodedResponse(connection.receive())), "malformedRequest");
  EXPECT_TRUE(auditRows().empty());
}

TEST_F(RequestTest, BadFrameClosesOnlyItsOwnConnection) {
  start();
  RawConnection bad(socketPath());
  RawConnection good(socketPath());
  // A flag bit the envelope does not define.
  std::string payload = Transport::encodeEnvelope(message(7, encodedRequest("daemon.info")));
  payload[8] = '\x80';
  bad.sendBytes(Framing::encode(payload));
  EXPECT_FALSE(bad.receive(5s).has_value());

  good.send(message(8, encodedRequest("daemon.info")));
  std::optional<TransportEnvelope> reply = good.receive();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->id, 8u);
  EXPECT_EQ(codeOf(decodedResponse(reply)), "ok");
}

TEST_F(RequestTest, MessageThatExpectsNoReplyNeverRuns) {
  start();
  RawConnection connection(socketPath());
  JSONObject grants{{"grants", JSONObject{{"svc.x", JSONValue::Array{"daemon.info"}}}}};
  connection.send(message(1, encodedRequest("daemon.grants.sync", grants), false));
  // Same connection, after it: once this is answered the first was seen.
  connection.send(message(2, encodedRequest("daemon.info")));
  std::optional<TransportEnvelope> reply = connection.receive();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->id, 2u);
  EXPECT_FALSE(connection.receive(300ms).has_value());

  std::vector<AuditStore::Entry> rows = auditRows();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].tool, "daemon.info");
  EXPECT_FALSE(std::filesystem::exists(root() / "daemon/grants.json"));
}

class ProtectedReadTest : public E2EFixture {
 protected:
  DaemonResponse read(const std::filesystem::path& path, const std::string& serviceId) {
    return call("fs.readProtectedPath", {{"path", path.string()}}, serviceId);
  }
};

TEST_F(ProtectedReadTest, GrantsSurviveARestartAndGateTheReadUpToOneMebibyte) {
  start();
  JSONObject grants{{"grants", JSONObject{{"svc.reader", JSONValue::Array{"fs.readProtectedPath"}},
                                          {"svc.other", JSONValue::Array{"daemon.info"}}}}};
  DaemonResponse sync = call("daemon.grants.sync", grants);
  ASSERT_EQ(codeOf(sync), "ok");
  EXPECT_EQ(resultAt(sync, "services").numberValue(), 2.0);

  stop();
  start();

  std::string atCap(1048576, 'a');
  atCap[1000] = '\xff';
  writeFile(dir / "cap", atCap);
  writeFile(dir / "over", std::string(1048577, 'b'));

  DaemonResponse granted = read(dir / "cap", "svc.reader");
  ASSERT_EQ(codeOf(granted), "ok") << messageOf(granted);
  EXPECT_EQ(resultAt(granted, "size").numberValue(), 1048576.0);
  EXPECT_EQ(base64Decode(*resultAt(granted, "contentsBase64").stringValue()), atCap);

  DaemonResponse over = read(dir / "over", "svc.reader");
  EXPECT_EQ(codeOf(over), "opFailed");
  EXPECT_EQ(messageOf(over),
            "fs.readProtectedPath falló: archivo supera el tope de 1048576 bytes: " +
                (dir / "over").string());

  DaemonResponse ungranted = read(dir / "cap", "svc.other");
  EXPECT_EQ(codeOf(ungranted), "notGranted");
  EXPECT_EQ(messageOf(ungranted), "sin concesión para fs.readProtectedPath (service: svc.other)");

  std::vector<AuditStore::Entry> rows = auditRows();
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[3].caller, std::string(kUnprovisionedCaller) + " svc:svc.other");
  EXPECT_TRUE(chainHolds());
}

}  // namespace
}  // namespace tarskel::e2e
