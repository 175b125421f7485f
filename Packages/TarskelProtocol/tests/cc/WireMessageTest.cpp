#include <gtest/gtest.h>

#include <string>

#include "tarskel/protocol/cc/WireMessage.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/Errors.hpp"
#include "tarskel/testing/Table.hpp"

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

// text | how its error starts (type is read before data)
TEST(WireMessageTest, DecodingFailuresNameKindAndPath) {
  for (const testing::Row& row : testing::rows(R"(
heartbeat | dataCorrupted en <raíz>:
[] | typeMismatch en <raíz>:
{"type":"heartbeat"} | keyNotFound en <raíz>:
{"type":"nope"} | dataCorrupted en type:
{"type":7,"data":{}} | typeMismatch en type:
{"type":"ack","data":null} | valueNotFound en data:
{"type":"event-ack","data":{}} | keyNotFound en data:
)")) {
    const std::string text = testing::thrownText([&] { WireMessage::decode(row[0]); });
    EXPECT_TRUE(text.starts_with(row[1])) << text;
  }
}

TEST(WireMessageTest, ExtraKeysAreIgnoredAndFractionsOfASecondLost) {
  EXPECT_EQ(WireMessage::decode(R"({"type":"ack","data":{"cmdId":"c","status":"acked"},"x":1})"),
            WireMessage{CCAck("c", CCAck::Status::acked)});
  const Date late{kTs.secondsSinceReferenceDate + 0.25};
  const WireMessage beat{Heartbeat{"d", std::nullopt, true, "1", late, {}, {}, std::nullopt}};
  const WireMessage back = WireMessage::decode(beat.encodedString());
  EXPECT_NE(back, beat);
  EXPECT_EQ(back.get<Heartbeat>()->ts, kTs);
}

}  // namespace
}  // namespace tarskel
