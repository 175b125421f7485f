#pragma once
// dyld: the path of the running executable.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Copies the executable's path into `buf`. Returns 0 on success; -1 when
// `*bufsize` is too small, and then sets `*bufsize` to the size needed. The
// path may hold symbolic links.
int _NSGetExecutablePath(char* _Nonnull buf, uint32_t* _Nonnull bufsize);

#ifdef __cplusplus
}
#endif
