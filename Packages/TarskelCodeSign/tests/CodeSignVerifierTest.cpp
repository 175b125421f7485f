#include "tarskel/codesign/CodeSignVerifier.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tarskel/codesign/testing/FakeCodeSignPlatform.hpp"

namespace tarskel {
namespace {

using Info = SigningInformation;
using Calls = std::vector<std::string>;

const std::vector<std::string> kAllowed{"TEAMID0001", "OTHERTEAM9"};

// Runs `operation`, expecting it to fail with `kind` and `text`.
void expectFailure(const std::function<void()>& operation, CodeSignError::Kind kind,
                   const std::string& text) {
  try {
    operation();
    ADD_FAILURE() << "no error, expected: " << text;
  } catch (const CodeSignError& e) {
    EXPECT_EQ(e.kind(), kind);
    EXPECT_EQ(e.description(), text);
  }
}

// The other texts are checked where check() throws them.
TEST(CodeSignErrorTest, DeclaredOnlyCase) {
  CodeSignError e = CodeSignError::executableMissing("/Applications/A.app/bin/x");
  EXPECT_EQ(e.kind(), CodeSignError::Kind::executableMissing);
  EXPECT_STREQ(e.what(), "gate SO: ejecutable declarado ausente: /Applications/A.app/bin/x");
}

// Every way check() can end, with the platform calls it must have made: a
// failure stops the sequence, so later calls must be absent.
TEST(CodeSignVerifierTest, CheckStopsAtTheFirstFailureInOrder) {
  const std::string req = "compileRequirement anchor apple generic";
  const std::string validity = "checkValidity code flags=1 requirement:anchor apple generic";
  const std::string info = "copySigningInformation code flags=2";
  struct Case {
    const char* name;
    std::function<void(FakeCodeSignPlatform&)> script;
    std::vector<std::string> allowed;
    CodeSignError::Kind kind;
    const char* text;  // nullptr: succeeds with TEAMID0001
    Calls calls;
  };
  using K = CodeSignError::Kind;
  const Case cases[] = {
      {"passes", [](auto&) {}, kAllowed, K::teamMissing, nullptr, {req, validity, info}},
      {"ad hoc or foreign anchor", [](auto& p) { p.validityStatus = -67050; }, kAllowed,
       K::signatureInvalid, "gate SO: firma inválida o no anclada a Apple en /bin/x (-67050)",
       {req, validity}},
      // An empty allowlist still checks the signature first.
      {"empty allowlist, ad hoc", [](auto& p) { p.validityStatus = -67062; }, {},
       K::signatureInvalid, "gate SO: firma inválida o no anclada a Apple en /bin/x (-67062)",
       {req, validity}},
      {"info status", [](auto& p) { p.signingInformation.status = -67071; }, kAllowed,
       K::signatureInvalid, "gate SO: firma inválida o no anclada a Apple en /bin/x (-67071)",
       {req, validity, info}},
      {"info missing",
       [](auto& p) { p.signingInformation.result = Info::Result::none; }, kAllowed,
       K::signatureInvalid, "gate SO: firma inválida o no anclada a Apple en /bin/x (0)",
       {req, validity, info}},
      {"info not a dictionary",
       [](auto& p) { p.signingInformation.result = Info::Result::notDictionary; }, kAllowed,
       K::signatureInvalid, "gate SO: firma inválida o no anclada a Apple en /bin/x (0)",
       {req, validity, info}},
      {"no team", [](auto& p) { p.signingInformation.team = Info::Team::absent; }, kAllowed,
       K::teamMissing, "gate SO: sin Team ID (¿ad-hoc?) en /bin/x", {req, validity, info}},
      {"team not a string", [](auto& p) { p.signingInformation.team = Info::Team::notString; },
       kAllowed, K::teamMissing, "gate SO: sin Team ID (¿ad-hoc?) en /bin/x",
       {req, validity, info}},
      {"team differs in case",
       [](auto& p) { p.signingInformation.teamIdentifier = "teamid0001"; }, kAllowed,
       K::teamNotAllowed, "gate SO: Team ID 'teamid0001' fuera de la allowlist en /bin/x",
       {req, validity, info}},
      {"team is a prefix of an allowed one",
       [](auto& p) { p.signingInformation.teamIdentifier = "TEAMID000"; }, kAllowed,
       K::teamNotAllowed, "gate SO: Team ID 'TEAMID000' fuera de la allowlist en /bin/x",
       {req, validity, info}},
      {"empty allowlist", [](auto&) {}, {}, K::teamNotAllowed,
       "gate SO: Team ID 'TEAMID0001' fuera de la allowlist en /bin/x", {req, validity, info}},
      // A requirement that doesn't compile is passed on as none; validity decides.
      {"requirement not compiled", [](auto& p) { p.requirementYieldsObject = false; }, kAllowed,
       K::teamMissing, nullptr, {req, "checkValidity code flags=1 none", info}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeCodeSignPlatform platform;
    c.script(platform);
    CodeRef code = FakeCodeSignPlatform::makeCode("code");
    if (c.text == nullptr) {
      EXPECT_EQ(CodeSignVerifier::check(*code, "/bin/x", c.allowed, platform), "TEAMID0001");
    } else {
      expectFailure([&] { CodeSignVerifier::check(*code, "/bin/x", c.allowed, platform); },
                    c.kind, c.text);
    }
    EXPECT_EQ(platform.calls(), c.calls);
  }
}

TEST(CodeSignVerifierTest, VerifyExecutable) {
  struct Case {
    const char* name;
    FakeCodeSignPlatform::Answer create;
    const char* text;  // nullptr: succeeds
    std::size_t callCount;
  };
  const Case cases[] = {
      {"passes", {0, true}, nullptr, 4},
      {"status", {-67068, true},
       "gate SO: firma inválida o no anclada a Apple en /opt/a b/x (-67068)", 1},
      {"no object", {0, false}, "gate SO: firma inválida o no anclada a Apple en /opt/a b/x (0)",
       1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeCodeSignPlatform platform;
    platform.staticCodeForPathAnswer = c.create;
    if (c.text == nullptr) {
      EXPECT_EQ(CodeSignVerifier::verifyExecutable("/opt/a b/x", kAllowed, platform),
                "TEAMID0001");
    } else {
      expectFailure([&] { CodeSignVerifier::verifyExecutable("/opt/a b/x", kAllowed, platform); },
                    CodeSignError::Kind::signatureInvalid, c.text);
    }
    Calls calls = platform.calls();
    ASSERT_EQ(calls.size(), c.callCount);
    EXPECT_EQ(calls[0], "staticCodeForPath /opt/a b/x");
    if (c.callCount > 1) {
      EXPECT_EQ(calls[2], "checkValidity static:/opt/a b/x flags=1 requirement:anchor apple generic");
    }
  }
}

TEST(CodeSignVerifierTest, VerifyPidNamesTheProcessInItsErrors) {
  struct Case {
    const char* name;
    FakeCodeSignPlatform::Answer guest;
    FakeCodeSignPlatform::Answer copyStatic;
    OSStatus validity;
    const char* text;  // nullptr: succeeds
    Calls firstCalls;
  };
  const Case cases[] = {
      {"passes", {}, {}, 0, nullptr, {"guestCodeForPid 4242", "staticCodeOf guest:4242"}},
      {"dead process", {-67065, false}, {}, 0,
       "gate SO: firma inválida o no anclada a Apple en pid 4242 (-67065)",
       {"guestCodeForPid 4242"}},
      {"guest without object", {0, false}, {}, 0,
       "gate SO: firma inválida o no anclada a Apple en pid 4242 (0)", {"guestCodeForPid 4242"}},
      {"no static code", {}, {-67068, true}, 0,
       "gate SO: firma inválida o no anclada a Apple en pid 4242 (-67068)",
       {"guestCodeForPid 4242", "staticCodeOf guest:4242"}},
      {"static code without object", {}, {0, false}, 0,
       "gate SO: firma inválida o no anclada a Apple en pid 4242 (0)",
       {"guestCodeForPid 4242", "staticCodeOf guest:4242"}},
      {"unsigned", {}, {}, -67062,
       "gate SO: firma inválida o no anclada a Apple en pid 4242 (-67062)",
       {"guestCodeForPid 4242", "staticCodeOf guest:4242"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeCodeSignPlatform platform;
    platform.guestCodeForPidAnswer = c.guest;
    platform.staticCodeOfAnswer = c.copyStatic;
    platform.validityStatus = c.validity;
    if (c.text == nullptr) {
      EXPECT_EQ(CodeSignVerifier::verifyPid(4242, kAllowed, platform), "TEAMID0001");
    } else {
      expectFailure([&] { CodeSignVerifier::verifyPid(4242, kAllowed, platform); },
                    CodeSignError::Kind::signatureInvalid, c.text);
    }
    Calls calls = platform.calls();
    ASSERT_GE(calls.size(), c.firstCalls.size());
    EXPECT_EQ(Calls(calls.begin(), calls.begin() + static_cast<long>(c.firstCalls.size())),
              c.firstCalls);
  }
}

}  // namespace
}  // namespace tarskel
