/* The support layer's lock: recursive for the thread that holds it, and
 * spinning a while before it sleeps when contended. */
#ifndef HOSTKIT_SYSMUTEX_H
#define HOSTKIT_SYSMUTEX_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Room for the platform's lock object; its layout belongs to the platform. */
typedef struct sysmutex {
  uint64_t opaque[8];
} sysmutex;

/* Each returns 0, or 1 for a null `mutex`. */
int32_t sysmutex_create(sysmutex* mutex);
int32_t sysmutex_lock(sysmutex* mutex);
int32_t sysmutex_unlock(sysmutex* mutex);
int32_t sysmutex_destroy(sysmutex* mutex);

#ifdef __cplusplus
}
#endif

#endif
