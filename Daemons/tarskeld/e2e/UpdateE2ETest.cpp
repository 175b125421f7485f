// Platform update and uninstall through the running daemon, on sealed trees
// made here with a fresh vendor key.

#include <fcntl.h>
#include <unistd.h>

#include "E2EFixture.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/vendor/BundleSeal.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace tarskel::e2e {
namespace {
namespace fs = std::filesystem;

constexpr const char* kExecutable = "Tarskel.app/Contents/MacOS/tarskel";

class UpdateTest : public E2EFixture {
 protected:
  void SetUp() override {
    VendorAllowlist allowlist{1, {key.vendorKey()}};
    writeFile(root() / "vendor/allowlist.json", TarskelJSON::encoder().encode(allowlist));
    writeFile(dir / "Applications" / kExecutable, "v1");
  }

  fs::path installedApp() const { return dir / "Applications/Tarskel.app"; }
  fs::path previousPath() const { return dir / "cache/previous/Tarskel.app"; }
  fs::path failedPath() const { return dir / "cache/failed/Tarskel.app"; }

  // A staged tree holding Tarskel.app at `version`, sealed as `type`.
  fs::path stage(const std::string& version, ArtifactType type = ArtifactType::platform) {
    fs::path staged = dir / ("staged-" + version);
    writeFile(staged / kExecutable, "v" + version);
    BundleSeal::seal(staged, "net.hollowick.tarskel", type, version, 2,
                     Date{Date::now().secondsSinceReferenceDate + 86400}, key, std::nullopt);
    return staged;
  }

  JSONObject swapArgs(const fs::path& staged, const std::string& appName = "Tarskel.app") const {
    return {{"action", "swap"},
            {"stagedRoot", staged.string()},
            {"appName", appName},
            {"installedApp", installedApp().string()},
            {"previousPath", previousPath().string()}};
  }

  JSONObject rollbackArgs() const {
    return {{"action", "rollback"},
            {"installedApp", installedApp().string()},
            {"previousPath", previousPath().string()},
            {"failedPath", failedPath().string()}};
  }

  std::string installedVersion() const {
    return readFile(installedApp() / "Contents/MacOS/tarskel");
  }

