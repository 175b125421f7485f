// tarskel bus decode|encode|call|serve
//
// The bus's frames and JSON-RPC messages by hand: decode a captured byte
// stream, encode messages into frames, and talk to a peer over a Unix socket
// through the same BusConnection the platform's processes link.
//
// Exit codes: 0 ok; 1 a payload that didn't decode, or an error response
// (a refused hello included); 2 unusable input (a broken stream, a bad line,
// bad options); 3 the peer couldn't be reached or went away.

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "ToolCommand.hpp"
#include "tarskel/protocol/bus/BusConnection.hpp"
#include "tarskel/protocol/bus/BusMethod.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/bus/JSONRPC.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::tool {
namespace {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;

// ---- decode ----

std::string decodedLine(std::string_view payload, bool& failed) {
  std::string line;
  try {
    const JSONRPCMessage message = JSONRPC::decode(payload);
    line = R"({"kind":")";
    line += message.kindName();
    line += R"(","message":)";
    JSONRPC::encodeInto(line, message);
    line += "}\n";
  } catch (const Error& e) {
    failed = true;
    line = R"({"error":)";
    appendJSONString(line, e.description());
    line += "}\n";
  }
  return line;
}

int runDecode(const std::string& path) {
  const std::string stream = readInput(path);
  FrameDecoder decoder;
  bool failed = false;
  // Fed one frame at a time, so that every frame ahead of a broken header is printed.
  for (std::size_t at = 0; at < stream.size();) {
    std::size_t take = stream.size() - at;
    if (take >= Framing::headerLength) {
      const std::uint32_t length = Framing::readHeader(std::string_view(stream).substr(at));
      take = std::min<std::size_t>(take, Framing::headerLength + length);
    }
    std::vector<std::string> payloads;
    try {
      payloads = decoder.append(std::string_view(stream).substr(at, take));
    } catch (const FramingError& e) {
      throw ToolFailure(
          kExitUsage,
          e.description() + " (" + std::to_string(decoder.pendingBytes()) + " bytes left over)");
    }
    at += take;
    for (const std::string& payload : payloads) writeOutput(decodedLine(payload, failed));
  }
  if (decoder.pendingBytes() > 0) {
    throw ToolFailure(kExitUsage, "the stream ends inside a frame: " +
                                      std::to_string(decoder.pendingBytes()) + " bytes left over");
  }
  return failed ? kExitFailure : kExitSuccess;
}

// ---- encode ----

struct EncodeOptions {
  std::string path = "-";
  bool raw = false;
};

int runEncode(const EncodeOptions& options) {
  const std::string input = readInput(options.path);
  std::string frames;
  std::size_t lineNumber = 0;
  for (std::size_t at = 0; at < input.size();) {
    std::size_t end = input.find('\n', at);
    if (end == std::string::npos) end = input.size();
    std::string_view line(input.data() + at, end - at);
    at = end + 1;
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.find_first_not_of(" \t") == std::string_view::npos) continue;
    if (options.raw) {
      frames += Framing::encode(line);
      continue;
    }
    try {
      frames += Framing::encode(JSONRPC::encode(JSONRPC::decode(line)));
    } catch (const Error& e) {
      // Nothing is written: a stream with a hole in it would mislead.
      throw ToolFailure(kExitUsage, "line " + std::to_string(lineNumber) + ": " + e.description());
    }
  }
  writeOutput(frames);
  return kExitSuccess;
}

// ---- call ----

struct CallOptions {
  std::string method;
  std::optional<std::string> params;
  std::string socket;
  std::string clientId = "tarskel";
  std::string protocolVersion{TarskelProtocolInfo::protocolVersion};
  double timeout = 30;
};

std::optional<JSONValue> parseParams(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  try {
    return TarskelJSON::decoder().decode<JSONValue>(*text);
  } catch (const Error& e) {
    throw ToolFailure(kExitUsage, "--params is not valid JSON: " + e.description());
  }
}

