#pragma once

// The records of the vendor gate: what a delivered tree claims to be, who may
// sign that claim, and how the list of signers is replaced.
//
// All are plain immutable values with a JSON shape (keys equal field names;
// unknown keys are ignored when decoding; every key is required unless the
// field is optional). Integer fields are read exactly, never through a double.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/json/JSONCoding.hpp"

namespace tarskel {

// What a sealed artefact is. Any other spelling fails decoding.
enum class ArtifactType { service, platform };

template <>
struct JSONEnum<ArtifactType> {
  static constexpr std::array<std::pair<ArtifactType, std::string_view>, 2> cases{{
      {ArtifactType::service, "service"},
      {ArtifactType::platform, "platform"},
  }};
};

// The list of every content file of a bundle with its SHA-256, plus the
// identity, version, anti-rollback number and expiry of the artefact.
struct HashManifest {
  struct FileEntry {
    std::string path;    // relative to the bundle's root, "/" as separator
    std::string sha256;  // 64 lower-case hexadecimal characters

    void encode(KeyedEncoder& e) const;
    static FileEntry decode(const KeyedDecoder& d);
    friend bool operator==(const FileEntry&, const FileEntry&) = default;
  };

  std::string artifactId;
  ArtifactType artifactType = ArtifactType::service;
  std::string version;                // as shown to people
  std::int64_t monotonicVersion = 0;  // what anti-rollback compares
  Date expires;                       // void from this instant on
  std::vector<FileEntry> files;
  std::optional<std::map<std::string, std::string>> metadata;  // left out when absent

  void encode(KeyedEncoder& e) const;
  static HashManifest decode(const KeyedDecoder& d);
  friend bool operator==(const HashManifest&, const HashManifest&) = default;
};

// A detached signature over some bytes.
struct VendorSignature {
  // The one algorithm the gate accepts.
  static constexpr std::string_view ed25519 = "ed25519";

  std::string keyId;
  std::string algorithm;
  std::string signature;  // base64 of the signature bytes

  void encode(KeyedEncoder& e) const;
  static VendorSignature decode(const KeyedDecoder& d);
  friend bool operator==(const VendorSignature&, const VendorSignature&) = default;
};

// A public key under a name chosen by whoever made it; nothing derives the
// name from the key.
struct VendorKey {
  std::string keyId;
  std::string publicKey;  // base64 of the 32 raw bytes

  void encode(KeyedEncoder& e) const;
  static VendorKey decode(const KeyedDecoder& d);
  friend bool operator==(const VendorKey&, const VendorKey&) = default;
};

// Why a raw 32-byte Ed25519 public key must never be trusted, or nothing:
//   "codificación no canónica (y ≥ p)"  y, read as the curve defines it, is
//                                        not below the field's prime;
//   "punto de orden pequeño"             the key is one of the eight points of
//                                        order dividing 8 (in any encoding).
// Under such a key a signature can be forged that verifies for any message.
// Bytes of another length give nothing: their verification simply fails.
std::optional<std::string> ed25519KeyWeakness(std::string_view raw);

// The keys a machine accepts signatures from, in order. Decoding refuses a
// list holding a key that ed25519KeyWeakness condemns (DecodingError
// dataCorrupted at keys[i].publicKey: "clave vendor '<keyId>' rechazada:
// <why>"), so that no reader of an allowlist ever trusts one.
struct VendorAllowlist {
  std::int64_t revision = 0;  // rises with each rotation
  std::vector<VendorKey> keys;

  // The first key, in list order, whose keyId equals `keyId`; or nothing.
  std::optional<VendorKey> key(std::string_view withId) const;

  // The bytes a rotation signs: this list in the canonical encoding.
  // Throws EncodingError as the encoder does.
  std::string signingPayload() const;

  void encode(KeyedEncoder& e) const;
  static VendorAllowlist decode(const KeyedDecoder& d);
  friend bool operator==(const VendorAllowlist&, const VendorAllowlist&) = default;
};

// A new allowlist signed by a key of the list it replaces.
struct VendorKeyRotation {
  VendorAllowlist newAllowlist;
  VendorSignature signature;  // over newAllowlist.signingPayload()

  void encode(KeyedEncoder& e) const;
  static VendorKeyRotation decode(const KeyedDecoder& d);
  friend bool operator==(const VendorKeyRotation&, const VendorKeyRotation&) = default;
};

}  // namespace tarskel
