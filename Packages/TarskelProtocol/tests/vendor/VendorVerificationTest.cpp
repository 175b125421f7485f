#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"
#include "tarskel/protocol/vendor/VendorVerification.hpp"
#include "tarskel/testing/Hex.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

// A signature scheme that tells which bytes and which key a verifier handed
// over, with no cryptography in the way: a signature is good when it reads
// "<publicKey>|<message>" and the key has the length of an Ed25519 key.
class FakeSignatureAlgorithm : public SignatureAlgorithm {
 public:
  bool verify(std::string_view signature, std::string_view message,
              std::string_view publicKey) const override {
    return publicKey.size() == 32 &&
           signature == std::string(publicKey) + "|" + std::string(message);
  }
};

VendorSignature signedBy(const std::string& keyId, const std::string& publicKey,
                         std::string_view message) {
  return {keyId, "ed25519", base64Encode(publicKey + "|" + std::string(message))};
}

const std::string kKey(32, 'K');
const std::string kOtherKey(32, 'O');
const Date kNow{800000000};

class VendorVerificationTest : public ::testing::Test {
 protected:
  std::vector<VendorVerificationError> verify(std::string_view bytes, const VendorSignature& sig,
                                              std::optional<std::int64_t> installed = std::nullopt,
                                              bool allowDowngrade = false) {
    return verification.verify(bytes, manifest, sig, allowlist, installed, allowDowngrade);
  }

  int clockReads = 0;
  VendorVerification verification{std::make_shared<FakeSignatureAlgorithm>(), [this] {
                                    ++clockReads;
                                    return kNow;
                                  }};
  VendorAllowlist allowlist{1, {{"vendor", base64Encode(kKey)}}};
  HashManifest manifest{
      "id",        ArtifactType::platform, "1", 10, Date{kNow.secondsSinceReferenceDate + 1}, {},
      std::nullopt};
  std::string data = "manifest bytes";
};

TEST_F(VendorVerificationTest, AcceptsAGoodSignatureOverTheBytesGiven) {
  EXPECT_TRUE(verify(data, signedBy("vendor", kKey, data)).empty());
  EXPECT_EQ(clockReads, 1);
  // One more byte (a line end) is other bytes, whatever the decoded manifest says.
  EXPECT_EQ(verify(data + "\n", signedBy("vendor", kKey, data)),
            std::vector{VendorVerificationError::badSignature("vendor")});

  // Regression: non-zero unused bits in the last symbol made a good
  // signature "malformada"; strictness is white space, alphabet and padding.
  VendorSignature spelled = signedBy("vendor", kKey, data);
  ASSERT_EQ(spelled.signature.back(), '=');
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  char& last = spelled.signature[spelled.signature.find('=') - 1];
  last = alphabet[alphabet.find(last) | 1];
  EXPECT_TRUE(verify(data, spelled).empty());
}

// The first signature finding ends the check; its text is the system's own.
TEST_F(VendorVerificationTest, SignatureFindingsStopAtTheFirst) {
  const std::string bad = "la firma no verifica bajo la clave 'vendor'";
  const std::string malformed = "firma malformada (base64 inválido)";
  const VendorSignature good = signedBy("vendor", kKey, data);
  using Keys = std::vector<VendorKey>;
  const Keys usual = allowlist.keys;
  const struct {
    const char* name;
    VendorSignature signature;
    Keys keys;
    std::string text;
  } cases[] = {
      {"algorithm in capitals", VendorSignature{"vendor", "ED25519", ""}, usual,
       "algoritmo 'ED25519' no soportado (se exige ed25519)"},
      {"unknown key and unsupported algorithm", VendorSignature{"nobody", "rsa", "!!"}, usual,
       "algoritmo 'rsa' no soportado (se exige ed25519)"},
      {"unknown key", signedBy("nobody", kKey, data), usual,
       "keyId 'nobody' no está en la allowlist vendor"},
      {"line break in signature text",
       VendorSignature{"vendor", "ed25519", base64Encode(kKey + "|") + "\n" + base64Encode(data)},
       usual, malformed},
      {"public key not base64", good, Keys{{"vendor", "a b="}}, malformed},
      {"public key of 31 bytes", good, Keys{{"vendor", base64Encode(kKey.substr(1))}}, bad},
      {"signature by another key", signedBy("vendor", kOtherKey, data), usual, bad},
      {"first of two equal ids decides", signedBy("vendor", kOtherKey, data),
       Keys{{"vendor", base64Encode(kKey)}, {"vendor", base64Encode(kOtherKey)}}, bad}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    allowlist.keys = c.keys;
    const auto findings = verify(data, c.signature);
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].what(), c.text);
  }
}

