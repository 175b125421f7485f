#pragma once

// The frame every `tarskel` subcommand plugs into. A command file registers
// an installer at static-initialisation time:
//
//   static const CommandRegistration kJson(10, [](CLI::App& app, ToolContext& ctx) {...});
//
// The installer adds its subcommands to `app` and, in their callbacks, sets
// `ctx.action`, which main() runs after parsing. Actions return an exit code.

#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>
#include <string>

namespace tarskel::tool {

enum ExitCode : int {
  kExitSuccess = 0,
  kExitFinding = 1,    // a finding or a refusal
  kExitUsage = 2,      // bad usage or unreadable input
  kExitTransport = 3,  // the daemon could not be reached
};

struct ToolContext {
  std::function<int()> action;
};

using CommandInstaller = void (*)(CLI::App& app, ToolContext& ctx);

struct CommandRegistration {
  // Lower `order` installs first, which fixes the order in --help.
  CommandRegistration(int order, CommandInstaller install);
};

// A failure with a message for standard error and the exit code to end with.
class ToolFailure : public std::runtime_error {
 public:
  ToolFailure(int exitCode, const std::string& message)
      : std::runtime_error(message), exitCode_(exitCode) {}
  int exitCode() const { return exitCode_; }

 private:
  int exitCode_;
};

// The whole content of `path`, or of standard input for "-". Throws
// ToolFailure(kExitUsage) naming the file when it can't be read.
std::string readInput(const std::string& path);

// Writes `bytes` to standard output exactly, no newline added.
void writeOutput(const std::string& bytes);

}  // namespace tarskel::tool
