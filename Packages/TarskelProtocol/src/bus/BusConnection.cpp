#include "tarskel/protocol/bus/BusConnection.hpp"

#include <algorithm>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <mutex>
#include <random>
#include <unordered_map>

#include "tarskel/protocol/bus/BusMethod.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/semver/SemVer.hpp"

namespace tarskel {

namespace asio = boost::asio;

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;
// Frames gathered into one write.
constexpr std::size_t kMaxGather = 64;
constexpr std::size_t kHeaderLength = Framing::headerLength;

std::string randomSessionId() {
  std::random_device device;
  std::string id;
  for (int i = 0; i < 4; ++i) {
    char part[9];
    std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(device()));
    id += part;
  }
  return id;
}

// A frame for `message`, encoded in place behind its header; nothing when a
// value in it can't be written as JSON.
std::optional<std::string> frameFor(const JSONRPCMessage& message) {
  std::string frame(kHeaderLength, '\0');
  try {
    JSONRPC::encodeInto(frame, message);
  } catch (const EncodingError&) {
    return std::nullopt;
  }
  Framing::writeHeader(frame, static_cast<std::uint32_t>(frame.size() - kHeaderLength));
  return frame;
}

std::int64_t payloadLength(const std::string& frame) {
  return static_cast<std::int64_t>(frame.size() - kHeaderLength);
}

JSONRPCError tooLarge(std::int64_t length, std::int64_t max) {
  return JSONRPCError(
      RPCErrorCode::payloadTooLarge,
      "mensaje de " + std::to_string(length) + " bytes excede el máximo de " + std::to_string(max));
}

}  // namespace

BusCallError::BusCallError(JSONRPCError error)
    : Error(error.message + " (código " + std::to_string(error.code) + ")"),
      error_(std::move(error)) {}

BusConnectionError::BusConnectionError(Reason reason, std::string text,
                                       std::optional<JSONRPCError> peerError)
    : Error(std::move(text)), reason_(reason), peerError_(std::move(peerError)) {}

struct BusResponder::State {
  std::weak_ptr<BusConnection::Impl> connection;
  JSONRPCID id;
  std::string method;
  std::mutex mutex;
  bool answered = false;

  State(std::weak_ptr<BusConnection::Impl> c, JSONRPCID i, std::string m)
      : connection(std::move(c)), id(std::move(i)), method(std::move(m)) {}
  ~State();
  void send(BusOutcome outcome);
};

struct BusConnection::Impl : std::enable_shared_from_this<BusConnection::Impl> {
  enum class Phase { idle, handshaking, open, closing, closed };

  struct Pending {
    std::string method;
    CallCompletion completion;
  };

  Impl(std::unique_ptr<bus_detail::Stream> s, bus_detail::Stream::Strand st,
       std::optional<HelloRequest> h, BusServerHello o, BusLimits l,
       std::shared_ptr<BusServingPool> p)
      : stream(std::move(s)),
        strand(std::move(st)),
        hello(std::move(h)),
        offer(std::move(o)),
        limits(l),
        pool(std::move(p)),
        decoder(hello ? l.maxFrameLength : std::min(l.maxFrameLength, l.maxFrameBeforeHello)),
        readBuffer(kReadChunk),
        graceTimer(strand),
        limitTimer(strand) {
    if (hello && hello->protocolVersion.empty())
      hello->protocolVersion = TarskelProtocolInfo::protocolVersion;
  }

  // A connection dropped without closing (its executor stopped) still gives
  // its place and its bytes back.
  ~Impl() {
    if (pooled) {
      pool->release(heldFromPool);
      pool->closed();
    }
  }

  template <class F>
  void post(F&& f) {
    asio::post(strand, [self = shared_from_this(), f = std::forward<F>(f)]() mutable { f(*self); });
  }

  // Runs at once when already on the strand. Only for work that touches
  // neither the handlers nor the phase, since a handler may be running.
  template <class F>
  void run(F&& f) {
    asio::dispatch(strand,
                   [self = shared_from_this(), f = std::forward<F>(f)]() mutable { f(*self); });
  }

