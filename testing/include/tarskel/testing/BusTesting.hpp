#pragma once

// Test support, shipped nowhere: what a bus call came back with, and a peer
// that speaks raw frames.

#include <gtest/gtest.h>
#include <poll.h>

#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/bus/BusConnection.hpp"
#include "tarskel/protocol/bus/BusMethod.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/testing/JSONTesting.hpp"

namespace tarskel::testing {

// What a call came back with: "= <result>", "<code> <message>[ data <data>]"
// for a BusCallError, or a BusConnectionError's reason and text.
struct Outcome {
  std::string said;
  std::optional<BusConnectionError::Reason> connection;
};

// Read on the connection's strand, so that no exception crosses threads (the
// exception_ptr's count lives in libstdc++, which ThreadSanitizer can't see).
inline Outcome outcomeOf(std::exception_ptr error, const JSONValue& value) {
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

inline std::future<Outcome> callAsync(BusConnection& c, std::string method,
                                      BusConnection::Params params = std::nullopt) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> future = promise->get_future();
  c.asyncCall(std::move(method), std::move(params), [promise](std::exception_ptr e, JSONValue v) {
    promise->set_value(outcomeOf(std::move(e), v));
  });
  return future;
}

inline Outcome await(std::future<Outcome> future) {
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

inline HelloRequest helloFrom(std::string clientId, std::string version = "1.1.0") {
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

}  // namespace tarskel::testing
