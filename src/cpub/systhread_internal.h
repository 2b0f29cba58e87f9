// What the two platforms' thread layers share.
#ifndef HOSTKIT_SYSTHREAD_INTERNAL_H
#define HOSTKIT_SYSTHREAD_INTERNAL_H

#include "systhread.h"

// Fills the record before any thread exists, so that a refused or failed
// create leaves a record that joins as never started. False when there is
// no record or no start routine: then no thread may be brought up.
bool systhread_prepare(SysThread* thread, SysThreadStart start, void* argument);

#endif
