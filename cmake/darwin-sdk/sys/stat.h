// <sys/stat.h> of the host, and the names Darwin gives its times: Darwin's
// struct stat holds them as st_atimespec and st_mtimespec, the host's as
// st_atim and st_mtim (both struct timespec). futimens comes from the host.
#include_next <sys/stat.h>

#ifndef TARSKEL_DARWIN_SDK_SYS_STAT
#define TARSKEL_DARWIN_SDK_SYS_STAT

#define st_atimespec st_atim
#define st_mtimespec st_mtim

#endif
