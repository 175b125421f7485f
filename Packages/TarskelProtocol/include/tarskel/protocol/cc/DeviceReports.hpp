#pragma once

// What a device tells the control centre of its own accord: a periodic
// Heartbeat, single CCEvents (held in CCLinkStore's outbox until confirmed),
// and the head of its audit chain.
//
// Plain values whose JSON keys equal their field names. Optional fields are
// left out when absent, and a missing key or a null reads as absent; every
// other key is required. Unknown keys are ignored. Dates are written to the
// whole second, so a fraction does not survive a round trip.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/json/JSONCoding.hpp"
#include "tarskel/protocol/manifest/ServiceState.hpp"

namespace tarskel {

struct ServiceStatusReport {
  std::string id;
  std::string version;
  ServiceState state = ServiceState::discovered;
  std::int64_t recentRestarts = 0;
  std::optional<double> cpuPercent;  // 0 is kept; only absence drops the key
  std::optional<double> memoryMB;

  void encode(KeyedEncoder& e) const;
  static ServiceStatusReport decode(const KeyedDecoder& d);
  friend bool operator==(const ServiceStatusReport&, const ServiceStatusReport&) = default;
};

// `{}` is a valid value: metrics may be present and empty.
struct DeviceMetrics {
  std::optional<std::int64_t> uptimeSeconds;

  void encode(KeyedEncoder& e) const;
  static DeviceMetrics decode(const KeyedDecoder& d);
  friend bool operator==(const DeviceMetrics&, const DeviceMetrics&) = default;
};

struct Heartbeat {
  std::string deviceId;
  std::optional<std::string> sessionId;
  bool primary = false;
  std::string platformVersion;
  Date ts;
  std::vector<ServiceStatusReport> services;         // written even when empty
  std::map<std::string, std::int64_t> configEpochs;  // written even when empty
  std::optional<DeviceMetrics> metrics;

  void encode(KeyedEncoder& e) const;
  static Heartbeat decode(const KeyedDecoder& d);
  friend bool operator==(const Heartbeat&, const Heartbeat&) = default;
};

// Names of event types. The field that holds them stays open text.
namespace CCEventType {
inline constexpr std::string_view serviceCrashed = "service.crashed";
inline constexpr std::string_view serviceFailed = "service.failed";
inline constexpr std::string_view updateRolledBack = "update.rolledback";
inline constexpr std::string_view updateApplied = "update.applied";
inline constexpr std::string_view configNacked = "config.nacked";
inline constexpr std::string_view quarantined = "service.quarantined";
inline constexpr std::string_view integrityViolation = "integrity.violation";
}  // namespace CCEventType

struct CCEvent {
  std::string eventId;  // the outbox's key; its uniqueness is the sender's business
  std::string deviceId;
  Date ts;
  std::string type;  // normally a CCEventType, but any text passes
  std::optional<JSONValue> payload;

  void encode(KeyedEncoder& e) const;
  static CCEvent decode(const KeyedDecoder& d);
  friend bool operator==(const CCEvent&, const CCEvent&) = default;
};

// The head of the device's audit chain at `ts`.
struct AuditAnchorReport {
  std::string deviceId;
  std::int64_t sequence = 0;  // the head row's seq
  std::string head;           // the hash at that row
  Date ts;

  void encode(KeyedEncoder& e) const;
  static AuditAnchorReport decode(const KeyedDecoder& d);
  friend bool operator==(const AuditAnchorReport&, const AuditAnchorReport&) = default;
};

}  // namespace tarskel
