// The machine's hardware addresses: a process-wide cache over three routes,
// the IP helper adapter list, the workstation transports and NetBIOS. Each
// route makes an ordered list of addresses; the answer's chain is built from
// such a list, a fresh one or the cached one, in hostid_chain_build.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "hostid_internal.h"

namespace {

constexpr uint32_t kIpHelperFamily = 0;    // unspecified
constexpr uint32_t kIpHelperFlags = 0x2F;  // no unicast, anycast, multicast, DNS, friendly name
constexpr uint32_t kTransportPreferredLength = 0x1000;
constexpr uint32_t kRegistryRead = 0x20019;
constexpr uint32_t kOlderFamily = 0x80000000u;
constexpr uint8_t kNetbiosReset = 0x32;
constexpr uint8_t kNetbiosStatus = 0x33;
constexpr uint8_t kNetbiosEnum = 0x37;

// Adapters that are never the machine's own hardware, by their whole
// description, with case.
constexpr std::array<const char16_t*, 5> kSkippedDescriptions = {
    u"MS LoopBack Driver", u"Microsoft Loopback Adapter", u"MS TCP Loopback interface",
    u"Teredo Tunneling Pseudo-Interface", u"Loopback Pseudo-Interface"};
constexpr const char16_t* kMultiplexor = u"Microsoft Network Adapter Multiplexor";

// A route's result: the addresses in the order the route found them.
struct AddressList {
  uint8_t addresses[HOSTID_MAX_ADDRESSES][6];
  int32_t count;
};

enum class Switch { unread, unset, set };

struct AdapterState {
  AddressList adapter_list;  // the IP helper route's last result
  // The addresses of the last refresh, one list for each value of
  // physical_only, under one stamp.
  uint8_t cache[2][HOSTID_CACHE_ADDRESSES][6];
  uint32_t cache_counts[2];
  int64_t cache_time;
  int32_t ip_helper_loaded;
  HostidProc ip_helper_get_addresses;
  Switch netbios_switch;
  // Lives here, beside the two cache lists it chooses between, for the whole
  // process; hostid_set_physical_only is the only way to change it, and the
  // report never does.
  int32_t physical_only;
};

AdapterState g_state{};

const HostidPort& port() { return *hostid_port(); }

bool wide_equal(const uint16_t* a, const char16_t* b) {
  for (; *a != 0 || *b != 0; ++a, ++b) {
    if (*a != static_cast<uint16_t>(*b)) return false;
  }
  return true;
}

bool wide_contains(const uint16_t* text, const char16_t* part) {
  for (; *text != 0; ++text) {
    const uint16_t* t = text;
    const char16_t* q = part;
    while (*q != 0 && *t == static_cast<uint16_t>(*q)) ++t, ++q;
    if (*q == 0) return true;
  }
  return *part == 0;
}

uint32_t cache_slot() { return g_state.physical_only != 0 ? 1u : 0u; }

// Builds the answer's chain from the list and keeps the list in the cache
// list of the current physical_only. A cache list holds 5 addresses; a result
// with more is left out of the cache altogether (its list stays empty, so the
// next call enumerates again): a cached answer is never a shortened one.
int32_t deliver(HostIdContext* context, const AddressList& list) {
  if (list.count == 0) return 0;
  hostid_chain_build(context->records, list.addresses, list.count);
  uint32_t slot = cache_slot();
  if (list.count <= HOSTID_CACHE_ADDRESSES) {
    std::memcpy(g_state.cache[slot], list.addresses, 6 * static_cast<size_t>(list.count));
    g_state.cache_counts[slot] = static_cast<uint32_t>(list.count);
  }
  return 1;
}

// The workstation transports: 0, or -1 when the route couldn't run.
int32_t transport_route(AddressList& list) {
  const HostidPort& p = port();
  void* library = p.load_library(p.handle, "NETAPI32.Dll");
  if (library == nullptr) return -1;
  HostidProc enumerate = p.get_function(p.handle, library, "NetWkstaTransportEnum");
  HostidProc free_buffer = p.get_function(p.handle, library, "NetApiBufferFree");
  if (enumerate == nullptr || free_buffer == nullptr) {
    p.free_library(p.handle, library);
    return -1;
  }
  void* buffer = nullptr;
  uint32_t entries = 0;
  if (p.transport_enum(p.handle, enumerate, kTransportPreferredLength, &buffer, &entries) != 0) {
    if (buffer != nullptr) p.transport_free(p.handle, free_buffer, buffer);
    p.free_library(p.handle, library);
    return -1;
  }
  for (uint32_t i = 0; i < entries; ++i) {
    uint8_t address[6];
    if (hostid_transport_address_parse(p.transport_address(p.handle, buffer, i), address)) {
      hostid_address_add(list.addresses, &list.count, address);
    }
  }
  p.transport_free(p.handle, free_buffer, buffer);
  p.free_library(p.handle, library);
  return 0;
}

// The NetBIOS route of the older family: the first six bytes of each LAN
// adapter's status, until a status fails.
void netbios_route(AddressList& list) {
  const HostidPort& p = port();
  void* library = p.load_library(p.handle, "NETAPI32.Dll");
  if (library == nullptr) return;
  HostidProc netbios = p.get_function(p.handle, library, "Netbios");
  std::array<uint8_t, 256> lanas{};  // a count and up to 255 adapter numbers
  if (netbios != nullptr && p.netbios(p.handle, netbios, kNetbiosEnum, 0, nullptr, lanas.data(),
                                      static_cast<uint16_t>(lanas.size())) == 0) {
    char name[16];
    std::memset(name, ' ', sizeof name);
    name[0] = '*';
    for (uint32_t i = 0; i < lanas[0]; ++i) {
      uint8_t lana = lanas[1 + i];
      p.netbios(p.handle, netbios, kNetbiosReset, lana, nullptr, nullptr, 0);
      std::array<uint8_t, 600> status{};
      if (p.netbios(p.handle, netbios, kNetbiosStatus, lana, name, status.data(),
                    static_cast<uint16_t>(status.size())) != 0) {
        break;
      }
      hostid_address_add(list.addresses, &list.count, status.data());
    }
  }
  p.free_library(p.handle, library);
}

}  // namespace

