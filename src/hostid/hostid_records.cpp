// Records and the heap they come from. Everything above (the lookup, the host
// name, the adapters) allocates here, and this is the one place where a list
// of addresses becomes a chain of records.
#include <cstring>

#include "hostid_internal.h"

extern "C" void* hostid_heap_calloc(uint64_t count, uint64_t size) {
  if (size != 0 && count > UINT64_MAX / size) return nullptr;
  const HostidPort& p = *hostid_port();
  return p.heap_alloc(p.handle, count * size);
}

extern "C" void hostid_heap_free(void* block) {
  const HostidPort& p = *hostid_port();
  p.heap_free(p.handle, block);
}

extern "C" HostIdRecord* hostid_record_new(void) {
  return static_cast<HostIdRecord*>(hostid_heap_calloc(1, sizeof(HostIdRecord)));
}

extern "C" void hostid_records_free(HostIdRecord* chain) {
  while (chain != nullptr) {
    HostIdRecord* next = chain->next;
    hostid_heap_free(chain);
    chain = next;
  }
}

void hostid_chain_build(HostIdRecord* head, const uint8_t (*addresses)[6], int32_t count) {
  HostIdRecord* last = head;
  for (int32_t i = 0; last != nullptr && i < count; ++i) {
    HostIdRecord* record = i == 0 ? head : hostid_record_new();
    if (record == nullptr) return;
    record->type = HOSTID_TYPE_ETHER;
    std::memcpy(record->value.address, addresses[i], 6);
    if (record != head) last->next = record;
    last = record;
  }
}

extern "C" void hostid_copy_bounded(char* destination, const char* source, int32_t limit) {
  if (destination == nullptr) return;
  // A negative limit is taken as no room at all.
  if (source == nullptr || limit <= 0) {
    destination[0] = '\0';
    return;
  }
  for (int32_t i = 0; i < limit; ++i) {
    destination[i] = source[i];
    if (source[i] == '\0') break;
  }
  destination[limit] = '\0';
}
