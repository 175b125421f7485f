#include <gtest/gtest.h>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

TEST(JsonCommands, CanonicalPatchAndDiff) {
  ToolRun run = runTool({"json", "canonical", "-"}, R"({"b":[1.0,"a/b"],"a":{"d":null,"c":1e-5}})");
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, R"({"a":{"c":1e-05,"d":null},"b":[1,"a\/b"]})");

  namespace fs = std::filesystem;
  const fs::path from = fs::temp_directory_path() / ("tarskel-json-" + std::to_string(::getpid()));
  std::ofstream(from) << R"({"a":1,"b":{"c":2,"d":3},"e":[1]})";
  const std::string to = R"({"a":1,"b":{"c":2},"e":[2],"f":true})";
  ToolRun diff = runTool({"json", "diff", from.string(), "-"}, to);
  EXPECT_EQ(diff.out, R"({"b":{"d":null},"e":[2],"f":true})") << diff.err;
  ToolRun patch = runTool({"json", "patch", "-", from.string()}, diff.out);
  EXPECT_EQ(patch.out, R"({"a":1,"b":{"c":2},"e":[2],"f":true})") << patch.err;
  fs::remove(from);
}

// Regression: syntax errors had no position, and trailing garbage was
// reported in the decoder's words only.
TEST(JsonCommands, BadInputIsExitTwoWithLineAndColumn) {
  const struct {
    std::string input;
    std::string err;
  } cases[] = {
      {"{\"a\":1}}", "tarskel: standard input:1:8: unexpected content after the JSON document\n"},
      {"{\n  \"é\": tru }", "tarskel: standard input:2:8: unexpected 't'\n"},
      {"[1,", "tarskel: standard input:1:4: unexpected end of the document\n"},
      {"[\"a\x01\"]", "tarskel: standard input:1:4: control character in a string\n"},
      {"1e999", "tarskel: standard input: dataCorrupted en <raíz>: Valor JSON no reconocido\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    ToolRun run = runTool({"json", "canonical", "-"}, c.input);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, c.err);
  }
}

}  // namespace
}  // namespace tarskel::tool::testing
