#include "tarskel/protocol/cc/CCCommand.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tarskel/protocol/cc/CCCommandMethod.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

Date at(const char* text) { return *parseISO8601(text); }

CCCommand plainCommand() {
  return CCCommand("c1", "dev1", "service.start", std::nullopt, at("2026-01-02T03:04:05Z"), "ops",
                   std::nullopt, "sig");
}

template <class T>
T decode(const std::string& json) {
  return TarskelJSON::decoder().decode<T>(json);
}

TEST(CCCommandTest, SigningPayloadIsTheCanonicalBodyWithoutSig) {
  const struct {
    const char* name;
    std::function<void(CCCommand&)> change;
    std::string payload;
  } cases[] = {
      {"no params, no dual control", [](CCCommand&) {},
       R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","method":"service.start","target":"dev1"})"},
      {"params sorted at every depth",
       [](CCCommand& c) { c.params = decode<JSONValue>(R"({"z":1,"a":{"y":[true,null],"b":"\/"}})"); },
       R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","method":"service.start",)"
       R"("params":{"a":{"b":"\/","y":[true,null]},"z":1},"target":"dev1"})"},
      {"dual control with approver",
       [](CCCommand& c) { c.dualControl = DualControl{true, "ana"}; },
       R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"approvedBy":"ana","required":true},)"
       R"("issuedBy":"ops","method":"service.start","target":"dev1"})"},
      {"dual control without approver", [](CCCommand& c) { c.dualControl = DualControl{false, std::nullopt}; },
       R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"required":false},)"
       R"("issuedBy":"ops","method":"service.start","target":"dev1"})"},
      {"deadline fraction dropped", [](CCCommand& c) { c.deadline.secondsSinceReferenceDate += 0.999; },
       R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","method":"service.start","target":"dev1"})"},
      {"params null is written as a JSON null", [](CCCommand& c) { c.params = JSONValue(nullptr); },
       R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","method":"service.start",)"
       R"("params":null,"target":"dev1"})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CCCommand command = plainCommand();
    c.change(command);
    EXPECT_EQ(command.signingPayload(), c.payload);
  }
}

