// Conditions and threads on POSIX. A Windows auto-reset event is rebuilt from
// a mutex, a condition variable and a flag: setting the flag wakes one
// waiter, the waiter that sees it clears it, and a reset clears it with
// nobody woken. The condition and the thread's `done` both use it, so the two
// platforms behave alike down to the lost signals.
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <new>

#include "systhread_internal.h"

static_assert(sizeof(pthread_t) <= sizeof(void*), "a thread handle must fit the record's handle");

namespace {

struct Event {
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  bool signalled;
};

enum class Wait { kSignalled, kTimedOut, kFailed };

Event* event_create() {
  auto* event = new (std::nothrow) Event;
  if (event == nullptr) return nullptr;
  event->signalled = false;
  // Timed waits measure a span, so they run on the monotonic clock: a change
  // of the wall clock neither shortens nor stretches them.
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  const int mutex_result = pthread_mutex_init(&event->mutex, nullptr);
  const int cond_result = pthread_cond_init(&event->changed, &attributes);
  pthread_condattr_destroy(&attributes);
  if (mutex_result != 0 || cond_result != 0) {
    if (mutex_result == 0) pthread_mutex_destroy(&event->mutex);
    if (cond_result == 0) pthread_cond_destroy(&event->changed);
    delete event;
    return nullptr;
  }
  return event;
}

void event_close(Event* event) {
  pthread_cond_destroy(&event->changed);
  pthread_mutex_destroy(&event->mutex);
  delete event;
}

void event_set(Event* event) {
  pthread_mutex_lock(&event->mutex);
  event->signalled = true;
  pthread_cond_signal(&event->changed);
  pthread_mutex_unlock(&event->mutex);
}

void event_reset(Event* event) {
  pthread_mutex_lock(&event->mutex);
  event->signalled = false;
  pthread_mutex_unlock(&event->mutex);
}

// Waits for the flag and takes it. A negative span waits without limit.
Wait event_wait(Event* event, int64_t milliseconds) {
  timespec until{};
  if (milliseconds >= 0) {
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += static_cast<time_t>(milliseconds / 1000);
    until.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
      until.tv_nsec -= 1000000000L;
      ++until.tv_sec;
    }
  }
  pthread_mutex_lock(&event->mutex);
  int result = 0;
  // The loop absorbs the condition variable's spurious wake-ups: only the flag
  // ends a wait.
  while (!event->signalled && result == 0) {
    result = milliseconds >= 0 ? pthread_cond_timedwait(&event->changed, &event->mutex, &until)
                               : pthread_cond_wait(&event->changed, &event->mutex);
  }
  Wait outcome = Wait::kSignalled;
  if (event->signalled) {
    event->signalled = false;
  } else {
    outcome = result == ETIMEDOUT ? Wait::kTimedOut : Wait::kFailed;
  }
  pthread_mutex_unlock(&event->mutex);
  return outcome;
}

Event* event_of(void* handle) { return static_cast<Event*>(handle); }

// POSIX has no 32-bit thread id to hand back at creation; threads started
// here are numbered in the order they were started, from 1.
std::atomic<uint32_t> g_next_id{1};

void* trampoline(void* argument) {
  auto* thread = static_cast<SysThread*>(argument);
  thread->result = thread->start(thread->argument);
  event_set(event_of(thread->done));
  return nullptr;
}

pthread_t native_thread(const SysThread* thread) {
  pthread_t native;
  std::memcpy(&native, &thread->handle, sizeof native);
  return native;
}

// The longest wait that the span arithmetic takes without overflow.
constexpr int64_t kMaxWaitSeconds = INT64_C(1) << 40;

}  // namespace

