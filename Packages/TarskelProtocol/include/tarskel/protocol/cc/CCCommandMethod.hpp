#pragma once

// The catalogue of control-centre commands: each method's name, which way it
// travels, and who handles it on the device. A fixed table; every function
// here may be called from any thread.

#include <array>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarskel/protocol/json/JSONCoding.hpp"

namespace tarskel::CCCommandMethod {

inline constexpr std::string_view serviceStart = "service.start";
inline constexpr std::string_view serviceStop = "service.stop";
inline constexpr std::string_view serviceInstall = "service.install";
inline constexpr std::string_view serviceUpdate = "service.update";
inline constexpr std::string_view serviceQuarantine = "service.quarantine";
inline constexpr std::string_view configSet = "config.set";
inline constexpr std::string_view flagsSet = "flags.set";
inline constexpr std::string_view toolCall = "tool.call";
inline constexpr std::string_view platformUpdate = "platform.update";
inline constexpr std::string_view platformDisable = "platform.disable";
inline constexpr std::string_view platformEnable = "platform.enable";
inline constexpr std::string_view serviceRestart = "service.restart";
inline constexpr std::string_view serviceUninstall = "service.uninstall";
inline constexpr std::string_view healthPing = "health.ping";

// No method of the catalogue goes deviceToCC; the case exists for the wire.
enum class Direction { ccToDevice, deviceToCC };

// Who handles the command on the device.
enum class Dispatch { platform, service };

struct Spec {
  std::string name;
  Direction direction = Direction::ccToDevice;
  Dispatch dispatch = Dispatch::platform;
  std::optional<std::string> capability;  // a capability the method asks for

  Spec() = default;
  Spec(std::string name, Direction direction, Dispatch dispatch,
       std::optional<std::string> capability = std::nullopt);

  friend bool operator==(const Spec&, const Spec&) = default;
};

// The fourteen methods, in the catalogue's order.
const std::vector<Spec>& all();

// Names of the ccToDevice rows, and of those among them dispatched to the
// platform; both computed from all() once.
const std::set<std::string, std::less<>>& ccToDeviceNames();
const std::set<std::string, std::less<>>& platformDispatchedNames();

// The first row named exactly `name` (no case-folding, no trimming), or nothing.
std::optional<Spec> spec(std::string_view name);

}  // namespace tarskel::CCCommandMethod

namespace tarskel {

template <>
struct JSONEnum<CCCommandMethod::Direction> {
  static constexpr std::array<std::pair<CCCommandMethod::Direction, std::string_view>, 2> cases{{
      {CCCommandMethod::Direction::ccToDevice, "ccToDevice"},
      {CCCommandMethod::Direction::deviceToCC, "deviceToCC"},
  }};
};

template <>
struct JSONEnum<CCCommandMethod::Dispatch> {
  static constexpr std::array<std::pair<CCCommandMethod::Dispatch, std::string_view>, 2> cases{{
      {CCCommandMethod::Dispatch::platform, "platform"},
      {CCCommandMethod::Dispatch::service, "service"},
  }};
};

}  // namespace tarskel
