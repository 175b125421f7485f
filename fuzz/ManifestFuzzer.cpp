// Arbitrary bytes read as a service manifest. Whatever reads is validated and
// written back; nothing may crash or hang, and the written form must read
// back as the same manifest.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/manifest/ServiceManifest.hpp"

using namespace tarskel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ServiceManifest manifest;
  try {
    manifest = TarskelJSON::decoder().decode<ServiceManifest>(
        std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const DecodingError&) {
    return 0;
  }
  for (const ManifestValidationError& e : manifest.validate()) (void)e.description();

  std::string written;
  try {
    written = TarskelJSON::canonicalEncoder().encode(manifest);
  } catch (const EncodingError&) {
    return 0;  // a number JSON can't hold, kept in a schema's bounds
  }
  if (!(TarskelJSON::decoder().decode<ServiceManifest>(written) == manifest)) __builtin_trap();
  return 0;
}
