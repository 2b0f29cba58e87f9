// The Windows lock's take and release for the layer's own hot paths: the
// critical section's calls themselves.
#ifndef HOSTKIT_SYSMUTEX_INLINE_H
#define HOSTKIT_SYSMUTEX_INLINE_H

#include "sysmutex.h"

// sysmutex_lock and sysmutex_unlock for a mutex known not to be null.
inline int32_t sysmutex_enter(sysmutex* mutex) { return sysmutex_lock(mutex); }
inline int32_t sysmutex_leave(sysmutex* mutex) { return sysmutex_unlock(mutex); }

#endif
