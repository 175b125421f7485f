#pragma once

// How a control-centre command is signed, and the check a link process runs
// before it acts on one.
//
// A command's `sig` names the key and carries an Ed25519 signature over the
// command's signingPayload():
//
//   sig := key-id ":" base64(signature)
//
// key-id is a keyId of a vendor allowlist (the same record as the update
// allowlist; it may itself hold ":" — the text splits at its last colon, which
// base64 never holds), and the signature is the 64 raw bytes in strict
// base64. The key id isn't covered by the signature, and needn't be: a
// different id picks a different key, under which the signature fails.
//
// Everything here is a pure function of its arguments and may be called from
// any thread.

#include <optional>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/cc/CCCommand.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace tarskel {

// Why a command is refused. The text is what() / description().
class CCCommandSignatureError : public Error {
 public:
  enum class Kind {
    malformedSignature,  // sig isn't key-id ":" base64 of 64 bytes
    unknownKey,          // the key id isn't in the allowlist
    badKey,              // the allowlist's entry isn't a valid public key
    badSignature,        // the signature doesn't verify under the key
    expired,             // the clock is past the deadline
  };

  static CCCommandSignatureError malformedSignature();
  static CCCommandSignatureError unknownKey(const std::string& keyId);
  static CCCommandSignatureError badKey(const std::string& keyId);
  static CCCommandSignatureError badSignature(const std::string& keyId);
  static CCCommandSignatureError expired(Date deadline, Date now);

  Kind kind() const { return kind_; }

 private:
  CCCommandSignatureError(Kind kind, std::string description);
  Kind kind_;
};

struct CCCommandSignature {
  std::string keyId;
  std::string signature;  // the 64 raw bytes

  // Nothing unless `sig` is key-id ":" strict base64 of exactly 64 bytes,
  // with a key id that isn't empty.
  static std::optional<CCCommandSignature> parse(std::string_view sig);
  std::string text() const;

  // The sig for `command` under `key`, whatever `command.sig` holds now.
  // Throws EncodingError (a payload JSON can't hold) or Ed25519Error.
  static std::string sign(const CCCommand& command, const Ed25519KeyPair& key);

  // Checks, in this order and stopping at the first failure, that the sig
  // verifies under its key of `allowlist`, and that `now` is not past the
  // deadline as signed (to the whole second: the deadline's own second is
  // still in time). Returns the key that verified. Throws
  // CCCommandSignatureError, or EncodingError for a payload JSON can't hold.
  static VendorKey verify(const CCCommand& command, const VendorAllowlist& allowlist, Date now);
};

}  // namespace tarskel
