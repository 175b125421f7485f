#include <gtest/gtest.h>
#include <poll.h>

#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/bus/BusConnection.hpp"
#include "tarskel/protocol/bus/BusMethod.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;
using namespace std::chrono_literals;
using testing::canonical;
using testing::json;

// What a call came back with: "= <result>", "<code> <message>[ data <data>]"
// for a BusCallError, or a BusConnectionError's reason and text.
struct Outcome {
  std::string said;
  std::optional<BusConnectionError::Reason> connection;
};

// Read on the connection's strand, so that no exception crosses threads (the
// exception_ptr's count lives in libstdc++, which ThreadSanitizer can't see).
Outcome outcomeOf(std::exception_ptr error, const JSONValue& value) {
  if (!error) return {"= " + canonical(value), std::nullopt};
  try {
    std::rethrow_exception(std::move(error));
  } catch (const BusCallError& e) {
    const JSONRPCError& rpc = e.error();
    const std::string said = std::to_string(rpc.code) + " " + rpc.message;
    return {rpc.data ? said + " data " + canonical(*rpc.data) : said, std::nullopt};
  } catch (const BusConnectionError& e) {
    return {e.what(), e.reason()};
  }
}

std::future<Outcome> callAsync(BusConnection& c, std::string method,
                               BusConnection::Params params = std::nullopt) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> future = promise->get_future();
  c.asyncCall(std::move(method), std::move(params), [promise](std::exception_ptr e, JSONValue v) {
    promise->set_value(outcomeOf(std::move(e), v));
  });
  return future;
}

Outcome await(std::future<Outcome> future) {
  using namespace std::chrono_literals;
  if (future.wait_for(10s) != std::future_status::ready) return Outcome{"timed out", std::nullopt};
  return future.get();
}

// One end of a local socket, written and read as frames by hand.
class FramePeer {
 public:
  using Socket = boost::asio::local::stream_protocol::socket;
  explicit FramePeer(Socket socket) : socket_(std::move(socket)) {}

  Socket& socket() { return socket_; }
  void send(std::string_view payload) { sendBytes(Framing::encode(payload)); }
  void sendBytes(const std::string& bytes) {
    boost::asio::write(socket_, boost::asio::buffer(bytes));
  }
  // The next payload, or "EOF", or "timeout".
  std::string receive() {
    while (pending_.empty()) {
      pollfd p{socket_.native_handle(), POLLIN, 0};
      if (::poll(&p, 1, 5000) <= 0) return "timeout";
      char buffer[4096];
      boost::system::error_code ec;
      const std::size_t n = socket_.read_some(boost::asio::buffer(buffer), ec);
      if (ec) return "EOF";
      for (auto& payload : decoder_.append(std::string_view(buffer, n)))
        pending_.push_back(payload);
    }
    std::string next = pending_.front();
    pending_.erase(pending_.begin());
    return next;
  }

 private:
  Socket socket_;
  FrameDecoder decoder_;
  std::vector<std::string> pending_;
};

HelloRequest helloFrom(std::string clientId, std::string version = "1.1.0") {
  return HelloRequest{std::move(clientId), std::move(version), {"events", "traces"}, std::nullopt};
}

// A client and a server connection over a socket pair; the server answers
// health.ping with {"ok":true} and reports how it closed.
class BusPair {
 protected:
  void connect(HelloRequest hello = helloFrom("probe"),
               BusServerHello offer = BusServerHello{{"events"}, nullptr}, BusLimits limits = {}) {
    boost::asio::local::stream_protocol::socket a(pool.get_executor()), b(pool.get_executor());
    boost::asio::local::connect_pair(a, b);
    client = BusConnection::client(std::move(a), std::move(hello), limits);
    server = BusConnection::server(std::move(b), std::move(offer), limits);
    server->handle(BusMethod::healthPing, [](const auto&) { return json(R"({"ok":true})"); });
    server->onClose([this](const BusConnectionError& e) { serverClosed.set_value(e.reason()); });
  }
  void start() {
    server->start();
    client->start();
  }
  Outcome call(std::string method, BusConnection::Params params = std::nullopt) {
    return await(callAsync(*client, std::move(method), std::move(params)));
  }

