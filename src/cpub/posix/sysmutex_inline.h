// The POSIX lock's record and its take and release, inline for the layer's
// own hot paths (the tracked memory manager).
#ifndef HOSTKIT_SYSMUTEX_INLINE_H
#define HOSTKIT_SYSMUTEX_INLINE_H

#include <pthread.h>

#include <new>

#include "sysmutex.h"

static_assert(sizeof(pthread_mutex_t) <= sizeof(sysmutex), "sysmutex too small for the platform");
static_assert(alignof(pthread_mutex_t) <= alignof(sysmutex), "sysmutex alignment too small");

inline pthread_mutex_t* sysmutex_native(sysmutex* mutex) {
  return std::launder(reinterpret_cast<pthread_mutex_t*>(mutex->opaque));
}

// sysmutex_lock and sysmutex_unlock for a mutex known not to be null.
inline int32_t sysmutex_enter(sysmutex* mutex) {
  return pthread_mutex_lock(sysmutex_native(mutex)) == 0 ? 0 : 1;
}
inline int32_t sysmutex_leave(sysmutex* mutex) {
  return pthread_mutex_unlock(sysmutex_native(mutex)) == 0 ? 0 : 1;
}

#endif
