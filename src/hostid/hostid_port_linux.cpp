// Host identification over Linux: the adapters from getifaddrs, the host name
// from gethostname in the locale's character set, "physical" from sysfs, the
// socket library always at hand. Adapters and the class key are served in
// Windows' own forms (hostid_windata.h). The workstation transports and
// NetBIOS don't exist here: their libraries never load.
#include <dirent.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <locale.h>
#include <net/if.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>

#include "hostid_windata.h"
#include "unicode.h"

namespace {

// Stand-ins for module handles: addresses of these, well above 0x20.
char g_socket_library;
char g_ip_helper_library;

// GetVersion's layout for 10.0, build 19041: the newest line, so the IP
// helper route is the one that runs.
constexpr uint32_t kVersion = (19041u << 16) | 0x000Au;

int64_t linux_now(void*) { return static_cast<int64_t>(std::time(nullptr)); }

const char* linux_get_env(void*, const char* name) { return std::getenv(name); }

uint32_t linux_version(void*) { return kVersion; }

int32_t linux_process_id(void*) { return static_cast<int32_t>(getpid()); }

void* linux_heap_alloc(void*, uint64_t size) { return std::calloc(1, static_cast<size_t>(size)); }

void linux_heap_free(void*, void* block) { std::free(block); }

uint32_t linux_set_error_mode(void*, uint32_t) { return 0; }

void* linux_load_library(void*, const char* name) {
  if (strcasecmp(name, "WS2_32.Dll") == 0) return &g_socket_library;
  if (strcasecmp(name, "iphlpapi.dll") == 0) return &g_ip_helper_library;
  return nullptr;
}

// The socket library's entry points here: the C library has the whole
// socket interface, and the layer only ever calls these two.
int linux_startup(uint16_t, void*) { return 0; }
int linux_host_name(char* buffer, int32_t size) {
  if (gethostname(buffer, static_cast<size_t>(size)) != 0) return -1;
  buffer[size - 1] = '\0';
  return 0;
}
void linux_not_called() {}

uint32_t linux_adapters(uint32_t family, uint32_t flags, void* buffer, uint32_t* size);

HostidProc linux_get_function(void*, void* library, const char* name) {
  if (library == &g_socket_library) {
    if (std::strcmp(name, "WSAStartup") == 0) return reinterpret_cast<HostidProc>(linux_startup);
    if (std::strcmp(name, "gethostname") == 0) return reinterpret_cast<HostidProc>(linux_host_name);
    // The WinSock 1 names have no counterpart in a WinSock 2 library.
    if (std::strcmp(name, "EnumProtocolsA") == 0 || std::strcmp(name, "GetAddressByNameA") == 0) {
      return nullptr;
    }
    return linux_not_called;
  }
  if (library == &g_ip_helper_library && std::strcmp(name, "GetAdaptersAddresses") == 0) {
    return reinterpret_cast<HostidProc>(linux_adapters);
  }
  return nullptr;
}

void linux_free_library(void*, void*) {}

// One process needs no lock against itself across processes: the mutex is
// the process's own, so a plain token stands for it.
char g_mutex;
void* linux_mutex_create(void*, const char*, int32_t* already_exists) {
  *already_exists = 0;
  return &g_mutex;
}
void linux_mutex_nothing(void*, void*) {}

int32_t linux_wsa_startup(void*, HostidProc function, uint16_t version, void* data) {
  return reinterpret_cast<int (*)(uint16_t, void*)>(function)(version, data);
}

int32_t linux_gethostname(void*, HostidProc function, char* buffer, int32_t size) {
  return reinterpret_cast<int (*)(char*, int32_t)>(function)(buffer, size);
}

// The conversion runs in the locale the environment names, whatever the
// program's own locale is; text invalid in it fails, as with
// MB_ERR_INVALID_CHARS.
int32_t linux_ansi_to_wide(void*, const char* text, uint16_t* out, int32_t out_count) {
  locale_t locale = newlocale(LC_CTYPE_MASK, "", static_cast<locale_t>(nullptr));
  if (locale == static_cast<locale_t>(nullptr)) {
    locale = newlocale(LC_CTYPE_MASK, "C", static_cast<locale_t>(nullptr));
  }
  if (locale == static_cast<locale_t>(nullptr)) return 0;
  locale_t previous = uselocale(locale);
  std::mbstate_t state{};
  const char* at = text;
  const char* end = text + std::strlen(text) + 1;  // the NUL converts too
  int32_t count = 0;
  while (at < end) {
    wchar_t c = 0;
    size_t used = std::mbrtowc(&c, at, static_cast<size_t>(end - at), &state);
    if (used == static_cast<size_t>(-1) || used == static_cast<size_t>(-2)) break;
    at += used == 0 ? 1 : used;
    uint16_t units[2] = {static_cast<uint16_t>(c), 0};
    int n = 1;
    if (static_cast<uint32_t>(c) >= 0x10000) {
      unicode::surrogate_pair(static_cast<uint32_t>(c), units);
      n = 2;
    }
    if (out != nullptr && count + n > out_count) break;
    for (int i = 0; i < n; ++i, ++count) {
      if (out != nullptr) out[count] = units[i];
    }
  }
  uselocale(previous);
  freelocale(locale);
  return at == end ? count : 0;
}

int32_t linux_wide_to_utf8(void*, const uint16_t* text, char* out, int32_t out_size) {
  // A lone surrogate becomes U+FFFD, as the system's conversion has it.
  return static_cast<int32_t>(
      unicode::utf16_to_utf8(text, out, out != nullptr ? static_cast<uint64_t>(out_size) : 0,
                             unicode::LoneSurrogate::kReplace));
}

// The interfaces in index order, each described by its name; the loopback
// interface has no hardware address, as on Windows.
uint32_t linux_adapters(uint32_t, uint32_t, void* buffer, uint32_t* size) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return 1;  // a general failure
  uint32_t total = 0;
  for (ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
    if (a->ifa_addr != nullptr && a->ifa_addr->sa_family == AF_PACKET) ++total;
  }
  struct Item {
    int index;
    uint16_t description[IF_NAMESIZE];
  };
  auto* adapters = static_cast<HostidAdapter*>(std::calloc(total + 1, sizeof(HostidAdapter)));
  auto* items = static_cast<Item*>(std::calloc(total + 1, sizeof(Item)));
  uint32_t n = 0;
  for (ifaddrs* a = list; adapters != nullptr && items != nullptr && a != nullptr;
       a = a->ifa_next) {
    if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != AF_PACKET) continue;
    const auto* link = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
    uint32_t length = (a->ifa_flags & IFF_LOOPBACK) != 0 ? 0 : link->sll_halen;
    if (length > sizeof link->sll_addr) length = sizeof link->sll_addr;
    uint32_t at = n++;  // insertion into index order
    for (; at > 0 && items[at - 1].index > link->sll_ifindex; --at) {
      items[at].index = items[at - 1].index;
      adapters[at] = adapters[at - 1];
    }
    items[at].index = link->sll_ifindex;
    adapters[at] = {a->ifa_name, nullptr, link->sll_addr, length};
  }
  uint32_t status = 1;
  if (adapters != nullptr && items != nullptr) {
    for (uint32_t i = 0; i < n; ++i) {
      for (size_t c = 0; c + 1 < IF_NAMESIZE && adapters[i].name[c] != '\0'; ++c) {
        items[i].description[c] = static_cast<unsigned char>(adapters[i].name[c]);
      }
      adapters[i].description = items[i].description;
    }
    status = windata_adapters(adapters, n, buffer, size);
  }
  std::free(items);
  std::free(adapters);
  freeifaddrs(list);
  return status;
}

