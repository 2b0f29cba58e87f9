// A machine made of plain data for the host identification rules, over the
// library's own imitation of Windows' forms (hostid_windata.h): a clock the
// test sets, an environment, a version, a heap that fails on demand and
// checks its blocks, libraries, adapters, transports, NetBIOS adapters and
// the adapter class key. The facility keeps process-wide state, so a process
// makes one machine: ctest runs each test case in a process of its own.
#ifndef HOSTKIT_TESTS_HOSTID_FAKE_PORT_H
#define HOSTKIT_TESTS_HOSTID_FAKE_PORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "hostid_internal.h"
#include "hostid_windata.h"

namespace hostid_test {

// GetVersion's layout: major in bits 0-7, minor 8-15, build 16-31, the top
// bit for the older family (95, 98, Me).
constexpr uint32_t version_of(uint32_t major, uint32_t minor, uint32_t build, bool older = false) {
  return (older ? 0x80000000u : 0u) | build << 16 | minor << 8 | major;
}

struct FakeAdapter {
  std::string name;
  std::u16string description;
  std::vector<uint8_t> address;
};

struct FakePort {
  // Windows 10 with both socket libraries, iphlpapi and NETAPI32, each of
  // which exports every function but the one named with it.
  int64_t clock = 1'700'000'000;
  std::map<std::string, std::string> environment;
  uint32_t version = version_of(10, 0, 19041);
  std::map<std::string, std::string> libraries = {
      {"WS2_32.Dll", ""}, {"WSOCK32.Dll", ""}, {"iphlpapi.dll", ""}, {"NETAPI32.Dll", ""}};
  std::string host_name = "alpha";  // in the fake's code page, Latin-1
  bool host_name_fails = false;
  std::vector<FakeAdapter> adapters;
  uint32_t adapters_result = 0, transport_result = 0;  // failures instead of the lists
  std::vector<std::u16string> transports;
  std::vector<std::vector<uint8_t>> lanas;  // each LAN adapter's status; empty: it fails
  std::vector<WindataClassEntry> class_entries;
  int fail_at = 0;  // the number of the allocation that fails, counted from 1; 0 for none

  // What the rules did: the libraries loaded, the heap blocks not yet freed
  // with their sizes, the version WSAStartup was asked for.
  std::vector<std::string> loads;
  std::map<void*, size_t> blocks;
  uint16_t started = 0;
  int allocations = 0, host_name_reads = 0, adapter_calls = 0;

