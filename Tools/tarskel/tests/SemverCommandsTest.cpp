#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

TEST(SemverCommands, CheckExitCodeTellsTheOutcome) {
  struct Case {
    std::string constraint;
    std::string version;
    int exitCode;
    std::string err;  // a fragment of standard error
  };
  const Case cases[] = {
      {"^0.2.3", "0.2.9", 0, ""},
      {" >= 1.2 ", "2.0.0-rc", 0, ""},
      {"^0.2.3", "0.3.0", 1, ""},
      {"1.x", "2.0.0", 1, ""},
      {"^1.2.3-rc.1", "1.2.3", 2, "restricción de versión inválida: ^1.2.3-rc.1"},
      {"1.2", "1.2", 2, "versión inválida: 1.2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.constraint + " by " + c.version);
    ToolRun run = runTool({"semver", "check", c.constraint, c.version});
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
  }
}

TEST(SemverCommands, ComparePrintsTheRelation) {
  struct Case {
    std::string a;
    std::string b;
    std::string out;
  };
  const Case cases[] = {
      {"1.0.0-rc.10", "1.0.0-rc.9", "<\n"},
      {"01.2.3", "1.2.3", "=\n"},
      {"1.0.0", "1.0.0-rc", ">\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.a + " vs " + c.b);
    ToolRun run = runTool({"semver", "compare", c.a, c.b});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, c.out);
  }
  ToolRun bad = runTool({"semver", "compare", "1.2.3", "v1.2.3"});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.err.find("versión inválida: v1.2.3"), std::string::npos) << bad.err;
}

TEST(SemverCommands, HelpAtEveryLevel) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"semver", "--help"}, {"semver", "check", "--help"}, {"semver", "compare", "--help"}}) {
    SCOPED_TRACE(args[args.size() - 2]);
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.out.find("Usage"), std::string::npos) << run.out;
  }
}

}  // namespace
}  // namespace tarskel::tool::testing
