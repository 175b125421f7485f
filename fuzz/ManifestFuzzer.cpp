// Arbitrary bytes read as a service manifest. Whatever reads is validated and
// written back; nothing may crash or hang, and the written form must read
// back as the same manifest.

#include "FuzzSupport.hpp"
#include "tarskel/protocol/manifest/ServiceManifest.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  const auto manifest = fuzz::tryDecode<ServiceManifest>(fuzz::text(data, size));
  if (!manifest) return 0;
  for (const ManifestValidationError& e : manifest->validate()) (void)e.description();
  try {
    fuzz::requireRoundTrip(*manifest);
  } catch (const EncodingError&) {
    // a number JSON can't hold, kept in a schema's bounds
  }
  return 0;
}
