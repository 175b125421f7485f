#include <gtest/gtest.h>

#include <string>

#include "tarskel/protocol/cc/CCCommand.hpp"
#include "tarskel/protocol/cc/CCCommandMethod.hpp"
#include "tarskel/protocol/cc/DeviceReports.hpp"
#include "tarskel/protocol/cc/WireMessage.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/Errors.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

using testing::decode;

// `text` read as the record named `type`, written canonically, or the error.
std::string reread(const std::string& type, const std::string& text) {
  if (type == "Heartbeat") return testing::reread<Heartbeat>(text);
  if (type == "ServiceStatusReport") return testing::reread<ServiceStatusReport>(text);
  if (type == "CCEvent") return testing::reread<CCEvent>(text);
  if (type == "AuditAnchorReport") return testing::reread<AuditAnchorReport>(text);
  if (type == "CCCommand") return testing::reread<CCCommand>(text);
  if (type == "CCAck") return testing::reread<CCAck>(text);
  return testing::reread<DualControl>(text);
}

// type | text | canonical re-encoding ("=": the text itself), or the error.
// A null reads as absent, unknown keys are dropped.
TEST(CCRecordsTest, PresenceRules) {
  for (const testing::Row& row : testing::rows(R"(
Heartbeat | {"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z","primary":true,"services":[],"configEpochs":{}} | {"configEpochs":{},"deviceId":"d","platformVersion":"1","primary":true,"services":[],"ts":"2026-01-02T03:04:05Z"}
Heartbeat | {"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z","primary":true,"services":[],"configEpochs":{},"sessionId":null,"metrics":null} | {"configEpochs":{},"deviceId":"d","platformVersion":"1","primary":true,"services":[],"ts":"2026-01-02T03:04:05Z"}
Heartbeat | {"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z","primary":true,"services":[],"configEpochs":{},"metrics":{}} | {"configEpochs":{},"deviceId":"d","metrics":{},"platformVersion":"1","primary":true,"services":[],"ts":"2026-01-02T03:04:05Z"}
Heartbeat | {"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z","primary":true,"configEpochs":{}} | keyNotFound en <raíz>: falta la clave "services"
ServiceStatusReport | {"id":"a","version":"1","state":"running","recentRestarts":2,"cpuPercent":0} | {"cpuPercent":0,"id":"a","recentRestarts":2,"state":"running","version":"1"}
ServiceStatusReport | {"id":"a","version":"1","state":"Running","recentRestarts":2} | dataCorrupted en state: valor desconocido: "Running"
CCEvent | {"eventId":"e","deviceId":"d","ts":"2026-01-02T03:04:05Z","type":"x.custom","payload":[1]} | {"deviceId":"d","eventId":"e","payload":[1],"ts":"2026-01-02T03:04:05Z","type":"x.custom"}
AuditAnchorReport | {"deviceId":"d","sequence":4,"ts":"2026-01-02T03:04:05Z"} | keyNotFound en <raíz>: falta la clave "head"
CCCommand | {"cmdId":"c1","target":"dev1","method":"service.start","params":null,"x":1,"deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","sig":"sig"} | {"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","method":"service.start","sig":"sig","target":"dev1"}
CCCommand | {"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"approvedBy":"ana","required":false},"issuedBy":"ops","method":"service.start","params":{"id":"net.example.a"},"sig":"sig","target":"dev1"} | =
CCCommand | {"cmdId":"c1","target":"d","method":"m","deadline":"2026-01-02T03:04:05Z","issuedBy":"o"} | keyNotFound en <raíz>: falta la clave "sig"
CCAck | {"cmdId":"c","status":"nacked"} | =
CCAck | {"cmdId":"c3","configEpoch":-9223372036854775808,"error":{"code":-32003,"message":"sin respuesta"},"result":1,"status":"nacked"} | =
CCAck | {"cmdId":"c","status":"ok"} | dataCorrupted en status: valor desconocido: "ok"
CCAck | {"cmdId":"c","status":"acked","configEpoch":1.5} | dataCorrupted en configEpoch: se esperaba un entero, llegó 1.5
DualControl | {"required":true} | =
DualControl | {"approvedBy":"x"} | keyNotFound en <raíz>: falta la clave "required"
)")) {
    EXPECT_EQ(reread(row[0], row[1]), row[2] == "=" ? row[1] : row[2]) << row.line;
  }
}

// Every field set, numbers at their limits, written as it reads.
TEST(DeviceReportsTest, HeartbeatRoundTripsEveryField) {
  const std::string every =
      R"({"configEpochs":{"config":-9223372036854775808,"flags":7},"deviceId":"dev1",)"
      R"("metrics":{"uptimeSeconds":9223372036854775807},"platformVersion":"2.3.0","primary":true,)"
      R"("services":[{"cpuPercent":0,"id":"net.a","memoryMB":512.25,"recentRestarts":3,)"
      R"("state":"degraded","version":"1.0.0"},{"id":"net.b","recentRestarts":0,)"
      R"("state":"quarantined","version":"2.0.0"}],"sessionId":"s-1","ts":"2026-01-02T03:04:05Z"})";
  EXPECT_EQ(testing::reread<Heartbeat>(every), every);
}

// That each other field is covered is proved by signing, in the tool's tests.
TEST(CCCommandTest, SigningPayloadIsTheCanonicalBodyWithoutSig) {
  CCCommand c("c1", "dev1", "service.start", std::nullopt, *parseISO8601("2026-01-02T03:04:05Z"),
              "ops", std::nullopt, "sig");
  EXPECT_EQ(c.signingPayload(),
            R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","issuedBy":"ops",)"
            R"("method":"service.start","target":"dev1"})");
  c.params = decode<JSONValue>(R"({"z":1,"a":{"y":null,"b":"/"}})");
  c.dualControl = DualControl{true, "ana"};
  c.deadline.secondsSinceReferenceDate += 0.999;
  EXPECT_EQ(c.signingPayload(),
            R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"approvedBy":"ana",)"
            R"("required":true},"issuedBy":"ops","method":"service.start","params":{"a":{"b":"\/",)"
            R"("y":null},"z":1},"target":"dev1"})");
}

