#pragma once

// The error object of the platform's JSON-RPC messages, and the platform's
// vocabulary of error codes. Also carried outside the bus (a control-centre
// command's ack holds one).

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "tarskel/protocol/json/JSONCoding.hpp"

namespace tarskel {

// Integer error codes. The first five are JSON-RPC 2.0's own; the others are
// the platform's.
namespace RPCErrorCode {
inline constexpr std::int64_t parseError = -32700;
inline constexpr std::int64_t invalidRequest = -32600;
inline constexpr std::int64_t methodNotFound = -32601;
inline constexpr std::int64_t invalidParams = -32602;
inline constexpr std::int64_t internalError = -32603;
inline constexpr std::int64_t accessDenied = -32001;
inline constexpr std::int64_t serviceUnavailable = -32002;
inline constexpr std::int64_t timeout = -32003;
inline constexpr std::int64_t rateLimited = -32004;
inline constexpr std::int64_t payloadTooLarge = -32005;
inline constexpr std::int64_t incompatibleProtocol = -32006;
inline constexpr std::int64_t validationFailed = -32007;
}  // namespace RPCErrorCode

// {"code":…,"message":…,"data":…}; `data` is left out when absent and a null
// `data` reads as absent. Decoding failures are the coding layer's own.
struct JSONRPCError {
  std::int64_t code = 0;
  std::string message;
  std::optional<JSONValue> data;

  JSONRPCError() = default;
  JSONRPCError(std::int64_t errorCode, std::string text,
               std::optional<JSONValue> detail = std::nullopt)
      : code(errorCode), message(std::move(text)), data(std::move(detail)) {}

  void encode(KeyedEncoder& e) const {
    e.required("code", code);
    e.required("message", message);
    e.optional("data", data);
  }
  static JSONRPCError decode(const KeyedDecoder& d) {
    return JSONRPCError(d.required<std::int64_t>("code"), d.required<std::string>("message"),
                        d.optional<JSONValue>("data"));
  }
  friend bool operator==(const JSONRPCError&, const JSONRPCError&) = default;
};

}  // namespace tarskel