  // ---- starting and reading ----

  void start() {
    if (phase != Phase::idle) return;
    if (hello) {
      phase = Phase::handshaking;
      const std::int64_t id = nextId++;
      pending.emplace(id, Pending{std::string(BusMethod::serviceHello), {}});
      helloId = id;
      const JSONValue params = JSONCoding<HelloRequest>::encode(*hello);
      enqueue(*frameFor(JSONRPCMessage::request(id, std::string(BusMethod::serviceHello), params)));
    } else {
      phase = Phase::handshaking;
      if (pool && !pool->tryOpen()) {
        return refuse(RPCErrorCode::serviceUnavailable,
                      "demasiadas conexiones abiertas (tope " +
                          std::to_string(pool->limits().maxConnections) + ")");
      }
      pooled = true;
      helloDeadline = Clock::now() + limits.helloTimeout;
      lastActivity = Clock::now();
      armLimitTimer();
    }
    read();
  }

  // ---- a server's limits ----

  using Clock = std::chrono::steady_clock;

  // Answers with an error that has no id and closes once it has left.
  void refuse(std::int64_t code, const std::string& text) {
    sendError(std::nullopt, JSONRPCError(code, text));
    closeAfterFlush(BusConnectionError(BusConnectionError::Reason::overLimit, text));
  }

  // One timer for both times: it wakes at the nearer one and looks again.
  void armLimitTimer() {
    Clock::time_point next = Clock::time_point::max();
    if (phase == Phase::handshaking && limits.helloTimeout.count() > 0) next = helloDeadline;
    if (limits.idleTimeout.count() > 0) next = std::min(next, lastActivity + limits.idleTimeout);
    if (next == Clock::time_point::max()) return;
    limitTimer.expires_at(next);
    limitTimer.async_wait([self = shared_from_this()](boost::system::error_code ec) {
      if (!ec) self->onLimitTimer();
    });
  }

  void onLimitTimer() {
    if (phase == Phase::closing || phase == Phase::closed) return;
    const Clock::time_point now = Clock::now();
    if (phase == Phase::handshaking && limits.helloTimeout.count() > 0 && now >= helloDeadline) {
      return refuse(RPCErrorCode::timeout,
                    "sin service.hello en " + std::to_string(limits.helloTimeout.count()) + " ms");
    }
    if (limits.idleTimeout.count() > 0 && now >= lastActivity + limits.idleTimeout) {
      return refuse(RPCErrorCode::timeout, "conexión inactiva más de " +
                                               std::to_string(limits.idleTimeout.count()) + " ms");
    }
    armLimitTimer();
  }

  // Takes from the pool the `n` bytes about to be buffered; false (having
  // refused the peer) when they don't fit.
  bool holdIncoming(std::size_t n) {
    if (!pooled) return true;
    if (!pool->tryHold(n)) {
      refuse(RPCErrorCode::serviceUnavailable, "el servidor no retiene más de " +
                                                   std::to_string(pool->limits().maxHeldBytes) +
                                                   " bytes de tramas incompletas");
      return false;
    }
    heldFromPool += n;
    return true;
  }

  // Gives back what the decoder no longer holds.
  void releaseIncoming() {
    const std::size_t stillHeld = std::min(heldFromPool, decoder.pendingBytes());
    if (pooled && heldFromPool > stillHeld) pool->release(heldFromPool - stillHeld);
    heldFromPool = stillHeld;
  }

  void read() {
    if (reading || phase == Phase::closing || phase == Phase::closed) return;
    if (queuedBytes > limits.maxQueuedBytes) {
      readPaused = true;
      return;
    }
    reading = true;
    stream->asyncReadSome(asio::buffer(readBuffer), strand,
                          [self = shared_from_this()](boost::system::error_code ec, std::size_t n) {
                            self->reading = false;
                            self->onRead(ec, n);
                          });
  }

