// The Windows lock's record and its take and release, inline for the layer's
// own hot paths (the tracked memory manager).
#ifndef HOSTKIT_SYSMUTEX_INLINE_H
#define HOSTKIT_SYSMUTEX_INLINE_H

#include <windows.h>

#include <new>

#include "sysmutex.h"

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(sysmutex), "sysmutex too small for the platform");
static_assert(alignof(CRITICAL_SECTION) <= alignof(sysmutex), "sysmutex alignment too small");

inline CRITICAL_SECTION* sysmutex_native(sysmutex* mutex) {
  return std::launder(reinterpret_cast<CRITICAL_SECTION*>(mutex->opaque));
}

// sysmutex_lock and sysmutex_unlock for a mutex known not to be null.
inline int32_t sysmutex_enter(sysmutex* mutex) {
  EnterCriticalSection(sysmutex_native(mutex));
  return 0;
}
inline int32_t sysmutex_leave(sysmutex* mutex) {
  LeaveCriticalSection(sysmutex_native(mutex));
  return 0;
}

#endif
