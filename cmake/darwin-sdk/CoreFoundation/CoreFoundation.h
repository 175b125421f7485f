#pragma once
// CoreFoundation: the types and calls the code-signing adapter uses.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma clang assume_nonnull begin

typedef unsigned char UInt8;
typedef unsigned char Boolean;
typedef signed int SInt32;
typedef unsigned int UInt32;
typedef SInt32 OSStatus;

typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef UInt32 CFStringEncoding;
typedef CFIndex CFNumberType;

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFURL* CFURLRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef const struct __CFNumber* CFNumberRef;

enum { kCFStringEncodingUTF8 = 0x08000100 };
enum { kCFNumberSInt32Type = 3 };

// The default allocator (NULL stands for it too).
extern const CFAllocatorRef _Nullable kCFAllocatorDefault;

// Releases one reference; `cf` must not be NULL.
void CFRelease(CFTypeRef cf);
CFTypeID CFGetTypeID(CFTypeRef cf);
CFTypeID CFDictionaryGetTypeID(void);
CFTypeID CFStringGetTypeID(void);

// Create: the caller releases the result. NULL on failure.
CFURLRef _Nullable CFURLCreateFromFileSystemRepresentation(CFAllocatorRef _Nullable allocator,
                                                           const UInt8* buffer, CFIndex bufLen,
                                                           Boolean isDirectory);
CFNumberRef _Nullable CFNumberCreate(CFAllocatorRef _Nullable allocator, CFNumberType theType,
                                     const void* valuePtr);
CFStringRef _Nullable CFStringCreateWithBytes(CFAllocatorRef _Nullable alloc, const UInt8* bytes,
                                              CFIndex numBytes, CFStringEncoding encoding,
                                              Boolean isExternalRepresentation);

typedef const void* _Nullable (*CFDictionaryRetainCallBack)(CFAllocatorRef _Nullable allocator,
                                                            const void* _Nullable value);
typedef void (*CFDictionaryReleaseCallBack)(CFAllocatorRef _Nullable allocator,
                                            const void* _Nullable value);
typedef CFStringRef _Nullable (*CFDictionaryCopyDescriptionCallBack)(const void* _Nullable value);
typedef Boolean (*CFDictionaryEqualCallBack)(const void* _Nullable value1,
                                             const void* _Nullable value2);
typedef unsigned long (*CFDictionaryHashCallBack)(const void* _Nullable value);

typedef struct {
  CFIndex version;
  CFDictionaryRetainCallBack _Nullable retain;
  CFDictionaryReleaseCallBack _Nullable release;
  CFDictionaryCopyDescriptionCallBack _Nullable copyDescription;
  CFDictionaryEqualCallBack _Nullable equal;
  CFDictionaryHashCallBack _Nullable hash;
} CFDictionaryKeyCallBacks;

typedef struct {
  CFIndex version;
  CFDictionaryRetainCallBack _Nullable retain;
  CFDictionaryReleaseCallBack _Nullable release;
  CFDictionaryCopyDescriptionCallBack _Nullable copyDescription;
  CFDictionaryEqualCallBack _Nullable equal;
} CFDictionaryValueCallBacks;

// Callbacks for keys and values that are CF objects (retained by the dictionary).
extern const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
extern const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;

CFDictionaryRef _Nullable CFDictionaryCreate(
    CFAllocatorRef _Nullable allocator, const void* _Nullable* _Nullable keys,
    const void* _Nullable* _Nullable values, CFIndex numValues,
    const CFDictionaryKeyCallBacks* _Nullable keyCallBacks,
    const CFDictionaryValueCallBacks* _Nullable valueCallBacks);
// Get: borrowed, NULL when the key is absent.
const void* _Nullable CFDictionaryGetValue(CFDictionaryRef theDict, const void* _Nullable key);

// NULL when no such pointer can be had cheaply (then copy with CFStringGetCString).
const char* _Nullable CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding);
CFIndex CFStringGetLength(CFStringRef theString);
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
// false when the buffer is too small or the text can't be converted.
Boolean CFStringGetCString(CFStringRef theString, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding);

#pragma clang assume_nonnull end

#ifdef __cplusplus
}
#endif
