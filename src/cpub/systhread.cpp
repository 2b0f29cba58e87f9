// The platform-neutral part of creating a thread.
#include "systhread_internal.h"

bool systhread_prepare(SysThread* thread, SysThreadStart start, void* argument) {
  if (thread == nullptr) return false;
  thread->start = start;
  thread->argument = argument;
  thread->handle = nullptr;
  thread->done = nullptr;
  thread->result = nullptr;
  return start != nullptr;
}
