// The platform update on real trees: sealed with a key made here, judged
// against an allowlist written under a temporary state root, exchanged by the
// real system call. A scripted platform stands in only for a daemon that is
// not root and for an owner change that the system refuses.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "DaemonTestSupport.hpp"
#include "tarskel/daemon/PlatformApplyUpdateOp.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/Errors.hpp"
#include "tarskel/vendor/BundleSeal.hpp"
#include "tarskel/vendor/Ed25519.hpp"
#ifdef TARSKEL_DARWIN_SIM
#include "tarskel/darwinsim/DarwinSim.hpp"
#endif

namespace tarskel {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kStagingUser = 4321;

uid_t ownerOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_uid;
}

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

class PlatformUpdateTest : public testing::DaemonFixture {
 protected:
  void SetUp() override {
    root = dir.file("state");
    installed = dir.file("Applications/Tarskel.app");
    previous = dir.file("cache/previous/Tarskel.app");
    failed = dir.file("Tarskel-failed.app");
    fs::create_directories(root / "vendor");
    makeApp(installed, "1.0.0");
    provision();
  }

  static void makeApp(const fs::path& app, const std::string& version) {
    fs::create_directories(app / "Contents/MacOS");
    testing::writeFile(app / "Contents/MacOS/tarskel", "binary " + version);
    testing::writeFile(app / "Contents/version", version);
  }

  static std::string versionAt(const fs::path& app) {
    if (!fs::exists(app / "Contents/version")) return "";
    return testing::readFile(app / "Contents/version");
  }

  void provision() {
    VendorAllowlist allowlist{1, {key.vendorKey()}};
    testing::writeFile(allowlistPath(), TarskelJSON::canonicalEncoder().encode(allowlist));
  }

  fs::path allowlistPath() const { return root / "vendor/allowlist.json"; }

