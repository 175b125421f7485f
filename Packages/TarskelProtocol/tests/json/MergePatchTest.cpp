#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarskel/protocol/json/MergePatch.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

using testing::canonical;
using testing::json;

// target | patch | result
TEST(MergePatchTest, ApplyFollowsTheRFCExamplesAndOurEdgeCases) {
  for (const testing::Row& row : testing::rows(R"(
# The worked examples of RFC 7386, appendix A.
{"a":"b"} | {"a":"c"} | {"a":"c"}
{"a":"b"} | {"b":"c"} | {"a":"b","b":"c"}
{"a":"b"} | {"a":null} | {}
{"a":{"b":"c"}} | {"a":{"b":"d","c":null}} | {"a":{"b":"d"}}
{"a":"b"} | ["c"] | ["c"]
{"a":"foo"} | null | null
{"e":null} | {"a":1} | {"a":1,"e":null}
[1,2] | {"a":"b","c":null} | {"a":"b"}
{} | {"a":{"bb":{"ccc":null}}} | {"a":{"bb":{}}}
# Removing an absent key is no change.
{"a":1} | {"z":null} | {"a":1}
)")) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(canonical(MergePatch::apply(json(row[1]), json(row[0]))), row[2]);
  }
}

// from | to | the smallest patch the format can say
TEST(MergePatchTest, DiffGivesTheSmallestPatchTheFormatCanSay) {
  for (const testing::Row& row : testing::rows(R"(
{"a":[1,2]} | {"a":[1,3]} | {"a":[1,3]}
{"a":1,"b":2} | {"a":1} | {"b":null}
{"x":{"y":1,"z":2}} | {"x":{"y":1}} | {"x":{"z":null}}
1 | 1 | {}
{"a":1} | null | null
{"a":0} | {"a":-0.0} | {}
{"a":1} | {"a":null} | {"a":null}
{"a":1} | {"a":{"b":null}} | {"a":{"b":null}}
{"a":{"b":1}} | {"a":{"b":1},"c":{}} | {"c":{}}
{"caf\u00e9":1} | {"cafe\u0301":1} | {}
)")) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(canonical(MergePatch::diff(json(row[0]), json(row[1]))), row[2]);
  }
}

TEST(MergePatchTest, AffectedPathsAreDepthFirstInKeyOrder) {
  const struct {
    const char *patch, *prefix;
    std::vector<std::string> expected;
  } cases[] = {{R"({"b":1,"a":{"d":null,"c":[1]}})", "cfg", {"cfg.a.c", "cfg.a.d", "cfg.b"}},
               {"3", "cfg", {"cfg"}},
               {R"({"a":{"b":{}},"c":null})", "cfg", {"cfg.c"}},
               {R"({"a":1})", "", {".a"}},
               {R"({"x.y":1,"B":2,"a":3})", "r", {"r.B", "r.a", "r.x.y"}}};
  for (const auto& c : cases)
    EXPECT_EQ(MergePatch::affectedPaths(json(c.patch), c.prefix), c.expected) << c.patch;
}

}  // namespace
}  // namespace tarskel
