#include <utility>

#include "tarskel/vendor/BundleSeal.hpp"

namespace tarskel {

SealError::SealError(Kind kind, std::string detail, std::string description)
    : Error(std::move(description)), kind_(kind), detail_(std::move(detail)) {}

SealError SealError::unreadableManifest(std::string text) {
  std::string description = "hash-manifest ilegible: " + text;
  return SealError(Kind::unreadableManifest, std::move(text), std::move(description));
}

SealError SealError::fileMissing(std::string path) {
  std::string description = "archivo del manifest ausente en el bundle: " + path;
  return SealError(Kind::fileMissing, std::move(path), std::move(description));
}

SealError SealError::hashMismatch(std::string path) {
  std::string description = "sha256 no coincide: " + path;
  return SealError(Kind::hashMismatch, std::move(path), std::move(description));
}

SealError SealError::unexpectedFile(std::string path) {
  std::string description = "archivo presente pero no listado en el manifest: " + path;
  return SealError(Kind::unexpectedFile, std::move(path), std::move(description));
}

SealError SealError::notRegularFile(std::string path) {
  std::string description = "no es un archivo regular (symlinks no permitidos): " + path;
  return SealError(Kind::notRegularFile, std::move(path), std::move(description));
}

SealError SealError::verification(std::vector<VendorVerificationError> errors) {
  std::string description = "verificación vendor: ";
  for (std::size_t i = 0; i < errors.size(); ++i) {
    if (i > 0) description += "; ";
    description += errors[i].description();
  }
  SealError e(Kind::verification, {}, std::move(description));
  e.errors_ = std::move(errors);
  return e;
}

SealError SealError::tooLarge(std::string text) {
  std::string description = text;
  return SealError(Kind::tooLarge, std::move(text), std::move(description));
}

bool operator==(const SealError& a, const SealError& b) {
  return a.kind_ == b.kind_ && a.detail_ == b.detail_ && a.errors_ == b.errors_;
}

}  // namespace tarskel