// Expiry and anti-rollback; when everything is wrong, every finding in order.
TEST_F(VendorVerificationTest, ExpiryAntiRollbackAndEveryFindingInOrder) {
  const auto expired = VendorVerificationError::expired(kNow, kNow);
  const auto downgrade = VendorVerificationError::downgrade(11, 10);
  const auto bad = VendorVerificationError::badSignature("vendor");
  const struct {
    const char* name;
    std::string signer;
    double expiresOffset;
    std::optional<std::int64_t> installed;
    bool allowDowngrade;
    std::vector<VendorVerificationError> expected;
  } cases[] = {{"expires one second after now", kKey, 1, std::nullopt, false, {}},
               {"expires exactly now", kKey, 0, std::nullopt, false, {expired}},
               {"equal version", kKey, 1, 10, false, {}},
               {"older version", kKey, 1, 11, false, {downgrade}},
               {"older version allowed", kKey, 1, 11, true, {}},
               {"all at once", kOtherKey, 0, 11, false, {bad, expired, downgrade}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    manifest.expires = Date{kNow.secondsSinceReferenceDate + c.expiresOffset};
    EXPECT_EQ(verify(data, signedBy("vendor", c.signer, data), c.installed, c.allowDowngrade),
              c.expected);
  }
}

// Dates in a text are cut to the second, before the epoch too.
TEST(VendorVerificationErrorTest, Texts) {
  const Date expires = *parseISO8601("2026-01-02T03:04:05Z");
  EXPECT_STREQ(
      VendorVerificationError::expired(Date{expires.secondsSinceReferenceDate + 0.9}, Date{-0.5})
          .what(),
      "manifest vencido: expiró 2026-01-02 03:04:05 +0000, ahora es 2000-12-31 23:59:59 +0000");
}

class RotationTest : public VendorVerificationTest {
 protected:
  VendorKeyRotation rotation(std::int64_t revision, const std::string& signerId,
                             const std::string& signerKey, bool keyAddedAfterSigning = false) {
    VendorAllowlist next{revision, {{"next", base64Encode(kOtherKey)}}};
    VendorKeyRotation r{next, signedBy(signerId, signerKey, next.signingPayload())};
    if (keyAddedAfterSigning) r.newAllowlist.keys.push_back({"intruder", base64Encode(kOtherKey)});
    return r;
  }
};

TEST_F(RotationTest, Outcomes) {
  const struct {
    const char* name;
    VendorKeyRotation rotation;
    std::optional<VendorVerificationError> failure;
  } cases[] = {{"signed by the current key", rotation(2, "vendor", kKey), std::nullopt},
               {"equal revision, perfect signature", rotation(1, "vendor", kKey),
                VendorVerificationError::rotationNotNewer(1, 1)},
               {"signed only by a key of the new list", rotation(2, "next", kOtherKey),
                VendorVerificationError::unknownKey("next")},
               {"bad signature", rotation(2, "vendor", kOtherKey),
                VendorVerificationError::badSignature("vendor")},
               {"a key added after signing", rotation(2, "vendor", kKey, true),
                VendorVerificationError::badSignature("vendor")}};
  for (const auto& c : cases) {
    EXPECT_EQ(verification.applyRotation(c.rotation, allowlist),
              c.failure ? VendorVerification::RotationResult(*c.failure)
                        : VendorVerification::RotationResult(c.rotation.newAllowlist))
        << c.name;
  }
}

// manifest | what it reads as, written canonically ("=": as given), or the error.
// The canonical bytes are what a vendor signs: keys sorted, "/" escaped, and
// no metadata when there is none.
TEST(HashManifestTest, ReadingAndCanonicalBytes) {
  for (const testing::Row& row : testing::rows(R"(
{"artifactId":"net.example.app","artifactType":"platform","expires":"2026-01-02T03:04:05Z","files":[{"path":"App.app\/Contents\/Info.plist","sha256":"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"}],"monotonicVersion":42,"version":"1.2.3"} | =
{"artifactId":"a","artifactType":"service","expires":"2026-01-02T03:04:05Z","files":[],"metadata":{"build":"7","channel":"beta"},"monotonicVersion":-9223372036854775808,"version":"1"} | =
{"artifactId":"a","artifactType":"Platform","version":"1","monotonicVersion":1,"expires":"2026-01-02T03:04:05Z","files":[]} | dataCorrupted en artifactType: valor desconocido: "Platform"
{"artifactId":"a","artifactType":"service","version":"1","monotonicVersion":1,"expires":"2026-01-02T03:04:05Z"} | keyNotFound en <raíz>: falta la clave "files"
{"artifactId":"a","artifactType":"service","version":"1","monotonicVersion":1.5,"expires":"2026-01-02T03:04:05Z","files":[]} | dataCorrupted en monotonicVersion: se esperaba un entero, llegó 1.5
{"artifactId":"a","artifactType":"service","version":"1","monotonicVersion":1,"expires":784926483,"files":[]} | typeMismatch en expires: se esperaba string, llegó number
{"artifactId":"a","artifactType":"service","version":"1","monotonicVersion":1,"expires":"2026-01-02T03:04:05Z","files":[{"path":"x"}]} | keyNotFound en files[0]: falta la clave "sha256"
)")) {
    EXPECT_EQ(testing::reread<HashManifest>(row[0]), row[1] == "=" ? row[0] : row[1]) << row.line;
  }
}

TEST(VendorAllowlistTest, FirstOfEqualIdsAndTheCanonicalSigningPayload) {
  VendorAllowlist list{3, {{"a", "first"}, {"b", "other"}, {"a", "second"}}};
  EXPECT_EQ(list.key("a").value_or(VendorKey{}).publicKey, "first");
  EXPECT_FALSE(list.key("A").has_value());
  EXPECT_EQ((VendorAllowlist{7, {{"k1", "AAAA/+=="}}}).signingPayload(),
            R"({"keys":[{"keyId":"k1","publicKey":"AAAA\/+=="}],"revision":7})");
}

// Keys under which a forged signature verifies for any message are refused
// whenever an allowlist is read, naming the key; ordinary keys, and bytes
// that are no key at all (their signatures simply fail), pass.
// key in hex | why it is refused, or "-"
TEST(HashManifestTest, AllowlistRefusesNonCanonicalAndSmallOrderKeys) {
  const std::string good = base64Encode(
      testing::unhex("d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a"));
  for (const testing::Row& row : testing::rows(R"(
# y = p, and y = 2^255 - 1 with the sign bit
edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f | codificación no canónica (y ≥ p)
ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff | codificación no canónica (y ≥ p)
# The identity (also with the sign bit), and points of order 2, 4 and 8 (both signs).
0100000000000000000000000000000000000000000000000000000000000000 | punto de orden pequeño
0100000000000000000000000000000000000000000000000000000000000080 | punto de orden pequeño
ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f | punto de orden pequeño
0000000000000000000000000000000000000000000000000000000000000000 | punto de orden pequeño
26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc05 | punto de orden pequeño
c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac03fa | punto de orden pequeño
# y = p - 20 is canonical; the RFC 8032 test key; 31 bytes are no key at all.
ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7e | -
d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a | -
00000000000000000000000000000000000000000000000000000000000000 | -
)")) {
    SCOPED_TRACE(row.line);
    const std::string raw = testing::unhex(row[0]);
    const std::optional<std::string> why = row[1] == "-" ? std::nullopt : std::optional(row[1]);
    EXPECT_EQ(ed25519KeyWeakness(raw), why);
    const std::string json = R"({"revision":1,"keys":[{"keyId":"good","publicKey":")" + good +
                             R"("},{"keyId":"k1","publicKey":")" + base64Encode(raw) + R"("}]})";
    try {
      EXPECT_EQ(TarskelJSON::decoder().decode<VendorAllowlist>(json).keys.size(), 2u);
      EXPECT_FALSE(why);
    } catch (const DecodingError& e) {
      ASSERT_TRUE(why) << e.what();
      EXPECT_EQ(e.codingPath(), "keys[1].publicKey");
      EXPECT_EQ(e.debugDescription(), "clave vendor 'k1' rechazada: " + *why);
    }
  }
}

}  // namespace
}  // namespace tarskel
