// The command line of the shipped executable: help, version, completion
// scripts, and the two ways the process ends before it serves.

#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <functional>
#include <regex>
#include <set>

#include "E2EFixture.hpp"
#include "tarskel/daemon/Tarskeld.hpp"
#include "tarskel/testing/Shell.hpp"

namespace tarskel::e2e {
namespace {

using testing::runShell;
using Output = testing::ShellRun;

std::string daemonCommand(const std::string& arguments) {
  return std::string("'") + TARSKELD_PATH + "' " + arguments;
}

// The help names the defaults; every option it lists is offered by every
// completion script.
TEST(CommandLineTest, HelpVersionAndCompletionScripts) {
  const Output help = runShell(daemonCommand("--help"));
  EXPECT_EQ(help.exitCode, 0);
  for (const char* expected :
       {"Tarskel — daemon de operaciones privilegiadas (catálogo cerrado)",
        "net.hollowick.tarskel.daemon", "/Library/Application Support/Tarskel"})
    EXPECT_NE(help.out.find(expected), std::string::npos) << expected << "\n" << help.out;
  EXPECT_EQ(runShell(daemonCommand("--version")).out, "0.1.0\n");

  const std::regex optionName(R"(--[a-z][a-z-]+)");
  std::set<std::string> options;
  for (auto it = std::sregex_iterator(help.out.begin(), help.out.end(), optionName);
       it != std::sregex_iterator(); ++it)
    options.insert(it->str());
  ASSERT_GE(options.size(), 5u);
  for (const char* shell : {"bash", "zsh", "fish"}) {
    SCOPED_TRACE(shell);
    const Output script =
        runShell(daemonCommand(std::string("--generate-completion-script ") + shell));
    EXPECT_EQ(script.exitCode, 0);
    for (const std::string& option : options) {
      // fish names long options without their dashes.
      const std::string name = std::string(shell) == "fish" ? "-l " + option.substr(2) : option;
      EXPECT_NE(script.out.find(name), std::string::npos) << option;
    }
  }
}

// Regression: CLI11's own statuses (109 for --bogus) leaked out, and an empty
// root or service put the state or the socket in the current directory.
TEST(CommandLineTest, ParseErrorsExitTwoAndNeverStartTheDaemon) {
  TempDir dir;
  for (auto [arguments, said] : {std::pair{"--bogus", "unknown option '--bogus'\n"},
                                 {"--rot x", "did you mean '--root'?"},
                                 {"--root ''", "must not be empty"},
                                 {"--mach-service ''", "must not be empty"}}) {
    SCOPED_TRACE(arguments);
    const Output run = runShell("cd '" + dir.path().string() + "' && " + daemonCommand(arguments));
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find(said), std::string::npos) << run.err;
    EXPECT_EQ((run.out + run.err).find("sirviendo"), std::string::npos);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  }
}

// A leading tilde expands as the shell would. Regression: the root was used
// as typed, and a relative or trailing-slash spelling reached clients.
TEST(CommandLineTest, RootIsExpandedMadeAbsoluteAndStandardised) {
  const std::string savedHome = std::getenv("HOME") != nullptr ? std::getenv("HOME") : "";
  const std::string rootHome = getpwnam("root")->pw_dir;
  const std::string cwd = std::filesystem::current_path().string();
  struct Case {
    std::string home, typed, expanded, resolved;
  } cases[] = {
      {"/home/ana", "~", "/home/ana", "/home/ana"},
      {"/home/ana/", "~/state", "/home/ana/state", "/home/ana/state"},
      {"/", "~/state", "/state", "/state"},
      {"/home/ana", "~root/state", rootHome + "/state", rootHome + "/state"},
      {"/h", "~no-such-user-here/s", "~no-such-user-here/s", cwd + "/~no-such-user-here/s"},
      {"/h", "state/~", "state/~", cwd + "/state/~"},
      {"/h", "/srv/./a/../state/", "/srv/./a/../state/", "/srv/state"},
      {"/h", "/", "/", "/"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.home + " " + c.typed);
    setenv("HOME", c.home.c_str(), 1);
    EXPECT_EQ(Tarskeld::expandTilde(c.typed), c.expanded);
    EXPECT_EQ(Tarskeld::resolveRoot(c.typed).string(), c.resolved);
  }
  setenv("HOME", savedHome.c_str(), 1);
}

TEST(CommandLineTest, BashCompletionOffersWhatEachPositionTakes) {
  TempDir dir;
  std::filesystem::create_directory(dir / "subdir");
  writeFile(dir / "subfile", "x");
  struct Case {
    std::string words;
    std::string expected;
  } cases[] = {
      {"tarskeld --r", "--root"},
      {"tarskeld --generate-completion-script f", "fish"},
      {"tarskeld --root " + (dir / "sub").string(), (dir / "subdir").string()},
      {"tarskeld --mach-service ne", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words);
    const Output run =
        runShell("bash -c " +
                 testing::quote("source <(" + daemonCommand("--generate-completion-script bash") +
                                "); COMP_WORDS=(" + c.words +
                                "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tarskeld; "
                                "printf '%s' \"${COMPREPLY[*]}\""));
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out, c.expected);
  }
}

using StartupTest = E2EFixture;

TEST_F(StartupTest, RefusalsToStartEndTheProcessBeforeItServes) {
  struct Case {
    const char* name;
    std::function<void()> prepare;
    std::string said;  // in standard error; "" for no log line at all
    int exitCode = 1;
  };
  const Case cases[] = {
      {"root is a file", [&] { writeFile(root(), "not a directory"); }, ""},
      // Regression: a damaged database ended the daemon without naming the file.
      {"damaged audit database", [&] { writeFile(auditPath(), std::string(4096, 'x')); },
       "tarskeld: error: " + auditPath().string() + ": "},
      {"socket directory others may write", [&] { ::chmod(dir.path().c_str(), 0777); },
       "admite escritura de grupo u otros"},
      // Regression: a root another user owned was taken, and links planted in it chmodded root's
      // files.
      {"state root another user owns",
       [&] { std::filesystem::create_directory(root()), ::chown(root().c_str(), 65534, 65534); },
       "tarskeld: error: " + root().string() + " pertenece a otro usuario (uid 65534)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(root());
    ::chmod(dir.path().c_str(), 0700);
    c.prepare();
    DaemonProcess process(TARSKELD_PATH, daemonArguments(),
                          {{"LISTEN_FDS", std::nullopt}, {"LISTEN_PID", std::nullopt}});
    const std::optional<int> status = process.waitForExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == c.exitCode) << *status;
    EXPECT_NE(process.log().find(c.said), std::string::npos) << process.log();
    ASSERT_FALSE(process.lines().empty());
    if (c.said.empty()) {
      for (const std::string& line : process.lines()) EXPECT_FALSE(logMessage(line)) << line;
    }
    EXPECT_FALSE(std::filesystem::exists(socketPath()));
  }
}

TEST_F(StartupTest, TildeRootLandsUnderHome) {
  const std::filesystem::path home = dir / "home";
  std::filesystem::create_directory(home);
  daemon = std::make_unique<DaemonProcess>(
      TARSKELD_PATH,
      std::vector<std::string>{"--mach-service", socketPath(), "--root", "~/state/deep"},
      Environment{{"HOME", home.string()}});
  ASSERT_TRUE(daemon->waitForLine(kServingLine));
  EXPECT_TRUE(std::filesystem::exists(home / "state/deep/daemon/audit.db"));
  EXPECT_FALSE(std::filesystem::exists(dir / "~"));
}

}  // namespace
}  // namespace tarskel::e2e