  std::size_t entriesBesideInstalled() const {
    const fs::directory_iterator entries(installed.parent_path());
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

  // A staged tree holding Tarskel.app at `version`, sealed, with its files
  // owned by an unprivileged user as a staging process would leave them.
  fs::path stage(const std::string& version, ArtifactType type = ArtifactType::platform,
                 double expiresIn = 3600) {
    fs::path staged = dir.file("staged-" + version);
    makeApp(staged / "Tarskel.app", version);
    BundleSeal::seal(staged, "net.hollowick.tarskel", type, version, 1,
                     Date{Date::now().secondsSinceReferenceDate + expiresIn}, key, std::nullopt);
    for (const auto& entry : fs::recursive_directory_iterator(staged)) {
      ::lchown(entry.path().c_str(), kStagingUser, kStagingUser);
    }
    return staged;
  }

  JSONObject swapArgs(const fs::path& staged, const std::string& appName = "Tarskel.app") const {
    return JSONObject{{"action", "swap"},
                      {"stagedRoot", staged.string()},
                      {"appName", appName},
                      {"installedApp", installed.string()},
                      {"previousPath", previous.string()}};
  }

  JSONObject rollbackArgs() const {
    return JSONObject{{"action", "rollback"},
                      {"installedApp", installed.string()},
                      {"previousPath", previous.string()},
                      {"failedPath", failed.string()}};
  }

  JSONValue run(const JSONObject& args) {
    DaemonOpContext context{{}, DaemonPeerVerdict::unverified("t")};
    return testing::runOn(pool, op->execute(args, context));
  }

  std::string failure(const JSONObject& args) {
    return testing::runOn(pool, testing::failureOf(*op, args));
  }

  Ed25519KeyPair key{"vendor-test"};
  fs::path root, installed, previous, failed;
  std::shared_ptr<testing::ScriptedPlatformFiles> platform =
      std::make_shared<testing::ScriptedPlatformFiles>();
  std::vector<std::string> logged;
  std::shared_ptr<PlatformApplyUpdateOp> op = std::make_shared<PlatformApplyUpdateOp>(
      dir.file("state"), platform,
      Logger("tarskeld", LogLevel::info, [this](std::string_view l) { logged.emplace_back(l); }));
};

const JSONValue kRolledBack(JSONObject{{"rolledback", true}});

// Regression: the install reset modes to 0644/0755 and dropped attributes,
// times and empty directories. The staged bundle is installed as it was, less
// group and other write, set-id bits and privileged attributes, as root's.
TEST_F(PlatformUpdateTest, SwapInstallsTheStagedBundleAsRootsOwn) {
  const fs::path staged = stage("2.0.0"), app = staged / "Tarskel.app";
  fs::create_directory(app / "Contents/PlugIns");
  const struct {
    const char* path;
    mode_t staged, installed;
  } modes[] = {{"Contents/MacOS/tarskel", 06777, 0755},
               {"Contents", 0777, 0755},
               {"Contents/version", 0600, 0600},
               {"Contents/MacOS", 0750, 0750},
               {"Contents/PlugIns", 01775, 01755}};
  const timespec times[2] = {{1'000'000'000, 7}, {1'000'000'000, 5000}};
  for (const auto& m : modes) {
    ASSERT_EQ(::chmod((app / m.path).c_str(), m.staged), 0);
    ASSERT_EQ(::setxattr((app / m.path).c_str(), "user.vendor", m.path, 4, 0), 0);
    ASSERT_EQ(::setxattr((app / m.path).c_str(), "trusted.grant", "t", 1, 0), 0);
    ASSERT_EQ(::utimensat(AT_FDCWD, (app / m.path).c_str(), times, 0), 0);
  }
#ifdef TARSKEL_DARWIN_SIM
  darwinsim::takeAccessControlWrites();
#endif

  EXPECT_EQ(run(swapArgs(staged, "Tarskel.app/")),
            JSONValue(JSONObject{{"swapped", true}, {"to", "2.0.0"}}));
  EXPECT_EQ(versionAt(installed), "2.0.0");
  EXPECT_EQ(versionAt(previous), "1.0.0");  // its directory did not exist before
  EXPECT_FALSE(fs::exists(app)) << "the candidate is gone";
  EXPECT_EQ(ownerOf(installed), 0u);
  for (const auto& m : modes) {  // every entry of the bundle
    SCOPED_TRACE(m.path);
    const fs::path at = installed / m.path;
    EXPECT_EQ(modeOf(at), m.installed);
    EXPECT_EQ(ownerOf(at), 0u);
    EXPECT_EQ(::getxattr(at.c_str(), "user.vendor", nullptr, 0), 4);
    EXPECT_EQ(::getxattr(at.c_str(), "trusted.grant", nullptr, 0), -1);
    struct stat info {};
    ::stat(at.c_str(), &info);
    EXPECT_EQ(info.st_mtim.tv_sec * 1'000'000'000 + info.st_mtim.tv_nsec,
              1'000'000'000'000'005'000);
  }
  EXPECT_EQ(entriesBesideInstalled(), 1u) << "nothing but the bundle is left beside it";
#ifdef TARSKEL_DARWIN_SIM
  // The extended ACL of the copy and of everything in it was replaced.
  const auto entries = std::distance(fs::recursive_directory_iterator(installed), {});
  EXPECT_EQ(darwinsim::takeAccessControlWrites().size(), static_cast<std::size_t>(entries) + 1);
#endif
}

// A daemon that is not root skips the owner change and still swaps; a
// rollback verifies nothing, so a damaged allowlist does not stop it.
TEST_F(PlatformUpdateTest, RollbackSwapsBackOnceEvenWithoutAnAllowlist) {
  platform->euid = 501;
  ASSERT_EQ(failure(swapArgs(stage("2.0.0"))), "");
  EXPECT_TRUE(platform->changed.empty());
  EXPECT_EQ(versionAt(installed), "2.0.0");
  testing::writeFile(allowlistPath(), "{");

  EXPECT_EQ(run(rollbackArgs()), kRolledBack);
  EXPECT_EQ(versionAt(installed), "1.0.0");
  EXPECT_EQ(versionAt(failed), "2.0.0");
  EXPECT_FALSE(fs::exists(previous));

  EXPECT_EQ(failure(rollbackArgs()), "sin versión anterior cacheada en " + previous.string());
}

TEST_F(PlatformUpdateTest, RefusedTreesMoveNothing) {
  struct Case {
    std::string name;
    std::function<void(const fs::path& staged)> tamper;  // after staging 2.0.0
    std::string expected;
    std::string appName = "Tarskel.app";
    bool exact = true;  // otherwise `expected` need only appear in the text
  };
  const std::string unprovisioned = "gate vendor del daemon sin provisionar (" +
                                    allowlistPath().string() +
                                    ") — root no intercambia lo que no puede verificar";
  auto restage = [&](ArtifactType type, double expiresIn) {
    return [=, this](const fs::path&) { stage("2.0.0", type, expiresIn); };
  };
  const std::string undecodable = testing::thrownText<DecodingError>(
      [] { TarskelJSON::decoder().decode<VendorAllowlist>(R"({"revision":1})"); });
  std::vector<Case> cases = {
      {"no allowlist", [&](auto&) { fs::remove(allowlistPath()); }, unprovisioned},
      {"allowlist that does not decode, not unprovisioned",
       [&](auto&) { testing::writeFile(allowlistPath(), R"({"revision":1})"); }, undecodable},
      {"expired seal", restage(ArtifactType::platform, -10), "manifest vencido: expiró ",
       "Tarskel.app", false},
      {"service artefact", restage(ArtifactType::service, 3600),
       "el artefacto staged no es de plataforma"},
      {"app name without .app",
       [&](auto& staged) {
         testing::writeFile(staged / "Tarskel", "x");
         BundleSeal::seal(staged, "a", ArtifactType::platform, "2.0.0", 1,
                          Date{Date::now().secondsSinceReferenceDate + 60}, key, std::nullopt);
       },
       "el artefacto verificado no trae Tarskel", "Tarskel"},
      {"app not in the tree", [](auto&) {}, "el artefacto verificado no trae Other.app",
       "Other.app"},
      {"previousPath holding installedApp", [&](auto&) { previous = installed.parent_path(); },
       "installedApp y previousPath no pueden coincidir ni contenerse: " + installed.string() +
           ", " + installed.parent_path().string()},
      // The walk runs on the copy, and a refusal mid-tree installs nothing.
      {"owner change refused",
       [&](auto&) { platform->refusedSuffix = "/Tarskel.app/Contents/MacOS"; },
       "/Contents/MacOS falló: errno 1", "Tarskel.app", false},
  };
  // An appName that is not one name of the sealed content never reaches the
  // seal: the seal's own directory, or a climb out of the tree.
  for (const std::string name : {"vendor/Evil.app", "vendor", ".", ".."}) {
    cases.push_back({"appName " + name,
                     [](auto& staged) {
                       makeApp(staged / "vendor/Evil.app", "6.6.6");
                       makeApp(staged / "../Evil.app", "6.6.6");
                     },
                     "appName debe ser un solo componente de ruta del contenido sellado (ni "
                     "vendor, ni ., ni ..): " +
                         name,
                     name});
  }
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.name);
    SetUp();
    platform->refusedSuffix.clear();
    makeApp(previous, "0.9.0");
    const fs::path staged = stage("2.0.0"), kept = previous;
    tc.tamper(staged);

