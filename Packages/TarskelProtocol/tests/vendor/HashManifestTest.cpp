#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"

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

TEST(HashManifestTest, CanonicalBytesSortKeysEscapeSlashAndLeaveOutAbsentMetadata) {
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(sampleManifest()),
            R"({"artifactId":"net.example.app","artifactType":"platform",)"
            R"("expires":"2026-01-02T03:04:05Z","files":[{"path":"App.app\/Contents\/Info.plist",)"
            R"("sha256":")" + std::string(64, 'a') +
                R"("}],"monotonicVersion":42,"version":"1.2.3"})");
}

TEST(HashManifestTest, RoundTripsWithMetadataAndExtremeMonotonicVersion) {
  HashManifest m = sampleManifest();
  m.metadata = std::map<std::string, std::string>{{"channel", "beta"}, {"build", "7"}};
  for (std::int64_t v : {INT64_MAX, INT64_MIN, std::int64_t{9007199254740993}}) {
    SCOPED_TRACE(v);
    m.monotonicVersion = v;
    std::string bytes = TarskelJSON::canonicalEncoder().encode(m);
    EXPECT_EQ(TarskelJSON::decoder().decode<HashManifest>(bytes), m);
  }
}

TEST(HashManifestTest, DecodingRefusesBadShapes) {
  // Each case spoils one field of a good manifest.
  const std::string good = R"({"artifactId":"a","artifactType":"service","version":"1",)"
                           R"("monotonicVersion":1,"expires":"2026-01-02T03:04:05Z","files":[]})";
  EXPECT_NO_THROW(TarskelJSON::decoder().decode<HashManifest>(good));
  const std::pair<std::string, std::string> spoils[] = {
      {R"("service")", R"("Platform")"},
      {R"(,"files":[])", ""},
      {R"(:1,)", R"(:1.5,)"},
      {R"(:1,)", R"(:9223372036854775808,)"},
      {R"("2026-01-02T03:04:05Z")", "784926483"},
      {R"([])", R"([{"path":"x"}])"},
  };
  for (const auto& [from, to] : spoils) {
    std::string text = good;
    text.replace(text.find(from), from.size(), to);
    SCOPED_TRACE(text);
    EXPECT_THROW(TarskelJSON::decoder().decode<HashManifest>(text), DecodingError);
  }
}

TEST(VendorAllowlistTest, KeyWithIdReturnsTheFirstOfEqualIds) {
  VendorAllowlist list{3, {{"a", "first"}, {"b", "other"}, {"a", "second"}}};
  ASSERT_TRUE(list.key("a").has_value());
  EXPECT_EQ(list.key("a")->publicKey, "first");
  EXPECT_FALSE(list.key("A").has_value());
}

TEST(VendorAllowlistTest, SigningPayloadIsTheCanonicalEncoding) {
  VendorAllowlist list{7, {{"k1", "AAAA/+=="}}};
  EXPECT_EQ(list.signingPayload(), R"({"keys":[{"keyId":"k1","publicKey":"AAAA\/+=="}],"revision":7})");
}

}  // namespace
}  // namespace tarskel
