#pragma once

// Test support, shipped nowhere: a signature scheme that tells which bytes
// and which key a verifier handed over, with no cryptography in the way.

#include <string>
#include <string_view>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/vendor/VendorVerification.hpp"

namespace tarskel::testing {

// A signature is good when it reads "<publicKey>|<message>" and the key has
// the length of an Ed25519 key.
class FakeSignatureAlgorithm : public SignatureAlgorithm {
 public:
  bool verify(std::string_view signature, std::string_view message,
              std::string_view publicKey) const override {
    return publicKey.size() == 32 &&
           signature == std::string(publicKey) + "|" + std::string(message);
  }
};

// A signature over `message` that FakeSignatureAlgorithm takes under `publicKey`.
inline VendorSignature fakeSignature(const std::string& keyId, const std::string& publicKey,
                                     std::string_view message) {
  return {keyId, "ed25519", base64Encode(publicKey + "|" + std::string(message))};
}

}  // namespace tarskel::testing
