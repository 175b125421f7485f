#include "tarskel/protocol/bus/JSONRPC.hpp"

#include <charconv>

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {

namespace {

void appendInteger(std::string& out, std::int64_t n) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, n).ptr;
  out.append(digits, end);
}

void appendID(std::string& out, const JSONRPCID& id) {
  if (auto n = id.numberValue()) {
    appendInteger(out, *n);
  } else {
    appendJSONString(out, *id.stringValue());
  }
}

void appendValue(std::string& out, const JSONValue& value) {
  out += TarskelJSON::encoder().encode(value);
}

void appendKey(std::string& out, std::string_view key) {
  out += ",\"";
  out += key;
  out += "\":";
}

// An optional key that may be moved out of the tree: nothing when absent or
// null; a number no binary64 holds fails as it would anywhere else.
std::optional<JSONValue> takeOptional(JSONObject& object, std::string_view key,
                                      const CodingPath& at) {
  JSONValue* value = object.find(key);
  if (value == nullptr || value->isNull()) return std::nullopt;
  CodingPath path(at, key);
  coding_detail::requireRepresentable(*value, path);
  return std::move(*value);
}

void appendMessage(std::string& out, const JSONRPCMessage& message);

JSONRPCMessage decodeMessage(JSONValue& tree, const CodingPath& at) {
  const KeyedDecoder d(tree, at);
  JSONObject& object = *tree.objectValue();

  const std::string version = d.required<std::string>("jsonrpc");
  if (version != JSONRPC::version) {
    CodingPath path(at, "jsonrpc");
    coding_detail::dataCorrupted(path, "jsonrpc debe ser \"2.0\", llegó " + version);
  }
  if (std::optional<std::string> method = d.optional<std::string>("method")) {
    std::optional<JSONValue> params = takeOptional(object, "params", at);
    std::optional<JSONRPCID> id = d.optional<JSONRPCID>("id");
    if (id) return JSONRPCMessage::Request{std::move(*id), std::move(*method), std::move(params)};
    return JSONRPCMessage::Notification{std::move(*method), std::move(params)};
  }
  if (std::optional<JSONRPCError> error = d.optional<JSONRPCError>("error")) {
    return JSONRPCMessage::ErrorResponse{d.optional<JSONRPCID>("id"), std::move(*error)};
  }
  std::optional<JSONValue> result = takeOptional(object, "result", at);
  if (!result) {
    CodingPath path(at, "method");
    coding_detail::dataCorrupted(path,
                                 "mensaje sin method, result ni error — no es JSON-RPC válido");
  }
  std::optional<JSONRPCID> id = d.optional<JSONRPCID>("id");
  if (!id) {
    CodingPath path(at, "id");
    coding_detail::dataCorrupted(path, "una response exige id");
  }
  return JSONRPCMessage::Response{std::move(*id), std::move(*result)};
}

}  // namespace

std::optional<std::int64_t> JSONRPCID::numberValue() const {
  if (const auto* n = std::get_if<std::int64_t>(&value_)) return *n;
  return std::nullopt;
}

std::string JSONRPCID::description() const {
  if (const auto* n = std::get_if<std::int64_t>(&value_)) return std::to_string(*n);
  return std::get<std::string>(value_);
}

std::strong_ordering operator<=>(const JSONRPCID& a, const JSONRPCID& b) {
  if (a.value_.index() != b.value_.index()) return a.value_.index() <=> b.value_.index();
  if (a.isNumber()) return std::get<0>(a.value_) <=> std::get<0>(b.value_);
  return std::get<1>(a.value_).compare(std::get<1>(b.value_)) <=> 0;
}

std::size_t JSONRPCID::hash() const {
  if (const auto* n = std::get_if<std::int64_t>(&value_)) return std::hash<std::int64_t>{}(*n);
  // Keeps number(1) and string("1") apart in the common case.
  return std::hash<std::string>{}(std::get<std::string>(value_)) ^ 0x9e3779b97f4a7c15ULL;
}