  boost::asio::thread_pool pool{2};  // two threads, so that the connections' strands matter
  std::shared_ptr<BusConnection> client;
  std::shared_ptr<BusConnection> server;
  std::promise<BusConnectionError::Reason> serverClosed;
};

class BusConnectionTest : public ::testing::Test, protected BusPair {};

TEST_F(BusConnectionTest, HelloOpensASessionAndCallsComeBack) {
  connect();
  start();
  // Any completion token: here a future.
  EXPECT_EQ(
      client->asyncCall(std::string(BusMethod::healthPing), std::nullopt, asio::use_future).get(),
      json(R"({"ok":true})"));
  const std::optional<BusSession> theirs = server->session();
  const std::optional<BusSession> ours = client->session();
  ASSERT_TRUE(theirs && ours);
  EXPECT_EQ(theirs->clientId, "probe");
  EXPECT_EQ(ours->capabilities, std::vector<std::string>{"events"});  // asked ∩ offered
  EXPECT_EQ(theirs->sessionId, ours->sessionId);
}

TEST_F(BusConnectionTest, ResponsesCompleteTheirOwnCallsInAnyOrder) {
  connect();
  std::optional<BusResponder> slow;
  // Both handlers run on the server's strand: "fast" answers "slow" after its
  // own response is queued, so the responses cross on the wire.
  server->handleAsync("slow", [&](auto, BusResponder r) { slow = r; });
  server->handle("fast", [&](const auto&) {
    slow->reply(JSONValue("slow"));
    return JSONValue("fast");
  });
  start();
  std::future<Outcome> slowCall = callAsync(*client, "slow");
  std::future<Outcome> fastCall = callAsync(*client, "fast");
  EXPECT_EQ(await(std::move(fastCall)).said, "= \"fast\"");
  EXPECT_EQ(await(std::move(slowCall)).said, "= \"slow\"");
}

TEST_F(BusConnectionTest, HandlerOutcomesBecomeResponses) {
  connect();
  server->handle("result", [](const auto& params) { return params.value_or(JSONValue("none")); });
  server->handle("refuse",
                 [](const auto&) { return JSONRPCError(RPCErrorCode::accessDenied, "no"); });
  server->handle("throwRPC", [](const auto&) -> BusOutcome { throw BusCallError({42, "propio"}); });
  server->handle("throw", [](const auto&) -> BusOutcome { throw std::runtime_error("roto"); });
  server->handle("nan",
                 [](const auto&) { return JSONValue(std::numeric_limits<double>::quiet_NaN()); });
  server->handle("null", [](const auto&) { return JSONValue(nullptr); });
  server->handleAsync("drop", [](auto, BusResponder) {});
  server->handleAsync("later", [](auto params, BusResponder r) {
    std::thread([r, params] { r.reply(*params); }).detach();
  });
  start();
  // method | params, or "-" | what the call came back with
  for (const testing::Row& row : testing::rows(R"(
result | [1,2] | = [1,2]
result | - | = "none"
later | "x" | = "x"
refuse | - | -32001 no
throwRPC | - | 42 propio
throw | - | -32603 el manejador de throw falló: roto
nan | - | -32603 el resultado no se puede escribir como JSON
null | - | -32603 el resultado es null, que el otro extremo no puede leer
drop | - | -32603 sin respuesta del manejador de drop
nadie | - | -32601 método desconocido: nadie
)")) {
    EXPECT_EQ(call(row[0], row[1] == "-" ? std::nullopt : BusConnection::Params(json(row[1]))).said,
              row[2])
        << row.line;
  }
}

TEST_F(BusConnectionTest, PeerThatGoesMidRequestFailsThePendingCall) {
  connect();
  server->handleAsync("hang", [this](auto, BusResponder) { server->close(); });
  start();
  Outcome got = call("hang");
  EXPECT_EQ(got.connection, BusConnectionError::Reason::peerClosed);
  EXPECT_EQ(
      got.said,
      "la conexión se cerró con la llamada a hang pendiente: el otro extremo cerró la conexión");
  // Later calls fail at once, for the same cause.
  EXPECT_EQ(call("otra").connection, BusConnectionError::Reason::peerClosed);
}

