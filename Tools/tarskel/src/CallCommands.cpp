// tarskel call OP | tarskel info
//
// Talks to a running daemon through the same client the platform's
// processes link. Exit codes: 0 when the response is ok, 1 when the daemon
// refused or the operation failed, 2 for bad usage, 3 when the daemon could
// not be reached, did not answer within --timeout, or its reply could not be
// read.

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "ToolCommand.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/xpc/DaemonWire.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"

namespace tarskel::tool {
namespace {

struct Connection {
  std::string machService{DaemonWire::machServiceName};
  double timeout = 30;
};

struct CallOptions {
  std::string op;
  std::optional<std::string> args;
  std::optional<std::string> serviceId;
  std::optional<std::string> correlationId;
  std::string json;  // short or pretty; empty: pretty on a terminal
  Connection connection;
};

struct InfoOptions {
  Connection connection;
  bool json = false;
};

// --args JSON, "-" for standard input, or @FILE (no limit on the size of
// what a file holds, unlike the command line).
JSONObject parseArgs(const std::optional<std::string>& text) {
  if (!text) return {};
  JSONValue value;
  if (*text == "-" || text->starts_with("@")) {
    value = readJSONInput<JSONValue>(*text == "-" ? *text : text->substr(1));
  } else {
    value = decodeJSONInput<JSONValue>(*text, "--args");
  }
  if (const JSONObject* object = value.objectValue()) return *object;
  throw ToolFailure(kExitUsage, "--args must be a JSON object");
}

// One request, given up after `connection.timeout` seconds: a daemon that
// accepted but never answers must not hold the tool for ever.
DaemonResponse send(const Connection& connection, const DaemonRequest& request) {
  if (connection.machService.empty()) throw ToolFailure(kExitUsage, "--mach-service is empty");
  if (!(connection.timeout > 0))
    throw ToolFailure(kExitUsage, "--timeout must be more than 0 seconds");
  DaemonXPCClient client(connection.machService);
  std::mutex mutex;
  std::condition_variable answered;
  bool done = false;
  bool timedOut = false;
  std::thread watchdog([&] {
    std::unique_lock lock(mutex);
    if (!answered.wait_for(lock, std::chrono::duration<double>(connection.timeout),
                           [&] { return done; })) {
      timedOut = true;
      client.close();  // the request in flight fails at once
    }
  });
  auto finish = [&] {
    {
      std::lock_guard lock(mutex);
      done = true;
    }
    answered.notify_all();
    watchdog.join();
  };
  try {
    DaemonResponse response = client.request(request);
    finish();
    return response;
  } catch (const DaemonClientError& e) {
    finish();
    if (timedOut) {
      throw ToolFailure(kExitTransport, fmt::format("{}: no answer within {} s (--timeout)",
                                                    connection.machService, connection.timeout));
    }
    throw ToolFailure(kExitTransport, e.description());
  } catch (const DecodingError& e) {
    finish();
    throw ToolFailure(kExitTransport, "unreadable reply from the daemon: " + e.description());
  } catch (...) {
    finish();
    throw;
  }
}

int runCall(const CallOptions& options) {
  const DaemonRequest request{options.op, parseArgs(options.args), options.correlationId,
                              options.serviceId};
  const DaemonResponse response = send(options.connection, request);
  const bool pretty =
      options.json.empty() ? ::isatty(STDOUT_FILENO) == 1 : options.json == "pretty";
  writeOutput(jsonForPeople(TarskelJSON::canonicalEncoder().encode(response), pretty) + "\n");
  if (!response.ok && response.error) {
    std::fprintf(stderr, "tarskel: %s: %s\n", response.error->code.c_str(),
                 response.error->message.c_str());
  }
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
  std::string out =
      fmt::format("tarskeld {} (protocol {})\n", plainText(info.find("daemonVersion")),
                  plainText(info.find("protocolVersion")));
  out += fmt::format("pid {}, uid {}\n", plainText(info.find("pid")), plainText(info.find("uid")));
  out += "operations:\n";
  if (const JSONValue* ops = info.find("ops"); ops != nullptr && ops->arrayValue() != nullptr) {
    for (const JSONValue& op : *ops->arrayValue()) out += "  " + plainText(&op) + "\n";
  }
  return out;
}

int runInfo(const InfoOptions& options) {
  const DaemonResponse response =
      send(options.connection, {"daemon.info", {}, std::nullopt, std::nullopt});
  if (!response.ok || !response.result) {
    const std::string reason =
        response.error ? response.error->code + ": " + response.error->message : "no result";
    throw ToolFailure(kExitFinding, "daemon.info refused: " + reason);
  }
  writeOutput(options.json ? jsonLine(*response.result) : describeInfo(*response.result));
  return kExitSuccess;
}

void addConnectionOptions(CLI::App* command, Connection& target) {
  command->add_option("--mach-service", target.machService,
                      "Service name, or a socket path when it holds a '/' (default " +
                          std::string(DaemonWire::machServiceName) + ")");
  command->add_option("--timeout", target.timeout,
                      "Give up after SECONDS without an answer (default 30)");
}

void install(CLI::App& app, ToolContext& ctx) {
  auto call = std::make_shared<CallOptions>();
  CLI::App* callCommand = app.add_subcommand(
      "call", "Send one request to the daemon and print its response as one line of JSON");
  callCommand->add_option("OP", call->op, "Operation name, e.g. daemon.info")->required();
  callCommand->add_option(
      "--args", call->args,
      "Arguments as a JSON object (default {}); - reads standard input, @FILE a file");
  callCommand->add_option("--service-id", call->serviceId, "Calling service, for granted ops");
  callCommand->add_option("--correlation-id", call->correlationId, "Id kept in the audit row");
  callCommand
      ->add_option("--json", call->json,
                   "short: the response on one line; pretty: indented (default on a terminal)")
      ->check(CLI::IsMember({"short", "pretty"}));
  addConnectionOptions(callCommand, call->connection);
  callCommand->callback([&ctx, call] { ctx.action = [call] { return runCall(*call); }; });

  auto info = std::make_shared<InfoOptions>();
  CLI::App* infoCommand = app.add_subcommand("info", "Show the daemon's version and operations");
  addConnectionOptions(infoCommand, info->connection);
  addJSONFlag(infoCommand, info->json);
  infoCommand->callback([&ctx, info] { ctx.action = [info] { return runInfo(*info); }; });
}

const CommandRegistration kCallCommands(60, install);

}  // namespace
}  // namespace tarskel::tool
