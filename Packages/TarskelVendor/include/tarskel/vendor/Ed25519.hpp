#pragma once

// Ed25519 (RFC 8032) behind small values: raw 32-byte keys, raw 64-byte
// signatures, base64 where a key or signature becomes text.
//
// All values here are immutable once made; copies share one key object, and
// every member may be called from several threads at once.

#include <memory>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"
#include "tarskel/protocol/vendor/VendorVerification.hpp"

struct evp_pkey_st;

namespace tarskel {

// The key library refused: a raw key of the wrong length, or a failure to
// make random bytes or a signature. The text is the library's.
class Ed25519Error : public Error {
 public:
  using Error::Error;
};

// The vendor gate's signature primitive.
class Ed25519Algorithm final : public SignatureAlgorithm {
 public:
  // False for a public key that is not 32 bytes, a signature that is not 64,
  // or a signature that does not verify. Never throws.
  bool verify(std::string_view signature, std::string_view message,
              std::string_view publicKey) const override;
};

// A bare private key, with no name.
class Ed25519IdentityKey {
 public:
  // A fresh random key. Throws Ed25519Error.
  Ed25519IdentityKey();
  // From the 32 raw bytes of a private key. Throws Ed25519Error for any other
  // length.
  explicit Ed25519IdentityKey(std::string_view rawRepresentation);

  // The 32 raw bytes of the private key. Handle with care: never print them.
  std::string rawRepresentation() const;
  // The 32 raw bytes of the public key, and their base64.
  std::string rawPublicKey() const;
  std::string publicKeyBase64() const;

  // The raw 64-byte signature of `message`. Throws Ed25519Error.
  std::string sign(std::string_view message) const;

 private:
  std::shared_ptr<evp_pkey_st> key_;
};

// A vendor's signing identity: a private key and the name it goes by in
// allowlists and signatures. The name is stored beside the key, never derived
// from it.
class Ed25519KeyPair {
 public:
  // A fresh random key. Throws Ed25519Error.
  explicit Ed25519KeyPair(std::string keyId);
  // From the 32 raw bytes of the private key. Throws Ed25519Error for any
  // other length.
  Ed25519KeyPair(std::string_view rawPrivateKey, std::string keyId);

  const std::string& keyId() const { return keyId_; }
  // The private key in base64: how a key is exported.
  std::string rawPrivateKeyBase64() const;
  // This pair's entry for an allowlist: keyId and the base64 public key.
  VendorKey vendorKey() const;

  // keyId, "ed25519" and the base64 of the 64-byte signature of `message`.
  // Throws Ed25519Error.
  VendorSignature sign(std::string_view message) const;

 private:
  Ed25519IdentityKey key_;
  std::string keyId_;
};

}  // namespace tarskel