TEST_F(BusConnectionTest, CloseFailsEveryPendingCall) {
  connect();
  std::promise<void> arrived;
  std::vector<BusResponder> kept;
  server->handleAsync("wait", [&](auto, BusResponder r) {
    kept.push_back(r);
    if (kept.size() == 2) arrived.set_value();
  });
  start();
  auto a = callAsync(*client, "wait");
  auto b = callAsync(*client, "wait");
  ASSERT_EQ(arrived.get_future().wait_for(10s), std::future_status::ready);
  client->close();
  for (auto* f : {&a, &b}) {
    Outcome got = await(std::move(*f));
    EXPECT_EQ(got.connection, BusConnectionError::Reason::closedLocally);
    EXPECT_EQ(got.said, "la conexión se cerró con la llamada a wait pendiente: conexión cerrada");
  }
  EXPECT_EQ(serverClosed.get_future().get(), BusConnectionError::Reason::peerClosed);
}

// Refused hellos: the pending call names the cause, and both ends close.
TEST_F(BusConnectionTest, RefusedHelloClosesBothEnds) {
  BusServerHello picky{{}, [](const HelloRequest& h) -> std::optional<JSONRPCError> {
                         if (h.clientId == "intruso")
                           return JSONRPCError(RPCErrorCode::accessDenied, "desconocido");
                         return std::nullopt;
                       }};
  const std::pair<HelloRequest, std::string> cases[] = {
      {helloFrom("old", "2.0.0"), "protocolo 2.0.0 incompatible con 1.1.0"},
      {helloFrom("intruso"), "desconocido"}};
  for (const auto& [hello, reason] : cases) {
    SCOPED_TRACE(reason);
    serverClosed = {};
    connect(hello, picky);
    start();
    Outcome got = call(std::string(BusMethod::healthPing));
    EXPECT_EQ(got.connection, BusConnectionError::Reason::handshakeRefused);
    EXPECT_EQ(got.said, "la conexión se cerró con la llamada a health.ping pendiente: " +
                            ("saludo rechazado: " + reason));
    EXPECT_EQ(serverClosed.get_future().get(), BusConnectionError::Reason::handshakeRefused);
    EXPECT_FALSE(client->session());
  }
}

TEST_F(BusConnectionTest, QueueLimitRefusesCallsAndMessageLimitRefusesBigOnes) {
  connect(helloFrom("probe"), {}, BusLimits{.maxFrameLength = 1 << 20, .maxQueuedBytes = 4096});
  server->handle("echo", [](const auto& params) { return *params; });
  start();
  EXPECT_EQ(call("echo", JSONValue(std::string(8000, 'q'))).connection,
            BusConnectionError::Reason::queueFull);
  Outcome big = call("echo", JSONValue(std::string(2 << 20, 'q')));
  EXPECT_TRUE(big.said.starts_with(std::to_string(RPCErrorCode::payloadTooLarge) + " "))
      << big.said;
  // The connection is still good.
  EXPECT_EQ(call("echo", JSONValue("hola")).said, "= \"hola\"");
}

// A peer speaking raw frames to a server connection.
class RawPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Local::socket b(pool.get_executor());
    asio::local::connect_pair(peer.socket(), b);
    server = BusConnection::server(std::move(b), {},
                                   BusLimits{.maxFrameLength = 1024, .maxFrameBeforeHello = 512});
    server->handle(BusMethod::healthPing, [](const auto&) { return JSONValue("pong"); });
    server->start();
  }
  void hello() {
    peer.send(
        R"({"jsonrpc":"2.0","id":0,"method":"service.hello","params":{"clientId":"raw","protocolVersion":"1.0.0"}})");
    ASSERT_NE(peer.receive().find(R"("accepted":true)"), std::string::npos);
  }

  asio::thread_pool pool{2};
  FramePeer peer{Local::socket(pool.get_executor())};
  std::shared_ptr<BusConnection> server;
};

