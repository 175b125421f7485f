// The daemon's socket server, in-process on a real socket with a real core
// and audit database, spoken to by the real client or by hand.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
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
#include <functional>
#include <thread>

#include "DaemonTestSupport.hpp"
#include "tarskel/codesign/testing/FakeCodeSignPlatform.hpp"
#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/daemon/InfoOp.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
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
  explicit WaitOp(std::shared_ptr<Rendezvous> r)
      : DaemonOp("test.wait", {}, false), r_(std::move(r)) {}
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
  explicit ReleaseOp(std::shared_ptr<Rendezvous> r)
      : DaemonOp("test.release", {}, false), r_(std::move(r)) {}
  awaitable<JSONValue> execute(const JSONObject&, const DaemonOpContext&) const override {
    r_->released = true;
    co_return JSONValue("done");
  }

 private:
  std::shared_ptr<Rendezvous> r_;
};

// "test.block" holds its thread (as a long file read or update would) until
// "test.release" has run, for at most ten seconds.
class BlockOp final : public DaemonOp {
 public:
  explicit BlockOp(std::shared_ptr<Rendezvous> r)
      : DaemonOp("test.block", {}, false), r_(std::move(r)) {}
  awaitable<JSONValue> execute(const JSONObject&, const DaemonOpContext&) const override {
    for (int i = 0; i < 10000 && !r_->released; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    co_return JSONValue(r_->released ? "released" : "timeout");
  }

 private:
  std::shared_ptr<Rendezvous> r_;
};

class CountOp final : public DaemonOp {
 public:
  explicit CountOp(std::shared_ptr<Rendezvous> r)
      : DaemonOp("test.count", {}, false), r_(std::move(r)) {}
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
  explicit RawConnection(int fd) : fd_(fd) {}
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
    EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void send(std::uint64_t id, bool expectsReply, std::optional<std::string> body) {
    sendRaw(Transport::encodeFrame({id, expectsReply, std::move(body)}));
  }

  int fd() const { return fd_; }

  // Whether the server closed the connection: true once a read, past
  // whatever replies were waiting, finds the end of the stream.
  bool closedByServer() {
    char buffer[4096];
    for (;;) {
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n == 0) return true;
      if (n < 0) return false;  // the receive time-out: still open
    }
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
    rendezvous->released = true;
    if (server) server->stop();
    longOps.join();
    DaemonFixture::TearDown();
  }

  void startServer(DaemonPeerGate gate = {}, std::string name = "",
                   DaemonServerLimits limits = {}) {
    if (name.empty()) name = dir.file("run/d.sock").string();
    auto ops = DaemonCore::OpList{std::make_shared<InfoOp>(), std::make_shared<WaitOp>(rendezvous),
                                  std::make_shared<ReleaseOp>(rendezvous),
                                  std::make_shared<CountOp>(rendezvous),
                                  std::make_shared<BlockOp>(rendezvous)};
    server = std::make_unique<DaemonXPCServer>(name, DaemonCore(std::move(ops), audit, grants),
                                               std::move(gate), longOps.get_executor(), limits);
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
  boost::asio::thread_pool longOps{1};
  std::unique_ptr<DaemonXPCServer> server;
};

TEST_F(XPCServerTest, ClientCallIsAnsweredAndAudited) {
  startServer();
  DaemonXPCClient client(socketPath());
  const DaemonResponse response = client.request({"daemon.info", {}, "corr-1", std::nullopt});
  ASSERT_TRUE(response.ok);
  ASSERT_TRUE(response.result->objectValue());
  EXPECT_EQ(*response.result->objectValue()->find("pid"), JSONValue::integer(::getpid()));
  EXPECT_EQ(callers(),
            std::vector<std::string>{"unverified:gate SO sin provisionar (sin vendor/teams.json)"});
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
  EXPECT_EQ(TarskelJSON::decoder().decode<DaemonResponse>(*second->body).result,
            JSONValue("released"));
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

// The gate behind the socket, asked anew for every message: a scripted
// platform that passes, one that has no code for the sender, and the real
// Linux platform, which fails closed (no code signature exists here).
TEST_F(XPCServerTest, GateVerdictsOfEveryMessage) {
  auto passes = std::make_shared<FakeCodeSignPlatform>();
  auto noCode = std::make_shared<FakeCodeSignPlatform>();
  noCode->guestCodeForPidAnswer = {-67065, false};
  struct Case {
    const char* name;
    std::shared_ptr<const CodeSignPlatform> platform;
    std::string caller;
  };
  const std::vector<Case> cases = {
      {"trusted", passes, "team:TEAMID0001"},
      {"no code", noCode, "rejected:sin identidad de código en el mensaje xpc (-67065)"},
      {"system", DaemonPeerGate::systemPlatform(),
       "rejected:gate SO: firma inválida o no anclada a Apple en cliente xpc (-67062)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    startServer(DaemonPeerGate{std::vector<std::string>{"TEAMID0001"}, c.platform});
    DaemonXPCClient client(socketPath());
    for (int i = 0; i < 2; ++i) client.request({"daemon.info", {}, std::nullopt, std::nullopt});
    server->stop();
    const auto rows = callers();
    ASSERT_GE(rows.size(), 2u);
    EXPECT_EQ(rows[rows.size() - 2], c.caller);
    EXPECT_EQ(rows.back(), c.caller);
  }
  const std::string asked = "guestCodeForPid " + std::to_string(::getpid());
  const auto calls = passes->calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), asked), 2) << "once per message";
}

