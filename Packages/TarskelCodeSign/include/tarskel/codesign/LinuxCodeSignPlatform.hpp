#pragma once

// The Linux adapter of the code-signing services (built on Linux only).
//
// Linux has no operating-system code signature; the platform's own vendor
// seal stands in for it. Static code is signed for team T when
//   - the file and every directory from "/" down to it are root's and not
//     writable by group or others (a sticky world-writable directory is not
//     safe either);
//   - the nearest directory above it holding vendor/manifest.json and
//     vendor/manifest.sig (as `tarskel vendor seal` writes them) is a tree
//     whose manifest lists the file's path with its exact SHA-256;
//   - that manifest's signature verifies under the code key whose keyId is
//     T (vendor/code-keys.json); the manifest's expiry and version play no
//     part, as a signature on macOS stays good after its certificate ends.
// The identifier is the manifest's artifactId. The requirement text is not
// parsed: the code keys are the anchor it stands for.
//
// Running code is more: the process must be that file alone, which is what
// the hardened runtime gives on macOS. It runs in our user namespace; it is
// not dumpable unless root's, so nobody of its user can attach to it or
// write its memory; no thread of it is traced; its environment at exec held
// no variable through which the loader brings in other code (LD_PRELOAD,
// LD_LIBRARY_PATH, LD_AUDIT and every other LD_*, GCONV_PATH,
// GLIBC_TUNABLES); all its executable memory is mapped from files that are
// root's alone, unchanged in memory (the vDSO aside). What a process passed
// is remembered for its program image (see ProcessImage.hpp): only an exec
// or its own code can change it then, and an exec is seen.
//
// Statuses, with a reason in words beside the status of a validity check:
//   errSecCSStaticCodeNotFound  a path that names no regular file;
//   errSecCSNoSuchCode          a process that does not exist or has gone;
//   errSecCSGuestInvalid        a process that is not its file alone, or
//                               whose executable can't be read;
//   errSecCSReqFailed           no code keys, a key not among them, or a
//                               path not root's alone;
//   errSecCSUnsigned            no sealed tree, or a manifest that doesn't
//                               list the file;
//   errSecCSSignatureFailed     a seal that can't be read or doesn't verify,
//                               or a file whose hash differs;
//   errSecCSInvalidObjectRef    an object of another platform, or a
//                               descriptor that is not a pidfd.
//
// Threads: any thread. The caches (hashes by file identity, signers by path
// and identity, passed program images by pid) are locked and bounded.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tarskel/codesign/CodeSignPlatform.hpp"
#include "tarskel/protocol/base/Logger.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"

namespace tarskel {

class LinuxCodeSignPlatform final : public CodeSignPlatform {
 public:
  // Anchored to `codeKeys`; without them nothing is signed
  // (errSecCSReqFailed), which is what system() answers.
  explicit LinuxCodeSignPlatform(std::optional<VendorAllowlist> codeKeys = std::nullopt);

  // The platform of a daemon rooted at `root`: the code keys of
  // <root>/vendor/code-keys.json (CodeKeys::loadIfPresent, which logs a
  // broken file through `logger`).
  static std::shared_ptr<const LinuxCodeSignPlatform> anchoredAt(const std::filesystem::path& root,
                                                                 const Logger& logger);

  CodeResult staticCodeForPath(const std::string& path) const override;
  CodeResult guestCodeForPid(std::int32_t pid) const override;
  // The process through the descriptor of its /proc directory: a process
  // that has gone reads nothing there, and no liveness check is needed.
  std::optional<CodeResult> guestCodeInProcDirectory(int procDir, std::int32_t pid) const override;
  CodeResult staticCodeOf(const CodeObject& runningCode) const override;
  CodeRef compileRequirement(std::string_view text) const override;
  OSStatus checkValidity(const CodeObject& staticCode, std::uint32_t flags,
                         const CodeObject* requirement) const override;
  Validity checkValidityWithReason(const CodeObject& staticCode, std::uint32_t flags,
                                   const CodeObject* requirement) const override;
  // A dictionary whose team is the signing key's id when the seal holds, and
  // without a team otherwise.
  SigningInformation copySigningInformation(const CodeObject& staticCode,
                                            std::uint32_t flags) const override;
  // guestCodeForPidfd(origin.pidfd): the pid alone is never trusted.
  CodeResult senderCode(const MessageOrigin& origin) const override;

  // The running code of the process a pidfd refers to (such as the one a
  // socket gives for its peer). The descriptor is borrowed, not closed. A
  // process that has gone, even one whose pid was reused since, gives
  // errSecCSNoSuchCode.
  CodeResult guestCodeForPidfd(int pidfd) const;

  // What the seal says of static code of this platform, when it holds.
  struct SealedIdentity {
    std::string team;
    std::string identifier;  // the manifest's artifactId
    std::string treeRoot;
  };
  std::optional<SealedIdentity> sealedIdentity(const CodeObject& staticCode) const;

  // The executable file a code object of this platform stands for; empty
  // for a requirement or an object of another platform.
  static std::string executablePath(const CodeObject& code);

  // The adapter's caches; opaque.
  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace tarskel
