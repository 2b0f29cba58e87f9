// Host identification over Win32: the interfaces the system names, with the
// network libraries loaded at run time so that the program imports none of
// them.
// winsock2.h must come before windows.h, and both before the others.
// clang-format off
#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <lm.h>
#include <nb30.h>
// clang-format on

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "hostid_port.h"

static_assert(sizeof(WSADATA) <= HOSTID_STARTUP_DATA_SIZE);
static_assert(sizeof(wchar_t) == sizeof(uint16_t));

namespace {

int64_t win_now(void*) { return static_cast<int64_t>(std::time(nullptr)); }

const char* win_get_env(void*, const char* name) { return std::getenv(name); }

uint32_t win_version(void*) { return static_cast<uint32_t>(GetVersion()); }

int32_t win_process_id(void*) { return static_cast<int32_t>(GetCurrentProcessId()); }

void* win_heap_alloc(void*, uint64_t size) {
  return HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, static_cast<SIZE_T>(size));
}

void win_heap_free(void*, void* block) {
  if (block != nullptr) HeapFree(GetProcessHeap(), 0, block);
}

uint32_t win_set_error_mode(void*, uint32_t mode) { return SetErrorMode(mode); }

void* win_load_library(void*, const char* name) { return LoadLibraryA(name); }

HostidProc win_get_function(void*, void* library, const char* name) {
  return reinterpret_cast<HostidProc>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void win_free_library(void*, void* library) { FreeLibrary(static_cast<HMODULE>(library)); }

void* win_mutex_create(void*, const char* name, int32_t* already_exists) {
  HANDLE mutex = CreateMutexA(nullptr, TRUE, name);
  *already_exists = mutex != nullptr && GetLastError() == ERROR_ALREADY_EXISTS ? 1 : 0;
  return mutex;
}

void win_mutex_wait(void*, void* mutex) { WaitForSingleObject(mutex, INFINITE); }
void win_mutex_release(void*, void* mutex) { ReleaseMutex(mutex); }
void win_mutex_close(void*, void* mutex) { CloseHandle(mutex); }

using StartupFn = int(WSAAPI*)(WORD, LPWSADATA);
using HostNameFn = int(WSAAPI*)(char*, int);

int32_t win_wsa_startup(void*, HostidProc function, uint16_t version, void* data) {
  return reinterpret_cast<StartupFn>(function)(version, static_cast<LPWSADATA>(data));
}

int32_t win_gethostname(void*, HostidProc function, char* buffer, int32_t size) {
  int result = reinterpret_cast<HostNameFn>(function)(buffer, size);
  return result == SOCKET_ERROR ? -1 : 0;
}

int32_t win_ansi_to_wide(void*, const char* text, uint16_t* out, int32_t out_count) {
  return MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, text, -1,
                             reinterpret_cast<wchar_t*>(out), out_count);
}

int32_t win_wide_to_utf8(void*, const uint16_t* text, char* out, int32_t out_size) {
  return WideCharToMultiByte(CP_UTF8, 0, reinterpret_cast<const wchar_t*>(text), -1, out, out_size,
                             nullptr, nullptr);
}

using AdaptersFn = ULONG(WINAPI*)(ULONG, ULONG, PVOID, PIP_ADAPTER_ADDRESSES, PULONG);

uint32_t win_get_adapters(void*, HostidProc function, uint32_t family, uint32_t flags, void* buffer,
                          uint32_t* size) {
  ULONG length = *size;
  ULONG result = reinterpret_cast<AdaptersFn>(function)(
      family, flags, nullptr, static_cast<PIP_ADAPTER_ADDRESSES>(buffer), &length);
  *size = length;
  return result;
}

const void* win_adapter_first(void*, const void* buffer) { return buffer; }

const void* win_adapter_next(void*, const void* adapter) {
  return static_cast<const IP_ADAPTER_ADDRESSES*>(adapter)->Next;
}

void win_adapter_read(void*, const void* adapter, HostidAdapter* out) {
  const auto* a = static_cast<const IP_ADAPTER_ADDRESSES*>(adapter);
  static const uint16_t kNone[1] = {0};
  out->name = a->AdapterName != nullptr ? a->AdapterName : "";
  out->description =
      a->Description != nullptr ? reinterpret_cast<const uint16_t*>(a->Description) : kNone;
  out->address = a->PhysicalAddress;
  out->address_length = a->PhysicalAddressLength;
}