TEST_F(XPCServerTest, SocketIsItsOwnersOnlyInA0755DirectoryAndGoesAtStop) {
  startServer();
  struct stat st {};
  ASSERT_EQ(::stat(socketPath().c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);
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

TEST_F(XPCServerTest, LongOperationsNeverHoldUpShortOnes) {
  startServer();
  RawConnection blocked(socketPath());
  blocked.send(1, true, requestBytes("test.block"));
  RawConnection other(socketPath());
  other.send(1, true, requestBytes("daemon.info"));
  EXPECT_TRUE(other.nextResponse().ok) << "answered while the long pool is taken";
  rendezvous->released = true;
  EXPECT_EQ(blocked.nextResponse().result, JSONValue("released"));
}

// Each case holds on to the daemon its own way; the server closes it, and
// the other clients are served throughout.
TEST_F(XPCServerTest, ConnectionsThatHoldOnAreClosed) {
  DaemonServerLimits limits;
  limits.idleTimeout = std::chrono::milliseconds(150);
  limits.stallTimeout = std::chrono::milliseconds(150);
  limits.maxUnsentBytes = 1024;
  limits.maxInFlight = 4;
  startServer({}, "", limits);
  struct Case {
    const char* name;
    std::function<void(RawConnection&)> holdOn;
  };
  const std::vector<Case> cases = {
      {"says nothing", [](RawConnection&) {}},
      {"half a frame header", [](RawConnection& c) { c.sendRaw("\0\0"s); }},
      {"half a frame", [](RawConnection& c) { c.sendRaw("\0\0\0\x40xyz"s); }},
      {"never reads its replies",
       [](RawConnection& c) {
         const int small = 4096;
         ::setsockopt(c.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
         const std::string frame = Transport::encodeFrame({1, true, requestBytes("daemon.info")});
         for (int i = 0; i < 20000; ++i) {
           if (::send(c.fd(), frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL) <= 0) break;
         }
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawConnection holder(socketPath());
    c.holdOn(holder);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_TRUE(holder.closedByServer());
  }
  DaemonXPCClient client(socketPath());
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);
}

TEST_F(XPCServerTest, ConnectionsPerUserAreCapped) {
  DaemonServerLimits limits;
  limits.maxConnectionsPerUid = 2;
  startServer({}, "", limits);
  auto first = std::make_unique<RawConnection>(socketPath());
  RawConnection second(socketPath());
  first->send(1, true, requestBytes("daemon.info"));
  ASSERT_TRUE(first->next());
  RawConnection third(socketPath());
  EXPECT_TRUE(third.closedByServer());
  first.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  RawConnection fourth(socketPath());
  fourth.send(1, true, requestBytes("daemon.info"));
  EXPECT_TRUE(fourth.nextResponse().ok) << "a freed place is given again";
}

// Who wrote a message's bytes is who is judged: a child that inherited the
// connection, the process that connected, or nobody for a frame that two of
// them wrote together.
TEST_F(XPCServerTest, EachMessageIsJudgedByTheProcessThatWroteIt) {
  auto fake = std::make_shared<FakeCodeSignPlatform>();
  startServer(DaemonPeerGate{std::vector<std::string>{"TEAMID0001"}, fake});
  RawConnection c(socketPath());
  const std::string frame = Transport::encodeFrame({1, true, requestBytes("daemon.info")});
  // The child writes `part` of the frame, and stays until the reply is read.
  auto childWrites = [&](const std::string& part) {
    int done[2];
    EXPECT_EQ(::pipe(done), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ::close(done[1]);
      ::write(c.fd(), part.data(), part.size());
      char byte;
      ::read(done[0], &byte, 1);
      _exit(0);
    }
    ::close(done[0]);
    return std::make_tuple(child, done[1]);
  };

  auto [child, release] = childWrites(frame);
  EXPECT_TRUE(c.nextResponse().ok);
  ::close(release);
  ::waitpid(child, nullptr, 0);
  c.send(2, true, requestBytes("daemon.info"));
  EXPECT_TRUE(c.nextResponse().ok);
  const auto calls = fake->calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "guestCodeForPid " + std::to_string(child)), 1);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "guestCodeForPid " + std::to_string(::getpid())),
            1);

  c.sendRaw(frame.substr(0, 10));
  auto [helper, letGo] = childWrites(frame.substr(10));
  const DaemonResponse mixed = c.nextResponse();
  ::close(letGo);
  ::waitpid(helper, nullptr, 0);
  ASSERT_TRUE(mixed.error);
  EXPECT_EQ(mixed.error->message,
            "cliente XPC rechazado: sin identidad de código en el mensaje xpc (-67065)");
}

// Descriptors a client passes with its bytes are closed, not kept.
TEST_F(XPCServerTest, DescriptorsPassedByAClientAreNotKept) {
  startServer(DaemonPeerGate{std::vector<std::string>{"TEAMID0001"},
                             std::make_shared<FakeCodeSignPlatform>()});
  RawConnection c(socketPath());
  auto openDescriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  c.send(1, true, requestBytes("daemon.info"));  // the database's files are open from here on
  EXPECT_TRUE(c.nextResponse().ok);
  const auto before = openDescriptors();
  const std::string frame = Transport::encodeFrame({1, true, requestBytes("daemon.info")});
  for (int i = 0; i < 20; ++i) {
    int passed[4] = {0, 1, 2, 0};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof passed)] = {};
    iovec io{const_cast<char*>(frame.data()), frame.size()};
    msghdr message{};
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof passed);
    std::memcpy(CMSG_DATA(header), passed, sizeof passed);
    ASSERT_EQ(::sendmsg(c.fd(), &message, 0), static_cast<ssize_t>(frame.size()));
    EXPECT_TRUE(c.nextResponse().ok);
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace tarskel
