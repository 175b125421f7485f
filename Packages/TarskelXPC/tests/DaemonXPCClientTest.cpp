// The client against a scripted daemon on a real socket: the scripted side
// speaks the transport by hand, so these tests also pin the client's half of
// the envelope.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel {
namespace {

// Accepts connections one after another on a socket in a temporary
// directory and hands every message to `script`, which answers through
// reply() (or not at all).
class ScriptedDaemon {
 public:
  using Script = std::function<void(ScriptedDaemon&, int fd, const TransportEnvelope&)>;

  explicit ScriptedDaemon(Script script) : script_(std::move(script)) {
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path_.c_str());
    EXPECT_EQ(::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listenFd_, 8), 0);
    thread_ = std::thread([this] { serve(); });
  }

  ~ScriptedDaemon() {
    ::shutdown(listenFd_, SHUT_RDWR);
    {
      std::lock_guard lock(mutex_);
      for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
    }
    thread_.join();
    ::close(listenFd_);
  }

  const std::string& path() const { return path_; }

  static void reply(int fd, std::uint64_t id, std::optional<std::string> body) {
    const std::string frame = Transport::encodeFrame({id, false, std::move(body)});
    ASSERT_EQ(::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(frame.size()));
  }

  std::vector<TransportEnvelope> received() {
    std::lock_guard lock(mutex_);
    return received_;
  }

 private:
  void serve() {
    for (;;) {
      const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      {
        std::lock_guard lock(mutex_);
        open_.push_back(fd);
      }
      FrameDecoder decoder;
      char buffer[4096];
      ssize_t n;
      while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) {
        for (auto& payload : decoder.append({buffer, static_cast<std::size_t>(n)})) {
          TransportEnvelope envelope = Transport::decodeEnvelope(payload);
          {
            std::lock_guard lock(mutex_);
            received_.push_back(envelope);
          }
          script_(*this, fd, envelope);
        }
      }
      ::close(fd);
    }
  }

  Script script_;
  testing::TempDirectory dir_{"tarskel-xpc"};
  std::string path_ = dir_.file("d.sock").string();
  int listenFd_ = -1;
  std::thread thread_;
  std::mutex mutex_;
  std::vector<int> open_;
  std::vector<TransportEnvelope> received_;
};

DaemonRequest infoRequest() { return {"daemon.info", {}, std::nullopt, std::nullopt}; }

// Answers each request with its own op as the result; refuses "refuse".
void echoOp(ScriptedDaemon&, int fd, const TransportEnvelope& e) {
  auto request = TarskelJSON::decoder().decode<DaemonRequest>(*e.body);
  ScriptedDaemon::reply(
      fd, e.id,
      TarskelJSON::encoder().encode(
          request.op == "refuse" ? DaemonResponse::failure(DaemonWireError::unknownOp("refuse"))
                                 : DaemonResponse::success(JSONValue(request.op))));
}

std::string transportText(const std::function<void()>& call) {
  try {
    call();
  } catch (const DaemonClientError& e) {
    return e.what();
  }
  return "(no transport error)";
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
  ScriptedDaemon daemon([&replies](ScriptedDaemon&, int fd, const TransportEnvelope& e) {
    ScriptedDaemon::reply(fd, e.id,
                          replies++ == 0 ? std::nullopt : std::optional<std::string>("[1]"));
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
    ::unlink(path.c_str());
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      // Bound as root, listening as `listener`: the credentials a client
      // sees are those of listen().
      const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strcpy(address.sun_path, path.c_str());
      if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) _exit(1);
      if (listener != 0 && ::setuid(listener) != 0) _exit(1);
      if (::listen(fd, 4) != 0) _exit(1);
      ::write(ready[1], "r", 1);
      const int peer = ::accept(fd, nullptr, nullptr);
      ::close(peer);  // answers nothing
      _exit(0);
    }
    char byte;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    const std::string text = transportText([&] { DaemonXPCClient(name).request(infoRequest()); });
    ::close(ready[0]);
    ::close(ready[1]);
    if (listener != 0) {
      ::kill(child, SIGKILL);
      EXPECT_EQ(text, "daemon no disponible: el servidor de " + path + " no es root (uid 65534)");
    } else {
      // Past the check: the server's own silence is what fails the call.
      EXPECT_EQ(text.find("no es root"), std::string::npos) << text;
      EXPECT_EQ(text.rfind("daemon no disponible: ", 0), 0u) << text;
    }
    ::waitpid(child, nullptr, 0);
  }
  ::unlink(path.c_str());
}

TEST(DaemonXPCClientTest, LostConnectionFailsTheCallAndTheNextOneReconnects) {
  std::atomic<int> calls{0};
  ScriptedDaemon daemon([&calls](ScriptedDaemon& d, int fd, const TransportEnvelope& e) {
    // The first message is answered by hanging up.
    if (calls++ == 0) {
      ::shutdown(fd, SHUT_RDWR);
      return;
    }
    echoOp(d, fd, e);
  });
  DaemonXPCClient client(daemon.path());
  EXPECT_EQ(transportText([&] { client.request(infoRequest()); }),
            "daemon no disponible: conexión interrumpida");
  EXPECT_TRUE(client.request(infoRequest()).ok);
}

TEST(DaemonXPCClientTest, ClosedClientFailsEveryCallIncludingOneInFlight) {
  std::promise<void> arrived;
  ScriptedDaemon daemon([&arrived](ScriptedDaemon&, int, const TransportEnvelope&) {
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

// Replies pair by id, so a daemon that answers in reverse order still gets
// each caller its own answer.
TEST(DaemonXPCClientTest, ConcurrentCallersGetTheirOwnRepliesInAnyOrder) {
  constexpr int kCallers = 6;
  std::mutex mutex;
  std::vector<std::pair<int, TransportEnvelope>> held;
  ScriptedDaemon daemon([&](ScriptedDaemon& d, int fd, const TransportEnvelope& e) {
    std::lock_guard lock(mutex);
    held.emplace_back(fd, e);
    if (held.size() < kCallers) return;
    for (auto it = held.rbegin(); it != held.rend(); ++it) echoOp(d, it->first, it->second);
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
