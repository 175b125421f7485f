#include <gtest/gtest.h>

#include <string>

#include "tarskel/protocol/cc/WireMessage.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

const Date kTs = *parseISO8601("2026-01-02T03:04:05Z");

TEST(WireMessageTest, EveryKindRoundTripsUnderItsText) {
  const struct {
    WireMessage message;
    const char* text;
  } cases[] = {{{Heartbeat{"d", std::nullopt, true, "1", kTs, {}, {}, std::nullopt}}, "heartbeat"},
               {{CCEvent{"e1", "d", kTs, "service.crashed", JSONValue(3)}}, "event"},
               {{CCAck("c1", CCAck::Status::nacked)}, "ack"},
               {{CCCommand("c1", "d", "health.ping", std::nullopt, kTs, "ops", std::nullopt, "s")},
                "command"},
               {WireMessage::eventAck("e1"), "event-ack"},
               {{AuditAnchorReport{"d", 9, "ff", kTs}}, "audit-anchor"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(enumName(c.message.kind()), c.text);
    const std::string text = c.message.encodedString();
    const JSONValue tree = TarskelJSON::decoder().decode<JSONValue>(text);
    EXPECT_EQ(tree.objectValue()->size(), 2u);
    EXPECT_EQ(*tree["type"], JSONValue(c.text));
    EXPECT_EQ(WireMessage::decode(text), c.message);
  }
  EXPECT_EQ(*TarskelJSON::decoder().decode<JSONValue>(
                WireMessage::eventAck("e1").encodedString())["data"],
            JSONValue(JSONValue::Object{{"eventId", "e1"}}));
}

TEST(WireMessageTest, DecodingFailuresNameKindAndPath) {
  using Kind = DecodingError::Kind;
  const struct {
    const char* text;
    Kind kind;
    const char* path;
  } cases[] = {
      {"heartbeat", Kind::dataCorrupted, ""},
      {"[]", Kind::typeMismatch, ""},
      {R"({"data":{"eventId":"e1"}})", Kind::keyNotFound, ""},
      {R"({"type":"heartbeat"})", Kind::keyNotFound, ""},
      {R"({"type":"nope"})", Kind::dataCorrupted, "type"},  // type is read before data
      {R"({"type":"event_ack","data":{"eventId":"e1"}})", Kind::dataCorrupted, "type"},
      {R"({"type":7,"data":{}})", Kind::typeMismatch, "type"},
      {R"({"type":"ack","data":null})", Kind::valueNotFound, "data"},
      {R"({"type":"event-ack","data":{}})", Kind::keyNotFound, "data"},
      {R"({"type":"ack","data":{"cmdId":"c","status":"ok"}})", Kind::dataCorrupted, "data.status"}};
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

TEST(WireMessageTest, ExtraKeysAreIgnoredAndFractionsOfASecondLost) {
  EXPECT_EQ(WireMessage::decode(R"({"type":"ack","data":{"cmdId":"c","status":"acked"},"x":1})"),
            WireMessage{CCAck("c", CCAck::Status::acked)});
  const WireMessage beat{Heartbeat{"d",
                                   std::nullopt,
                                   true,
                                   "1",
                                   Date{kTs.secondsSinceReferenceDate + 0.25},
                                   {},
                                   {},
                                   std::nullopt}};
  const WireMessage back = WireMessage::decode(beat.encodedString());
  EXPECT_NE(back, beat);
  EXPECT_EQ(back.get<Heartbeat>()->ts, kTs);
}

}  // namespace
}  // namespace tarskel
