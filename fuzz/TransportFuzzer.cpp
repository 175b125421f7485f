// The daemon's socket input: bytes cut anywhere into frames, each frame read
// as an envelope. Nothing may crash; a readable envelope writes back to the
// very bytes it came from.

#include <string>

#include "FuzzSupport.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/xpc/Transport.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  if (size == 0) return 0;
  // The first byte picks where the stream is cut, the rest is the stream.
  const std::size_t cut = data[0];
  const std::string_view stream = fuzz::text(data + 1, size - 1);
  FrameDecoder decoder(1 << 16);
  try {
    for (std::size_t at = 0; at < stream.size(); at += cut + 1) {
      for (const std::string& payload : decoder.append(stream.substr(at, cut + 1))) {
        try {
          fuzz::require(Transport::encodeEnvelope(Transport::decodeEnvelope(payload)) == payload);
        } catch (const TransportError&) {
        }
      }
    }
  } catch (const FramingError& e) {
    fuzz::require(e.length() > e.max());
  }
  return 0;
}
