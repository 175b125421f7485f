// The client against a scripted daemon on a real socket: the scripted side
// speaks the transport by hand, so these tests also pin the client's half of
// the envelope.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/Errors.hpp"
#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/testing/XPCTesting.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"

namespace tarskel {
namespace {

using testing::ScriptedDaemon;

DaemonRequest infoRequest() { return {"daemon.info", {}, std::nullopt, std::nullopt}; }

// Answers each request with its own op as the result; refuses "refuse".
void echoOp(ScriptedDaemon::Connection& c, const TransportEnvelope& e) {
  auto request = TarskelJSON::decoder().decode<DaemonRequest>(*e.body);
  c.send(e.id, false,
         TarskelJSON::encoder().encode(
             request.op == "refuse" ? DaemonResponse::failure(DaemonWireError::unknownOp("refuse"))
                                    : DaemonResponse::success(JSONValue(request.op))));
}

std::string transportText(const std::function<void()>& call) {
  return testing::thrownText<DaemonClientError>(call);
}

TEST(DaemonXPCClientTest, SendsTheRequestAsABodyThatExpectsAReplyAndReturnsRefusals) {
  ScriptedDaemon daemon(echoOp);
  DaemonXPCClient client(daemon.path());
  DaemonRequest request{"fs.readProtectedPath", JSONObject{{"path", JSONValue("/x")}}, "c-1",
                        "svc"};
  EXPECT_EQ(client.request(request), DaemonResponse::success(JSONValue("fs.readProtectedPath")));
  const auto got = daemon.received();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_TRUE(got[0].expectsReply);
  EXPECT_EQ(TarskelJSON::decoder().decode<DaemonRequest>(*got[0].body), request);
  EXPECT_EQ(client.request({"refuse", {}, std::nullopt, std::nullopt}).error->code, "unknownOp");
}

// A reply without a body is the transport's failure; one that is not a
// response is the decoder's.
TEST(DaemonXPCClientTest, WhatARepliesBodyTurnsInto) {
  std::atomic<int> replies{0};
  ScriptedDaemon daemon([&replies](auto& c, const TransportEnvelope& e) {
    c.send(e.id, false, replies++ == 0 ? std::nullopt : std::optional<std::string>("[1]"));
  });
  DaemonXPCClient client(daemon.path());
  EXPECT_EQ(transportText([&] { client.request(infoRequest()); }),
            "daemon no disponible: reply sin payload de respuesta");
  EXPECT_THROW(client.request(infoRequest()), DecodingError);
}

// On a plain service name the client talks only to a server that listened
// as root; another user's socket at that path is refused before any byte is
// sent. An empty name never reaches a socket at all, nor is an absent
// daemon more than a transport error.
TEST(DaemonXPCClientTest, TheSystemDaemonsPathIsServedByRootOnly) {
  EXPECT_EQ(transportText([&] { DaemonXPCClient("").request(infoRequest()); }),
            "daemon no disponible: nombre de servicio vacío");
  EXPECT_EQ(
      transportText([&] { DaemonXPCClient("/nonexistent-tarskel/d.sock").request(infoRequest()); }),
      "daemon no disponible: connect /nonexistent-tarskel/d.sock: No such file or directory");
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to listen as another user";
  std::filesystem::create_directories("/run/tarskel");
  const std::string name = "tarskel-client-test-" + std::to_string(::getpid());
  const std::string path = "/run/tarskel/" + name + ".sock";
  for (const uid_t listener : {uid_t{65534}, uid_t{0}}) {
    SCOPED_TRACE(listener);
    std::atomic<int> received{0};
    ScriptedDaemon daemon(
        [&received](auto& c, const TransportEnvelope& e) { ++received, echoOp(c, e); }, path,
        listener);
    const std::string text = transportText([&] { DaemonXPCClient(name).request(infoRequest()); });
    EXPECT_EQ(text, listener == 0 ? "no error"
                                  : "daemon no disponible: el servidor de " + path +
                                        " no es root (uid 65534)");
    EXPECT_EQ(received, listener == 0 ? 1 : 0);
  }
}

TEST(DaemonXPCClientTest, LostConnectionFailsTheCallAndTheNextOneReconnects) {
  std::atomic<int> calls{0};
  ScriptedDaemon daemon([&calls](auto& c, const TransportEnvelope& e) {
    // The first message is answered by hanging up.
    if (calls++ == 0) {
      ::shutdown(c.fd(), SHUT_RDWR);
      return;
    }
    echoOp(c, e);
  });
  DaemonXPCClient client(daemon.path());
  EXPECT_EQ(transportText([&] { client.request(infoRequest()); }),
            "daemon no disponible: conexión interrumpida");
  EXPECT_TRUE(client.request(infoRequest()).ok);
}

TEST(DaemonXPCClientTest, ClosedClientFailsEveryCallIncludingOneInFlight) {
  std::promise<void> arrived;
  ScriptedDaemon daemon([&arrived](auto&, const TransportEnvelope&) {
    arrived.set_value();  // and never answers
  });
  DaemonXPCClient client(daemon.path());
  auto inFlight = std::async(std::launch::async,
                             [&] { return transportText([&] { client.request(infoRequest()); }); });
  arrived.get_future().wait();
  client.close();
  EXPECT_EQ(inFlight.get(), "daemon no disponible: conexión cancelada");
  EXPECT_EQ(transportText([&] { client.request(infoRequest()); }),
            "daemon no disponible: conexión cancelada");
}

// A call whose time runs out fails alone, whether it was reading the socket
// or waiting for another thread's read: the connection goes on serving the
// others, and the reply that comes late is dropped.
TEST(DaemonXPCClientTest, ATimedOutCallFailsAloneAndItsLateReplyIsDropped) {
  std::vector<TransportEnvelope> held;  // touched by the daemon's thread only
  std::promise<void> answered;
  std::future<void> allSent = answered.get_future();
  ScriptedDaemon daemon([&](auto& c, const TransportEnvelope& e) {
    held.push_back(e);
    if (held.size() < 4) return;
    for (auto it = held.rbegin(); it != held.rend(); ++it) echoOp(c, *it);
    answered.set_value();
  });
  DaemonXPCClient client(daemon.path());
  const auto call = [&client](const std::string& op, std::optional<std::chrono::milliseconds> t) {
    try {
      const DaemonResponse r = client.request({op, {}, std::nullopt, std::nullopt}, t);
      return r.result == JSONValue(op) ? op : std::string("another call's reply");
    } catch (const DaemonClientError& e) {
      return std::string(e.kind() == DaemonClientError::Kind::timedOut ? "timed out" : e.what());
    }
  };
  using std::chrono_literals::operator""ms;
  EXPECT_EQ(call("slow.1", 50ms), "timed out");
  auto patient = std::async(std::launch::async, [&] { return call("patient", std::nullopt); });
  EXPECT_EQ(call("slow.2", 50ms), "timed out");
  EXPECT_EQ(call("last", 10000ms), "last");
  EXPECT_EQ(patient.get(), "patient");
  // The late replies leave before the client closes its end under them.
  allSent.wait();
}

// Replies pair by id, so a daemon that answers in reverse order still gets
// each caller its own answer.
TEST(DaemonXPCClientTest, ConcurrentCallersGetTheirOwnRepliesInAnyOrder) {
  constexpr int kCallers = 6;
  std::vector<TransportEnvelope> held;  // touched by the daemon's thread only
  ScriptedDaemon daemon([&](auto& c, const TransportEnvelope& e) {
    held.push_back(e);
    if (held.size() < kCallers) return;
    for (auto it = held.rbegin(); it != held.rend(); ++it) echoOp(c, *it);
    held.clear();
  });
  DaemonXPCClient client(daemon.path());
  std::vector<std::future<DaemonResponse>> calls;
  for (int i = 0; i < kCallers; ++i) {
    calls.push_back(std::async(std::launch::async, [&client, i] {
      return client.request({"op." + std::to_string(i), {}, std::nullopt, std::nullopt});
    }));
  }
  for (int i = 0; i < kCallers; ++i) {
    EXPECT_EQ(calls[static_cast<std::size_t>(i)].get().result,
              JSONValue("op." + std::to_string(i)));
  }
}

}  // namespace
}  // namespace tarskel
