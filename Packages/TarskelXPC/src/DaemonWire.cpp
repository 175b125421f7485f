#include "tarskel/xpc/DaemonWire.hpp"

#include <utility>

namespace tarskel {

void DaemonRequest::encode(KeyedEncoder& e) const {
  e.required("op", op);
  e.required("args", args);
  e.optional("correlationId", correlationId);
  e.optional("serviceId", serviceId);
}

DaemonRequest DaemonRequest::decode(const KeyedDecoder& d) {
  DaemonRequest r;
  r.op = d.required<std::string>("op");
  r.args = d.required<JSONObject>("args");
  r.correlationId = d.optional<std::string>("correlationId");
  r.serviceId = d.optional<std::string>("serviceId");
  return r;
}

DaemonWireError DaemonWireError::unknownOp(std::string_view op) {
  return {"unknownOp", "op fuera del catálogo: " + std::string(op)};
}

DaemonWireError DaemonWireError::malformedRequest(std::string_view text) {
  return {"malformedRequest", std::string(text)};
}

DaemonWireError DaemonWireError::unauthorizedClient(std::string_view reason) {
  return {"unauthorizedClient", "cliente XPC rechazado: " + std::string(reason)};
}

DaemonWireError DaemonWireError::invalidArgs(const std::vector<std::string>& violations) {
  std::string message = "args fuera del schema: ";
  for (std::size_t i = 0; i < violations.size(); ++i) {
    if (i > 0) message += "; ";
    message += violations[i];
  }
  return {"invalidArgs", std::move(message)};
}

DaemonWireError DaemonWireError::opFailed(std::string_view op, std::string_view detail) {
  return {"opFailed", std::string(op) + " falló: " + std::string(detail)};
}

DaemonWireError DaemonWireError::notGranted(std::string_view op,
                                            const std::optional<std::string>& serviceId) {
  return {"notGranted", "sin concesión para " + std::string(op) +
                            " (service: " + serviceId.value_or("ninguno") + ")"};
}

void DaemonWireError::encode(KeyedEncoder& e) const {
  e.required("code", code);
  e.required("message", message);
}

DaemonWireError DaemonWireError::decode(const KeyedDecoder& d) {
  return {d.required<std::string>("code"), d.required<std::string>("message")};
}

DaemonResponse DaemonResponse::success(JSONValue result) {
  return {true, std::move(result), std::nullopt};
}

DaemonResponse DaemonResponse::failure(DaemonWireError error) {
  return {false, std::nullopt, std::move(error)};
}

void DaemonResponse::encode(KeyedEncoder& e) const {
  e.required("ok", ok);
  e.optional("result", result);
  e.optional("error", error);
}

DaemonResponse DaemonResponse::decode(const KeyedDecoder& d) {
  DaemonResponse r;
  r.ok = d.required<bool>("ok");
  r.result = d.optional<JSONValue>("result");
  r.error = d.optional<DaemonWireError>("error");
  return r;
}

}  // namespace tarskel
