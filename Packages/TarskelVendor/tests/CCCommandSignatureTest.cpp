#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/vendor/CCCommandSignature.hpp"

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

// That a change to any signed field breaks the signature is proved end to end
// in the tool's tests (CCCommandsTest).
TEST_F(CCCommandSignatureTest, SignedCommandVerifiesUnderItsKeyAfterAWireRoundTrip) {
  EXPECT_EQ(CCCommandSignature::verify(command, allowlist, at("2026-01-02T03:00:00Z")),
            k1.vendorKey());
  command.sig = CCCommandSignature::sign(command, k2);
  const std::string wire = TarskelJSON::encoder().encode(command);
  EXPECT_EQ(CCCommandSignature::verify(TarskelJSON::decoder().decode<CCCommand>(wire), allowlist,
                                       at("2026-01-02T03:00:00Z")),
            k2.vendorKey());
}

TEST_F(CCCommandSignatureTest, EachFaultOfTheSigHasItsRefusal) {
  const std::string good = command.sig.substr(3);
  std::string loose = good;  // the same bytes, with a padding bit set
  const std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  loose[loose.size() - 3] = alphabet[alphabet.find(loose[loose.size() - 3]) ^ 1];
  const std::pair<std::string, Kind> cases[] = {
      {"ops:2026:" + good, Kind::badSignature},  // another listed key
      {"k1:" + base64Encode(std::string(64, 'x')), Kind::badSignature},
      {"k9:" + good, Kind::unknownKey},
      {"broken:" + good, Kind::badKey},
      {"k1", Kind::malformedSignature},
      {":" + good, Kind::malformedSignature},
      {"k1:" + good.substr(4), Kind::malformedSignature},
      {"k1:" + good + "\n", Kind::malformedSignature},
      {"k1:" + loose, Kind::malformedSignature}};
  for (const auto& [sig, kind] : cases) {
    CCCommand changed = command;
    changed.sig = sig;
    EXPECT_EQ(refusal(changed), kind) << sig;
  }
}

TEST_F(CCCommandSignatureTest, DeadlineCountsToTheWholeSecondAfterTheSignature) {
  EXPECT_FALSE(refusal(command, Date{at("2026-01-02T03:04:05Z").secondsSinceReferenceDate + 0.99})
                   .has_value());
  EXPECT_EQ(refusal(command, at("2026-01-02T03:04:06Z")), Kind::expired);
  EXPECT_EQ(refusal(command, Date{std::nan("")}), Kind::expired);

  CCCommand sameSecond = command;
  sameSecond.deadline.secondsSinceReferenceDate += 0.5;
  EXPECT_FALSE(refusal(sameSecond).has_value()) << "the payload holds the deadline's second only";

  CCCommand stale = command;
  stale.issuedBy = "root";
  EXPECT_EQ(refusal(stale, at("2030-01-01T00:00:00Z")), Kind::badSignature)
      << "the signature comes first";
}

}  // namespace
}  // namespace tarskel
