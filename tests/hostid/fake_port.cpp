#include "fake_port.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace hostid_test {
namespace {

FakePort& fake(void* handle) { return *static_cast<FakePort*>(handle); }

// A library handle is the address of its name in the fake's map, far above
// 0x20.
struct Library {
  std::string name;
};

// Functions handed out: each name is its own distinct address.
void fake_function() {}

int64_t now(void* h) { return fake(h).clock; }

const char* get_env(void* h, const char* name) {
  auto& env = fake(h).environment;
  auto it = env.find(name);
  return it == env.end() ? nullptr : it->second.c_str();
}

uint32_t get_version(void* h) { return fake(h).version; }
int32_t process_id(void* h) { return fake(h).pid; }

uint32_t set_error_mode(void* h, uint32_t mode) {
  FakePort& f = fake(h);
  ++f.error_mode_sets;
  uint32_t old = f.error_mode;
  f.error_mode = mode;
  return old;
}

void* load_library(void* h, const char* name) {
  FakePort& f = fake(h);
  f.loads.emplace_back(name);
  if (f.libraries.find(name) == f.libraries.end()) return nullptr;
  auto* library = new Library{name};
  f.open_libraries.insert(library);
  return library;
}

HostidProc get_function(void* h, void* library, const char* name) {
  FakePort& f = fake(h);
  f.lookups.emplace_back(name);
  const auto& exported = f.libraries[static_cast<Library*>(library)->name];
  return exported.count(name) != 0 ? fake_function : nullptr;
}

void free_library(void* h, void* library) {
  ++fake(h).library_frees;
  fake(h).open_libraries.erase(library);
  delete static_cast<Library*>(library);
}

char g_mutex;
void* mutex_create(void* h, const char* name, int32_t* exists) {
  FakePort& f = fake(h);
  f.mutex_names.emplace_back(name);
  *exists = f.mutex_exists ? 1 : 0;
  return f.mutex_fails ? nullptr : &g_mutex;
}
void mutex_wait(void* h, void*) { ++fake(h).mutex_waits; }
void mutex_release(void* h, void*) { ++fake(h).mutex_releases; }
void mutex_close(void* h, void*) { ++fake(h).mutex_closes; }

int32_t wsa_startup(void* h, HostidProc function, uint16_t requested, void*) {
  FakePort& f = fake(h);
  EXPECT_NE(function, nullptr);
  ++f.startups;
  f.startup_version = requested;
  return 0;
}

int32_t gethostname(void* h, HostidProc function, char* buffer, int32_t size) {
  FakePort& f = fake(h);
  EXPECT_NE(function, nullptr);
  ++f.host_name_reads;
  if (f.host_name_fails) return -1;
  std::strncpy(buffer, f.host_name.c_str(), static_cast<size_t>(size));
  buffer[size - 1] = '\0';
  return 0;
}

// The fake's code page is Latin-1: every byte is the code point of its value.
int32_t ansi_to_wide(void* h, const char* text, uint16_t* out, int32_t out_count) {
  if (fake(h).conversion_fails) return 0;
  auto length = static_cast<int32_t>(std::strlen(text)) + 1;
  if (out == nullptr) return length;
  if (out_count < length) return 0;
  for (int32_t i = 0; i < length; ++i) out[i] = static_cast<uint8_t>(text[i]);
  return length;
}

int32_t wide_to_utf8(void* h, const uint16_t* text, char* out, int32_t out_size) {
  // Code points below 0x800 are enough for the fake's code page.
  std::string utf8;
  for (const uint16_t* c = text; *c != 0; ++c) {
    if (*c < 0x80) {
      utf8 += static_cast<char>(*c);
    } else {
      utf8 += static_cast<char>(0xC0 | (*c >> 6));
      utf8 += static_cast<char>(0x80 | (*c & 0x3F));
    }
  }
  (void)h;
  auto length = static_cast<int32_t>(utf8.size()) + 1;
  if (out == nullptr) return length;
  if (out_size < length) return 0;
  std::memcpy(out, utf8.c_str(), static_cast<size_t>(length));
  return length;
}

// The adapter buffer: an array of entries, each with its successor.
struct Entry {
  HostidAdapter adapter;
  const Entry* next;
};

uint32_t get_adapters(void* h, HostidProc function, uint32_t family, uint32_t flags, void* buffer,
                      uint32_t* size) {
  FakePort& f = fake(h);
  EXPECT_NE(function, nullptr);
  EXPECT_EQ(family, 0u);
  EXPECT_EQ(flags, 0x2Fu);
  ++f.adapter_calls;
  if (f.adapters_result != 0) return f.adapters_result;
  if (f.adapters.empty()) return HOSTID_STATUS_NO_DATA;
  auto needed = static_cast<uint32_t>(sizeof(Entry) * f.adapters.size());
  if (buffer == nullptr || *size < needed) {
    *size = needed;
    return HOSTID_STATUS_BUFFER_OVERFLOW;
  }
  auto* entries = static_cast<Entry*>(buffer);
  for (size_t i = 0; i < f.adapters.size(); ++i) {
    const FakeAdapter& a = f.adapters[i];
    entries[i].adapter.name = a.name.c_str();
    entries[i].adapter.description = reinterpret_cast<const uint16_t*>(a.description.c_str());
    entries[i].adapter.address = a.address.data();
    entries[i].adapter.address_length = static_cast<uint32_t>(a.address.size());
    entries[i].next = i + 1 < f.adapters.size() ? &entries[i + 1] : nullptr;
  }
  return 0;
}

const void* adapter_first(void*, const void* buffer) { return buffer; }
const void* adapter_next(void*, const void* a) { return static_cast<const Entry*>(a)->next; }
void adapter_read(void*, const void* a, HostidAdapter* out) {
  *out = static_cast<const Entry*>(a)->adapter;
}

uint32_t transport_enum(void* h, HostidProc function, uint32_t preferred, void** buffer,
                        uint32_t* entries) {
  FakePort& f = fake(h);
  EXPECT_NE(function, nullptr);
  EXPECT_EQ(preferred, 0x1000u);
  ++f.transport_calls;
  *buffer = nullptr;
  *entries = 0;
  if (f.transport_result != 0) return f.transport_result;
  *buffer = new std::vector<std::u16string>(f.transports);
  *entries = static_cast<uint32_t>(f.transports.size());
  return 0;
}

const uint16_t* transport_address(void*, const void* buffer, uint32_t index) {
  const auto& list = *static_cast<const std::vector<std::u16string>*>(buffer);
  return reinterpret_cast<const uint16_t*>(list.at(index).c_str());
}

void transport_free(void*, HostidProc function, void* buffer) {
  EXPECT_NE(function, nullptr);
  delete static_cast<std::vector<std::u16string>*>(buffer);
}

uint8_t netbios(void* h, HostidProc function, uint8_t command, uint8_t lana, const char* name,
                uint8_t* buffer, uint16_t length) {
  FakePort& f = fake(h);
  EXPECT_NE(function, nullptr);
  if (command == 0x37) {
    EXPECT_GE(length, 1 + f.lanas.size());
    buffer[0] = static_cast<uint8_t>(f.lanas.size());
    for (size_t i = 0; i < f.lanas.size(); ++i) buffer[1 + i] = f.lanas[i];
    return 0;
  }
  if (command == 0x32) return 0;
  if (command == 0x33) {
    ++f.netbios_status_calls;
    EXPECT_EQ(std::string(name, 16), "*               ");
    EXPECT_EQ(length, 600);
    auto it = f.lana_status.find(lana);
    if (it == f.lana_status.end()) return 0x23;  // no such adapter
    std::memcpy(buffer, it->second.data(), it->second.size());
    return 0;
  }
  return 0xFF;
}

constexpr const char* kClassKey =
    "SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-BFC1-08002BE10318}";

struct Key {
  const FakeRegistryEntry* entry;  // null for the class key
};

int32_t reg_open(void* h, void* parent, const char* path, uint32_t access, void** key) {
  FakePort& f = fake(h);
  EXPECT_EQ(access, 0x20019u);
  ++f.registry_opens;
  *key = nullptr;
  if (parent == nullptr) {
    if (!f.class_key_opens || std::strcmp(path, kClassKey) != 0) return 2;
    *key = new Key{nullptr};
    ++f.registry_open_keys;
    return 0;
  }
  for (const FakeRegistryEntry& e : f.class_entries) {
    if (e.subkey == path) {
      if (!e.opens) return 5;
      *key = new Key{&e};
      ++f.registry_open_keys;
      return 0;
    }
  }
  return 2;
}

int32_t reg_query_info(void* h, void*, uint32_t* subkeys, uint32_t* longest) {
  FakePort& f = fake(h);
  *subkeys = static_cast<uint32_t>(f.class_entries.size());
  *longest = 0;
  for (const auto& e : f.class_entries) {
    *longest = std::max(*longest, static_cast<uint32_t>(e.subkey.size()));
  }
  return 0;
}

int32_t reg_enum_key(void* h, void*, uint32_t index, char* name, uint32_t* length) {
  FakePort& f = fake(h);
  if (index >= f.class_entries.size()) return 259;
  const std::string& subkey = f.class_entries[index].subkey;
  if (*length < subkey.size() + 1) return 234;
  std::memcpy(name, subkey.c_str(), subkey.size() + 1);
  *length = static_cast<uint32_t>(subkey.size());
  return 0;
}

int32_t reg_query_value(void*, void* key, const char* name, uint8_t* data, uint32_t* size) {
  const FakeRegistryEntry* e = static_cast<Key*>(key)->entry;
  if (e == nullptr) return 2;
  if (std::strcmp(name, "NetCfgInstanceId") == 0 && e->has_instance) {
    if (*size < e->instance.size() + 1) return 234;
    std::memcpy(data, e->instance.c_str(), e->instance.size() + 1);
    *size = static_cast<uint32_t>(e->instance.size() + 1);
    return 0;
  }
  if (std::strcmp(name, "Characteristics") == 0 && e->has_characteristics) {
    if (*size < 4) return 234;
    std::memcpy(data, &e->characteristics, 4);
    *size = 4;
    return 0;
  }
  return 2;
}

void reg_close(void* h, void* key) {
  --fake(h).registry_open_keys;
  delete static_cast<Key*>(key);
}

}  // namespace

