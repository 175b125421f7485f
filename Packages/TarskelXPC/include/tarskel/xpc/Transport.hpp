#pragma once

// What the daemon and its clients share on a platform without XPC: where the
// service listens, and the envelope that stands for an XPC dictionary.
//
// A connection is a Unix-domain stream socket carrying frames (see
// tarskel/protocol/bus/Framing.hpp); each frame's payload is one envelope:
//
//   envelope := id: uint64be, flags: uint8, body: uint8[rest]
//   flags    := bit 0 "expects a reply", bit 1 "body present", other bits 0
//
// A message to the daemon carries the request bytes as its body (the
// "request" key of the dictionary); a reply carries the same id and the
// response bytes (the "response" key). A clear "body present" bit with an
// empty body is an absent key; a set bit with an empty body is a key of
// length zero. docs/transport.md has the full grammar.
//
// Everything here is a plain value or a pure function: any thread may call.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/Error.hpp"

namespace tarskel {

// The envelope of one message or reply.
struct TransportEnvelope {
  // Chosen by the sender of a message; a reply repeats it. Replies pair with
  // their messages by it alone and may come back in any order.
  std::uint64_t id = 0;
  // A message without this flag is dropped by the daemon unread.
  bool expectsReply = false;
  // The request bytes in a message, the response bytes in a reply; absent
  // when the dictionary had no such key.
  std::optional<std::string> body;

  friend bool operator==(const TransportEnvelope&, const TransportEnvelope&) = default;
};

// A frame payload that is not an envelope: shorter than its 9-byte head,
// with an unknown flag bit, or with body bytes behind a clear "body present"
// bit. The connection that carried it can't be trusted further.
class TransportError : public Error {
 public:
  using Error::Error;
};

namespace Transport {

inline constexpr std::size_t envelopeHeadLength = 9;
inline constexpr std::uint8_t expectsReplyFlag = 0x01;
inline constexpr std::uint8_t bodyPresentFlag = 0x02;

// The envelope's bytes, ready for Framing::encode.
std::string encodeEnvelope(const TransportEnvelope& envelope);

// Reads one frame payload; throws TransportError.
TransportEnvelope decodeEnvelope(std::string_view payload);
// The same, taking the body out of `payload`'s own storage (no copy).
TransportEnvelope decodeEnvelope(std::string&& payload);

// The whole frame of an envelope: Framing::encode(encodeEnvelope(e)).
std::string encodeFrame(const TransportEnvelope& envelope);

// The frame of a reply carrying `response`: the bytes of
// encodeFrame({id, false, response}), built in one allocation.
std::string encodeReplyFrame(std::uint64_t id, std::string_view response);

}  // namespace Transport

// The largest frame a client may send the daemon: requests are small, and a
// connection may hold no more than this much of a frame it has not finished.
inline constexpr std::int64_t maxRequestFrameLength = 1 << 20;

// Where the system daemon's sockets live, for every user alike.
inline constexpr std::string_view defaultSocketDirectory = "/run/tarskel";

// The socket path of a service name, the one mapping that the daemon and its
// clients share. A name holding "/" is a path and is returned as it is;
// any other name is "/run/tarskel/<name>.sock", whoever asks. An empty name
// throws TransportError ("nombre de servicio vacío"). Reads nothing but its
// argument: any thread.
std::string socketPathForMachService(std::string_view machServiceName);

// Whether a service name maps into defaultSocketDirectory, where only a
// server running as root may answer (the client checks the peer).
bool isDefaultServiceName(std::string_view machServiceName);

}  // namespace tarskel
