// A bus message from any bytes. Nothing may crash; a message that reads
// writes out bytes that read back as the same message.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tarskel/protocol/bus/JSONRPC.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  try {
    const tarskel::JSONRPCMessage message = tarskel::JSONRPC::decode(bytes);
    // Decoding never yields a null result, so the round trip must hold.
    if (tarskel::JSONRPC::decode(tarskel::JSONRPC::encode(message)) != message) std::abort();
  } catch (const tarskel::DecodingError&) {
  }
  return 0;
}
