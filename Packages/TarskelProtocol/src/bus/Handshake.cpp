#include "tarskel/protocol/bus/Handshake.hpp"

namespace tarskel {

void HelloRequest::encode(KeyedEncoder& e) const {
  e.required("clientId", clientId);
  e.required("protocolVersion", protocolVersion);
  e.required("capabilities", capabilities);
  e.optional("sessionId", sessionId);
}

HelloRequest HelloRequest::decode(const KeyedDecoder& d) {
  return HelloRequest{
      d.required<std::string>("clientId"), d.required<std::string>("protocolVersion"),
      d.optional<std::vector<std::string>>("capabilities").value_or(std::vector<std::string>{}),
      d.optional<std::string>("sessionId")};
}

void HelloResponse::encode(KeyedEncoder& e) const {
  e.required("accepted", accepted);
  e.required("protocolVersion", protocolVersion);
  e.required("capabilities", capabilities);
  e.optional("sessionId", sessionId);
  e.optional("reason", reason);
}

HelloResponse HelloResponse::decode(const KeyedDecoder& d) {
  return HelloResponse{
      d.required<bool>("accepted"), d.required<std::string>("protocolVersion"),
      d.optional<std::vector<std::string>>("capabilities").value_or(std::vector<std::string>{}),
      d.optional<std::string>("sessionId"), d.optional<std::string>("reason")};
}

}  // namespace tarskel
