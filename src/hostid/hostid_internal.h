// Process-wide state of host identification that tests and tools reach into:
// a fresh start of the process, the heap's failure switch, and the reader of
// the lifetime variable.
#ifndef HOSTKIT_HOSTID_INTERNAL_H
#define HOSTKIT_HOSTID_INTERNAL_H

#include <cstdint>

#include "hostid.h"

// The lifetime that a value of HID_DEBUG_HOSTID gives (null: unset).
int32_t hostid_lifetime_from_text(const char* text);

// Forgets everything the process has learnt, as at its start: the lifetime,
// the network layer, the adapter caches, the loaded IP helper.
void hostid_process_reset();

// Makes the Nth zero-filled allocation from now fail (counted from 1); 0
// never fails. Returns the number of allocations made since the last call.
int hostid_heap_fail_at(int n);
// Blocks allocated and not yet freed.
int64_t hostid_heap_live();

// The process reset of each source file.
void hostid_context_process_reset();
void hostid_net_process_reset();
void hostid_adapters_process_reset();

#endif
