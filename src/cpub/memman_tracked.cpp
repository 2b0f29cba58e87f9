// Tracked forms of the allocation family: not built yet. A manager asked for
// tracking ends the process at its first tracked operation.
#include "memman_internal.h"

void* memman_tracked_alloc(const char* file, int32_t line, MemManager* manager, uint64_t,
                           bool) {
  memman_fatal(manager, file, line, "tracked blocks are not available in this build");
}

void memman_tracked_free(const char* file, int32_t line, MemManager* manager, void*) {
  memman_fatal(manager, file, line, "tracked blocks are not available in this build");
}

void* memman_tracked_realloc(const char* file, int32_t line, MemManager* manager, void*,
                             uint64_t) {
  memman_fatal(manager, file, line, "tracked blocks are not available in this build");
}

extern "C" int32_t memman_scan(const char*, int32_t, MemManager* manager, int32_t) {
  if (manager == nullptr || manager->tracking == 0) return 0;
  return 0;
}