  void onRead(boost::system::error_code ec, std::size_t n) {
    if (phase == Phase::closed) return;
    if (ec) {
      if (ec == asio::error::eof) {
        finish(BusConnectionError(BusConnectionError::Reason::peerClosed,
                                  "el otro extremo cerró la conexión"));
      } else {
        finish(BusConnectionError(BusConnectionError::Reason::transport,
                                  "error de transporte: " + ec.message()));
      }
      return;
    }
    lastActivity = Clock::now();
    if (!holdIncoming(n)) return;
    std::vector<std::string> payloads;
    try {
      payloads = decoder.append(std::string_view(readBuffer.data(), n));
      releaseIncoming();
    } catch (const FramingError& e) {
      sendError(std::nullopt, JSONRPCError(RPCErrorCode::payloadTooLarge, e.description()));
      closeAfterFlush(
          BusConnectionError(BusConnectionError::Reason::frameTooLarge, e.description()));
      return;
    }
    for (std::string& payload : payloads) {
      if (phase == Phase::closing || phase == Phase::closed) return;
      receive(payload);
    }
    read();
  }

  // ---- incoming messages ----

  void receive(const std::string& payload) {
    JSONValue tree;
    try {
      tree = TarskelJSON::decoder().parse(payload);
    } catch (const DecodingError& e) {
      sendError(std::nullopt, JSONRPCError(RPCErrorCode::parseError, e.description()));
      return;
    }
    const JSONObject* object = tree.objectValue();
    if (object == nullptr) {
      sendError(std::nullopt,
                JSONRPCError(RPCErrorCode::invalidRequest,
                             tree.arrayValue() != nullptr ? "los lotes no se admiten"
                                                          : "un mensaje debe ser un objeto JSON"));
      return;
    }
    // Read what a reply needs before the message is taken apart.
    const bool isCall =
        object->contains("method") || (!object->contains("result") && !object->contains("error"));
    std::optional<JSONRPCID> id;
    if (const JSONValue* idValue = object->find("id"); idValue != nullptr && !idValue->isNull()) {
      try {
        id = JSONCoding<JSONRPCID>::decode(*idValue, CodingPath());
      } catch (const DecodingError&) {
      }
    }
    std::optional<JSONRPCMessage> message;
    try {
      message = JSONRPCMessage::fromTree(std::move(tree));
    } catch (const DecodingError& e) {
      if (isCall) return sendError(id, JSONRPCError(RPCErrorCode::invalidRequest, e.description()));
      // A broken response is never answered, or two peers would trade errors
      // forever; but the call it answers fails rather than wait for ever.
      if (id) {
        complete(*id,
                 std::make_exception_ptr(BusCallError(JSONRPCError(
                     RPCErrorCode::internalError, "respuesta ilegible: " + e.description()))),
                 JSONValue());
      }
      return;
    }
    dispatch(std::move(*message));
  }

  void dispatch(JSONRPCMessage message) {
    if (auto* r = message.asRequest()) return onRequest(std::move(*r));
    if (auto* n = message.asNotification()) return onNotification(std::move(*n));
    if (auto* s = message.asResponse()) return complete(s->id, nullptr, std::move(s->result));
    auto* f = message.asErrorResponse();
    if (f->id) complete(*f->id, std::make_exception_ptr(BusCallError(f->error)), JSONValue());
  }

  void onRequest(JSONRPCMessage::Request request) {
    const bool isHello = request.method == BusMethod::serviceHello;
    if (!hello && isHello) {
      if (phase == Phase::handshaking) return answerHello(request);
      return sendError(request.id,
                       JSONRPCError(RPCErrorCode::invalidRequest, "la sesión ya saludó"));
    }
    if (!hello && phase == Phase::handshaking) {
      return sendError(request.id,
                       JSONRPCError(RPCErrorCode::invalidRequest,
                                    "se esperaba service.hello antes de " + request.method));
    }
    auto found = handlers.find(request.method);
    if (found == handlers.end()) {
      return sendError(request.id, JSONRPCError(RPCErrorCode::methodNotFound,
                                                "método desconocido: " + request.method));
    }
    if (const auto* handler = std::get_if<Handler>(&found->second)) {
      BusOutcome outcome = runHandler(*handler, request.method, request.params);
      return sendOutcome(request.id, std::move(outcome));
    }
    auto state =
        std::make_shared<BusResponder::State>(weak_from_this(), request.id, request.method);
    const AsyncHandler handler = std::get<AsyncHandler>(found->second);
    try {
      handler(std::move(request.params), BusResponder(state));
    } catch (...) {
      BusResponder(state).fail(failureOf(std::current_exception(), request.method));
    }
  }