extern "C" {

int32_t syscond_create(syscond* cond) {
  if (cond == nullptr) return SYSTHREAD_ERR_NULL;
  // An event that can't be made is reported, so that no caller waits on a
  // condition that doesn't exist.
  cond->event = event_create();
  return cond->event != nullptr ? SYSTHREAD_OK : SYSTHREAD_ERR_NULL;
}

int32_t syscond_signal(syscond* cond) {
  if (cond == nullptr || cond->event == nullptr) return SYSTHREAD_ERR_NULL;
  event_set(event_of(cond->event));
  return SYSTHREAD_OK;
}

int32_t syscond_destroy(syscond* cond) {
  if (cond == nullptr || cond->event == nullptr) return SYSTHREAD_ERR_NULL;
  event_close(event_of(cond->event));
  cond->event = nullptr;
  return SYSTHREAD_OK;
}

int32_t syscond_wait(syscond* cond, sysmutex* mutex) {
  if (cond == nullptr || cond->event == nullptr || mutex == nullptr) return SYSCOND_ERR_ARGUMENT;
  event_reset(event_of(cond->event));
  sysmutex_unlock(mutex);
  const Wait outcome = event_wait(event_of(cond->event), -1);
  sysmutex_lock(mutex);
  return outcome == Wait::kFailed ? SYSCOND_ERR_WAIT : SYSTHREAD_OK;
}

int32_t syscond_timedwait(syscond* cond, sysmutex* mutex, const int64_t* deadline) {
  if (cond == nullptr || cond->event == nullptr || mutex == nullptr || deadline == nullptr) {
    return SYSCOND_ERR_ARGUMENT;
  }
  event_reset(event_of(cond->event));
  sysmutex_unlock(mutex);
  int64_t left = *deadline - static_cast<int64_t>(std::time(nullptr));
  int32_t result = SYSCOND_TIMEDOUT;
  if (left > 0) {
    if (left > kMaxWaitSeconds) left = kMaxWaitSeconds;
    const Wait outcome = event_wait(event_of(cond->event), left * 1000);
    result = outcome == Wait::kFailed     ? SYSCOND_ERR_WAIT
             : outcome == Wait::kTimedOut ? SYSCOND_TIMEDOUT
                                          : SYSTHREAD_OK;
  }
  sysmutex_lock(mutex);
  return result;
}

int32_t systhread_create(SysThread* thread, const void* /*attributes*/, SysThreadStart start,
                         void* argument) {
  if (!systhread_prepare(thread, start, argument)) return SYSTHREAD_ERR_NULL;
  // Without its `done` event a thread couldn't be joined: no event, no thread.
  thread->done = event_create();
  if (thread->done == nullptr) return SYSTHREAD_ERR_NULL;
  thread->id = g_next_id.fetch_add(1);
  pthread_t native;
  if (pthread_create(&native, nullptr, trampoline, thread) != 0) {
    // A thread that didn't come up leaves nothing open behind it.
    event_close(event_of(thread->done));
    thread->done = nullptr;
    return SYSTHREAD_ERR_NULL;
  }
  std::memcpy(&thread->handle, &native, sizeof native);
  return SYSTHREAD_OK;
}

int32_t systhread_join(SysThread* thread, void** result) {
  if (thread == nullptr) return SYSTHREAD_ERR_NULL;
  if (thread->handle == nullptr) {
    if (thread->done != nullptr) event_close(event_of(thread->done));
    thread->done = nullptr;
    return SYSTHREAD_OK;
  }
  // The wait is for `done`, not for the thread's end; a missing event counts
  // as an invalid handle does on Windows: as success.
  int32_t status = SYSTHREAD_OK;
  if (thread->done != nullptr && event_wait(event_of(thread->done), -1) == Wait::kFailed) {
    status = SYSTHREAD_ERR_NULL;
  }
  if (result != nullptr) *result = thread->result;
  if (thread->done != nullptr) event_close(event_of(thread->done));
  thread->done = nullptr;
  // Closing the thread: it has nothing left to do but return, and joining it
  // gives its resources back.
  pthread_join(native_thread(thread), nullptr);
  thread->handle = nullptr;
  return status;
}

void syssleep(uint32_t milliseconds) {
  timespec span{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&span, &span) != 0 && errno == EINTR) {
  }
}

}  // extern "C"
