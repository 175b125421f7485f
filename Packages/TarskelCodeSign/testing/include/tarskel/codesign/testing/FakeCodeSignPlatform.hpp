#pragma once

// A scripted stand-in for the code-signing services, for tests on machines
// without them. Part of TarskelCodeSignTesting, which test builds link and
// nothing installs or ships. Each call answers from the public fields below and is
// written to a call log, so a test can drive any branch of the verifier or
// the peer gate and see which platform calls were made, in which order.
//
// Set the fields before handing the fake out; calls may then come from any
// thread (the log is locked). Objects it makes are FakeCodeSignPlatform::Code
// values named after what made them: "static:<path>", "guest:<pid>",
// "static:guest:<pid>", "requirement:<text>", or any name via makeCode. A
// message's sender is found by its process id (guestCodeForPid).

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tarskel/codesign/CodeSignPlatform.hpp"

namespace tarskel {

class FakeCodeSignPlatform final : public CodeSignPlatform {
 public:
  struct Code final : CodeObject {
    explicit Code(std::string n) : name(std::move(n)) {}
    std::string name;
  };

  // The answer of one object-making call.
  struct Answer {
    OSStatus status = 0;
    bool yieldsObject = true;
  };

  Answer staticCodeForPathAnswer;
  Answer guestCodeForPidAnswer;
  Answer staticCodeOfAnswer;
  bool requirementYieldsObject = true;
  OSStatus validityStatus = 0;
  SigningInformation signingInformation{0, SigningInformation::Result::dictionary,
                                        SigningInformation::Team::string, "TEAMID0001"};

  static CodeRef makeCode(std::string name) { return std::make_shared<Code>(std::move(name)); }

  // The calls made so far, one line each, e.g.
  //   "checkValidity static:/bin/x flags=1 requirement:anchor apple generic"
  std::vector<std::string> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

  CodeResult staticCodeForPath(const std::string& path) const override {
    record("staticCodeForPath " + path);
    return answer(staticCodeForPathAnswer, "static:" + path);
  }

  CodeResult guestCodeForPid(std::int32_t pid) const override {
    record("guestCodeForPid " + std::to_string(pid));
    return answer(guestCodeForPidAnswer, "guest:" + std::to_string(pid));
  }

  CodeResult staticCodeOf(const CodeObject& runningCode) const override {
    record("staticCodeOf " + nameOf(&runningCode));
    return answer(staticCodeOfAnswer, "static:" + nameOf(&runningCode));
  }

  CodeRef compileRequirement(std::string_view text) const override {
    record("compileRequirement " + std::string(text));
    if (!requirementYieldsObject) return nullptr;
    return makeCode("requirement:" + std::string(text));
  }

  OSStatus checkValidity(const CodeObject& staticCode, std::uint32_t flags,
                         const CodeObject* requirement) const override {
    record("checkValidity " + nameOf(&staticCode) + " flags=" + std::to_string(flags) + " " +
           nameOf(requirement));
    return validityStatus;
  }

  SigningInformation copySigningInformation(const CodeObject& staticCode,
                                            std::uint32_t flags) const override {
    record("copySigningInformation " + nameOf(&staticCode) + " flags=" + std::to_string(flags));
    return signingInformation;
  }

 private:
  static std::string nameOf(const CodeObject* code) {
    if (code == nullptr) return "none";
    const auto* fake = dynamic_cast<const Code*>(code);
    return fake != nullptr ? fake->name : "foreign";
  }

  static CodeResult answer(const Answer& a, std::string name) {
    return {a.status, a.yieldsObject ? makeCode(std::move(name)) : nullptr};
  }

  void record(std::string call) const {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }

  mutable std::mutex mutex_;
  mutable std::vector<std::string> calls_;
};

}  // namespace tarskel
