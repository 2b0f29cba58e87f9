// Host identification over POSIX: the adapters from getifaddrs, the host name
// from gethostname in the locale's character set, "physical" from sysfs, the
// socket library always at hand. The workstation transports and NetBIOS don't
// exist here: their libraries never load.
#include <dirent.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <locale.h>
#include <net/if.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <string>
#include <vector>

#include "hostid_port.h"

namespace {

// Stand-ins for module handles: addresses of these, well above 0x20.
char g_socket_library;
char g_ip_helper_library;

// GetVersion's layout for 10.0, build 19041: the newest line, so the IP
// helper route is the one that runs.
constexpr uint32_t kVersion = (19041u << 16) | 0x000Au;

int64_t posix_now(void*) { return static_cast<int64_t>(std::time(nullptr)); }

const char* posix_get_env(void*, const char* name) { return std::getenv(name); }

uint32_t posix_version(void*) { return kVersion; }

int32_t posix_process_id(void*) { return static_cast<int32_t>(getpid()); }

uint32_t posix_set_error_mode(void*, uint32_t) { return 0; }

void* posix_load_library(void*, const char* name) {
  if (strcasecmp(name, "WS2_32.Dll") == 0) return &g_socket_library;
  if (strcasecmp(name, "iphlpapi.dll") == 0) return &g_ip_helper_library;
  return nullptr;
}

// The socket library's entry points here: the C library has the whole
// socket interface, and the layer only ever calls these two.
int posix_startup(uint16_t, void*) { return 0; }
int posix_host_name(char* buffer, int32_t size) {
  if (gethostname(buffer, static_cast<size_t>(size)) != 0) return -1;
  buffer[size - 1] = '\0';
  return 0;
}
void posix_not_called() {}

uint32_t posix_adapters(uint32_t family, uint32_t flags, void* buffer, uint32_t* size);

HostidProc posix_get_function(void*, void* library, const char* name) {
  if (library == &g_socket_library) {
    if (std::strcmp(name, "WSAStartup") == 0) return reinterpret_cast<HostidProc>(posix_startup);
    if (std::strcmp(name, "gethostname") == 0) return reinterpret_cast<HostidProc>(posix_host_name);
    // The WinSock 1 names have no counterpart in a WinSock 2 library.
    if (std::strcmp(name, "EnumProtocolsA") == 0 || std::strcmp(name, "GetAddressByNameA") == 0) {
      return nullptr;
    }
    return posix_not_called;
  }
  if (library == &g_ip_helper_library && std::strcmp(name, "GetAdaptersAddresses") == 0) {
    return reinterpret_cast<HostidProc>(posix_adapters);
  }
  return nullptr;
}

void posix_free_library(void*, void*) {}

// One process needs no lock against itself across processes: the mutex is
// the process's own, so a plain token stands for it.
char g_mutex;
void* posix_mutex_create(void*, const char*, int32_t* already_exists) {
  *already_exists = 0;
  return &g_mutex;
}
void posix_mutex_nothing(void*, void*) {}

int32_t posix_wsa_startup(void*, HostidProc function, uint16_t version, void* data) {
  return reinterpret_cast<int (*)(uint16_t, void*)>(function)(version, data);
}

int32_t posix_gethostname(void*, HostidProc function, char* buffer, int32_t size) {
  return reinterpret_cast<int (*)(char*, int32_t)>(function)(buffer, size);
}

// The conversion runs in the locale the environment names, whatever the
// program's own locale is.
int32_t posix_ansi_to_wide(void*, const char* text, uint16_t* out, int32_t out_count) {
  // Every character set a POSIX locale can have agrees with ASCII on its first
  // 128 codes, so an ASCII name (the usual case) needs no locale data.
  size_t ascii = 0;
  while (static_cast<unsigned char>(text[ascii]) - 1u < 0x7Fu) ++ascii;
  if (text[ascii] == '\0') {
    const auto count = static_cast<int32_t>(ascii + 1);
    if (out == nullptr) return count;
    if (count > out_count) return 0;
    for (size_t i = 0; i <= ascii; ++i) out[i] = static_cast<uint8_t>(text[i]);
    return count;
  }
  locale_t locale = newlocale(LC_CTYPE_MASK, "", static_cast<locale_t>(nullptr));
  if (locale == static_cast<locale_t>(nullptr)) {
    locale = newlocale(LC_CTYPE_MASK, "C", static_cast<locale_t>(nullptr));
  }
  if (locale == static_cast<locale_t>(nullptr)) return 0;
  locale_t previous = uselocale(locale);
  std::mbstate_t state{};
  size_t length = std::strlen(text);
  const char* at = text;
  const char* end = text + length;
  int32_t count = 0;
  bool ok = true;
  auto put = [&](uint16_t unit) {
    if (out != nullptr) {
      if (count >= out_count) {
        ok = false;
        return;
      }
      out[count] = unit;
    }
    ++count;
  };
  while (ok && at < end) {
    wchar_t c = 0;
    size_t used = std::mbrtowc(&c, at, static_cast<size_t>(end - at), &state);
    if (used == static_cast<size_t>(-1) || used == static_cast<size_t>(-2) || used == 0) {
      ok = false;
      break;
    }
    at += used;
    auto code = static_cast<uint32_t>(c);
    if (code >= 0x10000) {
      code -= 0x10000;
      put(static_cast<uint16_t>(0xD800 + (code >> 10)));
      put(static_cast<uint16_t>(0xDC00 + (code & 0x3FF)));
    } else {
      put(static_cast<uint16_t>(code));
    }
  }
  if (ok) put(0);
  uselocale(previous);
  freelocale(locale);
  return ok ? count : 0;
}

int32_t posix_wide_to_utf8(void*, const uint16_t* text, char* out, int32_t out_size) {
  int32_t count = 0;
  bool ok = true;
  auto put = [&](uint32_t byte) {
    if (out != nullptr) {
      if (count >= out_size) {
        ok = false;
        return;
      }
      out[count] = static_cast<char>(byte);
    }
    ++count;
  };
  for (const uint16_t* at = text;; ++at) {
    uint32_t code = *at;
    if (code >= 0xD800 && code < 0xDC00 && at[1] >= 0xDC00 && at[1] < 0xE000) {
      code = 0x10000 + ((code - 0xD800) << 10) + (at[1] - 0xDC00u);
      ++at;
    } else if (code >= 0xD800 && code < 0xE000) {
      code = 0xFFFD;  // a lone surrogate, as the system's conversion has it
    }
    if (code < 0x80) {
      put(code);
    } else if (code < 0x800) {
      put(0xC0 | (code >> 6));
      put(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      put(0xE0 | (code >> 12));
      put(0x80 | ((code >> 6) & 0x3F));
      put(0x80 | (code & 0x3F));
    } else {
      put(0xF0 | (code >> 18));
      put(0x80 | ((code >> 12) & 0x3F));
      put(0x80 | ((code >> 6) & 0x3F));
      put(0x80 | (code & 0x3F));
    }
    if (!ok) return 0;
    if (*at == 0) break;
  }
  return count;
}

// The adapter list in one buffer: a count, then fixed entries, then the
// names, descriptions and addresses they point to.
struct Entry {
  HostidAdapter adapter;
  const Entry* next;
};

struct Interface {
  int index;
  std::string name;
  std::vector<uint8_t> address;
};

bool list_interfaces(std::vector<Interface>& out) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  for (ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
    if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != AF_PACKET) continue;
    const auto* link = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
    Interface item{link->sll_ifindex, a->ifa_name, {}};
    // The loopback interface has no hardware address, as on Windows.
    if ((a->ifa_flags & IFF_LOOPBACK) == 0) {
      size_t length = std::min<size_t>(link->sll_halen, sizeof link->sll_addr);
      item.address.assign(link->sll_addr, link->sll_addr + length);
    }
    out.push_back(std::move(item));
  }
  freeifaddrs(list);
  std::stable_sort(out.begin(), out.end(),
                   [](const Interface& a, const Interface& b) { return a.index < b.index; });
  return true;
}