  static JSONRPCError failureOf(std::exception_ptr error, const std::string& method) {
    try {
      std::rethrow_exception(error);
    } catch (const BusCallError& e) {
      return e.error();
    } catch (const std::exception& e) {
      return JSONRPCError(RPCErrorCode::internalError,
                          "el manejador de " + method + " falló: " + e.what());
    } catch (...) {
      return JSONRPCError(RPCErrorCode::internalError, "el manejador de " + method + " falló");
    }
  }

  static BusOutcome runHandler(const Handler& handler, const std::string& method,
                               const Params& params) {
    try {
      return handler(params);
    } catch (...) {
      return failureOf(std::current_exception(), method);
    }
  }

  void onNotification(JSONRPCMessage::Notification notification) {
    if (!hello && phase == Phase::handshaking) return;
    auto found = notificationHandlers.find(notification.method);
    if (found == notificationHandlers.end()) return;
    try {
      found->second(notification.params);
    } catch (...) {
      // Nobody waits for a notification's outcome.
    }
  }

  void complete(const JSONRPCID& id, std::exception_ptr error, JSONValue result) {
    const auto number = id.numberValue();
    if (!number) return;
    auto found = pending.find(*number);
    if (found == pending.end()) return;
    Pending call = std::move(found->second);
    pending.erase(found);
    if (helloId && *number == *helloId) return onHelloAnswer(error, std::move(result));
    // Moved, never copied: the exception then has one owner at a time.
    call.completion(std::move(error), std::move(result));
  }

  // ---- the hello ----

  void answerHello(const JSONRPCMessage::Request& request) {
    HelloRequest asked;
    try {
      asked = JSONCoding<HelloRequest>::decode(request.params.value_or(JSONValue()), CodingPath());
    } catch (const DecodingError& e) {
      return sendError(request.id, JSONRPCError(RPCErrorCode::invalidParams, e.description()));
    }
    const std::optional<SemVer> theirs = SemVer::parse(asked.protocolVersion);
    if (!theirs) {
      return sendError(request.id,
                       JSONRPCError(RPCErrorCode::invalidParams,
                                    "protocolVersion no es una versión: " + asked.protocolVersion));
    }
    const SemVer ours = *SemVer::parse(TarskelProtocolInfo::protocolVersion);
    std::optional<JSONRPCError> refusal;
    if (!ProtocolCompatibility::isCompatible(*theirs, ours)) {
      const std::string reason = "protocolo " + asked.protocolVersion + " incompatible con " +
                                 std::string(TarskelProtocolInfo::protocolVersion);
      const HelloResponse refused{
          false, std::string(TarskelProtocolInfo::protocolVersion), {}, std::nullopt, reason};
      refusal = JSONRPCError(RPCErrorCode::incompatibleProtocol, reason,
                             JSONCoding<HelloResponse>::encode(refused));
    } else if (offer.admit) {
      refusal = offer.admit(asked);
    }
    if (refusal) {
      sendError(request.id, *refusal);
      closeAfterFlush(BusConnectionError(BusConnectionError::Reason::handshakeRefused,
                                         "saludo rechazado: " + refusal->message, refusal));
      return;
    }
    HelloResponse accepted{
        true, std::string(TarskelProtocolInfo::protocolVersion), {}, asked.sessionId, std::nullopt};
    for (const std::string& capability : asked.capabilities) {
      if (std::find(offer.capabilities.begin(), offer.capabilities.end(), capability) !=
          offer.capabilities.end()) {
        accepted.capabilities.push_back(capability);
      }
    }
    if (!accepted.sessionId) accepted.sessionId = randomSessionId();
    {
      std::lock_guard lock(sessionMutex);
      session = BusSession{asked.clientId, asked.protocolVersion, accepted.capabilities,
                           accepted.sessionId};
    }
    phase = Phase::open;
    decoder.setMaxFrameLength(limits.maxFrameLength);
    sendOutcome(request.id, JSONCoding<HelloResponse>::encode(accepted));
  }

