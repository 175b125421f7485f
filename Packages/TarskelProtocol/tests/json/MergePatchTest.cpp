#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "tarskel/protocol/json/MergePatch.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

JSONValue json(const std::string& text) { return TarskelJSON::decoder().decode<JSONValue>(text); }

std::string canonical(const JSONValue& value) {
  return TarskelJSON::canonicalEncoder().encode(value);
}

// target, patch (or from, to), expected
using Case3 = std::array<const char*, 3>;

TEST(MergePatchTest, ApplyFollowsTheRFCExamplesAndOurEdgeCases) {
  const Case3 cases[] = {
      // The worked examples of RFC 7386, appendix A.
      {R"({"a":"b"})", R"({"a":"c"})", R"({"a":"c"})"},
      {R"({"a":"b"})", R"({"b":"c"})", R"({"a":"b","b":"c"})"},
      {R"({"a":"b"})", R"({"a":null})", R"({})"},
      {R"({"a":["b"]})", R"({"a":"c"})", R"({"a":"c"})"},
      {R"({"a":{"b":"c"}})", R"({"a":{"b":"d","c":null}})", R"({"a":{"b":"d"}})"},
      {R"({"a":[{"b":"c"}]})", R"({"a":[1]})", R"({"a":[1]})"},
      {R"({"a":"b"})", R"(["c"])", R"(["c"])"},
      {R"({"a":"foo"})", "null", "null"},
      {R"({"a":"foo"})", R"("bar")", R"("bar")"},
      {R"({"e":null})", R"({"a":1})", R"({"a":1,"e":null})"},
      {R"([1,2])", R"({"a":"b","c":null})", R"({"a":"b"})"},
      {R"({})", R"({"a":{"bb":{"ccc":null}}})", R"({"a":{"bb":{}}})"},
      // Non-object patches replace, non-object targets are discarded.
      {R"({"a":7})", R"({"a":{"b":1}})", R"({"a":{"b":1}})"},
      {"{}", R"({"a":{"b":null}})", R"({"a":{}})"},
      // Removing an absent key is no change.
      {R"({"a":1})", R"({"z":null})", R"({"a":1})"}};
  for (const auto& [target, patch, expected] : cases) {
    SCOPED_TRACE(std::string(target) + " + " + patch);
    EXPECT_EQ(canonical(MergePatch::apply(json(patch), json(target))), expected);
  }
}

TEST(MergePatchTest, DiffGivesTheSmallestPatchTheFormatCanSay) {
  const Case3 cases[] = {{R"({"a":[1,2]})", R"({"a":[1,3]})", R"({"a":[1,3]})"},
                         {R"({"a":1,"b":2})", R"({"a":1})", R"({"b":null})"},
                         {R"({"x":{"y":1,"z":2}})", R"({"x":{"y":1}})", R"({"x":{"z":null}})"},
                         {"1", "1", "{}"},
                         {R"({"a":1})", "null", "null"},
                         {R"({"a":0})", R"({"a":-0.0})", "{}"},
                         {R"({"a":1})", R"({"a":null})", R"({"a":null})"},
                         {R"({"a":1})", R"({"a":{"b":null}})", R"({"a":{"b":null}})"},
                         {R"({"a":{"b":1}})", R"({"a":{"b":1},"c":{}})", R"({"c":{}})"},
                         {R"({"a":"x"})", R"({"a":{"b":1}})", R"({"a":{"b":1}})"},
                         {"{\"caf\xC3\xA9\":1}", "{\"cafe\xCC\x81\":1}", "{}"}};
  for (const auto& [from, to, expected] : cases) {
    SCOPED_TRACE(std::string(from) + " -> " + to);
    EXPECT_EQ(canonical(MergePatch::diff(json(from), json(to))), expected);
  }
}

TEST(MergePatchTest, AffectedPathsAreDepthFirstInKeyOrder) {
  struct Case {
    const char* patch;
    const char* prefix;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {R"({"b":1,"a":{"d":null,"c":[1]}})", "cfg", {"cfg.a.c", "cfg.a.d", "cfg.b"}},
      {"3", "cfg", {"cfg"}},
      {"{}", "cfg", {}},
      {R"({"a":{"b":{}},"c":null})", "cfg", {"cfg.c"}},
      {R"({"a":1})", "", {".a"}},
      {R"({"x.y":1,"B":2,"a":3})", "r", {"r.B", "r.a", "r.x.y"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.patch);
    EXPECT_EQ(MergePatch::affectedPaths(json(c.patch), c.prefix), c.expected);
  }
}

}  // namespace
}  // namespace tarskel