uint32_t linux_get_adapters(void*, HostidProc function, uint32_t family, uint32_t flags,
                            void* buffer, uint32_t* size) {
  return reinterpret_cast<uint32_t (*)(uint32_t, uint32_t, void*, uint32_t*)>(function)(
      family, flags, buffer, size);
}

uint32_t linux_transport_enum(void*, HostidProc, uint32_t, void**, uint32_t*) { return 1; }
const uint16_t* linux_transport_address(void*, const void*, uint32_t) { return nullptr; }
void linux_transport_free(void*, HostidProc, void*) {}
uint8_t linux_netbios(void*, HostidProc, uint8_t, uint8_t, const char*, uint8_t*, uint16_t) {
  return 0xFF;
}

// The adapter class key as the registry would show it: one subkey "0000",
// "0001", ... for each interface in sysfs in the order of their names, the
// name as the instance id, and the characteristics of a physical adapter
// (0x4) when the interface has a device behind it, else those of a virtual
// one (0x1). Made afresh each time the key is opened, into one block kept
// for the process: the facility has one class key open at a time.
struct ClassName {
  char subkey[12];
  char name[256];
};
WindataClassKey g_class;
WindataClassEntry* g_class_entries;
ClassName* g_class_names;

int compare_names(const void* a, const void* b) {
  return std::strcmp(static_cast<const ClassName*>(a)->name,
                     static_cast<const ClassName*>(b)->name);
}

