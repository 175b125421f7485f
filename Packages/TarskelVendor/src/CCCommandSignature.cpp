#include "tarskel/vendor/CCCommandSignature.hpp"

#include <cmath>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/vendor/VendorVerification.hpp"

namespace tarskel {
namespace {

constexpr std::size_t kSignatureBytes = 64;
constexpr std::size_t kPublicKeyBytes = 32;

}  // namespace

CCCommandSignatureError::CCCommandSignatureError(Kind kind, std::string description)
    : Error(std::move(description)), kind_(kind) {}

CCCommandSignatureError CCCommandSignatureError::malformedSignature() {
  return CCCommandSignatureError(
      Kind::malformedSignature,
      "firma del comando malformada: se espera '<keyId>:<base64 de 64 bytes>'");
}

CCCommandSignatureError CCCommandSignatureError::unknownKey(const std::string& keyId) {
  return CCCommandSignatureError(Kind::unknownKey, "keyId '" + keyId + "' no está en la allowlist");
}

CCCommandSignatureError CCCommandSignatureError::badKey(const std::string& keyId) {
  return CCCommandSignatureError(
      Kind::badKey, "la clave '" + keyId + "' de la allowlist no es una clave pública Ed25519");
}

CCCommandSignatureError CCCommandSignatureError::badSignature(const std::string& keyId) {
  return CCCommandSignatureError(Kind::badSignature,
                                 "la firma del comando no verifica bajo la clave '" + keyId + "'");
}

CCCommandSignatureError CCCommandSignatureError::expired(Date deadline, Date now) {
  return CCCommandSignatureError(Kind::expired, "comando vencido: deadline " +
                                                    formatVendorDate(deadline) + ", ahora es " +
                                                    formatVendorDate(now));
}

std::optional<CCCommandSignature> CCCommandSignature::parse(std::string_view sig) {
  const std::size_t colon = sig.rfind(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  const std::string_view text = sig.substr(colon + 1);
  std::optional<std::string> raw = base64Decode(text);
  if (!raw || raw->size() != kSignatureBytes) return std::nullopt;
  // Set padding bits decode to the same bytes; refused, so that a command
  // has one sig text only and text() gives it back as it came.
  if (base64Encode(*raw) != text) return std::nullopt;
  return CCCommandSignature{std::string(sig.substr(0, colon)), std::move(*raw)};
}

std::string CCCommandSignature::text() const { return keyId + ":" + base64Encode(signature); }

std::string CCCommandSignature::sign(const CCCommand& command, const Ed25519KeyPair& key) {
  const VendorSignature signature = key.sign(command.signingPayload());
  return signature.keyId + ":" + signature.signature;
}

VendorKey CCCommandSignature::verify(const CCCommand& command, const VendorAllowlist& allowlist,
                                     Date now) {
  const std::optional<CCCommandSignature> sig = parse(command.sig);
  if (!sig) throw CCCommandSignatureError::malformedSignature();
  std::optional<VendorKey> key = allowlist.key(sig->keyId);
  if (!key) throw CCCommandSignatureError::unknownKey(sig->keyId);
  const std::optional<std::string> publicKey = base64Decode(key->publicKey);
  if (!publicKey || publicKey->size() != kPublicKeyBytes)
    throw CCCommandSignatureError::badKey(sig->keyId);
  if (!Ed25519Algorithm().verify(sig->signature, command.signingPayload(), *publicKey)) {
    throw CCCommandSignatureError::badSignature(sig->keyId);
  }
  // Whole seconds on both sides, as the payload carries the deadline's second
  // only; a clock that reads NaN is past every deadline.
  if (!(std::floor(now.secondsSinceReferenceDate) <=
        std::floor(command.deadline.secondsSinceReferenceDate))) {
    throw CCCommandSignatureError::expired(command.deadline, now);
  }
  return *key;
}

}  // namespace tarskel
