#include "tarskel/protocol/vendor/HashManifest.hpp"

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {

void HashManifest::FileEntry::encode(KeyedEncoder& e) const {
  e.required("path", path);
  e.required("sha256", sha256);
}

HashManifest::FileEntry HashManifest::FileEntry::decode(const KeyedDecoder& d) {
  return FileEntry{d.required<std::string>("path"), d.required<std::string>("sha256")};
}

void HashManifest::encode(KeyedEncoder& e) const {
  e.required("artifactId", artifactId);
  e.required("artifactType", artifactType);
  e.required("version", version);
  e.required("monotonicVersion", monotonicVersion);
  e.required("expires", expires);
  e.required("files", files);
  e.optional("metadata", metadata);
}

HashManifest HashManifest::decode(const KeyedDecoder& d) {
  HashManifest m;
  m.artifactId = d.required<std::string>("artifactId");
  m.artifactType = d.required<ArtifactType>("artifactType");
  m.version = d.required<std::string>("version");
  m.monotonicVersion = d.required<std::int64_t>("monotonicVersion");
  m.expires = d.required<Date>("expires");
  m.files = d.required<std::vector<FileEntry>>("files");
  m.metadata = d.optional<std::map<std::string, std::string>>("metadata");
  return m;
}

void VendorSignature::encode(KeyedEncoder& e) const {
  e.required("keyId", keyId);
  e.required("algorithm", algorithm);
  e.required("signature", signature);
}

VendorSignature VendorSignature::decode(const KeyedDecoder& d) {
  return VendorSignature{d.required<std::string>("keyId"), d.required<std::string>("algorithm"),
                         d.required<std::string>("signature")};
}

void VendorKey::encode(KeyedEncoder& e) const {
  e.required("keyId", keyId);
  e.required("publicKey", publicKey);
}

VendorKey VendorKey::decode(const KeyedDecoder& d) {
  return VendorKey{d.required<std::string>("keyId"), d.required<std::string>("publicKey")};
}

std::optional<VendorKey> VendorAllowlist::key(std::string_view withId) const {
  for (const VendorKey& k : keys) {
    if (k.keyId == withId) return k;
  }
  return std::nullopt;
}

std::string VendorAllowlist::signingPayload() const {
  return TarskelJSON::canonicalEncoder().encode(*this);
}

void VendorAllowlist::encode(KeyedEncoder& e) const {
  e.required("revision", revision);
  e.required("keys", keys);
}

VendorAllowlist VendorAllowlist::decode(const KeyedDecoder& d) {
  return VendorAllowlist{d.required<std::int64_t>("revision"),
                         d.required<std::vector<VendorKey>>("keys")};
}

void VendorKeyRotation::encode(KeyedEncoder& e) const {
  e.required("newAllowlist", newAllowlist);
  e.required("signature", signature);
}

VendorKeyRotation VendorKeyRotation::decode(const KeyedDecoder& d) {
  return VendorKeyRotation{d.required<VendorAllowlist>("newAllowlist"),
                           d.required<VendorSignature>("signature")};
}

}  // namespace tarskel
