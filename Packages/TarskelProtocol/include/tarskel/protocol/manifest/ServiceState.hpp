#pragma once

// Where a service stands in its life, as a device reports it. A plain closed
// vocabulary: no transition is implied by the order of the cases.

#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "tarskel/protocol/json/JSONCoding.hpp"

namespace tarskel {

enum class ServiceState {
  discovered,
  resolved,
  configured,
  starting,
  running,
  degraded,
  blocked,
  failed,
  stopping,
  stopped,
  quarantined,
};

template <>
struct JSONEnum<ServiceState> {
  static constexpr std::array<std::pair<ServiceState, std::string_view>, 11> cases{{
      {ServiceState::discovered, "discovered"},
      {ServiceState::resolved, "resolved"},
      {ServiceState::configured, "configured"},
      {ServiceState::starting, "starting"},
      {ServiceState::running, "running"},
      {ServiceState::degraded, "degraded"},
      {ServiceState::blocked, "blocked"},
      {ServiceState::failed, "failed"},
      {ServiceState::stopping, "stopping"},
      {ServiceState::stopped, "stopped"},
      {ServiceState::quarantined, "quarantined"},
  }};
};

// Every case, in the order of the declaration.
inline constexpr std::array<ServiceState, 11> allServiceStates() {
  std::array<ServiceState, 11> out{};
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = JSONEnum<ServiceState>::cases[i].first;
  return out;
}

// The case's string.
inline std::string_view rawValue(ServiceState s) { return enumName(s); }

// The case spelled exactly `text` (case-sensitive, no trimming), or nothing.
inline std::optional<ServiceState> serviceStateFromRawValue(std::string_view text) {
  return enumFromName<ServiceState>(text);
}

}  // namespace tarskel
