// Decoding of the vendor gate's records from arbitrary bytes, and their
// judgement. The input is up to three parts separated by NUL bytes:
//   manifest bytes \0 signature JSON \0 allowlist JSON
// Missing parts fall back to fixed, well-formed values. The whole input is
// also read as an allowlist and as a rotation.

#include <memory>
#include <string>

#include "FuzzSupport.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"
#include "tarskel/protocol/vendor/VendorVerification.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace {

using namespace tarskel;

std::string_view nextPart(std::string_view& rest) {
  const std::size_t end = rest.find('\0');
  std::string_view part = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  return part;
}

const VendorVerification& verification() {
  static const VendorVerification v(std::make_shared<Ed25519Algorithm>(),
                                    [] { return Date{800000000}; });
  return v;
}

const VendorAllowlist kAllowlist{1, {{"k1", "CMcT8TG0zwz1JEG6Le0ShaNdHByJUUA0x7JRWEWROOI="}}};
const VendorSignature kSignature{"k1", "ed25519", std::string(86, 'A') + "=="};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input = fuzz::text(data, size);
  std::string_view rest = input;
  const std::string_view manifestData = nextPart(rest);
  const std::string_view signatureData = nextPart(rest);
  const std::string_view allowlistData = nextPart(rest);

  const auto manifest = fuzz::tryDecode<HashManifest>(manifestData);
  const auto signature = signatureData.empty() ? std::optional(kSignature)
                                               : fuzz::tryDecode<VendorSignature>(signatureData);
  const auto allowlist = allowlistData.empty() ? std::optional(kAllowlist)
                                               : fuzz::tryDecode<VendorAllowlist>(allowlistData);
  if (manifest) {
    fuzz::requireRoundTrip(*manifest);
    if (signature && allowlist) {
      const auto errors = verification().verify(manifestData, *manifest, *signature, *allowlist,
                                                manifest->monotonicVersion / 2, false);
      fuzz::require(errors.size() <= 3);
      for (const auto& e : errors) fuzz::require(!e.description().empty());
    }
  }

  if (auto list = fuzz::tryDecode<VendorAllowlist>(input)) {
    (void)list->key("k1");
    (void)list->signingPayload();
  }
  if (auto rotation = fuzz::tryDecode<VendorKeyRotation>(input)) {
    (void)verification().applyRotation(*rotation, kAllowlist);
  }
  return 0;
}
