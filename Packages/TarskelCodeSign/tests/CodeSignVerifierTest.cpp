#include <gtest/gtest.h>

#include <functional>

#include "tarskel/codesign/CodeSignVerifier.hpp"
#include "tarskel/codesign/testing/FakeCodeSignPlatform.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel {
namespace {

using Info = SigningInformation;
using Script = std::function<void(FakeCodeSignPlatform&)>;

const std::vector<std::string> kAllowed{"TEAMID0001", "OTHERTEAM9"};
const std::string kBad = "gate SO: firma inválida o no anclada a Apple en ";

// "ok <team>" or the error's text; any other exception fails the test.
std::string outcome(const std::function<std::string()>& operation) {
  try {
    return "ok " + operation();
  } catch (const CodeSignError& e) {
    return e.description();
  }
}

// Each way check() ends, and how many platform calls it made: a failure ends
// the sequence compile, validity, signing information.
TEST(CodeSignVerifierTest, CheckStopsAtTheFirstFailureInOrder) {
  struct Case {
    Script script;
    std::vector<std::string> allowed;
    std::string expected;
    std::size_t calls;
  };
  const Case cases[] = {
      {[](auto&) {}, kAllowed, "ok TEAMID0001", 3},
      // An empty allowlist still checks the signature first.
      {[](auto& p) { p.validityStatus = -67062; }, {}, kBad + "/bin/x (-67062)", 2},
      {[](auto& p) { p.signingInformation.status = -67071; }, kAllowed, kBad + "/bin/x (-67071)",
       3},
      {[](auto& p) { p.signingInformation.result = Info::Result::notDictionary; }, kAllowed,
       kBad + "/bin/x (0)", 3},
      {[](auto& p) { p.signingInformation.team = Info::Team::notString; }, kAllowed,
       "gate SO: sin Team ID (¿ad-hoc?) en /bin/x", 3},
      {[](auto& p) { p.signingInformation.teamIdentifier = "teamid0001"; }, kAllowed,
       "gate SO: Team ID 'teamid0001' fuera de la allowlist en /bin/x", 3},
      // A requirement that doesn't compile is passed on as none; validity decides.
      {[](auto& p) { p.requirementYieldsObject = false; }, kAllowed, "ok TEAMID0001", 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    FakeCodeSignPlatform platform;
    c.script(platform);
    CodeRef code = FakeCodeSignPlatform::makeCode("code");
    EXPECT_EQ(
        outcome([&] { return CodeSignVerifier::check(*code, "/bin/x", c.allowed, platform); }),
        c.expected);
    EXPECT_EQ(platform.calls().size(), c.calls);
  }
  FakeCodeSignPlatform platform;
  CodeSignVerifier::check(*FakeCodeSignPlatform::makeCode("code"), "/bin/x", kAllowed, platform);
  EXPECT_EQ(platform.calls(),
            (std::vector<std::string>{"compileRequirement anchor apple generic",
                                      "checkValidity code flags=1 requirement:anchor apple generic",
                                      "copySigningInformation code flags=2"}));
  EXPECT_STREQ(CodeSignError::executableMissing("/A.app/x").what(),
               "gate SO: ejecutable declarado ausente: /A.app/x");
}

TEST(CodeSignVerifierTest, WrappersNameTheFileOrTheProcess) {
  using F = FakeCodeSignPlatform;
  struct Case {
    bool pid;
    F::Answer F::*answer;  // the one platform answer scripted, if any
    F::Answer value;
    OSStatus validity;
    std::string expected;
  };
  const Case cases[] = {
      {false, nullptr, {}, 0, "ok TEAMID0001"},
      {false, &F::staticCodeForPathAnswer, {-67068, true}, 0, kBad + "/opt/a b/x (-67068)"},
      {true, nullptr, {}, 0, "ok TEAMID0001"},
      {true, &F::guestCodeForPidAnswer, {-67065, false}, 0, kBad + "pid 4242 (-67065)"},

      {true, &F::staticCodeOfAnswer, {0, false}, 0, kBad + "pid 4242 (0)"},
      {true, nullptr, {}, -67062, kBad + "pid 4242 (-67062)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    F platform;
    if (c.answer != nullptr) platform.*c.answer = c.value;
    platform.validityStatus = c.validity;
    EXPECT_EQ(outcome([&] {
                return c.pid ? CodeSignVerifier::verifyPid(4242, kAllowed, platform)
                             : CodeSignVerifier::verifyExecutable("/opt/a b/x", kAllowed, platform);
              }),
              c.expected);
  }
}

// The executables of a manifest: distinct paths in ascending order, absent
// files skipped, never a path outside the bundle.
TEST(CodeSignVerifierTest, VerifyGoesThroughTheManifestsExecutables) {
  const testing::TempDirectory dir;
  const std::filesystem::path& bundle = dir.path();
  for (const char* name : {"bin/a", "bin/z"}) testing::writeFile(bundle / name, "x");
  const std::string a = (bundle / "bin/a").string();
  const std::string refusedA = kBad + a + " (-67062)";
  struct Case {
    std::map<std::string, std::string> executables;
    OSStatus validity;
    std::string expected;  // "" for success
    std::vector<std::string> checked;
  };
  const Case cases[] = {
      {{}, -1, "", {}},
      {{{"darwin-arm64", "bin/a"}, {"linux-arm64", "bin/a"}}, 0, "", {a}},
      {{{"darwin-arm64", "bin/gone"}, {"linux-arm64", "/bin/sh"}}, -1, "", {}},
      {{{"darwin-arm64", "bin/z"}, {"linux-arm64", "bin/a"}}, -67062, refusedA, {a}},
      {{{"darwin-arm64", "bin/z"}, {"linux-arm64", "/bin/a"}}, -67062, refusedA, {a}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    FakeCodeSignPlatform platform;
    platform.validityStatus = c.validity;
    ServiceManifest manifest;
    manifest.executables = c.executables;
    const std::string got = outcome([&] {
      CodeSignVerifier{kAllowed}.verify(bundle, manifest, platform);
      return std::string();
    });
    EXPECT_EQ(got, c.expected.empty() ? "ok " : c.expected);
    std::vector<std::string> checked;
    for (const std::string& call : platform.calls()) {
      if (call.rfind("staticCodeForPath ", 0) == 0) checked.push_back(call.substr(18));
    }
    EXPECT_EQ(checked, c.checked);
  }
}

}  // namespace
}  // namespace tarskel
