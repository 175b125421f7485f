// The platform update on real trees: sealed with a key made here, judged
// against an allowlist written under a temporary state root, exchanged by the
// real system call. A scripted platform stands in only for a daemon that is
// not root and for an owner change that the system refuses.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "DaemonTestSupport.hpp"
#include "tarskel/daemon/PlatformApplyUpdateOp.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/vendor/BundleSeal.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kStagingUser = 4321;

// The system's calls, except for who the daemon runs as and, for one path,
// an owner change that fails.
class ScriptedPlatform final : public PlatformFiles {
 public:
  int exchange(const fs::path& a, const fs::path& b) const override {
    return PlatformFiles::system()->exchange(a, b);
  }
  std::optional<fs::path> executablePath() const override { return std::nullopt; }
  uid_t effectiveUserId() const override { return euid; }
  int changeOwnerToRootWheel(const fs::path& path) const override {
    changed.push_back(path);
    if (path == refusedPath) return EPERM;
    return PlatformFiles::system()->changeOwnerToRootWheel(path);
  }

  uid_t euid = 0;
  fs::path refusedPath;
  mutable std::vector<fs::path> changed;  // one swap at a time in these tests
};

// The text of the error that running `op` on `args` ends in, or "" on
// success. Caught where it is thrown, on the pool, so that no exception
// object is shared between threads.
boost::asio::awaitable<std::string> failureOf(const DaemonOp& op, JSONObject args) {
  const DaemonOpContext context{{}, DaemonPeerVerdict::unverified("t")};
  try {
    JSONValue ignored = co_await op.execute(args, context);
  } catch (const std::exception& e) {
    co_return std::string(e.what());
  }
  co_return std::string();
}

// What the decoder says of `bytes` as an allowlist.
std::string decodingFailure(const std::string& bytes) {
  try {
    TarskelJSON::decoder().decode<VendorAllowlist>(bytes);
  } catch (const DecodingError& e) {
    return e.what();
  }
  return "decoded";
}

uid_t ownerOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_uid;
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

  // A bundle whose version is told by one file inside it.
  static void makeApp(const fs::path& app, const std::string& version) {
    fs::create_directories(app / "Contents/MacOS");
    testing::writeFile(app / "Contents/MacOS/tarskel", "binary " + version);
    testing::writeFile(app / "Contents/version", version);
  }

  // The version of the bundle at `app`, or "" when there is none.
  static std::string versionAt(const fs::path& app) {
    if (!fs::exists(app / "Contents/version")) return "";
    return testing::readFile(app / "Contents/version");
  }

  void provision() {
    VendorAllowlist allowlist{1, {key.vendorKey()}};
    testing::writeFile(allowlistPath(), TarskelJSON::canonicalEncoder().encode(allowlist));
  }

  fs::path allowlistPath() const { return root / "vendor/allowlist.json"; }

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

  // The text of the error that `args` end in, or "" on success.
  std::string failure(const JSONObject& args) {
    return testing::runOn(pool, failureOf(*op, args));
  }

  Ed25519KeyPair key{"vendor-test"};
  fs::path root, installed, previous, failed;
  std::shared_ptr<ScriptedPlatform> platform = std::make_shared<ScriptedPlatform>();
  std::shared_ptr<PlatformApplyUpdateOp> op =
      std::make_shared<PlatformApplyUpdateOp>(dir.file("state"), platform);
};

const JSONValue kRolledBack(JSONObject{{"rolledback", true}});

TEST_F(PlatformUpdateTest, SwapInstallsTheSealedBundleAndKeepsTheOldOne) {
  fs::path staged = stage("2.0.0");

  EXPECT_EQ(run(swapArgs(staged)), JSONValue(JSONObject{{"swapped", true}, {"to", "2.0.0"}}));
  EXPECT_EQ(versionAt(installed), "2.0.0");
  EXPECT_EQ(versionAt(previous), "1.0.0");  // its directory did not exist before
  EXPECT_FALSE(fs::exists(staged / "Tarskel.app"));
  // Only the bundle is handed to root; the seal beside it stays as staged.
  for (const auto& entry : fs::recursive_directory_iterator(installed)) {
    EXPECT_EQ(ownerOf(entry.path()), 0u) << entry.path();
  }
  EXPECT_EQ(ownerOf(installed), 0u);
  EXPECT_EQ(ownerOf(staged / "vendor/manifest.json"), kStagingUser);
}

