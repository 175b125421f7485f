#include "tarskel/protocol/vendor/HashManifest.hpp"

#include <algorithm>
#include <array>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

using Encoding = std::array<unsigned char, 32>;

// The points of order 1, 2, 4 and 8, as they are encoded, and the two
// encodings of x = 0 with the sign bit set that lenient decoders accept.
constexpr std::array<Encoding, 10> kSmallOrder{{
    {0x01},  // (0, 1), the identity
    {0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
     0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80},
    {0xec, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
     0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
     0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f},
    {0xec, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
     0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
     0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
    {0x00},  // y = 0: order 4
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
     0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80},
    {0x26, 0xe8, 0x95, 0x8f, 0xc2, 0xb2, 0x27, 0xb0, 0x45, 0xc3, 0xf4,
     0x89, 0xf2, 0xef, 0x98, 0xf0, 0xd5, 0xdf, 0xac, 0x05, 0xd3, 0xc6,
     0x33, 0x39, 0xb1, 0x38, 0x02, 0x88, 0x6d, 0x53, 0xfc, 0x05},
    {0x26, 0xe8, 0x95, 0x8f, 0xc2, 0xb2, 0x27, 0xb0, 0x45, 0xc3, 0xf4,
     0x89, 0xf2, 0xef, 0x98, 0xf0, 0xd5, 0xdf, 0xac, 0x05, 0xd3, 0xc6,
     0x33, 0x39, 0xb1, 0x38, 0x02, 0x88, 0x6d, 0x53, 0xfc, 0x85},
    {0xc7, 0x17, 0x6a, 0x70, 0x3d, 0x4d, 0xd8, 0x4f, 0xba, 0x3c, 0x0b,
     0x76, 0x0d, 0x10, 0x67, 0x0f, 0x2a, 0x20, 0x53, 0xfa, 0x2c, 0x39,
     0xcc, 0xc6, 0x4e, 0xc7, 0xfd, 0x77, 0x92, 0xac, 0x03, 0x7a},
    {0xc7, 0x17, 0x6a, 0x70, 0x3d, 0x4d, 0xd8, 0x4f, 0xba, 0x3c, 0x0b,
     0x76, 0x0d, 0x10, 0x67, 0x0f, 0x2a, 0x20, 0x53, 0xfa, 0x2c, 0x39,
     0xcc, 0xc6, 0x4e, 0xc7, 0xfd, 0x77, 0x92, 0xac, 0x03, 0xfa},
}};

// y is the low 255 bits, little-endian; p = 2^255 - 19. So y >= p exactly
// when bits 8..254 are all ones and the lowest byte is at least 0xed.
bool isNonCanonical(const unsigned char* key) {
  if (key[0] < 0xed || (key[31] & 0x7f) != 0x7f) return false;
  return std::all_of(key + 1, key + 31, [](unsigned char b) { return b == 0xff; });
}

}  // namespace

std::optional<std::string> ed25519KeyWeakness(std::string_view raw) {
  if (raw.size() != 32) return std::nullopt;
  const auto* key = reinterpret_cast<const unsigned char*>(raw.data());
  if (isNonCanonical(key)) return "codificación no canónica (y ≥ p)";
  for (const Encoding& point : kSmallOrder) {
    if (std::equal(point.begin(), point.end(), key)) return "punto de orden pequeño";
  }
  return std::nullopt;
}

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
  VendorAllowlist list{d.required<std::int64_t>("revision"),
                       d.required<std::vector<VendorKey>>("keys")};
  const CodingPath keysPath(d.path(), "keys");
  for (std::size_t i = 0; i < list.keys.size(); ++i) {
    const VendorKey& key = list.keys[i];
    // A key that is not base64 stays as it is: its signatures never verify.
    const std::optional<std::string> raw = base64Decode(key.publicKey);
    const std::optional<std::string> weakness = raw ? ed25519KeyWeakness(*raw) : std::nullopt;
    if (weakness) {
      const CodingPath keyPath(keysPath, i);
      coding_detail::dataCorrupted(CodingPath(keyPath, "publicKey"),
                                   "clave vendor '" + key.keyId + "' rechazada: " + *weakness);
    }
  }
  return list;
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
