#include <gtest/gtest.h>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

class VendorCommandsTest : public ToolFiles {
 protected:
  void SetUp() override {
    write("tree/App.app/Contents/MacOS/App", "binary");
    write("tree/App.app/Contents/Info.plist", "<plist/>");
    ASSERT_EQ(runTool({"vendor", "keygen", "--key-id", "k1", "--out", path("k1.json")}).exitCode,
              0);
    write("al1.json", runTool({"vendor", "allowlist", "--revision", "1", path("k1.json")}).out);
    ASSERT_EQ(runTool({"vendor", "pubkey", path("k1.json"), "-o", path("k1.pub")}).exitCode, 0);
  }
  ToolRun seal() {
    return runTool({"vendor", "seal", path("tree"), "--key", path("k1.json"), "--artifact-id",
                    "net.example", "--type", "platform", "--version", "1.0.0", "--monotonic", "7",
                    "--expires", "2099-01-01T00:00:00Z", "--metadata", "canal=beta"});
  }
  std::map<std::string, std::string> vars() const {
    return {{"$DIR", scratch.path().string()},
            {"$BADID", "k\xff"},
            {"$AL1", readFile(path("al1.json"))}};
  }
};

TEST_F(VendorCommandsTest, KeygenWritesAPrivateKeyFileOnceWithAUsableId) {
  EXPECT_EQ(fs::status(path("k1.json")).permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  const std::string key = readFile(path("k1.json"));
  EXPECT_NE(key.find(R"("keyId":"k1","privateKey":")"), std::string::npos) << key;
  // Regression: an empty or non-UTF-8 key id made a key nothing could use.
  expectRuns(R"(
    vendor keygen --key-id other --out $DIR/k1.json | 2 | $DIR/k1.json
    vendor keygen --key-id '' --out $DIR/bad.key | 2 | --key-id: the key id is empty
    vendor keygen --key-id $BADID --out $DIR/bad.key | 2 | --key-id: the key id is not UTF-8: k\xff
  )",
             vars());
  EXPECT_EQ(readFile(path("k1.json")), key);
  EXPECT_FALSE(fs::exists(path("bad.key")));
}

TEST_F(VendorCommandsTest, SealedTreeVerifiesAndFailsAfterAChange) {
  const ToolRun sealed = seal();
  ASSERT_EQ(sealed.exitCode, 0) << sealed.err;
  EXPECT_NE(sealed.out.find("files: 2"), std::string::npos);
  EXPECT_EQ(sealed.err, "") << "no progress when standard error is not a terminal";
  EXPECT_NE(readFile(path("tree/vendor/manifest.json")).find(R"("metadata":{"canal":"beta"})"),
            std::string::npos);
  expectRuns(R"(
    vendor verify $DIR/tree --allowlist $DIR/al1.json | 0 |  | verified: $DIR/tree\n  artifact: net.example 1.0.0 (platform)\n  monotonicVersion: 7\n  files: 2\n  expires: 2099-01-01T00:00:00Z\n  key: k1\n
    vendor verify $DIR/tree --allowlist $DIR/k1.pub | 0 |  | verified: $DIR/tree\n  artifact: net.example 1.0.0 (platform)\n  monotonicVersion: 7\n  files: 2\n  expires: 2099-01-01T00:00:00Z\n  key: k1\n
    vendor verify $DIR/tree --allowlist $DIR/al1.json --installed-monotonic 8 | 1 | anti-rollback: instalado monotonicVersion=8, ofrecido 7
    vendor verify $DIR/tree --allowlist $DIR/al1.json --installed-monotonic 8 --allow-downgrade | 0
    vendor verify $DIR/none --allowlist $DIR/al1.json | 2 | $DIR/none: No such file or directory
  )",
             vars());
  write("tree/App.app/Contents/Info.plist", "<plist />");
  expectRuns(R"(
    vendor verify $DIR/tree --allowlist $DIR/al1.json | 1 | tarskel: sha256 no coincide: App.app/Contents/Info.plist\n | ''
    vendor verify $DIR/tree --allowlist $DIR/al1.json --json | 1 |  | {"dir":"$DIR/tree","error":{"kind":"hashMismatch","message":"sha256 no coincide: App.app/Contents/Info.plist"},"ok":false}\n
  )",
             vars());
}

