#pragma once

// The one envelope of everything a device and the control centre exchange:
//
//   message := {"type": kind-text, "data": payload-object}
//   kind-text := "heartbeat" | "event" | "ack" | "command" | "event-ack" | "audit-anchor"
//
// where the payload is the record the kind names (event-ack's is
// {"eventId": string}). Other keys are ignored. Transport-neutral: a message
// becomes a text and a text a message; framing and retries are the link's.

#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "tarskel/protocol/cc/CCCommand.hpp"
#include "tarskel/protocol/cc/DeviceReports.hpp"
#include "tarskel/protocol/json/JSONCoding.hpp"

namespace tarskel {

struct WireMessage {
  // In the order of Payload's alternatives.
  enum class Kind { heartbeat, event, ack, command, eventAck, auditAnchor };

  // The centre's confirmation of one queued event.
  struct EventAck {
    std::string eventId;

    void encode(KeyedEncoder& e) const;
    static EventAck decode(const KeyedDecoder& d);
    friend bool operator==(const EventAck&, const EventAck&) = default;
  };

  using Payload = std::variant<Heartbeat, CCEvent, CCAck, CCCommand, EventAck, AuditAnchorReport>;

  Payload payload;

  static WireMessage eventAck(std::string eventId) {
    return WireMessage{EventAck{std::move(eventId)}};
  }

  Kind kind() const { return static_cast<Kind>(payload.index()); }

  // The payload if it is a T, else nullptr.
  template <class T>
  const T* get() const {
    return std::get_if<T>(&payload);
  }

  // The plain encoder's text (TarskelJSON::encoder()): no order of keys is
  // promised, so nothing may be signed or hashed over it. Throws
  // EncodingError for a value JSON can't hold.
  std::string encodedString() const;

  // Reads `type` first, then `data` as the record the kind demands. Throws
  // DecodingError: dataCorrupted for text that isn't JSON or a type outside
  // the six texts, keyNotFound for a missing `type` or `data`, or the
  // record's own error for a `data` that doesn't fit.
  static WireMessage decode(std::string_view text);

  void encode(KeyedEncoder& e) const;
  static WireMessage decode(const KeyedDecoder& d);
  friend bool operator==(const WireMessage&, const WireMessage&) = default;
};

template <>
struct JSONEnum<WireMessage::Kind> {
  static constexpr std::array<std::pair<WireMessage::Kind, std::string_view>, 6> cases{{
      {WireMessage::Kind::heartbeat, "heartbeat"},
      {WireMessage::Kind::event, "event"},
      {WireMessage::Kind::ack, "ack"},
      {WireMessage::Kind::command, "command"},
      {WireMessage::Kind::eventAck, "event-ack"},
      {WireMessage::Kind::auditAnchor, "audit-anchor"},
  }};
};

}  // namespace tarskel
