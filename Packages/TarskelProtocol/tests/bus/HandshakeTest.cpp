#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tarskel/protocol/bus/Handshake.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

template <class T>
T decode(std::string_view text) {
  return TarskelJSON::decoder().decode<T>(text);
}
template <class T>
std::string canonical(const T& value) {
  return TarskelJSON::canonicalEncoder().encode(value);
}

TEST(HandshakeTest, CompatibleExactlyWhenMajorsAgree) {
  const std::vector<std::tuple<const char*, const char*, bool>> cases = {
      {"1.1.0", "1.9.3", true}, {"1.1.0", "2.0.0", false},    {"1.0.0-beta", "1.5.0", true},
      {"0.1.0", "0.2.0", true}, {"2.0.0-rc", "1.9.9", false}, {"1.1.0", "1.1.0", true}};
  for (const auto& [a, b, expected] : cases) {
    SCOPED_TRACE(std::string(a) + " / " + b);
    EXPECT_EQ(ProtocolCompatibility::isCompatible(*SemVer::parse(a), *SemVer::parse(b)), expected);
    EXPECT_EQ(ProtocolCompatibility::isCompatible(*SemVer::parse(b), *SemVer::parse(a)), expected);
  }
}

TEST(HandshakeTest, CapabilitiesDefaultToEmptyAndAreAlwaysWritten) {
  const std::vector<std::pair<const char*, const char*>> requests = {
      {R"({"clientId":"a","protocolVersion":"1.1.0"})",
       R"({"capabilities":[],"clientId":"a","protocolVersion":"1.1.0"})"},
      {R"({"clientId":"a","protocolVersion":"1.1.0","capabilities":null,"sessionId":null})",
       R"({"capabilities":[],"clientId":"a","protocolVersion":"1.1.0"})"},
      {R"({"clientId":"a","protocolVersion":"9","capabilities":["events","no-such"],"sessionId":"s","x":1})",
       R"({"capabilities":["events","no-such"],"clientId":"a","protocolVersion":"9","sessionId":"s"})"}};
  for (const auto& [in, out] : requests) {
    SCOPED_TRACE(in);
    EXPECT_EQ(canonical(decode<HelloRequest>(in)), out);
  }
  const std::vector<std::pair<const char*, const char*>> responses = {
      {R"({"accepted":true,"protocolVersion":"1.1.0"})",
       R"({"accepted":true,"capabilities":[],"protocolVersion":"1.1.0"})"},
      {R"({"accepted":false,"protocolVersion":"1.1.0","capabilities":["ui-push"],"reason":"no","sessionId":"s"})",
       R"({"accepted":false,"capabilities":["ui-push"],"protocolVersion":"1.1.0","reason":"no","sessionId":"s"})"}};
  for (const auto& [in, out] : responses) {
    SCOPED_TRACE(in);
    EXPECT_EQ(canonical(decode<HelloResponse>(in)), out);
  }
}

TEST(HandshakeTest, RequiredKeysAreRequired) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {R"({"protocolVersion":"1.1.0"})", "keyNotFound en <raíz>: falta la clave \"clientId\""},
      {R"({"clientId":"a","protocolVersion":"1.1.0","capabilities":[1]})",
       "typeMismatch en capabilities[0]: se esperaba string, llegó number"}};
  for (const auto& [in, text] : cases) {
    SCOPED_TRACE(in);
    try {
      decode<HelloRequest>(in);
      ADD_FAILURE() << "decoded";
    } catch (const DecodingError& e) {
      EXPECT_STREQ(e.what(), text);
    }
  }
  EXPECT_THROW(decode<HelloResponse>(R"({"protocolVersion":"1.1.0"})"), DecodingError);
}

}  // namespace
}  // namespace tarskel