// The list read for a call that asked for the size, kept for the call that
// follows it with a buffer of that size, so that both see the same adapters
// and the kernel is asked once. An empty list is never kept.
std::vector<Interface> g_sized_list;

uint32_t posix_adapters(uint32_t, uint32_t, void* buffer, uint32_t* size) {
  std::vector<Interface> interfaces;
  if (buffer != nullptr && !g_sized_list.empty()) {
    interfaces.swap(g_sized_list);
  } else if (!list_interfaces(interfaces)) {
    return 1;  // a general failure
  }
  if (interfaces.empty()) return HOSTID_STATUS_NO_DATA;
  size_t needed = sizeof(Entry) * interfaces.size();
  for (const Interface& i : interfaces) {
    needed += (i.name.size() + 1) * (1 + sizeof(uint16_t)) + i.address.size() + 1;
  }
  needed += alignof(uint16_t);
  if (buffer == nullptr || *size < needed) {
    *size = static_cast<uint32_t>(needed);
    g_sized_list = std::move(interfaces);
    return HOSTID_STATUS_BUFFER_OVERFLOW;
  }
  auto* entries = static_cast<Entry*>(buffer);
  auto* wide = reinterpret_cast<uint16_t*>(entries + interfaces.size());
  for (const Interface& i : interfaces) wide += i.name.size() + 1;
  auto* bytes = reinterpret_cast<char*>(wide);
  wide = reinterpret_cast<uint16_t*>(entries + interfaces.size());
  for (size_t n = 0; n < interfaces.size(); ++n) {
    const Interface& i = interfaces[n];
    Entry& e = entries[n];
    // The interface name is both the adapter's name and its description.
    e.adapter.description = wide;
    for (char c : i.name) *wide++ = static_cast<uint8_t>(c);
    *wide++ = 0;
    std::memcpy(bytes, i.name.c_str(), i.name.size() + 1);
    e.adapter.name = bytes;
    bytes += i.name.size() + 1;
    if (!i.address.empty()) std::memcpy(bytes, i.address.data(), i.address.size());
    e.adapter.address = reinterpret_cast<const uint8_t*>(bytes);
    e.adapter.address_length = static_cast<uint32_t>(i.address.size());
    bytes += i.address.size();
    e.next = n + 1 < interfaces.size() ? &entries[n + 1] : nullptr;
  }
  return 0;
}

