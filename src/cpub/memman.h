/* The memory manager: four allocator callbacks below, and, with tracking on,
 * a block table, guard zones, block numbers and reports above them. */
#ifndef HOSTKIT_MEMMAN_H
#define HOSTKIT_MEMMAN_H

#include <stdint.h>
#include <stdio.h>

#include "sysenv.h"
#include "sysmutex.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MemBlockEntry {
  int16_t in_use;
  uint64_t block_number;
  uint64_t size;
  void* raw;
  int8_t begin_seed;
  int8_t end_seed;
} MemBlockEntry;

typedef struct MemBlockTable {
  int32_t first_level;
  int32_t message_level;
  uint64_t next_number;
  MemBlockEntry* entries;
  uint64_t free_head;
  uint64_t* free_next;
  uint64_t used;
  uint64_t capacity;
} MemBlockTable;

enum { MEMMAN_NAME_SIZE = 24, MEMMAN_TRACE_NAME_SIZE = 2048 };

struct MemManager {
  char begin_tag[9];
  char name[MEMMAN_NAME_SIZE];
  int32_t lock_enabled;
  sysmutex* mutex;
  void* user_handle;
  SysEnvMallocCallback malloc_callback;
  SysEnvCallocCallback calloc_callback;
  SysEnvReallocCallback realloc_callback;
  SysEnvFreeCallback free_callback;
  void* fatal_handle;
  SysEnvFatalCallback fatal_callback;
  void* print_handle;
  SysEnvStreamCallback print_callback;
  MemBlockTable* table;
  uint64_t peak_usage;
  uint64_t current_usage;
  int32_t tracking;
  char trace_name[MEMMAN_TRACE_NAME_SIZE];
  FILE* trace_file;
  char end_tag[4];
};

/* Life. `memman_delete` returns the number of blocks left and sets the handle
 * to null. */
MemManager* memman_create(int32_t tracking, void* user_handle, SysEnvMallocCallback malloc_callback,
                          SysEnvCallocCallback calloc_callback,
                          SysEnvReallocCallback realloc_callback,
                          SysEnvFreeCallback free_callback);
uint64_t memman_delete(const char* file, int32_t line, MemManager** manager_slot);

/* Allocation family; `count * size` is taken in 64 bits. */
void* memman_alloc(const char* file, int32_t line, MemManager* manager, uint64_t count,
                   uint64_t size);
void* memman_calloc(const char* file, int32_t line, MemManager* manager, uint64_t count,
                    uint64_t size);
void* memman_alloc_with(const char* file, int32_t line, MemManager* manager, uint64_t count,
                        uint64_t size, int32_t zeroed);
char* memman_strdup(const char* file, int32_t line, MemManager* manager, const char* text);
char* memman_strndup(const char* file, int32_t line, MemManager* manager, const char* text,
                     uint64_t limit);
void* memman_alloc_aligned(const char* file, int32_t line, MemManager* manager, uint64_t size,
                           uint64_t alignment);
void* memman_realloc(const char* file, int32_t line, MemManager* manager, void* pointer,
                     uint64_t size);
void memman_free(const char* file, int32_t line, MemManager* manager, void* pointer);
void memman_free_aligned(const char* file, int32_t line, MemManager* manager, void* pointer);

/* Checks every live block of a tracked manager; reports at `threshold`.
 * Always returns 0. */
int32_t memman_scan(const char* file, int32_t line, MemManager* manager, int32_t threshold);

/* Messages and the trace file. Opening closes a file already open, with its
 * closing line; both take the manager's lock. */
void memman_open_trace(MemManager* manager, const char* name, const char* header);
void memman_close_trace(MemManager* manager);
/* Appends `text` to the open trace file and flushes it. It takes no lock, so
 * a caller must not use it while another thread may close or reopen this
 * manager's trace file (memman_close_trace, memman_open_trace,
 * memman_delete, or a fatal error of the manager). */
void memman_trace_text(MemManager* manager, const char* text);
/* `value` as text: plain, or grouped as GiB:MiB:KiB:bytes. */
void memman_format_size(int32_t grouped, uint64_t capacity, char* buffer, uint64_t value);

/* Usage and settings. */
int32_t memman_tracking(const MemManager* manager);
void memman_usage(const MemManager* manager, uint64_t* current, uint64_t* peak);
void memman_set_levels(MemManager* manager, int32_t first_level, int32_t message_level);
void memman_set_print_callback(MemManager* manager, SysEnvStreamCallback callback, void* handle);
void memman_set_fatal_callback(MemManager* manager, SysEnvFatalCallback callback, void* handle);

#ifdef __cplusplus
}
#endif

#endif
