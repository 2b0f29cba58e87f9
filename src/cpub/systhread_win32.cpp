// Conditions and threads on Windows: auto-reset events and threads of the C
// runtime, whose trampoline sets the thread's `done` event when the start
// routine has returned.
#include <process.h>
#include <windows.h>

#include <ctime>

#include "systhread_internal.h"

namespace {

HANDLE new_event() { return CreateEventA(nullptr, FALSE, FALSE, nullptr); }

unsigned __stdcall trampoline(void* argument) {
  auto* thread = static_cast<SysThread*>(argument);
  thread->result = thread->start(thread->argument);
  SetEvent(thread->done);
  _endthreadex(0);
  return 0;
}

// The longest timed wait: just short of INFINITE, so a far deadline never
// turns into a wait without limit.
constexpr int64_t kMaxWaitMilliseconds = INFINITE - 1;

}  // namespace

extern "C" {

int32_t syscond_create(syscond* cond) {
  if (cond == nullptr) return SYSTHREAD_ERR_NULL;
  // An event that can't be made is reported, so that no caller waits on a
  // condition that doesn't exist.
  cond->event = new_event();
  return cond->event != nullptr ? SYSTHREAD_OK : SYSTHREAD_ERR_NULL;
}

int32_t syscond_signal(syscond* cond) {
  if (cond == nullptr || cond->event == nullptr) return SYSTHREAD_ERR_NULL;
  SetEvent(cond->event);
  return SYSTHREAD_OK;
}

int32_t syscond_destroy(syscond* cond) {
  if (cond == nullptr || cond->event == nullptr) return SYSTHREAD_ERR_NULL;
  CloseHandle(cond->event);
  cond->event = nullptr;
  return SYSTHREAD_OK;
}

int32_t syscond_wait(syscond* cond, sysmutex* mutex) {
  if (cond == nullptr || cond->event == nullptr || mutex == nullptr) return SYSCOND_ERR_ARGUMENT;
  ResetEvent(cond->event);
  sysmutex_unlock(mutex);
  const DWORD outcome = WaitForSingleObject(cond->event, INFINITE);
  sysmutex_lock(mutex);
  return outcome == WAIT_FAILED ? SYSCOND_ERR_WAIT : SYSTHREAD_OK;
}

int32_t syscond_timedwait(syscond* cond, sysmutex* mutex, const int64_t* deadline) {
  if (cond == nullptr || cond->event == nullptr || mutex == nullptr || deadline == nullptr) {
    return SYSCOND_ERR_ARGUMENT;
  }
  ResetEvent(cond->event);
  sysmutex_unlock(mutex);
  const int64_t left = *deadline - static_cast<int64_t>(std::time(nullptr));
  int32_t result = SYSCOND_TIMEDOUT;
  if (left > 0) {
    const int64_t span = left > kMaxWaitMilliseconds / 1000 ? kMaxWaitMilliseconds : left * 1000;
    const DWORD outcome = WaitForSingleObject(cond->event, static_cast<DWORD>(span));
    result = outcome == WAIT_FAILED    ? SYSCOND_ERR_WAIT
             : outcome == WAIT_TIMEOUT ? SYSCOND_TIMEDOUT
                                       : SYSTHREAD_OK;
  }
  sysmutex_lock(mutex);
  return result;
}

int32_t systhread_create(SysThread* thread, const void* /*attributes*/, SysThreadStart start,
                         void* argument) {
  if (!systhread_prepare(thread, start, argument)) return SYSTHREAD_ERR_NULL;
  // Without its `done` event a thread couldn't be joined: no event, no thread.
  thread->done = new_event();
  if (thread->done == nullptr) return SYSTHREAD_ERR_NULL;
  unsigned id = 0;
  const uintptr_t handle = _beginthreadex(nullptr, 0, trampoline, thread, 0, &id);
  if (handle == 0) {
    // A thread that didn't come up leaves nothing open behind it.
    CloseHandle(thread->done);
    thread->done = nullptr;
    return SYSTHREAD_ERR_NULL;
  }
  thread->id = id;
  thread->handle = reinterpret_cast<void*>(handle);
  return SYSTHREAD_OK;
}

int32_t systhread_join(SysThread* thread, void** result) {
  if (thread == nullptr) return SYSTHREAD_ERR_NULL;
  if (thread->handle == nullptr) {
    if (thread->done != nullptr) CloseHandle(thread->done);
    thread->done = nullptr;
    return SYSTHREAD_OK;
  }
  // The wait is for `done`, not for the thread's end.
  int32_t status = SYSTHREAD_OK;
  if (WaitForSingleObject(thread->done, INFINITE) == WAIT_FAILED &&
      GetLastError() != ERROR_INVALID_HANDLE) {
    status = SYSTHREAD_ERR_NULL;
  }
  if (result != nullptr) *result = thread->result;
  if (thread->done != nullptr) CloseHandle(thread->done);
  thread->done = nullptr;
  CloseHandle(thread->handle);
  thread->handle = nullptr;
  return status;
}

void syssleep(uint32_t milliseconds) { Sleep(milliseconds); }

}  // extern "C"
