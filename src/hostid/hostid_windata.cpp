// Windows' adapter list and adapter class key over plain data.
#include "hostid_windata.h"

#include <cstring>

#include "hostid_internal.h"

namespace {

constexpr int32_t kFileNotFound = 2;
constexpr int32_t kAccessDenied = 5;
constexpr int32_t kMoreData = 234;
constexpr int32_t kNoMoreItems = 259;

// An adapter of the list as it stands in the buffer, with its successor.
struct Entry {
  HostidAdapter adapter;
  const Entry* next;
};

size_t wide_length(const uint16_t* text) {
  size_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}

// Copies `size` bytes to *at and moves *at past them.
void* put(char** at, const void* data, size_t size) {
  void* start = *at;
  if (size != 0) std::memcpy(start, data, size);
  *at += size;
  return start;
}

int32_t give(const void* value, uint32_t length, uint8_t* data, uint32_t* size) {
  if (*size < length) return kMoreData;
  std::memcpy(data, value, length);
  *size = length;
  return 0;
}

}  // namespace

uint32_t windata_adapters(const HostidAdapter* adapters, uint32_t count, void* buffer,
                          uint32_t* size) {
  if (count == 0) return HOSTID_STATUS_NO_DATA;
  // The entries first, then the descriptions (two-byte units), then the
  // names and addresses.
  size_t needed = sizeof(Entry) * count;
  for (uint32_t i = 0; i < count; ++i) {
    const HostidAdapter& a = adapters[i];
    needed += 2 * (wide_length(a.description) + 1) + std::strlen(a.name) + 1 + a.address_length;
  }
  if (buffer == nullptr || *size < needed) {
    *size = static_cast<uint32_t>(needed);
    return HOSTID_STATUS_BUFFER_OVERFLOW;
  }
  auto* entries = static_cast<Entry*>(buffer);
  char* at = reinterpret_cast<char*>(entries + count);
  for (uint32_t i = 0; i < count; ++i) {
    const HostidAdapter& a = adapters[i];
    entries[i].adapter.description =
        static_cast<const uint16_t*>(put(&at, a.description, 2 * (wide_length(a.description) + 1)));
  }
  for (uint32_t i = 0; i < count; ++i) {
    const HostidAdapter& a = adapters[i];
    entries[i].adapter.name = static_cast<const char*>(put(&at, a.name, std::strlen(a.name) + 1));
    entries[i].adapter.address = static_cast<const uint8_t*>(put(&at, a.address, a.address_length));
    entries[i].adapter.address_length = a.address_length;
    entries[i].next = i + 1 < count ? &entries[i + 1] : nullptr;
  }
  return 0;
}

const void* windata_adapter_first(void*, const void* buffer) { return buffer; }

const void* windata_adapter_next(void*, const void* adapter) {
  return static_cast<const Entry*>(adapter)->next;
}

void windata_adapter_read(void*, const void* adapter, HostidAdapter* out) {
  *out = static_cast<const Entry*>(adapter)->adapter;
}

int32_t windata_reg_open(const WindataClassKey* key, void* parent, const char* path, void** out) {
  *out = nullptr;
  if (parent == nullptr) {
    if (std::strcmp(path, HOSTID_ADAPTER_CLASS_KEY) != 0) return kFileNotFound;
    *out = const_cast<WindataClassKey*>(key);
    return 0;
  }
  for (uint32_t i = 0; parent == key && i < key->count; ++i) {
    const WindataClassEntry& e = key->entries[i];
    if (std::strcmp(e.subkey, path) != 0) continue;
    if (e.denied) return kAccessDenied;
    *out = const_cast<WindataClassEntry*>(&e);
    return 0;
  }
  return kFileNotFound;
}

int32_t windata_reg_query_info(const WindataClassKey* key, uint32_t* subkeys, uint32_t* longest) {
  *subkeys = key->count;
  *longest = 0;
  for (uint32_t i = 0; i < key->count; ++i) {
    auto length = static_cast<uint32_t>(std::strlen(key->entries[i].subkey));
    if (length > *longest) *longest = length;
  }
  return 0;
}

int32_t windata_reg_enum_key(const WindataClassKey* key, uint32_t index, char* name,
                             uint32_t* length) {
  if (index >= key->count) return kNoMoreItems;
  const char* subkey = key->entries[index].subkey;
  auto n = static_cast<uint32_t>(std::strlen(subkey));
  if (*length < n + 1) return kMoreData;
  std::memcpy(name, subkey, n + 1);
  *length = n;
  return 0;
}

int32_t windata_reg_query_value(const WindataClassKey* key, void* handle, const char* name,
                                uint8_t* data, uint32_t* size) {
  if (handle == key) return kFileNotFound;  // the class key has no values of its own
  const auto* e = static_cast<const WindataClassEntry*>(handle);
  if (std::strcmp(name, "NetCfgInstanceId") == 0 && e->instance != nullptr) {
    return give(e->instance, static_cast<uint32_t>(std::strlen(e->instance) + 1), data, size);
  }
  if (std::strcmp(name, "Characteristics") == 0 && e->characteristics >= 0) {
    auto value = static_cast<uint32_t>(e->characteristics);
    return give(&value, sizeof value, data, size);
  }
  return kFileNotFound;
}
