// The daemon's socket server, in-process on a real socket with a real core
// and audit database, spoken to by the real client or by hand.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "DaemonTestSupport.hpp"
#include "tarskel/codesign/testing/FakeCodeSignPlatform.hpp"
#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/daemon/InfoOp.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;
using boost::asio::awaitable;
using namespace std::string_literals;

// What the test operations share with the test.
struct Rendezvous {
  std::atomic<bool> released{false};
  std::atomic<int> counted{0};
};

// "test.wait" answers "released" once "test.release" has run, or "timeout"
// after ten seconds: it only answers "released" if the two overlapped.
class WaitOp final : public DaemonOp {
 public:
  explicit WaitOp(std::shared_ptr<Rendezvous> r) : DaemonOp("test.wait", {}, false), r_(std::move(r)) {}
  awaitable<JSONValue> execute(const JSONObject&, const DaemonOpContext&) const override {
    auto executor = co_await boost::asio::this_coro::executor;
    boost::asio::steady_timer timer(executor);
    for (int i = 0; i < 10000 && !r_->released; ++i) {
      timer.expires_after(std::chrono::milliseconds(1));
      co_await timer.async_wait(boost::asio::use_awaitable);
    }
    co_return JSONValue(r_->released ? "released" : "timeout");
  }

 private:
  std::shared_ptr<Rendezvous> r_;
};

class ReleaseOp final : public DaemonOp {
 public:
  explicit ReleaseOp(std::shared_ptr<Rendezvous> r) : DaemonOp("test.release", {}, false), r_(std::move(r)) {}
  awaitable<JSONValue> execute(const JSONObject&, const DaemonOpContext&) const override {
    r_->released = true;
    co_return JSONValue("done");
  }

 private:
  std::shared_ptr<Rendezvous> r_;
};

class CountOp final : public DaemonOp {
 public:
  explicit CountOp(std::shared_ptr<Rendezvous> r) : DaemonOp("test.count", {}, false), r_(std::move(r)) {}
  awaitable<JSONValue> execute(const JSONObject&, const DaemonOpContext&) const override {
    ++r_->counted;
    co_return JSONValue(true);
  }

 private:
  std::shared_ptr<Rendezvous> r_;
};

std::string requestBytes(const std::string& op) {
  return TarskelJSON::encoder().encode(DaemonRequest{op, {}, std::nullopt, std::nullopt});
}

// A hand-driven connection: raw frames out, envelopes in.
class RawConnection {
 public:
  explicit RawConnection(const std::string& path) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    timeval timeout{10, 0};  // a hung server fails the test rather than the run
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }
  ~RawConnection() { ::close(fd_); }

  void sendRaw(const std::string& bytes) {
    EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  void send(std::uint64_t id, bool expectsReply, std::optional<std::string> body) {
    sendRaw(Transport::encodeFrame({id, expectsReply, std::move(body)}));
  }

  // The next reply, or nothing when the server closed the connection.
  std::optional<TransportEnvelope> next() {
    while (pending_.empty()) {
      char buffer[4096];
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) return std::nullopt;
      for (auto& p : decoder_.append({buffer, static_cast<std::size_t>(n)})) pending_.push_back(p);
    }
    TransportEnvelope e = Transport::decodeEnvelope(pending_.front());
    pending_.erase(pending_.begin());
    return e;
  }

  DaemonResponse nextResponse() {
    auto reply = next();
    EXPECT_TRUE(reply && reply->body);
    if (!reply || !reply->body) return {};
    return TarskelJSON::decoder().decode<DaemonResponse>(*reply->body);
  }

 private:
  int fd_ = -1;
  FrameDecoder decoder_;
  std::vector<std::string> pending_;
};

class XPCServerTest : public testing::DaemonFixture {
 protected:
  void SetUp() override { openStores(); }
  // The listener keeps the pool busy until it stops.
  void TearDown() override {
    if (server) server->stop();
    DaemonFixture::TearDown();
  }

