#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "ToolRunner.hpp"
#include "tarskel/protocol/bus/Framing.hpp"

namespace tarskel::tool::testing {
namespace {

using Framing::encode;

// Decode goes on past bad payloads and prints every frame ahead of a broken
// header; encode writes nothing at all when one line is bad.
TEST(BusCommands, DecodeAndEncode) {
  const std::string request = encode(R"({"jsonrpc":"2.0","id":1,"method":"m","x":0})");
  expectRuns(
      R"(
    bus decode | 0 |  | '' | ''
    bus decode | 1 |  | {"kind":"errorResponse","message":{"jsonrpc":"2.0","id":"a","error":{"code":-1,"message":"e"}}}\n{"error":"dataCorrupted en id: id debe ser número o string"}\n{"kind":"notification","message":{"jsonrpc":"2.0","method":"n","params":[1]}}\n | $THREE
    bus decode | 2 | the stream ends inside a frame: 7 bytes left over | $PRINTED | $REQUEST$CUT
    bus decode | 2 | frame de 4294967295 bytes excede el máximo de 16777216 (6 bytes left over) | $PRINTED | $REQUEST$OVERSIZE
    bus encode | 0 |  | $ENCODED | {"jsonrpc":"2.0","id":1,"method":"p"}$CR\n\n  \n{"jsonrpc":"2.0","method":"n"}
    bus encode --raw | 0 |  | $RAW | not json\n
    bus encode | 2 | line 2: dataCorrupted en method: mensaje sin method, result ni error | '' | {"jsonrpc":"2.0","method":"n"}\n{"jsonrpc":"2.0"}\n
    bus call health.ping --socket /nonexistent/bus.sock | 3 | can't connect to /nonexistent/bus.sock
  )",
      {{"$THREE",
        encode(R"({"jsonrpc":"2.0","id":"a","result":null,"error":{"code":-1,"message":"e"}})") +
            encode(R"({"jsonrpc":"2.0","id":1.5,"result":true})") +
            encode(R"({"jsonrpc":"2.0","method":"n","params":[1.0]})")},
       {"$PRINTED",
        "{\"kind\":\"request\",\"message\":{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\"}}\n"},
       {"$REQUEST", request},
       {"$CUT", request.substr(0, 7)},
       {"$OVERSIZE", "\xFF\xFF\xFF\xFFzz"},
       {"$CR", "\r"},
       {"$ENCODED", encode(R"({"jsonrpc":"2.0","id":1,"method":"p"})") +
                        encode(R"({"jsonrpc":"2.0","method":"n"})")},
       {"$RAW", encode("not json")}});
}

// `tarskel bus serve` in the background, `tarskel bus call` against it: two
// processes over a Unix socket.
TEST(BusCommands, CallAgainstServeGetsResultsErrorsAndRefusals) {
  const TempDirectory dir("tarskel-bus");
  const std::string socket = dir.file("bus.sock").string();
  const pid_t server = ::fork();
  if (server == 0) {
    std::freopen(dir.file("serve.err").c_str(), "w", stderr);
    ::execl(TARSKEL_TOOL_PATH, "tarskel", "bus", "serve", "--socket", socket.c_str(), nullptr);
    ::_exit(127);
  }
  for (int i = 0; i < 500 && !fs::exists(socket); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(fs::exists(socket));
  // A second server on a live socket is refused.
  expectRuns(R"(
    bus call health.ping --params {"a":[1]} --socket $SOCK | 0 |  | {"ok":true}\n
    bus call config.get --socket $SOCK | 1 |  | {"code":-32601,"message":"método desconocido: config.get"}\n
    bus call health.ping --protocol-version 2.0.0 --socket $SOCK | 1 |  | {"code":-32006,"data":{"accepted":false,"capabilities":[],"protocolVersion":"1.1.0","reason":"protocolo 2.0.0 incompatible con 1.1.0"},"message":"protocolo 2.0.0 incompatible con 1.1.0"}\n
    bus call health.ping --params { --socket $SOCK | 2 | --params is not valid JSON | ''
    bus serve --socket $SOCK | 3 | another process listens on | ''
  )",
             {{"$SOCK", socket}});
  // Regression: twenty peers that said hello, each stopped inside a 16 MiB
  // frame, made the server hold all of it; now the pool's bound holds.
  const auto peer = [&socket](const std::string& hello, const std::string& then) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto sendAll = [fd](const std::string& bytes) {
      for (ssize_t n = 0, sent = 0; sent < static_cast<ssize_t>(bytes.size()); sent += n)
        if ((n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL)) <= 0) break;
    };
    sendAll(hello);
    char answer[512];
    EXPECT_GT(::recv(fd, answer, sizeof answer, 0), 0);  // the session is open
    sendAll(then);
    return fd;
  };
  const std::string hello = Framing::encode(
      R"({"jsonrpc":"2.0","id":1,"method":"service.hello","params":{"clientId":"p","protocolVersion":"1.1.0","capabilities":[]}})");
  std::vector<int> held;
  for (int i = 0; i < 20; ++i)
    held.push_back(
        peer(hello, std::string("\x01\x00\x00\x00", 4) + std::string((16 << 20) - 1, ' ')));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // A sanitizer's shadow memory and quarantine swamp the figure.
  const std::string peak = readFile("/proc/" + std::to_string(server) + "/status");
  EXPECT_LT(std::stol(peak.substr(peak.find("VmHWM:") + 6)), 200 * 1024) << "kB at peak";
#endif
  for (int fd : held) ::close(fd);
  ::kill(server, SIGTERM);
  int status = 0;
  ::waitpid(server, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(fs::exists(socket));  // removed on the way out
}

}  // namespace
}  // namespace tarskel::tool::testing
