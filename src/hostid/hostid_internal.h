// What the facility's own files share beyond the installed headers.
#ifndef HOSTKIT_HOSTID_INTERNAL_H
#define HOSTKIT_HOSTID_INTERNAL_H

#include <cstdint>

#include "hostid.h"

// The registry key of the network adapter class, whose subkeys say which
// adapters are physical. The Linux port and the tests imitate it.
#define HOSTID_ADAPTER_CLASS_KEY \
  "SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-BFC1-08002BE10318}"

// The lifetime that a value of HID_DEBUG_HOSTID gives (null: unset).
int32_t hostid_lifetime_from_text(const char* text);

// Puts `count` addresses into the chain that starts at `head`: the first into
// the head, each further one into a new record behind the last, all of type
// 2. When a record can't be had the chain ends with the addresses it holds
// so far, still well formed.
void hostid_chain_build(HostIdRecord* head, const uint8_t (*addresses)[6], int32_t count);

#endif
