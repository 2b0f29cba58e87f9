// Conditions and threads, the same on every platform over the events and
// thread starts of systhread_os.h.
#include <ctime>

#include "systhread_os.h"

namespace {

// Waits longer than this many seconds are cut to it: about 35,000 years,
// far enough to change nothing and near enough that the span in
// milliseconds can't overflow.
constexpr uint64_t kLongestWaitSeconds = uint64_t{1} << 40;

}  // namespace

void systhread_body(SysThread* thread) {
  thread->result = thread->start(thread->argument);
  sysevent_set(thread->done);
}

extern "C" {

// An event that can't be made is reported, so that no caller waits on a
// condition that doesn't exist.
int32_t syscond_create(syscond* cond) {
  if (cond == nullptr) return SYSTHREAD_ERR_NULL;
  cond->event = sysevent_create();
  return cond->event != nullptr ? SYSTHREAD_OK : SYSTHREAD_ERR_NULL;
}

int32_t syscond_signal(syscond* cond) {
  if (cond == nullptr || cond->event == nullptr) return SYSTHREAD_ERR_NULL;
  sysevent_set(cond->event);
  return SYSTHREAD_OK;
}

int32_t syscond_destroy(syscond* cond) {
  if (cond == nullptr || cond->event == nullptr) return SYSTHREAD_ERR_NULL;
  sysevent_close(cond->event);
  cond->event = nullptr;
  return SYSTHREAD_OK;
}

// The event is reset before the mutex is let go, so a signal given before
// this wait began is not seen, and one given after the mutex was let go is.
int32_t syscond_wait(syscond* cond, sysmutex* mutex) {
  if (cond == nullptr || cond->event == nullptr || mutex == nullptr) return SYSCOND_ERR_ARGUMENT;
  sysevent_reset(cond->event);
  sysmutex_unlock(mutex);
  const SysEventWait outcome = sysevent_wait(cond->event, kSysEventForever);
  sysmutex_lock(mutex);
  return outcome == SysEventWait::kSignalled ? SYSTHREAD_OK : SYSCOND_ERR_WAIT;
}

int32_t syscond_timedwait(syscond* cond, sysmutex* mutex, const int64_t* deadline) {
  if (cond == nullptr || cond->event == nullptr || mutex == nullptr || deadline == nullptr) {
    return SYSCOND_ERR_ARGUMENT;
  }
  sysevent_reset(cond->event);
  sysmutex_unlock(mutex);
  const auto now = static_cast<int64_t>(std::time(nullptr));
  int32_t result = SYSCOND_TIMEDOUT;
  // Compared before subtracting, so that no deadline, however far in the
  // past, overflows the difference.
  if (*deadline > now) {
    uint64_t seconds = static_cast<uint64_t>(*deadline) - static_cast<uint64_t>(now);
    if (seconds > kLongestWaitSeconds) seconds = kLongestWaitSeconds;
    switch (sysevent_wait(cond->event, seconds * 1000)) {
      case SysEventWait::kSignalled: result = SYSTHREAD_OK; break;
      case SysEventWait::kTimedOut: result = SYSCOND_TIMEDOUT; break;
      default: result = SYSCOND_ERR_WAIT; break;
    }
  }
  sysmutex_lock(mutex);
  return result;
}

int32_t systhread_create(SysThread* thread, const void* /*attributes*/, SysThreadStart start,
                         void* argument) {
  if (thread == nullptr) return SYSTHREAD_ERR_NULL;
  // The record is filled before any thread exists, so that a refused or
  // failed start leaves a record that joins as never started.
  thread->start = start;
  thread->argument = argument;
  thread->handle = nullptr;
  thread->done = nullptr;
  thread->result = nullptr;
  if (start == nullptr) return SYSTHREAD_ERR_NULL;
  // Without its `done` event a thread couldn't be joined: no event, no thread.
  thread->done = sysevent_create();
  if (thread->done == nullptr) return SYSTHREAD_ERR_NULL;
  if (!systhread_os_start(thread)) {
    sysevent_close(thread->done);
    thread->done = nullptr;
    return SYSTHREAD_ERR_NULL;
  }
  return SYSTHREAD_OK;
}

// The wait is for `done`, not for the thread's end. A wait that fails
// because the event is no longer there counts as success.
int32_t systhread_join(SysThread* thread, void** result) {
  if (thread == nullptr) return SYSTHREAD_ERR_NULL;
  int32_t status = SYSTHREAD_OK;
  if (thread->handle != nullptr) {
    if (thread->done != nullptr &&
        sysevent_wait(thread->done, kSysEventForever) == SysEventWait::kFailed) {
      status = SYSTHREAD_ERR_NULL;
    }
    if (result != nullptr) *result = thread->result;
  }
  if (thread->done != nullptr) sysevent_close(thread->done);
  thread->done = nullptr;
  if (thread->handle != nullptr) systhread_os_release(thread);
  thread->handle = nullptr;
  return status;
}

}  // extern "C"
