// Decodes arbitrary bytes as the daemon's request and response records, as the
// daemon and its clients do with what arrives over the connection, and checks
// that whatever decodes survives a round trip through the encoder.

#include "FuzzSupport.hpp"
#include "tarskel/xpc/DaemonWire.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  const std::string_view bytes = fuzz::text(data, size);
  if (auto request = fuzz::tryDecode<DaemonRequest>(bytes)) {
    fuzz::requireRoundTrip(*request, TarskelJSON::encoder());
  }
  if (auto response = fuzz::tryDecode<DaemonResponse>(bytes)) {
    fuzz::requireRoundTrip(*response, TarskelJSON::encoder());
  }
  return 0;
}
