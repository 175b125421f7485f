#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/Errors.hpp"
#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/vendor/BundleSeal.hpp"
#include "tarskel/vendor/VendorHashing.hpp"

namespace tarskel {

void PrintTo(const HashManifest& m, std::ostream* os) { *os << TarskelJSON::encoder().encode(m); }

namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;

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

  // The text of the error verify throws, or "no error".
  std::string verifyError(std::optional<std::int64_t> installed = std::nullopt,
                          const SealHashing& hashing = {}) {
    return testing::thrownText<Error>([&] { verify(installed, hashing); });
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

  EXPECT_EQ(readFile(root / BundleSeal::manifestFile),
            TarskelJSON::canonicalEncoder().encode(written));
  EXPECT_EQ(verify(), written);
  EXPECT_EQ(seal().files, written.files) << "a second seal must not cover the first";
}

// Each attack starts from a freshly sealed tree; the texts are the system's own.
// The signature's own faults are VendorVerification's and Ed25519's tables;
// here, that the seal hands over its exact bytes and the allowlist (the
// installed version's wiring is the tool's `vendor verify` table).
TEST_F(BundleSealTest, AttackTable) {
  const fs::path manifestFile = root / BundleSeal::manifestFile;
  const fs::path signatureFile = root / BundleSeal::signatureFile;
  const std::string unreadable = "hash-manifest ilegible: ";
  const fs::path outside = temp.path() / "outside";
  writeFile(outside, "secret");
  const auto resign = [&](const Ed25519KeyPair& key) {
    const VendorSignature sig = key.sign(readFile(root / BundleSeal::manifestFile));
    writeFile(root / BundleSeal::signatureFile, TarskelJSON::encoder().encode(sig));
  };
  const auto listAlso = [&](const std::string& path, const std::string& content) {
    HashManifest m = seal();
    m.files.insert(m.files.begin(), {path, VendorHashing::sha256Hex(content)});
    writeSignedManifest(m);
  };
  const std::string badSignature =
      "verificación vendor: la firma no verifica bajo la clave 'vendor-2026'";
  const struct {
    const char* name;
    std::function<void()> attack;
    std::string text;
  } cases[] = {
      {"changed byte", [&] { writeFile(root / "lib/a/b/c.txt", "deeP"); },
       "sha256 no coincide: lib/a/b/c.txt"},
      {"added file", [&] { writeFile(root / "extra", ""); },
       "archivo presente pero no listado en el manifest: extra"},
      {"removed file", [&] { fs::remove(root / "README"); },
       "archivo del manifest ausente en el bundle: README"},
      {"symbolic link", [&] { fs::create_symlink("README", root / "lib/link"); },
       "no es un archivo regular (symlinks no permitidos): lib/link"},
      {"file replaced by a link to a good copy",
       [&] {
         fs::rename(root / "README", temp.path() / "README");
         fs::create_symlink(temp.path() / "README", root / "README");
       },
       "no es un archivo regular (symlinks no permitidos): README"},
      {"named pipe", [&] { ::mkfifo((root / "lib/pipe").c_str(), 0600); },
       "no es un archivo regular (symlinks no permitidos): lib/pipe"},
      {"listed path climbing out", [&] { listAlso("../outside", "secret"); },
       "archivo del manifest ausente en el bundle: ../outside"},
      {"listed path under vendor",
       [&] {
         writeFile(root / "vendor/payload", "p");
         listAlso("vendor/payload", "p");
       },
       "archivo del manifest ausente en el bundle: vendor/payload"},
      {"manifest with one byte appended",
       [&] {
         std::ofstream(root / BundleSeal::manifestFile, std::ios::app) << "\n";
         fs::remove(root / "README");  // content is never reached
       },
       badSignature},
      {"unknown key on an expired manifest: every finding, joined",
       [&] {
         seal(-10);
         resign(Ed25519KeyPair("vendor-2026-b"));
       },
       "verificación vendor: keyId 'vendor-2026-b' no está en la allowlist vendor; " +
           std::string(
               VendorVerificationError::expired(Date{now.secondsSinceReferenceDate - 10}, now)
                   .what())},
      {"manifest expiring exactly now", [&] { seal(0); },
       SealError::verification({VendorVerificationError::expired(now, now)}).what()},
      // Seals that can't be read: the text goes on with the cause.
      {"no signature", [&] { fs::remove(root / BundleSeal::signatureFile); }, unreadable},
      {"raw bytes as signature", [&] { writeFile(signatureFile, std::string(64, '\x07')); },
       unreadable},
      {"invalid JSON manifest", [&] { writeFile(manifestFile, "{\"files\":"); }, unreadable},
      {"manifest is a link",
       [&] {
         fs::rename(manifestFile, temp.path() / "m.json");
         fs::create_symlink(temp.path() / "m.json", manifestFile);
       },
       unreadable},
      {"manifest is a named pipe",
       [&] {
         fs::remove(manifestFile);
         ::mkfifo(manifestFile.c_str(), 0600);
       },
       unreadable},
      // Trees that would cost memory or time without end: refused at a bound.
      {"manifest of 250 MiB", [&] { fs::resize_file(manifestFile, std::uintmax_t{250} << 20); },
       "el hash-manifest supera el tope de 8388608 bytes"},
      {"manifest listing too many files",
       [&] {
         HashManifest m = seal();
         m.files.resize(BundleSeal::maxFiles + 1, m.files.front());
         writeSignedManifest(m);
       },
       "el hash-manifest lista más de 65536 archivos"},
      {"content of too many files",
       [&] {
         fs::create_directory(root / "many");
         for (std::size_t i = 0; i < BundleSeal::maxFiles; ++i)
           std::ofstream(root / "many" / std::to_string(i));
       },
       "el contenido supera el tope de 65536 entradas"},
      {"listed file grown to 8 TiB (sparse)",
       [&] { fs::resize_file(root / "README", std::uintmax_t{1} << 43); },
       "trabajo abandonado: más de 67108864 bytes leídos"}};
  const auto peakKiB = [] {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
  };
  [[maybe_unused]] const long before = peakKiB();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    allowlist = {1, {pair.vendorKey()}};
    seal();
    c.attack();
    WorkBudget budget({.bytes = std::uint64_t{64} << 20});
    const std::string text = verifyError(std::nullopt, {.budget = &budget});
    EXPECT_EQ(c.text == unreadable ? text.substr(0, unreadable.size()) : text, c.text);
    fs::remove_all(root);
  }
  // Whatever a tree holds, verifying it costs a few tens of megabytes (the
  // sanitizers' own bookkeeping would be measured too).
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(peakKiB() - before, 64 * 1024);
#endif
}

