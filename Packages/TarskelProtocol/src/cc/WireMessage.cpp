#include "tarskel/protocol/cc/WireMessage.hpp"

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

template <class T>
WireMessage dataAs(const KeyedDecoder& d) {
  return WireMessage{d.required<T>("data")};
}

}  // namespace

void WireMessage::EventAck::encode(KeyedEncoder& e) const { e.required("eventId", eventId); }

WireMessage::EventAck WireMessage::EventAck::decode(const KeyedDecoder& d) {
  return EventAck{d.required<std::string>("eventId")};
}

void WireMessage::encode(KeyedEncoder& e) const {
  e.required("type", kind());
  std::visit([&e](const auto& data) { e.required("data", data); }, payload);
}

WireMessage WireMessage::decode(const KeyedDecoder& d) {
  switch (d.required<Kind>("type")) {
    case Kind::heartbeat:
      return dataAs<Heartbeat>(d);
    case Kind::event:
      return dataAs<CCEvent>(d);
    case Kind::ack:
      return dataAs<CCAck>(d);
    case Kind::command:
      return dataAs<CCCommand>(d);
    case Kind::eventAck:
      return dataAs<EventAck>(d);
    case Kind::auditAnchor:
      return dataAs<AuditAnchorReport>(d);
  }
  // Unreachable: decoding a Kind yields one of the six cases or throws.
  return dataAs<EventAck>(d);
}

std::string WireMessage::encodedString() const { return TarskelJSON::encoder().encode(*this); }

WireMessage WireMessage::decode(std::string_view text) {
  return TarskelJSON::decoder().decode<WireMessage>(text);
}

}  // namespace tarskel
