// Platform update and uninstall through the running daemon, on sealed trees
// made here with a fresh vendor key.

#include <thread>

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

  fs::path stage(const std::string& version) {
    fs::path staged = dir / ("staged-" + version);
    writeFile(staged / kExecutable, "v" + version);
    BundleSeal::seal(staged, "net.hollowick.tarskel", ArtifactType::platform, version, 2,
                     Date{Date::now().secondsSinceReferenceDate + 86400}, key, std::nullopt);
    return staged;
  }

  JSONObject swapArgs(const fs::path& staged) const {
    return {{"action", "swap"},
            {"stagedRoot", staged.string()},
            {"appName", "Tarskel.app"},
            {"installedApp", installedApp().string()},
            {"previousPath", (dir / "cache/previous/Tarskel.app").string()}};
  }

  Ed25519KeyPair key{"vendor-e2e"};
};

// One daemon: a swap, work whose clients left, and the uninstall. The
// refusals and the rollback are the operations' own to check, and how a
// refusal is answered is the core's; here, that a verdict reaches the caller
// through the process.
TEST_F(UpdateTest, SwapOverlapAndUninstall) {
  start({{"TARSKEL_INSTALLED_APP", installedApp().string()}});
  const fs::path staged = stage("2.0.0");
  const DaemonResponse swapped = call("platform.applyUpdate", swapArgs(staged));
  ASSERT_EQ(codeOf(swapped), "ok") << messageOf(swapped);
  EXPECT_EQ(resultAt(swapped, "to"), JSONValue("2.0.0"));
  EXPECT_EQ(readFile(installedApp() / "Contents/MacOS/tarskel"), "v2.0.0");
  EXPECT_EQ(readFile(dir / "cache/previous" / kExecutable), "v1");

  // A well-sealed service tree, which the workers hash in full before they refuse it.
  const fs::path big = dir / "staged-big";
  writeFile(big / kExecutable, "big");
  writeFile(big / "Tarskel.app/Contents/Resources.bin", "");
  BundleSeal::seal(big, "net.hollowick.svc", ArtifactType::service, "1.0.0", 1,
                   Date{Date::now().secondsSinceReferenceDate + 86400}, key, std::nullopt);

  // Regression: a listed file grown to 8 TiB (sparse) kept every worker
  // hashing for good, long after its clients had gone.
  fs::resize_file(big / "Tarskel.app/Contents/Resources.bin", std::uintmax_t{1} << 43);
  const unsigned attackers = std::thread::hardware_concurrency() + 1;
  for (unsigned i = 0; i < attackers; ++i)
    RawConnection(socketPath()).send(1, true, requestBytes("platform.applyUpdate", swapArgs(big)));
  RawConnection connection(socketPath());
  connection.send(1, true, requestBytes("platform.uninstallMachine"));
  const std::optional<TransportEnvelope> uninstalled = connection.next(10s);
  ASSERT_TRUE(uninstalled && uninstalled->body) << "the workers are still hashing";
  const auto removed = TarskelJSON::decoder().decode<DaemonResponse>(*uninstalled->body);
  ASSERT_EQ(codeOf(removed), "ok") << messageOf(removed);
  EXPECT_EQ(resultAt(removed, "removed"), JSONValue(JSONValue::Array{installedApp().string()}));
  EXPECT_EQ(resultAt(removed, "dataPreserved"), JSONValue(JSONValue::Array{root().string()}));
  EXPECT_FALSE(fs::exists(installedApp()));
  for (int i = 0; i < 100 && auditRows().size() < 2u + attackers; ++i)
    std::this_thread::sleep_for(50ms);
  EXPECT_EQ(auditRows().size(), 2u + attackers);
  EXPECT_TRUE(chainHolds());
}

}  // namespace
}  // namespace tarskel::e2e
