#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarskel/protocol/semver/SemVer.hpp"

namespace tarskel {
namespace {

SemVer version(const char* text) {
  std::optional<SemVer> parsed = SemVer::parse(text);
  if (!parsed) ADD_FAILURE() << "not a version: " << text;
  return parsed.value_or(SemVer{});
}

TEST(SemVerTest, ParseReadsThreeNumbersAndAnOpaquePrerelease) {
  const std::pair<const char*, const char*> valid[] = {
      {"1.2.3", "1.2.3"},
      {"01.002.3", "1.2.3"},
      {"+1.2.3", "1.2.3"},
      {"1.2.+3", "1.2.3"},
      {"1.2.3-rc.1-a", "1.2.3-rc.1-a"},
      {"1.2.3-rc+5", "1.2.3-rc+5"},
      {"9223372036854775807.0.0", "9223372036854775807.0.0"},
  };
  for (const auto& [text, description] : valid) EXPECT_EQ(version(text).description(), description);
  EXPECT_EQ(version("1.2.3-rc.1-a").prerelease, "rc.1-a");
  for (const char* text :
       {"1.2", "1.2.3.4", " 1.2.3", "1.2.3 ", "-1.2.3", "1.2.-3", "1.2.3-",
        "9223372036854775808.0.0", "1.2.3+build", "1..3", "1.2.+", "1.2.0x3", ""}) {
    EXPECT_FALSE(SemVer::parse(text)) << text;
  }
}

TEST(SemVerTest, OrderComparesNumbersThenPrereleasesAsWholeStrings) {
  struct Case {
    const char* a;
    const char* b;
    int expected;  // -1: a < b, 0: a == b, 1: a > b
  };
  const Case cases[] = {
      {"1.0.0-rc.10", "1.0.0-rc.9", -1},
      {"1.0.0-rc", "1.0.0", -1},
      {"1.0.0-Z", "1.0.0-a", -1},
      {"1.0.0-z", "1.0.0-\xC3\xA9", -1},
      // Code point order, not UTF-16 order: U+FF21 stands before U+10000.
      {"1.0.0-\xEF\xBC\xA1", "1.0.0-\xF0\x90\x80\x80", -1},
      {"1.2.3", "01.2.3", 0},
      {"1.0.0-a", "1.0.0-a", 0},
      {"2.0.0", "1.99.99", 1},
      {"1.10.0", "1.9.0", 1},
      {"1.0.10", "1.0.9", 1},
      {"1.0.1-rc", "1.0.0", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " vs " + c.b);
    const SemVer a = version(c.a);
    const SemVer b = version(c.b);
    EXPECT_EQ(a < b, c.expected < 0);
    EXPECT_EQ(a > b, c.expected > 0);
    EXPECT_EQ(a == b, c.expected == 0);
  }
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
      {"^1.2.3-rc1", VC{"^1.2.3-rc1", VC::Caret{version("1.2.3-rc1")}}},
  };
  for (const auto& [text, expected] : cases)
    EXPECT_EQ(VersionConstraint::parse(text), expected) << text;
  for (const char* text : {"1. 2", "^1.2.3-rc.1", "1.2.3-rc.1", "1.2-rc1", "1.2.X", "", " \t ", "x",
                           "*", ".x", "1.x.x", ">=1.x", "^1.x", "-1.x", "=1.2.3", ">1.2.3",
                           "~1.2.3", "1.2.3 || 2.0.0", "\n1.2.3"}) {
    EXPECT_FALSE(VersionConstraint::parse(text)) << text;
  }
}

TEST(SemVerTest, ConstraintSatisfactionTable) {
  struct Case {
    const char* constraint;
    const char* version;
    bool expected;
  };
  const Case cases[] = {
      {"^0.2.3", "0.2.3", true},
      {"^0.2.3", "0.2.9", true},
      {"^0.2.3", "0.2.2", false},
      {"^0.2.3", "0.3.0", false},
      {"^0.2.3", "1.0.0", false},
      {"^0.0.3", "0.0.4", true},
      {"^0.0.3", "0.1.0", false},
      {"^0", "0.1.0", false},
      {"^1.2.3", "1.9.9", true},
      {"^1.2.3", "1.3.0-beta", true},
      {"^1.2.3", "1.2.3-beta", false},
      {"^1.2.3", "2.0.0-rc", false},
      {"^1.2.3-rc1", "1.2.3-rc2", true},
      {"^1.2.3-rc1", "1.4.0", true},
      {"^1.2.3-rc1", "1.2.3-alpha", false},
      {">=1.0.0", "2.0.0-rc", true},
      {">=1.0.0", "1.0.0", true},
      {">=1.0.0", "1.0.0-rc", false},
      {"1.x", "1.9.9-rc", true},
      {"1.x", "1.0.0-alpha", true},
      {"1.x", "2.0.0", false},
      {"1.x", "0.9.0", false},
      {"1.2.x", "1.2.7", true},
      {"1.2.x", "1.3.0", false},
      {"1.2.3", "1.2.3", true},
      {"1.2.3", "1.2.3-rc", false},
      {"1.2.3-rc", "1.2.3-rc", true},
      {"1.2", "1.2.0", true},
      {"1.2", "1.2.1", false},
      {"1", "1.1.0", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.constraint) + " by " + c.version);
    std::optional<VersionConstraint> constraint = VersionConstraint::parse(c.constraint);
    ASSERT_TRUE(constraint);
    EXPECT_EQ(constraint->isSatisfied(version(c.version)), c.expected);
  }
}

}  // namespace
}  // namespace tarskel
