#include <gtest/gtest.h>

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

// The environment first, then the bundle, whose seed is found only three
// levels below an app (through a link too).
TEST_F(VendorSeedTest, ResolvesEnvironmentFirstThenTheBundle) {
  const fs::path contents = temp.path() / "Tarskel.app/Contents";
  const fs::path exe = contents / "MacOS/tarskeld";
  const fs::path bundled = contents / "Resources/vendor/allowlist.json";
  for (const fs::path& file :
       {exe, temp.path() / "bin/tarskeld", contents / "MacOS/deeper/tarskeld"})
    writeFile(file, "");
  fs::create_directories(temp.path() / "links");
  fs::create_symlink(exe, temp.path() / "links/tarskeld");
  const std::pair<std::optional<fs::path>, std::optional<fs::path>> executables[] = {
      {exe, bundled},
      {temp.path() / "links/tarskeld", bundled},
      {temp.path() / "bin/tarskeld", std::nullopt},
      {contents / "MacOS/deeper/tarskeld", std::nullopt},
      {std::nullopt, std::nullopt}};
  for (const auto& [executable, expected] : executables) {
    EXPECT_EQ(VendorSeed::resolveSeedURL({{"OTHER", "x"}}, executable), expected);
    if (executable) {
      EXPECT_EQ(VendorSeed::bundledSeedURL(*executable), expected);
    }
  }
  EXPECT_EQ(VendorSeed::resolveSeedURL({{"TARSKEL_VENDOR_SEED", "/no/such/seed"}}, exe),
            fs::path("/no/such/seed"));
  EXPECT_EQ(VendorSeed::resolveSeedURL({{"TARSKEL_VENDOR_SEED", ""}}, exe), fs::path(""));
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
