// What the manager's files share: emission, the fatal path, the lock guard and
// the tracked forms of the allocation family.
#ifndef HOSTKIT_MEMMAN_INTERNAL_H
#define HOSTKIT_MEMMAN_INTERNAL_H

#include <cstdint>

#include "memman.h"
#include "sysenv_internal.h"
#include "sysmutex_inline.h"

// Bytes a tracked block adds around the caller's bytes: the row index and the
// begin guard in front, the end guard behind.
inline constexpr uint64_t kMemHeader = 40;
inline constexpr uint64_t kMemGuard = 32;
inline constexpr uint64_t kMemOverhead = kMemHeader + kMemGuard;

// Message thresholds: a print callback sees a message when message_level is
// above its threshold.
inline constexpr int32_t kMemLevelOperation = 5;
inline constexpr int32_t kMemLevelNotice = 1;
inline constexpr int32_t kMemLevelAlways = 0;

// Takes the manager's lock when locking is enabled. `ok` is false only when
// the lock exists and could not be taken.
class MemLock {
 public:
  explicit MemLock(MemManager* manager)
      : manager_(manager),
        held_(manager->lock_enabled != 0 && sysmutex_enter(manager->mutex) == 0),
        ok_(manager->lock_enabled == 0 || held_) {}
  ~MemLock() {
    if (held_) sysmutex_leave(manager_->mutex);
  }
  MemLock(const MemLock&) = delete;
  MemLock& operator=(const MemLock&) = delete;
  bool ok() const { return ok_; }

 private:
  MemManager* manager_;
  bool held_;
  bool ok_;
};

// Whether per-operation lines have a reader: a trace file, or a print
// callback with a level above the operation threshold.
inline bool memman_operations_read(const MemManager* manager) {
  return manager->trace_file != nullptr ||
         (manager->print_callback != nullptr && manager->table != nullptr &&
          manager->table->message_level > kMemLevelOperation);
}

// The manager's plain allocation and release through its callbacks. The
// default allocators, which every environment without allocators of its own
// uses, run inline here instead of through a call by pointer.
inline void* memman_call_malloc(const MemManager* manager, uint64_t bytes) {
  if (manager->malloc_callback == sysenv_default_malloc) return sysenv_malloc_inline(bytes);
  return manager->malloc_callback(manager->user_handle, bytes);
}

inline void memman_call_free(const MemManager* manager, void* pointer) {
  if (manager->free_callback == sysenv_default_free) [[likely]] {
    sysenv_free_inline(pointer);
    return;
  }
  manager->free_callback(manager->user_handle, pointer);
}

void memman_emit(MemManager* manager, const char* text, int32_t threshold);
[[noreturn]] void memman_fatal(MemManager* manager, const char* file, int32_t line,
                               const char* text);

// Tracked forms, called with tracking on and a non-zero byte count.
void* memman_tracked_alloc(const char* file, int32_t line, MemManager* manager, uint64_t bytes,
                           bool zeroed);
void memman_tracked_free(const char* file, int32_t line, MemManager* manager, void* pointer);
void* memman_tracked_realloc(const char* file, int32_t line, MemManager* manager, void* pointer,
                             uint64_t size);

#endif
