#pragma once

// One JSON-RPC session on the bus, over any Boost.Asio stream socket
// (a Unix-domain socket first of all): frames on the wire, messages above
// them, and the hello as the first exchange.
//
//   auto conn = BusConnection::client(std::move(socket), HelloRequest{"mi-servicio", ...});
//   conn->handle(BusMethod::healthPing, [](const auto&) { return JSONValue(JSONObject{}); });
//   conn->start();
//   JSONValue status = co_await conn->asyncCall("platform.status", {}, asio::use_awaitable);
//
// Roles. A client sends "service.hello" as soon as it starts; calls and
// notifications made before the answer wait and leave once the hello is
// accepted. A server takes nothing but a hello first (other requests get
// invalidRequest); it refuses a protocol of another major version with
// incompatibleProtocol, with a HelloResponse (accepted false, a reason) as
// the error's data, and closes. An accepted session holds the capabilities
// asked for that the server offers, and the session id asked for or a new one.
//
// Calls. Each outgoing request gets the next integer id; it completes when
// the response with that id arrives, in whatever order responses come. The
// completion signature is void(std::exception_ptr, JSONValue), so any Asio
// completion token works: a callback, asio::use_future, asio::use_awaitable.
// The exception is a BusCallError (the peer answered with an error) or a
// BusConnectionError (the connection closed first, the outgoing queue was
// full, or the hello was refused). Calls have no time-out of their own: a
// caller that can't wait forever closes the connection, which fails them.
//
// Incoming. A request goes to the handler registered for its method name; its
// result, its JSONRPCError, or the error it throws becomes the response
// (BusCallError: its error; any other exception: internalError with its text;
// a null result, which no peer could read back, internalError too).
// A method without a handler gets methodNotFound. A payload that isn't JSON
// gets parseError, and JSON that isn't a message invalidRequest, each without
// id unless one could be read, as JSON-RPC 2.0 does; nothing ever answers a
// response or a notification. A response that doesn't decode but names a
// pending call fails that call (internalError, "respuesta ilegible: ..."). A frame over the limit
// gets payloadTooLarge and closes the connection: the stream can't be resynchronised.
//
// Limits. Outgoing frames wait in a queue of at most `maxQueuedBytes`: a call
// that would pass it fails at once (BusConnectionError, queueFull), and a
// notification is dropped. Responses are never refused; instead the
// connection stops reading requests while the queue is over the limit and
// reads again once half of it has drained, so a peer that asks without
// reading holds at most about that much of our memory. A message larger than
// `maxFrameLength` is never sent: a call fails with payloadTooLarge, a
// response is replaced by that error.
//
// Serving. A server connection holds a stranger to limits of its own, all
// in BusLimits and a BusServingPool shared by the connections of one
// listener, each with a default that a caller may change: before its hello
// a peer may send no frame larger than `maxFrameBeforeHello` (1 MiB), and
// must say hello within `helloTimeout`; a peer that sends nothing for
// `idleTimeout` is closed; the pool admits `maxConnections` at once and lets
// all of them together hold `maxHeldBytes` of incoming frames not yet
// complete. A connection over the cap, or whose next bytes would pass the
// pool's bound, gets serviceUnavailable and is closed; one that runs out of
// time gets timeout and is closed. So what a listener's peers can make it
// hold is about maxConnections × (2 × maxFrameBeforeHello + 64 KiB) before
// their hellos, and never more than 2 × maxHeldBytes of frames in all
// (a growing buffer may double), whatever they send.
//
// Closing. close(), the peer's end of stream, a transport error or a framing
// error close the connection once; every pending and waiting call then fails
// with a BusConnectionError naming its method and the cause, the close
// handler runs, and every handler is dropped (so handlers may hold the
// connection's shared_ptr without a cycle outliving it).
//
// Threading. Every public member may be called from any thread. Work runs on
// a strand made from the socket's executor: handlers, the close handler and
// callback completions run there, one at a time, never concurrently with each
// other, so they must not block; a handler with long work takes the async
// form and answers through its BusResponder from any thread. Operations posted
// from one thread take effect in the order made (handle() before start()
// means no request can miss its handler). A completion token with an executor
// of its own (use_awaitable's coroutine) is resumed on that executor. The
// connection keeps itself alive while its socket is open; the shared_ptr held
// by the owner is only needed to talk to it.

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/bus/Handshake.hpp"
#include "tarskel/protocol/bus/JSONRPC.hpp"
#include "tarskel/protocol/bus/JSONRPCError.hpp"

namespace tarskel {

// The peer answered a call with an error response. what() is
// "<message> (código <code>)".
class BusCallError : public Error {
 public:
  explicit BusCallError(JSONRPCError error);
  const JSONRPCError& error() const { return error_; }

