/* Arrays of 32-bit counters with sequentially consistent atomic operations,
 * the same on every platform. */
#ifndef HOSTKIT_SYSATOMIC_H
#define HOSTKIT_SYSATOMIC_H

#include <stdint.h>

#include "sysenv.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct SysAtomic {
  SysEnv* env;       /* owner of the memory */
  int32_t count;     /* number of counters */
  int32_t* counters; /* the slots in use */
  void* storage;     /* the allocation, count + 1 slots; counters equals it */
} SysAtomic;

/* Returns the array with `count` counters at 0, or null. */
SysAtomic* sysatomic_create(SysEnv* env, int32_t count);
/* Releases the array and sets `*atomic` to null; a null array is no error. */
void sysatomic_destroy(SysAtomic** atomic);

/* Slot numbers are the caller's to keep below `count`. */
int32_t sysatomic_increment(SysAtomic* atomic, int32_t index); /* the new value */
int32_t sysatomic_decrement(SysAtomic* atomic, int32_t index); /* the new value */
int32_t sysatomic_read(SysAtomic* atomic, int32_t index);      /* with a full barrier */
/* Stores `desired` if the slot holds `expected`; returns what the slot held,
 * so success is a result equal to `expected`. */
int32_t sysatomic_compare_exchange(SysAtomic* atomic, int32_t index, int32_t expected,
                                   int32_t desired);
/* Plain stores of values[i] into slot i for first <= i < end, for use while no
 * other thread works on those slots. `values` is indexed by slot number. */
void sysatomic_set_range(SysAtomic* atomic, int32_t first, int32_t end, const int32_t* values);

#ifdef __cplusplus
}
#endif

#endif
