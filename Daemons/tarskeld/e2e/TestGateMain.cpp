// tarskeld for the end-to-end tests, with a code-signing platform that
// trusts one executable behind the peer gate: Linux has no code signature,
// so only this seam can make a sender trusted. Built with the tests only;
// the shipped executable has no such seam.
//
// TARSKEL_TEST_GATE=trust=<path>: the real Linux platform judges each sender
// by its executable, and only <path> passes, as team TEAMID0001.
#include <cstdlib>
#include <memory>
#include <string>

#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"
#include "tarskel/daemon/Tarskeld.hpp"

namespace {

using namespace tarskel;

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

}  // namespace

int main(int argc, char** argv) {
  const char* script = std::getenv("TARSKEL_TEST_GATE");
  const std::string trusted =
      script != nullptr && std::string_view(script).starts_with("trust=") ? script + 6 : "";
  return tarskel::Tarskeld::main(argc, argv, std::make_shared<TrustOneExecutable>(trusted));
}
