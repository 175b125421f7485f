#include "tarskel/codesign/DarwinCodeSignPlatform.hpp"

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>
#include <xpc/xpc.h>

#include <cstring>
#include <string>

namespace tarskel {

namespace {

// errSecAllocate: CoreFoundation could not make an object.
constexpr OSStatus kErrSecAllocate = -108;

// Owns one reference to a CoreFoundation object.
class SecObject final : public CodeObject {
 public:
  explicit SecObject(CFTypeRef ref) : ref_(ref) {}
  ~SecObject() override {
    if (ref_ != nullptr) CFRelease(ref_);
  }
  SecObject(const SecObject&) = delete;
  SecObject& operator=(const SecObject&) = delete;

  CFTypeRef get() const { return ref_; }

 private:
  CFTypeRef ref_;
};

CodeRef wrap(CFTypeRef ref) {
  if (ref == nullptr) return nullptr;
  return std::make_shared<SecObject>(ref);
}

// The reference held by an object of this platform; null for any other.
CFTypeRef refOf(const CodeObject* object) {
  const auto* sec = dynamic_cast<const SecObject*>(object);
  return sec != nullptr ? sec->get() : nullptr;
}

std::string toUTF8(CFStringRef string) {
  if (const char* fast = CFStringGetCStringPtr(string, kCFStringEncodingUTF8)) return fast;
  CFIndex length = CFStringGetLength(string);
  CFIndex capacity = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8) + 1;
  std::string buffer(static_cast<std::size_t>(capacity), '\0');
  if (!CFStringGetCString(string, buffer.data(), capacity, kCFStringEncodingUTF8)) return {};
  buffer.resize(std::strlen(buffer.c_str()));
  return buffer;
}

}  // namespace

const CodeSignPlatform& CodeSignPlatform::system() {
  static const DarwinCodeSignPlatform platform;
  return platform;
}

CodeRef DarwinCodeSignPlatform::adopt(const void* object) { return wrap(object); }

CodeResult DarwinCodeSignPlatform::staticCodeForPath(const std::string& path) const {
  CFURLRef url = CFURLCreateFromFileSystemRepresentation(
      kCFAllocatorDefault, reinterpret_cast<const UInt8*>(path.data()),
      static_cast<CFIndex>(path.size()), false);
  if (url == nullptr) return {CodeSignStatus::errSecCSStaticCodeNotFound, nullptr};
  SecStaticCodeRef code = nullptr;
  OSStatus status = SecStaticCodeCreateWithPath(url, kSecCSDefaultFlags, &code);
  CFRelease(url);
  return {status, wrap(code)};
}

CodeResult DarwinCodeSignPlatform::guestCodeForPid(std::int32_t pid) const {
  CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &pid);
  if (number == nullptr) return {kErrSecAllocate, nullptr};
  const void* keys[] = {kSecGuestAttributePid};
  const void* values[] = {number};
  CFDictionaryRef attributes =
      CFDictionaryCreate(kCFAllocatorDefault, keys, values, 1, &kCFTypeDictionaryKeyCallBacks,
                         &kCFTypeDictionaryValueCallBacks);
  CFRelease(number);  // the dictionary holds its own reference
  // Without attributes the call would name the host's guests, not this pid.
  if (attributes == nullptr) return {kErrSecAllocate, nullptr};
  SecCodeRef code = nullptr;
  OSStatus status = SecCodeCopyGuestWithAttributes(nullptr, attributes, kSecCSDefaultFlags, &code);
  CFRelease(attributes);
  return {status, wrap(code)};
}

CodeResult DarwinCodeSignPlatform::senderCode(const MessageOrigin& origin) const {
  if (origin.xpcMessage == nullptr) return {CodeSignStatus::errSecCSInvalidObjectRef, nullptr};
  // The identity is bound to this very message, never to the connection or
  // to a process id.
  auto message = static_cast<xpc_object_t>(const_cast<void*>(origin.xpcMessage));
  SecCodeRef code = nullptr;
  const OSStatus status = SecCodeCreateWithXPCMessage(message, kSecCSDefaultFlags, &code);
  return {status, wrap(code)};
}

CodeResult DarwinCodeSignPlatform::staticCodeOf(const CodeObject& runningCode) const {
  CFTypeRef ref = refOf(&runningCode);
  if (ref == nullptr) return {CodeSignStatus::errSecCSInvalidObjectRef, nullptr};
  SecCodeRef running = static_cast<SecCodeRef>(const_cast<void*>(ref));
  SecStaticCodeRef staticCode = nullptr;
  OSStatus status = SecCodeCopyStaticCode(running, kSecCSDefaultFlags, &staticCode);
  return {status, wrap(staticCode)};
}

CodeRef DarwinCodeSignPlatform::compileRequirement(std::string_view text) const {
  CFStringRef string =
      CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                              static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
  if (string == nullptr) return nullptr;
  SecRequirementRef requirement = nullptr;
  // The status is not looked at: a requirement that doesn't compile leaves
  // the validity check without one.
  (void)SecRequirementCreateWithString(string, kSecCSDefaultFlags, &requirement);
  CFRelease(string);
  return wrap(requirement);
}

OSStatus DarwinCodeSignPlatform::checkValidity(const CodeObject& staticCode, std::uint32_t flags,
                                               const CodeObject* requirement) const {
  CFTypeRef code = refOf(&staticCode);
  if (code == nullptr) return CodeSignStatus::errSecCSInvalidObjectRef;
  CFTypeRef compiled = requirement != nullptr ? refOf(requirement) : nullptr;
  return SecStaticCodeCheckValidity(static_cast<SecStaticCodeRef>(code), flags,
                                    static_cast<SecRequirementRef>(const_cast<void*>(compiled)));
}

SigningInformation DarwinCodeSignPlatform::copySigningInformation(const CodeObject& staticCode,
                                                                  std::uint32_t flags) const {
  SigningInformation out;
  CFTypeRef code = refOf(&staticCode);
  if (code == nullptr) {
    out.status = CodeSignStatus::errSecCSInvalidObjectRef;
    return out;
  }
  CFDictionaryRef info = nullptr;
  out.status = SecCodeCopySigningInformation(static_cast<SecStaticCodeRef>(code), flags, &info);
  if (info == nullptr) return out;
  SecObject owner(info);

  if (CFGetTypeID(info) != CFDictionaryGetTypeID()) {
    out.result = SigningInformation::Result::notDictionary;
    return out;
  }
  out.result = SigningInformation::Result::dictionary;
  CFTypeRef team = CFDictionaryGetValue(info, kSecCodeInfoTeamIdentifier);
  if (team == nullptr) return out;
  if (CFGetTypeID(team) != CFStringGetTypeID()) {
    out.team = SigningInformation::Team::notString;
    return out;
  }
  out.team = SigningInformation::Team::string;
  out.teamIdentifier = toUTF8(static_cast<CFStringRef>(team));
  return out;
}

}  // namespace tarskel
