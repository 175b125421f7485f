#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tarskel/protocol/semver/SemVer.hpp"

namespace tarskel {
namespace {

SemVer version(const std::string& text) {
  std::optional<SemVer> parsed = SemVer::parse(text);
  if (!parsed) ADD_FAILURE() << "not a version: " << text;
  return parsed.value_or(SemVer{});
}

TEST(SemVerTest, ParseReadsThreeNumbersAndAnOpaquePrerelease) {
  const std::pair<const char*, const char*> valid[] = {
      {"01.002.3", "1.2.3"},
      {"+1.2.3", "1.2.3"},
      {"1.2.3-rc.1-a", "1.2.3-rc.1-a"},
      {"1.2.3-rc+5", "1.2.3-rc+5"},
      {"9223372036854775807.0.0", "9223372036854775807.0.0"}};
  for (const auto& [text, description] : valid) EXPECT_EQ(version(text).description(), description);
  EXPECT_EQ(version("1.2.3-rc.1-a").prerelease, "rc.1-a");
  for (const char* text :
       {"1.2", "1.2.3.4", " 1.2.3", "1.2.3 ", "-1.2.3", "1.2.-3", "1.2.3-",
        "9223372036854775808.0.0", "1.2.3+build", "1..3", "1.2.+", "1.2.0x3", ""}) {
    EXPECT_FALSE(SemVer::parse(text)) << text;
  }
}

// Numbers first, then prereleases as whole strings in code point order (not
// UTF-16 order: U+FF21 stands before U+10000). Each row is strictly ascending.
TEST(SemVerTest, OrderComparesNumbersThenPrereleasesAsWholeStrings) {
  const std::vector<std::vector<std::string>> ascending = {
      {"1.0.0-rc.10", "1.0.0-rc.9", "1.0.0", "1.0.1-rc", "1.0.9", "1.0.10", "1.9.0", "1.10.0"},
      {"1.0.0-Z", "1.0.0-a", "1.0.0-z", "1.0.0-\xC3\xA9", "1.0.0-\xEF\xBC\xA1",
       "1.0.0-\xF0\x90\x80\x80"},
      {"1.99.99", "2.0.0"}};
  for (const auto& row : ascending) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      SCOPED_TRACE(row[i] + " < " + row[i + 1]);
      const SemVer a = version(row[i]), b = version(row[i + 1]);
      EXPECT_TRUE(a < b && b > a && !(a == b) && !(b < a) && !(a > b));
    }
  }
  const SemVer same = version("1.0.0-a");
  EXPECT_TRUE(same == version("1.0.0-a") && !(same < same) && !(same > same));
}

TEST(SemVerTest, ConstraintParseTakesTheFirstFormThatApplies) {
  using VC = VersionConstraint;
  const std::pair<const char*, VC> cases[] = {
      {"1.2", VC{"1.2", VC::Exact{version("1.2.0")}}},
      {"1", VC{"1", VC::Exact{version("1.0.0")}}},
      {"1.2.3-rc", VC{"1.2.3-rc", VC::Exact{version("1.2.3-rc")}}},
      {"1.x", VC{"1.x", VC::Wildcard{1, std::nullopt}}},
      {"01.2.x", VC{"01.2.x", VC::Wildcard{1, 2}}},
      {"  ^1.2\t", VC{"^1.2", VC::Caret{version("1.2.0")}}},
      {"\xE3\x80\x80^1\xC2\xA0", VC{"^1", VC::Caret{version("1.0.0")}}},
      {">= 1.2", VC{">= 1.2", VC::GreaterOrEqual{version("1.2.0")}}},
      {"^ 1", VC{"^ 1", VC::Caret{version("1.0.0")}}},
      {"^1.2.3-rc1", VC{"^1.2.3-rc1", VC::Caret{version("1.2.3-rc1")}}}};
  for (const auto& [text, expected] : cases)
    EXPECT_EQ(VersionConstraint::parse(text), expected) << text;
  for (const char* text : {"1. 2", "^1.2.3-rc.1", "1.2.3-rc.1", "1.2-rc1", "1.2.X", "", " \t ", "x",
                           "*", ".x", "1.x.x", ">=1.x", "^1.x", "-1.x", "=1.2.3", ">1.2.3",
                           "~1.2.3", "1.2.3 || 2.0.0", "\n1.2.3"}) {
    EXPECT_FALSE(VersionConstraint::parse(text)) << text;
  }
}

TEST(SemVerTest, ConstraintSatisfactionTable) {
  const struct {
    const char *constraint, *satisfied, *refused;
  } cases[] = {{"^0.2.3", "0.2.3 0.2.9", "0.2.2 0.3.0 1.0.0"},
               {"^0.0.3", "0.0.4", "0.1.0"},
               {"^0", "", "0.1.0"},
               {"^1.2.3", "1.9.9 1.3.0-beta", "1.2.3-beta 2.0.0-rc"},
               {"^1.2.3-rc1", "1.2.3-rc2 1.4.0", "1.2.3-alpha"},
               {">=1.0.0", "2.0.0-rc 1.0.0", "1.0.0-rc"},
               {"1.x", "1.9.9-rc 1.0.0-alpha", "2.0.0 0.9.0"},
               {"1.2.x", "1.2.7", "1.3.0"},
               {"1.2.3", "1.2.3", "1.2.3-rc"},
               {"1.2.3-rc", "1.2.3-rc", ""},
               {"1.2", "1.2.0", "1.2.1"}};
  for (const auto& c : cases) {
    std::optional<VersionConstraint> constraint = VersionConstraint::parse(c.constraint);
    ASSERT_TRUE(constraint) << c.constraint;
    for (const auto& [list, expected] : {std::pair{c.satisfied, true}, {c.refused, false}}) {
      std::istringstream versions(list);
      for (std::string v; versions >> v;) {
        EXPECT_EQ(constraint->isSatisfied(version(v)), expected) << c.constraint << " by " << v;
      }
    }
  }
}

}  // namespace
}  // namespace tarskel
