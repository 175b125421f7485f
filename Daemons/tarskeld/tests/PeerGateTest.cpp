// The peer gate's verdicts, driven through the scripted code-signing platform.

#include <gtest/gtest.h>

#include <functional>

#include "tarskel/codesign/testing/FakeCodeSignPlatform.hpp"
#include "tarskel/daemon/DaemonPeerGate.hpp"

namespace tarskel {
namespace {

// A message whose sender is pid 4242, asked of the platform the way the
// socket transport asks for a foreign platform.
class ScriptedSender final : public DaemonMessageSender {
 public:
  CodeResult senderCode(const CodeSignPlatform& platform) const override {
    return platform.guestCodeForPid(4242);
  }
};

TEST(PeerGateTest, Verdicts) {
  using Teams = std::optional<std::vector<std::string>>;
  const Teams team = std::vector<std::string>{"TEAMID0001"};
  const std::string noCode = "rejected:sin identidad de código en el mensaje xpc ";
  const std::string otherTeam =
      "rejected:gate SO: Team ID 'TEAMID0001' fuera de la allowlist en cliente xpc";
  struct Case {
    Teams teamIds;
    std::function<void(FakeCodeSignPlatform&)> script;
    std::string caller;
  };
  const Case cases[] = {
      {std::nullopt, [](auto&) {}, "unverified:gate SO sin provisionar (sin vendor/teams.json)"},
      {team, [](auto& p) { p.guestCodeForPidAnswer.yieldsObject = false; }, noCode + "(0)"},
      {team, [](auto& p) { p.guestCodeForPidAnswer.status = -1; }, noCode + "(-1)"},
      {team,
       [](auto& p) {
         p.staticCodeOfAnswer = {-67068, false};
       },
       "rejected:sin static code del cliente xpc (-67068)"},
      {team, [](auto& p) { p.validityStatus = -67062; },
       "rejected:gate SO: firma inválida o no anclada a Apple en cliente xpc (-67062)"},
      {team, [](auto& p) { p.signingInformation.team = SigningInformation::Team::absent; },
       "rejected:gate SO: sin Team ID (¿ad-hoc?) en cliente xpc"},
      {std::vector<std::string>{"OTHERTEAM1"}, [](auto&) {}, otherTeam},
      {std::vector<std::string>{}, [](auto&) {}, otherTeam},  // an empty list trusts no one
      {team, [](auto&) {}, "team:TEAMID0001"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.caller);
    auto fake = std::make_shared<FakeCodeSignPlatform>();
    c.script(*fake);
    const DaemonPeerGate gate{c.teamIds, fake};
    EXPECT_EQ(gate.verdict(ScriptedSender()).callerText(), c.caller);
    // An unprovisioned gate asks the platform nothing; a provisioned one
    // checks the sender's static code under the client's name.
    const std::vector<std::string> calls = fake->calls();
    EXPECT_EQ(calls.empty(), !c.teamIds);
    if (c.caller.starts_with("team:")) {
      ASSERT_GE(calls.size(), 3u);
      EXPECT_EQ(calls[0], "guestCodeForPid 4242");
      EXPECT_EQ(calls[1], "staticCodeOf guest:4242");
      EXPECT_EQ(calls.back(), "copySigningInformation static:guest:4242 flags=2");
    }
  }
}

}  // namespace
}  // namespace tarskel
