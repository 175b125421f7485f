// <sys/xattr.h> of Darwin: extended attributes of an open file, with
// Darwin's own signatures (a position and an options argument that Linux's
// calls of the same names lack).
#ifndef TARSKEL_DARWIN_SDK_SYS_XATTR
#define TARSKEL_DARWIN_SDK_SYS_XATTR

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// Darwin's <sys/errno.h>: the attribute does not exist.
#ifndef ENOATTR
#define ENOATTR 93
#endif

// Built for the host against the simulator (testing/darwin-sim/), the host's
// calls of these names, which take other arguments, stay declared as they
// are, and Darwin's go by other names.
#ifdef TARSKEL_DARWIN_SIM
#include_next <sys/xattr.h>
#define flistxattr darwinsim_flistxattr
#define fgetxattr darwinsim_fgetxattr
#define fsetxattr darwinsim_fsetxattr
#endif

#ifdef __cplusplus
extern "C" {
#endif

// Writes the NUL-terminated names of `fd`'s attributes to `namebuff`, or with
// a NULL buffer only reports the size needed. Returns the size, or -1 with
// errno set (ERANGE when `size` is too small).
ssize_t flistxattr(int fd, char* _Nullable namebuff, size_t size, int options);

// Reads the value of `name` from `position` on (0 for every attribute but a
// resource fork), or with a NULL buffer only reports its size. Returns the
// size, or -1 with errno set (ENOATTR, ERANGE).
ssize_t fgetxattr(int fd, const char* _Nonnull name, void* _Nullable value, size_t size,
                  uint32_t position, int options);

// Sets `name` to `size` bytes of `value`, creating or replacing it. Returns
// 0, or -1 with errno set.
int fsetxattr(int fd, const char* _Nonnull name, const void* _Nonnull value, size_t size,
              uint32_t position, int options);

#ifdef __cplusplus
}
#endif

#endif
