// The lock on POSIX: a recursive pthread mutex, so the owner may take it again
// as a Windows critical section allows.
#include <pthread.h>

#include <new>

#include "sysmutex.h"

static_assert(sizeof(pthread_mutex_t) <= sizeof(sysmutex), "sysmutex too small for the platform");
static_assert(alignof(pthread_mutex_t) <= alignof(sysmutex), "sysmutex alignment too small");

namespace {
pthread_mutex_t* native(sysmutex* mutex) {
  return std::launder(reinterpret_cast<pthread_mutex_t*>(mutex->opaque));
}
}  // namespace

extern "C" {

int32_t sysmutex_create(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  auto* m = new (mutex->opaque) pthread_mutex_t;
  const int result = pthread_mutex_init(m, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return result == 0 ? 0 : 1;
}

int32_t sysmutex_lock(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  return pthread_mutex_lock(native(mutex)) == 0 ? 0 : 1;
}

int32_t sysmutex_unlock(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  return pthread_mutex_unlock(native(mutex)) == 0 ? 0 : 1;
}

int32_t sysmutex_destroy(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  pthread_mutex_destroy(native(mutex));
  return 0;
}

}  // extern "C"
