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

TEST(DaemonWireTest, ErrorFactories) {
  struct Case {
    DaemonWireError error;
    const char* code;
    const char* message;
  };
  const Case cases[] = {
      {DaemonWireError::unknownOp("x.y"), "unknownOp", "op fuera del catálogo: x.y"},
      {DaemonWireError::malformedRequest("bytes raros: ñ"), "malformedRequest", "bytes raros: ñ"},
      {DaemonWireError::malformedRequest(""), "malformedRequest", ""},
      {DaemonWireError::unauthorizedClient("gate SO: sin Team ID (¿ad-hoc?) en cliente xpc"),
       "unauthorizedClient",
       "cliente XPC rechazado: gate SO: sin Team ID (¿ad-hoc?) en cliente xpc"},
      {DaemonWireError::invalidArgs({"a", "b"}), "invalidArgs", "args fuera del schema: a; b"},
      {DaemonWireError::invalidArgs({"solo"}), "invalidArgs", "args fuera del schema: solo"},
      {DaemonWireError::invalidArgs({}), "invalidArgs", "args fuera del schema: "},
      {DaemonWireError::opFailed("daemon.grants.sync", "x"), "opFailed",
       "daemon.grants.sync falló: x"},
      {DaemonWireError::notGranted("fs.readProtectedPath", std::nullopt), "notGranted",
       "sin concesión para fs.readProtectedPath (service: ninguno)"},
      {DaemonWireError::notGranted("fs.readProtectedPath", "svc.a"), "notGranted",
       "sin concesión para fs.readProtectedPath (service: svc.a)"},
      // An empty id is present, not absent.
      {DaemonWireError::notGranted("op", std::string()), "notGranted",
       "sin concesión para op (service: )"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EQ(c.error.code, c.code);
    EXPECT_EQ(c.error.message, c.message);
  }
}

TEST(DaemonWireTest, RequestsThatDecode) {
  struct Case {
    const char* json;
    DaemonRequest expected;
  };
  const Case cases[] = {
      {R"({"op":"daemon.info","args":{}})", {"daemon.info", {}, std::nullopt, std::nullopt}},
      {R"({"op":"x","args":{},"extra":1})", {"x", {}, std::nullopt, std::nullopt}},
      {R"({"op":"x","args":{},"correlationId":null,"serviceId":null})",
       {"x", {}, std::nullopt, std::nullopt}},
      {R"({"serviceId":"s","args":{"path":"/a","n":[1,null]},"correlationId":"c","op":"fs.read"})",
       {"fs.read",
        JSONObject{{"path", JSONValue("/a")},
                   {"n", JSONValue(JSONValue::Array{JSONValue(1), JSONValue(nullptr)})}},
        "c", "s"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(decode<DaemonRequest>(c.json), c.expected);
  }
}

TEST(DaemonWireTest, RequestsThatFailToDecode) {
  const char* cases[] = {
      R"({"op":"daemon.info"})",                // args has no default
      R"({"op":"x","args":[]})",                // args must be an object
      R"({"op":"x","args":null})",              // required means non-null
      R"({"args":{}})",                         // no op
      R"({"op":7,"args":{}})",                  // op of the wrong type
      R"({"op":"x","args":{},"serviceId":3})",  // a present optional is still typed
      R"({"op":"x","args":{},"correlationId":{}})",
      R"(["op","x"])",
      R"({"op":"x","args":{}} trailing)",
      "",
  };
  for (const char* json : cases) {
    SCOPED_TRACE(json);
    EXPECT_THROW(decode<DaemonRequest>(json), DecodingError);
  }
}

TEST(DaemonWireTest, ResponsesDecodeWithoutCheckingOk) {
  struct Case {
    const char* json;
    DaemonResponse expected;
  };
  const Case cases[] = {
      {R"({"ok":false})", {false, std::nullopt, std::nullopt}},
      {R"({"ok":true,"error":{"code":"opFailed","message":"m"}})",
       {true, std::nullopt, DaemonWireError{"opFailed", "m"}}},
      {R"({"ok":false,"result":[1,"a"]})",
       {false, JSONValue(JSONValue::Array{JSONValue(1), JSONValue("a")}), std::nullopt}},
      {R"({"ok":true,"result":{"v":1},"error":null,"extra":"x"})",
       {true, JSONValue(JSONObject{{"v", JSONValue(1)}}), std::nullopt}},
      // A null result reads as absent, like every optional key.
      {R"({"ok":true,"result":null})", {true, std::nullopt, std::nullopt}},
      {R"({"ok":true,"error":{"code":"c","message":"m","extra":[]}})",
       {true, std::nullopt, DaemonWireError{"c", "m"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(decode<DaemonResponse>(c.json), c.expected);
  }
}

TEST(DaemonWireTest, ResponsesThatFailToDecode) {
  const char* cases[] = {
      R"({})",
      R"({"ok":"true"})",
      R"({"ok":1})",
      R"({"ok":false,"error":{"code":"c"}})",
      R"({"ok":false,"error":"opFailed"})",
      R"({"ok":true,"result":1e999})",
  };
  for (const char* json : cases) {
    SCOPED_TRACE(json);
    EXPECT_THROW(decode<DaemonResponse>(json), DecodingError);
  }
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
      {encode(DaemonResponse{true, std::nullopt, std::nullopt}), R"({"ok":true})"},
      {encode(DaemonResponse::failure(DaemonWireError::unknownOp("q"))),
       R"({"ok":false,"error":{"code":"unknownOp","message":"op fuera del catálogo: q"}})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(tree(c.encoded), tree(c.expected)) << c.encoded;
    // Compact: the same length as the hand-written form, which has no white space.
    EXPECT_EQ(c.encoded.size(), std::string_view(c.expected).size()) << c.encoded;
  }
}

TEST(DaemonWireTest, RequestRoundTrip) {
  DaemonRequest request{"platform.applyUpdate",
                        JSONObject{{"stagedPath", JSONValue("/tmp/a b")},
                                   {"n", JSONValue(-0.5)},
                                   {"nested", JSONValue(JSONObject{{"é", JSONValue(false)}})}},
                        "corr-1", std::nullopt};
  EXPECT_EQ(decode<DaemonRequest>(encode(request)), request);
}

}  // namespace
}  // namespace tarskel
