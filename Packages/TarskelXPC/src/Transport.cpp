#include "tarskel/xpc/Transport.hpp"

#include <limits>

#include "tarskel/protocol/bus/Framing.hpp"

namespace tarskel {

namespace {

// The id, big-endian, then the flags byte.
void appendEnvelopeHead(std::string& out, std::uint64_t id, std::uint8_t flags) {
  for (int shift = 56; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>((id >> shift) & 0xFF));
  }
  out.push_back(static_cast<char>(flags));
}

}  // namespace

std::string Transport::encodeEnvelope(const TransportEnvelope& envelope) {
  std::string out;
  out.reserve(envelopeHeadLength + (envelope.body ? envelope.body->size() : 0));
  std::uint8_t flags = 0;
  if (envelope.expectsReply) flags |= expectsReplyFlag;
  if (envelope.body) flags |= bodyPresentFlag;
  appendEnvelopeHead(out, envelope.id, flags);
  if (envelope.body) out += *envelope.body;
  return out;
}

TransportEnvelope Transport::decodeEnvelope(std::string_view payload) {
  if (payload.size() < envelopeHeadLength) {
    throw TransportError("sobre de transporte truncado: " + std::to_string(payload.size()) +
                         " bytes");
  }
  TransportEnvelope envelope;
  for (std::size_t i = 0; i < 8; ++i) {
    envelope.id = (envelope.id << 8) | static_cast<unsigned char>(payload[i]);
  }
  const auto flags = static_cast<std::uint8_t>(payload[8]);
  if ((flags & ~(expectsReplyFlag | bodyPresentFlag)) != 0) {
    throw TransportError("sobre de transporte con indicadores desconocidos: " +
                         std::to_string(flags));
  }
  envelope.expectsReply = (flags & expectsReplyFlag) != 0;
  const std::string_view body = payload.substr(envelopeHeadLength);
  if ((flags & bodyPresentFlag) != 0) {
    envelope.body = std::string(body);
  } else if (!body.empty()) {
    throw TransportError("sobre de transporte con datos tras un cuerpo ausente");
  }
  return envelope;
}

TransportEnvelope Transport::decodeEnvelope(std::string&& payload) {
  TransportEnvelope envelope = decodeEnvelope(std::string_view(payload));
  if (envelope.body) {
    payload.erase(0, envelopeHeadLength);
    envelope.body = std::move(payload);
  }
  return envelope;
}

std::string Transport::encodeReplyFrame(std::uint64_t id, std::string_view response) {
  const std::size_t length = envelopeHeadLength + response.size();
  if (length > std::numeric_limits<std::uint32_t>::max()) {
    return encodeFrame({id, false, std::string(response)});  // Framing refuses it there
  }
  std::string frame;
  frame.reserve(Framing::headerLength + length);  // the frame's length, then the envelope
  Framing::appendHeader(frame, static_cast<std::uint32_t>(length));
  appendEnvelopeHead(frame, id, bodyPresentFlag);
  frame.append(response);
  return frame;
}

std::string Transport::encodeFrame(const TransportEnvelope& envelope) {
  return Framing::encode(encodeEnvelope(envelope));
}

std::string socketPathForMachService(std::string_view machServiceName) {
  if (machServiceName.empty()) throw TransportError("nombre de servicio vacío");
  if (!isDefaultServiceName(machServiceName)) return std::string(machServiceName);
  std::string path(defaultSocketDirectory);
  path += '/';
  path += machServiceName;
  path += ".sock";
  return path;
}

bool isDefaultServiceName(std::string_view machServiceName) {
  return !machServiceName.empty() && machServiceName.find('/') == std::string_view::npos;
}

}  // namespace tarskel
