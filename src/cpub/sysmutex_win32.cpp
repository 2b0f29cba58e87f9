// The lock on Windows: a critical section that spins 4000 times before it
// sleeps. Critical sections are recursive for their owner.
#include <windows.h>

#include <new>

#include "sysmutex.h"

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(sysmutex), "sysmutex too small for the platform");
static_assert(alignof(CRITICAL_SECTION) <= alignof(sysmutex), "sysmutex alignment too small");

namespace {
constexpr DWORD kSpinCount = 4000;
CRITICAL_SECTION* native(sysmutex* mutex) {
  return std::launder(reinterpret_cast<CRITICAL_SECTION*>(mutex->opaque));
}
}  // namespace

extern "C" {

int32_t sysmutex_create(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  auto* section = new (mutex->opaque) CRITICAL_SECTION;
  return InitializeCriticalSectionAndSpinCount(section, kSpinCount) ? 0 : 1;
}

int32_t sysmutex_lock(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  EnterCriticalSection(native(mutex));
  return 0;
}

int32_t sysmutex_unlock(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  LeaveCriticalSection(native(mutex));
  return 0;
}

int32_t sysmutex_destroy(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  DeleteCriticalSection(native(mutex));
  return 0;
}

}  // extern "C"
