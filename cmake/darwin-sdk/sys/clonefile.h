// <sys/clonefile.h> of Darwin: copy-on-write clones of files.
#ifndef TARSKEL_DARWIN_SDK_SYS_CLONEFILE
#define TARSKEL_DARWIN_SDK_SYS_CLONEFILE

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Don't follow a symbolic link at the source.
#define CLONE_NOFOLLOW 0x0001
// The clone is owned by the caller rather than by the source's owner.
#define CLONE_NOOWNERCOPY 0x0002

// Clones the file open at `srcfd` to `dst`, relative to the directory open
// at `dst_dirfd`. Returns 0, or -1 with errno set (ENOTSUP where the volume
// can't clone, EXDEV across volumes).
int fclonefileat(int srcfd, int dst_dirfd, const char* _Nonnull dst, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif
