#include "tarskel/daemon/DaemonPeerGate.hpp"

#include "tarskel/codesign/CodeSignVerifier.hpp"

namespace tarskel {

namespace {
// Where the verifier's messages name a path: an XPC client has none.
constexpr std::string_view kClientName = "cliente xpc";
}  // namespace

DaemonPeerVerdict DaemonPeerGate::verdict(const DaemonMessageSender& message) const {
  if (!teamIds) {
    return DaemonPeerVerdict::unverified("gate SO sin provisionar (sin vendor/teams.json)");
  }
  const CodeResult running = platform
                                 ? message.senderCode(*platform)
                                 : CodeResult{CodeSignStatus::errSecCSInvalidObjectRef, nullptr};
  if (running.status != 0 || !running.code) {
    return DaemonPeerVerdict::rejected("sin identidad de código en el mensaje xpc (" +
                                       std::to_string(running.status) + ")");
  }
  const CodeSignPlatform& services = *platform;
  const CodeResult onDisk = services.staticCodeOf(*running.code);
  if (onDisk.status != 0 || !onDisk.code) {
    return DaemonPeerVerdict::rejected("sin static code del cliente xpc (" +
                                       std::to_string(onDisk.status) + ")");
  }
  try {
    // The verifier's failure as a value: a refused sender costs no throw.
    auto judged = CodeSignVerifier::judge(*onDisk.code, kClientName, *teamIds, services);
    if (auto* failure = std::get_if<CodeSignError>(&judged)) {
      return DaemonPeerVerdict::rejected(failure->description());
    }
    return DaemonPeerVerdict::trusted(std::get<std::string>(std::move(judged)));
  } catch (const std::exception& e) {
    // The verifier throws nothing else; a platform that does still must not
    // take the message down with it.
    return DaemonPeerVerdict::rejected(e.what());
  }
}

}  // namespace tarskel
