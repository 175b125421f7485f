// tarskel call and tarskel info against a scripted daemon. The daemon side
// writes the envelope by hand (id: uint64be, flags: uint8, body), which pins
// the tool's wire format independently of the library that produces it.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <thread>

#include "ToolRunner.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/testing/JSONTesting.hpp"

namespace tarskel::tool::testing {
namespace {

// Answers every request with `response` (or never, when it is empty),
// remembering the request bodies in canonical form.
class CannedDaemon {
 public:
  explicit CannedDaemon(std::string response) : response_(std::move(response)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path().c_str());
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(fd_, 4), 0);
    thread_ = std::thread([this] { serve(); });
  }
  ~CannedDaemon() {
    ::shutdown(fd_, SHUT_RDWR);
    thread_.join();
    ::close(fd_);
  }

  std::string path() const { return dir_.file("d.sock").string(); }
  std::vector<std::string> requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    for (int client; (client = ::accept(fd_, nullptr, nullptr)) >= 0; ::close(client)) {
      FrameDecoder decoder;
      char buffer[4096];
      for (ssize_t n; (n = ::recv(client, buffer, sizeof buffer, 0)) > 0;) {
        for (const std::string& envelope : decoder.append({buffer, static_cast<std::size_t>(n)})) {
          {
            std::lock_guard lock(mutex_);
            requests_.push_back(
                tarskel::testing::canonical(tarskel::testing::json(envelope.substr(9))));
          }
          if (response_.empty()) continue;
          // Same id, no reply expected, body present.
          const std::string reply = Framing::encode(envelope.substr(0, 8) + '\x02' + response_);
          ::send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
      }
    }
  }

  std::string response_;
  TempDirectory dir_{"tarskel-call"};
  int fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::thread thread_;
  std::mutex mutex_;
  std::vector<std::string> requests_;
};

using CallCommandsTest = ToolFiles;

// Regression (for --args): `-` failed although documented, and large
// arguments could only go on the command line.
TEST_F(CallCommandsTest, CallPrintsTheResponseOnOneLineAndInfoForPeople) {
  CannedDaemon daemon(
      R"({"ok":true,"result":{"daemonVersion":"0.1.0","protocolVersion":"1.1.0","pid":42,"uid":0,)"
      R"( "ops":["daemon.info","fs.readProtectedPath"]}})");
  expectRuns(
      R"(
    call fs.readProtectedPath --args {"path":"/etc/x"} --service-id svc.a --correlation-id c-9 --mach-service $SOCK | 0 |  | $RESPONSE\n
    info --mach-service $SOCK | 0 |  | tarskeld 0.1.0 (protocol 1.1.0)\npid 42, uid 0\noperations:\n  daemon.info\n  fs.readProtectedPath\n
    call op --args - --mach-service $SOCK | 0 |  | $RESPONSE\n | {"a":1}
    call op --args @$ARGS --mach-service $SOCK | 0
  )",
      {{"$SOCK", daemon.path()},
       {"$ARGS", write("args", R"({"big":")" + std::string(300000, 'x') + R"("})")},
       {"$RESPONSE",
        R"({"ok":true,"result":{"daemonVersion":"0.1.0","ops":["daemon.info","fs.readProtectedPath"],"pid":42,"protocolVersion":"1.1.0","uid":0}})"}});
  const std::vector<std::string> requests = daemon.requests();
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests[0],
            R"({"args":{"path":"\/etc\/x"},"correlationId":"c-9","op":"fs.readProtectedPath",)"
            R"("serviceId":"svc.a"})");
  EXPECT_EQ(requests[1], R"({"args":{},"op":"daemon.info"})");
  EXPECT_EQ(requests[2], R"({"args":{"a":1},"op":"op"})");
  EXPECT_GT(requests[3].size(), 300000u);
}

TEST_F(CallCommandsTest, ExitCodes) {
  CannedDaemon refusing(
      R"({"ok":false,"error":{"code":"unknownOp","message":"op fuera del catálogo: x"}})");
  CannedDaemon garbled("not json");
  CannedDaemon silent("");
  // Regressions: an empty name meant the socket /run/tarskel/.sock; a daemon
  // that accepted and never answered was waited on forever.
  expectRuns(
      R"(
    call x --mach-service $REFUSING | 1
    call x --args { --mach-service $REFUSING | 2 | tarskel: --args:1:2: unexpected end of the document
    call x --args @/nonexistent/a --mach-service $REFUSING | 2 | /nonexistent/a: No such file or directory
    info --mach-service '' | 2 | --mach-service is empty
    call x --timeout 0.3 --mach-service $SILENT | 3 | : no answer within 0.3 s (--timeout)
    call x --mach-service /nonexistent-tarskel/d.sock | 3 | tarskel: daemon no disponible: connect /nonexistent-tarskel/d.sock
    call x --mach-service $GARBLED | 3 | unreadable reply from the daemon
    info --mach-service $REFUSING | 1 | daemon.info refused: unknownOp: op fuera del catálogo: x
  )",
      {{"$REFUSING", refusing.path()}, {"$SILENT", silent.path()}, {"$GARBLED", garbled.path()}});
}

}  // namespace
}  // namespace tarskel::tool::testing