extern "C" void hostid_set_physical_only(int32_t on) { g_state.physical_only = on != 0 ? 1 : 0; }

extern "C" int32_t hostid_address_add(uint8_t list[][6], int32_t* count, const uint8_t address[6]) {
  if (std::memcmp(address, "DEST", 4) == 0) return 0;
  if (address[3] == 0 && address[4] == 0 && address[5] == 0) return 0;
  if (std::memcmp(address, " LOOP ", 6) == 0) return 0;
  for (int32_t i = 0; i < *count; ++i) {
    if (std::memcmp(list[i], address, 6) == 0) return 0;
  }
  // The list keeps the first ten addresses in the order they came; later
  // ones are dropped.
  if (*count >= HOSTID_MAX_ADDRESSES) return 0;
  std::memcpy(list[*count], address, 6);
  ++*count;
  return 1;
}

extern "C" int32_t hostid_transport_address_parse(const uint16_t* text, uint8_t address[6]) {
  // A transport address shorter than 12 characters names no adapter: it is
  // skipped rather than read past its end.
  if (text == nullptr) return 0;
  for (int i = 0; i < 12; ++i) {
    if (text[i] == 0) return 0;
  }
  auto digit = [](uint16_t c) -> uint8_t {
    auto low = static_cast<uint8_t>(c & 0xFF);
    return low >= '0' && low <= '9' ? static_cast<uint8_t>(low - '0')
                                    : static_cast<uint8_t>(low - 0x37);
  };
  for (int i = 0; i < 6; ++i) {
    address[i] = static_cast<uint8_t>(digit(text[2 * i]) * 16 + digit(text[2 * i + 1]));
  }
  return 1;
}

extern "C" void hostid_ip_helper_load(void) {
  if (g_state.ip_helper_loaded != 0) return;
  const HostidPort& p = port();
  char name[64];
  std::snprintf(name, sizeof name, "%s_%d", "IPHelperMutex",
                static_cast<int>(p.process_id(p.handle)));
  int32_t exists = 0;
  void* mutex = p.mutex_create(p.handle, name, &exists);
  if (mutex == nullptr) return;
  if (exists != 0) p.mutex_wait(p.handle, mutex);
  if (g_state.ip_helper_loaded == 0) {
    void* library = p.load_library(p.handle, "iphlpapi.dll");
    if (library != nullptr) {
      g_state.ip_helper_get_addresses = p.get_function(p.handle, library, "GetAdaptersAddresses");
    }
    g_state.ip_helper_loaded = 1;
  }
  p.mutex_release(p.handle, mutex);
  p.mutex_close(p.handle, mutex);
}

extern "C" int32_t hostid_adapter_is_physical(const char* name) {
  const HostidPort& p = port();
  void* key = nullptr;
  if (p.reg_open(p.handle, nullptr, HOSTID_ADAPTER_CLASS_KEY, kRegistryRead, &key) != 0) return 0;
  uint32_t subkeys = 0;
  uint32_t longest = 0;
  int32_t decided = 0;
  char* subkey_name = nullptr;
  if (p.reg_query_info(p.handle, key, &subkeys, &longest) == 0) {
    subkey_name = static_cast<char*>(hostid_heap_calloc(static_cast<uint64_t>(longest) + 1, 1));
  }
  for (uint32_t i = 0; subkey_name != nullptr && i < subkeys; ++i) {
    uint32_t length = longest + 1;
    if (p.reg_enum_key(p.handle, key, i, subkey_name, &length) != 0) continue;
    void* subkey = nullptr;
    if (p.reg_open(p.handle, key, subkey_name, kRegistryRead, &subkey) != 0) continue;
    char instance[0x104] = {};
    uint32_t size = sizeof instance - 1;  // the last byte stays the NUL
    bool matches = p.reg_query_value(p.handle, subkey, "NetCfgInstanceId",
                                     reinterpret_cast<uint8_t*>(instance), &size) == 0 &&
                   std::strcmp(instance, name) == 0;
    uint32_t characteristics = 0;
    size = sizeof characteristics;
    bool read = matches &&
                p.reg_query_value(p.handle, subkey, "Characteristics",
                                  reinterpret_cast<uint8_t*>(&characteristics), &size) == 0 &&
                size == sizeof characteristics;
    p.reg_close(p.handle, subkey);
    if (!read) continue;
    decided = (characteristics & 0x4u) != 0 || (characteristics & 0x8001u) == 0x8001u ? 1 : 0;
    break;
  }
  hostid_heap_free(subkey_name);
  p.reg_close(p.handle, key);
  return decided;
}

