#pragma once

// The judgement of the vendor gate, free of disk and of cryptography: bytes
// come from the caller, the signature primitive through SignatureAlgorithm,
// and the clock as a function.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tarskel/protocol/base/Clock.hpp"
#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"

namespace tarskel {

// A signature primitive. Implementations must be safe to call from several
// threads at once.
class SignatureAlgorithm {
 public:
  virtual ~SignatureAlgorithm() = default;

  // True only when `signature` is good for `message` under `publicKey` (all
  // raw bytes). Never throws: bad input of any kind, such as a key or a
  // signature of the wrong length, is false.
  virtual bool verify(std::string_view signature, std::string_view message,
                      std::string_view publicKey) const = 0;
};

// One reason why a manifest or a rotation is refused. A value: two errors are
// equal when kind and payload are. The text is what() / description().
class VendorVerificationError : public Error {
 public:
  // In declared order.
  enum class Kind {
    unknownKey,
    unsupportedAlgorithm,
    badSignature,
    expired,
    downgrade,
    rotationNotNewer,
    malformedSignature,
  };

  static VendorVerificationError unknownKey(std::string keyId);
  static VendorVerificationError unsupportedAlgorithm(std::string algorithm);
  static VendorVerificationError badSignature(std::string keyId);
  static VendorVerificationError expired(Date expires, Date now);
  static VendorVerificationError downgrade(std::int64_t installed, std::int64_t offered);
  static VendorVerificationError rotationNotNewer(std::int64_t current, std::int64_t offered);
  static VendorVerificationError malformedSignature();

  Kind kind() const { return kind_; }
  // keyId for unknownKey and badSignature, the algorithm for unsupportedAlgorithm.
  const std::string& text() const { return text_; }
  // expired: the manifest's expiry and the clock's reading.
  Date expires() const { return expires_; }
  Date now() const { return now_; }
  // downgrade: installed and offered; rotationNotNewer: current and offered.
  std::int64_t installedOrCurrent() const { return first_; }
  std::int64_t offered() const { return second_; }

  friend bool operator==(const VendorVerificationError& a, const VendorVerificationError& b);

 private:
  VendorVerificationError(Kind kind, std::string description);

  Kind kind_;
  std::string text_;
  Date expires_;
  Date now_;
  std::int64_t first_ = 0;
  std::int64_t second_ = 0;
};

// "2026-01-02 03:04:05 +0000": UTC, to the second (the fraction is dropped
// towards the past), as dates appear in the gate's texts.
std::string formatVendorDate(Date date);

// Decides whether a manifest or a rotation is acceptable. A plain value:
// copies share the (immutable) algorithm. Safe for use from several threads
// as long as the algorithm and the clock are.
class VendorVerification {
 public:
  using Clock = tarskel::Clock;
  // Either the allowlist that is now in force, or the first reason of refusal.
  using RotationResult = std::variant<VendorAllowlist, VendorVerificationError>;

  // `algorithm` must not be null; `now` must be callable from any thread.
  VendorVerification(std::shared_ptr<const SignatureAlgorithm> algorithm, Clock now);

  const SignatureAlgorithm& algorithm() const { return *algorithm_; }
  Date now() const { return now_(); }

  // Every reason to refuse the manifest, in this order: the signature over
  // `manifestData` (the bytes exactly as they lay on disk; `manifest` is their
  // decoded form, read only for expiry and version), then expiry (reads the
  // clock once; the instant of expiry is already expired), then anti-rollback
  // (only when `installedMonotonic` is given and `allowDowngrade` is false).
  // Empty means accepted. Never throws.
  std::vector<VendorVerificationError> verify(std::string_view manifestData,
                                              const HashManifest& manifest,
                                              const VendorSignature& signature,
                                              const VendorAllowlist& allowlist,
                                              std::optional<std::int64_t> installedMonotonic,
                                              bool allowDowngrade) const;

  // The rotation's new list when its revision is strictly higher than the
  // current one and it is signed, over its canonical bytes, by a key of
  // `current`; otherwise the first failure. Pure: nothing is persisted.
  // Never throws.
  RotationResult applyRotation(const VendorKeyRotation& rotation,
                               const VendorAllowlist& current) const;

 private:
  std::optional<VendorVerificationError> verifySignature(std::string_view message,
                                                         const VendorSignature& signature,
                                                         const VendorAllowlist& allowlist) const;

  std::shared_ptr<const SignatureAlgorithm> algorithm_;
  Clock now_;
};

}  // namespace tarskel
