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
using namespace std::string_literals;

std::string frame(const std::string& payload) {
  const auto n = static_cast<std::uint32_t>(payload.size());
  std::string out{static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                  static_cast<char>(n)};
  return out + payload;
}

std::string line(const std::string& kind, const std::string& message) {
  return R"({"kind":")" + kind + R"(","message":)" + message + "}\n";
}

TEST(BusCommands, DecodePrintsOneLinePerFrameAndGoesOnPastBadPayloads) {
  struct Case {
    std::string input;
    int exitCode;
    std::string out;
    std::string err;  // a part of it
  };
  const std::string request = R"({"jsonrpc":"2.0","id":1,"method":"m","x":0})";
  const std::string printed = line("request", R"({"jsonrpc":"2.0","id":1,"method":"m"})");
  const std::vector<Case> cases = {
      {"", 0, "", ""},
      {frame(request) + frame(R"({"jsonrpc":"2.0","method":"n","params":[1.0]})"), 0,
       printed + line("notification", R"({"jsonrpc":"2.0","method":"n","params":[1]})"), ""},
      {frame(R"({"jsonrpc":"2.0","id":"a","result":null,"error":{"code":-1,"message":"e"}})") +
           frame(R"({"jsonrpc":"2.0","id":1.5,"result":true})") +
           frame(R"({"jsonrpc":"2.0","id":2,"result":{}})"),
       1,
       line("errorResponse", R"({"jsonrpc":"2.0","id":"a","error":{"code":-1,"message":"e"}})") +
           R"({"error":"dataCorrupted en id: id debe ser número o string"})" + "\n" +
           line("response", R"({"jsonrpc":"2.0","id":2,"result":{}})"),
       ""},
      {frame(request) + frame(request).substr(0, 7), 2, printed,
       "el flujo termina dentro de un frame: 7 bytes pendientes"},
      {frame(request) + "\xFF\xFF\xFF\xFF" + "zz", 2, printed,
       "frame de 4294967295 bytes excede el máximo de 16777216 (6 bytes pendientes)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.out);
    ToolRun run = runTool({"bus", "decode"}, c.input);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    EXPECT_EQ(run.out, c.out);
    EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
  }
}

TEST(BusCommands, EncodeWritesFramesThatDecodeBack) {
  const std::string lines =
      "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"health.ping\"}\r\n\n  "
      "\n{\"jsonrpc\":\"2.0\",\"method\":\"n\"}";
  ToolRun encoded = runTool({"bus", "encode"}, lines);
  ASSERT_EQ(encoded.exitCode, 0) << encoded.err;
  EXPECT_EQ(encoded.out, frame(R"({"jsonrpc":"2.0","id":1,"method":"health.ping"})") +
                             frame(R"({"jsonrpc":"2.0","method":"n"})"));

  ToolRun raw = runTool({"bus", "encode", "--raw"}, "not json\n");
  EXPECT_EQ(raw.out, frame("not json"));
  ToolRun decoded = runTool({"bus", "decode", "-"}, raw.out);
  EXPECT_EQ(decoded.exitCode, 1);

  // A bad line writes nothing at all and names the line.
  ToolRun bad =
      runTool({"bus", "encode"}, "{\"jsonrpc\":\"2.0\",\"method\":\"n\"}\n{\"jsonrpc\":\"2.0\"}\n");
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_EQ(bad.out, "");
  EXPECT_NE(bad.err.find("línea 2: dataCorrupted en method: mensaje sin method, result ni error"),
            std::string::npos)
      << bad.err;
}

// `tarskel bus serve` in the background, `tarskel bus call` against it: two
// processes over a Unix socket.
class BusServeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("tarskel-bus-" + std::to_string(::getpid()));
    fs::create_directories(dir_);
    socket_ = (dir_ / "bus.sock").string();
    server_ = ::fork();
    if (server_ == 0) {
      const std::string log = (dir_ / "serve.err").string();
      std::freopen(log.c_str(), "w", stderr);
      ::execl(TARSKEL_TOOL_PATH, "tarskel", "bus", "serve", "--socket", socket_.c_str(), nullptr);
      ::_exit(127);
    }
    for (int i = 0; i < 500 && !fs::exists(socket_); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(fs::exists(socket_));
  }
  void TearDown() override {
    ::kill(server_, SIGTERM);
    int status = 0;
    ::waitpid(server_, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(fs::exists(socket_));  // removed on the way out
    fs::remove_all(dir_);
  }

  fs::path dir_;
  std::string socket_;
  pid_t server_ = -1;
};

TEST_F(BusServeTest, CallGetsResultsErrorsAndRefusals) {
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string out;
    std::string err;  // a part of it
  };
  const std::vector<Case> cases = {
      {{"health.ping"}, 0, "{\"ok\":true}\n", ""},
      {{"health.ping", "--params", R"({"a":[1]})"}, 0, "{\"ok\":true}\n", ""},
      {{"config.get"},
       1,
       R"({"code":-32601,"message":"método desconocido: config.get"})"
       "\n",
       ""},
      {{"health.ping", "--protocol-version", "2.0.0"},
       1,
       R"({"code":-32006,"data":{"accepted":false,"capabilities":[],"protocolVersion":"1.1.0",)"
       R"("reason":"protocolo 2.0.0 incompatible con 1.1.0"},"message":"protocolo 2.0.0 incompatible con 1.1.0"})"
       "\n",
       ""},
      {{"health.ping", "--params", "{"}, 2, "", "--params no es JSON válido"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.back());
    std::vector<std::string> args = {"bus", "call"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"--socket", socket_});
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    EXPECT_EQ(run.out, c.out);
    EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
  }
  // A second server on a live socket is refused.
  ToolRun second = runTool({"bus", "serve", "--socket", socket_});
  EXPECT_EQ(second.exitCode, 3);
  EXPECT_NE(second.err.find("otro proceso ya escucha en"), std::string::npos) << second.err;
}

TEST(BusCommands, CallWithoutPeerIsATransportFailure) {
  ToolRun run = runTool({"bus", "call", "health.ping", "--socket", "/nonexistent/bus.sock"});
  EXPECT_EQ(run.exitCode, 3);
  EXPECT_NE(run.err.find("no se pudo conectar a /nonexistent/bus.sock"), std::string::npos)
      << run.err;
  const std::vector<std::pair<std::vector<std::string>, const char*>> helps = {
      {{"bus", "--help"}, "serve"},
      {{"bus", "call", "--help"}, "--params"},
      {{"bus", "serve", "--help"}, "--once"}};
  for (const auto& [args, mention] : helps) {
    ToolRun help = runTool(args);
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find(mention), std::string::npos) << help.out;
  }
}

}  // namespace
}  // namespace tarskel::tool::testing