std::set<std::string> winsock2_functions() {
  return {"send",
          "ioctlsocket",
          "WSAGetLastError",
          "recv",
          "closesocket",
          "getservbyname",
          "gethostbyname",
          "gethostname",
          "WSAStartup",
          "WSACleanup",
          "htons",
          "ntohl",
          "connect",
          "socket",
          "select",
          "ntohs",
          "__WSAFDIsSet",
          "bind",
          "getsockname",
          "accept",
          "listen",
          "WSASetLastError",
          "setsockopt",
          "sendto",
          "recvfrom",
          "htonl",
          "shutdown",
          "getsockopt",
          "gethostbyaddr",
          "WSACreateEvent",
          "WSAEventSelect",
          "WSAWaitForMultipleEvents",
          "WSAEnumNetworkEvents",
          "WSALookupServiceBeginA",
          "WSALookupServiceNextA",
          "WSALookupServiceEnd"};
}

std::set<std::string> winsock1_functions() {
  std::set<std::string> names = winsock2_functions();
  for (const char* only2 :
       {"WSACreateEvent", "WSAEventSelect", "WSAWaitForMultipleEvents", "WSAEnumNetworkEvents",
        "WSALookupServiceBeginA", "WSALookupServiceNextA", "WSALookupServiceEnd"}) {
    names.erase(only2);
  }
  names.insert("EnumProtocolsA");
  names.insert("GetAddressByNameA");
  return names;
}

