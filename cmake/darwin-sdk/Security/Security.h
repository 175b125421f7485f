#pragma once
// Security: code objects, their signature check and signing information.

#include <CoreFoundation/CoreFoundation.h>
#include <xpc/xpc.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma clang assume_nonnull begin

typedef struct __SecCode* SecCodeRef;              // running code
typedef const struct __SecCode* SecStaticCodeRef;  // code on disk
typedef struct __SecRequirement* SecRequirementRef;
typedef uint32_t SecCSFlags;

enum {
  kSecCSDefaultFlags = 0,
  kSecCSCheckAllArchitectures = 1 << 0,
  kSecCSSigningInformation = 1 << 1,
};

// Guest attribute: the process id (a CFNumber).
extern const CFStringRef kSecGuestAttributePid;
// Signing-information key: the team identifier (a CFString), absent for
// ad-hoc and unsigned code.
extern const CFStringRef kSecCodeInfoTeamIdentifier;

// Each returns errSecSuccess (0) or an error status. Create and Copy results
// are the caller's, released once with CFRelease; on failure the
// out-parameter is left NULL.
OSStatus SecCodeCreateWithXPCMessage(xpc_object_t message, SecCSFlags flags,
                                     SecCodeRef _Nullable* _Nonnull target);
OSStatus SecCodeCopyStaticCode(SecCodeRef code, SecCSFlags flags,
                               SecStaticCodeRef _Nullable* _Nonnull staticCode);
OSStatus SecCodeCopyGuestWithAttributes(SecCodeRef _Nullable host,
                                        CFDictionaryRef _Nullable attributes, SecCSFlags flags,
                                        SecCodeRef _Nullable* _Nonnull guest);
OSStatus SecStaticCodeCreateWithPath(CFURLRef path, SecCSFlags flags,
                                     SecStaticCodeRef _Nullable* _Nonnull staticCode);
OSStatus SecRequirementCreateWithString(CFStringRef text, SecCSFlags flags,
                                        SecRequirementRef _Nullable* _Nonnull requirement);
OSStatus SecStaticCodeCheckValidity(SecStaticCodeRef staticCode, SecCSFlags flags,
                                    SecRequirementRef _Nullable requirement);
OSStatus SecCodeCopySigningInformation(SecStaticCodeRef code, SecCSFlags flags,
                                       CFDictionaryRef _Nullable* _Nonnull information);

#pragma clang assume_nonnull end

#ifdef __cplusplus
}
#endif
