// tarskel describe [OP]
//
// The daemon's operations, their argument schemas and an example call, read
// from the same catalogue the daemon builds, so that it needs no daemon.

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ToolCommand.hpp"
#include "tarskel/daemon/DaemonCatalog.hpp"

namespace tarskel::tool {
namespace {

struct DescribeOptions {
  std::optional<std::string> op;
  bool json = false;
};

// The catalogue as a daemon with a state root builds it; nothing in it runs.
const DaemonCore::OpList& catalogue() {
  static const DaemonCore::OpList ops = DaemonCatalog::operations(
      nullptr, std::filesystem::path("/"), PlatformFiles::system(), {}, std::nullopt);
  return ops;
}

std::string summaryOf(const std::string& op) {
  static const std::map<std::string, std::string> summaries{
      {"daemon.info", "The daemon's version, protocol, pid, uid and operations"},
      {"daemon.grants.sync", "Replace the grants: which service may call which operation"},
      {"fs.readProtectedPath", "Read a regular file the caller can't read itself"},
      {"platform.applyUpdate", "Swap in a sealed staged update, or roll one back"},
      {"platform.uninstallMachine", "Remove the installed platform and the data it keeps"},
  };
  const auto found = summaries.find(op);
  return found != summaries.end() ? found->second : std::string();
}

// A value `node` accepts, for the example: the first enumerated value, else
// a placeholder of the type; an object holds its required members (all of
// them when none is required).
JSONValue exampleOf(const SchemaNode& node, const std::string& name) {
  if (node.enumValues && !node.enumValues->empty()) return node.enumValues->front();
  switch (node.type.value_or(SchemaType::object)) {
    case SchemaType::string:
      return JSONValue("<" + name + ">");
    case SchemaType::number:
    case SchemaType::integer:
      return JSONValue(node.minimum.value_or(0));
    case SchemaType::boolean:
      return JSONValue(false);
    case SchemaType::array:
      return JSONValue(JSONValue::Array{});
    case SchemaType::object:
      break;
  }
  JSONObject object;
  if (!node.properties) return JSONValue(object);
  for (const auto& [key, member] : *node.properties) {
    const bool required = !node.required || std::find(node.required->begin(), node.required->end(),
                                                      key) != node.required->end();
    if (required) object.set(key, exampleOf(member, key));
  }
  return JSONValue(object);
}

const DaemonOp& operationNamed(const std::string& name) {
  for (const DaemonOpPtr& op : catalogue()) {
    if (op->name() == name) return *op;
  }
  const std::string nearest = nearestWord(name, operationNames());
  throw ToolFailure(kExitUsage, "unknown operation '" + name + "'" +
                                    (nearest.empty() ? "" : "; did you mean '" + nearest + "'?"));
}

int runDescribe(const DescribeOptions& options) {
  if (!options.op) {
    std::string out;
    JSONValue::Array list;
    for (const std::string& name : operationNames()) {
      out += fmt::format("{:<27}{}\n", name, summaryOf(name));
      list.push_back(
          JSONValue(JSONObject{{"op", JSONValue(name)}, {"summary", JSONValue(summaryOf(name))}}));
    }
    writeOutput(options.json ? jsonLine(JSONValue(list)) : out);
    return kExitSuccess;
  }
  const DaemonOp& op = operationNamed(*options.op);
  const JSONValue schema = JSONCoding<SchemaNode>::encode(op.argsSchema());
  const JSONValue example = exampleOf(op.argsSchema(), "args");
  const std::string args = TarskelJSON::canonicalEncoder().encode(example);
  if (options.json) {
    writeOutput(jsonLine(JSONValue(JSONObject{{"op", JSONValue(op.name())},
                                              {"summary", JSONValue(summaryOf(op.name()))},
                                              {"argsSchema", schema},
                                              {"example", example}})));
    return kExitSuccess;
  }
  writeOutput(fmt::format(
      "{} - {}\nArguments (schema):\n{}\nExample:\n  tarskel call {} --args '{}'\n", op.name(),
      summaryOf(op.name()), jsonForPeople(TarskelJSON::canonicalEncoder().encode(schema), true),
      op.name(), jsonForPeople(args, false)));
  return kExitSuccess;
}

}  // namespace

std::vector<std::string> operationNames() {
  std::vector<std::string> names;
  for (const DaemonOpPtr& op : catalogue()) names.push_back(op->name());
  return names;
}

void installDescribeCommands(CLI::App& app, ToolContext& ctx) {
  auto describe = std::make_shared<DescribeOptions>();
  CLI::App* command = app.add_subcommand(
      "describe", "List the daemon's operations, or show one's argument schema and an example");
  addOperationPositional(command, describe->op, "Operation name (default: list them all)");
  addJSONFlag(command, describe->json);
  command->callback(
      [&ctx, describe] { ctx.action = [describe] { return runDescribe(*describe); }; });
}

}  // namespace tarskel::tool