  void onHelloAnswer(std::exception_ptr error, JSONValue result) {
    helloId.reset();
    if (error) {
      std::optional<JSONRPCError> peerError;
      std::string text;
      try {
        std::rethrow_exception(error);
      } catch (const BusCallError& e) {
        peerError = e.error();
        text = e.error().message;
      }
      return finish(BusConnectionError(BusConnectionError::Reason::handshakeRefused,
                                       "saludo rechazado: " + text, peerError));
    }
    HelloResponse answer;
    try {
      answer = JSONCoding<HelloResponse>::decode(result, CodingPath());
    } catch (const DecodingError& e) {
      return finish(BusConnectionError(BusConnectionError::Reason::handshakeRefused,
                                       "respuesta al saludo ilegible: " + e.description()));
    }
    if (!answer.accepted) {
      return finish(
          BusConnectionError(BusConnectionError::Reason::handshakeRefused,
                             "saludo rechazado: " + answer.reason.value_or("sin motivo")));
    }
    const std::optional<SemVer> theirs = SemVer::parse(answer.protocolVersion);
    const std::optional<SemVer> ours = SemVer::parse(hello->protocolVersion);
    if (!theirs || !ours || !ProtocolCompatibility::isCompatible(*ours, *theirs)) {
      return finish(BusConnectionError(BusConnectionError::Reason::handshakeRefused,
                                       "el otro extremo habla el protocolo " +
                                           answer.protocolVersion + ", incompatible con " +
                                           hello->protocolVersion));
    }
    {
      std::lock_guard lock(sessionMutex);
      session = BusSession{hello->clientId, answer.protocolVersion, answer.capabilities,
                           answer.sessionId};
    }
    phase = Phase::open;
    for (std::string& frame : held) outbox.push_back(std::move(frame));
    held.clear();
    write();
  }

  // ---- outgoing ----

  void startCall(std::string method, Params params, CallCompletion completion) {
    if (phase == Phase::closing || phase == Phase::closed) {
      return completion(std::make_exception_ptr(closedError(method)), JSONValue());
    }
    const std::int64_t id = nextId++;
    std::optional<std::string> frame =
        frameFor(JSONRPCMessage::request(id, method, std::move(params)));
    if (!frame) {
      return completion(std::make_exception_ptr(BusCallError(JSONRPCError(
                            RPCErrorCode::invalidParams,
                            "los parámetros de " + method + " no se pueden escribir"))),
                        JSONValue());
    }
    if (payloadLength(*frame) > limits.maxFrameLength) {
      return completion(std::make_exception_ptr(
                            BusCallError(tooLarge(payloadLength(*frame), limits.maxFrameLength))),
                        JSONValue());
    }
    if (queuedBytes + frame->size() > limits.maxQueuedBytes) {
      return completion(std::make_exception_ptr(queueFull(method)), JSONValue());
    }
    pending.emplace(id, Pending{std::move(method), std::move(completion)});
    enqueueOwn(std::move(*frame));
  }

  void notify(std::string method, Params params) {
    if (phase == Phase::closing || phase == Phase::closed) return;
    std::optional<std::string> frame =
        frameFor(JSONRPCMessage::notification(std::move(method), std::move(params)));
    if (!frame || payloadLength(*frame) > limits.maxFrameLength) return;
    if (queuedBytes + frame->size() > limits.maxQueuedBytes) return;
    enqueueOwn(std::move(*frame));
  }

  void sendError(std::optional<JSONRPCID> id, JSONRPCError error) {
    sendMessage(JSONRPCMessage::errorResponse(std::move(id), std::move(error)));
  }

