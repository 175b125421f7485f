// The daemon's socket server, in-process on a real socket with a real core
// and audit database, spoken to by the real client or by hand.

#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <functional>
#include <thread>

#include "DaemonTestSupport.hpp"
#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"
#include "tarskel/codesign/testing/FakeCodeSignPlatform.hpp"
#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/daemon/FsReadProtectedPathOp.hpp"
#include "tarskel/daemon/InfoOp.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;
using boost::asio::awaitable;
using namespace std::string_literals;

// "test.wait" answers "released" once "test.release" has run, or "timeout"
// after ten seconds, so it only answers "released" if the two overlapped;
// "test.block" waits the same way but holds its thread, as a long file read
// would; "test.count" counts its runs.
class TestOp final : public DaemonOp {
 public:
  struct Shared {
    std::atomic<bool> released{false};
    std::atomic<int> counted{0};
  };
  TestOp(const char* name, std::shared_ptr<Shared> s)
      : DaemonOp(std::string("test.") + name, {}, false), s_(std::move(s)) {}
  awaitable<JSONValue> execute(const JSONObject&, const DaemonOpContext&) const override {
    if (name() == "test.release") s_->released = true;
    if (name() == "test.count") ++s_->counted;
    auto executor = co_await boost::asio::this_coro::executor;
    boost::asio::steady_timer timer(executor);
    for (int i = 0; i < 10000 && !s_->released; ++i) {
      if (name() == "test.block") {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        continue;
      }
      timer.expires_after(std::chrono::milliseconds(1));
      co_await timer.async_wait(boost::asio::use_awaitable);
    }
    co_return JSONValue(s_->released ? "released" : "timeout");
  }

 private:
  std::shared_ptr<Shared> s_;
};

using testing::boundSocket;
using testing::RawConnection;
using testing::requestBytes;

class XPCServerTest : public testing::DaemonFixture {
 protected:
  void SetUp() override { openStores(R"({"grants":{"svc":["fs.readProtectedPath"]}})"); }
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
    DaemonCore::OpList ops{std::make_shared<InfoOp>(), std::make_shared<FsReadProtectedPathOp>()};
    for (const char* op : {"wait", "release", "count", "block"})
      ops.push_back(std::make_shared<TestOp>(op, rendezvous));
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

  std::shared_ptr<TestOp::Shared> rendezvous = std::make_shared<TestOp::Shared>();
  boost::asio::thread_pool longOps{1};
  std::unique_ptr<DaemonXPCServer> server;
};

TEST_F(XPCServerTest, ClientCallIsAnsweredAndAuditedOnASocketForItsOwnerOnly) {
  startServer();
  EXPECT_EQ(fs::status(socketPath()).type(), fs::file_type::socket);
  EXPECT_EQ(fs::status(socketPath()).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(dir.file("run")).permissions(), fs::perms(0755));
  DaemonXPCClient client(socketPath());
  const DaemonResponse response = client.request({"daemon.info", {}, "corr-1", std::nullopt});
  ASSERT_TRUE(response.ok);
  EXPECT_EQ(*response.result->objectValue()->find("pid"), JSONValue::integer(::getpid()));
  EXPECT_EQ(callers(),
            std::vector<std::string>{"unverified:gate SO sin provisionar (sin vendor/teams.json)"});
  server->stop();
  EXPECT_FALSE(fs::exists(dir.file("run/d.sock")));
  EXPECT_THROW(client.request({"daemon.info", {}, std::nullopt, std::nullopt}), DaemonClientError);
}

// Replies leave in any order, a message that expects none never runs, and
// one without a body is malformed.
TEST_F(XPCServerTest, MessagesOfOneConnectionOverlap) {
  startServer();
  RawConnection c(socketPath());
  c.send(1, false, requestBytes("test.count"));
  c.send(2, true, requestBytes("test.wait"));
  c.send(3, true, requestBytes("test.release"));
  auto first = c.next();
  auto second = c.next();
  ASSERT_TRUE(first && second);
  // The wait ends "released" only if the release ran while it was in flight;
  // which of the two replies leaves first is up to the loop.
  const auto& wait = first->id == 2u ? first : second;
  EXPECT_EQ(first->id + second->id, 5u);
  EXPECT_EQ(TarskelJSON::decoder().decode<DaemonResponse>(*wait->body).result,
            JSONValue("released"));
  EXPECT_EQ(rendezvous->counted, 0);
  // No body at all is the server's to refuse, as the core refuses unreadable
  // bytes: no row.
  c.send(4, true, std::nullopt);
  EXPECT_EQ(c.nextResponse().error.value_or(DaemonWireError{}).code, "malformedRequest");
  EXPECT_EQ(auditRows(), 2);
}

TEST_F(XPCServerTest, BadFrameClosesOnlyItsConnection) {
  startServer();
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"header over 1 MiB, closed without waiting for the rest", "\x00\x10\x00\x01"s},
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
    EXPECT_TRUE(offender.closedByServer(std::chrono::seconds(4)));
    bystander.send(++id, true, requestBytes("daemon.info"));
    EXPECT_TRUE(bystander.nextResponse().ok);
  }
  // A client that has stopped writing still gets every reply.
  for (int i = 0; i < 20; ++i) bystander.send(++id, true, requestBytes("daemon.info"));
  bystander.shutdownWrite();
  int replies = 0;
  while (bystander.next(std::chrono::seconds(5))) ++replies;
  EXPECT_EQ(replies, 20);
}

