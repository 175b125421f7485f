// Decoding of the vendor gate's records from arbitrary bytes, and their
// judgement. The input is up to three parts separated by NUL bytes:
//   manifest bytes \0 signature JSON \0 allowlist JSON
// Missing parts fall back to fixed, well-formed values. The whole input is
// also read as an allowlist and as a rotation.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"
#include "tarskel/protocol/vendor/VendorVerification.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace {

using namespace tarskel;

template <class T>
std::optional<T> tryDecode(std::string_view bytes) {
  try {
    return TarskelJSON::decoder().decode<T>(bytes);
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

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

void checkErrors(const std::vector<VendorVerificationError>& errors) {
  if (errors.size() > 3) std::abort();
  for (const auto& e : errors) {
    if (e.description().empty()) std::abort();
  }
}

void roundTrip(const HashManifest& manifest) {
  const std::string bytes = TarskelJSON::canonicalEncoder().encode(manifest);
  if (TarskelJSON::decoder().decode<HashManifest>(bytes) != manifest) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string_view rest = input;
  const std::string_view manifestData = nextPart(rest);
  const std::string_view signatureData = nextPart(rest);
  const std::string_view allowlistData = nextPart(rest);

  const auto manifest = tryDecode<HashManifest>(manifestData);
  const auto signature =
      signatureData.empty() ? std::optional(kSignature) : tryDecode<VendorSignature>(signatureData);
  const auto allowlist =
      allowlistData.empty() ? std::optional(kAllowlist) : tryDecode<VendorAllowlist>(allowlistData);
  if (manifest) {
    roundTrip(*manifest);
    if (signature && allowlist) {
      checkErrors(verification().verify(manifestData, *manifest, *signature, *allowlist,
                                        manifest->monotonicVersion / 2, false));
    }
  }

  if (auto list = tryDecode<VendorAllowlist>(input)) {
    (void)list->key("k1");
    (void)list->signingPayload();
  }
  if (auto rotation = tryDecode<VendorKeyRotation>(input)) {
    auto result = verification().applyRotation(*rotation, kAllowlist);
    (void)result;
  }
  return 0;
}
