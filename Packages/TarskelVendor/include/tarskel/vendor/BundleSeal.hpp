#pragma once

// Binds a directory tree to a signature. `seal` hashes every content file and
// writes a signed hash manifest into <bundle>/vendor; `verify` proves that a
// tree is exactly what its manifest says, under a key of an allowlist.
//
// Content is every regular file under the root except what lies in the
// top-level "vendor" directory, which holds the seal and is never covered by
// it. A symbolic link (even dangling) or any other non-regular entry in the
// content refuses the whole tree; directories are not listed, so an empty one
// leaves no trace. Modes, owners, dates and extended attributes are not covered.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/base/WorkBudget.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"
#include "tarskel/protocol/vendor/VendorVerification.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace tarskel {

// A finding of the seal. A value: equal when kind and payload are.
class SealError : public Error {
 public:
  // In declared order.
  enum class Kind {
    unreadableManifest,
    fileMissing,
    hashMismatch,
    unexpectedFile,
    notRegularFile,
    verification,
    tooLarge,
  };

  static SealError unreadableManifest(std::string text);
  static SealError fileMissing(std::string path);
  static SealError hashMismatch(std::string path);
  static SealError unexpectedFile(std::string path);
  static SealError notRegularFile(std::string path);
  static SealError verification(std::vector<VendorVerificationError> errors);
  // A manifest or a content tree beyond what any sealed tree may hold; the
  // text says which bound.
  static SealError tooLarge(std::string text);

  Kind kind() const { return kind_; }
  // The relative path, or for unreadableManifest the underlying error's text.
  const std::string& detail() const { return detail_; }
  // For verification: every reason, in the order VendorVerification gave them.
  const std::vector<VendorVerificationError>& verificationErrors() const { return errors_; }

  friend bool operator==(const SealError& a, const SealError& b);

 private:
  SealError(Kind kind, std::string detail, std::string description);

  Kind kind_;
  std::string detail_;
  std::vector<VendorVerificationError> errors_;
};

// How content files are hashed. Results and the failure reported never
// depend on these settings.
struct SealHashing {
  // Threads that hash files at once, the caller's included; 0 means one per
  // hardware thread.
  unsigned threads = 0;
  // Told (files done, files in all) as files are hashed. Called from the
  // hashing threads, never two calls at once; it must not throw.
  std::function<void(std::size_t, std::size_t)> progress = nullptr;
  // When set, every content entry walked and every byte hashed is charged to
  // it, and its WorkAbandoned ends the work as the failure of the file it
  // struck. Not owned; it must outlive the call.
  WorkBudget* budget = nullptr;
};

namespace BundleSeal {

inline constexpr std::string_view vendorDir = "vendor";
inline constexpr std::string_view manifestFile = "vendor/manifest.json";
inline constexpr std::string_view signatureFile = "vendor/manifest.sig";

// What a sealed tree may hold. They keep the memory that any tree costs to
// seal or verify to a few tens of megabytes, whatever lies in it: the
// manifest is refused by its size before it is decoded and by its number of
// entries before anything else is done with it, and the walk of the content
// stops at its bound instead of gathering every name first.
inline constexpr std::size_t maxManifestBytes = std::size_t{8} << 20;
inline constexpr std::size_t maxFiles = 65'536;

// The relative paths ("/"-separated) of the content files under `bundleAt`,
// sorted by the Unicode scalar values of their NFC form. A root that does not exist has no content;
// a directory that can't be opened is passed over. Throws SealError::notRegularFile for a symbolic
// link or special file in the content, and std::filesystem::filesystem_error when an entry's type
// can't be read. `bundleAt` may end in "/" or hold "..": the paths are the same.
// Throws SealError::tooLarge "el contenido supera el tope de 65536 entradas"
// as soon as the walk meets more entries (files and directories) than
// maxFiles, and `budget`'s WorkAbandoned when it is spent.
std::vector<std::string> contentEntries(const std::filesystem::path& bundleAt,
                                        WorkBudget* budget = nullptr);

// Hashes the content, writes <bundle>/vendor/manifest.json (the manifest in
// canonical bytes, no line end) and <bundle>/vendor/manifest.sig (the
// signature of exactly those bytes), replacing any earlier seal, and returns
// the manifest, whose files are in contentEntries order. Throws SealError
// from contentEntries, and EncodingError naming (with its bad bytes escaped)
// a content file whose name is not valid UTF-8, before anything is written;
// errors of reading, encoding (EncodingError), signing
// (Ed25519Error) and writing (std::filesystem::filesystem_error) go out as
// they are, possibly leaving a manifest without its signature.
HashManifest seal(const std::filesystem::path& bundleAt, std::string artifactId,
                  ArtifactType artifactType, std::string version, std::int64_t monotonicVersion,
                  Date expires, const Ed25519KeyPair& keyPair,
                  std::optional<std::map<std::string, std::string>> metadata,
                  const SealHashing& hashing = {});

// The manifest of `bundleAt` once proved; otherwise the first failure:
//  - SealError::unreadableManifest when the manifest or signature file can't
//    be read or decoded;
//  - SealError::tooLarge for a manifest file above maxManifestBytes (no more
//    than that is ever read) or listing more than maxFiles entries;
//  - SealError::verification with every reason VendorVerification gives
//    (signature, expiry, anti-rollback); no content is touched before this
//    passes;
//  - what contentEntries throws;
//  - fileMissing / hashMismatch for the first bad entry in manifest order (a
//    path outside the present content, such as one with ".." or under
//    "vendor/", is missing and never read);
//  - unexpectedFile naming the first, in sorted order, of the content files
//    the manifest does not list;
//  - std::filesystem::filesystem_error when a listed, present file can't be
//    read.
// Has no side effects on the tree.
HashManifest verify(const std::filesystem::path& bundleAt, const VendorVerification& verification,
                    const VendorAllowlist& allowlist,
                    std::optional<std::int64_t> installedMonotonic, bool allowDowngrade,
                    const SealHashing& hashing = {});

}  // namespace BundleSeal
}  // namespace tarskel
