#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tarskel/protocol/cc/DeviceReports.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

// The canonical re-encoding of `json` read as a T; "" when reading fails.
template <class T>
std::string reencoded(const std::string& json) {
  try {
    return TarskelJSON::canonicalEncoder().encode(TarskelJSON::decoder().decode<T>(json));
  } catch (const DecodingError&) {
    return "";
  }
}

std::string heartbeat(const std::string& members) {
  return R"({"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z")" + members + "}";
}

TEST(DeviceReportsTest, PresenceRules) {
  const std::string head = R"({"configEpochs":{},"deviceId":"d",)";
  const std::string tail =
      R"("platformVersion":"1","primary":true,"services":[],"ts":"2026-01-02T03:04:05Z"})";
  const struct {
    std::string read, expected;
  } cases[] = {
      {reencoded<Heartbeat>(heartbeat(R"(,"primary":true,"services":[],"configEpochs":{})")),
       head + tail},
      {reencoded<Heartbeat>(heartbeat(
           R"(,"primary":true,"services":[],"configEpochs":{},"sessionId":null,"metrics":null)")),
       head + tail},
      {reencoded<Heartbeat>(
           heartbeat(R"(,"primary":true,"services":[],"configEpochs":{},"metrics":{})")),
       head + R"("metrics":{},)" + tail},
      {reencoded<Heartbeat>(heartbeat(R"(,"primary":true,"configEpochs":{})")), ""},
      {reencoded<Heartbeat>(heartbeat(R"(,"services":[],"configEpochs":{})")), ""},
      {reencoded<Heartbeat>(R"({"deviceId":"d","platformVersion":"1","primary":true,)"
                            R"("ts":"2026-01-02T03:04:05.5Z","services":[],"configEpochs":{}})"),
       ""},
      {reencoded<ServiceStatusReport>(
           R"({"id":"a","version":"1","state":"running","recentRestarts":2,"cpuPercent":0})"),
       R"({"cpuPercent":0,"id":"a","recentRestarts":2,"state":"running","version":"1"})"},
      {reencoded<ServiceStatusReport>(
           R"({"id":"a","version":"1","state":"Running","recentRestarts":2})"),
       ""},
      {reencoded<CCEvent>(R"({"eventId":"e","deviceId":"d","ts":"2026-01-02T03:04:05Z",)"
                          R"("type":"x.custom","payload":[1]})"),
       R"({"deviceId":"d","eventId":"e","payload":[1],"ts":"2026-01-02T03:04:05Z","type":"x.custom"})"},
      {reencoded<AuditAnchorReport>(R"({"deviceId":"d","sequence":4,"ts":"2026-01-02T03:04:05Z"})"),
       ""}};
  for (const auto& c : cases) EXPECT_EQ(c.read, c.expected);
}

TEST(DeviceReportsTest, HeartbeatRoundTripsEveryField) {
  Heartbeat h{"dev1",
              "s-1",
              true,
              "2.3.0",
              *parseISO8601("2026-01-02T03:04:05Z"),
              {{"net.a", "1.0.0", ServiceState::degraded, 3, 0.0, 512.25},
               {"net.b", "2.0.0", ServiceState::quarantined, 0, std::nullopt, std::nullopt}},
              {{"flags", 7}, {"config", INT64_MIN}},
              DeviceMetrics{INT64_MAX}};
  EXPECT_EQ(TarskelJSON::decoder().decode<Heartbeat>(TarskelJSON::encoder().encode(h)), h);
}

}  // namespace
}  // namespace tarskel
