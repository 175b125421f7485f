// tarskel call and tarskel info against a scripted daemon.

#include <gtest/gtest.h>

#include "ToolRunner.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/XPCTesting.hpp"

namespace tarskel::tool::testing {
namespace {

using tarskel::testing::ScriptedDaemon;

// Answers every request with `response`, or never when it is empty.
ScriptedDaemon::Script answering(std::string response) {
  return [response](ScriptedDaemon::Connection& c, const TransportEnvelope& e) {
    if (!response.empty()) c.send(e.id, false, response);
  };
}

// The bodies of the requests the daemon received, in canonical form.
std::vector<std::string> requestsTo(ScriptedDaemon& daemon) {
  std::vector<std::string> bodies;
  for (const TransportEnvelope& e : daemon.received())
    bodies.push_back(tarskel::testing::canonical(tarskel::testing::json(e.body.value_or(""))));
  return bodies;
}

using CallCommandsTest = ToolFiles;

// Regression (for --args): `-` failed although documented, and large
// arguments could only go on the command line.
TEST_F(CallCommandsTest, CallPrintsTheResponseOnOneLineAndInfoForPeople) {
  ScriptedDaemon daemon(answering(
      R"({"ok":true,"result":{"daemonVersion":"0.1.0","protocolVersion":"1.1.0","pid":42,"uid":0,)"
      R"( "ops":["daemon.info","fs.readProtectedPath"]}})"));
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
  const std::vector<std::string> requests = requestsTo(daemon);
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests[0],
            R"({"args":{"path":"\/etc\/x"},"correlationId":"c-9","op":"fs.readProtectedPath",)"
            R"("serviceId":"svc.a"})");
  EXPECT_EQ(requests[1], R"({"args":{},"op":"daemon.info"})");
  EXPECT_EQ(requests[2], R"({"args":{"a":1},"op":"op"})");
  EXPECT_GT(requests[3].size(), 300000u);
}

TEST_F(CallCommandsTest, ExitCodes) {
  ScriptedDaemon refusing(answering(
      R"({"ok":false,"error":{"code":"unknownOp","message":"op fuera del catálogo: x"}})"));
  ScriptedDaemon garbled(answering("not json"));
  ScriptedDaemon silent(answering(""));
  // Regressions: an empty name meant the socket /run/tarskel/.sock; a daemon
  // that accepted and never answered was waited on forever.
  expectRuns(
      R"(
    call x --mach-service $REFUSING | 1 | tarskel: unknownOp: op fuera del catálogo: x\n
    call x --json=pretty --mach-service $REFUSING | 1 |  | {\n  "error": {\n    "code": "unknownOp",\n    "message": "op fuera del catálogo: x"\n  },\n  "ok": false\n}\n
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
