// tarskel call OP | tarskel info
//
// Talks to a running daemon through the same client the platform's
// processes link. Exit codes: 0 when the response is ok, 1 when the daemon
// refused or the operation failed, 2 for bad usage, 3 when the daemon could
// not be reached or its reply could not be read.

#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string>

#include "ToolCommand.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"
#include "tarskel/xpc/DaemonWire.hpp"

namespace tarskel::tool {
namespace {

struct CallOptions {
  std::string op;
  std::optional<std::string> args;
  std::optional<std::string> serviceId;
  std::optional<std::string> correlationId;
  std::string machService{DaemonWire::machServiceName};
};

JSONObject parseArgs(const std::optional<std::string>& text) {
  if (!text) return {};
  JSONValue value;
  try {
    value = TarskelJSON::decoder().decode<JSONValue>(*text);
  } catch (const Error& e) {
    throw ToolFailure(kExitUsage, "--args no es JSON válido: " + e.description());
  }
  if (const JSONObject* object = value.objectValue()) return *object;
  throw ToolFailure(kExitUsage, "--args debe ser un objeto JSON");
}

DaemonResponse send(const std::string& machService, const DaemonRequest& request) {
  DaemonXPCClient client(machService);
  try {
    return client.request(request);
  } catch (const DaemonClientError& e) {
    throw ToolFailure(kExitTransport, e.description());
  } catch (const DecodingError& e) {
    throw ToolFailure(kExitTransport, "respuesta ilegible del daemon: " + e.description());
  }
}

int runCall(const CallOptions& options) {
  const DaemonRequest request{options.op, parseArgs(options.args), options.correlationId,
                              options.serviceId};
  const DaemonResponse response = send(options.machService, request);
  writeOutput(TarskelJSON::canonicalEncoder().encode(response) + "\n");
  return response.ok ? kExitSuccess : kExitFinding;
}

std::string plainText(const JSONValue* value) {
  if (value == nullptr) return "?";
  if (const std::string* s = value->stringValue()) return *s;
  return TarskelJSON::canonicalEncoder().encode(*value);
}

// daemon.info's result for people: one fact a line, then the catalogue.
std::string describeInfo(const JSONValue& result) {
  const JSONObject empty;
  const JSONObject& info = result.objectValue() != nullptr ? *result.objectValue() : empty;
  std::string out = fmt::format("tarskeld {} (protocolo {})\n", plainText(info.find("daemonVersion")),
                                plainText(info.find("protocolVersion")));
  out += fmt::format("pid {}, uid {}\n", plainText(info.find("pid")), plainText(info.find("uid")));
  out += "operaciones:\n";
  if (const JSONValue* ops = info.find("ops"); ops != nullptr && ops->arrayValue() != nullptr) {
    for (const JSONValue& op : *ops->arrayValue()) out += "  " + plainText(&op) + "\n";
  }
  return out;
}

int runInfo(const std::string& machService) {
  const DaemonResponse response = send(machService, {"daemon.info", {}, std::nullopt, std::nullopt});
  if (!response.ok || !response.result) {
    const std::string reason =
        response.error ? response.error->code + ": " + response.error->message : "sin resultado";
    throw ToolFailure(kExitFinding, "daemon.info rechazado: " + reason);
  }
  writeOutput(describeInfo(*response.result));
  return kExitSuccess;
}

void addMachServiceOption(CLI::App* command, std::string& target) {
  command->add_option("--mach-service", target,
                      "Service name, or a socket path when it holds a '/' (default " +
                          std::string(DaemonWire::machServiceName) + ")");
}

void install(CLI::App& app, ToolContext& ctx) {
  auto call = std::make_shared<CallOptions>();
  CLI::App* callCommand = app.add_subcommand(
      "call", "Send one request to the daemon and print its response as one line of JSON");
  callCommand->add_option("OP", call->op, "Operation name, e.g. daemon.info")->required();
  callCommand->add_option("--args", call->args, "Arguments as a JSON object (default {})");
  callCommand->add_option("--service-id", call->serviceId, "Calling service, for granted ops");
  callCommand->add_option("--correlation-id", call->correlationId, "Id kept in the audit row");
  addMachServiceOption(callCommand, call->machService);
  callCommand->callback([&ctx, call] { ctx.action = [call] { return runCall(*call); }; });

  auto machService = std::make_shared<std::string>(DaemonWire::machServiceName);
  CLI::App* infoCommand = app.add_subcommand("info", "Show the daemon's version and operations");
  addMachServiceOption(infoCommand, *machService);
  infoCommand->callback(
      [&ctx, machService] { ctx.action = [machService] { return runInfo(*machService); }; });
}

const CommandRegistration kCallCommands(60, install);

}  // namespace
}  // namespace tarskel::tool
