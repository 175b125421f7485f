#pragma once

// The macOS adapter of the code-signing services (built on Apple only): each
// operation is the Security framework call it is named after, with the same
// flags and statuses, and code objects hold one reference each to a
// SecStaticCodeRef, SecCodeRef or SecRequirementRef.

#include "tarskel/codesign/CodeSignPlatform.hpp"

namespace tarskel {

class DarwinCodeSignPlatform final : public CodeSignPlatform {
 public:
  CodeResult staticCodeForPath(const std::string& path) const override;
  CodeResult guestCodeForPid(std::int32_t pid) const override;
  CodeResult staticCodeOf(const CodeObject& runningCode) const override;
  CodeRef compileRequirement(std::string_view text) const override;
  OSStatus checkValidity(const CodeObject& staticCode, std::uint32_t flags,
                         const CodeObject* requirement) const override;
  SigningInformation copySigningInformation(const CodeObject& staticCode,
                                            std::uint32_t flags) const override;
  // SecCodeCreateWithXPCMessage(origin.xpcMessage, flags 0); without a
  // message, errSecCSInvalidObjectRef and no object.
  CodeResult senderCode(const MessageOrigin& origin) const override;

  // Takes over one reference to a Security object (a CFTypeRef, such as the
  // SecCodeRef that SecCodeCreateWithXPCMessage gives) so that it can be
  // handed to the operations above. Nothing for a null reference.
  static CodeRef adopt(const void* object);
};

}  // namespace tarskel
