// The memory manager: its record, creation and end, the allocation family's
// calling form (untracked form here, tracked forms in memman_tracked.cpp), the
// settings, message emission, the trace file and the fatal path.
#include "memman.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "memman_internal.h"

namespace {

// Where nothing chose a message level, a print callback receives the reports
// that need attention (leaks, out of space, fatal lines, the closing scan) but
// not the line of every allocation, which takes a level above 5.
constexpr int32_t kDefaultMessageLevel = 2;

constexpr char kBeginTag[] = "begin";
constexpr char kEndTag[] = "end";

void* untracked_alloc(MemManager* manager, uint64_t count, uint64_t size, bool zeroed) {
  return zeroed ? manager->calloc_callback(manager->user_handle, count, size)
                : memman_call_malloc(manager, count * size);
}

void* allocate(const char* file, int32_t line, MemManager* manager, uint64_t count, uint64_t size,
               bool zeroed) {
  const uint64_t bytes = count * size;
  if (bytes == 0) return nullptr;
  if (manager->tracking == 0) return untracked_alloc(manager, count, size, zeroed);
  return memman_tracked_alloc(file, line, manager, bytes, zeroed);
}

char* copy_text(const char* file, int32_t line, MemManager* manager, const char* text,
                uint64_t length) {
  auto* copy = static_cast<char*>(allocate(file, line, manager, length + 1, 1, false));
  if (copy == nullptr) return nullptr;
  if (length > 0) std::memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

// Alignments below the width of the stored start are raised to it, and any
// alignment is rounded up to a power of two.
uint64_t effective_alignment(uint64_t alignment) {
  uint64_t a = sizeof(void*);
  while (a < alignment && a != 0) a <<= 1;
  return a;
}

// Lists the blocks left on a tracked manager; returns how many there were.
// A print callback may allocate from this manager while the lines go out:
// the listing is of the blocks that were live when it began, and rows are
// read again by their index after each line, as a callback may have moved
// the table.
uint64_t list_leaks(MemManager* manager) {
  const MemBlockTable* table = manager->table;
  if (manager->tracking == 0) return 0;
  const uint64_t end_row = table->used;
  const uint64_t end_number = table->next_number;
  auto left_at = [&](uint64_t row) {
    const MemBlockEntry& entry = table->entries[row];
    return entry.in_use != 0 && entry.block_number < end_number;
  };
  uint64_t row = 0;
  while (row < end_row && !left_at(row)) ++row;
  if (row == end_row) return 0;
  memman_emit(manager, "**** ALLOCATED  BLOCKS LEFT\n", kMemLevelAlways);
  uint64_t left = 0;
  for (; row < end_row; ++row) {
    if (!left_at(row)) continue;
    const MemBlockEntry& entry = table->entries[row];
    // The second address is raw + 32, not raw + 40 where the caller's bytes
    // start: the listing has always shown it so, and readers of old listings
    // compare against it.
    char text[1024];
    sysstr_format(sizeof text, text, "#%-" PRIu64 " at %p (%p) is allocated\n",
                  entry.block_number, entry.raw,
                  static_cast<void*>(static_cast<char*>(entry.raw) + 32));
    memman_emit(manager, text, kMemLevelAlways);
    ++left;
  }
  return left;
}

// The closing sequence: lines, scan, leak listing, trace file.
uint64_t report_at_delete(const char* file, int32_t line, MemManager* manager) {
  memman_emit(manager, "Deleting mem manager. Scanning memory\n", kMemLevelNotice);
  memman_scan(file, line, manager, kMemLevelNotice);
  uint64_t left = 0;
  if (manager->table != nullptr) {
    memman_emit(manager, "Checking leaks\n", kMemLevelAlways);
    left = list_leaks(manager);
    memman_emit(manager, "Done checking leaks\n", kMemLevelAlways);
  }
  if (manager->trace_file != nullptr) memman_close_trace(manager);
  return left;
}

void local_time_text(char* out, size_t size) {
  const std::time_t now = std::time(nullptr);
  const std::tm* local = std::localtime(&now);
  sysstr_copy(size, out, local != nullptr ? std::asctime(local) : "\n");
}

// The closing line and the end of an open trace file, with the lock held.
void close_trace_locked(MemManager* manager, const char* when) {
  if (manager->trace_file == nullptr) return;
  manager->trace_name[0] = '\0';
  std::fprintf(manager->trace_file, "\nFile closed: %s\n", when);
  std::fclose(manager->trace_file);
  manager->trace_file = nullptr;
}

}  // namespace

extern "C" {

MemManager* memman_create(int32_t tracking, void* user_handle, SysEnvMallocCallback malloc_callback,
                          SysEnvCallocCallback calloc_callback,
                          SysEnvReallocCallback realloc_callback,
                          SysEnvFreeCallback free_callback) {
  auto* manager = static_cast<MemManager*>(malloc_callback(user_handle, sizeof(MemManager)));
  if (manager == nullptr) return nullptr;
  std::memcpy(manager->begin_tag, kBeginTag, sizeof kBeginTag);
  std::memset(manager->name, 0, sizeof manager->name);
  manager->trace_name[0] = '\0';
  std::memcpy(manager->end_tag, kEndTag, sizeof kEndTag);
  manager->print_callback = nullptr;
  manager->print_handle = nullptr;
  manager->fatal_callback = nullptr;
  manager->fatal_handle = nullptr;
  manager->mutex = nullptr;

  auto* table = static_cast<MemBlockTable*>(malloc_callback(user_handle, sizeof(MemBlockTable)));
  if (table == nullptr) {
    free_callback(user_handle, manager);
    return nullptr;
  }
  *table = MemBlockTable{-1, kDefaultMessageLevel, 0, nullptr, 0, nullptr, 0, 0};
  manager->table = table;
  manager->trace_file = nullptr;
  manager->tracking = tracking;
  manager->peak_usage = 0;
  manager->current_usage = 0;
  manager->lock_enabled = 0;
  manager->user_handle = user_handle;
  manager->malloc_callback = malloc_callback;
  manager->calloc_callback = calloc_callback;
  manager->realloc_callback = realloc_callback;
  manager->free_callback = free_callback;

  auto* mutex = static_cast<sysmutex*>(malloc_callback(user_handle, sizeof(sysmutex)));
  if (mutex == nullptr || sysmutex_create(mutex) != 0) {
    if (mutex != nullptr) free_callback(user_handle, mutex);
    memman_delete(__FILE__, __LINE__, &manager);
    return nullptr;
  }
  manager->mutex = mutex;
  manager->lock_enabled = 1;
  return manager;
}

uint64_t memman_delete(const char* file, int32_t line, MemManager** manager_slot) {
  if (manager_slot == nullptr) return 0;
  MemManager* manager = *manager_slot;
  if (manager == nullptr) return 0;

  const uint64_t left = report_at_delete(file, line, manager);

  void* handle = manager->user_handle;
  SysEnvFreeCallback release = manager->free_callback;
  if (MemBlockTable* table = manager->table; table != nullptr) {
    release(handle, table->entries);
    release(handle, table->free_next);
    release(handle, table);
  }
  if (manager->mutex != nullptr) {
    sysmutex_destroy(manager->mutex);
    release(handle, manager->mutex);
    manager->mutex = nullptr;
    manager->lock_enabled = 0;
  }
  manager->user_handle = nullptr;
  manager->malloc_callback = nullptr;
  manager->calloc_callback = nullptr;
  manager->realloc_callback = nullptr;
  manager->free_callback = nullptr;
  manager->table = nullptr;
  release(handle, manager);
  *manager_slot = nullptr;
  return left;
}

void* memman_alloc(const char* file, int32_t line, MemManager* manager, uint64_t count,
                   uint64_t size) {
  return allocate(file, line, manager, count, size, false);
}

void* memman_calloc(const char* file, int32_t line, MemManager* manager, uint64_t count,
                    uint64_t size) {
  return allocate(file, line, manager, count, size, true);
}

void* memman_alloc_with(const char* file, int32_t line, MemManager* manager, uint64_t count,
                        uint64_t size, int32_t zeroed) {
  return allocate(file, line, manager, count, size, zeroed != 0);
}

char* memman_strdup(const char* file, int32_t line, MemManager* manager, const char* text) {
  return copy_text(file, line, manager, text, sysstr_len(text));
}

char* memman_strndup(const char* file, int32_t line, MemManager* manager, const char* text,
                     uint64_t limit) {
  uint64_t length = 0;
  if (text != nullptr) {
    while (length < limit && text[length] != '\0') ++length;
  }
  return copy_text(file, line, manager, text, length);
}

// The caller's block starts at the first multiple of the alignment that leaves
// room for the stored start of the reservation below it; with allocators that
// hand out multiples of 8 (as C's malloc does) it always ends inside the
// reservation of size + alignment bytes.
void* memman_alloc_aligned(const char* file, int32_t line, MemManager* manager, uint64_t size,
                           uint64_t alignment) {
  const uint64_t a = effective_alignment(alignment);
  if (a == 0 || size + a < size) return nullptr;
  auto* start = static_cast<char*>(allocate(file, line, manager, size + a, 1, false));
  if (start == nullptr) return nullptr;
  const uintptr_t base = reinterpret_cast<uintptr_t>(start) + sizeof(void*);
  const uintptr_t aligned = (base + (a - 1)) & ~static_cast<uintptr_t>(a - 1);
  auto* result = reinterpret_cast<char*>(aligned);
  std::memcpy(result - sizeof(void*), &start, sizeof(void*));
  return result;
}

void* memman_realloc(const char* file, int32_t line, MemManager* manager, void* pointer,
                     uint64_t size) {
  if (manager->tracking == 0) return manager->realloc_callback(manager->user_handle, pointer, size);
  if (size == 0) {
    memman_free(file, line, manager, pointer);
    return nullptr;
  }
  if (pointer == nullptr) return memman_alloc_with(file, line, manager, size, 1, 0);
  return memman_tracked_realloc(file, line, manager, pointer, size);
}

void memman_free(const char* file, int32_t line, MemManager* manager, void* pointer) {
  if (manager->tracking == 0) {
    memman_call_free(manager, pointer);
    return;
  }
  memman_tracked_free(file, line, manager, pointer);
}

void memman_free_aligned(const char* file, int32_t line, MemManager* manager, void* pointer) {
  if (pointer == nullptr) return;
  void* start = nullptr;
  std::memcpy(&start, static_cast<char*>(pointer) - sizeof(void*), sizeof(void*));
  if (manager->tracking != 0 && start == nullptr) return;
  memman_free(file, line, manager, start);
}

int32_t memman_tracking(const MemManager* manager) { return manager->tracking; }

void memman_usage(const MemManager* manager, uint64_t* current, uint64_t* peak) {
  if (current != nullptr) *current = manager->current_usage;
  if (peak != nullptr) *peak = manager->peak_usage;
}

void memman_set_levels(MemManager* manager, int32_t first_level, int32_t message_level) {
  if (manager == nullptr) return;
  MemLock lock(manager);
  if (manager->table == nullptr) return;
  manager->table->first_level = first_level;
  manager->table->message_level = message_level;
}

void memman_set_print_callback(MemManager* manager, SysEnvStreamCallback callback, void* handle) {
  if (manager == nullptr) return;
  MemLock lock(manager);
  manager->print_callback = callback;
  manager->print_handle = handle;
}

void memman_set_fatal_callback(MemManager* manager, SysEnvFatalCallback callback, void* handle) {
  if (manager == nullptr) return;
  MemLock lock(manager);
  manager->fatal_callback = callback;
  manager->fatal_handle = handle;
}

void memman_format_size(int32_t grouped, uint64_t capacity, char* buffer, uint64_t value) {
  if (buffer == nullptr || capacity == 0) return;
  if (grouped == 0) {
    sysstr_format(capacity, buffer, "%" PRIu64, value);
    return;
  }
  constexpr uint64_t kKi = uint64_t{1} << 10, kMi = uint64_t{1} << 20, kGi = uint64_t{1} << 30;
  sysstr_format(capacity, buffer, "%" PRIu64 ":%" PRIu64 ":%" PRIu64 ":%" PRIu64, value / kGi,
                (value % kGi) / kMi, (value % kMi) / kKi, value % kKi);
}

// Both trace operations look at the file under the lock, so two threads
// opening or closing at once neither close a stream twice nor leave one open.
void memman_open_trace(MemManager* manager, const char* name, const char* header) {
  if (manager == nullptr) return;
  char when[64];
  local_time_text(when, sizeof when);
  MemLock lock(manager);
  if (!lock.ok()) return;
  close_trace_locked(manager, when);
  sysstr_copy(sizeof manager->trace_name, manager->trace_name, name);
  manager->trace_file = name != nullptr ? std::fopen(name, "wt") : nullptr;
  if (manager->trace_file == nullptr) return;
  std::fprintf(manager->trace_file, "Header: %s\n", header != nullptr ? header : "");
  std::fprintf(manager->trace_file, "\nFile opened: %s\n", when);
  std::fflush(manager->trace_file);
}

void memman_close_trace(MemManager* manager) {
  if (manager == nullptr) return;
  char when[64];
  local_time_text(when, sizeof when);
  MemLock lock(manager);
  if (lock.ok()) close_trace_locked(manager, when);
}

void memman_trace_text(MemManager* manager, const char* text) {
  if (manager == nullptr || manager->trace_file == nullptr || text == nullptr) return;
  std::fputs(text, manager->trace_file);
  std::fflush(manager->trace_file);
}

}  // extern "C"

void memman_emit(MemManager* manager, const char* text, int32_t threshold) {
  if (manager->trace_file != nullptr) {
    std::fputs(text, manager->trace_file);
    std::fflush(manager->trace_file);
  }
  if (manager->print_callback != nullptr && manager->table != nullptr &&
      manager->table->message_level > threshold) {
    manager->print_callback(manager->print_handle, text);
  }
}

void memman_fatal(MemManager* manager, const char* file, int32_t line, const char* text) {
  const int32_t threshold = manager->fatal_callback != nullptr ? 1000 : 0;
  char where[1024];
  sysstr_format(sizeof where, where, "Fatal error in file '%s(%d)'\n", file != nullptr ? file : "",
                line);
  memman_emit(manager, where, threshold);
  char message[1024];
  sysstr_format(sizeof message, message, "Message(%s): %s\n", manager->name, text);
  memman_emit(manager, message, threshold);
  if (manager->trace_file != nullptr) memman_close_trace(manager);
  if (manager->fatal_callback != nullptr) {
    manager->fatal_callback(manager->fatal_handle, file, line, message, -1);
  }
  std::exit(-99);
}