JSONValue JSONCoding<JSONRPCID>::encode(const JSONRPCID& id) {
  if (auto n = id.numberValue()) return JSONValue::integer(*n);
  return JSONValue(*id.stringValue());
}

JSONRPCID JSONCoding<JSONRPCID>::decode(const JSONValue& v, const CodingPath& at) {
  if (v.numberPayload() != nullptr) {
    try {
      return JSONRPCID(coding_detail::requireInt64(v, at));
    } catch (const DecodingError&) {
      // Not an integer: the string try fails next, and the error is the id's own.
    }
  }
  if (const std::string* s = v.stringValue()) return JSONRPCID(*s);
  coding_detail::dataCorrupted(at, "id debe ser número o string");
}

std::string_view JSONRPCMessage::kindName() const {
  switch (kind()) {
    case Kind::request:
      return "request";
    case Kind::notification:
      return "notification";
    case Kind::response:
      return "response";
    case Kind::errorResponse:
      return "errorResponse";
  }
  return "request";
}

void JSONRPCMessage::encode(KeyedEncoder& e) const {
  e.required("jsonrpc", std::string(JSONRPC::version));
  if (const Request* r = asRequest()) {
    e.required("id", r->id);
    e.required("method", r->method);
    e.optional("params", r->params);
  } else if (const Notification* n = asNotification()) {
    e.required("method", n->method);
    e.optional("params", n->params);
  } else if (const Response* s = asResponse()) {
    e.required("id", s->id);
    e.required("result", s->result);
  } else if (const ErrorResponse* f = asErrorResponse()) {
    e.optional("id", f->id);
    e.required("error", f->error);
  }
}

JSONRPCMessage JSONRPCMessage::decode(const KeyedDecoder& d) {
  JSONValue copy(d.object());
  return decodeMessage(copy, d.path());
}

JSONRPCMessage JSONRPCMessage::fromTree(JSONValue&& tree) {
  return decodeMessage(tree, CodingPath());
}

void JSONRPC::encodeInto(std::string& out, const JSONRPCMessage& message) {
  const std::size_t start = out.size();
  try {
    appendMessage(out, message);
  } catch (...) {
    out.resize(start);
    throw;
  }
}

namespace {
void appendMessage(std::string& out, const JSONRPCMessage& message) {
  out += R"({"jsonrpc":"2.0")";
  if (const auto* r = message.asRequest()) {
    appendKey(out, "id");
    appendID(out, r->id);
    appendKey(out, "method");
    appendJSONString(out, r->method);
    if (r->params) {
      appendKey(out, "params");
      appendValue(out, *r->params);
    }
  } else if (const auto* n = message.asNotification()) {
    appendKey(out, "method");
    appendJSONString(out, n->method);
    if (n->params) {
      appendKey(out, "params");
      appendValue(out, *n->params);
    }
  } else if (const auto* s = message.asResponse()) {
    appendKey(out, "id");
    appendID(out, s->id);
    appendKey(out, "result");
    appendValue(out, s->result);
  } else if (const auto* f = message.asErrorResponse()) {
    if (f->id) {
      appendKey(out, "id");
      appendID(out, *f->id);
    }
    appendKey(out, "error");
    out += "{\"code\":";
    appendInteger(out, f->error.code);
    appendKey(out, "message");
    appendJSONString(out, f->error.message);
    if (f->error.data) {
      appendKey(out, "data");
      appendValue(out, *f->error.data);
    }
    out += '}';
  }
  out += '}';
}
}  // namespace

std::string JSONRPC::encode(const JSONRPCMessage& message) {
  std::string out;
  encodeInto(out, message);
  return out;
}

JSONRPCMessage JSONRPC::decode(std::string_view bytes) {
  return JSONRPCMessage::fromTree(TarskelJSON::decoder().parse(bytes));
}

}  // namespace tarskel
