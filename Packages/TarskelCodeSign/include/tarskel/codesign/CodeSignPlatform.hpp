#pragma once

// The operating system's code-signing services, as the verifier and the
// daemon's peer gate need them. Each operation stands for one call of the
// platform's Security interface and answers its status the way that call
// does: 0 for success, a negative OSStatus otherwise.
//
// Implementations: the system's (one per platform, chosen at build time and
// reached through CodeSignPlatform::system()) and, for tests only, the fake
// in the TarskelCodeSignTesting library. On Linux the signature is the
// platform's own vendor seal over the tree that holds the executable
// (LinuxCodeSignPlatform.hpp).
//
// Threads: any thread may call every operation. What implementations keep
// (the Linux adapter's caches, the fake's call log) is locked. Calls may
// block on file reads and signature checks.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/Logger.hpp"

namespace tarskel {

// Signed 32-bit status of a Security call, printed in decimal in messages.
using OSStatus = std::int32_t;

// The statuses this code answers itself (values of the Security framework).
namespace CodeSignStatus {
inline constexpr OSStatus errSecCSReqFailed = -67050;
inline constexpr OSStatus errSecCSSignatureFailed = -67061;
inline constexpr OSStatus errSecCSUnsigned = -67062;
inline constexpr OSStatus errSecCSGuestInvalid = -67063;
inline constexpr OSStatus errSecCSNoSuchCode = -67065;
inline constexpr OSStatus errSecCSStaticCodeNotFound = -67068;
inline constexpr OSStatus errSecCSInvalidObjectRef = -67071;
}  // namespace CodeSignStatus

// Flags of the calls, as the Security framework spells them.
inline constexpr std::uint32_t kSecCSDefaultFlags = 0;
inline constexpr std::uint32_t kSecCSCheckAllArchitectures = 1;
inline constexpr std::uint32_t kSecCSSigningInformation = 2;

// A platform object: static code (code on disk), running code (a process) or
// a compiled requirement. Opaque; only the platform that made it can use it.
// Released when the last holder lets go.
class CodeObject {
 public:
  virtual ~CodeObject() = default;

 protected:
  CodeObject() = default;
  CodeObject(const CodeObject&) = default;
  CodeObject& operator=(const CodeObject&) = default;
};

using CodeRef = std::shared_ptr<const CodeObject>;

// A call that makes an object: its status and, maybe, the object. Callers
// treat a nonzero status and a missing object alike.
struct CodeResult {
  OSStatus status = 0;
  CodeRef code;
};

// What the signing-information call gave back, reduced to what the check
// reads: the call's status, the shape of its result, and the team
// identifier entry of the dictionary.
struct SigningInformation {
  enum class Result { none, notDictionary, dictionary };
  enum class Team { absent, notString, string };

  OSStatus status = 0;
  Result result = Result::none;
  Team team = Team::absent;
  std::string teamIdentifier;  // set when team == Team::string
};

// The sender of one message, as its transport pinned it: the XPC message
// itself on macOS, a pidfd of the peer taken at accept on Linux, and the
// process id where the transport knows one. Borrowed, not owned.
struct MessageOrigin {
  std::int32_t pid = 0;
  int pidfd = -1;
  const void* xpcMessage = nullptr;  // an xpc_object_t dictionary
};

class CodeSignPlatform {
 public:
  virtual ~CodeSignPlatform() = default;

  // The platform's own adapter; lives as long as the process. On Linux it
  // knows no code keys, so nothing is signed there.
  static const CodeSignPlatform& system();

  // The platform's own services as a daemon rooted at `root` judges with
  // them: system() on macOS, whose anchor is Apple's; on Linux an adapter
  // anchored to the code keys of <root>/vendor/code-keys.json, read now,
  // with one line through `logger` on what was found.
  static std::shared_ptr<const CodeSignPlatform> systemAnchoredAt(const std::filesystem::path& root,
                                                                  const Logger& logger);

  // SecStaticCodeCreateWithPath(<file URL of path>, flags 0).
  virtual CodeResult staticCodeForPath(const std::string& path) const = 0;

  // SecCodeCopyGuestWithAttributes(no host, {pid}, flags 0): the running code
  // of a process.
  virtual CodeResult guestCodeForPid(std::int32_t pid) const = 0;

  // The running code that sent a message, bound to what the transport pinned
  // rather than to a process id that may be reused. macOS:
  // SecCodeCreateWithXPCMessage(message, flags 0); Linux: the pidfd's process.
  // Platforms without such a handle (a test's fake) answer
  // guestCodeForPid(origin.pid).
  virtual CodeResult senderCode(const MessageOrigin& origin) const {
    return guestCodeForPid(origin.pid);
  }

  // The running code of the process whose /proc directory `procDir` is (a
  // descriptor of it, Linux), read through that descriptor: a process that
  // has gone fails there (errSecCSNoSuchCode) and is never mistaken for one
  // that took its pid since. `pid` is that process's id. Nothing when the
  // platform has no such way (macOS, a test's fake): the caller then goes by
  // guestCodeForPid and proves the pid itself.
  virtual std::optional<CodeResult> guestCodeInProcDirectory(int /*procDir*/,
                                                             std::int32_t /*pid*/) const {
    return std::nullopt;
  }

  // SecCodeCopyStaticCode(running code, flags 0): the code on disk behind it.
  virtual CodeResult staticCodeOf(const CodeObject& runningCode) const = 0;

  // SecRequirementCreateWithString(text, flags 0). The status is not part of
  // the answer: callers never look at it. May yield no object.
  virtual CodeRef compileRequirement(std::string_view text) const = 0;

  // SecStaticCodeCheckValidity(static code, flags, requirement or none).
  virtual OSStatus checkValidity(const CodeObject& staticCode, std::uint32_t flags,
                                 const CodeObject* requirement) const = 0;

  // checkValidity() with, where the platform can say more than the status,
  // why it refused, in the system's own words (Linux); macOS gives only the
  // status, and so does this default.
  struct Validity {
    OSStatus status = 0;
    std::string reason;  // empty when the status says it all
  };
  virtual Validity checkValidityWithReason(const CodeObject& staticCode, std::uint32_t flags,
                                           const CodeObject* requirement) const {
    return {checkValidity(staticCode, flags, requirement), {}};
  }

  // SecCodeCopySigningInformation(static code, flags), with the value under
  // kSecCodeInfoTeamIdentifier.
  virtual SigningInformation copySigningInformation(const CodeObject& staticCode,
                                                    std::uint32_t flags) const = 0;

 protected:
  CodeSignPlatform() = default;
  CodeSignPlatform(const CodeSignPlatform&) = default;
  CodeSignPlatform& operator=(const CodeSignPlatform&) = default;
};

}  // namespace tarskel