  Ed25519KeyPair key{"vendor-e2e"};
};

TEST_F(UpdateTest, SwapThenRollbackThenASecondRollbackIsRefused) {
  start();
  fs::create_directories(failedPath().parent_path());
  fs::path staged = stage("2.0.0");
  DaemonResponse swapped = call("platform.applyUpdate", swapArgs(staged));
  ASSERT_EQ(codeOf(swapped), "ok") << messageOf(swapped);
  EXPECT_EQ(resultAt(swapped, "to"), JSONValue("2.0.0"));
  EXPECT_EQ(installedVersion(), "v2.0.0");
  EXPECT_EQ(readFile(previousPath() / "Contents/MacOS/tarskel"), "v1");
  EXPECT_EQ(readFile(staged / kExecutable), "v2.0.0");  // a copy was installed; the tree stays

  DaemonResponse rolledBack = call("platform.applyUpdate", rollbackArgs());
  ASSERT_EQ(codeOf(rolledBack), "ok") << messageOf(rolledBack);
  EXPECT_EQ(resultAt(rolledBack, "rolledback"), JSONValue(true));
  EXPECT_EQ(installedVersion(), "v1");
  EXPECT_EQ(readFile(failedPath() / "Contents/MacOS/tarskel"), "v2.0.0");
  EXPECT_FALSE(fs::exists(previousPath()));

  DaemonResponse again = call("platform.applyUpdate", rollbackArgs());
  EXPECT_EQ(codeOf(again), "opFailed");
  EXPECT_EQ(messageOf(again), "platform.applyUpdate falló: sin versión anterior cacheada en " +
                                  previousPath().string());
  EXPECT_EQ(installedVersion(), "v1");
  EXPECT_TRUE(chainHolds());
}

TEST_F(UpdateTest, RefusedTreesMoveNothing) {
  start();
  writeFile(previousPath() / "Contents/MacOS/tarskel", "v0");
  struct Case {
    std::string name;
    std::function<fs::path()> prepare;
    std::string message;
    std::string appName = "Tarskel.app";
  } cases[] = {
      {"tampered",
       [&] {
         fs::path staged = stage("3.0.0");
         writeFile(staged / kExecutable, "v3.0.0 with a payload");
         return staged;
       },
       "platform.applyUpdate falló: sha256 no coincide: Tarskel.app/Contents/MacOS/tarskel"},
      {"service", [&] { return stage("4.0.0", ArtifactType::service); },
       "platform.applyUpdate falló: el artefacto staged no es de plataforma"},
      // The seal leaves vendor/ out of the content: a bundle there was never
      // verified, however genuine the seal beside it.
      {"appName under vendor",
       [&] {
         fs::path staged = stage("5.0.0");
         writeFile(staged / "vendor/Evil.app/Contents/MacOS/tarskel", "evil");
         return staged;
       },
       "platform.applyUpdate falló: appName debe ser un solo componente de ruta del contenido "
       "sellado (ni vendor, ni ., ni ..): vendor/Evil.app",
       "vendor/Evil.app"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::path staged = c.prepare();
    std::string stagedBefore = readFile(staged / kExecutable);
    DaemonResponse refused = call("platform.applyUpdate", swapArgs(staged, c.appName));
    EXPECT_EQ(codeOf(refused), "opFailed");
    EXPECT_EQ(messageOf(refused), c.message);
    EXPECT_EQ(installedVersion(), "v1");
    EXPECT_EQ(readFile(previousPath() / "Contents/MacOS/tarskel"), "v0");
    EXPECT_EQ(readFile(staged / kExecutable), stagedBefore);
  }
}

// One slow request and one quick one on the same connection: the quick one
// is answered first, so the second message did not wait for the first.
TEST_F(UpdateTest, TwoMessagesOnOneConnectionOverlap) {
  fs::path staged = dir / "staged-big";
  writeFile(staged / kExecutable, "big");
  {
    // A sparse file: costs no disk, but every byte is hashed on verification.
    int fd =
        open((staged / "Tarskel.app/Contents/Resources.bin").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, off_t{256} << 20), 0);
    close(fd);
  }
  BundleSeal::seal(staged, "net.hollowick.svc", ArtifactType::service, "1.0.0", 1,
                   Date{Date::now().secondsSinceReferenceDate + 86400}, key, std::nullopt);
  start();

  RawConnection connection(socketPath());
  auto request = [](const std::string& op, JSONObject args) {
    return TarskelJSON::encoder().encode(
        DaemonRequest{op, std::move(args), std::nullopt, std::nullopt});
  };
  connection.send({1, true, request("platform.applyUpdate", swapArgs(staged))});
  connection.send({2, true, request("daemon.info", {})});
  std::optional<TransportEnvelope> first = connection.receive(30s);
  std::optional<TransportEnvelope> second = connection.receive(30s);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->id, 2u);
  EXPECT_EQ(second->id, 1u);
  EXPECT_EQ(messageOf(TarskelJSON::decoder().decode<DaemonResponse>(*second->body)),
            "platform.applyUpdate falló: el artefacto staged no es de plataforma");
  EXPECT_EQ(auditRows().size(), 2u);
}

TEST_F(UpdateTest, UninstallRemovesTheNamedBundleAndKeepsTheData) {
  start({{"TARSKEL_INSTALLED_APP", installedApp().string()}});
  DaemonResponse removed = call("platform.uninstallMachine");
  ASSERT_EQ(codeOf(removed), "ok") << messageOf(removed);
  EXPECT_EQ(resultAt(removed, "removed"), JSONValue(JSONValue::Array{installedApp().string()}));
  EXPECT_EQ(resultAt(removed, "dataPreserved"), JSONValue(JSONValue::Array{root().string()}));
  EXPECT_FALSE(fs::exists(installedApp()));
  EXPECT_TRUE(fs::exists(auditPath()));

  DaemonResponse again = call("platform.uninstallMachine");
  EXPECT_EQ(messageOf(again), "platform.uninstallMachine falló: el bundle instalado no existe: " +
                                  installedApp().string());
}

}  // namespace
}  // namespace tarskel::e2e