    const std::string text = failure(swapArgs(staged, tc.appName));
    if (tc.exact) {
      EXPECT_EQ(text, tc.expected);
    } else {
      EXPECT_NE(text.find(tc.expected), std::string::npos) << text;
    }
    EXPECT_EQ(versionAt(installed), "1.0.0");
    EXPECT_EQ(versionAt(kept), "0.9.0");
    EXPECT_EQ(versionAt(staged / "Tarskel.app"), "2.0.0");
    EXPECT_EQ(ownerOf(staged / "Tarskel.app"), kStagingUser);
    EXPECT_EQ(entriesBesideInstalled(), 1u) << "no workspace left behind";
    fs::remove_all(dir.path());
    fs::create_directory(dir.path());
  }
  // Regression: the damaged allowlist's file was named nowhere. The answer
  // keeps the decoder's text (a weak key is refused by that same decoder);
  // the log names the file.
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_NE(logged[0].find(" error tarskeld : [tarskeld] platform.applyUpdate: the machine "
                           "allowlist " +
                           allowlistPath().string() + " does not decode: " + undecodable + "\n"),
            std::string::npos)
      << logged[0];
}

TEST_F(PlatformUpdateTest, ArgumentsThatNameNoAction) {
  const std::pair<const char*, std::string> cases[] = {
      {R"({"action":"swap","installedApp":"/Applications/Tarskel.APP","previousPath":"/p"})",
       "installedApp debe ser un bundle .app: /Applications/Tarskel.APP"},
      {R"({"action":"rollback","installedApp":"Tarskel.app/","previousPath":"/p"})",
       "rollback exige failedPath"},
      {R"({"action":"swap","installedApp":"/A/T.app","previousPath":"/p","appName":"T.app"})",
       "swap exige stagedRoot y appName"},
      {R"({"action":"Swap","installedApp":"/A/T.app","previousPath":"/p"})", "action desconocida"},
      {R"({"action":"rollback","installedApp":"/A/T.app","previousPath":"/p","failedPath":"/A"})",
       "installedApp y failedPath no pueden coincidir ni contenerse: /A/T.app, /A"},
      {R"({"action":"swap","installedApp":"/A/T.app","previousPath":"/A/T.app/..",)"
       R"("stagedRoot":"/s","appName":"T.app/"})",
       "installedApp y previousPath no pueden coincidir ni contenerse: /A/T.app, /A/T.app/.."},
  };
  for (const auto& [args, expected] : cases) {
    SCOPED_TRACE(args);
    EXPECT_EQ(failure(TarskelJSON::decoder().decode<JSONObject>(args)), expected);
  }
}

