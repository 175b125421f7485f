#include "tarskel/protocol/vendor/VendorVerification.hpp"

#include <cmath>
#include <cstdio>
#include <utility>

#include "tarskel/protocol/Base64.hpp"
#include "tarskel/protocol/TarskelJSON.hpp"

namespace tarskel {
namespace {

struct CivilDate {
  std::int64_t year;
  unsigned month;
  unsigned day;
};

// Proleptic Gregorian date of a count of days since 1970-01-01.
CivilDate civilFromDays(std::int64_t days) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned mp = (5 * dayOfYear + 2) / 153;
  const unsigned day = dayOfYear - (153 * mp + 2) / 5 + 1;
  const unsigned month = mp < 10 ? mp + 3 : mp - 9;
  const std::int64_t year = static_cast<std::int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
  return {year, month, day};
}

}  // namespace

std::string formatVendorDate(Date date) {
  // Beyond ±10^15 s (some 30 million years) the text has no meaning left;
  // the bound keeps every step inside 64-bit integers.
  constexpr double kLimit = 1e15;
  double unix = std::floor(date.unixTime());
  if (std::isnan(unix)) unix = 0;
  if (unix > kLimit) unix = kLimit;
  if (unix < -kLimit) unix = -kLimit;
  const auto seconds = static_cast<std::int64_t>(unix);
  std::int64_t days = seconds / 86400;
  std::int64_t secondOfDay = seconds % 86400;
  if (secondOfDay < 0) {
    secondOfDay += 86400;
    days -= 1;
  }
  const CivilDate civil = civilFromDays(days);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02u %02lld:%02lld:%02lld +0000",
                static_cast<long long>(civil.year), civil.month, civil.day,
                static_cast<long long>(secondOfDay / 3600),
                static_cast<long long>(secondOfDay / 60 % 60),
                static_cast<long long>(secondOfDay % 60));
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
  VendorVerificationError e(Kind::downgrade, "anti-rollback: instalado monotonicVersion=" +
                                                 std::to_string(installed) + ", ofrecido " +
                                                 std::to_string(offered));
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
  return a.kind_ == b.kind_ && a.text_ == b.text_ && a.expires_ == b.expires_ &&
         a.now_ == b.now_ && a.first_ == b.first_ && a.second_ == b.second_;
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
