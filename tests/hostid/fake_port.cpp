#include "fake_port.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace hostid_test {
namespace {

FakePort& fake(void* handle) { return *static_cast<FakePort*>(handle); }

// A library handle is its entry in the fake's map: far above 0x20, and it
// names the functions the library lacks.
using Library = std::pair<const std::string, std::set<std::string>>;

void fake_function() {}
char g_mutex;
bool g_machine_made = false;

uint32_t get_adapters(void* h, HostidProc, uint32_t family, uint32_t flags, void* buffer,
                      uint32_t* size) {
  FakePort& f = fake(h);
  EXPECT_EQ(family, 0u);
  EXPECT_EQ(flags, 0x2Fu);
  ++f.adapter_calls;
  if (f.adapters_result != 0) return f.adapters_result;
  std::vector<HostidAdapter> list;
  for (const FakeAdapter& a : f.adapters) {
    list.push_back({a.name.c_str(), reinterpret_cast<const uint16_t*>(a.description.c_str()),
                    a.address.data(), static_cast<uint32_t>(a.address.size())});
  }
  return windata_adapters(list.data(), static_cast<uint32_t>(list.size()), buffer, size);
}

uint8_t netbios(void* h, HostidProc, uint8_t command, uint8_t lana, const char* name,
                uint8_t* buffer, uint16_t length) {
  FakePort& f = fake(h);
  if (command == 0x37) {  // enumerate the LAN adapters
    EXPECT_GE(length, 1 + f.lanas.size());
    buffer[0] = static_cast<uint8_t>(f.lanas.size());
    std::copy(f.lanas.begin(), f.lanas.end(), buffer + 1);
    return 0;
  }
  if (command == 0x32) return 0;  // reset
  ++f.netbios_status_calls;       // adapter status
  EXPECT_EQ(command, 0x33);
  EXPECT_EQ(std::string(name, 16), "*               ");
  EXPECT_EQ(length, 600);
  auto it = f.lana_status.find(lana);
  if (it == f.lana_status.end()) return 0x23;  // no such adapter
  std::memcpy(buffer, it->second.data(), it->second.size());
  return 0;
}

}  // namespace

