#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "ToolRunner.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel::tool {
namespace {

namespace fs = std::filesystem;
using testing::readWhole;
using testing::runTool;

using tarskel::testing::writeFile;

class VendorCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree = dir / "tree";
    writeFile(tree / "App.app/Contents/MacOS/App", "binary");
    writeFile(tree / "App.app/Contents/Info.plist", "<plist/>");
    ASSERT_EQ(run({"vendor", "keygen", "--key-id", "k1", "--out", path("k1.json")}).exitCode, 0);
    ASSERT_EQ(run({"vendor", "keygen", "--key-id", "k2", "--out", path("k2.json")}).exitCode, 0);
    writeFile(dir / "al1.json",
              run({"vendor", "allowlist", "--revision", "1", path("k1.json")}).out);
    writeFile(dir / "al2.json",
              run({"vendor", "allowlist", "--revision", "2", path("k2.json")}).out);
  }
  std::string path(const std::string& name) const { return (dir / name).string(); }

  testing::ToolRun run(const std::vector<std::string>& args) { return runTool(args); }

  testing::ToolRun seal(std::vector<std::string> extra = {}) {
    std::vector<std::string> args{
        "vendor",        "seal",        tree.string(), "--key",     path("k1.json"),
        "--artifact-id", "net.example", "--type",      "platform",  "--version",
        "1.0.0",         "--monotonic", "7",           "--expires", "2099-01-01T00:00:00Z",
        "--metadata",    "canal=beta"};
    // An option given in `extra` replaces the one above.
    for (std::size_t i = 0; i < extra.size(); ++i) {
      auto at = std::find(args.begin(), args.end(), extra[i]);
      if (at != args.end() && i + 1 < extra.size()) {
        *(at + 1) = extra[++i];
      } else {
        args.push_back(extra[i]);
      }
    }
    return run(args);
  }

  testing::ToolRun verify(std::vector<std::string> extra = {}) {
    std::vector<std::string> args{"vendor", "verify", tree.string(), "--allowlist",
                                  path("al1.json")};
    args.insert(args.end(), extra.begin(), extra.end());
    return run(args);
  }

  tarskel::testing::TempDirectory scratch{"tarskel-vendor-tool"};
  const fs::path dir = scratch.path();
  fs::path tree;
};

