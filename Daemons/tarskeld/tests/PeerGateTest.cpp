// The peer gate's five verdicts, driven through the scripted code-signing
// platform.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tarskel/codesign/testing/FakeCodeSignPlatform.hpp"
#include "tarskel/daemon/DaemonPeerGate.hpp"

namespace tarskel {
namespace {

// A message whose sender the test decides, asking the platform the way the
// socket transport does for a foreign platform.
class ScriptedSender final : public DaemonMessageSender {
 public:
  CodeResult senderCode(const CodeSignPlatform& platform) const override {
    return platform.guestCodeForPid(4242);
  }
};

struct GateCase {
  const char* name;
  std::optional<std::vector<std::string>> teamIds;
  FakeCodeSignPlatform::Answer guest{};
  FakeCodeSignPlatform::Answer staticCode{};
  OSStatus validity = 0;
  DaemonPeerVerdict expected;
};

TEST(PeerGateTest, Verdicts) {
  const std::vector<std::string> team{"TEAMID0001"};
  const std::vector<GateCase> cases = {
      {"unprovisioned",
       std::nullopt,
       {},
       {},
       0,
       DaemonPeerVerdict::unverified("gate SO sin provisionar (sin vendor/teams.json)")},
      {"no running code",
       team,
       {-67065, false},
       {},
       0,
       DaemonPeerVerdict::rejected("sin identidad de código en el mensaje xpc (-67065)")},
      {"status 0 without an object",
       team,
       {0, false},
       {},
       0,
       DaemonPeerVerdict::rejected("sin identidad de código en el mensaje xpc (0)")},
      {"an object with a status",
       team,
       {-1, true},
       {},
       0,
       DaemonPeerVerdict::rejected("sin identidad de código en el mensaje xpc (-1)")},
      {"no static code",
       team,
       {},
       {-67068, false},
       0,
       DaemonPeerVerdict::rejected("sin static code del cliente xpc (-67068)")},
      {"unsigned",
       team,
       {},
       {},
       -67062,
       DaemonPeerVerdict::rejected(
           "gate SO: firma inválida o no anclada a Apple en cliente xpc (-67062)")},
      {"team not allowed",
       std::vector<std::string>{"OTHERTEAM1"},
       {},
       {},
       0,
       DaemonPeerVerdict::rejected(
           "gate SO: Team ID 'TEAMID0001' fuera de la allowlist en cliente xpc")},
      {"empty list trusts no one",
       std::vector<std::string>{},
       {},
       {},
       0,
       DaemonPeerVerdict::rejected(
           "gate SO: Team ID 'TEAMID0001' fuera de la allowlist en cliente xpc")},
      {"trusted", team, {}, {}, 0, DaemonPeerVerdict::trusted("TEAMID0001")},
  };
  for (const GateCase& c : cases) {
    SCOPED_TRACE(c.name);
    auto fake = std::make_shared<FakeCodeSignPlatform>();
    fake->guestCodeForPidAnswer = c.guest;
    fake->staticCodeOfAnswer = c.staticCode;
    fake->validityStatus = c.validity;
    const DaemonPeerGate gate{c.teamIds, fake};
    EXPECT_EQ(gate.verdict(ScriptedSender()), c.expected);
  }
}

TEST(PeerGateTest, UnprovisionedGateAsksThePlatformNothing) {
  auto fake = std::make_shared<FakeCodeSignPlatform>();
  const DaemonPeerGate gate{std::nullopt, fake};
  gate.verdict(ScriptedSender());
  EXPECT_TRUE(fake->calls().empty());
}

TEST(PeerGateTest, CheckRunsOnTheSendersStaticCodeUnderTheClientsName) {
  auto fake = std::make_shared<FakeCodeSignPlatform>();
  const DaemonPeerGate gate{std::vector<std::string>{"TEAMID0001"}, fake};
  gate.verdict(ScriptedSender());
  const std::vector<std::string> calls = fake->calls();
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ(calls[0], "guestCodeForPid 4242");
  EXPECT_EQ(calls[1], "staticCodeOf guest:4242");
  EXPECT_EQ(calls.back(), "copySigningInformation static:guest:4242 flags=2");
}

}  // namespace
}  // namespace tarskel