uint32_t posix_get_adapters(void*, HostidProc function, uint32_t family, uint32_t flags,
                            void* buffer, uint32_t* size) {
  return reinterpret_cast<uint32_t (*)(uint32_t, uint32_t, void*, uint32_t*)>(function)(
      family, flags, buffer, size);
}

const void* posix_adapter_first(void*, const void* buffer) { return buffer; }
const void* posix_adapter_next(void*, const void* adapter) {
  return static_cast<const Entry*>(adapter)->next;
}
void posix_adapter_read(void*, const void* adapter, HostidAdapter* out) {
  *out = static_cast<const Entry*>(adapter)->adapter;
}

uint32_t posix_transport_enum(void*, HostidProc, uint32_t, void**, uint32_t*) { return 1; }
const uint16_t* posix_transport_address(void*, const void*, uint32_t) { return nullptr; }
void posix_transport_free(void*, HostidProc, void*) {}
uint8_t posix_netbios(void*, HostidProc, uint8_t, uint8_t, const char*, uint8_t*, uint16_t) {
  return 0xFF;
}

// The adapter class key as the registry would show it: one subkey "0000",
// "0001", ... for each interface in sysfs, its name as the instance id, and
// the characteristics of a physical adapter (0x4) when the interface has a
// device behind it, else those of a virtual one (0x1).
constexpr const char* kClassKey =
    "SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-BFC1-08002BE10318}";

