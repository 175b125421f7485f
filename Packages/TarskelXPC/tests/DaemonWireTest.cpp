#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/xpc/DaemonWire.hpp"

namespace tarskel {
namespace {

template <class T>
T decode(std::string_view text) {
  return TarskelJSON::decoder().decode<T>(text);
}

template <class T>
std::string encode(const T& value) {
  return TarskelJSON::encoder().encode(value);
}

// Key order is not part of the wire, so compare documents as trees.
JSONValue tree(std::string_view text) { return TarskelJSON::decoder().decode<JSONValue>(text); }

// Each document decodes to its value.
template <class T>
void expectDecoded(const std::vector<std::pair<const char*, T>>& cases) {
  for (const auto& [json, expected] : cases) EXPECT_EQ(decode<T>(json), expected) << json;
}

TEST(DaemonWireTest, RequestsThatDecode) {
  expectDecoded<DaemonRequest>({
      {R"({"op":"daemon.info","args":{}})", {"daemon.info", {}, std::nullopt, std::nullopt}},
      {R"({"op":"x","args":{},"extra":1,"correlationId":null,"serviceId":null})",
       {"x", {}, std::nullopt, std::nullopt}},
      {R"({"serviceId":"s","args":{"path":"/a","n":[1,null]},"correlationId":"c","op":"fs.read"})",
       {"fs.read",
        JSONObject{{"path", JSONValue("/a")},
                   {"n", JSONValue(JSONValue::Array{JSONValue(1), JSONValue(nullptr)})}},
        "c", "s"}},
  });
}

TEST(DaemonWireTest, ResponsesDecodeWithoutCheckingOk) {
  expectDecoded<DaemonResponse>({
      {R"({"ok":true,"error":{"code":"c","message":"m","extra":[]}})",
       {true, std::nullopt, DaemonWireError{"c", "m"}}},
      {R"({"ok":false,"result":[1,"a"]})",
       {false, JSONValue(JSONValue::Array{JSONValue(1), JSONValue("a")}), std::nullopt}},
      // A null result reads as absent, like every optional key.
      {R"({"ok":true,"result":null,"error":null})", {true, std::nullopt, std::nullopt}},
  });
}

TEST(DaemonWireTest, DocumentsThatFailToDecode) {
  const char* requests[] = {
      R"({"op":"daemon.info"})",                // args has no default
      R"({"op":"x","args":null})",              // required means non-null
      R"({"op":"x","args":{},"serviceId":3})",  // a present optional is still typed
  };
  for (const char* json : requests)
    EXPECT_THROW(decode<DaemonRequest>(json), DecodingError) << json;
  const char* responses[] = {
      R"({"ok":"true"})",
      R"({"ok":false,"error":{"code":"c"}})",
      R"({"ok":true,"result":1e999})",
  };
  for (const char* json : responses)
    EXPECT_THROW(decode<DaemonResponse>(json), DecodingError) << json;
}

TEST(DaemonWireTest, EncodedForms) {
  struct Case {
    std::string encoded;
    const char* expected;
  };
  const Case cases[] = {
      {encode(DaemonRequest{"daemon.info", {}, std::nullopt, std::nullopt}),
       R"({"op":"daemon.info","args":{}})"},
      {encode(DaemonRequest{"op", JSONObject{{"k", JSONValue(true)}}, "c", "s"}),
       R"({"op":"op","args":{"k":true},"correlationId":"c","serviceId":"s"})"},
      {encode(DaemonResponse::success(JSONValue(nullptr))), R"({"ok":true,"result":null})"},
      // The texts the core sends are checked where it sends them; here,
      // those built from several parts.
      {encode(DaemonResponse::failure(DaemonWireError::invalidArgs({"a", "b"}))),
       R"({"ok":false,"error":{"code":"invalidArgs","message":"args fuera del schema: a; b"}})"},
      // An empty id is present, not absent.
      {encode(DaemonResponse::failure(DaemonWireError::notGranted("op", std::string()))),
       R"j({"ok":false,"error":{"code":"notGranted","message":"sin concesión para op (service: )"}})j"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(tree(c.encoded), tree(c.expected)) << c.encoded;
    // Compact: the same length as the hand-written form, which has no white space.
    EXPECT_EQ(c.encoded.size(), std::string_view(c.expected).size()) << c.encoded;
  }
}

}  // namespace
}  // namespace tarskel
