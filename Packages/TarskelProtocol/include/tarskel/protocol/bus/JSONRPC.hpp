#pragma once

// The messages of the platform's bus: JSON-RPC 2.0 objects, one per frame.
//
//   message      := request | notification | response | errorResponse
//   request      := {"jsonrpc":"2.0","id":ID,"method":TEXT[,"params":ANY]}
//   notification := {"jsonrpc":"2.0","method":TEXT[,"params":ANY]}
//   response     := {"jsonrpc":"2.0","id":ID,"result":ANY}
//   errorResponse:= {"jsonrpc":"2.0"[,"id":ID],"error":{"code":INT,"message":TEXT[,"data":ANY]}}
//   ID           := int64 | string
//
// Reading looks at `method` first, then `error`, then `result`: a message
// holding several of them is never refused as ambiguous, and what isn't
// looked at isn't checked. A null counts as an absent key, so `"result":null`
// is no result (such a response, though it encodes, doesn't decode),
// `"id":null` beside `method` makes a notification, and beside `error` an
// errorResponse without id. Other keys are ignored.
//
// Plain values, free of shared state: use from any thread.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "tarskel/protocol/bus/JSONRPCError.hpp"
#include "tarskel/protocol/json/JSONCoding.hpp"
#include "tarskel/protocol/json/JSONValue.hpp"

namespace tarskel {

// The id of a request: a 64-bit integer or a string. number(1) and
// string("1") are different ids. Usable as a key in ordered and hashed maps.
class JSONRPCID {
 public:
  template <class Integer>
  requires(std::is_integral_v<Integer> && !std::is_same_v<Integer, bool>) JSONRPCID(Integer number)
      : value_(static_cast<std::int64_t>(number)) {}
  JSONRPCID(std::string text) : value_(std::move(text)) {}
  JSONRPCID(const char* text) : value_(std::string(text)) {}

  static JSONRPCID number(std::int64_t n) { return JSONRPCID(n); }
  static JSONRPCID string(std::string s) { return JSONRPCID(std::move(s)); }

  bool isNumber() const { return value_.index() == 0; }
  std::optional<std::int64_t> numberValue() const;
  const std::string* stringValue() const { return std::get_if<std::string>(&value_); }

  // The decimal number, or the string as it stands, without quotes.
  std::string description() const;

  friend bool operator==(const JSONRPCID&, const JSONRPCID&) = default;
  friend std::strong_ordering operator<=>(const JSONRPCID& a, const JSONRPCID& b);
  std::size_t hash() const;

 private:
  std::variant<std::int64_t, std::string> value_;
};

// An integer (read exactly; 1.0 is the integer 1), else a string, else the
// dataCorrupted error "id debe ser número o string".
template <>
struct JSONCoding<JSONRPCID> {
  static JSONValue encode(const JSONRPCID& id);
  static JSONRPCID decode(const JSONValue& v, const CodingPath& at);
};

class JSONRPCMessage {
 public:
  struct Request {
    JSONRPCID id;
    std::string method;
    std::optional<JSONValue> params;
    friend bool operator==(const Request&, const Request&) = default;
  };
  struct Notification {
    std::string method;
    std::optional<JSONValue> params;
    friend bool operator==(const Notification&, const Notification&) = default;
  };
  struct Response {
    JSONRPCID id;
    JSONValue result;
    friend bool operator==(const Response&, const Response&) = default;
  };
  struct ErrorResponse {
    std::optional<JSONRPCID> id;
    JSONRPCError error;
    friend bool operator==(const ErrorResponse&, const ErrorResponse&) = default;
  };
  enum class Kind { request, notification, response, errorResponse };

  JSONRPCMessage(Request r) : value_(std::move(r)) {}
  JSONRPCMessage(Notification n) : value_(std::move(n)) {}
  JSONRPCMessage(Response r) : value_(std::move(r)) {}
  JSONRPCMessage(ErrorResponse e) : value_(std::move(e)) {}

  static JSONRPCMessage request(JSONRPCID id, std::string method,
                                std::optional<JSONValue> params = std::nullopt) {
    return Request{std::move(id), std::move(method), std::move(params)};
  }
  static JSONRPCMessage notification(std::string method,
                                     std::optional<JSONValue> params = std::nullopt) {
    return Notification{std::move(method), std::move(params)};
  }
  static JSONRPCMessage response(JSONRPCID id, JSONValue result) {
    return Response{std::move(id), std::move(result)};
  }
  static JSONRPCMessage errorResponse(std::optional<JSONRPCID> id, JSONRPCError error) {
    return ErrorResponse{std::move(id), std::move(error)};
  }

  Kind kind() const { return static_cast<Kind>(value_.index()); }
  // "request", "notification", "response" or "errorResponse".
  std::string_view kindName() const;

  // The payload of the matching case, else nullptr.
  const Request* asRequest() const { return std::get_if<Request>(&value_); }
  const Notification* asNotification() const { return std::get_if<Notification>(&value_); }
  const Response* asResponse() const { return std::get_if<Response>(&value_); }
  const ErrorResponse* asErrorResponse() const { return std::get_if<ErrorResponse>(&value_); }
  Request* asRequest() { return std::get_if<Request>(&value_); }
  Notification* asNotification() { return std::get_if<Notification>(&value_); }
  Response* asResponse() { return std::get_if<Response>(&value_); }
  ErrorResponse* asErrorResponse() { return std::get_if<ErrorResponse>(&value_); }

  // For std::visit.
  const std::variant<Request, Notification, Response, ErrorResponse>& value() const {
    return value_;
  }

  // The record coding layer's hooks, for a message nested in another record.
  void encode(KeyedEncoder& e) const;
  static JSONRPCMessage decode(const KeyedDecoder& d);

  // Reads one message out of a parsed tree, moving `params` and `result` out
  // of it rather than copying them. Throws DecodingError, naming the key.
  static JSONRPCMessage fromTree(JSONValue&& tree);

  friend bool operator==(const JSONRPCMessage&, const JSONRPCMessage&) = default;

 private:
  std::variant<Request, Notification, Response, ErrorResponse> value_;
};

namespace JSONRPC {
inline constexpr std::string_view version = "2.0";

// The message as one JSON object: "jsonrpc" first, then the keys of its case
// in the order id, method, params, result, error; absent optionals left out.
// Throws EncodingError for a NaN or an infinity in params, result or data.
std::string encode(const JSONRPCMessage& message);
// The same, appended to `out`; on failure `out` is left as it was.
void encodeInto(std::string& out, const JSONRPCMessage& message);

// One message from the bytes of one frame. Throws DecodingError: the JSON
// reader's own for text that isn't one JSON document, else the message's.
JSONRPCMessage decode(std::string_view bytes);
}  // namespace JSONRPC

}  // namespace tarskel

template <>
struct std::hash<tarskel::JSONRPCID> {
  std::size_t operator()(const tarskel::JSONRPCID& id) const noexcept { return id.hash(); }
};
