#pragma once

// Runs the built `tarskel` binary the way a person would, for the tool's tests.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/testing/Shell.hpp"
#include "tarskel/testing/Table.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel::tool::testing {

namespace fs = std::filesystem;
using tarskel::testing::readFile;
using tarskel::testing::TempDirectory;
using tarskel::testing::writeFile;

using ToolRun = tarskel::testing::ShellRun;
using tarskel::testing::quote;
using tarskel::testing::runShell;

inline ToolRun runTool(const std::vector<std::string>& args, const std::string& input = "",
                       const std::string& stdoutTo = "") {
  std::string command = quote(TARSKEL_TOOL_PATH);
  for (const auto& a : args) command += " " + quote(a);
  return runShell(command, input, stdoutTo);
}

// Runs each row of `table`, "ARGS | EXIT CODE", then optionally " | a part of
// standard error", " | all of standard output" and " | standard input". In
// every cell "\n" stands for a newline and then each key of `vars` for its
// value; ARGS are then cut at spaces. A cell or argument written '' is empty.
inline void expectRuns(std::string_view table,
                       const std::map<std::string, std::string>& vars = {}) {
  const auto expand = [&](std::string s) {
    if (s == "''") return std::string();
    for (auto at = s.find("\\n"); at != std::string::npos; at = s.find("\\n", at + 1))
      s.replace(at, 2, "\n");
    for (const auto& [key, value] : vars) {
      for (auto at = s.find(key); at != std::string::npos; at = s.find(key, at + value.size()))
        s.replace(at, key.size(), value);
    }
    return s;
  };
  for (const tarskel::testing::Row& row : tarskel::testing::rows(table)) {
    SCOPED_TRACE(row.line);
    std::vector<std::string> args;
    std::istringstream words(expand(row[0]));
    for (std::string word; words >> word;) args.push_back(word == "''" ? "" : word);
    const ToolRun run = runTool(args, row.cells.size() > 4 ? expand(row[4]) : "");
    EXPECT_EQ(run.exitCode, std::stoi(row[1])) << run.err;
    if (row.cells.size() > 2) {
      EXPECT_NE(run.err.find(expand(row[2])), std::string::npos) << run.err;
    }
    if (row.cells.size() > 3) {
      EXPECT_EQ(run.out, expand(row[3]));
    }
  }
}

// A fresh directory for each test.
class ToolFiles : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return scratch.file(name).string(); }
  std::string write(const std::string& name, std::string_view content) const {
    writeFile(scratch.file(name), content);
    return path(name);
  }
  // Runs SQL on `db` through the sqlite3 shell, outside our own code.
  static void sql(const std::string& db, const std::string& text) {
    ASSERT_EQ(std::system(("sqlite3 " + quote(db) + " " + quote(text)).c_str()), 0) << text;
  }

  TempDirectory scratch{"tarskel-tool"};
};

}  // namespace tarskel::tool::testing