  void startServer(DaemonPeerGate gate = {}, std::string name = "") {
    if (name.empty()) name = dir.file("run/d.sock").string();
    auto ops = DaemonCore::OpList{std::make_shared<InfoOp>(), std::make_shared<WaitOp>(rendezvous),
                                  std::make_shared<ReleaseOp>(rendezvous),
                                  std::make_shared<CountOp>(rendezvous)};
    server = std::make_unique<DaemonXPCServer>(name, DaemonCore(std::move(ops), audit, grants),
                                               std::move(gate), pool.get_executor());
    server->start();
  }

  std::string socketPath() const { return server->endpoint(); }

  std::vector<std::string> callers() const {
    std::vector<std::string> out;
    for (auto& row : db->query("SELECT caller FROM audit ORDER BY seq;")) {
      out.push_back(*row.at("caller").stringValue());
    }
    return out;
  }

  std::shared_ptr<Rendezvous> rendezvous = std::make_shared<Rendezvous>();
  std::unique_ptr<DaemonXPCServer> server;
};

TEST_F(XPCServerTest, ClientCallIsAnsweredAndAudited) {
  startServer();
  DaemonXPCClient client(socketPath());
  const DaemonResponse response = client.request({"daemon.info", {}, "corr-1", std::nullopt});
  ASSERT_TRUE(response.ok);
  ASSERT_TRUE(response.result->objectValue());
  EXPECT_EQ(*response.result->objectValue()->find("pid"), JSONValue::integer(::getpid()));
  EXPECT_EQ(callers(), std::vector<std::string>{
                           "unverified:gate SO sin provisionar (sin vendor/teams.json)"});
}

TEST_F(XPCServerTest, MessagesOfOneConnectionOverlapAndRepliesLeaveInAnyOrder) {
  startServer();
  RawConnection c(socketPath());
  c.send(1, true, requestBytes("test.wait"));
  c.send(2, true, requestBytes("test.release"));
  auto first = c.next();
  auto second = c.next();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->id, 2u) << "the release must not wait behind the wait";
  EXPECT_EQ(second->id, 1u);
  EXPECT_EQ(TarskelJSON::decoder().decode<DaemonResponse>(*second->body).result, JSONValue("released"));
}

TEST_F(XPCServerTest, MessageThatExpectsNoReplyNeverRuns) {
  startServer();
  RawConnection c(socketPath());
  c.send(1, false, requestBytes("test.count"));
  c.send(2, true, requestBytes("daemon.info"));
  auto reply = c.next();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->id, 2u);
  EXPECT_EQ(rendezvous->counted, 0);
  EXPECT_EQ(auditRows(), 1);
}

TEST_F(XPCServerTest, UnreadableRequestsAreMalformedAndLeaveNoRow) {
  startServer();
  RawConnection c(socketPath());
  const std::vector<std::pair<const char*, std::optional<std::string>>> cases = {
      {"missing request key", std::nullopt},
      {"empty request", ""},
      {"not JSON", "{op"},
      {"args missing", R"({"op":"daemon.info"})"},
  };
  std::uint64_t id = 0;
  for (const auto& [name, body] : cases) {
    SCOPED_TRACE(name);
    c.send(++id, true, body);
    const DaemonResponse response = c.nextResponse();
    EXPECT_FALSE(response.ok);
    ASSERT_TRUE(response.error);
    EXPECT_EQ(response.error->code, "malformedRequest");
  }
  EXPECT_EQ(auditRows(), 0);
}

TEST_F(XPCServerTest, BadFrameClosesOnlyItsConnection) {
  startServer();
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"frame over the limit", "\x01\x00\x00\x01"s},
      {"envelope too short", Framing::encode("\0\0\0\1"s)},
      {"unknown flag", Framing::encode("\0\0\0\0\0\0\0\1\x10"s)},
  };
  RawConnection bystander(socketPath());
  std::uint64_t id = 0;
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    RawConnection offender(socketPath());
    offender.send(1, true, requestBytes("daemon.info"));
    EXPECT_TRUE(offender.next()) << "answered before the bad frame";
    offender.sendRaw(bytes);
    EXPECT_FALSE(offender.next()) << "closed after it";
    bystander.send(++id, true, requestBytes("daemon.info"));
    EXPECT_TRUE(bystander.nextResponse().ok);
  }
}