FakePort::FakePort() {
  port = HostidPort{this,
                    now,
                    get_env,
                    get_version,
                    process_id,
                    set_error_mode,
                    load_library,
                    get_function,
                    free_library,
                    mutex_create,
                    mutex_wait,
                    mutex_release,
                    mutex_close,
                    wsa_startup,
                    gethostname,
                    ansi_to_wide,
                    wide_to_utf8,
                    get_adapters,
                    adapter_first,
                    adapter_next,
                    adapter_read,
                    transport_enum,
                    transport_address,
                    transport_free,
                    netbios,
                    reg_open,
                    reg_query_info,
                    reg_enum_key,
                    reg_query_value,
                    reg_close};
  hostid_process_reset();
  hostid_heap_fail_at(0);
  hostid_port_set(&port);
}

FakePort::~FakePort() {
  // The libraries a process keeps to its end.
  for (void* library : open_libraries) delete static_cast<Library*>(library);
  hostid_port_set(nullptr);
  hostid_process_reset();
  hostid_heap_fail_at(0);
}

void FakePort::install_all_libraries() {
  libraries["WS2_32.Dll"] = winsock2_functions();
  libraries["WSOCK32.Dll"] = winsock1_functions();
  libraries["iphlpapi.dll"] = {"GetAdaptersAddresses"};
  libraries["NETAPI32.Dll"] = {"NetWkstaTransportEnum", "NetApiBufferFree", "Netbios"};
}

void FakePort::add_adapter(const std::string& name, const std::vector<uint8_t>& address,
                           const std::u16string& description) {
  adapters.push_back({name, description, address});
}

}  // namespace hostid_test