  void sendOutcome(const JSONRPCID& id, BusOutcome outcome) {
    if (auto* result = std::get_if<JSONValue>(&outcome)) {
      // A null result reads as no result at all: the peer couldn't decode the response.
      if (result->isNull()) {
        return sendError(id,
                         JSONRPCError(RPCErrorCode::internalError,
                                      "el resultado es null, que el otro extremo no puede leer"));
      }
      std::optional<std::string> frame = frameFor(JSONRPCMessage::response(id, std::move(*result)));
      if (!frame) {
        return sendError(id, JSONRPCError(RPCErrorCode::internalError,
                                          "el resultado no se puede escribir como JSON"));
      }
      if (payloadLength(*frame) > limits.maxFrameLength) {
        return sendError(id, tooLarge(payloadLength(*frame), limits.maxFrameLength));
      }
      return enqueue(std::move(*frame));
    }
    sendError(id, std::move(std::get<JSONRPCError>(outcome)));
  }

  void sendMessage(const JSONRPCMessage& message) {
    std::optional<std::string> frame = frameFor(message);
    if (!frame) {
      // Only an error's data can hold what JSON can't: send it without.
      JSONRPCMessage::ErrorResponse bare = *message.asErrorResponse();
      bare.error.data.reset();
      frame = frameFor(bare);
    }
    enqueue(std::move(*frame));
  }

  // Queues a reply, or the hello itself.
  void enqueue(std::string frame) {
    if (phase == Phase::closed) return;
    queuedBytes += frame.size();
    outbox.push_back(std::move(frame));
    write();
  }

  // Queues a call or a notification of our own: a client's wait until the
  // hello has been accepted.
  void enqueueOwn(std::string frame) {
    if (hello && (phase == Phase::idle || phase == Phase::handshaking)) {
      queuedBytes += frame.size();
      held.push_back(std::move(frame));
      return;
    }
    enqueue(std::move(frame));
  }

  void write() {
    if (writing || outbox.empty() || phase == Phase::closed) return;
    writing = true;
    inFlight = std::min(outbox.size(), kMaxGather);
    std::vector<asio::const_buffer> buffers;
    buffers.reserve(inFlight);
    for (std::size_t i = 0; i < inFlight; ++i) buffers.push_back(asio::buffer(outbox[i]));
    stream->asyncWrite(std::move(buffers), strand,
                       [self = shared_from_this()](boost::system::error_code ec, std::size_t) {
                         self->onWritten(ec);
                       });
  }

  void onWritten(boost::system::error_code ec) {
    writing = false;
    if (phase == Phase::closed) {
      outbox.clear();
      return;
    }
    if (ec) {
      finish(BusConnectionError(BusConnectionError::Reason::transport,
                                "error de transporte: " + ec.message()));
      return;
    }
    lastActivity = Clock::now();
    for (std::size_t i = 0; i < inFlight; ++i) {
      queuedBytes -= outbox.front().size();
      outbox.pop_front();
    }
    inFlight = 0;
    if (phase == Phase::closing && outbox.empty()) {
      finish(*closingCause);
      return;
    }
    write();
    if (readPaused && queuedBytes <= limits.maxQueuedBytes / 2) {
      readPaused = false;
      read();
    }
  }

  // ---- closing ----

  BusConnectionError closedError(const std::string& method) const {
    const std::string cause = closeCause ? closeCause->description() : "conexión cerrada";
    return BusConnectionError(
        closeCause ? closeCause->reason() : BusConnectionError::Reason::closedLocally,
        "la conexión se cerró con la llamada a " + method + " pendiente: " + cause,
        closeCause ? closeCause->peerError() : std::nullopt);
  }

  BusConnectionError queueFull(const std::string& method) const {
    return BusConnectionError(BusConnectionError::Reason::queueFull,
                              "cola de salida llena: " + method + " no cabe en " +
                                  std::to_string(limits.maxQueuedBytes) + " bytes");
  }

