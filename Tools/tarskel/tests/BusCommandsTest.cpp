#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

namespace fs = std::filesystem;

std::string frame(const std::string& payload) {
  const auto n = static_cast<std::uint32_t>(payload.size());
  std::string out{static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                  static_cast<char>(n)};
  return out + payload;
}

std::string line(const std::string& kind, const std::string& message) {
  return R"({"kind":")" + kind + R"(","message":)" + message + "}\n";
}

// Decode goes on past bad payloads and prints every frame ahead of a broken
// header; encode writes nothing at all when one line is bad.
TEST(BusCommands, DecodeAndEncode) {
  const std::string request = R"({"jsonrpc":"2.0","id":1,"method":"m","x":0})";
  const std::string printed = line("request", R"({"jsonrpc":"2.0","id":1,"method":"m"})");
  const std::vector<std::string> decode{"bus", "decode"};
  const std::vector<std::string> encode{"bus", "encode"};
  expectRuns({
      {decode, 0, "", "", ""},
      {decode, 1, "",
       line("errorResponse", R"({"jsonrpc":"2.0","id":"a","error":{"code":-1,"message":"e"}})") +
           R"({"error":"dataCorrupted en id: id debe ser número o string"})" + "\n" +
           line("notification", R"({"jsonrpc":"2.0","method":"n","params":[1]})"),
       frame(R"({"jsonrpc":"2.0","id":"a","result":null,"error":{"code":-1,"message":"e"}})") +
           frame(R"({"jsonrpc":"2.0","id":1.5,"result":true})") +
           frame(R"({"jsonrpc":"2.0","method":"n","params":[1.0]})")},
      {decode, 2, "the stream ends inside a frame: 7 bytes left over", printed,
       frame(request) + frame(request).substr(0, 7)},
      {decode, 2, "frame de 4294967295 bytes excede el máximo de 16777216 (6 bytes left over)",
       printed, frame(request) + "\xFF\xFF\xFF\xFF" + "zz"},
      {encode, 0, "",
       frame(R"({"jsonrpc":"2.0","id":1,"method":"p"})") +
           frame(R"({"jsonrpc":"2.0","method":"n"})"),
       "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"p\"}\r\n\n  "
       "\n{\"jsonrpc\":\"2.0\",\"method\":\"n\"}"},
      {{"bus", "encode", "--raw"}, 0, "", frame("not json"), "not json\n"},
      {encode, 2, "line 2: dataCorrupted en method: mensaje sin method, result ni error", "",
       "{\"jsonrpc\":\"2.0\",\"method\":\"n\"}\n{\"jsonrpc\":\"2.0\"}\n"},
      {{"bus", "call", "health.ping", "--socket", "/nonexistent/bus.sock"},
       3,
       "can't connect to /nonexistent/bus.sock"},
  });
}

// `tarskel bus serve` in the background, `tarskel bus call` against it: two
// processes over a Unix socket.
TEST(BusCommands, CallAgainstServeGetsResultsErrorsAndRefusals) {
  const fs::path dir = fs::temp_directory_path() / ("tarskel-bus-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const std::string socket = (dir / "bus.sock").string();
  const pid_t server = ::fork();
  if (server == 0) {
    std::freopen((dir / "serve.err").c_str(), "w", stderr);
    ::execl(TARSKEL_TOOL_PATH, "tarskel", "bus", "serve", "--socket", socket.c_str(), nullptr);
    ::_exit(127);
  }
  for (int i = 0; i < 500 && !fs::exists(socket); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(fs::exists(socket));
  const auto call = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"bus", "call"});
    args.insert(args.end(), {"--socket", socket});
    return args;
  };
  expectRuns({
      {call({"health.ping", "--params", R"({"a":[1]})"}), 0, "", "{\"ok\":true}\n"},
      {call({"config.get"}), 1, "",
       R"({"code":-32601,"message":"método desconocido: config.get"})"
       "\n"},
      {call({"health.ping", "--protocol-version", "2.0.0"}), 1, "",
       R"({"code":-32006,"data":{"accepted":false,"capabilities":[],"protocolVersion":"1.1.0",)"
       R"("reason":"protocolo 2.0.0 incompatible con 1.1.0"},"message":"protocolo 2.0.0 incompatible con 1.1.0"})"
       "\n"},
      {call({"health.ping", "--params", "{"}), 2, "--params is not valid JSON", ""},
      // A second server on a live socket is refused.
      {{"bus", "serve", "--socket", socket}, 3, "another process listens on", ""},
  });
  ::kill(server, SIGTERM);
  int status = 0;
  ::waitpid(server, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(fs::exists(socket));  // removed on the way out
  fs::remove_all(dir);
}

}  // namespace
}  // namespace tarskel::tool::testing
