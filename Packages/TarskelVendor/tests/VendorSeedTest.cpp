#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/vendor/VendorSeed.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;

class VendorSeedTest : public ::testing::Test {
 protected:
  testing::TempDirectory temp;
  fs::path root = temp.path() / "root";
  fs::path seed = temp.path() / "seed.json";
  fs::path target = temp.path() / "root/vendor/allowlist.json";
};

TEST_F(VendorSeedTest, ResolvesEnvironmentFirstThenTheBundle) {
  const fs::path app = temp.path() / "Tarskel.app";
  writeFile(app / "Contents/MacOS/tarskeld", "");
  const fs::path bundled = app / "Contents/Resources/vendor/allowlist.json";
  const fs::path exe = app / "Contents/MacOS/tarskeld";
  const struct {
    const char* name;
    std::map<std::string, std::string> environment;
    std::optional<fs::path> executable;
    std::optional<fs::path> expected;
  } cases[] = {{"environment wins",
                {{"TARSKEL_VENDOR_SEED", "/no/such/seed"}},
                exe,
                fs::path("/no/such/seed")},
               {"empty value counts", {{"TARSKEL_VENDOR_SEED", ""}}, exe, fs::path("")},
               {"bundle", {{"OTHER", "x"}}, exe, bundled},
               {"no executable", {}, std::nullopt, std::nullopt}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(VendorSeed::resolveSeedURL(c.environment, c.executable), c.expected);
  }
}

TEST_F(VendorSeedTest, BundledSeedOnlyThreeLevelsBelowAnApp) {
  writeFile(temp.path() / "Tarskel.app/Contents/MacOS/tarskeld", "");
  writeFile(temp.path() / "bin/tarskeld", "");
  writeFile(temp.path() / "Tarskel.app/Contents/MacOS/deeper/tarskeld", "");
  fs::create_directories(temp.path() / "links");
  fs::create_symlink(temp.path() / "Tarskel.app/Contents/MacOS/tarskeld",
                     temp.path() / "links/tarskeld");
  const fs::path contents = temp.path() / "Tarskel.app/Contents";
  EXPECT_EQ(VendorSeed::bundledSeedURL(contents / "MacOS/tarskeld"),
            contents / "Resources/vendor/allowlist.json");
  EXPECT_EQ(VendorSeed::bundledSeedURL(temp.path() / "links/tarskeld"),
            contents / "Resources/vendor/allowlist.json");
  EXPECT_EQ(VendorSeed::bundledSeedURL(temp.path() / "bin/tarskeld"), std::nullopt);
  EXPECT_EQ(VendorSeed::bundledSeedURL(contents / "MacOS/deeper/tarskeld"), std::nullopt);
  EXPECT_EQ(VendorSeed::bundledSeedURL("/tarskeld"), std::nullopt);
}

TEST_F(VendorSeedTest, SeedsOnceWithTheSourcePermissions) {
  writeFile(seed, R"({"revision":1,"keys":[]})");
  fs::permissions(seed, fs::perms::owner_read | fs::perms::group_read);
  EXPECT_TRUE(VendorSeed::seedIfAbsent(root, seed));
  EXPECT_EQ(readFile(target), R"({"revision":1,"keys":[]})");
  EXPECT_EQ(fs::status(target).permissions(), fs::perms::owner_read | fs::perms::group_read);

  fs::permissions(target, fs::perms::owner_all);
  writeFile(target, "garbage");
  EXPECT_FALSE(VendorSeed::seedIfAbsent(root, seed));
  EXPECT_EQ(readFile(target), "garbage");
}

// Regression: a directory seed failed with "cannot copy file".
TEST_F(VendorSeedTest, DirectorySeedIsCopiedRecursively) {
  writeFile(seed / "keys/a.json", "A");
  EXPECT_TRUE(VendorSeed::seedIfAbsent(root, seed));
  EXPECT_EQ(readFile(target / "keys/a.json"), "A");
  EXPECT_FALSE(VendorSeed::seedIfAbsent(root, seed));
}

TEST_F(VendorSeedTest, MissingSeedIsNotAnErrorButFileSystemFailuresGoOut) {
  EXPECT_FALSE(VendorSeed::seedIfAbsent(root, temp.path() / "absent.json"));
  EXPECT_FALSE(VendorSeed::seedIfAbsent(root, ""));
  EXPECT_FALSE(fs::exists(root));

  writeFile(seed, "{}");
  writeFile(root / "vendor", "a file where the directory should be");
  EXPECT_THROW(VendorSeed::seedIfAbsent(root, seed), fs::filesystem_error);
}

}  // namespace
}  // namespace tarskel
