#pragma once
#pragma clang system_header
// Two Darwin declarations that Boost.Asio uses when it compiles for an Apple
// system and that the host's C library lacks. Not called by our adapters.

#include <pthread.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

// setsockopt option: no SIGPIPE on a write to a closed socket.
#define SO_NOSIGPIPE 0x1022

// pthread_cond_timedwait with a time-out relative to now.
int pthread_cond_timedwait_relative_np(pthread_cond_t* _Nonnull cond,
                                       pthread_mutex_t* _Nonnull mutex,
                                       const struct timespec* _Nullable reltime);

#ifdef __cplusplus
}
#endif
