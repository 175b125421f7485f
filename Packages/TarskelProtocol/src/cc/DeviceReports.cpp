#include "tarskel/protocol/cc/DeviceReports.hpp"

namespace tarskel {

void ServiceStatusReport::encode(KeyedEncoder& e) const {
  e.required("id", id);
  e.required("version", version);
  e.required("state", state);
  e.required("recentRestarts", recentRestarts);
  e.optional("cpuPercent", cpuPercent);
  e.optional("memoryMB", memoryMB);
}

ServiceStatusReport ServiceStatusReport::decode(const KeyedDecoder& d) {
  ServiceStatusReport r;
  r.id = d.required<std::string>("id");
  r.version = d.required<std::string>("version");
  r.state = d.required<ServiceState>("state");
  r.recentRestarts = d.required<std::int64_t>("recentRestarts");
  r.cpuPercent = d.optional<double>("cpuPercent");
  r.memoryMB = d.optional<double>("memoryMB");
  return r;
}

void DeviceMetrics::encode(KeyedEncoder& e) const { e.optional("uptimeSeconds", uptimeSeconds); }

DeviceMetrics DeviceMetrics::decode(const KeyedDecoder& d) {
  return DeviceMetrics{d.optional<std::int64_t>("uptimeSeconds")};
}

void Heartbeat::encode(KeyedEncoder& e) const {
  e.required("deviceId", deviceId);
  e.optional("sessionId", sessionId);
  e.required("primary", primary);
  e.required("platformVersion", platformVersion);
  e.required("ts", ts);
  e.required("services", services);
  e.required("configEpochs", configEpochs);
  e.optional("metrics", metrics);
}

Heartbeat Heartbeat::decode(const KeyedDecoder& d) {
  Heartbeat h;
  h.deviceId = d.required<std::string>("deviceId");
  h.sessionId = d.optional<std::string>("sessionId");
  h.primary = d.required<bool>("primary");
  h.platformVersion = d.required<std::string>("platformVersion");
  h.ts = d.required<Date>("ts");
  h.services = d.required<std::vector<ServiceStatusReport>>("services");
  h.configEpochs = d.required<std::map<std::string, std::int64_t>>("configEpochs");
  h.metrics = d.optional<DeviceMetrics>("metrics");
  return h;
}

void CCEvent::encode(KeyedEncoder& e) const {
  e.required("eventId", eventId);
  e.required("deviceId", deviceId);
  e.required("ts", ts);
  e.required("type", type);
  e.optional("payload", payload);
}

CCEvent CCEvent::decode(const KeyedDecoder& d) {
  CCEvent ev;
  ev.eventId = d.required<std::string>("eventId");
  ev.deviceId = d.required<std::string>("deviceId");
  ev.ts = d.required<Date>("ts");
  ev.type = d.required<std::string>("type");
  ev.payload = d.optional<JSONValue>("payload");
  return ev;
}

void AuditAnchorReport::encode(KeyedEncoder& e) const {
  e.required("deviceId", deviceId);
  e.required("sequence", sequence);
  e.required("head", head);
  e.required("ts", ts);
}

AuditAnchorReport AuditAnchorReport::decode(const KeyedDecoder& d) {
  return AuditAnchorReport{d.required<std::string>("deviceId"),
                           d.required<std::int64_t>("sequence"), d.required<std::string>("head"),
                           d.required<Date>("ts")};
}

}  // namespace tarskel