std::string errorLine(const JSONRPCError& error) {
  return TarskelJSON::canonicalEncoder().encode(error) + "\n";
}

// The socket's address; a path too long for one is unusable input.
Local::endpoint endpointOf(const std::string& path) {
  if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path)) {
    throw ToolFailure(kExitUsage, "socket path empty or too long: " + path);
  }
  return Local::endpoint(path);
}

Local::socket connectTo(asio::io_context& io, const std::string& path) {
  const Local::endpoint endpoint = endpointOf(path);
  Local::socket socket(io);
  boost::system::error_code ec;
  socket.connect(endpoint, ec);
  if (ec) throw ToolFailure(kExitTransport, "can't connect to " + path + ": " + ec.message());
  return socket;
}

int runCall(const CallOptions& options) {
  std::optional<JSONValue> params = parseParams(options.params);
  asio::io_context io;
  auto connection = BusConnection::client(
      connectTo(io, options.socket),
      HelloRequest{options.clientId, options.protocolVersion, {}, std::nullopt});
  connection->start();

  std::exception_ptr failure;
  std::optional<JSONValue> result;
  asio::steady_timer timer(io, std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                   std::chrono::duration<double>(options.timeout)));
  bool timedOut = false;
  timer.async_wait([&](boost::system::error_code ec) {
    if (ec) return;
    timedOut = true;
    connection->close();
  });
  connection->asyncCall(options.method, std::move(params),
                        [&](std::exception_ptr error, JSONValue value) {
                          failure = error;
                          if (!error) result = std::move(value);
                          timer.cancel();
                          connection->close();
                        });
  io.run();

  if (result) {
    writeOutput(TarskelJSON::canonicalEncoder().encode(*result) + "\n");
    return kExitSuccess;
  }
  try {
    std::rethrow_exception(failure);
  } catch (const BusCallError& e) {
    writeOutput(errorLine(e.error()));
    return kExitFailure;
  } catch (const BusConnectionError& e) {
    if (e.peerError()) {
      writeOutput(errorLine(*e.peerError()));
      return kExitFailure;
    }
    if (timedOut)
      throw ToolFailure(kExitTransport,
                        fmt::format("no answer within {} s (--timeout)", options.timeout));
    throw ToolFailure(kExitTransport, e.description());
  }
}

// ---- serve ----

struct ServeOptions {
  std::string socket;
  bool once = false;
};

// A socket file nobody answers on is replaced; a live one, or a file that is
// not a socket, is left alone.
void clearStaleSocket(asio::io_context& io, const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return;
  if (!S_ISSOCK(st.st_mode)) throw ToolFailure(kExitUsage, path + " exists and is not a socket");
  Local::socket probe(io);
  boost::system::error_code ec;
  probe.connect(Local::endpoint(path), ec);
  if (!ec) throw ToolFailure(kExitTransport, "another process listens on " + path);
  ::unlink(path.c_str());
}

class Server {
 public:
  Server(asio::io_context& io, const ServeOptions& options)
      : io_(io), options_(options), acceptor_(io), signals_(io, SIGINT, SIGTERM) {}

