#include "tarskel/protocol/cc/CCCommandMethod.hpp"

namespace tarskel::CCCommandMethod {
namespace {

using Names = std::set<std::string, std::less<>>;

template <class Keep>
Names namesWhere(Keep keep) {
  Names out;
  for (const Spec& s : all()) {
    if (keep(s)) out.insert(s.name);
  }
  return out;
}

}  // namespace

Spec::Spec(std::string nameIn, Direction directionIn, Dispatch dispatchIn,
           std::optional<std::string> capabilityIn)
    : name(std::move(nameIn)),
      direction(directionIn),
      dispatch(dispatchIn),
      capability(std::move(capabilityIn)) {}

const std::vector<Spec>& all() {
  static const std::vector<Spec> table = [] {
    constexpr auto to = Direction::ccToDevice;
    constexpr auto platform = Dispatch::platform;
    constexpr auto service = Dispatch::service;
    // Restart and uninstall go to the service itself; its start, stop,
    // install, update and quarantine are the platform's.
    return std::vector<Spec>{
        {std::string(serviceStart), to, platform},
        {std::string(serviceStop), to, platform},
        {std::string(serviceInstall), to, platform},
        {std::string(serviceUpdate), to, platform},
        {std::string(serviceQuarantine), to, platform},
        {std::string(configSet), to, platform},
        {std::string(flagsSet), to, platform},
        {std::string(toolCall), to, platform},
        {std::string(platformUpdate), to, platform},
        {std::string(platformDisable), to, platform},
        {std::string(platformEnable), to, platform},
        {std::string(serviceRestart), to, service},
        {std::string(serviceUninstall), to, service},
        {std::string(healthPing), to, service},
    };
  }();
  return table;
}

const Names& ccToDeviceNames() {
  static const Names names =
      namesWhere([](const Spec& s) { return s.direction == Direction::ccToDevice; });
  return names;
}

const Names& platformDispatchedNames() {
  static const Names names = namesWhere([](const Spec& s) {
    return s.direction == Direction::ccToDevice && s.dispatch == Dispatch::platform;
  });
  return names;
}

std::optional<Spec> spec(std::string_view name) {
  for (const Spec& s : all()) {
    if (s.name == name) return s;
  }
  return std::nullopt;
}

}  // namespace tarskel::CCCommandMethod
