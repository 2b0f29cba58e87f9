// The lock on Windows: a critical section, recursive for its owner, that
// spins 4000 times before it sleeps.
#include "sysmutex_inline.h"

extern "C" {

int32_t sysmutex_create(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  constexpr DWORD kSpinCount = 4000;
  auto* section = new (mutex->opaque) CRITICAL_SECTION;
  return InitializeCriticalSectionAndSpinCount(section, kSpinCount) ? 0 : 1;
}

int32_t sysmutex_destroy(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  DeleteCriticalSection(sysmutex_native(mutex));
  return 0;
}

}  // extern "C"
