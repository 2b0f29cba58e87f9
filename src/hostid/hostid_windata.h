// Windows' adapter list and adapter class key, made from plain data: the
// form in which the Linux port serves its interfaces, and of which the tests
// make their machines.
#ifndef HOSTKIT_HOSTID_WINDATA_H
#define HOSTKIT_HOSTID_WINDATA_H

#include <cstdint>

#include "hostid_port.h"

// GetAdaptersAddresses over `count` adapters: 0 with the list laid out in
// `buffer` (names, descriptions and addresses copied into it), 111 with the
// size needed in *size when `buffer` is null or *size too small, 232 for no
// adapter at all.
uint32_t windata_adapters(const HostidAdapter* adapters, uint32_t count, void* buffer,
                          uint32_t* size);
// The port's walk over such a buffer.
const void* windata_adapter_first(void* handle, const void* buffer);
const void* windata_adapter_next(void* handle, const void* adapter);
void windata_adapter_read(void* handle, const void* adapter, HostidAdapter* out);

// One subkey of the adapter class key.
struct WindataClassEntry {
  const char* subkey;       // its name
  const char* instance;     // NetCfgInstanceId, null when the value is missing
  int64_t characteristics;  // Characteristics, negative when the value is missing
  bool denied = false;      // the subkey can't be opened
};

struct WindataClassKey {
  const WindataClassEntry* entries;
  uint32_t count;
};

// The registry calls of the port over `key`, with the status codes of the
// registry. A handle is `key` itself for the class key, an entry for a
// subkey; closing one has nothing to release.
int32_t windata_reg_open(const WindataClassKey* key, void* parent, const char* path, void** out);
int32_t windata_reg_query_info(const WindataClassKey* key, uint32_t* subkeys, uint32_t* longest);
int32_t windata_reg_enum_key(const WindataClassKey* key, uint32_t index, char* name,
                             uint32_t* length);
int32_t windata_reg_query_value(const WindataClassKey* key, void* handle, const char* name,
                                uint8_t* data, uint32_t* size);

#endif
