#include "tarskel/protocol/cc/DeviceReports.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

// The canonical re-encoding of `json` read as a T, or nothing when it fails.
template <class T>
std::optional<std::string> reencoded(const std::string& json) {
  try {
    return TarskelJSON::canonicalEncoder().encode(TarskelJSON::decoder().decode<T>(json));
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

constexpr const char* kTs = R"("ts":"2026-01-02T03:04:05Z")";

std::string heartbeat(const std::string& members) {
  return R"({"deviceId":"d","platformVersion":"1.0",)" + std::string(kTs) + members + "}";
}

TEST(DeviceReportsTest, PresenceRules) {
  const std::string service = R"({"id":"net.a","version":"1.0.0","state":"running","recentRestarts":2)";
  const struct {
    const char* name;
    std::function<std::optional<std::string>()> read;
    std::optional<std::string> canonical;  // nothing: decoding fails
  } cases[] = {
      {"heartbeat with nothing optional",
       [] { return reencoded<Heartbeat>(heartbeat(R"(,"primary":false,"services":[],"configEpochs":{})")); },
       R"({"configEpochs":{},"deviceId":"d","platformVersion":"1.0","primary":false,"services":[],)"
       R"("ts":"2026-01-02T03:04:05Z"})"},
      {"heartbeat with null session and metrics",
       [] {
         return reencoded<Heartbeat>(heartbeat(
             R"(,"primary":true,"services":[],"configEpochs":{"b":-1,"a":9007199254740993},"sessionId":null,"metrics":null)"));
       },
       R"({"configEpochs":{"a":9007199254740993,"b":-1},"deviceId":"d","platformVersion":"1.0",)"
       R"("primary":true,"services":[],"ts":"2026-01-02T03:04:05Z"})"},
      {"heartbeat with empty metrics",
       [] { return reencoded<Heartbeat>(heartbeat(R"(,"primary":true,"services":[],"configEpochs":{},"metrics":{})")); },
       R"({"configEpochs":{},"deviceId":"d","metrics":{},"platformVersion":"1.0","primary":true,"services":[],)"
       R"("ts":"2026-01-02T03:04:05Z"})"},
      {"heartbeat without services",
       [] { return reencoded<Heartbeat>(heartbeat(R"(,"primary":true,"configEpochs":{})")); }, std::nullopt},
      {"heartbeat with services null",
       [] { return reencoded<Heartbeat>(heartbeat(R"(,"primary":true,"services":null,"configEpochs":{})")); },
       std::nullopt},
      {"heartbeat without primary",
       [] { return reencoded<Heartbeat>(heartbeat(R"(,"services":[],"configEpochs":{})")); }, std::nullopt},
      {"heartbeat without epochs",
       [] { return reencoded<Heartbeat>(heartbeat(R"(,"primary":true,"services":[])")); }, std::nullopt},
      {"heartbeat with a fractional epoch",
       [] { return reencoded<Heartbeat>(heartbeat(R"(,"primary":true,"services":[],"configEpochs":{"a":1.5})")); },
       std::nullopt},
      {"heartbeat with fractional seconds",
       [] {
         return reencoded<Heartbeat>(
             R"({"deviceId":"d","platformVersion":"1.0","ts":"2026-01-02T03:04:05.250Z","primary":true,"services":[],"configEpochs":{}})");
       },
       std::nullopt},
      {"heartbeat with a service in an unknown state",
       [&] {
         return reencoded<Heartbeat>(heartbeat(R"(,"primary":true,"configEpochs":{},"services":[)" +
                                               std::string(R"({"id":"a","version":"1","state":"Running","recentRestarts":0}])")));
       },
       std::nullopt},
      {"service with cpu 0 keeps the key",
       [&] { return reencoded<ServiceStatusReport>(service + R"(,"cpuPercent":0,"memoryMB":null})"); },
       R"({"cpuPercent":0,"id":"net.a","recentRestarts":2,"state":"running","version":"1.0.0"})"},
      {"service with memory only",
       [&] { return reencoded<ServiceStatusReport>(service + R"(,"memoryMB":12.5})"); },
       R"({"id":"net.a","memoryMB":12.5,"recentRestarts":2,"state":"running","version":"1.0.0"})"},
      {"service without restarts",
       [] { return reencoded<ServiceStatusReport>(R"({"id":"a","version":"1","state":"running"})"); }, std::nullopt},
      {"metrics with uptime", [] { return reencoded<DeviceMetrics>(R"({"uptimeSeconds":86400,"load":3})"); },
       R"({"uptimeSeconds":86400})"},
      {"metrics with fractional uptime", [] { return reencoded<DeviceMetrics>(R"({"uptimeSeconds":0.5})"); },
       std::nullopt},
      {"event of a type outside the vocabulary",
       [] {
         return reencoded<CCEvent>(R"({"eventId":"e1","deviceId":"d","ts":"2026-01-02T03:04:05Z","type":"x.custom","payload":{"b":[1],"a":"z"}})");
       },
       R"({"deviceId":"d","eventId":"e1","payload":{"a":"z","b":[1]},"ts":"2026-01-02T03:04:05Z","type":"x.custom"})"},
      {"event without payload",
       [] { return reencoded<CCEvent>(R"({"eventId":"e1","deviceId":"d","ts":"2026-01-02T03:04:05Z","type":"service.crashed"})"); },
       R"({"deviceId":"d","eventId":"e1","ts":"2026-01-02T03:04:05Z","type":"service.crashed"})"},
      {"event without type",
       [] { return reencoded<CCEvent>(R"({"eventId":"e1","deviceId":"d","ts":"2026-01-02T03:04:05Z"})"); }, std::nullopt},
      {"event with a numeric ts",
       [] { return reencoded<CCEvent>(R"({"eventId":"e1","deviceId":"d","ts":784926483,"type":"t"})"); }, std::nullopt},
      {"anchor complete",
       [] { return reencoded<AuditAnchorReport>(R"({"deviceId":"d","sequence":42,"head":"ab","ts":"2026-01-02T03:04:05Z"})"); },
       R"({"deviceId":"d","head":"ab","sequence":42,"ts":"2026-01-02T03:04:05Z"})"},
      {"anchor without head",
       [] { return reencoded<AuditAnchorReport>(R"({"deviceId":"d","sequence":42,"ts":"2026-01-02T03:04:05Z"})"); },
       std::nullopt},
      {"anchor with sequence as text",
       [] { return reencoded<AuditAnchorReport>(R"({"deviceId":"d","sequence":"42","head":"ab","ts":"2026-01-02T03:04:05Z"})"); },
       std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.read(), c.canonical);
  }
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