TEST(CCCommandMethodTest, LookUpsAreExactAndUninstallIsTheServicesOwn) {
  using namespace CCCommandMethod;
  EXPECT_EQ(spec("platform.enable"),
            Spec("platform.enable", Direction::ccToDevice, Dispatch::platform));
  for (const char* missing : {"service.nothing", "Service.Start", " service.start"})
    EXPECT_FALSE(spec(missing).has_value()) << missing;
  EXPECT_EQ(platformDispatchedNames().count("service.uninstall"), 0u);
}

// A message of each kind as it travels | its kind. Each writes back as it
// reads: "type" and "data", nothing else.
TEST(WireMessageTest, EveryKindRoundTripsUnderItsText) {
  for (const testing::Row& row : testing::rows(R"(
{"type":"heartbeat","data":{"deviceId":"d","primary":true,"platformVersion":"1","ts":"2026-01-02T03:04:05Z","services":[],"configEpochs":{}}} | heartbeat
{"type":"event","data":{"eventId":"e1","deviceId":"d","ts":"2026-01-02T03:04:05Z","type":"service.crashed","payload":3}} | event
{"type":"ack","data":{"cmdId":"c1","status":"nacked"}} | ack
{"type":"command","data":{"cmdId":"c1","target":"d","method":"health.ping","deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","sig":"s"}} | command
{"type":"event-ack","data":{"eventId":"e1"}} | event-ack
{"type":"audit-anchor","data":{"deviceId":"d","sequence":9,"head":"ff","ts":"2026-01-02T03:04:05Z"}} | audit-anchor
)")) {
    SCOPED_TRACE(row.line);
    const WireMessage message = WireMessage::decode(row[0]);
    EXPECT_EQ(enumName(message.kind()), row[1]);
    EXPECT_EQ(testing::json(message.encodedString()), testing::json(row[0]));
  }
}

// text | how its error starts (type is read before data); other keys are ignored
TEST(WireMessageTest, DecodingFailuresNameKindAndPath) {
  for (const testing::Row& row : testing::rows(R"(
heartbeat | dataCorrupted en <raíz>:
[] | typeMismatch en <raíz>:
{"type":"heartbeat"} | keyNotFound en <raíz>:
{"type":"nope"} | dataCorrupted en type:
{"type":7,"data":{}} | typeMismatch en type:
{"type":"ack","data":null} | valueNotFound en data:
{"type":"event-ack","data":{}} | keyNotFound en data:
{"type":"ack","data":{"cmdId":"c","status":"acked"},"x":1} | no error
)")) {
    const std::string text = testing::thrownText([&] { WireMessage::decode(row[0]); });
    EXPECT_TRUE(text.starts_with(row[1])) << text;
  }
}

}  // namespace
}  // namespace tarskel
