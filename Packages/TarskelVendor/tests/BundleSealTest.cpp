#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/vendor/BundleSeal.hpp"
#include "tarskel/vendor/VendorHashing.hpp"

namespace tarskel {

void PrintTo(const SealError& e, std::ostream* os) { *os << e.what(); }
void PrintTo(const HashManifest& m, std::ostream* os) { *os << TarskelJSON::encoder().encode(m); }

namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;
using Kind = SealError::Kind;

class BundleSealTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = temp.path() / "staged";
    writeFile(root / "App.app/Contents/Info.plist", "<plist/>");
    writeFile(root / "App.app/Contents/MacOS/App", std::string(300000, 'x'));
    writeFile(root / "README", "léame");
    writeFile(root / "lib/a/b/c.txt", "deep");
  }

  HashManifest seal(double expiresIn = 3600, std::int64_t monotonic = 5) {
    return BundleSeal::seal(root, "net.example.platform", ArtifactType::platform, "2.0", monotonic,
                            Date{now.secondsSinceReferenceDate + expiresIn}, pair, std::nullopt);
  }

  HashManifest verify(std::optional<std::int64_t> installed = std::nullopt,
                      const SealHashing& hashing = {}) {
    return BundleSeal::verify(root, verification, allowlist, installed, false, hashing);
  }

  // The error verify throws, or a failed expectation.
  SealError verifyError(std::optional<std::int64_t> installed = std::nullopt,
                        const SealHashing& hashing = {}) {
    try {
      verify(installed, hashing);
    } catch (const SealError& e) {
      return e;
    }
    ADD_FAILURE() << "verify accepted the tree";
    return SealError::unreadableManifest("accepted");
  }

  // A manifest of our own making, signed by the vendor key, as if a vendor
  // had been careless or hostile.
  void writeSignedManifest(const HashManifest& manifest) {
    const std::string bytes = TarskelJSON::canonicalEncoder().encode(manifest);
    writeFile(root / BundleSeal::manifestFile, bytes);
    writeFile(root / BundleSeal::signatureFile, TarskelJSON::encoder().encode(pair.sign(bytes)));
  }

  testing::TempDirectory temp;
  fs::path root;
  // Whole seconds, as the manifest's JSON keeps them.
  Date now{std::floor(Date::now().secondsSinceReferenceDate)};
  Ed25519KeyPair pair{"vendor-2026"};
  VendorAllowlist allowlist{1, {pair.vendorKey()}};
  VendorVerification verification{std::make_shared<Ed25519Algorithm>(), [this] { return now; }};
};

TEST_F(BundleSealTest, SealWritesCanonicalSortedManifestThatVerifies) {
  HashManifest written = seal();
  std::vector<std::string> paths;
  for (const auto& f : written.files) paths.push_back(f.path);
  EXPECT_EQ(paths,
            (std::vector<std::string>{"App.app/Contents/Info.plist", "App.app/Contents/MacOS/App",
                                      "README", "lib/a/b/c.txt"}));
  EXPECT_EQ(written.files[2].sha256, VendorHashing::sha256Hex("léame"));

  const std::string onDisk = readFile(root / BundleSeal::manifestFile);
  EXPECT_EQ(onDisk, TarskelJSON::canonicalEncoder().encode(written));
  EXPECT_NE(onDisk.back(), '\n');
  EXPECT_NE(onDisk.find(R"("App.app\/Contents\/Info.plist")"), std::string::npos);
  auto signature =
      TarskelJSON::decoder().decode<VendorSignature>(readFile(root / BundleSeal::signatureFile));
  EXPECT_EQ(signature.keyId, "vendor-2026");
  EXPECT_EQ(base64Decode(signature.signature)->size(), 64u);

  EXPECT_EQ(verify(), written);
  EXPECT_EQ(seal().files, written.files) << "a second seal must not cover the first";
}

