#include "tarskel/protocol/vendor/VendorVerification.hpp"

#include <cmath>
#include <cstdio>
#include <utility>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
std::string formatVendorDate(Date date) {
  const UTCTime t = utcTime(date);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02u %02u:%02u:%02u +0000",
                static_cast<long long>(t.year), t.month, t.day, t.hour, t.minute, t.second);
  return buffer;
}

VendorVerificationError::VendorVerificationError(Kind kind, std::string description)
    : Error(std::move(description)), kind_(kind) {}

VendorVerificationError VendorVerificationError::unknownKey(std::string keyId) {
  VendorVerificationError e(Kind::unknownKey,
                            "keyId '" + keyId + "' no está en la allowlist vendor");
  e.text_ = std::move(keyId);
  return e;
}

VendorVerificationError VendorVerificationError::unsupportedAlgorithm(std::string algorithm) {
  VendorVerificationError e(Kind::unsupportedAlgorithm,
                            "algoritmo '" + algorithm + "' no soportado (se exige ed25519)");
  e.text_ = std::move(algorithm);
  return e;
}

VendorVerificationError VendorVerificationError::badSignature(std::string keyId) {
  VendorVerificationError e(Kind::badSignature,
                            "la firma no verifica bajo la clave '" + keyId + "'");
  e.text_ = std::move(keyId);
  return e;
}

VendorVerificationError VendorVerificationError::expired(Date expires, Date now) {
  VendorVerificationError e(Kind::expired, "manifest vencido: expiró " + formatVendorDate(expires) +
                                               ", ahora es " + formatVendorDate(now));
  e.expires_ = expires;
  e.now_ = now;
  return e;
}

VendorVerificationError VendorVerificationError::downgrade(std::int64_t installed,
                                                           std::int64_t offered) {
  VendorVerificationError e(
      Kind::downgrade, "anti-rollback: instalado monotonicVersion=" + std::to_string(installed) +
                           ", ofrecido " + std::to_string(offered));
  e.first_ = installed;
  e.second_ = offered;
  return e;
}

VendorVerificationError VendorVerificationError::rotationNotNewer(std::int64_t current,
                                                                  std::int64_t offered) {
  VendorVerificationError e(Kind::rotationNotNewer, "rotación no monotónica: revision vigente " +
                                                        std::to_string(current) + ", ofrecida " +
                                                        std::to_string(offered));
  e.first_ = current;
  e.second_ = offered;
  return e;
}

VendorVerificationError VendorVerificationError::malformedSignature() {
  return VendorVerificationError(Kind::malformedSignature, "firma malformada (base64 inválido)");
}

bool operator==(const VendorVerificationError& a, const VendorVerificationError& b) {
  return a.kind_ == b.kind_ && a.text_ == b.text_ && a.expires_ == b.expires_ && a.now_ == b.now_ &&
         a.first_ == b.first_ && a.second_ == b.second_;
}

VendorVerification::VendorVerification(std::shared_ptr<const SignatureAlgorithm> algorithm,
                                       Clock now)
    : algorithm_(std::move(algorithm)), now_(std::move(now)) {}

std::optional<VendorVerificationError> VendorVerification::verifySignature(
    std::string_view message, const VendorSignature& signature,
    const VendorAllowlist& allowlist) const {
  // The algorithm is judged before the key, so that an unsupported algorithm
  // from an unknown key is told as such.
  if (signature.algorithm != VendorSignature::ed25519) {
    return VendorVerificationError::unsupportedAlgorithm(signature.algorithm);
  }
  std::optional<VendorKey> key = allowlist.key(signature.keyId);
  if (!key) return VendorVerificationError::unknownKey(signature.keyId);
  std::optional<std::string> signatureBytes = base64Decode(signature.signature);
  if (!signatureBytes) return VendorVerificationError::malformedSignature();
  std::optional<std::string> publicKey = base64Decode(key->publicKey);
  if (!publicKey) return VendorVerificationError::malformedSignature();
  if (!algorithm_->verify(*signatureBytes, message, *publicKey)) {
    return VendorVerificationError::badSignature(signature.keyId);
  }
  return std::nullopt;
}

std::vector<VendorVerificationError> VendorVerification::verify(
    std::string_view manifestData, const HashManifest& manifest, const VendorSignature& signature,
    const VendorAllowlist& allowlist, std::optional<std::int64_t> installedMonotonic,
    bool allowDowngrade) const {
  std::vector<VendorVerificationError> errors;
  if (auto failure = verifySignature(manifestData, signature, allowlist)) {
    errors.push_back(std::move(*failure));
  }
  const Date now = now_();
  if (manifest.expires <= now) {
    errors.push_back(VendorVerificationError::expired(manifest.expires, now));
  }
  if (installedMonotonic && manifest.monotonicVersion < *installedMonotonic && !allowDowngrade) {
    errors.push_back(
        VendorVerificationError::downgrade(*installedMonotonic, manifest.monotonicVersion));
  }
  return errors;
}

VendorVerification::RotationResult VendorVerification::applyRotation(
    const VendorKeyRotation& rotation, const VendorAllowlist& current) const {
  const VendorAllowlist& offered = rotation.newAllowlist;
  if (current.revision >= offered.revision) {
    return VendorVerificationError::rotationNotNewer(current.revision, offered.revision);
  }
  std::string payload;
  try {
    payload = offered.signingPayload();
  } catch (const std::exception&) {
    return VendorVerificationError::malformedSignature();
  }
  // Only a key of the list in force may sign its successor.
  if (auto failure = verifySignature(payload, rotation.signature, current)) return *failure;
  return offered;
}

}  // namespace tarskel
