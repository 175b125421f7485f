#pragma once

// The method names of the bus: the value of `method` in a JSON-RPC message.
// Names only: no schema, direction or handler, no list and no lookup. They
// stand as they are, including the two `ui.` names with an inner capital and
// "tool.call" beside "tools.list".

#include <string_view>

namespace tarskel {

namespace BusMethod {
// Life of a service.
inline constexpr std::string_view serviceHello = "service.hello";
inline constexpr std::string_view serviceStop = "service.stop";
inline constexpr std::string_view healthPing = "health.ping";
// A service's configuration.
inline constexpr std::string_view configChanged = "config.changed";
inline constexpr std::string_view configValidate = "config.validate";
inline constexpr std::string_view configPatch = "config.patch";
inline constexpr std::string_view configGet = "config.get";
inline constexpr std::string_view configEffective = "config.effective";
// Tools.
inline constexpr std::string_view toolCall = "tool.call";
inline constexpr std::string_view toolsList = "tools.list";
inline constexpr std::string_view toolsRegister = "tools.register";
inline constexpr std::string_view toolsUnregister = "tools.unregister";
// User interface.
inline constexpr std::string_view trayUpdate = "tray.update";
inline constexpr std::string_view uiStateChanged = "ui.stateChanged";
inline constexpr std::string_view uiTrayChanged = "ui.trayChanged";
// The door to the daemon's privileged operations.
inline constexpr std::string_view privilegedCall = "privileged.call";
// The platform's own status and configuration.
inline constexpr std::string_view platformStatus = "platform.status";
inline constexpr std::string_view platformConfigGet = "platform.config.get";
inline constexpr std::string_view platformConfigEffective = "platform.config.effective";
inline constexpr std::string_view platformConfigValidate = "platform.config.validate";
inline constexpr std::string_view platformConfigPatch = "platform.config.patch";

// The control tool's traffic.
namespace Ctl {
inline constexpr std::string_view status = "ctl.status";
inline constexpr std::string_view list = "ctl.list";
inline constexpr std::string_view start = "ctl.start";
inline constexpr std::string_view stop = "ctl.stop";
inline constexpr std::string_view logs = "ctl.logs";
inline constexpr std::string_view enroll = "ctl.enroll";
inline constexpr std::string_view ccStatus = "ctl.cc.status";
inline constexpr std::string_view diagCollect = "ctl.diag.collect";
inline constexpr std::string_view vendorStatus = "ctl.vendor.status";
inline constexpr std::string_view vendorRotate = "ctl.vendor.rotate";
inline constexpr std::string_view uninstallPrepare = "ctl.uninstall.prepare";
}  // namespace Ctl
}  // namespace BusMethod

}  // namespace tarskel
