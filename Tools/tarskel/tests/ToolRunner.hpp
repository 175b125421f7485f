#pragma once

// Runs the built `tarskel` binary the way a person would, for the tool's tests.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarskel::tool::testing {

struct ToolRun {
  int exitCode = -1;
  std::string out;
  std::string err;
};

inline std::string readWhole(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline std::string shellQuote(const std::string& s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

// Runs the shell command line `command` with `input` on standard input;
// standard output goes to `stdoutTo` when given (then `out` stays empty).
inline ToolRun runShell(const std::string& command, const std::string& input = "",
                        const std::string& stdoutTo = "") {
  namespace fs = std::filesystem;
  static int counter = 0;
  const fs::path dir = fs::temp_directory_path() / ("tarskel-tool-" + std::to_string(::getpid()) +
                                                    "-" + std::to_string(counter++));
  fs::create_directories(dir);
  std::ofstream(dir / "in", std::ios::binary) << input;
  const int status = std::system((command + " <" + shellQuote((dir / "in").string()) + " >" +
                                  shellQuote(stdoutTo.empty() ? (dir / "out").string() : stdoutTo) +
                                  " 2>" + shellQuote((dir / "err").string()))
                                     .c_str());
  ToolRun run;
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = readWhole(dir / "out");
  run.err = readWhole(dir / "err");
  fs::remove_all(dir);
  return run;
}

// Runs `tarskel args...` the same way.
inline ToolRun runTool(const std::vector<std::string>& args, const std::string& input = "",
                       const std::string& stdoutTo = "") {
  std::string command = shellQuote(TARSKEL_TOOL_PATH);
  for (const auto& a : args) command += " " + shellQuote(a);
  return runShell(command, input, stdoutTo);
}

// One run of the tool and what it must give.
struct Expected {
  Expected(std::vector<std::string> a, int code, std::string e,
           std::optional<std::string> o = std::nullopt, std::string in = "")
      : args(std::move(a)),
        exitCode(code),
        err(std::move(e)),
        out(std::move(o)),
        input(std::move(in)) {}

  std::vector<std::string> args;
  int exitCode;
  std::string err;                 // a part of standard error
  std::optional<std::string> out;  // all of standard output, when given
  std::string input;
};

inline void expectRuns(const std::vector<Expected>& cases) {
  for (const Expected& c : cases) {
    std::string line;
    for (const auto& a : c.args) line += a + " ";
    SCOPED_TRACE(line);
    const ToolRun run = runTool(c.args, c.input);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    if (c.out) {
      EXPECT_EQ(run.out, *c.out);
    }
    EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
  }
}

}  // namespace tarskel::tool::testing
