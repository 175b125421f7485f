// What every command shares: input errors, checked output, exit codes, the
// words for unknown commands, and the generated completion and manual page.

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

namespace fs = std::filesystem;

// Regression: a directory where a file belongs ended the tool with an
// uncaught std::ios_base::failure (exit 134).
TEST(ToolTest, ADirectoryOrUnreadableFileIsExitTwoNamingFileAndReason) {
  const std::string d = fs::temp_directory_path().string();
  const std::string a = "/nonexistent/a.json";
  expectRuns({
      {{"json", "canonical", d}, 2, d + ": Is a directory"},
      {{"json", "patch", d, "-"}, 2, d + ": Is a directory"},
      {{"schema", "validate", d, "-"}, 2, d + ": Is a directory"},
      {{"vendor", "allowlist", "--revision", "1", d}, 2, d + ": Is a directory"},
      {{"vendor", "verify", d, "--allowlist", d}, 2, d + ": Is a directory"},
      {{"vendor", "rotate", "--current", d, "--new", d, "--key", d}, 2, d + ": Is a directory"},
      {{"vendor", "seal", d, "--key", d, "--artifact-id", "a", "--type", "service", "--version",
        "1.0.0", "--monotonic", "1", "--expires", "2099-01-01T00:00:00Z"},
       2,
       d + ": Is a directory"},
      {{"json", "canonical", a}, 2, a + ": No such file or directory"},
  });
}

// Regression: `> /dev/full` exited 0 and left an empty file behind a success.
TEST(ToolTest, AFailedWriteOfStandardOutputIsExitTwo) {
  ToolRun run = runTool({"json", "canonical", "-"}, "[1]", "/dev/full");
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.err, "tarskel: standard output: No space left on device\n");
}

// Regression: every one of these said "A subcommand is required", and an
// unknown option was named without the nearest one.
TEST(ToolTest, UnknownWordsAreNamedWithTheNearestOne) {
  const std::vector<std::string> seal{"vendor",        "seal", "d",      "--key",  "k",
                                      "--artifact-id", "a",    "--type", "service"};
  const auto sealWith = [&](std::vector<std::string> extra) {
    extra.insert(extra.begin(), seal.begin(), seal.end());
    return extra;
  };
  expectRuns({
      {{"vendr", "keygen"}, 2, "unknown command 'vendr'; did you mean 'vendor'?"},
      {{"vendor", "kegen"},
       2,
       "unknown command 'kegen' for 'tarskel vendor'; did you mean 'keygen'?"},
      {{"xyzzy"}, 2, "unknown command 'xyzzy'\nCommands: json, schema"},
      {{"vendor"}, 2, "'tarskel vendor' needs a command: keygen, pubkey"},
      {{}, 2, "a command is required"},
      {sealWith({"--verison", "1.0.0"}), 2,
       "unknown option '--verison' for 'tarskel vendor seal'; did you mean '--version'?\n"
       "Run 'tarskel vendor seal --help' for more."},
      {{"audit", "tail", "--outcom=ok"},
       2,
       "'--outcom' for 'tarskel audit tail'; did you mean '--outcome'?"},
      {{"json", "canonical", "-", "--bogus"},
       2,
       "unknown option '--bogus' for 'tarskel json canonical'\nRun 'tarskel json canonical "
       "--help'"},
      // The one command whose --version is its own: the artifact's.
      {sealWith({"--version"}), 2, "Here --version is the artifact's version; 'tarskel --version'"},
  });
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"help"}, {"help", "vendor", "seal"}}) {
    ToolRun help = runTool(args);
    EXPECT_EQ(help.exitCode, 0) << help.err;
    EXPECT_NE(help.out.find("Exit status: 0 ok; 1 refused or not ok; 2 bad usage or unusable "
                            "input; 3 daemon unreachable or timed out."),
              std::string::npos)
        << help.out;
  }
  EXPECT_NE(runTool({"help", "vendor", "seal"}).out.find("Here --version is the artifact's"),
            std::string::npos);
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--version"},
                                               {"vendor", "--version"},
                                               {"json", "canonical", "--version"}}) {
    EXPECT_EQ(runTool(args).out, "0.1.0\n");  // the daemon's form
  }
}

// The build generates these from the command tree: every command is in them.
TEST(ToolTest, GeneratedCompletionAndManualPageCoverEveryCommand) {
  const fs::path docs = TARSKEL_TOOL_DOCS;
  const std::string man = readWhole(docs / "tarskel.1");
  for (const char* command : {"json canonical", "vendor pubkey", "vendor seal", "call", "info"}) {
    EXPECT_NE(man.find(std::string("tarskel ") + command), std::string::npos) << command;
  }
  const std::pair<std::string, std::string> cases[] = {
      {"tarskel ve", "vendor"},
      {"tarskel vendor ro", "rotate"},
      {"tarskel vendor seal --ar", "--artifact-id"},
      {"tarskel json canonical --j", ""},
  };
  const std::string script = (fs::temp_directory_path() / "tarskel-completion.sh").string();
  for (const auto& [words, expected] : cases) {
    std::ofstream(script) << "source '" << (docs / "tarskel.bash").string() << "'; COMP_WORDS=("
                          << words << "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tarskel; "
                          << "printf '%s' \"${COMPREPLY[*]}\"";
    EXPECT_EQ(runShell("bash " + script).out, expected) << words;
  }
  fs::remove(script);
}

}  // namespace
}  // namespace tarskel::tool::testing
