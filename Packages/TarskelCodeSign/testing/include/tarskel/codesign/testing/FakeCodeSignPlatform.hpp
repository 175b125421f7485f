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
//
// In the darwin-sim build the same fields become the simulator's code
// identity and every answer comes from the Darwin platform, whose objects
// the fake's objects wrap: the same tests then run the Darwin adapter.

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tarskel/codesign/CodeSignPlatform.hpp"
#ifdef TARSKEL_DARWIN_SIM
#include "tarskel/codesign/DarwinCodeSignPlatform.hpp"
#include "tarskel/darwinsim/DarwinSim.hpp"
#endif

namespace tarskel {

class FakeCodeSignPlatform final : public CodeSignPlatform {
 public:
  struct Code final : CodeObject {
    explicit Code(std::string n, CodeRef i = nullptr) : name(std::move(n)), inner(std::move(i)) {}
    std::string name;
    mutable CodeRef inner;  // the Darwin platform's object (darwin-sim build)
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
    return answer(staticCodeForPathAnswer, "static:" + path,
                  [&] { return darwin().staticCodeForPath(path); });
  }

  CodeResult guestCodeForPid(std::int32_t pid) const override {
    record("guestCodeForPid " + std::to_string(pid));
    return answer(guestCodeForPidAnswer, "guest:" + std::to_string(pid),
                  [&] { return darwin().guestCodeForPid(pid); });
  }

  CodeResult staticCodeOf(const CodeObject& runningCode) const override {
    record("staticCodeOf " + nameOf(&runningCode));
    return answer(staticCodeOfAnswer, "static:" + nameOf(&runningCode),
                  [&] { return darwin().staticCodeOf(inner(runningCode)); });
  }

  CodeRef compileRequirement(std::string_view text) const override {
    record("compileRequirement " + std::string(text));
#ifdef TARSKEL_DARWIN_SIM
    return answer({}, "requirement:" + std::string(text),
                  [&] {
                    return CodeResult{0, darwin().compileRequirement(text)};
                  })
        .code;
#endif
    if (!requirementYieldsObject) return nullptr;
    return makeCode("requirement:" + std::string(text));
  }

  OSStatus checkValidity(const CodeObject& staticCode, std::uint32_t flags,
                         const CodeObject* requirement) const override {
    record("checkValidity " + nameOf(&staticCode) + " flags=" + std::to_string(flags) + " " +
           nameOf(requirement));
#ifdef TARSKEL_DARWIN_SIM
    return darwin().checkValidity(inner(staticCode), flags,
                                  requirement ? &inner(*requirement) : nullptr);
#endif
    return validityStatus;
  }

  SigningInformation copySigningInformation(const CodeObject& staticCode,
                                            std::uint32_t flags) const override {
    record("copySigningInformation " + nameOf(&staticCode) + " flags=" + std::to_string(flags));
#ifdef TARSKEL_DARWIN_SIM
    return darwin().copySigningInformation(inner(staticCode), flags);
#endif
    return signingInformation;
  }

 private:
  static std::string nameOf(const CodeObject* code) {
    if (code == nullptr) return "none";
    const auto* fake = dynamic_cast<const Code*>(code);
    return fake != nullptr ? fake->name : "foreign";
  }

#ifdef TARSKEL_DARWIN_SIM
  // The fields as the simulator's code identity, `making` answering for the
  // object-making call at hand.
  void publish(const Answer& making) const {
    darwinsim::CodeIdentity c;
    c.codeStatus = making.status;
    c.codeYieldsObject = making.yieldsObject;
    c.staticStatus = staticCodeOfAnswer.status;
    c.staticYieldsObject = staticCodeOfAnswer.yieldsObject;
    c.requirementCompiles = requirementYieldsObject;
    c.validity = validityStatus;
    c.infoStatus = signingInformation.status;
    c.info = static_cast<darwinsim::CodeIdentity::Info>(signingInformation.result);
    c.team = static_cast<darwinsim::CodeIdentity::Team>(signingInformation.team);
    c.teamId = signingInformation.teamIdentifier;
    darwinsim::setCodeIdentity(c);
  }
  static const DarwinCodeSignPlatform& darwin() {
    static const DarwinCodeSignPlatform platform;
    return platform;
  }
  // The Darwin object behind one of ours; one made by makeCode gets its
  // own static code on first use.
  const CodeObject& inner(const CodeObject& code) const {
    const auto* fake = dynamic_cast<const Code*>(&code);
    if (fake == nullptr) return code;
    if (!fake->inner) {
      publish({});
      fake->inner = darwin().staticCodeForPath(fake->name).code;
    }
    return *fake->inner;
  }
  template <class Call>
  CodeResult answer(const Answer& a, std::string name, Call call) const {
    publish(a);
    CodeResult r = call();
    if (r.code) r.code = std::make_shared<Code>(std::move(name), std::move(r.code));
    return r;
  }
#else
  template <class Call>
  static CodeResult answer(const Answer& a, std::string name, Call) {
    return {a.status, a.yieldsObject ? makeCode(std::move(name)) : nullptr};
  }
  static const CodeSignPlatform& darwin();  // never called: the darwin-sim build's alone
  static const CodeObject& inner(const CodeObject& code) { return code; }
#endif

  void record(std::string call) const {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }

  mutable std::mutex mutex_;
  mutable std::vector<std::string> calls_;
};

}  // namespace tarskel