TEST_F(PlatformUpdateTest, RollbackSwapsBackOnceEvenWithoutAnAllowlist) {
  ASSERT_EQ(failure(swapArgs(stage("2.0.0"))), "");
  // A rollback verifies nothing, so a damaged allowlist does not stop it.
  testing::writeFile(allowlistPath(), "{");

  EXPECT_EQ(run(rollbackArgs()), kRolledBack);
  EXPECT_EQ(versionAt(installed), "1.0.0");
  EXPECT_EQ(versionAt(failed), "2.0.0");
  EXPECT_FALSE(fs::exists(previous));

  EXPECT_EQ(failure(rollbackArgs()), "sin versión anterior cacheada en " + previous.string());
  EXPECT_EQ(versionAt(installed), "1.0.0");
}

TEST_F(PlatformUpdateTest, RefusedTreesMoveNothing) {
  struct Case {
    std::string name;
    std::function<fs::path()> prepare;  // returns the staged root
    std::string expected;
    std::string appName = "Tarskel.app";
    bool exact = true;  // otherwise `expected` need only appear in the text
  };
  const std::string unprovisioned = "gate vendor del daemon sin provisionar (" +
                                    allowlistPath().string() +
                                    ") — root no intercambia lo que no puede verificar";
  const std::vector<Case> cases = {
      {"no allowlist",
       [&] {
         fs::remove(allowlistPath());
         return stage("2.0.0");
       },
       unprovisioned},
      {"allowlist is a directory",
       [&] {
         fs::remove(allowlistPath());
         fs::create_directory(allowlistPath());
         return stage("2.0.0");
       },
       unprovisioned},
      {"tampered file",
       [&] {
         fs::path staged = stage("2.0.0");
         testing::writeFile(staged / "Tarskel.app/Contents/MacOS/tarskel", "binary evil");
         return staged;
       },
       SealError::hashMismatch("Tarskel.app/Contents/MacOS/tarskel").description()},
      {"added file",
       [&] {
         fs::path staged = stage("2.0.0");
         testing::writeFile(staged / "Tarskel.app/Contents/extra", "x");
         return staged;
       },
       SealError::unexpectedFile("Tarskel.app/Contents/extra").description()},
      {"sealed by an unknown key",
       [&] {
         fs::path staged = stage("2.0.0");
         key = Ed25519KeyPair("other");
         provision();
         return staged;
       },
       SealError::verification({VendorVerificationError::unknownKey("vendor-test")})
           .description()},
      {"expired seal", [&] { return stage("2.0.0", ArtifactType::platform, -10); },
       "manifest vencido: expiró ", "Tarskel.app", false},
      {"allowlist that does not decode, not unprovisioned",
       [&] {
         testing::writeFile(allowlistPath(), R"({"revision":1})");
         return stage("2.0.0");
       },
       decodingFailure(R"({"revision":1})")},
      {"service artefact", [&] { return stage("2.0.0", ArtifactType::service); },
       "el artefacto staged no es de plataforma"},
      {"app name without .app",
       [&] {
         fs::path staged = stage("2.0.0");
         testing::writeFile(staged / "Tarskel", "x");
         BundleSeal::seal(staged, "a", ArtifactType::platform, "2.0.0", 1,
                          Date{Date::now().secondsSinceReferenceDate + 60}, key, std::nullopt);
         return staged;
       },
       "el artefacto verificado no trae Tarskel", "Tarskel"},
      {"app not in the tree", [&] { return stage("2.0.0"); },
       "el artefacto verificado no trae Other.app", "Other.app"},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.name);
    SetUp();
    makeApp(previous, "0.9.0");
    const fs::path staged = tc.prepare();

    const std::string text = failure(swapArgs(staged, tc.appName));
    if (tc.exact) {
      EXPECT_EQ(text, tc.expected);
    } else {
      EXPECT_NE(text.find(tc.expected), std::string::npos) << text;
    }
    EXPECT_EQ(versionAt(installed), "1.0.0");
    EXPECT_EQ(versionAt(previous), "0.9.0");
    EXPECT_EQ(versionAt(staged / "Tarskel.app"), "2.0.0");
    EXPECT_EQ(ownerOf(staged / "Tarskel.app"), kStagingUser);
    fs::remove_all(dir.path());
    fs::create_directory(dir.path());
  }
}

