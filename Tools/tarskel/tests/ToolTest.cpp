// What every command shares: input and output errors, exit codes, the words
// for unknown commands, and the generated completion and manual page.

#include <gtest/gtest.h>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

// Regressions: a directory where a file belongs ended the tool with an
// uncaught std::ios_base::failure (exit 134); `> /dev/full` exited 0 and left
// an empty file behind a success.
TEST(ToolTest, InputAndOutputErrorsAreExitTwoNamingFileAndReason) {
  expectRuns(R"(
    json canonical $DIR | 2 | $DIR: Is a directory
    schema validate $DIR - | 2 | $DIR: Is a directory
    vendor verify $DIR --allowlist $DIR | 2 | $DIR: Is a directory
    json canonical /nonexistent/a.json | 2 | /nonexistent/a.json: No such file or directory
  )",
             {{"$DIR", fs::temp_directory_path().string()}});
  const ToolRun full = runTool({"json", "canonical", "-"}, "[1]", "/dev/full");
  EXPECT_EQ(full.exitCode, 2);
  EXPECT_EQ(full.err, "tarskel: standard output: No space left on device\n");
}

// Regression: every one of these said "A subcommand is required", and an
// unknown option was named without the nearest one.
TEST(ToolTest, UnknownWordsAreNamedWithTheNearestOne) {
  expectRuns(R"(
    vendr keygen | 2 | unknown command 'vendr'; did you mean 'vendor'?
    vendor kegen | 2 | unknown command 'kegen' for 'tarskel vendor'; did you mean 'keygen'?
    xyzzy | 2 | unknown command 'xyzzy'\nCommands: json, schema
    vendor | 2 | 'tarskel vendor' needs a command: keygen, pubkey
         | 2 | a command is required
    audit tail --outcom=ok | 2 | '--outcom' for 'tarskel audit tail'; did you mean '--outcome'?
    json canonical - --bogus | 2 | unknown option '--bogus' for 'tarskel json canonical'\nRun 'tarskel json canonical --help'
    vendor seal d --key k --verison 1.0.0 | 2 | unknown option '--verison' for 'tarskel vendor seal'; did you mean '--version'?\nRun 'tarskel vendor seal --help' for more.
    vendor seal d --key k --version | 2 | Here --version is the artifact's version; 'tarskel --version'
    --version | 0 |  | 0.1.0\n
    json canonical --version | 0 |  | 0.1.0\n
  )");
  const ToolRun help = runTool({"help"});
  EXPECT_EQ(help.exitCode, 0) << help.err;
  EXPECT_NE(help.out.find("Exit status: 0 ok; 1 refused or not ok; 2 bad usage or unusable "
                          "input; 3 daemon unreachable or timed out."),
            std::string::npos)
      << help.out;
  EXPECT_NE(runTool({"help", "vendor", "seal"}).out.find("Here --version is the artifact's"),
            std::string::npos);
}

// The build generates these from the command tree: every command is in them.
TEST(ToolTest, GeneratedCompletionAndManualPageCoverEveryCommand) {
  const fs::path docs = TARSKEL_TOOL_DOCS;
  const std::string man = readFile(docs / "tarskel.1");
  for (const char* command : {"json canonical", "vendor pubkey", "call", "info"}) {
    EXPECT_NE(man.find(std::string("tarskel ") + command), std::string::npos) << command;
  }
  for (const auto& row : tarskel::testing::rows(R"(
    tarskel ve | vendor
    tarskel vendor ro | rotate
    tarskel vendor seal --ar | --artifact-id
    tarskel json canonical --j | ''
    tarskel json canonical --he | --help
    tarskel audit tail --outcome d | denied
  )")) {
    const ToolRun run = runShell("bash -c " + quote("source " + quote(docs / "tarskel.bash") +
                                                    "; COMP_WORDS=(" + row[0] +
                                                    "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
                                                    "_tarskel; printf %s \"${COMPREPLY[*]}\""));
    EXPECT_EQ(run.out, row[1] == "''" ? "" : row[1]) << row.line;
  }
}

}  // namespace
}  // namespace tarskel::tool::testing