TEST(CCCommandTest, EveryFieldButSigIsCovered) {
  const std::string original = plainCommand().signingPayload();
  const struct {
    const char* name;
    std::function<void(CCCommand&)> change;
    bool changesPayload;
  } cases[] = {
      {"sig", [](CCCommand& c) { c.sig = "other"; }, false},
      {"deadline within the second", [](CCCommand& c) { c.deadline.secondsSinceReferenceDate += 0.5; }, false},
      {"cmdId", [](CCCommand& c) { c.cmdId = "c2"; }, true},
      {"target", [](CCCommand& c) { c.target = "dev2"; }, true},
      {"method", [](CCCommand& c) { c.method = "service.stop"; }, true},
      {"params", [](CCCommand& c) { c.params = JSONValue::Object{}; }, true},
      {"deadline next second", [](CCCommand& c) { c.deadline.secondsSinceReferenceDate += 1; }, true},
      {"issuedBy", [](CCCommand& c) { c.issuedBy = "ops2"; }, true},
      {"dualControl", [](CCCommand& c) { c.dualControl = DualControl{}; }, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CCCommand command = plainCommand();
    c.change(command);
    EXPECT_EQ(command.signingPayload() != original, c.changesPayload);
  }
}

TEST(CCCommandTest, EncodesEightKeysAndDropsUnknownOnes) {
  CCCommand command = plainCommand();
  command.params = decode<JSONValue>(R"({"id":"net.example.a"})");
  command.dualControl = DualControl{true, std::nullopt};
  const std::string bytes = TarskelJSON::canonicalEncoder().encode(command);
  EXPECT_EQ(bytes,
            R"({"cmdId":"c1","deadline":"2026-01-02T03:04:05Z","dualControl":{"required":true},)"
            R"("issuedBy":"ops","method":"service.start","params":{"id":"net.example.a"},"sig":"sig","target":"dev1"})");
  EXPECT_EQ(decode<CCCommand>(bytes), command);

  const CCCommand read = decode<CCCommand>(
      R"({"cmdId":"c1","target":"dev1","method":"service.start","params":null,)"
      R"("deadline":"2026-01-02T03:04:05Z","issuedBy":"ops","sig":"sig","extra":{"x":1}})");
  EXPECT_EQ(read, plainCommand()) << "a null params reads as absent; unknown keys are dropped";
}

TEST(CCCommandTest, DecodingFollowsPresenceRules) {
  const std::string body = R"("cmdId":"c","target":"t","method":"m","deadline":"2026-01-02T03:04:05Z","issuedBy":"o")";
  const struct {
    const char* name;
    std::function<void()> decodeIt;
    bool accepted;
  } cases[] = {
      {"command complete", [&] { decode<CCCommand>("{" + body + R"(,"sig":"s"})"); }, true},
      {"command without sig", [&] { decode<CCCommand>("{" + body + "}"); }, false},
      {"command with sig null", [&] { decode<CCCommand>("{" + body + R"(,"sig":null})"); }, false},
      {"command with fractional deadline",
       [] {
         decode<CCCommand>(R"({"cmdId":"c","target":"t","method":"m","deadline":"2026-01-02T03:04:05.5Z",)"
                           R"("issuedBy":"o","sig":"s"})");
       },
       false},
      {"signing body ignores sig", [&] { decode<CCCommand::SigningBody>("{" + body + R"(,"sig":7})"); }, true},
      {"dual control required only", [] { decode<DualControl>(R"({"required":true})"); }, true},
      {"dual control approver only", [] { decode<DualControl>(R"({"approvedBy":"x"})"); }, false},
      {"dual control required as text", [] { decode<DualControl>(R"({"required":"true"})"); }, false},
      {"ack nacked without error", [] { decode<CCAck>(R"({"cmdId":"c","status":"nacked"})"); }, true},
      {"ack status ok", [] { decode<CCAck>(R"({"cmdId":"c","status":"ok"})"); }, false},
      {"ack status in capitals", [] { decode<CCAck>(R"({"cmdId":"c","status":"ACKED"})"); }, false},
      {"ack without status", [] { decode<CCAck>(R"({"cmdId":"c"})"); }, false},
      {"ack with fractional epoch", [] { decode<CCAck>(R"({"cmdId":"c","status":"acked","configEpoch":1.5})"); }, false},
      {"ack with error lacking message",
       [] { decode<CCAck>(R"({"cmdId":"c","status":"nacked","error":{"code":-32603}})"); }, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.accepted) {
      EXPECT_NO_THROW(c.decodeIt());
    } else {
      EXPECT_THROW(c.decodeIt(), DecodingError);
    }
  }
}

TEST(CCAckTest, RoundTripsEveryOptionalField) {
  const std::vector<CCAck> acks = {
      CCAck("c1", CCAck::Status::acked),
      CCAck("c2", CCAck::Status::acked, JSONValue("done"), std::nullopt, INT64_MAX),
      CCAck("c3", CCAck::Status::nacked, std::nullopt,
            JSONRPCError(RPCErrorCode::timeout, "sin respuesta", JSONValue::Object{{"after", 30}}), INT64_MIN),
  };
  for (const CCAck& ack : acks) {
    SCOPED_TRACE(ack.cmdId);
    EXPECT_EQ(decode<CCAck>(TarskelJSON::encoder().encode(ack)), ack);
  }
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(acks[0]), R"({"cmdId":"c1","status":"acked"})");
}

TEST(CCCommandMethodTest, CatalogueLookUpsAndCounts) {
  using namespace CCCommandMethod;
  const struct {
    std::string name;
    std::optional<Dispatch> dispatch;  // nothing: not in the catalogue
  } cases[] = {
      {"service.restart", Dispatch::service},
      {"service.uninstall", Dispatch::service},
      {"health.ping", Dispatch::service},
      {"service.start", Dispatch::platform},
      {"platform.enable", Dispatch::platform},
      {"service.nothing", std::nullopt},
      {"Service.Start", std::nullopt},
      {" service.start", std::nullopt},
      {"service.start\n", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::optional<Spec> found = spec(c.name);
    ASSERT_EQ(found.has_value(), c.dispatch.has_value());
    if (!found) continue;
    EXPECT_EQ(found->name, c.name);
    EXPECT_EQ(found->dispatch, *c.dispatch);
    EXPECT_EQ(found->direction, Direction::ccToDevice);
    EXPECT_FALSE(found->capability.has_value());
    EXPECT_EQ(platformDispatchedNames().count(c.name), *c.dispatch == Dispatch::platform ? 1u : 0u);
  }
  ASSERT_EQ(all().size(), 14u);
  EXPECT_EQ(all().front().name, serviceStart);
  EXPECT_EQ(all()[7].name, toolCall);
  EXPECT_EQ(all().back().name, healthPing);
  EXPECT_EQ(ccToDeviceNames().size(), 14u);
  EXPECT_EQ(platformDispatchedNames().size(), 11u);
  EXPECT_EQ(&ccToDeviceNames(), &ccToDeviceNames()) << "computed once";
}

}  // namespace
}  // namespace tarskel
