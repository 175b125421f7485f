#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tarskel/codesign/TeamTrust.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;

class TeamTrustTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(root_ / "vendor"); }

  void Write(const std::string& content) {
    testing::writeFile(root_ / "vendor/teams.json", content);
  }

  std::optional<TeamTrust> Load() {
    Logger logger("tarskeld", LogLevel::info,
                  [this](std::string_view line) { lines_.emplace_back(line); });
    return TeamTrust::loadIfProvisioned(root_, logger);
  }

  testing::TempDirectory dir_;
  fs::path root_ = dir_.path();
  std::vector<std::string> lines_;
};

// Nothing readable as a file at the path: not provisioned, and silent. A
// FIFO without a writer must neither block start-up nor count as a file.
TEST_F(TeamTrustTest, NothingReadableIsNotProvisioned) {
  const fs::path file = root_ / "vendor/teams.json";
  EXPECT_FALSE(Load().has_value());  // absent
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  EXPECT_FALSE(Load().has_value());
  if (::geteuid() != 0) {  // root reads any file
    fs::remove(file);
    Write(R"({"revision":1,"teamIds":["A"]})");
    fs::permissions(file, fs::perms::none);
    EXPECT_FALSE(Load().has_value());
  }
  EXPECT_TRUE(lines_.empty());
}

TEST_F(TeamTrustTest, WellFormedFileGivesItsListInOrder) {
  Write(R"({"teamIds":["ZZZ111","AAA222"],"comment":"ignored","revision":9007199254740993})");
  // The revision is read exactly, not through a double (which gives ...992).
  EXPECT_EQ(Load(), (TeamTrust{9007199254740993, {"ZZZ111", "AAA222"}}));
  Write(R"({"revision":3,"teamIds":[]})");
  EXPECT_EQ(Load(), (TeamTrust{3, {}}));  // an empty list is present
  EXPECT_TRUE(lines_.empty());
}

// A file that is there but unreadable means the machine was provisioned: the
// gate stays shut (present, no teams) and one critical line says why.
TEST_F(TeamTrustTest, MalformedFileFailsClosedWithOneCriticalLine) {
  const char* cases[] = {
      R"({"revision":1})",
      R"({"revision":1,"teamIds":["A",2]})",
      R"({"revision":1.5,"teamIds":["A"]})",
      "",
      "{\"revision\":1,\"teamIds\":[\"\xff\"]}",
  };
  for (const char* content : cases) {
    SCOPED_TRACE(content);
    lines_.clear();
    Write(content);
    EXPECT_EQ(Load(), (TeamTrust{0, {}}));
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_THAT(lines_[0], ::testing::MatchesRegex(".* critical tarskeld : \\[tarskeld\\] "
                                                   "vendor/teams.json ilegible: .* — gate del "
                                                   "SO sin raíz\n"));
  }
}

}  // namespace
}  // namespace tarskel
