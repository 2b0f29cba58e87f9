// The host name, read through a network layer that is loaded at run time, and
// handed out as UTF-8.
#include <array>
#include <cstdint>
#include <cstring>

#include "hostid_internal.h"

namespace {

// Every function the layer looks up. The library must export all of the
// common ones and those of its own kind.
constexpr std::array<const char*, 29> kCommonFunctions = {"send",
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
                                                          "gethostbyaddr"};
constexpr std::array<const char*, 2> kWinsock1Functions = {"EnumProtocolsA", "GetAddressByNameA"};
constexpr std::array<const char*, 7> kWinsock2Functions = {
    "WSACreateEvent",       "WSAEventSelect",         "WSAWaitForMultipleEvents",
    "WSAEnumNetworkEvents", "WSALookupServiceBeginA", "WSALookupServiceNextA",
    "WSALookupServiceEnd"};
constexpr size_t kTableSize =
    kCommonFunctions.size() + kWinsock1Functions.size() + kWinsock2Functions.size();

constexpr uintptr_t kFirstValidModule = 0x20;
constexpr uint32_t kNoOpenFileErrorBox = 0x8000;

struct NetLayer {
  bool environment_read;
  bool disabled;
  void* library;
  bool winsock2;
  bool started;
  // The table was found whole for the loaded library.
  bool complete;
  uint16_t requested_version;
  alignas(16) unsigned char startup_data[HOSTID_STARTUP_DATA_SIZE];
  std::array<HostidProc, kTableSize> table;
};

NetLayer g_net{};

const HostidPort& port() { return *hostid_port(); }

bool library_valid(void* library) {
  return reinterpret_cast<uintptr_t>(library) >= kFirstValidModule;
}

HostidProc function(const char* name) {
  for (size_t i = 0; i < kCommonFunctions.size(); ++i) {
    if (std::strcmp(name, kCommonFunctions[i]) == 0) return g_net.table[i];
  }
  return nullptr;
}

// Looks up the table in the loaded library; true when every function the
// library needs is there.
bool look_up_table() {
  const HostidPort& p = port();
  bool whole = true;
  size_t slot = 0;
  for (const char* name : kCommonFunctions) {
    g_net.table[slot] = p.get_function(p.handle, g_net.library, name);
    whole = whole && g_net.table[slot] != nullptr;
    ++slot;
  }
  for (const char* name : kWinsock1Functions) {
    g_net.table[slot] = p.get_function(p.handle, g_net.library, name);
    if (!g_net.winsock2) whole = whole && g_net.table[slot] != nullptr;
    ++slot;
  }
  for (const char* name : kWinsock2Functions) {
    g_net.table[slot] = g_net.winsock2 ? p.get_function(p.handle, g_net.library, name) : nullptr;
    if (g_net.winsock2) whole = whole && g_net.table[slot] != nullptr;
    ++slot;
  }
  return whole;
}

int32_t start() {
  const HostidPort& p = port();
  p.wsa_startup(p.handle, function("WSAStartup"), g_net.requested_version, g_net.startup_data);
  g_net.started = true;
  return 1;
}

}  // namespace

extern "C" int32_t netlayer_load(void) {
  const HostidPort& p = port();
  if (!g_net.environment_read) {
    g_net.disabled = p.get_env(p.handle, "HID_NO_NETWORK") != nullptr;
    g_net.environment_read = true;
  }
  if (g_net.disabled) return 0;

  if (library_valid(g_net.library)) {
    // A library that lacked a required function stays unusable for the
    // rest of the process: none of its slots is called, WSAStartup
    // included, and it isn't looked up again.
    if (!g_net.complete) return 0;
    if (!g_net.started) start();
    return 1;
  }

  uint32_t old_mode = p.set_error_mode(p.handle, kNoOpenFileErrorBox);
  struct RestoreMode {
    const HostidPort& p;
    uint32_t mode;
    ~RestoreMode() { p.set_error_mode(p.handle, mode); }
  } restore{p, old_mode};

  void* library = nullptr;
  if (p.version(p.handle) < 0x80000000u) {
    library = p.load_library(p.handle, "WS2_32.Dll");
    if (library_valid(library)) g_net.winsock2 = true;
  }
  if (!library_valid(library)) {
    library = p.load_library(p.handle, "WSOCK32.Dll");
    if (!library_valid(library)) return 0;
    g_net.winsock2 = false;
  }
  g_net.library = library;
  g_net.complete = look_up_table();
  g_net.requested_version = g_net.winsock2 ? 0x0002 : 0x0101;
  if (!g_net.complete) return 0;
  return start();
}

extern "C" char* text_wide_to_utf8(const uint16_t* text, int32_t* size) {
  const HostidPort& p = port();
  *size = 0;
  int32_t needed = p.wide_to_utf8(p.handle, text, nullptr, 0);
  if (needed <= 0) return nullptr;
  auto* out = static_cast<char*>(hostid_heap_calloc(static_cast<uint64_t>(needed) + 1, 1));
  if (out == nullptr) return nullptr;
  if (p.wide_to_utf8(p.handle, text, out, needed) == 0) {
    hostid_heap_free(out);
    return nullptr;
  }
  *size = needed;
  return out;
}

extern "C" char* text_ansi_to_utf8(const char* text, int32_t* size) {
  const HostidPort& p = port();
  *size = 0;
  int32_t needed = p.ansi_to_wide(p.handle, text, nullptr, 0);
  if (needed <= 0) return nullptr;
  auto* wide = static_cast<uint16_t*>(
      hostid_heap_calloc(static_cast<uint64_t>(needed) + 1, sizeof(uint16_t)));
  if (wide == nullptr) return nullptr;
  if (p.ansi_to_wide(p.handle, text, wide, needed) == 0) {
    hostid_heap_free(wide);
    return nullptr;
  }
  char* utf8 = text_wide_to_utf8(wide, size);
  hostid_heap_free(wide);
  return utf8;
}

extern "C" int32_t netlayer_gethostname(char* buffer, int32_t size) {
  if (buffer == nullptr || size <= 0) return -1;
  if (netlayer_load() == 0) return -1;
  const HostidPort& p = port();
  if (p.gethostname(p.handle, function("gethostname"), buffer, size) == -1) return -1;
  int32_t utf8_size = 0;
  char* utf8 = text_ansi_to_utf8(buffer, &utf8_size);
  if (utf8 == nullptr) return -1;
  if (utf8_size > size) {
    std::memcpy(buffer, utf8, static_cast<size_t>(size - 1));
    buffer[size - 1] = '\0';
  } else {
    std::memcpy(buffer, utf8, static_cast<size_t>(utf8_size));
  }
  hostid_heap_free(utf8);
  return 0;
}

extern "C" int32_t hostname_read_utf8(char* buffer, int32_t size) {
  if (buffer == nullptr || size <= 0) return -1;
  return netlayer_gethostname(buffer, size);
}

extern "C" const char* hostname_get(HostIdContext* context) {
  if (context->host_name_saved[0] != '\0') return context->host_name_saved;
  hostname_read_utf8(context->host_name_work, static_cast<int32_t>(sizeof context->host_name_work));
  hostid_copy_bounded(context->host_name_saved, context->host_name_work, 1024);
  return context->host_name_work;
}