extern "C" void hostid_adapters_from_ip_helper(int32_t physical_only) {
  if (g_state.ip_helper_loaded == 0) hostid_ip_helper_load();
  if (g_state.ip_helper_get_addresses == nullptr) return;
  const HostidPort& p = port();
  uint32_t size = 0;
  void* buffer = nullptr;
  uint32_t result = p.get_adapters(p.handle, g_state.ip_helper_get_addresses, kIpHelperFamily,
                                   kIpHelperFlags, nullptr, &size);
  if (result == HOSTID_STATUS_BUFFER_OVERFLOW && size > 0) {
    buffer = hostid_heap_calloc(size, 1);
    if (buffer != nullptr) {
      result = p.get_adapters(p.handle, g_state.ip_helper_get_addresses, kIpHelperFamily,
                              kIpHelperFlags, buffer, &size);
    }
  }
  if (result != 0 || size == 0 || buffer == nullptr) {
    hostid_heap_free(buffer);
    return;
  }
  int32_t kept = 0;
  for (const void* item = p.adapter_first(p.handle, buffer); item != nullptr;
       item = p.adapter_next(p.handle, item)) {
    HostidAdapter adapter{};
    p.adapter_read(p.handle, item, &adapter);
    if (adapter.address_length != 6) continue;
    bool skipped = false;
    for (const char16_t* description : kSkippedDescriptions) {
      if (wide_equal(adapter.description, description)) {
        skipped = true;
        break;
      }
    }
    if (skipped) continue;
    if (physical_only != 0 && hostid_adapter_is_physical(adapter.name) != 1 &&
        !wide_contains(adapter.description, kMultiplexor)) {
      continue;
    }
    // The list keeps the first ten adapters that pass, in the order of the
    // enumeration; later ones are left out.
    if (kept == HOSTID_MAX_ADDRESSES) break;
    std::memcpy(g_state.adapter_list.addresses[kept], adapter.address, 6);
    ++kept;
  }
  g_state.adapter_list.count = kept;
  hostid_heap_free(buffer);
}

extern "C" int32_t hostid_adapters_enumerate(HostIdContext* context) {
  const HostidPort& p = port();
  uint32_t version = p.version(p.handle);
  uint32_t major = version & 0xFF;
  uint32_t minor = (version >> 8) & 0xFF;
  bool older_family = (version & kOlderFamily) != 0;
  uint32_t build = (version >> 16) & (older_family ? 0x7FFFu : 0xFFFFu);

  if (g_state.ip_helper_loaded == 0) hostid_ip_helper_load();
  bool too_old = (major == 4 && minor == 0) || build <= 1381 || (older_family && major >= 4);
  if (major == 4 && minor == 90) too_old = false;

  AddressList list{};
  if (g_state.ip_helper_get_addresses != nullptr && !too_old) {
    hostid_adapters_from_ip_helper(g_state.physical_only);
    list = g_state.adapter_list;
  } else if (transport_route(list) != 0) {
    return -1;
  }
  return deliver(context, list);
}

extern "C" int32_t hostid_read_adapter_addresses(HostIdContext* context) {
  const HostidPort& p = port();
  uint32_t slot = cache_slot();
  int64_t now = p.now(p.handle);
  if (g_state.cache_counts[slot] != 0 && now - HOSTID_ADDRESS_CACHE_SECONDS < g_state.cache_time) {
    hostid_chain_build(context->records, g_state.cache[slot],
                       static_cast<int32_t>(g_state.cache_counts[slot]));
    return 1;
  }
  g_state.cache_counts[slot] = 0;
  g_state.cache_time = now;

  if (p.version(p.handle) < kOlderFamily) return hostid_adapters_enumerate(context) != 0 ? 1 : 0;

  if (g_state.netbios_switch == Switch::unread) {
    g_state.netbios_switch =
        p.get_env(p.handle, "HID_NO_NETBIOS") != nullptr ? Switch::set : Switch::unset;
  }
  if (g_state.netbios_switch == Switch::set) return 0;
  AddressList list{};
  netbios_route(list);
  return deliver(context, list);
}
