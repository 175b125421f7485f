#include "tarskel/xpc/Transport.hpp"

#include <unistd.h>

#include <cstdlib>

#include "tarskel/protocol/bus/Framing.hpp"

namespace tarskel {

std::string Transport::encodeEnvelope(const TransportEnvelope& envelope) {
  std::string out;
  out.reserve(envelopeHeadLength + (envelope.body ? envelope.body->size() : 0));
  for (int shift = 56; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>((envelope.id >> shift) & 0xFF));
  }
  std::uint8_t flags = 0;
  if (envelope.expectsReply) flags |= expectsReplyFlag;
  if (envelope.body) flags |= bodyPresentFlag;
  out.push_back(static_cast<char>(flags));
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

std::string Transport::encodeFrame(const TransportEnvelope& envelope) {
  return Framing::encode(encodeEnvelope(envelope));
}

std::string socketPathForMachService(std::string_view machServiceName) {
  std::string name(machServiceName);
  if (name.find('/') != std::string::npos) return name;
  if (::geteuid() == 0) return "/run/tarskel/" + name + ".sock";
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string base = (runtime != nullptr && *runtime != '\0') ? runtime : "/tmp";
  return base + "/tarskel-" + std::to_string(::getuid()) + "/" + name + ".sock";
}

}  // namespace tarskel