// message | its answer. After the hello, responses (broken or not) and
// notifications are never answered ("-"): the ping's answer comes next. The
// parse error's text is the JSON reader's and is only checked to its start.
TEST_F(RawPeerTest, BadMessagesGetTheirJSONRPCErrors) {
  for (const testing::Row& row : testing::rows(R"(
{"jsonrpc":"2.0","id":1,"method":"health.ping"} | {"jsonrpc":"2.0","id":1,"error":{"code":-32600,"message":"se esperaba service.hello antes de health.ping"}}
{"jsonrpc":"2.0","id":2,"method":"service.hello","params":{"clientId":"raw"}} | {"jsonrpc":"2.0","id":2,"error":{"code":-32602,"message":"keyNotFound en <raíz>: falta la clave \"protocolVersion\""}}
{"jsonrpc":"2.0","id":3,"method":"service.hello","params":{"clientId":"raw","protocolVersion":"v1"}} | {"jsonrpc":"2.0","id":3,"error":{"code":-32602,"message":"protocolVersion no es una versión: v1"}}
hello
nope | {"jsonrpc":"2.0","error":{"code":-32700,"message":"dataCorrupted en <raíz>:
[] | {"jsonrpc":"2.0","error":{"code":-32600,"message":"los lotes no se admiten"}}
7 | {"jsonrpc":"2.0","error":{"code":-32600,"message":"un mensaje debe ser un objeto JSON"}}
{"jsonrpc":"1.0","id":5,"method":"m"} | {"jsonrpc":"2.0","id":5,"error":{"code":-32600,"message":"dataCorrupted en jsonrpc: jsonrpc debe ser \"2.0\", llegó 1.0"}}
{"jsonrpc":"2.0","id":"a","method":"service.hello","params":{}} | {"jsonrpc":"2.0","id":"a","error":{"code":-32600,"message":"la sesión ya saludó"}}
{"jsonrpc":"2.0","id":99,"result":1} | -
{"jsonrpc":"2.0","result":1} | -
{"jsonrpc":"2.0","id":4,"error":{"code":1}} | -
{"jsonrpc":"2.0","method":"nadie"} | -
)")) {
    SCOPED_TRACE(row[0]);
    if (row[0] == "hello") {
      hello();
      continue;
    }
    peer.send(row[0]);
    if (row[1] == "-") {
      peer.send(R"({"jsonrpc":"2.0","id":"p","method":"health.ping"})");
      EXPECT_EQ(peer.receive(), R"({"jsonrpc":"2.0","id":"p","result":"pong"})");
    } else {
      const std::string got = peer.receive();
      EXPECT_EQ(row[0] == "nope" ? got.substr(0, row[1].size()) : got, row[1]);
    }
  }
}

// The server calls the raw peer, which answers with a response that can't be read.
TEST_F(RawPeerTest, UnreadableResponseFailsItsCall) {
  hello();
  std::future<Outcome> answer = callAsync(*server, "ui.push");
  EXPECT_EQ(peer.receive(), R"({"jsonrpc":"2.0","id":1,"method":"ui.push"})");
  peer.send(R"({"jsonrpc":"2.0","id":1,"result":null})");
  Outcome got = await(std::move(answer));
  EXPECT_FALSE(got.connection);
  EXPECT_TRUE(
      got.said.ends_with(" respuesta ilegible: dataCorrupted en method: mensaje sin method, "
                         "result ni error — no es JSON-RPC válido"))
      << got.said;
}

// Before its hello a peer is held to the tighter bound (the decoder's own
// tests hold the bound itself).
TEST_F(RawPeerTest, OversizeFrameGetsPayloadTooLargeThenTheConnectionCloses) {
  peer.sendBytes(std::string("\0\0\x02\x01", 4));  // 513 bytes announced, 512 allowed
  EXPECT_EQ(
      peer.receive(),
      R"({"jsonrpc":"2.0","error":{"code":-32005,"message":"frame de 513 bytes excede el máximo de 512"}})");
  EXPECT_EQ(peer.receive(), "EOF");
}

}  // namespace
}  // namespace tarskel
