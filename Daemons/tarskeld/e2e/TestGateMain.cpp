// tarskeld for the end-to-end tests, with a scripted code-signing platform
// behind the peer gate: Linux has no code signature, so only a script can
// make a sender trusted, or fail it at a chosen step. Built with the tests
// only; the shipped executable has no such seam.
//
// TARSKEL_TEST_GATE holds comma-separated settings, each optional:
//   sender=<status>    the sender's running code can't be had, with <status>
//   static=<status>    its static code can't be had
//   validity=<status>  the signature check answers <status>
//   team=<id>|none     the team in the signing information, or none
// or, alone, trust=<path>: the real Linux platform judges each sender by its
// executable, and only <path> passes, as team TEAMID0001.
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"
#include "tarskel/codesign/testing/FakeCodeSignPlatform.hpp"
#include "tarskel/daemon/Tarskeld.hpp"

namespace {

using namespace tarskel;

// The system's platform, with one executable taken as validly signed.
class TrustOneExecutable final : public CodeSignPlatform {
 public:
  explicit TrustOneExecutable(std::string path) : trusted_(std::move(path)) {}
  CodeResult staticCodeForPath(const std::string& p) const override {
    return linux_.staticCodeForPath(p);
  }
  CodeResult guestCodeForPid(std::int32_t pid) const override {
    return linux_.guestCodeForPid(pid);
  }
  std::optional<CodeResult> guestCodeInProcDirectory(int dir, std::int32_t pid) const override {
    return linux_.guestCodeInProcDirectory(dir, pid);
  }
  CodeResult staticCodeOf(const CodeObject& c) const override { return linux_.staticCodeOf(c); }
  CodeRef compileRequirement(std::string_view t) const override {
    return linux_.compileRequirement(t);
  }
  OSStatus checkValidity(const CodeObject& c, std::uint32_t, const CodeObject*) const override {
    return LinuxCodeSignPlatform::executablePath(c) == trusted_ ? 0
                                                                : CodeSignStatus::errSecCSUnsigned;
  }
  SigningInformation copySigningInformation(const CodeObject&, std::uint32_t) const override {
    return {0, SigningInformation::Result::dictionary, SigningInformation::Team::string,
            "TEAMID0001"};
  }

 private:
  LinuxCodeSignPlatform linux_;
  std::string trusted_;
};

std::shared_ptr<tarskel::FakeCodeSignPlatform> scriptedPlatform(const char* script) {
  auto fake = std::make_shared<tarskel::FakeCodeSignPlatform>();
  std::istringstream settings(script == nullptr ? "" : script);
  for (std::string setting; std::getline(settings, setting, ',');) {
    std::size_t equals = setting.find('=');
    if (equals == std::string::npos) continue;
    std::string key = setting.substr(0, equals);
    std::string value = setting.substr(equals + 1);
    if (key == "team") {
      if (value == "none") {
        fake->signingInformation.team = tarskel::SigningInformation::Team::absent;
      } else {
        fake->signingInformation.teamIdentifier = value;
      }
      continue;
    }
    auto status = static_cast<tarskel::OSStatus>(std::stol(value));
    if (key == "sender") fake->guestCodeForPidAnswer = {status, false};
    if (key == "static") fake->staticCodeOfAnswer = {status, false};
    if (key == "validity") fake->validityStatus = status;
  }
  return fake;
}

}  // namespace

int main(int argc, char** argv) {
  const char* script = std::getenv("TARSKEL_TEST_GATE");
  if (script != nullptr && std::string_view(script).rfind("trust=", 0) == 0) {
    return tarskel::Tarskeld::main(argc, argv, std::make_shared<TrustOneExecutable>(script + 6));
  }
  return tarskel::Tarskeld::main(argc, argv, scriptedPlatform(std::getenv("TARSKEL_TEST_GATE")));
}
