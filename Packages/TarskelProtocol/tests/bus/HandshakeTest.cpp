#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "tarskel/protocol/bus/Handshake.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

TEST(HandshakeTest, CompatibleExactlyWhenMajorsAgree) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"1.1.0", "1.9.3", true}, {"1.1.0", "2.0.0", false},    {"1.0.0-beta", "1.5.0", true},
      {"0.1.0", "0.2.0", true}, {"2.0.0-rc", "1.9.9", false}, {"1.1.0", "1.1.0", true}};
  for (const auto& [a, b, expected] : cases) {
    SCOPED_TRACE(std::string(a) + " / " + b);
    EXPECT_EQ(ProtocolCompatibility::isCompatible(*SemVer::parse(a), *SemVer::parse(b)), expected);
    EXPECT_EQ(ProtocolCompatibility::isCompatible(*SemVer::parse(b), *SemVer::parse(a)), expected);
  }
}

// Capabilities default to empty and are always written; the required keys are
// required. request or response | what it reads as, written canonically.
TEST(HandshakeTest, ReadingAndWriting) {
  for (const testing::Row& row : testing::rows(R"(
request | {"clientId":"a","protocolVersion":"1.1.0"} | {"capabilities":[],"clientId":"a","protocolVersion":"1.1.0"}
request | {"clientId":"a","protocolVersion":"1.1.0","capabilities":null,"sessionId":null} | {"capabilities":[],"clientId":"a","protocolVersion":"1.1.0"}
request | {"clientId":"a","protocolVersion":"9","capabilities":["events","no-such"],"sessionId":"s","x":1} | {"capabilities":["events","no-such"],"clientId":"a","protocolVersion":"9","sessionId":"s"}
request | {"protocolVersion":"1.1.0"} | keyNotFound en <raíz>: falta la clave "clientId"
request | {"clientId":"a","protocolVersion":"1.1.0","capabilities":[1]} | typeMismatch en capabilities[0]: se esperaba string, llegó number
response | {"accepted":true,"protocolVersion":"1.1.0"} | {"accepted":true,"capabilities":[],"protocolVersion":"1.1.0"}
response | {"accepted":false,"protocolVersion":"1.1.0","capabilities":["ui-push"],"reason":"no","sessionId":"s"} | {"accepted":false,"capabilities":["ui-push"],"protocolVersion":"1.1.0","reason":"no","sessionId":"s"}
response | {"protocolVersion":"1.1.0"} | keyNotFound en <raíz>: falta la clave "accepted"
)")) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(row[0] == "request" ? testing::reread<HelloRequest>(row[1])
                                  : testing::reread<HelloResponse>(row[1]),
              row[2]);
  }
}

}  // namespace
}  // namespace tarskel
