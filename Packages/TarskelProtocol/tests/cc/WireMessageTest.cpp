#include "tarskel/protocol/cc/WireMessage.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

Date sampleDate() { return *parseISO8601("2026-01-02T03:04:05Z"); }

TEST(WireMessageTest, EveryKindRoundTripsUnderItsText) {
  Heartbeat beat{"d", std::nullopt, true, "1.0", sampleDate(), {}, {}, std::nullopt};
  const struct {
    WireMessage message;
    WireMessage::Kind kind;
    const char* text;
  } cases[] = {
      {WireMessage{beat}, WireMessage::Kind::heartbeat, "heartbeat"},
      {WireMessage{CCEvent{"e1", "d", sampleDate(), "service.crashed", JSONValue(3)}}, WireMessage::Kind::event,
       "event"},
      {WireMessage{CCAck("c1", CCAck::Status::nacked)}, WireMessage::Kind::ack, "ack"},
      {WireMessage{CCCommand("c1", "d", "health.ping", std::nullopt, sampleDate(), "ops", std::nullopt, "s")},
       WireMessage::Kind::command, "command"},
      {WireMessage::eventAck("e1"), WireMessage::Kind::eventAck, "event-ack"},
      {WireMessage{AuditAnchorReport{"d", 9, "ff", sampleDate()}}, WireMessage::Kind::auditAnchor, "audit-anchor"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.message.kind(), c.kind);
    const std::string text = c.message.encodedString();
    const JSONValue tree = TarskelJSON::decoder().decode<JSONValue>(text);
    ASSERT_NE(tree.objectValue(), nullptr);
    EXPECT_EQ(tree.objectValue()->size(), 2u);
    EXPECT_EQ(*tree["type"], JSONValue(c.text));
    EXPECT_EQ(WireMessage::decode(text), c.message);
  }
}

TEST(WireMessageTest, EventAckDataHoldsOnlyTheId) {
  const JSONValue tree = TarskelJSON::decoder().decode<JSONValue>(WireMessage::eventAck("e1").encodedString());
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(tree), R"({"data":{"eventId":"e1"},"type":"event-ack"})");
  EXPECT_EQ(WireMessage::decode(R"({"data":{"eventId":"e1"},"type":"event-ack"})").get<WireMessage::EventAck>()->eventId,
            "e1");
}

TEST(WireMessageTest, DecodingFailuresNameKindAndPath) {
  using Kind = DecodingError::Kind;
  const struct {
    const char* text;
    Kind kind;
    const char* path;
  } cases[] = {
      {"", Kind::dataCorrupted, ""},
      {"heartbeat", Kind::dataCorrupted, ""},
      {R"({"type":"ack","data":{"cmdId":"c","status":"acked"}} x)", Kind::dataCorrupted, ""},
      {"[]", Kind::typeMismatch, ""},
      {R"({"data":{"eventId":"e1"}})", Kind::keyNotFound, ""},
      {R"({"type":"heartbeat"})", Kind::keyNotFound, ""},
      {R"({"type":"nope"})", Kind::dataCorrupted, "type"},  // type is read before data
      {R"({"type":"event_ack","data":{"eventId":"e1"}})", Kind::dataCorrupted, "type"},
      {R"({"type":"Event","data":{}})", Kind::dataCorrupted, "type"},
      {R"({"type":7,"data":{}})", Kind::typeMismatch, "type"},
      {R"({"type":null,"data":{}})", Kind::valueNotFound, "type"},
      {R"({"type":"ack","data":null})", Kind::valueNotFound, "data"},
      {R"({"type":"ack","data":"c1"})", Kind::typeMismatch, "data"},
      {R"({"type":"event-ack","data":{}})", Kind::keyNotFound, "data"},
      {R"({"type":"ack","data":{"cmdId":"c","status":"ok"}})", Kind::dataCorrupted, "data.status"},
      {R"({"type":"command","data":{"cmdId":"c","target":"t","method":"m","deadline":"2026-01-02T03:04:05Z","issuedBy":"o"}})",
       Kind::keyNotFound, "data"},
      {R"({"type":"heartbeat","data":{"deviceId":"d","primary":true,"platformVersion":"1","ts":"2026-01-02T03:04:05Z","services":[{}],"configEpochs":{}}})",
       Kind::keyNotFound, "data.services[0]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    try {
      WireMessage::decode(c.text);
      ADD_FAILURE() << "decoded";
    } catch (const DecodingError& e) {
      EXPECT_EQ(e.kind(), c.kind) << e.what();
      EXPECT_EQ(e.codingPath(), c.path) << e.what();
    }
  }
}

TEST(WireMessageTest, KeysBesideTypeAndDataAreIgnored) {
  const WireMessage m = WireMessage::decode(R"({"type":"ack","data":{"cmdId":"c","status":"acked"},"extra":1})");
  ASSERT_NE(m.get<CCAck>(), nullptr);
  EXPECT_EQ(*m.get<CCAck>(), CCAck("c", CCAck::Status::acked));
}

TEST(WireMessageTest, FractionOfASecondDoesNotSurviveARoundTrip) {
  Heartbeat beat{"d", std::nullopt, true, "1.0", Date{sampleDate().secondsSinceReferenceDate + 0.25}, {}, {},
                 std::nullopt};
  const WireMessage back = WireMessage::decode(WireMessage{beat}.encodedString());
  EXPECT_NE(back, WireMessage{beat});
  EXPECT_EQ(back.get<Heartbeat>()->ts, sampleDate());
}

}  // namespace
}  // namespace tarskel
