// Events and threads on POSIX. An auto-reset event is a mutex, a condition
// variable, a flag for a set that found nobody waiting, and the queue of
// blocked waiters. A set hands its release to the oldest blocked waiter by
// name, so a thread that resets the event or starts waiting after the set
// can't take the release away from it.
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "systhread_os.h"

static_assert(sizeof(pthread_t) <= sizeof(void*), "a thread handle must fit the record's handle");

namespace {

struct Waiter {
  Waiter* next;
  bool released;
};

struct Event {
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  bool signalled;  // set while nobody waited; taken by the next wait
  Waiter* first;   // blocked waiters, oldest first
  Waiter* last;
};

Event* event_of(void* event) { return static_cast<Event*>(event); }

void leave_queue(Event* e, Waiter* w) {
  Waiter* before = nullptr;
  for (Waiter* at = e->first; at != nullptr; before = at, at = at->next) {
    if (at != w) continue;
    (before != nullptr ? before->next : e->first) = at->next;
    if (e->last == at) e->last = before;
    return;
  }
}

// The monotonic clock `milliseconds` from now: a change of the wall clock
// neither shortens nor stretches a wait.
timespec monotonic_after(uint64_t milliseconds) {
  timespec at{};
  clock_gettime(CLOCK_MONOTONIC, &at);
  at.tv_sec += static_cast<time_t>(milliseconds / 1000);
  at.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (at.tv_nsec >= 1000000000L) {
    at.tv_nsec -= 1000000000L;
    ++at.tv_sec;
  }
  return at;
}

// POSIX has no 32-bit thread id to hand back at creation; threads started
// here are numbered in the order they were started, from 1.
std::atomic<uint32_t> g_next_id{1};

void* trampoline(void* argument) {
  systhread_body(static_cast<SysThread*>(argument));
  return nullptr;
}

}  // namespace

void* sysevent_create() {
  auto* e = static_cast<Event*>(std::calloc(1, sizeof(Event)));
  if (e == nullptr) return nullptr;
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  const int mutex_result = pthread_mutex_init(&e->mutex, nullptr);
  const int cond_result = pthread_cond_init(&e->changed, &attributes);
  pthread_condattr_destroy(&attributes);
  if (mutex_result != 0 || cond_result != 0) {
    if (mutex_result == 0) pthread_mutex_destroy(&e->mutex);
    if (cond_result == 0) pthread_cond_destroy(&e->changed);
    std::free(e);
    return nullptr;
  }
  return e;
}

void sysevent_close(void* event) {
  Event* e = event_of(event);
  pthread_cond_destroy(&e->changed);
  pthread_mutex_destroy(&e->mutex);
  std::free(e);
}

void sysevent_set(void* event) {
  Event* e = event_of(event);
  pthread_mutex_lock(&e->mutex);
  if (Waiter* w = e->first; w != nullptr) {
    leave_queue(e, w);
    w->released = true;
    pthread_cond_broadcast(&e->changed);
  } else {
    e->signalled = true;
  }
  pthread_mutex_unlock(&e->mutex);
}

void sysevent_reset(void* event) {
  Event* e = event_of(event);
  pthread_mutex_lock(&e->mutex);
  e->signalled = false;
  pthread_mutex_unlock(&e->mutex);
}

SysEventWait sysevent_wait(void* event, uint64_t milliseconds) {
  Event* e = event_of(event);
  const bool timed = milliseconds != kSysEventForever;
  const timespec until = timed ? monotonic_after(milliseconds) : timespec{};
  pthread_mutex_lock(&e->mutex);
  if (e->signalled) {
    e->signalled = false;
    pthread_mutex_unlock(&e->mutex);
    return SysEventWait::kSignalled;
  }
  Waiter me{nullptr, false};
  (e->last != nullptr ? e->last->next : e->first) = &me;
  e->last = &me;
  // Only a release ends the wait; the condition variable's spurious
  // wake-ups go round again.
  int result = 0;
  while (!me.released && result == 0) {
    result = timed ? pthread_cond_timedwait(&e->changed, &e->mutex, &until)
                   : pthread_cond_wait(&e->changed, &e->mutex);
  }
  if (!me.released) leave_queue(e, &me);
  pthread_mutex_unlock(&e->mutex);
  if (me.released) return SysEventWait::kSignalled;
  return result == ETIMEDOUT ? SysEventWait::kTimedOut : SysEventWait::kFailed;
}

bool systhread_os_start(SysThread* thread) {
  thread->id = g_next_id.fetch_add(1);
  pthread_t native;
  if (pthread_create(&native, nullptr, trampoline, thread) != 0) return false;
  std::memcpy(&thread->handle, &native, sizeof native);
  return true;
}

// The body has returned, so the thread has nothing left to do but end;
// joining it gives its resources back.
void systhread_os_release(SysThread* thread) {
  pthread_t native;
  std::memcpy(&native, &thread->handle, sizeof native);
  pthread_join(native, nullptr);
}

extern "C" void syssleep(uint32_t milliseconds) {
  timespec span{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&span, &span) != 0 && errno == EINTR) {
  }
}
