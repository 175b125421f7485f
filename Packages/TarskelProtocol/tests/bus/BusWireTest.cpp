#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/bus/Handshake.hpp"
#include "tarskel/protocol/bus/JSONRPC.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/Errors.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

using M = JSONRPCMessage;

}  // namespace

void PrintTo(const JSONRPCMessage& m, std::ostream* os) { *os << JSONRPC::encode(m); }

namespace {

using testing::json;

// What decoding `text` gives: the message, as it encodes, or the error's text.
std::string decoded(const std::string& text) {
  try {
    return JSONRPC::encode(JSONRPC::decode(text));
  } catch (const DecodingError& e) {
    return e.what();
  }
}

// Precedence (method over error over result), null as absent, the id rule and
// the exact texts of every refusal: input | what it decodes to.
TEST(JSONRPCTest, DecodesByPrecedenceWithNullAsAbsent) {
  for (const testing::Row& row : testing::rows(R"(
{"jsonrpc":"2.0","method":"m"} | {"jsonrpc":"2.0","method":"m"}
{"jsonrpc":"2.0","id":"a","method":"m","result":5} | {"jsonrpc":"2.0","id":"a","method":"m"}
{"jsonrpc":"2.0","id":7,"method":"m","params":[1,"x"],"extra":{}} | {"jsonrpc":"2.0","id":7,"method":"m","params":[1,"x"]}
{"jsonrpc":"2.0","method":"m","params":"s"} | {"jsonrpc":"2.0","method":"m","params":"s"}
{"jsonrpc":"2.0","error":{"code":-32600,"message":"x"},"result":1} | {"jsonrpc":"2.0","error":{"code":-32600,"message":"x"}}
{"jsonrpc":"2.0","method":"m","error":17} | {"jsonrpc":"2.0","method":"m"}
{"jsonrpc":"2.0","id":3,"error":{"code":5,"message":"y","data":null}} | {"jsonrpc":"2.0","id":3,"error":{"code":5,"message":"y"}}
{"jsonrpc":"2.0","id":2,"result":{"ok":true}} | {"jsonrpc":"2.0","id":2,"result":{"ok":true}}
# null reads as absent: its four consequences
{"jsonrpc":"2.0","id":1,"result":null} | dataCorrupted en method: mensaje sin method, result ni error — no es JSON-RPC válido
{"jsonrpc":"2.0","id":null,"error":{"code":1,"message":"x"}} | {"jsonrpc":"2.0","error":{"code":1,"message":"x"}}
{"jsonrpc":"2.0","id":null,"method":"m"} | {"jsonrpc":"2.0","method":"m"}
{"jsonrpc":"2.0","id":1,"method":"m","params":null} | {"jsonrpc":"2.0","id":1,"method":"m"}
{"jsonrpc":"2.0","id":1,"error":null,"result":3} | {"jsonrpc":"2.0","id":1,"result":3}
# refusals
{"jsonrpc":"2.0","id":1,"error":{"code":1}} | keyNotFound en error: falta la clave "message"
{"jsonrpc":"1.0","id":1,"result":2} | dataCorrupted en jsonrpc: jsonrpc debe ser "2.0", llegó 1.0
{"id":1,"result":2} | keyNotFound en <raíz>: falta la clave "jsonrpc"
{"jsonrpc":2,"id":1,"result":2} | typeMismatch en jsonrpc: se esperaba string, llegó number
{"jsonrpc":"2.0"} | dataCorrupted en method: mensaje sin method, result ni error — no es JSON-RPC válido
{"jsonrpc":"2.0","result":1} | dataCorrupted en id: una response exige id
[{"jsonrpc":"2.0","method":"m"}] | typeMismatch en <raíz>: se esperaba object, llegó array
# an id is an int64, else a string, else refused
{"jsonrpc":"2.0","method":"m","id":1.0} | {"jsonrpc":"2.0","id":1,"method":"m"}
{"jsonrpc":"2.0","method":"m","id":-9223372036854775808} | {"jsonrpc":"2.0","id":-9223372036854775808,"method":"m"}
{"jsonrpc":"2.0","method":"m","id":9223372036854775807} | {"jsonrpc":"2.0","id":9223372036854775807,"method":"m"}
{"jsonrpc":"2.0","method":"m","id":"1"} | {"jsonrpc":"2.0","id":"1","method":"m"}
{"jsonrpc":"2.0","method":"m","id":9223372036854775808} | dataCorrupted en id: id debe ser número o string
{"jsonrpc":"2.0","method":"m","id":1.5} | dataCorrupted en id: id debe ser número o string
{"jsonrpc":"2.0","method":"m","id":true} | dataCorrupted en id: id debe ser número o string
)")) {
    EXPECT_EQ(decoded(row[0]), row[1]) << row[0];
  }
}

TEST(JSONRPCTest, IdsOfTheTwoKindsStayApart) {
  std::unordered_set<JSONRPCID> ids{JSONRPCID(1), JSONRPCID("1")};
  EXPECT_EQ(ids.size(), 2u);
  EXPECT_EQ(JSONRPCID(-42).description() + JSONRPCID("a \"b\"").description(), "-42a \"b\"");
}

// Each message and its bytes; those without a null in an optional place read
// back as the same message (what a null reads as is in the decoding table).
TEST(JSONRPCTest, EncodesTheKeysOfEachCaseAndLeavesAbsentOnesOut) {
  const std::tuple<M, std::string, bool> cases[] = {
      {M::request(1, "m", json(R"({"a":1})")),
       R"({"jsonrpc":"2.0","id":1,"method":"m","params":{"a":1}})", true},
      {M::request("a/b", "m"), R"({"jsonrpc":"2.0","id":"a\/b","method":"m"})", true},
      {M::notification("m", JSONValue(nullptr)), R"({"jsonrpc":"2.0","method":"m","params":null})",
       false},
      {M::response(INT64_MIN, JSONValue(nullptr)),
       R"({"jsonrpc":"2.0","id":-9223372036854775808,"result":null})", false},
      {M::errorResponse(std::nullopt, {-32700, "x"}),
       R"({"jsonrpc":"2.0","error":{"code":-32700,"message":"x"}})", true},
      {M::errorResponse(9, {1, "y", JSONValue(true)}),
       R"({"jsonrpc":"2.0","id":9,"error":{"code":1,"message":"y","data":true}})", true}};
  for (const auto& [message, bytes, readsBack] : cases) {
    SCOPED_TRACE(bytes);
    EXPECT_EQ(JSONRPC::encode(message), bytes);
    // The record coding layer writes the same object.
    EXPECT_EQ(JSONCoding<M>::encode(message), json(bytes));
    if (readsBack) {
      EXPECT_EQ(JSONRPC::decode(bytes), message);
    }
  }
}

TEST(JSONRPCTest, UnwritableValueLeavesTheOutputAsItWas) {
  std::string out = "prefix";
  EXPECT_THROW(
      JSONRPC::encodeInto(out, M::response(1, JSONValue(std::numeric_limits<double>::infinity()))),
      EncodingError);
  EXPECT_EQ(out, "prefix");
}

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
request | {"clientId":"a","protocolVersion":"9","capabilities":["events","no-such"],"sessionId":"s","x":1} | {"capabilities":["events","no-such"],"clientId":"a","protocolVersion":"9","sessionId":"s"}
request | {"protocolVersion":"1.1.0"} | keyNotFound en <raíz>: falta la clave "clientId"
request | {"clientId":"a","protocolVersion":"1.1.0","capabilities":[1]} | typeMismatch en capabilities[0]: se esperaba string, llegó number
response | {"accepted":true,"protocolVersion":"1.1.0"} | {"accepted":true,"capabilities":[],"protocolVersion":"1.1.0"}
response | {"accepted":false,"protocolVersion":"1.1.0","capabilities":["ui-push"],"reason":"no","sessionId":"s"} | {"accepted":false,"capabilities":["ui-push"],"protocolVersion":"1.1.0","reason":"no","sessionId":"s"}
response | {"protocolVersion":"1.1.0"} | keyNotFound en <raíz>: falta la clave "accepted"
)")) {
    EXPECT_EQ(row[0] == "request" ? testing::reread<HelloRequest>(row[1])
                                  : testing::reread<HelloResponse>(row[1]),
              row[2])
        << row.line;
  }
}

