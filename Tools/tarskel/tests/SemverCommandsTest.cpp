#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

TEST(SemverCommands, ExitCodesAndOutput) {
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string out;  // exact standard output, when the exit code is not 2
    std::string err;  // a fragment of standard error
  };
  const Case cases[] = {
      {{"check", "^0.2.3", "0.2.9"}, 0, "0.2.9 satisface ^0.2.3\n", ""},
      {{"check", " >= 1.2 ", "2.0.0-rc"}, 0, "2.0.0-rc satisface >= 1.2\n", ""},
      {{"check", "^0.2.3", "0.3.0"}, 1, "0.3.0 no satisface ^0.2.3\n", ""},
      {{"check", "^1.2.3-rc.1", "1.2.3"}, 2, "", "restricción de versión inválida: ^1.2.3-rc.1"},
      {{"check", "1.2", "1.2"}, 2, "", "versión inválida: 1.2"},
      {{"compare", "1.0.0-rc.10", "1.0.0-rc.9"}, 0, "<\n", ""},
      {{"compare", "01.2.3", "1.2.3"}, 0, "=\n", ""},
      {{"compare", "1.0.0", "1.0.0-rc"}, 0, ">\n", ""},
      {{"compare", "1.2.3", "v1.2.3"}, 2, "", "versión inválida: v1.2.3"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"semver"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(args[1] + " " + args[2] + " " + args[3]);
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    EXPECT_EQ(run.out, c.out);
    EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
  }
  ToolRun help = runTool({"semver", "check", "--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("CONSTRAINT"), std::string::npos) << help.out;
}

}  // namespace
}  // namespace tarskel::tool::testing