// Empty directories and anything under vendor/ are no content; a path listed
// twice is checked twice; the root's spelling does not matter.
TEST_F(BundleSealTest, WhatIsNotContent) {
  const auto entries = BundleSeal::contentEntries(root);
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(BundleSeal::contentEntries(root.string() + "/"), entries);
  EXPECT_EQ(BundleSeal::contentEntries(root / "lib" / ".." / "."), entries);
  EXPECT_TRUE(BundleSeal::contentEntries(temp.path() / "absent").empty());
  fs::create_directories(root / "empty/nested");
  HashManifest m = seal();
  writeFile(root / "vendor/notes.txt", "not covered");
  fs::create_symlink("/nowhere", root / "vendor/link");
  fs::create_directories(root / "another-empty");
  m.files.push_back(m.files.front());
  writeSignedManifest(m);
  EXPECT_EQ(verify().files.size(), 5u);

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
    EXPECT_EQ(verifyError(std::nullopt, hashing), SealError::hashMismatch("many/120").what());
  }
  EXPECT_GT(calls, 0u);
  writeFile(root / "many/120", "20");
  EXPECT_EQ(verifyError(), SealError::fileMissing("many/130").what());
  writeFile(root / "many/130", "30");
  EXPECT_EQ(verifyError(), SealError::unexpectedFile("0-extra").what());
}

// Regression: names were sorted by raw bytes, so "e" + U+0302 came first,
// though its NFC form (U+00EA) comes after "f" and after U+00E9.
TEST_F(BundleSealTest, ContentIsOrderedByScalarsOfTheNormalisedName) {
  fs::remove_all(root);
  const std::vector<std::string> expected{"f", "\u00e9b", "e\u0302"};
  for (const std::string& name : expected) writeFile(root / name, name);
  EXPECT_EQ(BundleSeal::contentEntries(root), expected);

  HashManifest m = seal();
  m.files.erase(m.files.begin() + 1, m.files.end());
  writeSignedManifest(m);
  EXPECT_EQ(verifyError(), SealError::unexpectedFile(expected[1]).what());
}

// A tree with a link, or (regression) a name that is not UTF-8 and would seal
// into a manifest no reader takes: refused, and no seal is left.
TEST_F(BundleSealTest, SealRefusesWhatItCannotCoverAndLeavesNoSeal) {
  const std::pair<std::string, std::string> cases[] = {
      {"App.app/Contents/dangling",
       "no es un archivo regular (symlinks no permitidos): "
       "App.app/Contents/dangling"},
      {"a\xFF"
       "b",
       "invalidValue: nombre de archivo que no es UTF-8 válido: a\\xffb"}};
  for (const auto& [name, text] : cases) {
    SCOPED_TRACE(text);
    SetUp();
    if (name.starts_with("App"))
      fs::create_symlink("/nowhere", root / name);
    else
      writeFile(root / name, "x");
    EXPECT_EQ(testing::thrownText([&] { seal(); }), text);
    EXPECT_FALSE(fs::exists(root / BundleSeal::manifestFile));
    fs::remove_all(root);
  }
}

}  // namespace
}  // namespace tarskel
