// <stdio.h> of the host, and what Darwin's declares beside it.
#include_next <stdio.h>

#ifndef TARSKEL_DARWIN_SDK_STDIO
#define TARSKEL_DARWIN_SDK_STDIO

#ifdef __cplusplus
extern "C" {
#endif

// renamex_np flag: exchange `from` and `to` atomically (both must exist).
#define RENAME_SWAP 0x00000002

// rename(2) with flags. Returns 0, or -1 with errno set.
int renamex_np(const char* _Nonnull from, const char* _Nonnull to, unsigned int flags);

#ifdef __cplusplus
}
#endif

#endif