  FakePort();   // installs the machine as the active port
  ~FakePort();  // puts the real one back
  WindataClassKey class_key{};
};

namespace {

FakePort* g = nullptr;  // the machine of this process

// A library handle is its entry in the machine's map: far above 0x20, and it
// names the function the library lacks.
using Library = std::pair<const std::string, std::string>;
void exported() {}
char g_mutex;

int64_t now(void*) { return g->clock; }
uint32_t version(void*) { return g->version; }
int32_t process_id(void*) { return 1; }
uint32_t set_error_mode(void*, uint32_t) { return 0; }
void nothing(void*, void*) {}
void* mutex_create(void*, const char*, int32_t* exists) {
  *exists = 0;
  return &g_mutex;
}

const char* get_env(void*, const char* name) {
  auto it = g->environment.find(name);
  return it == g->environment.end() ? nullptr : it->second.c_str();
}

// A block has one byte more than asked for, which must still hold its mark
// when the block is freed.
void* heap_alloc(void*, uint64_t size) {
  if (++g->allocations == g->fail_at) return nullptr;
  auto* block = static_cast<char*>(std::calloc(1, size + 1));
  block[size] = '#';
  g->blocks[block] = size;
  return block;
}

void heap_free(void*, void* block) {
  if (block == nullptr) return;
  EXPECT_EQ(static_cast<char*>(block)[g->blocks.at(block)], '#') << "written past its end";
  g->blocks.erase(block);
  std::free(block);
}

void* load_library(void*, const char* name) {
  g->loads.emplace_back(name);
  auto it = g->libraries.find(name);
  return it == g->libraries.end() ? nullptr : &*it;
}

HostidProc get_function(void*, void* library, const char* name) {
  return static_cast<Library*>(library)->second == name ? nullptr : exported;
}

int32_t wsa_startup(void*, HostidProc function, uint16_t version, void*) {
  EXPECT_NE(function, nullptr);
  g->started = version;
  return 0;
}

// As on Windows, the host name can't be had before WSAStartup.
int32_t gethostname(void*, HostidProc function, char* buffer, int32_t size) {
  ++g->host_name_reads;
  if (function == nullptr || g->started == 0 || g->host_name_fails) return -1;
  std::snprintf(buffer, static_cast<size_t>(size), "%s", g->host_name.c_str());
  return 0;
}

// Latin-1: each byte is the code point of its value. A null output asks for
// the count, and only with a count of 0, as Windows has it.
int32_t ansi_to_wide(void*, const char* text, uint16_t* out, int32_t count) {
  auto length = static_cast<int32_t>(std::strlen(text)) + 1;
  if (out == nullptr) return count == 0 ? length : 0;
  for (int32_t i = 0; i < length && i < count; ++i) out[i] = static_cast<uint8_t>(text[i]);
  return count < length ? 0 : length;
}

int32_t wide_to_utf8(void*, const uint16_t* text, char* out, int32_t size) {
  if (out == nullptr && size != 0) return 0;
  return hostid_port_system()->wide_to_utf8(nullptr, text, out, size);
}

uint32_t get_adapters(void*, HostidProc, uint32_t, uint32_t flags, void* buffer, uint32_t* size) {
  ++g->adapter_calls;
  EXPECT_EQ(flags, 0x2Fu);
  std::vector<HostidAdapter> list;
  for (const FakeAdapter& a : g->adapters) {
    list.push_back({a.name.c_str(), reinterpret_cast<const uint16_t*>(a.description.c_str()),
                    a.address.data(), static_cast<uint32_t>(a.address.size())});
  }
  if (g->adapters_result != 0) return g->adapters_result;
  return windata_adapters(list.data(), static_cast<uint32_t>(list.size()), buffer, size);
}

// The transports' buffer is the machine's list itself.
uint32_t transports(void*, HostidProc, uint32_t preferred, void** buffer, uint32_t* count) {
  EXPECT_EQ(preferred, 0x1000u);
  *buffer = &g->transports;
  *count = static_cast<uint32_t>(g->transports.size());
  return g->transport_result;
}

const uint16_t* transport_address(void*, const void* buffer, uint32_t index) {
  const auto* list = static_cast<const std::vector<std::u16string>*>(buffer);
  return reinterpret_cast<const uint16_t*>(list->at(index).c_str());
}

void transport_free(void*, HostidProc, void* buffer) { EXPECT_EQ(buffer, &g->transports); }

// The LAN adapters are numbered 0 to n - 1; a reset always succeeds.
uint8_t netbios(void*, HostidProc, uint8_t command, uint8_t lana, const char*, uint8_t* buffer,
                uint16_t) {
  if (command == 0x37) {
    buffer[0] = static_cast<uint8_t>(g->lanas.size());
    for (size_t i = 0; i < g->lanas.size(); ++i) buffer[1 + i] = static_cast<uint8_t>(i);
  }
  if (command != 0x33) return 0;
  if (g->lanas.at(lana).empty()) return 0x23;
  std::memcpy(buffer, g->lanas[lana].data(), g->lanas[lana].size());
  return 0;
}

// The class key is made of class_entries as they stand when it is opened.
int32_t reg_open(void*, void* parent, const char* path, uint32_t, void** key) {
  g->class_key = {g->class_entries.data(), static_cast<uint32_t>(g->class_entries.size())};
  return windata_reg_open(&g->class_key, parent, path, key);
}
int32_t reg_info(void*, void*, uint32_t* n, uint32_t* longest) {
  return windata_reg_query_info(&g->class_key, n, longest);
}
int32_t reg_enum(void*, void*, uint32_t index, char* name, uint32_t* length) {
  return windata_reg_enum_key(&g->class_key, index, name, length);
}
int32_t reg_value(void*, void* key, const char* name, uint8_t* data, uint32_t* size) {
  return windata_reg_query_value(&g->class_key, key, name, data, size);
}

// clang-format off
const HostidPort kPort = {.handle = nullptr,
    .now = now, .get_env = get_env, .version = version, .process_id = process_id,
    .heap_alloc = heap_alloc, .heap_free = heap_free, .set_error_mode = set_error_mode,
    .load_library = load_library, .get_function = get_function, .free_library = nothing,
    .mutex_create = mutex_create, .mutex_wait = nothing, .mutex_release = nothing,
    .mutex_close = nothing, .wsa_startup = wsa_startup, .gethostname = gethostname,
    .ansi_to_wide = ansi_to_wide, .wide_to_utf8 = wide_to_utf8, .get_adapters = get_adapters,
    .adapter_first = windata_adapter_first, .adapter_next = windata_adapter_next,
    .adapter_read = windata_adapter_read, .transport_enum = transports,
    .transport_address = transport_address, .transport_free = transport_free, .netbios = netbios,
    .reg_open = reg_open, .reg_query_info = reg_info, .reg_enum_key = reg_enum,
    .reg_query_value = reg_value, .reg_close = nothing};
// clang-format on

}  // namespace

inline FakePort::FakePort() {
  EXPECT_EQ(g, nullptr) << "one machine at a time";
  g = this;
  hostid_port_set(&kPort);
}

inline FakePort::~FakePort() {
  hostid_port_set(nullptr);
  g = nullptr;
}

// The text a query leaves in an empty buffer, its status in *status; a null
// context stands for a new one, open for this query alone. An answer writes
// the buffer's last byte, however short it is.
inline std::string query(HostIdContext* context, int32_t type, int32_t* status = nullptr) {
  HostIdContext* own = nullptr;
  if (context == nullptr && hostid_context_open(&own) == 0) context = own;
  char buffer[HOSTID_QUERY_BUFFER_SIZE];
  std::memset(buffer, 'x', sizeof buffer);
  buffer[0] = '\0';
  const int32_t result = hostid_query(context, type, buffer);
  if (status != nullptr) *status = result;
  if (result == 0 && buffer[0] != '\0') {
    EXPECT_EQ(buffer[sizeof buffer - 1], '\0');
  }
  hostid_context_close(own);
  return buffer;
}

}  // namespace hostid_test

#endif
