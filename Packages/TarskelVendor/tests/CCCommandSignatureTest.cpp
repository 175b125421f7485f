#include "tarskel/vendor/CCCommandSignature.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

using Kind = CCCommandSignatureError::Kind;

Date at(const char* text) { return *parseISO8601(text); }

class CCCommandSignatureTest : public ::testing::Test {
 protected:
  CCCommandSignatureTest() {
    command = CCCommand("c1", "dev1", "config.set", JSONValue::Object{{"retries", 3}},
                        at("2026-01-02T03:04:05Z"), "ops", DualControl{true, "ana"}, "");
    command.sig = CCCommandSignature::sign(command, k1);
  }

  // The kind of refusal, or nothing when the command passes at `now`.
  std::optional<Kind> refusal(const CCCommand& c, Date now = at("2026-01-02T03:00:00Z")) const {
    try {
      CCCommandSignature::verify(c, allowlist, now);
      return std::nullopt;
    } catch (const CCCommandSignatureError& e) {
      return e.kind();
    }
  }

  Ed25519KeyPair k1{"k1"};
  Ed25519KeyPair k2{"ops:2026"};  // a key id may hold the separator
  VendorAllowlist allowlist{1, {k1.vendorKey(), k2.vendorKey(), VendorKey{"broken", "AAAA"}}};
  CCCommand command;
};

TEST_F(CCCommandSignatureTest, SignedCommandVerifiesUnderItsKey) {
  EXPECT_EQ(CCCommandSignature::verify(command, allowlist, at("2026-01-02T03:00:00Z")), k1.vendorKey());
  command.sig = CCCommandSignature::sign(command, k2);
  EXPECT_EQ(command.sig.rfind("ops:2026:", 0), 0u);
  EXPECT_EQ(CCCommandSignature::verify(command, allowlist, at("2026-01-02T03:00:00Z")), k2.vendorKey());

  // What travels is the re-encoded command: it verifies as well.
  const std::string wire = TarskelJSON::encoder().encode(command);
  EXPECT_FALSE(refusal(TarskelJSON::decoder().decode<CCCommand>(wire)).has_value());
}

TEST_F(CCCommandSignatureTest, AnyChangeToASignedFieldBreaksTheSignature) {
  const struct {
    const char* name;
    std::function<void(CCCommand&)> change;
    std::optional<Kind> refusal;
  } cases[] = {
      {"nothing", [](CCCommand&) {}, std::nullopt},
      {"deadline within its second", [](CCCommand& c) { c.deadline.secondsSinceReferenceDate += 0.5; }, std::nullopt},
      {"cmdId", [](CCCommand& c) { c.cmdId = "c2"; }, Kind::badSignature},
      {"target", [](CCCommand& c) { c.target = "dev2"; }, Kind::badSignature},
      {"method", [](CCCommand& c) { c.method = "platform.disable"; }, Kind::badSignature},
      {"params value", [](CCCommand& c) { c.params = JSONValue::Object{{"retries", 4}}; }, Kind::badSignature},
      {"params dropped", [](CCCommand& c) { c.params.reset(); }, Kind::badSignature},
      {"deadline later", [](CCCommand& c) { c.deadline.secondsSinceReferenceDate += 3600; }, Kind::badSignature},
      {"issuedBy", [](CCCommand& c) { c.issuedBy = "root"; }, Kind::badSignature},
      {"approver", [](CCCommand& c) { c.dualControl->approvedBy = "eve"; }, Kind::badSignature},
      {"dual control dropped", [](CCCommand& c) { c.dualControl.reset(); }, Kind::badSignature},
      {"key id of another listed key", [](CCCommand& c) { c.sig.replace(0, 2, "ops:2026"); }, Kind::badSignature},
      {"key id not listed", [](CCCommand& c) { c.sig.replace(0, 2, "k9"); }, Kind::unknownKey},
      {"key id of a broken entry", [](CCCommand& c) { c.sig.replace(0, 2, "broken"); }, Kind::badKey},
      {"one signature byte", [](CCCommand& c) { c.sig = "k1:" + base64Encode(std::string(64, 'x')); },
       Kind::badSignature},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CCCommand changed = command;
    c.change(changed);
    EXPECT_EQ(refusal(changed), c.refusal);
  }
}

TEST_F(CCCommandSignatureTest, MalformedSigsAreRefusedBeforeAnyKeyIsTried) {
  const std::string good = command.sig.substr(3);
  for (const std::string& sig : {std::string(), std::string("k1"), ":" + good, std::string("k1:"),
                                 "k1:" + good.substr(0, 84), "k1:" + good + "AAAA", "k1:" + good + "\n",
                                 "k1: " + good, "k1:" + good.substr(0, 85) + "=="}) {
    SCOPED_TRACE(sig);
    CCCommand changed = command;
    changed.sig = sig;
    EXPECT_EQ(refusal(changed), Kind::malformedSignature);
  }
}

TEST_F(CCCommandSignatureTest, DeadlineCountsToTheWholeSecondAfterTheSignature) {
  EXPECT_FALSE(refusal(command, Date{at("2026-01-02T03:04:05Z").secondsSinceReferenceDate + 0.99}).has_value());
  EXPECT_EQ(refusal(command, at("2026-01-02T03:04:06Z")), Kind::expired);
  EXPECT_EQ(refusal(command, Date{std::nan("")}), Kind::expired);

  CCCommand stale = command;
  stale.issuedBy = "root";
  EXPECT_EQ(refusal(stale, at("2030-01-01T00:00:00Z")), Kind::badSignature) << "the signature comes first";
}

TEST_F(CCCommandSignatureTest, ErrorTextsSayWhatFailed) {
  const struct {
    CCCommandSignatureError error;
    const char* text;
  } cases[] = {
      {CCCommandSignatureError::malformedSignature(),
       "firma del comando malformada: se espera '<keyId>:<base64 de 64 bytes>'"},
      {CCCommandSignatureError::unknownKey("k9"), "keyId 'k9' no está en la allowlist"},
      {CCCommandSignatureError::badKey("b"), "la clave 'b' de la allowlist no es una clave pública Ed25519"},
      {CCCommandSignatureError::badSignature("k1"), "la firma del comando no verifica bajo la clave 'k1'"},
      {CCCommandSignatureError::expired(at("2026-01-02T03:04:05Z"), at("2026-01-02T04:00:00Z")),
       "comando vencido: deadline 2026-01-02 03:04:05 +0000, ahora es 2026-01-02 04:00:00 +0000"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.error.description(), c.text);
}

}  // namespace
}  // namespace tarskel