  // Lets the frames already queued leave, for at most closeGrace, then closes.
  void closeAfterFlush(BusConnectionError cause) {
    if (phase == Phase::closing || phase == Phase::closed) return;
    phase = Phase::closing;
    closingCause = cause;
    failCalls(cause);
    if (outbox.empty()) return finish(std::move(cause));
    graceTimer.expires_after(limits.closeGrace);
    graceTimer.async_wait([self = shared_from_this()](boost::system::error_code ec) {
      if (!ec) self->finish(*self->closingCause);
    });
  }

  void failCalls(const BusConnectionError& cause) {
    closeCause = cause;
    auto calls = std::move(pending);
    pending.clear();
    for (const std::string& frame : held) queuedBytes -= frame.size();
    held.clear();
    for (auto& [id, call] : calls) {
      if (call.completion)
        call.completion(std::make_exception_ptr(closedError(call.method)), JSONValue());
    }
  }

  void finish(BusConnectionError cause) {
    if (phase == Phase::closed) return;
    const bool wasClosing = phase == Phase::closing;
    // Closed first: a completion failed below may call in again, and must
    // find the connection closed.
    phase = Phase::closed;
    {
      std::lock_guard lock(sessionMutex);
      closedFlag = true;
    }
    graceTimer.cancel();
    limitTimer.cancel();
    if (pooled) {
      pool->release(heldFromPool);
      pool->closed();
      heldFromPool = 0;
      pooled = false;
    }
    stream->close();
    // A write in flight still owns the front of the outbox until it completes, aborted.
    if (!writing) outbox.clear();
    if (!wasClosing) failCalls(cause);
    queuedBytes = 0;
    CloseHandler onClosed = std::move(closeHandler);
    handlers.clear();
    notificationHandlers.clear();
    closeHandler = nullptr;
    if (onClosed) onClosed(*closeCause);
  }

  std::unique_ptr<bus_detail::Stream> stream;
  bus_detail::Stream::Strand strand;
  std::optional<HelloRequest> hello;  // set for a client
  BusServerHello offer;
  BusLimits limits;
  std::shared_ptr<BusServingPool> pool;  // a server's; null for a client

  // Everything below is touched on the strand only, except `session`.
  Phase phase = Phase::idle;
  FrameDecoder decoder;
  std::vector<char> readBuffer;
  bool reading = false;
  bool readPaused = false;
  std::deque<std::string> outbox;
  std::size_t inFlight = 0;  // frames at the front of outbox being written
  bool writing = false;
  std::size_t queuedBytes = 0;
  std::vector<std::string> held;  // a client's frames waiting for the hello's answer
  std::optional<std::int64_t> helloId;
  std::int64_t nextId = 1;
  std::unordered_map<std::int64_t, Pending> pending;
  std::unordered_map<std::string, std::variant<Handler, AsyncHandler>> handlers;
  std::unordered_map<std::string, NotificationHandler> notificationHandlers;
  CloseHandler closeHandler;
  std::optional<BusConnectionError> closingCause;
  std::optional<BusConnectionError> closeCause;
  asio::steady_timer graceTimer;
  // A server's limits: whether it holds a place in `pool`, the bytes it
  // holds of the pool's bound, and its two times.
  bool pooled = false;
  std::size_t heldFromPool = 0;
  Clock::time_point helloDeadline;
  Clock::time_point lastActivity;
  asio::steady_timer limitTimer;

  mutable std::mutex sessionMutex;
  std::optional<BusSession> session;
  bool closedFlag = false;
};

BusResponder::State::~State() {
  if (!answered) {
    send(JSONRPCError(RPCErrorCode::internalError, "sin respuesta del manejador de " + method));
  }
}

void BusResponder::State::send(BusOutcome outcome) {
  auto impl = connection.lock();
  if (!impl) return;
  impl->post([id = id, outcome = std::move(outcome)](BusConnection::Impl& c) mutable {
    if (c.phase == BusConnection::Impl::Phase::closed) return;
    c.sendOutcome(id, std::move(outcome));
  });
}

