/* Conditions, threads and sleep, in the shape of a thread library, beside the
 * locks of sysmutex.h. A condition is an auto-reset event: a signal wakes one
 * waiter, and a signal given while nobody waits is lost. */
#ifndef HOSTKIT_SYSTHREAD_H
#define HOSTKIT_SYSTHREAD_H

#include <stdint.h>

#include "sysmutex.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the condition and thread operations. */
enum {
  SYSTHREAD_OK = 0,
  SYSTHREAD_ERR_NULL = 1,   /* null argument, no event, or no thread came up */
  SYSCOND_ERR_WAIT = 5,     /* the wait itself failed */
  SYSCOND_ERR_ARGUMENT = 6, /* a null condition, event, mutex or deadline */
  SYSCOND_TIMEDOUT = 138    /* the deadline passed (ETIMEDOUT of the Windows C runtime) */
};

/* A condition: one platform event. */
typedef struct syscond {
  void* event;
} syscond;

typedef void* (*SysThreadStart)(void* argument);

typedef struct SysThread {
  void* handle;         /* the thread; null if not started */
  uint32_t id;          /* the platform's thread id */
  void* result;         /* what the start routine returned */
  SysThreadStart start; /* start routine */
  void* argument;       /* its argument */
  void* done;           /* event, set when the start routine has returned */
} SysThread;

int32_t syscond_create(syscond* cond);
int32_t syscond_signal(syscond* cond);
int32_t syscond_destroy(syscond* cond);
/* Leaves `mutex`, waits for a signal, takes `mutex` again. 0, 5 or 6. */
int32_t syscond_wait(syscond* cond, sysmutex* mutex);
/* As syscond_wait, until `*deadline`, an absolute time in seconds as time()
 * gives it. 0, 5, 6 or 138; the mutex is held again on every result but 6. */
int32_t syscond_timedwait(syscond* cond, sysmutex* mutex, const int64_t* deadline);

/* Starts `start(argument)` on a new thread; `attributes` is ignored. 0, or 1
 * if no thread came up. */
int32_t systhread_create(SysThread* thread, const void* attributes, SysThreadStart start,
                         void* argument);
/* Waits until the start routine has returned, stores its result in `*result`
 * (if `result` isn't null) and closes the thread. 0, or 1 if the wait failed;
 * a thread that never started joins at once with 0. */
int32_t systhread_join(SysThread* thread, void** result);

void syssleep(uint32_t milliseconds);

#ifdef __cplusplus
}
#endif

#endif