// Regressions: each of these sealed something nothing could use; files of
// the tree under vendor/ were left out of the seal, so a change there still
// verified; a missing tree was 1 in verify and 2 here.
TEST_F(VendorCommandsTest, SealRefusesUnusableValuesAndTrees) {
  expectRuns(R"(
    vendor seal $DIR/tree --key $DIR/k1.json --artifact-id a --type platform --version 1.0.0 --monotonic 9223372036854775808 --expires 2099-01-01T00:00:00Z | 2 | --monotonic takes an integer from 0 to
    vendor seal $DIR/tree --key $DIR/k1.json --artifact-id a --type platform --version 1.0.0 --monotonic -1 --expires 2099-01-01T00:00:00Z | 2 | --monotonic takes an integer from 0 to
    vendor seal $DIR/tree --key $DIR/k1.json --artifact-id a --type platform --version 1.0.0 --monotonic 1 --expires 2001-01-01T00:00:00Z | 2 | --expires is not in the future
    vendor seal $DIR/tree --key $DIR/k1.json --artifact-id a --type platform --version banana --monotonic 1 --expires 2099-01-01T00:00:00Z | 2 | --version takes a version
    vendor seal $DIR/tree --key $DIR/k1.json --artifact-id '' --type platform --version 1.0.0 --monotonic 1 --expires 2099-01-01T00:00:00Z | 2 | --artifact-id is empty
    vendor seal $DIR/tree --key $DIR/k1.json --artifact-id a --type app --version 1.0.0 --monotonic 1 --expires 2099-01-01T00:00:00Z | 2 | --type takes platform or service: app
    vendor seal $DIR/tree --key $DIR/k1.json --artifact-id a --type platform --version 1.0.0 --monotonic 1 --expires 2099-01-01T00:00:00Z --metadata novalue | 2 | --metadata takes KEY=VALUE: novalue
    vendor seal $DIR/none --key $DIR/k1.json --artifact-id a --type platform --version 1.0.0 --monotonic 1 --expires 2099-01-01T00:00:00Z | 2 | $DIR/none: No such file or directory
  )",
             vars());
  EXPECT_FALSE(fs::exists(path("tree/vendor")));
  ASSERT_EQ(seal().exitCode, 0);
  EXPECT_EQ(seal().exitCode, 0) << "what an earlier seal wrote may be there";
  write("tree/vendor/lib.so", "code");
  const ToolRun refused = seal();
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_NE(refused.err.find("vendor holds files of the tree"), std::string::npos) << refused.err;
}

// Regression: allowlists needed the private keys and took one id twice.
TEST_F(VendorCommandsTest, PublicKeysDuplicateIdsAndLooseKeyFiles) {
  expectRuns(R"(
    vendor allowlist --revision 1 $DIR/k1.pub | 0 |  | $AL1
    vendor allowlist --revision 1 $DIR/k1.pub $DIR/k1.json | 2 | key id 'k1' twice
    vendor allowlist --revision 1 $DIR/tree/App.app/Contents/Info.plist | 2 | Info.plist:1:1: unexpected '<'
  )",
             vars());
  fs::permissions(path("k1.json"), fs::perms::group_read, fs::perm_options::add);
  expectRuns(R"(
    vendor allowlist --revision 1 $DIR/k1.json | 0 | $DIR/k1.json: private key readable by group or others (mode 0640) | $AL1
    vendor allowlist --revision 1 $DIR/k1.json --strict | 2 | private key readable by group or others
  )",
             vars());
  EXPECT_EQ(runTool({"vendor", "allowlist", "--revision", "1", path("k1.json"), "-q"}).err, "");
}

TEST_F(VendorCommandsTest, RotationRoundTrip) {
  ASSERT_EQ(runTool({"vendor", "keygen", "--key-id", "k2", "--out", path("k2.json")}).exitCode, 0);
  write("al2.json", runTool({"vendor", "allowlist", "--revision", "2", path("k2.json")}).out);
  write("rotation.json", runTool({"vendor", "rotate", "--current", path("al1.json"), "--new",
                                  path("al2.json"), "--key", path("k1.json")})
                             .out);
  // -o may name the command's own input: it is replaced whole, after reading.
  write("in-force.json", readFile(path("al1.json")));
  expectRuns(R"(
    vendor apply-rotation $DIR/rotation.json --current $DIR/in-force.json -o $DIR/in-force.json | 0 |  | ''
    vendor rotate --current $DIR/al1.json --new $DIR/al2.json --key $DIR/k2.json | 1 | keyId 'k2' no está en la allowlist vendor
  )",
             vars());
  EXPECT_EQ(readFile(path("in-force.json")), readFile(path("al2.json")));
}

}  // namespace
}  // namespace tarskel::tool::testing