TEST_F(XPCServerTest, WhatMayStandAtTheSocketPath) {
  const fs::path path = dir.file("d.sock");
  ::close(boundSocket(path.string()));  // a socket nobody listens on is stale and replaced
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

  // Regression: under a directory another user owns, that user swapped the
  // socket's directory for one of its own, and root's client believed it.
  fs::create_directories(dir.file("x/sub"));
  ASSERT_EQ(::chown(dir.file("x").c_str(), 65534, 65534), 0);
  const std::string planted = dir.file("x/sub/d.sock").string();
  DaemonXPCServer fourth(planted, core, {}, pool.get_executor());
  EXPECT_THROW(fourth.start(), DaemonServerError);
  EXPECT_THAT(
      [&] {
        DaemonXPCClient(planted).request({"daemon.info", {}, {}, {}});
      },
      ::testing::ThrowsMessage<DaemonClientError>(
          ::testing::HasSubstr("pertenece a otro usuario (uid 65534)")));
}

TEST_F(XPCServerTest, AdoptsTheSocketOfSocketActivation) {
  const fs::path path = dir.file("activated.sock");
  const int listener = boundSocket(path.string(), 8);
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

// A client that leaves large answers unread holds one of them, not one per
// request it pipelines: the other reads wait for room before their file is
// read, and each is answered whole once the client reads.
TEST_F(XPCServerTest, LargeAnswersWaitForTheClientToRead) {
  DaemonServerLimits limits;
  limits.maxUnsentBytes = 256 << 10;
  startServer({}, "", limits);
  testing::writeFile(dir.file("big"), std::string(FsReadProtectedPathOp::maxBytes, 'x'));
  const std::string read =
      TarskelJSON::encoder().encode(DaemonRequest{"fs.readProtectedPath",
                                                  {{"path", JSONValue(dir.file("big").string())}},
                                                  std::nullopt,
                                                  "svc"});
  RawConnection c(socketPath());
  for (int id = 1; id <= 8; ++id) c.send(id, true, read);
  for (int i = 0; i < 1000 && auditRows() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(auditRows(), 1) << "files read while an answer was unread";
  for (int i = 0; i < 8; ++i) {
    const DaemonResponse answer = c.nextResponse();
    ASSERT_TRUE(answer.ok);
    EXPECT_EQ(*answer.result->objectValue()->find("size"),
              JSONValue::integer(std::int64_t{1} << 20));
  }
  EXPECT_EQ(auditRows(), 8);
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

// The real Linux platform, but for one executable that passes as team
// TEAMID0001 without a sealed tree and a code key.
class TrustOneExecutable final : public CodeSignPlatform {
 public:
  explicit TrustOneExecutable(std::string path) : trusted_(std::move(path)) {}
  CodeResult staticCodeForPath(const std::string& p) const override {
    return linux_.staticCodeForPath(p);
  }
  CodeResult guestCodeForPid(std::int32_t pid) const override {
    return linux_.guestCodeForPid(pid);
  }
  std::optional<CodeResult> guestCodeInProcDirectory(int dir, std::int32_t pid) const override {
    return linux_.guestCodeInProcDirectory(dir, pid);
  }
  CodeResult staticCodeOf(const CodeObject& c) const override { return linux_.staticCodeOf(c); }
  CodeRef compileRequirement(std::string_view t) const override {
    return linux_.compileRequirement(t);
  }
  OSStatus checkValidity(const CodeObject& c, std::uint32_t, const CodeObject*) const override {
    return LinuxCodeSignPlatform::executablePath(c) == trusted_ ? 0
                                                                : CodeSignStatus::errSecCSUnsigned;
  }
  SigningInformation copySigningInformation(const CodeObject&, std::uint32_t) const override {
    return {0, SigningInformation::Result::dictionary, SigningInformation::Team::string,
            "TEAMID0001"};
  }

 private:
  LinuxCodeSignPlatform linux_;
  std::string trusted_;
};

// Who wrote a message's bytes is who is judged: the (trusted) process that
// connected, or nobody for a frame that it and a cat that inherited the
// connection wrote together. (A child that is handed the connection is
// judged as itself: codesign-attacks.sh, with the real platform.)
TEST_F(XPCServerTest, EachMessageIsJudgedByTheProcessThatWroteIt) {
  startServer(DaemonPeerGate{
      std::vector<std::string>{"TEAMID0001"},
      std::make_shared<TrustOneExecutable>(fs::read_symlink("/proc/self/exe").string())});
  RawConnection c(socketPath());
  const std::string frame = Transport::encodeFrame({1, true, requestBytes("daemon.info")});
  // A cat writes `part` on the connection, and stays until the reply is read.
  auto catWrites = [&](const std::string& part) {
    int input[2];
    EXPECT_EQ(::pipe(input), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ::dup2(input[0], STDIN_FILENO);
      ::dup2(c.fd(), STDOUT_FILENO);
      ::close(input[1]);
      ::execl("/bin/cat", "cat", static_cast<char*>(nullptr));
      _exit(127);
    }
    ::close(input[0]);
    EXPECT_TRUE(writeAll(input[1], part));
    return std::make_tuple(child, input[1]);
  };

  c.send(2, true, requestBytes("daemon.info"));
  EXPECT_TRUE(c.nextResponse().ok);

  c.sendRaw(frame.substr(0, 10));
  auto [helper, letGo] = catWrites(frame.substr(10));
  EXPECT_FALSE(c.nextResponse().ok);
  ::close(letGo);
  ::waitpid(helper, nullptr, 0);
  EXPECT_EQ(callers(),
            (std::vector<std::string>{
                "team:TEAMID0001", "rejected:sin identidad de código en el mensaje xpc (-67065)"}));
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
    msghdr message{nullptr, 0, &io, 1, control, sizeof control, 0};
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