TEST_F(PlatformUpdateTest, ArgumentsThatNameNoAction) {
  struct Case {
    JSONObject args;
    std::string expected;
  };
  const std::string bundleText = "installedApp debe ser un bundle .app: ";
  const std::vector<Case> cases = {
      {{{"action", "rollback"}, {"installedApp", "/Applications/Tarskel"},
        {"previousPath", "/p"}},
       bundleText + "/Applications/Tarskel"},
      {{{"action", "swap"}, {"installedApp", "/Applications/Tarskel.APP"}, {"previousPath", "/p"}},
       bundleText + "/Applications/Tarskel.APP"},
      {{{"action", "rollback"}, {"installedApp", "Tarskel.app/"}, {"previousPath", "/p"}},
       "rollback exige failedPath"},
      {{{"action", "swap"}, {"installedApp", "/A/T.app"}, {"previousPath", "/p"},
        {"appName", "T.app"}},
       "swap exige stagedRoot y appName"},
      {{{"action", "swap"}, {"installedApp", "/A/T.app"}, {"previousPath", "/p"},
        {"stagedRoot", "/s"}, {"appName", 3}},
       "swap exige stagedRoot y appName"},
      {{{"action", "Swap"}, {"installedApp", "/A/T.app"}, {"previousPath", "/p"}},
       "action desconocida"},
      {{{"installedApp", "/A/T.app"}, {"previousPath", "/p"}}, "action desconocida"},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(TarskelJSON::canonicalEncoder().encode(JSONValue(tc.args)));
    EXPECT_EQ(failure(tc.args), tc.expected);
  }
}

// What a failure leaves after each step of a swap: the installed bundle is
// whole in every row.
TEST_F(PlatformUpdateTest, ChownRefusedMidTreeLeavesTheOldInstallation) {
  if (::geteuid() != 0) GTEST_SKIP() << "owner changes need root";
  makeApp(previous, "0.9.0");
  const fs::path staged = stage("2.0.0");
  const fs::path app = staged / "Tarskel.app";
  platform->refusedPath = app / "Contents/MacOS";

  EXPECT_EQ(failure(swapArgs(staged)),
            "chown de " + (app / "Contents/MacOS").string() + " falló: errno 1");
  EXPECT_EQ(versionAt(installed), "1.0.0");
  EXPECT_EQ(versionAt(previous), "0.9.0");
  EXPECT_EQ(ownerOf(app), 0u);  // changed before the refusal, and left so
  EXPECT_EQ(platform->changed.front(), app);
}

TEST_F(PlatformUpdateTest, MissingInstallationIsRefusedByTheExchange) {
  makeApp(previous, "0.9.0");
  fs::remove_all(installed);
  EXPECT_EQ(failure(rollbackArgs()), "rollback renamex_np falló: errno 2");
  EXPECT_EQ(versionAt(previous), "0.9.0");

  // A swap gives up the kept version before it learns that nothing is there.
  const fs::path staged = stage("2.0.0");
  EXPECT_EQ(failure(swapArgs(staged)), "renamex_np(RENAME_SWAP) falló: errno 2");
  EXPECT_FALSE(fs::exists(previous));
  EXPECT_EQ(versionAt(staged / "Tarskel.app"), "2.0.0");
  EXPECT_FALSE(fs::exists(installed));
}