  void listen() {
    const Local::endpoint endpoint = endpointOf(options_.socket);
    clearStaleSocket(io_, options_.socket);
    boost::system::error_code ec;
    acceptor_.open(Local(), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    if (ec)
      throw ToolFailure(kExitTransport, "can't listen on " + options_.socket + ": " + ec.message());
    std::cerr << "tarskel: listening on " << options_.socket << std::endl;
    signals_.async_wait([this](boost::system::error_code error, int) {
      if (!error) stop();
    });
    accept();
  }

  void stop() {
    boost::system::error_code ignored;
    signals_.cancel(ignored);
    acceptor_.close(ignored);
    ::unlink(options_.socket.c_str());
    for (auto& weak : connections_) {
      if (auto c = weak.lock()) c->close();
    }
  }

 private:
  void accept() {
    acceptor_.async_accept([this](boost::system::error_code ec, Local::socket socket) {
      if (ec) return;
      auto connection = BusConnection::server(std::move(socket));
      connection->handle(BusMethod::healthPing, [](const BusConnection::Params&) {
        JSONObject pong;
        pong.set("ok", JSONValue(true));
        return JSONValue(std::move(pong));
      });
      if (options_.once) connection->onClose([this](const BusConnectionError&) { stop(); });
      connection->start();
      std::erase_if(connections_, [](const auto& weak) { return weak.expired(); });
      connections_.push_back(connection);
      if (options_.once) {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
      } else {
        accept();
      }
    });
  }

  asio::io_context& io_;
  const ServeOptions& options_;
  Local::acceptor acceptor_;
  asio::signal_set signals_;
  std::vector<std::weak_ptr<BusConnection>> connections_;
};

int runServe(const ServeOptions& options) {
  asio::io_context io;
  Server server(io, options);
  server.listen();
  io.run();
  return kExitSuccess;
}

// ---- command line ----

}  // namespace

void installBusCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* bus = app.add_subcommand(
      "bus", "Bus frames and JSON-RPC messages; talk to a peer over a Unix socket");
  bus->require_subcommand(1);

  auto decodePath = std::make_shared<std::string>("-");
  CLI::App* decode = bus->add_subcommand("decode",
                                         "Print each frame of a byte stream as one JSON line: "
                                         "{\"kind\":K,\"message\":M} or {\"error\":TEXT}");
  decode->add_option("FILE", *decodePath, "Byte stream of frames; - for standard input (default)")
      ->type_name("FILE|-");
  decode->callback(
      [&ctx, decodePath] { ctx.action = [decodePath] { return runDecode(*decodePath); }; });

  auto encode = std::make_shared<EncodeOptions>();
  CLI::App* encodeCommand = bus->add_subcommand(
      "encode", "Read JSON-RPC messages, one per line, and write them as frames");
  encodeCommand
      ->add_option("FILE", encode->path, "Messages, one per line; - for standard input (default)")
      ->type_name("FILE|-");
  encodeCommand->add_flag("--raw", encode->raw, "Frame each line as it is, without checking it");
  encodeCommand->callback([&ctx, encode] { ctx.action = [encode] { return runEncode(*encode); }; });

  auto call = std::make_shared<CallOptions>();
  CLI::App* callCommand = bus->add_subcommand(
      "call",
      "Say hello to a peer, make one call and print its result (or its error) as one JSON line");
  callCommand->add_option("METHOD", call->method, "Method name, e.g. health.ping")->required();
  callCommand->add_option("--params", call->params, "Parameters as JSON (default: none)")
      ->type_name("JSON");
  callCommand->add_option("--socket", call->socket, "Unix socket of the peer")
      ->required()
      ->type_name("PATH");
  callCommand->add_option("--client-id", call->clientId,
                          "Name given in the hello (default tarskel)");
  callCommand->add_option("--protocol-version", call->protocolVersion,
                          "Protocol version claimed in the hello (default " +
                              std::string(TarskelProtocolInfo::protocolVersion) + ")");
  callCommand->add_option("--timeout", call->timeout, "Seconds to wait for the answer (default 30)")
      ->check(CLI::PositiveNumber);
  callCommand->callback([&ctx, call] { ctx.action = [call] { return runCall(*call); }; });

  auto serve = std::make_shared<ServeOptions>();
  CLI::App* serveCommand = bus->add_subcommand(
      "serve",
      "Listen on a Unix socket and answer service.hello and health.ping, until SIGINT or SIGTERM");
  serveCommand->add_option("--socket", serve->socket, "Unix socket to create")
      ->required()
      ->type_name("PATH");
  serveCommand->add_flag("--once", serve->once, "Serve one connection, then exit");
  serveCommand->callback([&ctx, serve] { ctx.action = [serve] { return runServe(*serve); }; });
}

}  // namespace tarskel::tool
