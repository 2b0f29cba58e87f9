// Taking and letting go of the lock, over the platform's inline calls.
#include "sysmutex_inline.h"

extern "C" {

int32_t sysmutex_lock(sysmutex* mutex) { return mutex != nullptr ? sysmutex_enter(mutex) : 1; }

int32_t sysmutex_unlock(sysmutex* mutex) { return mutex != nullptr ? sysmutex_leave(mutex) : 1; }

}  // extern "C"
