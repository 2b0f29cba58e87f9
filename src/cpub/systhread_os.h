// What each platform gives the conditions and threads of systhread.cpp: an
// auto-reset event and the start and release of a thread. The rules of the
// conditions and threads (argument checks, results, deadlines, joining) are
// all in systhread.cpp; these only reach the system.
#ifndef HOSTKIT_SYSTHREAD_OS_H
#define HOSTKIT_SYSTHREAD_OS_H

#include <cstdint>

#include "systhread.h"

// An auto-reset event. A set with a waiter blocked releases exactly one
// waiter, and nothing done afterwards takes that back; a set with no waiter
// stays until one reset or one wait consumes it. Null when it can't be made.
void* sysevent_create();
void sysevent_set(void* event);
void sysevent_reset(void* event);
void sysevent_close(void* event);

enum class SysEventWait { kSignalled, kTimedOut, kFailed, kInvalidHandle };
inline constexpr uint64_t kSysEventForever = UINT64_MAX;
// Waits until the event is set or `milliseconds` have passed
// (kSysEventForever: no limit). kInvalidHandle is a failed wait whose
// system error says the event doesn't exist.
SysEventWait sysevent_wait(void* event, uint64_t milliseconds);

// Starts a thread that runs systhread_body(thread), and stores its handle
// and id in the record. False when no thread came up.
bool systhread_os_start(SysThread* thread);
// Gives back what the system keeps of a thread whose body has returned.
void systhread_os_release(SysThread* thread);
// What every thread started here runs: the start routine, its result kept,
// then `done` set.
void systhread_body(SysThread* thread);

#endif
