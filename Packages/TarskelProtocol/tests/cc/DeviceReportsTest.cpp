#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tarskel/protocol/cc/DeviceReports.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

// type | text | canonical re-encoding, or the error
TEST(DeviceReportsTest, PresenceRules) {
  for (const testing::Row& row : testing::rows(R"(
Heartbeat | {"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z","primary":true,"services":[],"configEpochs":{}} | {"configEpochs":{},"deviceId":"d","platformVersion":"1","primary":true,"services":[],"ts":"2026-01-02T03:04:05Z"}
Heartbeat | {"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z","primary":true,"services":[],"configEpochs":{},"sessionId":null,"metrics":null} | {"configEpochs":{},"deviceId":"d","platformVersion":"1","primary":true,"services":[],"ts":"2026-01-02T03:04:05Z"}
Heartbeat | {"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z","primary":true,"services":[],"configEpochs":{},"metrics":{}} | {"configEpochs":{},"deviceId":"d","metrics":{},"platformVersion":"1","primary":true,"services":[],"ts":"2026-01-02T03:04:05Z"}
Heartbeat | {"deviceId":"d","platformVersion":"1","ts":"2026-01-02T03:04:05Z","primary":true,"configEpochs":{}} | keyNotFound en <raíz>: falta la clave "services"
ServiceStatusReport | {"id":"a","version":"1","state":"running","recentRestarts":2,"cpuPercent":0} | {"cpuPercent":0,"id":"a","recentRestarts":2,"state":"running","version":"1"}
ServiceStatusReport | {"id":"a","version":"1","state":"Running","recentRestarts":2} | dataCorrupted en state: valor desconocido: "Running"
CCEvent | {"eventId":"e","deviceId":"d","ts":"2026-01-02T03:04:05Z","type":"x.custom","payload":[1]} | {"deviceId":"d","eventId":"e","payload":[1],"ts":"2026-01-02T03:04:05Z","type":"x.custom"}
AuditAnchorReport | {"deviceId":"d","sequence":4,"ts":"2026-01-02T03:04:05Z"} | keyNotFound en <raíz>: falta la clave "head"
)")) {
    SCOPED_TRACE(row.line);
    const std::string& type = row[0];
    EXPECT_EQ(type == "Heartbeat"             ? testing::reread<Heartbeat>(row[1])
              : type == "ServiceStatusReport" ? testing::reread<ServiceStatusReport>(row[1])
              : type == "CCEvent"             ? testing::reread<CCEvent>(row[1])
                                              : testing::reread<AuditAnchorReport>(row[1]),
              row[2]);
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

}  // namespace
}  // namespace tarskel
