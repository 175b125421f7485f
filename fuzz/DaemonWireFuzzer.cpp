// Decodes arbitrary bytes as the daemon's request and response records, as the
// daemon and its clients do with what arrives over the connection, and checks
// that whatever decodes survives a round trip through the encoder.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/xpc/DaemonWire.hpp"

namespace {

template <class Record>
void roundTrip(std::string_view bytes) {
  Record record;
  try {
    record = tarskel::TarskelJSON::decoder().decode<Record>(bytes);
  } catch (const tarskel::DecodingError&) {
    return;
  }
  std::string encoded = tarskel::TarskelJSON::encoder().encode(record);
  if (tarskel::TarskelJSON::decoder().decode<Record>(encoded) != record) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  roundTrip<tarskel::DaemonRequest>(bytes);
  roundTrip<tarskel::DaemonResponse>(bytes);
  return 0;
}