using TransportEnumFn = NET_API_STATUS(NET_API_FUNCTION*)(LMSTR, DWORD, LPBYTE*, DWORD, LPDWORD,
                                                          LPDWORD, LPDWORD);
using BufferFreeFn = NET_API_STATUS(NET_API_FUNCTION*)(LPVOID);

uint32_t win_transport_enum(void*, HostidProc function, uint32_t preferred_length, void** buffer,
                            uint32_t* entries) {
  LPBYTE data = nullptr;
  DWORD read = 0;
  DWORD total = 0;
  NET_API_STATUS status = reinterpret_cast<TransportEnumFn>(function)(
      nullptr, 0, &data, preferred_length, &read, &total, nullptr);
  *buffer = data;
  *entries = read;
  return status;
}

const uint16_t* win_transport_address(void*, const void* buffer, uint32_t index) {
  const auto* info = static_cast<const WKSTA_TRANSPORT_INFO_0*>(buffer);
  return reinterpret_cast<const uint16_t*>(info[index].wkti0_transport_address);
}

void win_transport_free(void*, HostidProc function, void* buffer) {
  reinterpret_cast<BufferFreeFn>(function)(buffer);
}

using NetbiosFn = UCHAR(APIENTRY*)(PNCB);

uint8_t win_netbios(void*, HostidProc function, uint8_t command, uint8_t lana, const char* name,
                    uint8_t* buffer, uint16_t length) {
  NCB ncb;
  std::memset(&ncb, 0, sizeof ncb);
  ncb.ncb_command = command;
  ncb.ncb_lana_num = lana;
  if (name != nullptr) std::memcpy(ncb.ncb_callname, name, NCBNAMSZ);
  ncb.ncb_buffer = buffer;
  ncb.ncb_length = length;
  return reinterpret_cast<NetbiosFn>(function)(&ncb);
}

int32_t win_reg_open(void*, void* parent, const char* path, uint32_t access, void** key) {
  HKEY opened = nullptr;
  HKEY root = parent != nullptr ? static_cast<HKEY>(parent) : HKEY_LOCAL_MACHINE;
  LSTATUS status = RegOpenKeyExA(root, path, 0, access, &opened);
  *key = status == ERROR_SUCCESS ? opened : nullptr;
  return status;
}

int32_t win_reg_query_info(void*, void* key, uint32_t* subkeys, uint32_t* longest) {
  DWORD count = 0;
  DWORD length = 0;
  LSTATUS status = RegQueryInfoKeyA(static_cast<HKEY>(key), nullptr, nullptr, nullptr, &count,
                                    &length, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  *subkeys = count;
  *longest = length;
  return status;
}

int32_t win_reg_enum_key(void*, void* key, uint32_t index, char* name, uint32_t* length) {
  DWORD size = *length;
  LSTATUS status =
      RegEnumKeyExA(static_cast<HKEY>(key), index, name, &size, nullptr, nullptr, nullptr, nullptr);
  *length = size;
  return status;
}

int32_t win_reg_query_value(void*, void* key, const char* name, uint8_t* data, uint32_t* size) {
  DWORD length = *size;
  LSTATUS status = RegQueryValueExA(static_cast<HKEY>(key), name, nullptr, nullptr, data, &length);
  *size = length;
  return status;
}

void win_reg_close(void*, void* key) { RegCloseKey(static_cast<HKEY>(key)); }

const HostidPort kWin32Port = {
    nullptr,
    win_now,
    win_get_env,
    win_version,
    win_process_id,
    win_heap_alloc,
    win_heap_free,
    win_set_error_mode,
    win_load_library,
    win_get_function,
    win_free_library,
    win_mutex_create,
    win_mutex_wait,
    win_mutex_release,
    win_mutex_close,
    win_wsa_startup,
    win_gethostname,
    win_ansi_to_wide,
    win_wide_to_utf8,
    win_get_adapters,
    win_adapter_first,
    win_adapter_next,
    win_adapter_read,
    win_transport_enum,
    win_transport_address,
    win_transport_free,
    win_netbios,
    win_reg_open,
    win_reg_query_info,
    win_reg_enum_key,
    win_reg_query_value,
    win_reg_close,
};

}  // namespace

extern "C" const HostidPort* hostid_port_system(void) { return &kWin32Port; }