 private:
  JSONRPCError error_;
};

// The connection can't carry a call, or has closed.
class BusConnectionError : public Error {
 public:
  enum class Reason {
    closedLocally,     // close() was called
    peerClosed,        // the peer ended the stream
    transport,         // reading or writing the socket failed
    frameTooLarge,     // a frame over the limit arrived
    handshakeRefused,  // the hello was refused, or answered with an incompatible version
    queueFull,         // the outgoing queue is at its limit; the connection stays open
    overLimit,         // a server's limit: no hello in time, idle, the cap, the pool's bytes
  };

  BusConnectionError(Reason reason, std::string text,
                     std::optional<JSONRPCError> peerError = std::nullopt);

  Reason reason() const { return reason_; }
  // The peer's error, when it refused the hello with one.
  const std::optional<JSONRPCError>& peerError() const { return peerError_; }

 private:
  Reason reason_;
  std::optional<JSONRPCError> peerError_;
};

struct BusLimits {
  // The largest payload read or sent.
  std::int64_t maxFrameLength = Framing::defaultMaxFrameLength;
  // Bytes of frames waiting to be written.
  std::size_t maxQueuedBytes = 32u << 20;
  // How long a last error frame (payloadTooLarge, a refused hello) may take
  // to leave before the connection closes regardless.
  std::chrono::milliseconds closeGrace{1000};
  // Serving side only (see the top of this file). A zero time is no limit.
  std::int64_t maxFrameBeforeHello = std::int64_t{1} << 20;
  std::chrono::milliseconds helloTimeout{10'000};
  std::chrono::milliseconds idleTimeout{120'000};
};

// What the server connections of one listener share: a cap on how many are
// open and a bound on the bytes of incoming frames they hold together. Every
// member may be called from any thread.
class BusServingPool {
 public:
  struct Limits {
    std::size_t maxConnections = 64;
    std::size_t maxHeldBytes = std::size_t{48} << 20;
  };

  explicit BusServingPool(Limits limits) : limits_(limits) {}
  BusServingPool() : BusServingPool(Limits{}) {}

  // The pool that server() uses when given none: one per process, with the
  // default limits.
  static const std::shared_ptr<BusServingPool>& processDefault();

  // Takes a place for a connection; false at the cap.
  bool tryOpen();
  void closed();
  // Takes `bytes` more of the bound; false (taking nothing) when they don't fit.
  bool tryHold(std::size_t bytes);
  void release(std::size_t bytes);

  std::size_t openConnections() const;
  std::size_t heldBytes() const;
  const Limits& limits() const { return limits_; }

 private:
  Limits limits_;
  mutable std::mutex mutex_;
  std::size_t open_ = 0;  // guarded by mutex_
  std::size_t held_ = 0;  // guarded by mutex_
};

// What a server offers to the hellos it takes.
struct BusServerHello {
  // Granted when asked for; a session holds the intersection, in the order asked.
  std::vector<std::string> capabilities;
  // Judges a hello of a compatible version; an error refuses it, as given.
  std::function<std::optional<JSONRPCError>(const HelloRequest&)> admit;
};

// The session that the hello opened.
struct BusSession {
  std::string clientId;
  std::string peerProtocolVersion;
  std::vector<std::string> capabilities;
  std::optional<std::string> sessionId;
};

// What a request handler answers.
using BusOutcome = std::variant<JSONValue, JSONRPCError>;

// The answer to one incoming request, for handlers that answer later. Any
// thread may call reply() or fail(), once; later calls, and calls after the
// connection closed, do nothing. If every copy is dropped unanswered, the
// request gets internalError "sin respuesta del manejador de <method>".
class BusResponder {
 public:
  void reply(JSONValue result) const;
  void fail(JSONRPCError error) const;
  void answer(BusOutcome outcome) const;

  struct State;
  explicit BusResponder(std::shared_ptr<State> state) : state_(std::move(state)) {}

 private:
  std::shared_ptr<State> state_;
};

namespace bus_detail {
// The socket behind the connection, with its type erased so that the
// connection itself is compiled once.
class Stream {
 public:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;
  using Completion = std::function<void(boost::system::error_code, std::size_t)>;
  virtual ~Stream() = default;
  virtual boost::asio::any_io_executor executor() = 0;
  virtual void asyncReadSome(boost::asio::mutable_buffer buffer, const Strand& strand,
                             Completion done) = 0;
  virtual void asyncWrite(std::vector<boost::asio::const_buffer> buffers, const Strand& strand,
                          Completion done) = 0;
  virtual void close() = 0;
};

template <class Socket>
class SocketStream final : public Stream {
 public:
  explicit SocketStream(Socket socket) : socket_(std::move(socket)) {}
  boost::asio::any_io_executor executor() override { return socket_.get_executor(); }
  void asyncReadSome(boost::asio::mutable_buffer buffer, const Strand& strand,
                     Completion done) override {
    socket_.async_read_some(buffer, boost::asio::bind_executor(strand, std::move(done)));
  }
  void asyncWrite(std::vector<boost::asio::const_buffer> buffers, const Strand& strand,
                  Completion done) override {
    boost::asio::async_write(socket_, buffers, boost::asio::bind_executor(strand, std::move(done)));
  }
  void close() override {
    boost::system::error_code ignored;
    socket_.shutdown(Socket::shutdown_both, ignored);
    socket_.close(ignored);
  }

 private:
  Socket socket_;
};
}  // namespace bus_detail

class BusConnection : public std::enable_shared_from_this<BusConnection> {
 public:
  using Params = std::optional<JSONValue>;
  using Handler = std::function<BusOutcome(const Params& params)>;
  using AsyncHandler = std::function<void(Params params, BusResponder responder)>;
  using NotificationHandler = std::function<void(const Params& params)>;
  using CloseHandler = std::function<void(const BusConnectionError& cause)>;
  using CallCompletion = std::function<void(std::exception_ptr, JSONValue)>;

  // A connection that says hello with `hello` (protocolVersion left empty
  // means this package's own). Not started.
  template <class Socket>
  static std::shared_ptr<BusConnection> client(Socket socket, HelloRequest hello,
                                               BusLimits limits = {}) {
    return std::shared_ptr<BusConnection>(
        new BusConnection(std::make_unique<bus_detail::SocketStream<Socket>>(std::move(socket)),
                          std::move(hello), {}, limits));
  }

  // A connection that expects a hello first, counted in `pool` (the
  // process's default when none is given). Not started.
  template <class Socket>
  static std::shared_ptr<BusConnection> server(Socket socket, BusServerHello offer = {},
                                               BusLimits limits = {},
                                               std::shared_ptr<BusServingPool> pool = nullptr) {
    if (!pool) pool = BusServingPool::processDefault();
    return std::shared_ptr<BusConnection>(
        new BusConnection(std::make_unique<bus_detail::SocketStream<Socket>>(std::move(socket)),
                          std::nullopt, std::move(offer), limits, std::move(pool)));
  }

  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  // Registers the handler of a method, replacing any earlier one. A server
  // answers "service.hello" itself.
  void handle(std::string_view method, Handler handler);
  void handleAsync(std::string_view method, AsyncHandler handler);
  void onNotification(std::string_view method, NotificationHandler handler);
  // Runs once, when the connection closes, with the cause.
  void onClose(CloseHandler handler);

  // Starts reading, and for a client sends the hello. Once only.
  void start();

  // Sends a request; the completion gets its result, or the exception of its
  // failure (see the top of this file).
  template <class CompletionToken>
  auto asyncCall(std::string method, Params params, CompletionToken&& token) {
    return boost::asio::async_initiate<CompletionToken, void(std::exception_ptr, JSONValue)>(
        [self = shared_from_this()](auto handler, std::string m, Params p) {
          self->startCall(std::move(m), std::move(p),
                          adaptCompletion(std::move(handler), self->strand_));
        },
        token, std::move(method), std::move(params));
  }

  // Sends a notification. Dropped when the connection has closed or its
  // outgoing queue is full.
  void notify(std::string method, Params params = std::nullopt);

  // Closes the connection (see the top of this file). Idempotent.
  void close();

  // The session, once the hello has been accepted.
  std::optional<BusSession> session() const;
  bool isOpen() const;
  boost::asio::any_io_executor executor() const { return strand_; }

 private:
  friend class BusResponder;
  struct Impl;

  BusConnection(std::unique_ptr<bus_detail::Stream> stream, std::optional<HelloRequest> hello,
                BusServerHello offer, BusLimits limits,
                std::shared_ptr<BusServingPool> pool = nullptr);

  void startCall(std::string method, Params params, CallCompletion completion);

  // Wraps an Asio completion handler so that it runs on its own executor,
  // with outstanding work held there until it does.
  template <class Handler>
  static CallCompletion adaptCompletion(Handler handler,
                                        const bus_detail::Stream::Strand& fallback) {
    auto executor = boost::asio::prefer(boost::asio::get_associated_executor(handler, fallback),
                                        boost::asio::execution::outstanding_work.tracked);
    struct Op {
      Handler handler;
      decltype(executor) tracked;
    };
    auto op = std::make_shared<Op>(Op{std::move(handler), std::move(executor)});
    return [op](std::exception_ptr error, JSONValue value) {
      boost::asio::dispatch(op->tracked,
                            [op, error = std::move(error), value = std::move(value)]() mutable {
                              std::move(op->handler)(std::move(error), std::move(value));
                            });
    };
  }

  bus_detail::Stream::Strand strand_;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tarskel
