#pragma once

// The hello that opens a session on the bus, under the method
// "service.hello": the joining process names itself, states the protocol
// version it speaks and asks for optional capabilities; the answer says
// whether it was accepted and which capabilities hold for the session.
//
//   HelloRequest  :=
//   {"clientId":TEXT,"protocolVersion":TEXT,"capabilities":[TEXT...][,"sessionId":TEXT]}
//   HelloResponse := {"accepted":BOOL,"protocolVersion":TEXT,"capabilities":[TEXT...]
//                     [,"sessionId":TEXT][,"reason":TEXT]}
//
// `capabilities` is always written; a missing or null one reads as empty.
// Capability lists are open: unknown names travel like any other. The records
// check nothing; the rule of compatibility is ProtocolCompatibility's.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/json/JSONCoding.hpp"
#include "tarskel/protocol/semver/SemVer.hpp"

namespace tarskel {

namespace CapabilityName {
inline constexpr std::string_view events = "events";
inline constexpr std::string_view store = "store";
inline constexpr std::string_view largePayloads = "large-payloads";
inline constexpr std::string_view traces = "traces";
inline constexpr std::string_view uiPush = "ui-push";
}  // namespace CapabilityName

struct HelloRequest {
  std::string clientId;
  std::string protocolVersion;
  std::vector<std::string> capabilities;
  std::optional<std::string> sessionId;

  void encode(KeyedEncoder& e) const;
  static HelloRequest decode(const KeyedDecoder& d);
  friend bool operator==(const HelloRequest&, const HelloRequest&) = default;
};

struct HelloResponse {
  bool accepted = false;
  std::string protocolVersion;
  std::vector<std::string> capabilities;
  std::optional<std::string> sessionId;
  std::optional<std::string> reason;  // why a hello was refused

  void encode(KeyedEncoder& e) const;
  static HelloResponse decode(const KeyedDecoder& d);
  friend bool operator==(const HelloResponse&, const HelloResponse&) = default;
};

namespace ProtocolCompatibility {
// True exactly when the majors are equal: minor, patch and prerelease don't
// count, 0.x has no rule of its own, and the relation is symmetric.
inline bool isCompatible(const SemVer& client, const SemVer& platform) {
  return client.major == platform.major;
}
}  // namespace ProtocolCompatibility

}  // namespace tarskel