TEST_F(PlatformUpdateTest, MissingInstallationIsRefusedByTheExchange) {
  for (const fs::path& gone : {installed, installed.parent_path()}) {  // regression: the latter
    SCOPED_TRACE(gone);
    makeApp(previous, "0.9.0");
    fs::remove_all(gone);
    EXPECT_EQ(failure(rollbackArgs()), "rollback renamex_np falló: errno 2");
    EXPECT_EQ(versionAt(previous), "0.9.0");

    // A swap gives up the kept version before it learns that nothing is there.
    const fs::path staged = stage("2.0.0");
    EXPECT_EQ(failure(swapArgs(staged)), "renamex_np(RENAME_SWAP) falló: errno 2");
    EXPECT_FALSE(fs::exists(previous));
    EXPECT_FALSE(fs::exists(installed));
  }
}

TEST_F(PlatformUpdateTest, UnkeptOldVersionGoesToTheCandidateAndCannotBeRolledBack) {
  // previousPath's parent is a file, so the old version can't be kept there,
  // yet the update has taken effect. The old version is where the staged one
  // was (regression: it stayed hidden beside the installed bundle).
  previous = dir.file("blocker/Tarskel.app");
  testing::writeFile(dir.file("blocker"), "");
  const fs::path staged = stage("2.0.0");

  EXPECT_EQ(run(swapArgs(staged)), JSONValue(JSONObject{{"swapped", true}, {"to", "2.0.0"}}));
  EXPECT_EQ(versionAt(installed), "2.0.0");
  EXPECT_EQ(versionAt(staged / "Tarskel.app"), "1.0.0");
  EXPECT_EQ(failure(rollbackArgs()), "sin versión anterior cacheada en " + previous.string());
}

// A stager that keeps changing its tree while updates run: renames an
// unverified bundle in and out, swaps a file for a link to a file outside,
// opens every mode. Whatever the timing, only the sealed bytes are ever
// installed, and nothing outside the tree is touched.
TEST_F(PlatformUpdateTest, RacingStagerNeverGetsUnverifiedBytesInstalled) {
  const fs::path staged = stage("2.0.0");
  const fs::path app = staged / "Tarskel.app";
  const fs::path binary = app / "Contents/MacOS/tarskel";
  makeApp(dir.file("evil/Tarskel.app"), "6.6.6");
  const fs::path outside = dir.file("outside/secret");
  testing::writeFile(outside, "secret");
  ::chmod(outside.c_str(), 0600);
  ::lchown(outside.c_str(), kStagingUser + 1, kStagingUser + 1);

  std::atomic<bool> stop{false};
  std::thread stager([&] {
    std::error_code e;
    for (unsigned i = 0; !stop; ++i) {
      switch (i % 3) {
        case 0:  // the genuine bundle out, an unverified one in, and back
          fs::rename(app, dir.file("parked.app"), e);
          fs::rename(dir.file("evil/Tarskel.app"), app, e);
          std::this_thread::yield();
          fs::rename(app, dir.file("evil/Tarskel.app"), e);
          fs::rename(dir.file("parked.app"), app, e);
          break;
        case 1:  // the binary becomes a link out of the tree, then itself again
          fs::rename(binary, dir.file("parked-binary"), e);
          fs::create_symlink(outside, binary, e);
          std::this_thread::yield();
          fs::remove(binary, e);
          fs::rename(dir.file("parked-binary"), binary, e);
          break;
        default:
          ::chmod(binary.c_str(), 06777);
          ::chmod(app.c_str(), 0777);
          break;
      }
      // Quiet spells of varying length, so that some updates also get through.
      std::this_thread::sleep_for(std::chrono::microseconds(200 * (i % 16)));
    }
  });
  int installedCount = 0;
  for (int round = 0; round < 40; ++round) {
    const std::string text = failure(swapArgs(staged));
    if (text.empty()) {  // a swap removes the candidate: staged again, out of the stager's way
      makeApp(dir.file("restaged.app"), "2.0.0");
      ::rename(dir.file("restaged.app").c_str(), app.c_str());
    }
    installedCount += text.empty();
    const std::string now = testing::readFile(installed / "Contents/MacOS/tarskel");
    EXPECT_TRUE(now == "binary 2.0.0" || now == "binary 1.0.0") << round << ": " << now << text;
    EXPECT_EQ(modeOf(installed) & 07022, 0u);
    EXPECT_EQ(modeOf(installed / "Contents/MacOS/tarskel") & 07022, 0u);
  }
  stop = true;
  stager.join();
  EXPECT_GT(installedCount, 0);
  EXPECT_EQ(testing::readFile(outside), "secret");
  EXPECT_EQ(ownerOf(outside), kStagingUser + 1);
  EXPECT_EQ(modeOf(outside), 0600u);
}

}  // namespace
}  // namespace tarskel