FakePort::FakePort() {
  // The facility's process-wide state (caches, loaded libraries, the
  // lifetime) belongs to one machine.
  EXPECT_FALSE(g_machine_made) << "one machine per process: run each case on its own";
  g_machine_made = true;
  HostidPort& p = port;
  p.handle = this;
  p.now = [](void* h) { return fake(h).clock; };
  p.get_env = [](void* h, const char* name) -> const char* {
    auto it = fake(h).environment.find(name);
    return it == fake(h).environment.end() ? nullptr : it->second.c_str();
  };
  p.version = [](void* h) { return fake(h).version; };
  p.process_id = [](void*) { return int32_t{4242}; };
  p.heap_alloc = [](void* h, uint64_t size) -> void* {
    FakePort& f = fake(h);
    if (++f.allocations == f.fail_at) return nullptr;
    ++f.live_blocks;
    return std::calloc(1, static_cast<size_t>(size));
  };
  p.heap_free = [](void* h, void* block) {
    if (block != nullptr) --fake(h).live_blocks;
    std::free(block);
  };
  p.set_error_mode = [](void* h, uint32_t mode) {
    ++fake(h).error_mode_sets;
    return std::exchange(fake(h).error_mode, mode);
  };
  p.load_library = [](void* h, const char* name) -> void* {
    fake(h).loads.emplace_back(name);
    auto it = fake(h).libraries.find(name);
    return it == fake(h).libraries.end() ? nullptr : &*it;
  };
  p.get_function = [](void* h, void* library, const char* name) -> HostidProc {
    fake(h).lookups.emplace_back(name);
    return static_cast<Library*>(library)->second.count(name) != 0 ? nullptr : fake_function;
  };
  p.free_library = [](void* h, void*) { ++fake(h).library_frees; };
  p.mutex_create = [](void* h, const char* name, int32_t* exists) -> void* {
    fake(h).mutex_names.emplace_back(name);
    *exists = fake(h).mutex_exists ? 1 : 0;
    return fake(h).mutex_fails ? nullptr : &g_mutex;
  };
  p.mutex_wait = [](void* h, void*) { ++fake(h).mutex_waits; };
  p.mutex_release = [](void* h, void*) { ++fake(h).mutex_releases; };
  p.mutex_close = [](void* h, void*) { ++fake(h).mutex_closes; };
  p.wsa_startup = [](void* h, HostidProc, uint16_t requested, void*) {
    ++fake(h).startups;
    fake(h).startup_version = requested;
    return int32_t{0};
  };
  p.gethostname = [](void* h, HostidProc, char* buffer, int32_t size) {
    FakePort& f = fake(h);
    ++f.host_name_reads;
    if (f.host_name_fails) return int32_t{-1};
    std::strncpy(buffer, f.host_name.c_str(), static_cast<size_t>(size));
    buffer[size - 1] = '\0';
    return int32_t{0};
  };
  // The fake's code page is Latin-1: every byte is the code point of its
  // value, so below 0x100 and at most two bytes in UTF-8.
  p.ansi_to_wide = [](void* h, const char* text, uint16_t* out, int32_t out_count) {
    auto length = static_cast<int32_t>(std::strlen(text)) + 1;
    if (fake(h).conversion_fails || (out != nullptr && out_count < length)) return int32_t{0};
    for (int32_t i = 0; out != nullptr && i < length; ++i) out[i] = static_cast<uint8_t>(text[i]);
    return length;
  };
  p.wide_to_utf8 = [](void*, const uint16_t* text, char* out, int32_t out_size) {
    std::string utf8;
    for (const uint16_t* c = text; *c != 0; ++c) {
      if (*c >= 0x80) utf8 += static_cast<char>(0xC0 | (*c >> 6));
      utf8 += static_cast<char>(*c < 0x80 ? *c : 0x80 | (*c & 0x3F));
    }
    auto length = static_cast<int32_t>(utf8.size()) + 1;
    if (out != nullptr && out_size < length) return int32_t{0};
    if (out != nullptr) std::memcpy(out, utf8.c_str(), static_cast<size_t>(length));
    return length;
  };
  p.get_adapters = get_adapters;
  p.adapter_first = windata_adapter_first;
  p.adapter_next = windata_adapter_next;
  p.adapter_read = windata_adapter_read;
  p.transport_enum = [](void* h, HostidProc, uint32_t preferred, void** buffer, uint32_t* entries) {
    EXPECT_EQ(preferred, 0x1000u);
    *buffer = fake(h).transport_result != 0 ? nullptr : &fake(h).transports;
    *entries = fake(h).transport_result != 0 ? 0 : static_cast<uint32_t>(fake(h).transports.size());
    return fake(h).transport_result;
  };
  p.transport_address = [](void*, const void* buffer, uint32_t index) {
    const auto& list = *static_cast<const std::vector<std::u16string>*>(buffer);
    return reinterpret_cast<const uint16_t*>(list.at(index).c_str());
  };
  p.transport_free = [](void*, HostidProc, void*) {};
  p.netbios = netbios;
  // The class key is taken from class_entries as it stands when it is opened.
  p.reg_open = [](void* h, void* parent, const char* path, uint32_t access, void** key) {
    FakePort& f = fake(h);
    EXPECT_EQ(access, 0x20019u);  // KEY_READ
    if (parent == nullptr) {
      f.class_key = {f.class_entries.data(), static_cast<uint32_t>(f.class_entries.size())};
    }
    *key = nullptr;
    int32_t status = parent == nullptr && !f.class_key_opens
                         ? 2
                         : windata_reg_open(&f.class_key, parent, path, key);
    if (status == 0) ++f.registry_open_keys;
    return status;
  };
  p.reg_query_info = [](void* h, void*, uint32_t* subkeys, uint32_t* longest) {
    return windata_reg_query_info(&fake(h).class_key, subkeys, longest);
  };
  p.reg_enum_key = [](void* h, void*, uint32_t index, char* name, uint32_t* length) {
    return windata_reg_enum_key(&fake(h).class_key, index, name, length);
  };
  p.reg_query_value = [](void* h, void* key, const char* name, uint8_t* data, uint32_t* size) {
    return windata_reg_query_value(&fake(h).class_key, key, name, data, size);
  };
  p.reg_close = [](void* h, void*) { --fake(h).registry_open_keys; };
  hostid_port_set(&port);
}

FakePort::~FakePort() { hostid_port_set(nullptr); }

std::string query(HostIdContext* context, int32_t type, int32_t* status) {
  char buffer[HOSTID_QUERY_BUFFER_SIZE];
  std::memset(buffer, 'x', sizeof buffer);
  buffer[0] = '\0';
  int32_t result = hostid_query(context, type, buffer);
  if (status != nullptr) *status = result;
  if (result == 0) {
    EXPECT_EQ(buffer[sizeof buffer - 1], '\0');  // an answer writes the last byte
  }
  return buffer;
}

std::string read_ids(int32_t* result) {
  HostIdContext context{};
  context.tag = HOSTID_CONTEXT_TAG;
  context.records = hostid_record_new();
  context.records->type = HOSTID_TYPE_ETHER;
  int32_t found = hostid_read_adapter_addresses(&context);
  if (result != nullptr) *result = found;
  std::string text = hostid_chain_to_text(nullptr, context.records);
  hostid_records_free(context.records);
  return text;
}

}  // namespace hostid_test