void BusResponder::answer(BusOutcome outcome) const {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->answered) return;
    state_->answered = true;
  }
  state_->send(std::move(outcome));
}

void BusResponder::reply(JSONValue result) const { answer(std::move(result)); }
void BusResponder::fail(JSONRPCError error) const { answer(std::move(error)); }

BusConnection::BusConnection(std::unique_ptr<bus_detail::Stream> stream,
                             std::optional<HelloRequest> hello, BusServerHello offer,
                             BusLimits limits, std::shared_ptr<BusServingPool> pool)
    : strand_(asio::make_strand(stream->executor())) {
  impl_ = std::make_shared<Impl>(std::move(stream), strand_, std::move(hello), std::move(offer),
                                 limits, std::move(pool));
}

const std::shared_ptr<BusServingPool>& BusServingPool::processDefault() {
  static const std::shared_ptr<BusServingPool> pool = std::make_shared<BusServingPool>();
  return pool;
}

bool BusServingPool::tryOpen() {
  std::lock_guard lock(mutex_);
  if (open_ >= limits_.maxConnections) return false;
  ++open_;
  return true;
}

void BusServingPool::closed() {
  std::lock_guard lock(mutex_);
  --open_;
}

bool BusServingPool::tryHold(std::size_t bytes) {
  std::lock_guard lock(mutex_);
  if (bytes > limits_.maxHeldBytes - held_) return false;
  held_ += bytes;
  return true;
}

void BusServingPool::release(std::size_t bytes) {
  std::lock_guard lock(mutex_);
  held_ -= std::min(bytes, held_);
}

std::size_t BusServingPool::openConnections() const {
  std::lock_guard lock(mutex_);
  return open_;
}

std::size_t BusServingPool::heldBytes() const {
  std::lock_guard lock(mutex_);
  return held_;
}

BusConnection::~BusConnection() = default;

void BusConnection::handle(std::string_view method, Handler handler) {
  impl_->post([m = std::string(method), h = std::move(handler)](Impl& c) mutable {
    if (c.phase != Impl::Phase::closed) c.handlers[m] = std::move(h);
  });
}

void BusConnection::handleAsync(std::string_view method, AsyncHandler handler) {
  impl_->post([m = std::string(method), h = std::move(handler)](Impl& c) mutable {
    if (c.phase != Impl::Phase::closed) c.handlers[m] = std::move(h);
  });
}

void BusConnection::onNotification(std::string_view method, NotificationHandler handler) {
  impl_->post([m = std::string(method), h = std::move(handler)](Impl& c) mutable {
    if (c.phase != Impl::Phase::closed) c.notificationHandlers[m] = std::move(h);
  });
}

void BusConnection::onClose(CloseHandler handler) {
  impl_->post([h = std::move(handler)](Impl& c) mutable {
    if (c.phase == Impl::Phase::closed) {
      if (h) h(*c.closeCause);
      return;
    }
    c.closeHandler = std::move(h);
  });
}

void BusConnection::start() {
  impl_->post([](Impl& c) { c.start(); });
}

void BusConnection::startCall(std::string method, Params params, CallCompletion completion) {
  impl_->run([m = std::move(method), p = std::move(params), done = std::move(completion)](
                 Impl& c) mutable { c.startCall(std::move(m), std::move(p), std::move(done)); });
}

void BusConnection::notify(std::string method, Params params) {
  impl_->run([m = std::move(method), p = std::move(params)](Impl& c) mutable {
    c.notify(std::move(m), std::move(p));
  });
}

void BusConnection::close() {
  impl_->post([](Impl& c) {
    c.finish(BusConnectionError(BusConnectionError::Reason::closedLocally, "conexión cerrada"));
  });
}

std::optional<BusSession> BusConnection::session() const {
  std::lock_guard lock(impl_->sessionMutex);
  return impl_->session;
}

bool BusConnection::isOpen() const {
  std::lock_guard lock(impl_->sessionMutex);
  return !impl_->closedFlag;
}

}  // namespace tarskel
