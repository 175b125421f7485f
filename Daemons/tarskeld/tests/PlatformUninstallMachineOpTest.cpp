// The machine uninstall: where the bundle is derived from, the ownership
// rule when root, and the removal itself on real trees.

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>

#include "DaemonTestSupport.hpp"
#include "tarskel/daemon/PlatformUninstallMachineOp.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;

class PlatformUninstallTest : public testing::DaemonFixture {
 protected:
  void SetUp() override {
    dataRoot = dir.file("state");
    fs::create_directories(dataRoot / "daemon");
    testing::writeFile(dataRoot / "daemon/grants.json", "{}");
    bundle = dir.file("Applications/Tarskel.app");
    fs::create_directories(bundle / "Contents/MacOS");
    testing::writeFile(bundle / "Contents/MacOS/tarskeld", "binary");
  }

  PlatformUninstallMachineOp makeOp(std::optional<fs::path> installedApp) const {
    return PlatformUninstallMachineOp(std::move(installedApp), dataRoot, platform);
  }

  std::string failure(const PlatformUninstallMachineOp& op) {
    return testing::runOn(pool, testing::failureOf(op, {}));
  }

  fs::path dataRoot, bundle;
  std::shared_ptr<testing::ScriptedPlatformFiles> platform =
      std::make_shared<testing::ScriptedPlatformFiles>();
};

TEST_F(PlatformUninstallTest, DerivesTheBundleFromTheVariableOrTheExecutable) {
  const fs::path inBundle = bundle / "Contents/MacOS/tarskeld";
  fs::create_directories(dir.file("bin"));
  fs::create_symlink(inBundle, dir.file("bin/tarskeld"));
  const std::string cwd = fs::current_path().string();

  struct Case {
    std::string name;
    std::map<std::string, std::string> environment;
    std::optional<fs::path> executable;
    std::optional<fs::path> expected;
  };
  const std::map<std::string, std::string> none;
  auto variable = [](std::string value) {
    return std::map<std::string, std::string>{{"TARSKEL_INSTALLED_APP", std::move(value)}};
  };
  const std::vector<Case> cases = {
      {"variable as it stands", variable("/nowhere/Other"), inBundle, fs::path("/nowhere/Other")},
      {"relative variable", variable("Local.app"), std::nullopt, fs::path(cwd + "/Local.app")},
      {"executable in a bundle", none, inBundle, bundle},
      {"executable through a link", none, dir.file("bin/tarskeld"), bundle},
      {"executable outside a bundle", none, fs::path("/usr/sbin/tarskeld"), std::nullopt},
      {"no executable", none, std::nullopt, std::nullopt},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.name);
    EXPECT_EQ(PlatformUninstallMachineOp::derivedInstalledApp(tc.environment, tc.executable),
              tc.expected);
  }
}

// Refusals leave the bundle. Root removes a bundle of root's once; a daemon
// that is not root removes whatever the file system lets it, whoever owns
// it. The data stays.
TEST_F(PlatformUninstallTest, RefusalsLeaveTheBundleAndARemovalHappensOnce) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving the bundle to a user needs root";
  ASSERT_EQ(::lchown(bundle.c_str(), 501, 20), 0);
  const std::pair<std::optional<fs::path>, std::string> cases[] = {
      {std::nullopt, "el daemon no corre desde una instalación (.app) — nada que desmontar"},
      {dir.file("Applications/Tarskel"), "la instalación derivada no es un bundle .app: " +
                                             dir.file("Applications/Tarskel").string()},
      {bundle,
       "el bundle instalado pertenece a uid 501, no a root — instalación individual: el "
       "desmontaje es user-space, no del daemon"},
  };
  for (const auto& [installedApp, expected] : cases) {
    EXPECT_EQ(failure(makeOp(installedApp)), expected);
    EXPECT_TRUE(fs::exists(bundle / "Contents/MacOS/tarskeld"));
  }
  for (uid_t euid : {0u, 501u}) {
    SCOPED_TRACE(euid);
    SetUp();
    platform->euid = euid;
    ASSERT_EQ(::lchown(bundle.c_str(), euid, 20), 0);
    const PlatformUninstallMachineOp op = makeOp(bundle);
    const DaemonOpContext context{{}, DaemonPeerVerdict::unverified("t")};
    EXPECT_EQ(testing::runOn(pool, op.execute({}, context)),
              JSONValue(JSONObject{{"removed", JSONValue::Array{bundle.string()}},
                                   {"dataPreserved", JSONValue::Array{dataRoot.string()}}}));
    EXPECT_FALSE(fs::exists(bundle));
    EXPECT_TRUE(fs::exists(dataRoot / "daemon/grants.json"));
    EXPECT_EQ(failure(op), "el bundle instalado no existe: " + bundle.string());
  }
}

}  // namespace
}  // namespace tarskel