// Each attack starts from a freshly sealed tree.
TEST_F(BundleSealTest, AttackTable) {
  const fs::path outside = temp.path() / "outside";
  writeFile(outside, "secret");
  const struct {
    const char* name;
    std::function<void()> attack;
    SealError expected;
  } cases[] = {
      {"changed byte", [&] { writeFile(root / "lib/a/b/c.txt", "deeP"); },
       SealError::hashMismatch("lib/a/b/c.txt")},
      {"added file", [&] { writeFile(root / "extra", ""); }, SealError::unexpectedFile("extra")},
      {"added hidden file, deep", [&] { writeFile(root / "App.app/Contents/.hidden", "h"); },
       SealError::unexpectedFile("App.app/Contents/.hidden")},
      {"removed file", [&] { fs::remove(root / "README"); }, SealError::fileMissing("README")},
      {"symbolic link", [&] { fs::create_symlink("README", root / "lib/link"); },
       SealError::notRegularFile("lib/link")},
      {"dangling symbolic link", [&] { fs::create_symlink("/nowhere/at/all", root / "zz"); },
       SealError::notRegularFile("zz")},
      {"file replaced by a link to a good copy",
       [&] {
         fs::rename(root / "README", temp.path() / "README");
         fs::create_symlink(temp.path() / "README", root / "README");
       },
       SealError::notRegularFile("README")},
      {"named pipe", [&] { ::mkfifo((root / "lib/pipe").c_str(), 0600); },
       SealError::notRegularFile("lib/pipe")},
      {"listed path climbing out",
       [&] {
         HashManifest m = seal();
         m.files.insert(m.files.begin(), {"../outside", VendorHashing::sha256Hex("secret")});
         writeSignedManifest(m);
       },
       SealError::fileMissing("../outside")},
      {"listed path under vendor",
       [&] {
         HashManifest m = seal();
         writeFile(root / "vendor/payload", "p");
         m.files.push_back({"vendor/payload", VendorHashing::sha256Hex("p")});
         writeSignedManifest(m);
       },
       SealError::fileMissing("vendor/payload")},
      {"manifest with one byte appended",
       [&] {
         std::ofstream(root / BundleSeal::manifestFile, std::ios::app) << "\n";
         fs::remove(root / "README");  // content is never reached
       },
       SealError::verification({VendorVerificationError::badSignature("vendor-2026")})},
      {"signature from an unknown key",
       [&] {
         Ed25519KeyPair stranger("vendor-2026-b");
         writeFile(root / BundleSeal::signatureFile,
                   TarskelJSON::encoder().encode(
                       stranger.sign(readFile(root / BundleSeal::manifestFile))));
       },
       SealError::verification({VendorVerificationError::unknownKey("vendor-2026-b")})},
      {"signature from another key under the trusted id",
       [&] {
         Ed25519KeyPair impostor("vendor-2026");
         writeFile(root / BundleSeal::signatureFile,
                   TarskelJSON::encoder().encode(
                       impostor.sign(readFile(root / BundleSeal::manifestFile))));
       },
       SealError::verification({VendorVerificationError::badSignature("vendor-2026")})},
      {"signature text with a line break",
       [&] {
         auto sig = pair.sign(readFile(root / BundleSeal::manifestFile));
         sig.signature.insert(44, "\n");
         writeFile(root / BundleSeal::signatureFile, TarskelJSON::encoder().encode(sig));
       },
       SealError::verification({VendorVerificationError::malformedSignature()})},
      {"public key of 31 bytes",
       [&] {
         allowlist.keys[0].publicKey =
             base64Encode(base64Decode(allowlist.keys[0].publicKey)->substr(1));
       },
       SealError::verification({VendorVerificationError::badSignature("vendor-2026")})},
      {"manifest expiring exactly now", [&] { seal(0); },
       SealError::verification({VendorVerificationError::expired(now, now)})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    allowlist = {1, {pair.vendorKey()}};
    seal();
    c.attack();
    EXPECT_EQ(verifyError(), c.expected) << verifyError().what();
    fs::remove_all(root);
  }
}

TEST_F(BundleSealTest, OlderVersionIsRefusedOnlyWhenAnInstalledOneIsGiven) {
  seal(3600, 4);
  EXPECT_EQ(verifyError(5), SealError::verification({VendorVerificationError::downgrade(5, 4)}));
  EXPECT_NO_THROW(verify(4));
  EXPECT_NO_THROW(verify());
  EXPECT_NO_THROW(BundleSeal::verify(root, verification, allowlist, 5, true));
}

TEST_F(BundleSealTest, VerificationFindingsAreJoined) {
  seal(-10);
  allowlist.keys[0].keyId = "other";
  SealError e = verifyError();
  EXPECT_EQ(e.verificationErrors().size(), 2u);
  EXPECT_EQ(std::string(e.what()),
            "verificación vendor: keyId 'vendor-2026' no está en la allowlist vendor; " +
                std::string(e.verificationErrors()[1].what()));
}

TEST_F(BundleSealTest, UnreadableSeals) {
  const struct {
    const char* name;
    std::function<void()> damage;
  } cases[] = {
      {"no vendor directory", [&] { fs::remove_all(root / "vendor"); }},
      {"no signature", [&] { fs::remove(root / BundleSeal::signatureFile); }},
      {"raw bytes as signature",
       [&] { writeFile(root / BundleSeal::signatureFile, std::string(64, '\x07')); }},
      {"invalid JSON manifest", [&] { writeFile(root / BundleSeal::manifestFile, "{\"files\":"); }},
      {"manifest of another shape", [&] { writeFile(root / BundleSeal::manifestFile, "[]"); }},
      {"manifest is a directory",
       [&] {
         fs::remove(root / BundleSeal::manifestFile);
         fs::create_directory(root / BundleSeal::manifestFile);
       }},
      {"manifest is a link",
       [&] {
         fs::rename(root / BundleSeal::manifestFile, temp.path() / "m.json");
         fs::create_symlink(temp.path() / "m.json", root / BundleSeal::manifestFile);
       }},
      {"manifest is a named pipe",
       [&] {
         fs::remove(root / BundleSeal::manifestFile);
         ::mkfifo((root / BundleSeal::manifestFile).c_str(), 0600);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    seal();
    c.damage();
    EXPECT_EQ(verifyError().kind(), Kind::unreadableManifest);
    fs::remove_all(root);
  }
}

TEST_F(BundleSealTest, WhatIsNotContent) {
  fs::create_directories(root / "empty/nested");
  seal();
  writeFile(root / "vendor/notes.txt", "not covered");
  fs::create_symlink("/nowhere", root / "vendor/link");
  fs::create_directories(root / "another-empty");
  EXPECT_NO_THROW(verify());
}

TEST_F(BundleSealTest, EmptyBundleSealsAndVerifies) {
  fs::remove_all(root);
  fs::create_directories(root);
  EXPECT_TRUE(seal().files.empty());
  EXPECT_TRUE(verify().files.empty());
}

// A changed, a missing and an extra file at once: the first fault in manifest
// order wins, however many threads hash, and extras only count at the end.
TEST_F(BundleSealTest, FirstFaultInManifestOrderWhateverTheThreads) {
  for (int i = 0; i < 40; ++i)
    writeFile(root / "many" / std::to_string(100 + i), std::to_string(i));
  seal();
  writeFile(root / "many/120", "changed");
  fs::remove(root / "many/130");
  writeFile(root / "0-extra", "");
  writeFile(root / "1-extra", "");
  std::size_t calls = 0;
  for (unsigned threads : {1u, 2u, 3u, 8u}) {
    SCOPED_TRACE(threads);
    SealHashing hashing{threads, [&](std::size_t done, std::size_t total) {
                          ++calls;
                          EXPECT_LE(done, total);
                        }};
    EXPECT_EQ(verifyError(std::nullopt, hashing), SealError::hashMismatch("many/120"));
  }
  EXPECT_GT(calls, 0u);
  writeFile(root / "many/120", "20");
  EXPECT_EQ(verifyError(), SealError::fileMissing("many/130"));
  writeFile(root / "many/130", "30");
  EXPECT_EQ(verifyError(), SealError::unexpectedFile("0-extra"));
}

TEST_F(BundleSealTest, DuplicatedListedPathVerifies) {
  HashManifest m = seal();
  m.files.push_back(m.files.front());
  writeSignedManifest(m);
  EXPECT_EQ(verify().files.size(), 5u);
}

TEST_F(BundleSealTest, ContentEntriesIgnoreHowTheRootIsSpelled) {
  const auto expected = BundleSeal::contentEntries(root);
  ASSERT_EQ(expected.size(), 4u);
  EXPECT_EQ(BundleSeal::contentEntries(root.string() + "/"), expected);
  EXPECT_EQ(BundleSeal::contentEntries(root / "lib" / ".." / "."), expected);
  EXPECT_TRUE(BundleSeal::contentEntries(temp.path() / "absent").empty());
}

TEST_F(BundleSealTest, SealRefusesLinksAndLeavesNoSeal) {
  fs::create_symlink("/nowhere", root / "App.app/Contents/dangling");
  try {
    seal();
    FAIL() << "sealed a tree with a link";
  } catch (const SealError& e) {
    EXPECT_EQ(e, SealError::notRegularFile("App.app/Contents/dangling"));
  }
  EXPECT_FALSE(fs::exists(root / BundleSeal::manifestFile));
}

// Regression: names were sorted by raw bytes, so "e" + U+0302 came first,
// though its NFC form (U+00EA) comes after "f" and after U+00E9.
TEST_F(BundleSealTest, ContentIsOrderedByScalarsOfTheNormalisedName) {
  fs::remove_all(root);
  for (const char* name : {"f", "e\xCC\x82",
                           "\xC3\xA9"
                           "b"})
    writeFile(root / name, name);
  const std::vector<std::string> expected{"f",
                                          "\xC3\xA9"
                                          "b",
                                          "e\xCC\x82"};
  EXPECT_EQ(BundleSeal::contentEntries(root), expected);

  HashManifest m = seal();
  m.files.erase(m.files.begin() + 1, m.files.end());
  writeSignedManifest(m);
  EXPECT_EQ(verifyError(), SealError::unexpectedFile(expected[1]));
}

// Regression: a name that is not UTF-8 sealed into a manifest no reader takes.
TEST_F(BundleSealTest, SealRefusesANameThatIsNotUTF8) {
  writeFile(root /
                "a\xFF"
                "b",
            "x");
  try {
    seal();
    FAIL() << "sealed a name that is not UTF-8";
  } catch (const EncodingError& e) {
    EXPECT_STREQ(e.what(), "invalidValue: nombre de archivo que no es UTF-8 válido: a\\xffb");
  }
  EXPECT_FALSE(fs::exists(root / BundleSeal::manifestFile));
}

TEST(SealErrorTest, Texts) {
  const struct {
    SealError error;
    const char* text;
  } cases[] = {
      {SealError::unreadableManifest("x"), "hash-manifest ilegible: x"},
      {SealError::fileMissing("a/b"), "archivo del manifest ausente en el bundle: a/b"},
      {SealError::hashMismatch("a/b"), "sha256 no coincide: a/b"},
      {SealError::unexpectedFile("a/b"), "archivo presente pero no listado en el manifest: a/b"},
      {SealError::notRegularFile("a/b"), "no es un archivo regular (symlinks no permitidos): a/b"},
      {SealError::verification({VendorVerificationError::malformedSignature()}),
       "verificación vendor: firma malformada (base64 inválido)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_STREQ(c.error.what(), c.text);
  }
}

}  // namespace
}  // namespace tarskel
