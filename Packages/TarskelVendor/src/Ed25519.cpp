#include "tarskel/vendor/Ed25519.hpp"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>
#include <utility>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"

namespace tarskel {
namespace {

constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kSignatureBytes = 64;

using PKeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using MDContextPtr = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

// The library's own words for its most recent failure, and its queue emptied
// so that the next failure is not mixed with this one.
std::string libraryError(const char* what) {
  std::string text = what;
  unsigned long code = ERR_get_error();
  if (code != 0) {
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof buffer);
    text += ": ";
    text += buffer;
  }
  ERR_clear_error();
  return text;
}

const unsigned char* bytes(std::string_view s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

std::shared_ptr<EVP_PKEY> share(EVP_PKEY* key) {
  return std::shared_ptr<EVP_PKEY>(key, &EVP_PKEY_free);
}

std::string rawKey(const EVP_PKEY* key, bool isPrivate) {
  std::string out(kKeyBytes, '\0');
  std::size_t length = out.size();
  auto* buffer = reinterpret_cast<unsigned char*>(out.data());
  int ok = isPrivate ? EVP_PKEY_get_raw_private_key(key, buffer, &length)
                     : EVP_PKEY_get_raw_public_key(key, buffer, &length);
  if (ok != 1 || length != kKeyBytes) throw Ed25519Error(libraryError("clave Ed25519 ilegible"));
  return out;
}

}  // namespace

bool Ed25519Algorithm::verify(std::string_view signature, std::string_view message,
                              std::string_view publicKey) const {
  if (publicKey.size() != kKeyBytes || signature.size() != kSignatureBytes) return false;
  // Under a small-order or non-canonical key a forged signature verifies for
  // any message; such a key verifies nothing here.
  if (ed25519KeyWeakness(publicKey)) return false;
  PKeyPtr key(
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, bytes(publicKey), publicKey.size()),
      &EVP_PKEY_free);
  MDContextPtr context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  bool good = key && context &&
              EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
              EVP_DigestVerify(context.get(), bytes(signature), signature.size(), bytes(message),
                               message.size()) == 1;
  // A refusal leaves entries on the thread's error queue; they mean nothing
  // to anyone after this answer.
  if (!good) ERR_clear_error();
  return good;
}

Ed25519IdentityKey::Ed25519IdentityKey() {
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  if (key == nullptr) throw Ed25519Error(libraryError("no se pudo generar una clave Ed25519"));
  key_ = share(key);
}

Ed25519IdentityKey::Ed25519IdentityKey(std::string_view rawRepresentation) {
  if (rawRepresentation.size() != kKeyBytes) {
    throw Ed25519Error("clave privada Ed25519 de " + std::to_string(rawRepresentation.size()) +
                       " bytes (se esperan 32)");
  }
  EVP_PKEY* key = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, bytes(rawRepresentation),
                                               rawRepresentation.size());
  if (key == nullptr) throw Ed25519Error(libraryError("clave privada Ed25519 no válida"));
  key_ = share(key);
}

std::string Ed25519IdentityKey::rawRepresentation() const { return rawKey(key_.get(), true); }

std::string Ed25519IdentityKey::rawPublicKey() const { return rawKey(key_.get(), false); }

std::string Ed25519IdentityKey::publicKeyBase64() const { return base64Encode(rawPublicKey()); }

std::string Ed25519IdentityKey::sign(std::string_view message) const {
  MDContextPtr context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  std::string signature(kSignatureBytes, '\0');
  std::size_t length = signature.size();
  bool ok = context &&
            EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get()) == 1 &&
            EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()),
                           &length, bytes(message), message.size()) == 1 &&
            length == kSignatureBytes;
  if (!ok) throw Ed25519Error(libraryError("no se pudo firmar con Ed25519"));
  return signature;
}

Ed25519KeyPair::Ed25519KeyPair(std::string keyId) : keyId_(std::move(keyId)) {}

Ed25519KeyPair::Ed25519KeyPair(std::string_view rawPrivateKey, std::string keyId)
    : key_(rawPrivateKey), keyId_(std::move(keyId)) {}

std::string Ed25519KeyPair::rawPrivateKeyBase64() const {
  return base64Encode(key_.rawRepresentation());
}

VendorKey Ed25519KeyPair::vendorKey() const { return VendorKey{keyId_, key_.publicKeyBase64()}; }

VendorSignature Ed25519KeyPair::sign(std::string_view message) const {
  return VendorSignature{keyId_, std::string(VendorSignature::ed25519),
                         base64Encode(key_.sign(message))};
}

}  // namespace tarskel
