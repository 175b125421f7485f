#include "tarskel/protocol/cc/CCCommand.hpp"

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {

void DualControl::encode(KeyedEncoder& e) const {
  e.required("required", required);
  e.optional("approvedBy", approvedBy);
}

DualControl DualControl::decode(const KeyedDecoder& d) {
  return DualControl{d.required<bool>("required"), d.optional<std::string>("approvedBy")};
}

void CCCommand::SigningBody::encode(KeyedEncoder& e) const {
  e.required("cmdId", cmdId);
  e.required("target", target);
  e.required("method", method);
  e.optional("params", params);
  e.required("deadline", deadline);
  e.required("issuedBy", issuedBy);
  e.optional("dualControl", dualControl);
}

CCCommand::SigningBody CCCommand::SigningBody::decode(const KeyedDecoder& d) {
  SigningBody b;
  b.cmdId = d.required<std::string>("cmdId");
  b.target = d.required<std::string>("target");
  b.method = d.required<std::string>("method");
  b.params = d.optional<JSONValue>("params");
  b.deadline = d.required<Date>("deadline");
  b.issuedBy = d.required<std::string>("issuedBy");
  b.dualControl = d.optional<DualControl>("dualControl");
  return b;
}

CCCommand::CCCommand(std::string cmdIdIn, std::string targetIn, std::string methodIn,
                     std::optional<JSONValue> paramsIn, Date deadlineIn, std::string issuedByIn,
                     std::optional<DualControl> dualControlIn, std::string sigIn)
    : cmdId(std::move(cmdIdIn)),
      target(std::move(targetIn)),
      method(std::move(methodIn)),
      params(std::move(paramsIn)),
      deadline(deadlineIn),
      issuedBy(std::move(issuedByIn)),
      dualControl(std::move(dualControlIn)),
      sig(std::move(sigIn)) {}

CCCommand::SigningBody CCCommand::signingBody() const {
  return SigningBody{cmdId, target, method, params, deadline, issuedBy, dualControl};
}

std::string CCCommand::signingPayload() const {
  return TarskelJSON::canonicalEncoder().encode(signingBody());
}

void CCCommand::encode(KeyedEncoder& e) const {
  signingBody().encode(e);
  e.required("sig", sig);
}

CCCommand CCCommand::decode(const KeyedDecoder& d) {
  SigningBody b = SigningBody::decode(d);
  return CCCommand(std::move(b.cmdId), std::move(b.target), std::move(b.method),
                   std::move(b.params), b.deadline, std::move(b.issuedBy), std::move(b.dualControl),
                   d.required<std::string>("sig"));
}

CCAck::CCAck(std::string cmdIdIn, Status statusIn, std::optional<JSONValue> resultIn,
             std::optional<JSONRPCError> errorIn, std::optional<std::int64_t> configEpochIn)
    : cmdId(std::move(cmdIdIn)),
      status(statusIn),
      result(std::move(resultIn)),
      error(std::move(errorIn)),
      configEpoch(configEpochIn) {}

void CCAck::encode(KeyedEncoder& e) const {
  e.required("cmdId", cmdId);
  e.required("status", status);
  e.optional("result", result);
  e.optional("error", error);
  e.optional("configEpoch", configEpoch);
}

CCAck CCAck::decode(const KeyedDecoder& d) {
  return CCAck(d.required<std::string>("cmdId"), d.required<Status>("status"),
               d.optional<JSONValue>("result"), d.optional<JSONRPCError>("error"),
               d.optional<std::int64_t>("configEpoch"));
}

}  // namespace tarskel