struct RegKey {
  std::vector<std::string> interfaces;  // the class key
  std::string interface;                // a subkey
};

int32_t posix_reg_open(void*, void* parent, const char* path, uint32_t, void** key) {
  *key = nullptr;
  if (parent == nullptr) {
    if (std::strcmp(path, kClassKey) != 0) return HOSTID_STATUS_FILE_NOT_FOUND;
    auto* k = new RegKey{};
    if (DIR* dir = opendir("/sys/class/net")) {
      while (dirent* d = readdir(dir)) {
        if (d->d_name[0] != '.') k->interfaces.emplace_back(d->d_name);
      }
      closedir(dir);
    }
    std::sort(k->interfaces.begin(), k->interfaces.end());
    *key = k;
    return 0;
  }
  auto* k = static_cast<RegKey*>(parent);
  char* end = nullptr;
  unsigned long index = std::strtoul(path, &end, 10);
  if (std::strlen(path) != 4 || *end != '\0' || index >= k->interfaces.size()) {
    return HOSTID_STATUS_FILE_NOT_FOUND;
  }
  *key = new RegKey{{}, k->interfaces[index]};
  return 0;
}

int32_t posix_reg_query_info(void*, void* key, uint32_t* subkeys, uint32_t* longest) {
  *subkeys = static_cast<uint32_t>(static_cast<RegKey*>(key)->interfaces.size());
  *longest = 4;
  return 0;
}

int32_t posix_reg_enum_key(void*, void* key, uint32_t index, char* name, uint32_t* length) {
  if (index >= static_cast<RegKey*>(key)->interfaces.size() || index > 9999) return 259;
  if (*length < 5) return HOSTID_STATUS_MORE_DATA;
  std::snprintf(name, 5, "%04u", index);
  *length = 4;
  return 0;
}

int32_t posix_reg_query_value(void*, void* key, const char* name, uint8_t* data, uint32_t* size) {
  const std::string& interface = static_cast<RegKey*>(key)->interface;
  if (interface.empty()) return HOSTID_STATUS_FILE_NOT_FOUND;
  if (std::strcmp(name, "NetCfgInstanceId") == 0) {
    if (*size < interface.size() + 1) return HOSTID_STATUS_MORE_DATA;
    std::memcpy(data, interface.c_str(), interface.size() + 1);
    *size = static_cast<uint32_t>(interface.size() + 1);
    return 0;
  }
  if (std::strcmp(name, "Characteristics") == 0) {
    if (*size < 4) return HOSTID_STATUS_MORE_DATA;
    struct stat st {};
    std::string device = "/sys/class/net/" + interface + "/device";
    uint32_t value = stat(device.c_str(), &st) == 0 ? 0x4u : 0x1u;
    std::memcpy(data, &value, 4);
    *size = 4;
    return 0;
  }
  return HOSTID_STATUS_FILE_NOT_FOUND;
}

void posix_reg_close(void*, void* key) { delete static_cast<RegKey*>(key); }

const HostidPort kPosixPort = {
    nullptr,
    posix_now,
    posix_get_env,
    posix_version,
    posix_process_id,
    posix_set_error_mode,
    posix_load_library,
    posix_get_function,
    posix_free_library,
    posix_mutex_create,
    posix_mutex_nothing,
    posix_mutex_nothing,
    posix_mutex_nothing,
    posix_wsa_startup,
    posix_gethostname,
    posix_ansi_to_wide,
    posix_wide_to_utf8,
    posix_get_adapters,
    posix_adapter_first,
    posix_adapter_next,
    posix_adapter_read,
    posix_transport_enum,
    posix_transport_address,
    posix_transport_free,
    posix_netbios,
    posix_reg_open,
    posix_reg_query_info,
    posix_reg_enum_key,
    posix_reg_query_value,
    posix_reg_close,
};

}  // namespace

extern "C" const HostidPort* hostid_port_system(void) { return &kPosixPort; }
