// The lock on POSIX: the platform's recursive mutex, which its owner may take
// again and which only its owner may let go (an unlock by any other thread
// returns 1).
#include "sysmutex_inline.h"

extern "C" {

int32_t sysmutex_create(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  const int result = pthread_mutex_init(new (mutex->opaque) pthread_mutex_t, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return result == 0 ? 0 : 1;
}

int32_t sysmutex_destroy(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  pthread_mutex_destroy(sysmutex_native(mutex));
  return 0;
}

}  // extern "C"
