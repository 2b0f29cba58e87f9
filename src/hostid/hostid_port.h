/* The operating system as host identification sees it: a record of
 * functions, each taking the port's handle first. The process-wide active
 * port is the real one of the platform unless a program installs another. */
#ifndef HOSTKIT_HOSTID_PORT_H
#define HOSTKIT_HOSTID_PORT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A function found in a loaded library; the port casts it back to its own
 * type when it calls it. */
typedef void (*HostidProc)(void);

/* One adapter of the IP helper list, as the port reads it from its buffer.
 * The pointers point into that buffer. */
typedef struct HostidAdapter {
  const char* name;
  const uint16_t* description; /* UTF-16, NUL-terminated */
  const uint8_t* address;
  uint32_t address_length;
} HostidAdapter;

/* Room the network layer keeps for the start-up data of the socket library. */
#define HOSTID_STARTUP_DATA_SIZE 512

/* Results of the system's own calls, under their Windows values. */
#define HOSTID_STATUS_BUFFER_OVERFLOW 111u
#define HOSTID_STATUS_NO_DATA 232u
#define HOSTID_STATUS_MORE_DATA 234u
#define HOSTID_STATUS_FILE_NOT_FOUND 2u
#define HOSTID_STATUS_ALREADY_EXISTS 183u

typedef struct HostidPort {
  void* handle;

  /* Wall-clock time in whole seconds since the epoch. */
  int64_t (*now)(void* handle);
  /* The value of an environment variable, or null when it isn't set. */
  const char* (*get_env)(void* handle, const char* name);
  /* In the layout of GetVersion: major, minor, build, top bit for the
   * older family. */
  uint32_t (*version)(void* handle);
  int32_t (*process_id)(void* handle);
  /* Zero-filled blocks of the process heap, null when there is no room;
   * `heap_free` takes null. */
  void* (*heap_alloc)(void* handle, uint64_t size);
  void (*heap_free)(void* handle, void* block);

  /* Run-time library loading. `set_error_mode` returns the old mode. */
  uint32_t (*set_error_mode)(void* handle, uint32_t mode);
  void* (*load_library)(void* handle, const char* name);
  HostidProc (*get_function)(void* handle, void* library, const char* name);
  void (*free_library)(void* handle, void* library);

  /* The per-process named mutex: `create` takes initial ownership and sets
   * *already_exists when the name was taken. */
  void* (*mutex_create)(void* handle, const char* name, int32_t* already_exists);
  void (*mutex_wait)(void* handle, void* mutex);
  void (*mutex_release)(void* handle, void* mutex);
  void (*mutex_close)(void* handle, void* mutex);

  /* The socket library's two calls, through functions it exported. */
  int32_t (*wsa_startup)(void* handle, HostidProc function, uint16_t version, void* data);
  int32_t (*gethostname)(void* handle, HostidProc function, char* buffer, int32_t size);
  /* The system code page to UTF-16 and UTF-16 to UTF-8, each giving the
   * count with the NUL, 0 on failure; a null output asks for the count. */
  int32_t (*ansi_to_wide)(void* handle, const char* text, uint16_t* out, int32_t out_count);
  int32_t (*wide_to_utf8)(void* handle, const uint16_t* text, char* out, int32_t out_size);

  /* The IP helper adapter list in a buffer of the port's format, through
   * the GetAdaptersAddresses function found in the library. */
  uint32_t (*get_adapters)(void* handle, HostidProc function, uint32_t family, uint32_t flags,
                           void* buffer, uint32_t* size);
  const void* (*adapter_first)(void* handle, const void* buffer);
  const void* (*adapter_next)(void* handle, const void* adapter);
  void (*adapter_read)(void* handle, const void* adapter, HostidAdapter* out);

  /* The workstation transport list: enumerate at level 0, read the address
   * of entry `index`, free the buffer. */
  uint32_t (*transport_enum)(void* handle, HostidProc function, uint32_t preferred_length,
                             void** buffer, uint32_t* entries);
  const uint16_t* (*transport_address)(void* handle, const void* buffer, uint32_t index);
  void (*transport_free)(void* handle, HostidProc function, void* buffer);

  /* One NetBIOS command with a 16-byte name (may be null) and a buffer;
   * returns the command's return code. */
  uint8_t (*netbios)(void* handle, HostidProc function, uint8_t command, uint8_t lana,
                     const char* name, uint8_t* buffer, uint16_t length);

  /* Read-only registry. A null `parent` is the local machine's root. Status
   * 0 for success. */
  int32_t (*reg_open)(void* handle, void* parent, const char* path, uint32_t access, void** key);
  int32_t (*reg_query_info)(void* handle, void* key, uint32_t* subkeys, uint32_t* longest_subkey);
  int32_t (*reg_enum_key)(void* handle, void* key, uint32_t index, char* name, uint32_t* length);
  int32_t (*reg_query_value)(void* handle, void* key, const char* name, uint8_t* data,
                             uint32_t* size);
  void (*reg_close)(void* handle, void* key);
} HostidPort;

/* The real port of the platform. */
const HostidPort* hostid_port_system(void);
/* The active port; a null `port` puts the real one back. */
const HostidPort* hostid_port(void);
void hostid_port_set(const HostidPort* port);

#ifdef __cplusplus
}
#endif

#endif
