// Events and threads on Windows: auto-reset events and threads of the C
// runtime.
#include <process.h>
#include <windows.h>

#include "systhread_os.h"

namespace {

unsigned __stdcall trampoline(void* argument) {
  systhread_body(static_cast<SysThread*>(argument));
  _endthreadex(0);
  return 0;
}

SysEventWait outcome_of(DWORD result) {
  if (result == WAIT_OBJECT_0) return SysEventWait::kSignalled;
  if (result == WAIT_TIMEOUT) return SysEventWait::kTimedOut;
  return GetLastError() == ERROR_INVALID_HANDLE ? SysEventWait::kInvalidHandle
                                                : SysEventWait::kFailed;
}

}  // namespace

void* sysevent_create() { return CreateEventA(nullptr, FALSE, FALSE, nullptr); }
void sysevent_set(void* event) { SetEvent(event); }
void sysevent_reset(void* event) { ResetEvent(event); }
void sysevent_close(void* event) { CloseHandle(event); }

// A single wait can't be longer than INFINITE - 1 milliseconds, about 49
// days; a longer one is made of several.
SysEventWait sysevent_wait(void* event, uint64_t milliseconds) {
  if (milliseconds == kSysEventForever) return outcome_of(WaitForSingleObject(event, INFINITE));
  constexpr uint64_t kLongest = INFINITE - 1;
  for (; milliseconds > kLongest; milliseconds -= kLongest) {
    const SysEventWait outcome = outcome_of(WaitForSingleObject(event, kLongest));
    if (outcome != SysEventWait::kTimedOut) return outcome;
  }
  return outcome_of(WaitForSingleObject(event, static_cast<DWORD>(milliseconds)));
}

bool systhread_os_start(SysThread* thread) {
  unsigned id = 0;
  const uintptr_t handle = _beginthreadex(nullptr, 0, trampoline, thread, 0, &id);
  if (handle == 0) return false;
  thread->id = id;
  thread->handle = reinterpret_cast<void*>(handle);
  return true;
}

void systhread_os_release(SysThread* thread) { CloseHandle(thread->handle); }

extern "C" void syssleep(uint32_t milliseconds) { Sleep(milliseconds); }