using Payloads = std::vector<std::string>;
using namespace std::string_literals;

TEST(FramingTest, EncodesBigEndianLengthThenPayload) {
  EXPECT_EQ(Framing::encode("abc"), "\0\0\0\3abc"s);
  const std::string big = Framing::encode(std::string(0x010203, 'x'));
  EXPECT_EQ(big.substr(0, 5), "\0\1\2\3x"s);
  EXPECT_EQ(big.size(), 0x010207u);
}

// One stream of frames (empty ones included), cut in two at every byte: the
// payloads come out whole, in order, and pendingBytes counts what is held. A
// copy taken at the cut decodes the rest on its own.
TEST(FramingTest, EveryCutPointYieldsTheSameFrames) {
  const Payloads sent = {"uno", "", "tercero", std::string(300, 'z'), ""};
  std::string stream;
  for (const auto& p : sent) stream += Framing::encode(p);
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    FrameDecoder decoder;
    Payloads got = decoder.append(std::string_view(stream).substr(0, cut));
    std::size_t delivered = 0;
    for (const auto& p : got) delivered += p.size() + 4;
    EXPECT_EQ(decoder.pendingBytes(), cut - delivered);
    FrameDecoder copy = decoder;
    const Payloads rest = decoder.append(std::string_view(stream).substr(cut));
    EXPECT_EQ(copy.append(std::string_view(stream).substr(cut)), rest);
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_EQ(got, sent);
    EXPECT_EQ(decoder.pendingBytes(), 0u);
  }
}

// Refusals: the limit is inclusive and judged on the fourth header byte, the
// length is unsigned, and a refusal is terminal and loses the frames of its call.
TEST(FramingTest, OversizeHeaderIsRefusedForGood) {
  struct Case {
    std::int64_t max;
    std::string accepted;  // appended first, delivered
    std::string refused;   // appended next, throws
    const char* text;
    std::size_t pendingAfter;  // the offending header and what follows it
  };
  const std::vector<Case> cases = {{16, Framing::encode(std::string(16, 'x')) + "\0\0\0"s, "\x11"s,
                                    "frame de 17 bytes excede el máximo de 16", 4},
                                   {Framing::defaultMaxFrameLength, "", "\xFF\xFF\xFF\xFF"s,
                                    "frame de 4294967295 bytes excede el máximo de 16777216", 4},
                                   {8, "", Framing::encode("ok") + "\0\0\0\x09zz"s,
                                    "frame de 9 bytes excede el máximo de 8", 6}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    FrameDecoder decoder(c.max);
    EXPECT_NO_THROW(decoder.append(c.accepted));
    EXPECT_EQ(testing::thrownText<FramingError>([&] { decoder.append(c.refused); }), c.text);
    EXPECT_EQ(decoder.pendingBytes(), c.pendingAfter);
    EXPECT_THROW(decoder.append(""), FramingError);
    EXPECT_THROW(decoder.append(Framing::encode("más")), FramingError);
    EXPECT_EQ(decoder.pendingBytes(), c.pendingAfter + Framing::encode("más").size());
  }
}

}  // namespace
}  // namespace tarskel
