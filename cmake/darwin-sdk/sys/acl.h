// <sys/acl.h> of Darwin: what the platform update uses to strip a file's
// extended access-control entries.
#ifndef TARSKEL_DARWIN_SDK_SYS_ACL
#define TARSKEL_DARWIN_SDK_SYS_ACL

#ifdef __cplusplus
extern "C" {
#endif

// An ACL in working storage; acl_free releases it.
typedef struct _acl* acl_t;

typedef enum {
  ACL_TYPE_EXTENDED = 0x00000100,
  ACL_TYPE_ACCESS = 0x00000000,
  ACL_TYPE_DEFAULT = 0x00000001,
  ACL_TYPE_AFS = 0x00000002,
  ACL_TYPE_CODA = 0x00000003,
  ACL_TYPE_NTFS = 0x00000004,
  ACL_TYPE_NWFS = 0x00000005,
} acl_type_t;

// A new ACL with room for `count` entries, or NULL with errno set. The
// caller releases it with acl_free.
acl_t _Nullable acl_init(int count);

// Releases what an acl_* call allocated. Returns 0, or -1 with errno set.
int acl_free(void* _Nonnull obj_p);

// Sets the ACL of `path_p` without following a final symbolic link.
// Returns 0, or -1 with errno set.
int acl_set_link_np(const char* _Nonnull path_p, acl_type_t type, acl_t _Nonnull acl);

#ifdef __cplusplus
}
#endif

#endif
