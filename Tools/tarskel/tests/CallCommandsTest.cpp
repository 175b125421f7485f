// tarskel call and tarskel info against a scripted daemon. The daemon side
// writes the envelope by hand (id: uint64be, flags: uint8, body), which pins
// the tool's wire format independently of the library that produces it.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ToolRunner.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::tool {
namespace {

using testing::runTool;

// Answers every request with `response`, remembering the request bodies.
class CannedDaemon {
 public:
  explicit CannedDaemon(std::string response) : response_(std::move(response)) {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarskel-call-XXXXXX").string();
    dir_ = ::mkdtemp(pattern.data());
    path_ = dir_ + "/d.sock";
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path_.c_str());
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(fd_, 4), 0);
    thread_ = std::thread([this] { serve(); });
  }
  ~CannedDaemon() {
    ::shutdown(fd_, SHUT_RDWR);
    thread_.join();
    ::close(fd_);
    std::filesystem::remove_all(dir_);
  }

  const std::string& path() const { return path_; }
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
            requests_.push_back(envelope.substr(9));
          }
          if (response_.empty()) continue;  // accepts, never answers
          // Same id, no reply expected, body present.
          const std::string reply = Framing::encode(envelope.substr(0, 8) + '\x02' + response_);
          ::send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
      }
    }
  }

  std::string response_;
  std::string dir_;
  std::string path_;
  int fd_ = -1;
  std::thread thread_;
  std::mutex mutex_;
  std::vector<std::string> requests_;
};

std::string canonical(const std::string& text) {
  return TarskelJSON::canonicalEncoder().encode(TarskelJSON::decoder().decode<JSONValue>(text));
}

TEST(CallCommandsTest, CallPrintsTheResponseOnOneLineAndInfoForPeople) {
  CannedDaemon daemon(
      R"({"ok":true,"result":{"daemonVersion":"0.1.0","protocolVersion":"1.1.0","pid":42,"uid":0,)"
      R"("ops":["daemon.info","fs.readProtectedPath"]}})");
  const auto run =
      runTool({"call", "fs.readProtectedPath", "--args", R"({"path":"/etc/x"})", "--service-id",
               "svc.a", "--correlation-id", "c-9", "--mach-service", daemon.path()});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, R"({"ok":true,"result":{"daemonVersion":"0.1.0","ops":["daemon.info",)"
                     R"("fs.readProtectedPath"],"pid":42,"protocolVersion":"1.1.0","uid":0}})"
                     "\n");
  EXPECT_EQ(runTool({"info", "--mach-service", daemon.path()}).out,
            "tarskeld 0.1.0 (protocol 1.1.0)\npid 42, uid 0\noperations:\n  daemon.info\n"
            "  fs.readProtectedPath\n");
  ASSERT_EQ(daemon.requests().size(), 2u);
  EXPECT_EQ(canonical(daemon.requests()[0]),
            R"({"args":{"path":"\/etc\/x"},"correlationId":"c-9","op":"fs.readProtectedPath",)"
            R"("serviceId":"svc.a"})");
  EXPECT_EQ(canonical(daemon.requests()[1]), R"({"args":{},"op":"daemon.info"})");
}

TEST(CallCommandsTest, ExitCodes) {
  CannedDaemon refusing(
      R"({"ok":false,"error":{"code":"unknownOp","message":"op fuera del catálogo: x"}})");
  CannedDaemon garbled("not json");
  CannedDaemon silent("");
  const auto call = [](const std::string& service, std::vector<std::string> args) {
    args.insert(args.begin(), {"call", "x"});
    args.insert(args.end(), {"--mach-service", service});
    return args;
  };
  testing::expectRuns({
      {call(refusing.path(), {}), 1, ""},
      {call(refusing.path(), {"--args", "{"}), 2,
       "tarskel: --args:1:2: unexpected end of the document"},
      {call(refusing.path(), {"--args", "@/nonexistent/a"}), 2,
       "/nonexistent/a: No such file or directory"},
      // Regression: an empty name meant the socket /run/tarskel/.sock.
      {{"info", "--mach-service", ""}, 2, "--mach-service is empty"},
      // Regression: a daemon that accepted and never answered was waited on forever.
      {call(silent.path(), {"--timeout", "0.3"}), 3, ": no answer within 0.3 s (--timeout)"},
      {call("/nonexistent-tarskel/d.sock", {}), 3,
       "tarskel: daemon no disponible: connect /nonexistent-tarskel/d.sock"},
      {call(garbled.path(), {}), 3, "unreadable reply from the daemon"},
      {{"info", "--mach-service", refusing.path()},
       1,
       "daemon.info refused: unknownOp: op fuera del catálogo: x"},
  });
}

// Regression: `--args -` failed although documented, and large arguments
// could only go on the command line.
TEST(CallCommandsTest, ArgumentsFromStandardInputOrAFile) {
  CannedDaemon daemon(R"({"ok":true})");
  const auto file =
      std::filesystem::temp_directory_path() / ("tarskel-args-" + std::to_string(::getpid()));
  std::ofstream(file) << R"({"big":")" << std::string(300000, 'x') << R"("})";
  EXPECT_EQ(runTool({"call", "op", "--args", "-", "--mach-service", daemon.path()}, R"({"a":1})")
                .exitCode,
            0);
  EXPECT_EQ(runTool({"call", "op", "--args", "@" + file.string(), "--mach-service", daemon.path()})
                .exitCode,
            0);
  std::filesystem::remove(file);
  ASSERT_EQ(daemon.requests().size(), 2u);
  EXPECT_NE(daemon.requests()[0].find(R"("args":{"a":1})"), std::string::npos);
  EXPECT_GT(daemon.requests()[1].size(), 300000u);
}

}  // namespace
}  // namespace tarskel::tool
