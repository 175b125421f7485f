#include <gtest/gtest.h>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

TEST(JsonCommands, CanonicalWritesExactBytesWithoutNewline) {
  ToolRun run = runTool({"json", "canonical", "-"}, R"({"b":[1.0,"a/b"],"a":{"d":null,"c":1e-5}})");
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, R"({"a":{"c":1e-05,"d":null},"b":[1,"a\/b"]})");
}

TEST(JsonCommands, PatchAndDiff) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("tarskel-json-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "from.json") << R"({"a":1,"b":{"c":2,"d":3},"e":[1]})";
  std::ofstream(dir / "to.json") << R"({"a":1,"b":{"c":2},"e":[2],"f":true})";

  ToolRun diff = runTool({"json", "diff", (dir / "from.json").string(), (dir / "to.json").string()});
  EXPECT_EQ(diff.exitCode, 0) << diff.err;
  EXPECT_EQ(diff.out, R"({"b":{"d":null},"e":[2],"f":true})");

  ToolRun patch = runTool({"json", "patch", "-", (dir / "from.json").string()}, diff.out);
  EXPECT_EQ(patch.exitCode, 0) << patch.err;
  EXPECT_EQ(patch.out, R"({"a":1,"b":{"c":2},"e":[2],"f":true})");
  fs::remove_all(dir);
}

TEST(JsonCommands, BadInputIsExitTwoWithAReason) {
  struct Case {
    std::vector<std::string> args;
    std::string input;
  } cases[] = {
      {{"json", "canonical", "-"}, "{\"a\":1}}"},
      {{"json", "canonical", "-"}, "1e999"},
      {{"json", "canonical", "/nonexistent/file.json"}, ""},
      {{"json", "canonical"}, ""},
      {{"json", "frobnicate"}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    ToolRun run = runTool(c.args, c.input);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.out.empty());
    EXPECT_FALSE(run.err.empty());
  }
}

TEST(JsonCommands, HelpAndVersion) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"}, {"json", "--help"},
                                        {"json", "patch", "--help"}}) {
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.out.find("Usage"), std::string::npos) << run.out;
  }
  ToolRun version = runTool({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out, "tarskel 0.1.0\n");
}

}  // namespace
}  // namespace tarskel::tool::testing
