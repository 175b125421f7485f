#pragma once

// The frame every `tarskel` subcommand plugs into, and the plumbing they share.
//
// Each command file defines one installer (declared below), and ToolApp.cpp
// lists them in one table, in the order --help shows them. An installer adds
// its subcommands to `app` and, in their callbacks, sets `ctx.action`, which
// runTool() runs after parsing. Actions return an exit code or throw
// ToolFailure; any other tarskel::Error that escapes is exit 2.
// Every command gets -q/--quiet and --version (where it has no --version of
// its own) without asking, and appears in the completion scripts and the
// manual page, which are generated from this same tree.
//
// What the tool itself says (help, framing of errors, warnings) is English;
// the system's own texts (library errors, findings) are quoted as they are.

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/base/ExitStatus.hpp"
#include "tarskel/protocol/base/NearestWord.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::tool {

// Exit statuses come from the table both executables share.
inline constexpr std::string_view kExitStatusHelp = kToolExitStatusHelp;

struct ToolContext {
  std::function<int()> action;
};

using CommandInstaller = void (*)(CLI::App& app, ToolContext& ctx);

// One installer per command file; the table in ToolApp.cpp orders them.
// Makes `run` over the parsed `options` the action of `command`.
template <class Options>
void bind(CLI::App* command, ToolContext& ctx, std::shared_ptr<Options> options,
          int (*run)(const Options&)) {
  command->callback(
      [&ctx, options, run] { ctx.action = [options, run] { return run(*options); }; });
}

void installJsonCommands(CLI::App& app, ToolContext& ctx);
void installSchemaCommands(CLI::App& app, ToolContext& ctx);
void installSemverCommands(CLI::App& app, ToolContext& ctx);
void installManifestCommands(CLI::App& app, ToolContext& ctx);
void installAuditCommands(CLI::App& app, ToolContext& ctx);
void installVendorCommands(CLI::App& app, ToolContext& ctx);
void installCodeSignCommands(CLI::App& app, ToolContext& ctx);
void installCallCommands(CLI::App& app, ToolContext& ctx);
void installDescribeCommands(CLI::App& app, ToolContext& ctx);
void installCCCommands(CLI::App& app, ToolContext& ctx);
void installBusCommands(CLI::App& app, ToolContext& ctx);

// A failure with a message for standard error and the exit code to end with.
class ToolFailure : public std::runtime_error {
 public:
  ToolFailure(int exitCode, const std::string& message)
      : std::runtime_error(message), exitCode_(exitCode) {}
  int exitCode() const { return exitCode_; }

 private:
  int exitCode_;
};

// ---- Input

// `path` as messages name it: "standard input" for "-".
std::string inputName(const std::string& path);

// The whole content of `path`, or of standard input for "-". Throws
// ToolFailure(kExitUsage) naming the file and the reason ("is a directory",
// the system's text for the error) when it can't be read.
std::string readInput(const std::string& path);

// The JSON document in `path` decoded as T. A syntax error is reported as
// "FILE:LINE:COLUMN: reason"; any other decoding error as "FILE: <text>";
// both ToolFailure(kExitUsage).
template <class T>
T readJSONInput(const std::string& path);

// The same for bytes already in hand; `name` names them in messages.
template <class T>
T decodeJSONInput(std::string_view bytes, const std::string& name);

// The failure for `error`: "NAME:LINE:COLUMN: reason" where the text broke
// when the decoder says where, else "NAME: <text>".
ToolFailure jsonInputFailure(const std::string& name, const DecodingError& error);

// ---- Operations

// The daemon's operation names, in its catalogue's order, known without a
// daemon (DescribeCommands.cpp).
std::vector<std::string> operationNames();

// Adds the positional OP; its type name lists the operations, which the
// completion scripts offer.
template <class T>
CLI::Option* addOperationPositional(CLI::App* command, T& target, const std::string& help) {
  std::string names;
  for (const std::string& name : operationNames()) names += (names.empty() ? "" : ",") + name;
  return command->add_option("OP", target, help)->type_name("{" + names + "}");
}

// ---- Output

// Text from a store or a client made safe for a terminal, as journalctl
// shows it: control characters (C0, DEL, C1), backslash and the characters
// that reorder a line are escaped, so that no row can forge another on
// screen or reach the terminal as a command. Other text, accents included,
// stands.
std::string forTerminal(std::string_view text);

// Writes `bytes` to standard output exactly, no newline added, and flushes.
// A write that fails (a full disk, a closed pipe) throws
// ToolFailure(kExitUsage) with the reason.
void writeOutput(const std::string& bytes);

// Writes `bytes` to `outputPath` through a temporary file beside it and an
// atomic rename, so the target is whole or untouched (and may be one of the
// command's own inputs); to standard output when `outputPath` is empty.
void writeResult(const std::string& bytes, const std::string& outputPath);

// Adds "-o,--output FILE" for writeResult.
void addOutputOption(CLI::App* command, std::string& outputPath);

// Adds "--json": the result as one JSON object and a newline, documented in
// docs/tarskel-json.md.
void addJSONFlag(CLI::App* command, bool& json);

// One line of JSON for machines: the canonical bytes of `value` and "\n".
std::string jsonLine(const JSONValue& value);

// ---- People

// True under -q/--quiet: no progress, no warnings, no report of success.
bool quiet();
void setQuiet(bool value);  // by the command line, before any action runs

// "tarskel: warning: <text>" on standard error, unless quiet.
void warn(const std::string& text);

// Whether standard error is a terminal that progress may be drawn on.
bool progressWanted();

// `json` (one document as the encoders write it) for people: each "\\/"
// as "/", and with `pretty` one member or element a line, indented by two
// spaces. The bytes that are signed or hashed keep the escaped form.
std::string jsonForPeople(std::string_view json, bool pretty);

// The "did you mean" of every command line of the platform.
using tarskel::nearestWord;

// ---- templates

template <class T>
T decodeJSONInput(std::string_view bytes, const std::string& name) {
  try {
    return TarskelJSON::decoder().decode<T>(bytes);
  } catch (const DecodingError& e) {
    throw jsonInputFailure(name, e);
  }
}

template <class T>
T readJSONInput(const std::string& path) {
  const std::string bytes = readInput(path);
  return decodeJSONInput<T>(bytes, inputName(path));
}

}  // namespace tarskel::tool
