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
    std::string out;  // exact standard output
    std::string err;  // a fragment of standard error
  };
  const Case cases[] = {
      {{"check", "^0.2.3", "0.2.9"}, 0, "0.2.9 satisfies ^0.2.3\n", ""},
      {{"check", "^0.2.3", "0.3.0"}, 1, "0.3.0 does not satisfy ^0.2.3\n", ""},
      {{"check", "^0.2.3", "0.3.0", "-q"}, 1, "", ""},
      {{"check", "^0.2.3", "0.2.4", "--json"},
       0,
       "{\"constraint\":\"^0.2.3\",\"satisfied\":true,\"version\":\"0.2.4\"}\n",
       ""},
      {{"check", "^1.2.3-rc.1", "1.2.3"}, 2, "", "invalid version constraint: ^1.2.3-rc.1"},
      {{"compare", "1.0.0-rc.10", "1.0.0-rc.9"}, 0, "<\n", ""},
      {{"compare", "1.0.0", "1.0.0-rc", "--json"},
       0,
       "{\"a\":\"1.0.0\",\"b\":\"1.0.0-rc\",\"order\":\">\"}\n",
       ""},
      {{"compare", "1.2.3", "v1.2.3"}, 2, "", "invalid version: v1.2.3"},
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
}

}  // namespace
}  // namespace tarskel::tool::testing
