// A bus message from any bytes. Nothing may crash; a message that reads
// writes out bytes that read back as the same message.

#include "FuzzSupport.hpp"
#include "tarskel/protocol/bus/JSONRPC.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace JSONRPC = tarskel::JSONRPC;
  try {
    const tarskel::JSONRPCMessage message = JSONRPC::decode(tarskel::fuzz::text(data, size));
    // Decoding never yields a null result, so the round trip must hold.
    tarskel::fuzz::require(JSONRPC::decode(JSONRPC::encode(message)) == message);
  } catch (const tarskel::DecodingError&) {
  }
  return 0;
}
