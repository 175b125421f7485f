#pragma once

// What the daemon and its clients have in common: the service's name, the two
// keys of a message, and the three records that travel under them.
//
// A message is a dictionary holding, under DaemonWire::requestKey, the UTF-8
// JSON text of a DaemonRequest; its reply holds, under
// DaemonWire::responseKey, the UTF-8 JSON text of a DaemonResponse. Both
// sides link this code, so these records are the protocol: there is no
// version field.
//
// Encode with TarskelJSON::encoder() and decode with TarskelJSON::decoder():
//
//   std::string bytes = TarskelJSON::encoder().encode(request);
//   auto request = TarskelJSON::decoder().decode<DaemonRequest>(bytes);
//
// The bytes have no fixed key order and are never hashed or signed. Decoding
// throws DecodingError when a required key is missing, null or of the wrong
// type; optional keys may be absent or null (both read as absent); unknown
// keys are ignored.
//
// All records are plain values, safe to copy between threads.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/json/JSONCoding.hpp"
#include "tarskel/protocol/json/JSONValue.hpp"

namespace tarskel {

namespace DaemonWire {
// Key of the message dictionary that holds the request bytes.
inline constexpr std::string_view requestKey = "request";
// Key of the reply dictionary that holds the response bytes.
inline constexpr std::string_view responseKey = "response";
// The default name of the daemon's service.
inline constexpr std::string_view machServiceName = "net.hollowick.tarskel.daemon";
}  // namespace DaemonWire

// One call of a catalogue operation.
struct DaemonRequest {
  std::string op;
  // Required on the wire: an empty object where there are no arguments.
  JSONObject args;
  std::optional<std::string> correlationId;
  std::optional<std::string> serviceId;

  void encode(KeyedEncoder& e) const;
  static DaemonRequest decode(const KeyedDecoder& d);

  friend bool operator==(const DaemonRequest&, const DaemonRequest&) = default;
};

// A failure as the client sees it: data, not a throwable error. `code` is one
// of the six below and is what clients branch on; `message` is for people.
struct DaemonWireError {
  std::string code;
  std::string message;

  // "unknownOp": "op fuera del catálogo: <op>"
  static DaemonWireError unknownOp(std::string_view op);
  // "malformedRequest": the text as given.
  static DaemonWireError malformedRequest(std::string_view text);
  // "unauthorizedClient": "cliente XPC rechazado: <reason>"
  static DaemonWireError unauthorizedClient(std::string_view reason);
  // "invalidArgs": "args fuera del schema: " and the violations joined by "; ".
  static DaemonWireError invalidArgs(const std::vector<std::string>& violations);
  // "opFailed": "<op> falló: <detail>"
  static DaemonWireError opFailed(std::string_view op, std::string_view detail);
  // "notGranted": "sin concesión para <op> (service: <serviceId>)", "ninguno"
  // standing for an absent service id.
  static DaemonWireError notGranted(std::string_view op,
                                    const std::optional<std::string>& serviceId);

  void encode(KeyedEncoder& e) const;
  static DaemonWireError decode(const KeyedDecoder& d);

  friend bool operator==(const DaemonWireError&, const DaemonWireError&) = default;
};

// The answer to one request. Decoding does not check that `ok` agrees with
// `result` and `error`: whatever arrived is kept as it stands.
struct DaemonResponse {
  bool ok = false;
  // A present null is written as "result":null; absent leaves the key out.
  // On reading, a null result reads as absent, like every optional key.
  std::optional<JSONValue> result;
  std::optional<DaemonWireError> error;

  // ok, with `result` and no error.
  static DaemonResponse success(JSONValue result);
  // not ok, with `error` and no result.
  static DaemonResponse failure(DaemonWireError error);

  void encode(KeyedEncoder& e) const;
  static DaemonResponse decode(const KeyedDecoder& d);

  friend bool operator==(const DaemonResponse&, const DaemonResponse&) = default;
};

}  // namespace tarskel
