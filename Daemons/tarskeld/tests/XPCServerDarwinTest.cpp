// The daemon's XPC listener and the XPC client, in-process over the
// simulated Mach service, with the Darwin code-signing platform judging each
// message by the code identity its sender carries.

#include <xpc/xpc.h>

#include "DaemonTestSupport.hpp"
#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/daemon/InfoOp.hpp"
#include "tarskel/darwinsim/DarwinSim.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"

namespace tarskel {
namespace {

using darwinsim::CodeIdentity;
using testing::requestBytes;

class XPCServerDarwinTest : public testing::DaemonFixture {
 protected:
  void SetUp() override { openStores(); }
  void TearDown() override {
    server.reset();
    // The runtime lets go of the handlers, and their copies of the core, at
    // their final events: the stores and the pool must outlive them.
    EXPECT_EQ(darwinsim::leaks(), std::vector<std::string>{});
    darwinsim::setCodeIdentity({});
    DaemonFixture::TearDown();
  }

  void startServer(DaemonPeerGate gate = {}) {
    server = std::make_unique<DaemonXPCServer>(
        name, DaemonCore(DaemonCore::OpList{std::make_shared<InfoOp>()}, audit, grants),
        std::move(gate), pool.get_executor());
    server->start();
  }

  std::vector<std::string> callers() const {
    std::vector<std::string> out;
    for (auto& row : db->query("SELECT caller FROM audit ORDER BY seq;")) {
      out.push_back(*row.at("caller").stringValue());
    }
    return out;
  }

  // One message on a raw connection, with a "request" of `request` unless
  // nothing; the reply's "response" bytes, or why none came. A message that
  // expects no reply is sent and "sent" returned.
  std::string rawCall(const std::optional<std::string>& request, bool expectsReply = true) {
    xpc_connection_t c = xpc_connection_create_mach_service(name.c_str(), nullptr, 0);
    xpc_connection_set_event_handler(c, ^(xpc_object_t){
                                     });
    xpc_connection_resume(c);
    xpc_object_t message = xpc_dictionary_create(nullptr, nullptr, 0);
    if (request) xpc_dictionary_set_data(message, "request", request->data(), request->size());
    std::string out = "sent";
    if (expectsReply) {
      xpc_object_t reply = xpc_connection_send_message_with_reply_sync(c, message);
      size_t length = 0;
      const void* data = xpc_get_type(reply) == XPC_TYPE_DICTIONARY
                             ? xpc_dictionary_get_data(reply, "response", &length)
                             : nullptr;
      out = data ? std::string(static_cast<const char*>(data), length) : "no response";
      xpc_release(reply);
    } else {
      xpc_connection_send_message(c, message);
    }
    xpc_release(message);
    xpc_connection_cancel(c);
    xpc_release(c);
    return out;
  }

  const std::string name = "org.tarskel.sim." + std::to_string(::getpid());
  std::unique_ptr<DaemonXPCServer> server;
};

TEST_F(XPCServerDarwinTest, ClientCallsAreAnsweredAndAudited) {
  startServer();
  DaemonXPCClient client(name);
  const auto failure = [&client](std::optional<std::chrono::milliseconds> timeout) {
    try {
      client.request({"daemon.info", {}, std::nullopt, std::nullopt}, timeout);
      return std::string("answered");
    } catch (const DaemonClientError& e) {
      return e.text();
    }
  };
  const DaemonResponse response =
      client.request({"daemon.info", {}, "corr-1", std::nullopt}, std::chrono::seconds(60));
  ASSERT_TRUE(response.ok);
  EXPECT_EQ(*response.result->objectValue()->find("pid"), JSONValue::integer(::getpid()));
  // A request without its key, or bytes that don't decode, is malformed and leaves no row.
  for (const auto& body : {std::optional<std::string>(), std::optional<std::string>("{op")}) {
    EXPECT_EQ(TarskelJSON::decoder().decode<DaemonResponse>(rawCall(body)).error->code,
              "malformedRequest");
  }
  EXPECT_EQ(callers(),
            std::vector<std::string>{"unverified:gate SO sin provisionar (sin vendor/teams.json)"});
  // Stopping closes the connections it serves, and nothing answers there any more.
  server->stop();
  EXPECT_NE(failure(std::nullopt), "answered");
  client.close();
  EXPECT_EQ(failure(std::nullopt), "conexión cancelada");
}

// Each message is judged by the code identity of the process that sent it.
TEST_F(XPCServerDarwinTest, EachMessageIsJudgedByItsSendersCode) {
  startServer(DaemonPeerGate{std::vector<std::string>{"TEAMID0001"},
                             CodeSignPlatform::systemAnchoredAt(dir.file("state"), Logger("t"))});
  CodeIdentity otherTeam, unsigned_, noCode;
  otherTeam.teamId = "OTHERTEAM9";
  unsigned_.validity = -67062;
  noCode.codeStatus = -67065;
  noCode.codeYieldsObject = false;
  for (const CodeIdentity& sender : {CodeIdentity{}, otherTeam, unsigned_, noCode}) {
    darwinsim::setCodeIdentity(sender);
    DaemonXPCClient client(name);
    const DaemonResponse response = client.request({"daemon.info", {}, std::nullopt, std::nullopt});
    EXPECT_EQ(response.ok,
              sender.teamId == "TEAMID0001" && sender.validity == 0 && sender.codeStatus == 0);
  }
  EXPECT_EQ(callers(),
            (std::vector<std::string>{
                "team:TEAMID0001",
                "rejected:gate SO: Team ID 'OTHERTEAM9' fuera de la allowlist en cliente xpc",
                "rejected:gate SO: firma inválida o no anclada a Apple en cliente xpc (-67062)",
                "rejected:sin identidad de código en el mensaje xpc (-67065)"}));
}

// A message that expects no reply never runs; a service nobody serves fails the call.
TEST_F(XPCServerDarwinTest, UnansweredMessagesAndMissingServices) {
  EXPECT_THROW(DaemonXPCClient(name).request({"daemon.info", {}, std::nullopt, std::nullopt}),
               DaemonClientError);
  startServer();
  rawCall(requestBytes("daemon.info"), false);
  DaemonXPCClient client(name);
  EXPECT_TRUE(client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok);
  EXPECT_EQ(callers().size(), 1u);
}

}  // namespace
}  // namespace tarskel
