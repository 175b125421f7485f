#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"
#include "tarskel/testing/Hex.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

HashManifest sampleManifest() {
  return HashManifest{"net.example.app",
                      ArtifactType::platform,
                      "1.2.3",
                      42,
                      *parseISO8601("2026-01-02T03:04:05Z"),
                      {{"App.app/Contents/Info.plist", std::string(64, 'a')}},
                      std::nullopt};
}

TEST(HashManifestTest, CanonicalBytesLeaveOutAbsentMetadataAndRoundTrip) {
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(sampleManifest()),
            R"({"artifactId":"net.example.app","artifactType":"platform",)"
            R"("expires":"2026-01-02T03:04:05Z","files":[{"path":"App.app\/Contents\/Info.plist",)"
            R"("sha256":")" +
                std::string(64, 'a') + R"("}],"monotonicVersion":42,"version":"1.2.3"})");
  HashManifest m = sampleManifest();
  m.metadata = std::map<std::string, std::string>{{"channel", "beta"}, {"build", "7"}};
  m.monotonicVersion = INT64_MIN;
  EXPECT_EQ(TarskelJSON::decoder().decode<HashManifest>(TarskelJSON::canonicalEncoder().encode(m)),
            m);
}

TEST(HashManifestTest, DecodingRefusesBadShapes) {
  // Each case spoils one field of a good manifest.
  const std::string good = R"({"artifactId":"a","artifactType":"service","version":"1",)"
                           R"("monotonicVersion":1,"expires":"2026-01-02T03:04:05Z","files":[]})";
  EXPECT_NO_THROW(TarskelJSON::decoder().decode<HashManifest>(good));
  const std::pair<std::string, std::string> spoils[] = {{R"("service")", R"("Platform")"},
                                                        {R"(,"files":[])", ""},
                                                        {R"(:1,)", R"(:1.5,)"},
                                                        {R"("2026-01-02T03:04:05Z")", "784926483"},
                                                        {R"([])", R"([{"path":"x"}])"}};
  for (const auto& [from, to] : spoils) {
    std::string text = good;
    text.replace(text.find(from), from.size(), to);
    SCOPED_TRACE(text);
    EXPECT_THROW(TarskelJSON::decoder().decode<HashManifest>(text), DecodingError);
  }
}

TEST(VendorAllowlistTest, FirstOfEqualIdsAndTheCanonicalSigningPayload) {
  VendorAllowlist list{3, {{"a", "first"}, {"b", "other"}, {"a", "second"}}};
  ASSERT_TRUE(list.key("a").has_value());
  EXPECT_EQ(list.key("a")->publicKey, "first");
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
