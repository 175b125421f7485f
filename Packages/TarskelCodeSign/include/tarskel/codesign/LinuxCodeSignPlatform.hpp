#pragma once

// The Linux adapter of the code-signing services (built on Linux only).
//
// Linux has no operating-system code signature. Code objects here name an
// executable file: static code holds the path it was made from, running code
// the process id and the executable that /proc/<pid>/exe pointed to when it
// was made. Every validity check answers errSecCSUnsigned, so a provisioned
// gate fails closed at signatureInvalid; the signing information of any code
// is a dictionary without a team.
//
// Statuses of its own: a path that names nothing gives
// errSecCSStaticCodeNotFound; a process that does not exist (or has gone)
// gives errSecCSNoSuchCode; a process whose executable can't be read gives
// errSecCSGuestInvalid; an object made by another platform, or a descriptor
// that is not a pidfd, gives errSecCSInvalidObjectRef.

#include "tarskel/codesign/CodeSignPlatform.hpp"

namespace tarskel {

class LinuxCodeSignPlatform final : public CodeSignPlatform {
 public:
  CodeResult staticCodeForPath(const std::string& path) const override;
  CodeResult guestCodeForPid(std::int32_t pid) const override;
  // readlinkat(procDir, "exe"): no liveness check is needed afterwards.
  std::optional<CodeResult> guestCodeInProcDirectory(int procDir, std::int32_t pid) const override;
  CodeResult staticCodeOf(const CodeObject& runningCode) const override;
  CodeRef compileRequirement(std::string_view text) const override;
  OSStatus checkValidity(const CodeObject& staticCode, std::uint32_t flags,
                         const CodeObject* requirement) const override;
  SigningInformation copySigningInformation(const CodeObject& staticCode,
                                            std::uint32_t flags) const override;
  // guestCodeForPidfd(origin.pidfd): the pid alone is never trusted.
  CodeResult senderCode(const MessageOrigin& origin) const override;

  // The running code of the process a pidfd refers to (such as the one a
  // socket gives for its peer), resolved through /proc/<pid>/exe now. The
  // descriptor is borrowed, not closed. Because a pidfd pins its process
  // rather than a number, a process that has gone, even one whose pid was
  // reused since, gives errSecCSNoSuchCode.
  CodeResult guestCodeForPidfd(int pidfd) const;

  // The executable file a code object of this platform stands for; empty
  // for a requirement or an object of another platform.
  static std::string executablePath(const CodeObject& code);
};

}  // namespace tarskel