TEST_F(VendorCommandsTest, KeygenWritesAPrivateKeyFileOnce) {
  struct stat info {};
  ASSERT_EQ(::stat(path("k1.json").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  const std::string key = readWhole(dir / "k1.json");
  EXPECT_NE(key.find(R"("keyId":"k1")"), std::string::npos);
  EXPECT_NE(key.find(R"("privateKey":")"), std::string::npos);

  auto again = run({"vendor", "keygen", "--key-id", "other", "--out", path("k1.json")});
  EXPECT_EQ(again.exitCode, 2);
  EXPECT_EQ(readWhole(dir / "k1.json"), key);
}

TEST_F(VendorCommandsTest, SealedTreeVerifiesAndFailsAfterAChange) {
  auto sealed = seal();
  ASSERT_EQ(sealed.exitCode, 0) << sealed.err;
  EXPECT_NE(sealed.out.find("files: 2"), std::string::npos);
  EXPECT_NE(readWhole(tree / "vendor/manifest.json").find(R"("metadata":{"canal":"beta"})"),
            std::string::npos);
  auto good = verify();
  EXPECT_EQ(good.exitCode, 0) << good.err;
  EXPECT_NE(good.out.find("net.example"), std::string::npos);
  EXPECT_EQ(good.err, "") << "no progress when standard error is not a terminal";

  EXPECT_NE(verify({"--installed-monotonic", "8"})
                .err.find("anti-rollback: instalado monotonicVersion=8, ofrecido 7"),
            std::string::npos);
  EXPECT_EQ(verify({"--installed-monotonic", "8", "--allow-downgrade"}).exitCode, 0);

  writeFile(tree / "App.app/Contents/Info.plist", "<plist />");
  auto refused = verify();
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.err, "tarskel: sha256 no coincide: App.app/Contents/Info.plist\n");
  auto json = verify({"--json"});
  EXPECT_EQ(json.exitCode, 1);
  std::string escapedTree;
  for (char c : tree.string()) escapedTree += c == '/' ? std::string("\\/") : std::string(1, c);
  EXPECT_EQ(json.out,
            "{\"dir\":\"" + escapedTree +
                "\",\"error\":{\"kind\":\"hashMismatch\",\"message\":"
                "\"sha256 no coincide: App.app\\/Contents\\/Info.plist\"},\"ok\":false}\n");
}

// Regressions: each of these sealed, or made a key, that nothing could use.
TEST_F(VendorCommandsTest, SealAndKeygenRefuseUnusableValues) {
  const struct {
    std::vector<std::string> extra;
    std::string err;
  } cases[] = {
      {{"--monotonic", "9223372036854775808"}, "--monotonic takes an integer from 0 to"},
      {{"--monotonic", "-1"}, "--monotonic takes an integer"},
      {{"--expires", "2001-01-01T00:00:00Z"}, "--expires is not in the future"},
      {{"--version", ""}, "--version takes a version"},
      {{"--version", "banana"}, "--version takes a version"},
      {{"--artifact-id", ""}, "--artifact-id is empty"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    auto refused = seal(c.extra);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.err.find(c.err), std::string::npos) << refused.err;
  }
  EXPECT_FALSE(fs::exists(tree / "vendor"));
  for (const std::string id : {"", "k\xff"}) {
    auto keygen = run({"vendor", "keygen", "--key-id", id, "--out", path("bad.key")});
    EXPECT_EQ(keygen.exitCode, 2);
    EXPECT_FALSE(fs::exists(dir / "bad.key"));
  }
}

// Regression: files of the tree under vendor/ were silently left out of the
// seal, so a change there still verified.
TEST_F(VendorCommandsTest, SealRefusesATreeWithItsOwnVendorFiles) {
  ASSERT_EQ(seal().exitCode, 0);
  EXPECT_EQ(seal().exitCode, 0) << "what an earlier seal wrote may be there";
  writeFile(tree / "vendor/lib.so", "code");
  auto refused = seal();
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_NE(refused.err.find("vendor holds files of the tree"), std::string::npos) << refused.err;
}

// Regression: allowlists needed the private keys and took one id twice.
TEST_F(VendorCommandsTest, PublicKeysDuplicateIdsAndLooseKeyFiles) {
  auto pub = run({"vendor", "pubkey", path("k1.json"), "-o", path("k1.pub")});
  ASSERT_EQ(pub.exitCode, 0) << pub.err;
  EXPECT_EQ(run({"vendor", "allowlist", "--revision", "1", path("k1.pub")}).out,
            readWhole(dir / "al1.json"));

  auto twice = run({"vendor", "allowlist", "--revision", "1", path("k1.pub"), path("k1.json")});
  EXPECT_EQ(twice.exitCode, 2);
  EXPECT_NE(twice.err.find("key id 'k1' twice"), std::string::npos) << twice.err;

  fs::permissions(dir / "k1.json", fs::perms::group_read, fs::perm_options::add);
  auto loose = run({"vendor", "allowlist", "--revision", "1", path("k1.json")});
  EXPECT_EQ(loose.exitCode, 0);
  EXPECT_NE(loose.err.find("private key readable by group or others (mode 0640)"),
            std::string::npos);
  EXPECT_EQ(run({"vendor", "allowlist", "--revision", "1", path("k1.json"), "-q"}).err, "");
  EXPECT_EQ(run({"vendor", "allowlist", "--revision", "1", path("k1.json"), "--strict"}).exitCode,
            2);
}

TEST_F(VendorCommandsTest, BadInputIsUsageNotRefusal) {
  writeFile(dir / "bad.json", "{");
  const std::vector<std::string> cases[] = {
      {"vendor", "allowlist", "--revision", "1", path("bad.json")},
      {"vendor", "verify", tree.string(), "--allowlist", path("none.json")},
      // Regression: a missing tree was 1 here and 2 in seal.
      {"vendor", "verify", path("none"), "--allowlist", path("al1.json")},
  };
  for (const auto& args : cases) EXPECT_EQ(run(args).exitCode, 2) << args.back();
  EXPECT_EQ(seal({"--type", "app"}).exitCode, 2);
  EXPECT_EQ(seal({"--metadata", "novalue"}).exitCode, 2);
  tree = dir / "none";
  EXPECT_EQ(seal().exitCode, 2);
  EXPECT_FALSE(fs::exists(dir / "tree/vendor"));
}

TEST_F(VendorCommandsTest, RotationRoundTrip) {
  auto rotation = run({"vendor", "rotate", "--current", path("al1.json"), "--new", path("al2.json"),
                       "--key", path("k1.json")});
  ASSERT_EQ(rotation.exitCode, 0) << rotation.err;
  writeFile(dir / "rotation.json", rotation.out);
  // -o may name the command's own input: it is replaced whole, after reading.
  writeFile(dir / "in-force.json", readWhole(dir / "al1.json"));
  auto applied = run({"vendor", "apply-rotation", path("rotation.json"), "--current",
                      path("in-force.json"), "-o", path("in-force.json")});
  EXPECT_EQ(applied.exitCode, 0) << applied.err;
  EXPECT_EQ(readWhole(dir / "in-force.json"), readWhole(dir / "al2.json"));

  auto selfSigned = run({"vendor", "rotate", "--current", path("al1.json"), "--new",
                         path("al2.json"), "--key", path("k2.json")});
  EXPECT_EQ(selfSigned.exitCode, 1);
  EXPECT_NE(selfSigned.err.find("keyId 'k2' no está en la allowlist vendor"), std::string::npos);
}

}  // namespace
}  // namespace tarskel::tool