TEST_F(PlatformUpdateTest, UnkeptOldVersionStillSucceedsButCannotBeRolledBack) {
  // previousPath's parent is a file: the directory can't be made and the old
  // version can't be moved there, yet the update has taken effect.
  previous = dir.file("blocker/Tarskel.app");
  testing::writeFile(dir.file("blocker"), "");
  const fs::path staged = stage("2.0.0");

  EXPECT_EQ(run(swapArgs(staged)), JSONValue(JSONObject{{"swapped", true}, {"to", "2.0.0"}}));
  EXPECT_EQ(versionAt(installed), "2.0.0");
  EXPECT_EQ(versionAt(staged / "Tarskel.app"), "1.0.0");
  EXPECT_EQ(failure(rollbackArgs()), "sin versión anterior cacheada en " + previous.string());
}

TEST_F(PlatformUpdateTest, NotRootSkipsTheOwnerChangeAndStillSwaps) {
  platform->euid = 501;
  const fs::path staged = stage("2.0.0");

  EXPECT_EQ(failure(swapArgs(staged)), "");
  EXPECT_TRUE(platform->changed.empty());
  EXPECT_EQ(versionAt(installed), "2.0.0");
  EXPECT_EQ(ownerOf(installed), kStagingUser);
}

// The real lchown, refused to a process that is not root.
TEST(ChownTreeToRootWheel, UnprivilegedProcessGetsTheSystemsRefusal) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to play an unprivileged user";
  testing::TempDir dir;
  const fs::path tree = dir.file("tree.app");
  fs::create_directories(tree / "Contents");
  ::chmod(dir.path().c_str(), 0755);
  ::lchown(tree.c_str(), kStagingUser, kStagingUser);

  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  pid_t child = ::fork();
  if (child == 0) {
    std::string text = "no error";
    if (::setgid(kStagingUser) == 0 && ::setuid(kStagingUser) == 0) {
      try {
        PlatformApplyUpdateOp::chownTreeToRootWheel(tree, *PlatformFiles::system());
      } catch (const DaemonOpError& e) {
        text = e.description();
      }
    }
    ssize_t ignored = ::write(fds[1], text.data(), text.size());
    (void)ignored;
    ::_exit(0);
  }
  ::close(fds[1]);
  char buffer[512];
  ssize_t n = ::read(fds[0], buffer, sizeof buffer);
  ::close(fds[0]);
  ::waitpid(child, nullptr, 0);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(n)),
            "chown de " + tree.string() + " falló: errno 1");
}

TEST_F(PlatformUpdateTest, ThroughTheCoreTheSchemaComesFirst) {
  openStores();
  const DaemonCore core(DaemonCore::OpList{op}, audit, grants);
  const fs::path staged = stage("2.0.0");
  auto handle = [&](JSONObject args) {
    return testing::runOn(pool, core.handle(DaemonRequest{"platform.applyUpdate", std::move(args),
                                                          std::nullopt, std::nullopt},
                                            DaemonPeerVerdict::unverified("t")));
  };

  JSONObject extra = swapArgs(staged);
  extra.set("force", true);
  DaemonResponse refused = handle(extra);
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->code, "invalidArgs");

  EXPECT_EQ(versionAt(installed), "1.0.0");

  DaemonResponse swapped = handle(swapArgs(staged));
  ASSERT_TRUE(swapped.ok);
  EXPECT_EQ(*swapped.result, JSONValue(JSONObject{{"swapped", true}, {"to", "2.0.0"}}));

  DaemonResponse second = handle(swapArgs(staged));
  ASSERT_TRUE(second.error);
  EXPECT_EQ(second.error->code, "opFailed");
  EXPECT_EQ(second.error->message.rfind("platform.applyUpdate falló: ", 0), 0u);
  EXPECT_EQ(auditRows(), 3);
}

}  // namespace
}  // namespace tarskel