void read_class_key() {
  std::free(g_class_entries);
  std::free(g_class_names);
  g_class = {};
  g_class_entries = nullptr;
  g_class_names = nullptr;
  DIR* dir = opendir("/sys/class/net");
  if (dir == nullptr) return;
  uint32_t n = 0;
  uint32_t room = 0;
  while (dirent* d = readdir(dir)) {
    if (d->d_name[0] == '.') continue;
    if (n == room) {
      room = room * 2 + 8;
      void* grown = std::realloc(g_class_names, room * sizeof(ClassName));
      if (grown == nullptr) break;
      g_class_names = static_cast<ClassName*>(grown);
    }
    std::snprintf(g_class_names[n++].name, sizeof g_class_names->name, "%s", d->d_name);
  }
  closedir(dir);
  g_class_entries = static_cast<WindataClassEntry*>(std::calloc(n + 1, sizeof(WindataClassEntry)));
  if (g_class_entries == nullptr) return;
  std::qsort(g_class_names, n, sizeof(ClassName), compare_names);
  for (uint32_t i = 0; i < n; ++i) {
    ClassName& c = g_class_names[i];
    std::snprintf(c.subkey, sizeof c.subkey, "%04u", i);
    char device[300];
    std::snprintf(device, sizeof device, "/sys/class/net/%s/device", c.name);
    struct stat st {};
    g_class_entries[i] = {c.subkey, c.name, stat(device, &st) == 0 ? 0x4 : 0x1, false};
  }
  g_class = {g_class_entries, n};
}

int32_t linux_reg_open(void*, void* parent, const char* path, uint32_t, void** key) {
  if (parent == nullptr) read_class_key();
  return windata_reg_open(&g_class, parent, path, key);
}

int32_t linux_reg_query_info(void*, void*, uint32_t* subkeys, uint32_t* longest) {
  return windata_reg_query_info(&g_class, subkeys, longest);
}

int32_t linux_reg_enum_key(void*, void*, uint32_t index, char* name, uint32_t* length) {
  return windata_reg_enum_key(&g_class, index, name, length);
}

int32_t linux_reg_query_value(void*, void* key, const char* name, uint8_t* data, uint32_t* size) {
  return windata_reg_query_value(&g_class, key, name, data, size);
}

void linux_reg_close(void*, void*) {}

const HostidPort kLinuxPort = {
    nullptr,
    linux_now,
    linux_get_env,
    linux_version,
    linux_process_id,
    linux_heap_alloc,
    linux_heap_free,
    linux_set_error_mode,
    linux_load_library,
    linux_get_function,
    linux_free_library,
    linux_mutex_create,
    linux_mutex_nothing,
    linux_mutex_nothing,
    linux_mutex_nothing,
    linux_wsa_startup,
    linux_gethostname,
    linux_ansi_to_wide,
    linux_wide_to_utf8,
    linux_get_adapters,
    windata_adapter_first,
    windata_adapter_next,
    windata_adapter_read,
    linux_transport_enum,
    linux_transport_address,
    linux_transport_free,
    linux_netbios,
    linux_reg_open,
    linux_reg_query_info,
    linux_reg_enum_key,
    linux_reg_query_value,
    linux_reg_close,
};

}  // namespace

extern "C" const HostidPort* hostid_port_system(void) { return &kLinuxPort; }
