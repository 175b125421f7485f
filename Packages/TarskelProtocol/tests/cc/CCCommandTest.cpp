#include <gtest/gtest.h>

#include <string>

#include "tarskel/protocol/cc/CCCommand.hpp"
#include "tarskel/protocol/cc/CCCommandMethod.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/JSONTesting.hpp"

namespace tarskel {
namespace {

using testing::decode;

template <class T>
bool decodes(const std::string& json) {
  return testing::decodingError<T>(json) == "decoded";
}

CCCommand plainCommand() {
  return CCCommand("c1", "dev1", "service.start", std::nullopt,
                   *parseISO8601("2026-01-02T03:04:05Z"), "ops", std::nullopt, "sig");
}

// That each other field is covered is proved by signing, in the tool's tests.
TEST(CCCommandTest, SigningPayloadIsTheCanonicalBodyWithoutSig) {
  CCCommand c = plainCommand();
  EXPECT_EQ(c.signingPayload(),
            R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","issuedBy":"ops",)"
            R"("method":"service.start","target":"dev1"})");
  const std::string plain = c.signingPayload();
  c.sig = "other";
  EXPECT_EQ(c.signingPayload(), plain);
  c.params = decode<JSONValue>(R"({"z":1,"a":{"y":null,"b":"/"}})");
  c.dualControl = DualControl{true, "ana"};
  c.deadline.secondsSinceReferenceDate += 0.999;
  EXPECT_EQ(c.signingPayload(),
            R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"approvedBy":"ana",)"
            R"("required":true},"issuedBy":"ops","method":"service.start","params":{"a":{"b":"\/",)"
            R"("y":null},"z":1},"target":"dev1"})");
}

TEST(CCCommandTest, RecordsRoundTripAndFollowPresenceRules) {
  CCCommand command = plainCommand();
  command.params = JSONValue::Object{{"id", "net.example.a"}};
  command.dualControl = DualControl{false, std::nullopt};
  EXPECT_EQ(decode<CCCommand>(TarskelJSON::encoder().encode(command)), command);
  const std::string wire =
      R"({"cmdId":"c1","target":"dev1","method":"service.start","params":null,"x":1,)"
      R"("deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","sig":"sig"})";
  EXPECT_EQ(decode<CCCommand>(wire), plainCommand()) << "null reads as absent; unknown keys go";
  EXPECT_FALSE(decodes<CCCommand>(R"({"cmdId":"c1","target":"d","method":"m",)"
                                  R"("deadline":"2026-01-02T03:04:05Z","issuedBy":"o"})"));

  const CCAck ack("c3", CCAck::Status::nacked, JSONValue(1),
                  JSONRPCError(RPCErrorCode::timeout, "sin respuesta"), INT64_MIN);
  EXPECT_EQ(decode<CCAck>(TarskelJSON::encoder().encode(ack)), ack);
  EXPECT_TRUE(decodes<CCAck>(R"({"cmdId":"c","status":"nacked"})"));
  EXPECT_FALSE(decodes<CCAck>(R"({"cmdId":"c","status":"ok"})"));
  EXPECT_FALSE(decodes<CCAck>(R"({"cmdId":"c","status":"acked","configEpoch":1.5})"));
  EXPECT_TRUE(decodes<DualControl>(R"({"required":true})"));
  EXPECT_FALSE(decodes<DualControl>(R"({"approvedBy":"x"})"));
}

TEST(CCCommandMethodTest, LookUpsAreExactAndUninstallIsTheServicesOwn) {
  using namespace CCCommandMethod;
  EXPECT_EQ(spec("platform.enable"),
            Spec("platform.enable", Direction::ccToDevice, Dispatch::platform));
  for (const char* missing : {"service.nothing", "Service.Start", " service.start"}) {
    EXPECT_FALSE(spec(missing).has_value()) << missing;
  }
  EXPECT_EQ(platformDispatchedNames().count("service.uninstall"), 0u);
}

}  // namespace
}  // namespace tarskel