TEST_F(XPCServerTest, GateVerdictIsWorkedOutForEveryMessageFromThePeersPid) {
  auto fake = std::make_shared<FakeCodeSignPlatform>();
  startServer(DaemonPeerGate{std::vector<std::string>{"TEAMID0001"}, fake});
  DaemonXPCClient client(socketPath());
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);
  const std::string asked = "guestCodeForPid " + std::to_string(::getpid());
  const auto calls = fake->calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), asked), 2);
  EXPECT_EQ(callers(), (std::vector<std::string>{"team:TEAMID0001", "team:TEAMID0001"}));
}

TEST_F(XPCServerTest, RejectedPeerGetsUnauthorizedClient) {
  auto fake = std::make_shared<FakeCodeSignPlatform>();
  fake->guestCodeForPidAnswer = {-67065, false};
  startServer(DaemonPeerGate{std::vector<std::string>{"TEAMID0001"}, fake});
  DaemonXPCClient client(socketPath());
  const DaemonResponse response = client.request({"daemon.info", {}, std::nullopt, std::nullopt});
  ASSERT_TRUE(response.error);
  EXPECT_EQ(response.error->code, "unauthorizedClient");
  EXPECT_EQ(response.error->message,
            "cliente XPC rechazado: sin identidad de código en el mensaje xpc (-67065)");
}

// Linux has no code signature: a provisioned gate on the real platform
// resolves this very process through its pidfd and fails closed.
TEST_F(XPCServerTest, ProvisionedGateOnTheSystemPlatformFailsClosed) {
  startServer(DaemonPeerGate{std::vector<std::string>{"TEAMID0001"},
                             DaemonPeerGate::systemPlatform()});
  DaemonXPCClient client(socketPath());
  const DaemonResponse response = client.request({"daemon.info", {}, std::nullopt, std::nullopt});
  ASSERT_TRUE(response.error);
  EXPECT_EQ(response.error->message,
            "cliente XPC rechazado: gate SO: firma inválida o no anclada a Apple en cliente xpc "
            "(-67062)");
}

TEST_F(XPCServerTest, SocketIsReachableByAnyoneInA0755DirectoryAndGoesAtStop) {
  startServer();
  struct stat st{};
  ASSERT_EQ(::stat(socketPath().c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  ASSERT_EQ(::stat(dir.file("run").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u);
  DaemonXPCClient client(socketPath());
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);
  server->stop();
  EXPECT_FALSE(fs::exists(dir.file("run/d.sock")));
  EXPECT_THROW(client.request({"daemon.info", {}, std::nullopt, std::nullopt}), DaemonClientError);
}

TEST_F(XPCServerTest, WhatMayStandAtTheSocketPath) {
  const fs::path path = dir.file("d.sock");
  // A socket nobody listens on is stale and replaced.
  {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
  }
  startServer({}, path.string());
  DaemonXPCClient client(path.string());
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);

  // A live listener is not taken over, nor is a file that isn't a socket.
  auto core = DaemonCore(DaemonCore::OpList{}, audit, grants);
  DaemonXPCServer second(path.string(), core, {}, pool.get_executor());
  EXPECT_THROW(second.start(), DaemonServerError);
  const fs::path file = dir.file("plain");
  testing::writeFile(file, "datos");
  DaemonXPCServer third(file.string(), core, {}, pool.get_executor());
  EXPECT_THROW(third.start(), DaemonServerError);
  EXPECT_EQ(testing::readFile(file), "datos");
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);
}

TEST_F(XPCServerTest, AdoptsTheSocketOfSocketActivation) {
  const fs::path path = dir.file("activated.sock");
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 8), 0);
  const int saved = ::dup(3);  // whatever the test runner keeps at 3
  ASSERT_EQ(::dup2(listener, 3), 3);
  ::close(listener);
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDS", "1", 1);

  startServer({}, "ignored.name.when.activated");
  EXPECT_EQ(socketPath(), path.string());
  EXPECT_EQ(std::getenv("LISTEN_FDS"), nullptr);
  DaemonXPCClient client(path.string());
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);
  server->stop();
  EXPECT_TRUE(fs::exists(path)) << "the service manager's socket is not ours to remove";
  if (saved >= 0) {
    ::dup2(saved, 3);
    ::close(saved);
  }
}

}  // namespace
}  // namespace tarskel
