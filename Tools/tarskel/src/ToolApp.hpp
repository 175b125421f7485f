#pragma once

// The command tree of `tarskel` and the run of one command line.

#include <CLI/CLI.hpp>
#include <string>

namespace tarskel::tool {

// Builds the whole tree, parses `argv`, runs the chosen action and returns
// the exit status (ToolCommand.hpp's table).
int runTool(int argc, char** argv);

// Generated from the tree, at build time: a completion script for "bash",
// "zsh" or "fish", and the manual page in roff.
std::string completionScript(const CLI::App& app, const std::string& shell);
std::string manualPage(const CLI::App& app);

}  // namespace tarskel::tool
