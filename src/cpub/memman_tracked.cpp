// Tracked blocks: the block table with its free list, the guarded block
// layout, the tracked forms of the allocation family, the block check, the
// scan, and the per-operation and out-of-space reports.
//
// A tracked block, `raw` being what the allocator callback handed out:
//   raw + 0            row index in the table (8 bytes)
//   raw + 8            begin guard (32 bytes)
//   raw + 40           the caller's bytes
//   raw + 40 + size    end guard (32 bytes)
// The row index lets release find the row in constant time; the row then
// confirms that the pointer really is a live block of this manager.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "memman_internal.h"

namespace {

constexpr int8_t kGuardSeed = 0x20;
constexpr uint64_t kIndexBytes = 8;
constexpr uint64_t kFirstCapacity = 1024;
// Beyond this many rows the two arrays' sizes no longer fit in 64 bits.
constexpr uint64_t kMaxRows = UINT64_MAX / sizeof(MemBlockEntry);

// A healthy guard: byte i holds seed + i.
struct GuardPattern {
  unsigned char bytes[kMemGuard];
};
constexpr GuardPattern make_pattern() {
  GuardPattern p{};
  for (uint64_t i = 0; i < kMemGuard; ++i) p.bytes[i] = static_cast<unsigned char>(kGuardSeed + i);
  return p;
}
constexpr GuardPattern kGuardPattern = make_pattern();

const char* file_text(const char* file) { return file != nullptr ? file : ""; }

unsigned char* bytes_of(void* pointer) { return static_cast<unsigned char*>(pointer); }

uint64_t read_index(const unsigned char* raw) {
  uint64_t row = 0;
  std::memcpy(&row, raw, sizeof row);
  return row;
}

// Writes the row index and both guards of a block. Rows always carry the
// seed 0x20, so every healthy guard is the same 32 bytes.
void dress_block(unsigned char* raw, uint64_t size, uint64_t row) {
  std::memcpy(raw, &row, sizeof row);
  std::memcpy(raw + kIndexBytes, kGuardPattern.bytes, kMemGuard);
  std::memcpy(raw + kMemHeader + size, kGuardPattern.bytes, kMemGuard);
}

// Finds the first byte of a guard that differs from seed + i, comparing the
// byte as a signed 8-bit value; returns kMemGuard for a healthy guard.
uint64_t first_damage(const unsigned char* guard, int8_t seed) {
  for (uint64_t i = 0; i < kMemGuard; ++i) {
    if (static_cast<int>(static_cast<int8_t>(guard[i])) != seed + static_cast<int>(i)) return i;
  }
  return kMemGuard;
}

// The block check: both guards of a live row, the begin guard first. Damage
// ends the process through the fatal path with the caller's file and line.
// Healthy blocks, the usual case, are told apart inline in a few compares.
void report_damage(MemManager* manager, const char* file, int32_t line, const MemBlockEntry& entry);

inline void check_block(MemManager* manager, const char* file, int32_t line,
                        const MemBlockEntry& entry) {
  const unsigned char* raw = static_cast<const unsigned char*>(entry.raw);
  if (entry.begin_seed == kGuardSeed && entry.end_seed == kGuardSeed &&
      std::memcmp(raw + kIndexBytes, kGuardPattern.bytes, kMemGuard) == 0 &&
      std::memcmp(raw + kMemHeader + entry.size, kGuardPattern.bytes, kMemGuard) == 0) {
    return;
  }
  report_damage(manager, file, line, entry);
}

[[gnu::noinline]] void report_damage(MemManager* manager, const char* file, int32_t line,
                                     const MemBlockEntry& entry) {
  unsigned char* raw = bytes_of(entry.raw);
  const unsigned char* begin = raw + kIndexBytes;
  const uint64_t at_begin = first_damage(begin, entry.begin_seed);
  char text[256];
  if (at_begin < kMemGuard) {
    // The damaged byte shows its sign extension: 0xFF reads 4294967295.
    sysstr_format(sizeof text, text,
                  "*** Block begin guard violation. #%" PRIu64
                  " at %p. pos: %u expected: %u got %u",
                  entry.block_number, static_cast<void*>(raw), static_cast<unsigned>(at_begin),
                  static_cast<unsigned>(entry.begin_seed + static_cast<int>(at_begin)),
                  static_cast<unsigned>(static_cast<int>(static_cast<int8_t>(begin[at_begin]))));
    memman_fatal(manager, file, line, text);
  }
  unsigned char* end = raw + kMemHeader + entry.size;
  const uint64_t at_end = first_damage(end, entry.end_seed);
  if (at_end < kMemGuard) {
    sysstr_format(sizeof text, text,
                  "*** Block end guard violation. #%" PRIu64 " at %p. pos: %u expected: %u got %u",
                  entry.block_number, static_cast<void*>(end), static_cast<unsigned>(at_end),
                  static_cast<unsigned>(entry.end_seed + static_cast<int>(at_end)),
                  static_cast<unsigned>(static_cast<int>(static_cast<int8_t>(end[at_end]))));
    memman_fatal(manager, file, line, text);
  }
}

// The row that claims the block at `raw`, or kNoRow when no live row does.
constexpr uint64_t kNoRow = UINT64_MAX;
uint64_t live_row(MemManager* manager, unsigned char* raw) {
  const MemBlockTable* table = manager->table;
  if (table == nullptr) return kNoRow;
  const uint64_t row = read_index(raw);
  if (row >= table->used) return kNoRow;
  const MemBlockEntry& entry = table->entries[row];
  return entry.in_use != 0 && entry.raw == raw ? row : kNoRow;
}

// Whether a row can be taken without growing the table: an untouched row or
// a free one.
bool has_room(const MemBlockTable* table) {
  return table->used < table->capacity || table->free_head != table->capacity;
}

// Out of space is reported on standard output whoever listens, and then
// through the manager; the caller goes on with a null result.
void report_out_of_space(MemManager* manager, const char* file, int32_t line, uint64_t bytes,
                         bool reallocating) {
  char text[1024];
  // The reallocation's line is cut at 256 bytes like its other lines; the
  // buffer is sized for the longer allocation line and serves both.
  if (reallocating) {
    sysstr_format(256, text,
                  "Out of space while trying to reallocate a block of size %" PRIu64
                  " in file '%s(%d)'\n",
                  bytes, file_text(file), line);
  } else {
    sysstr_format(sizeof text, text,
                  "Out of space while trying to allocate a block of size %" PRIu64
                  " in file '%s(%d)'\n",
                  bytes, file_text(file), line);
  }
  std::fputs(text, stdout);
  std::fflush(stdout);
  memman_emit(manager, text, kMemLevelNotice);
}

// Doubles the table (1024 rows at first). On failure the old table stands
// as it was.
bool grow_table(MemManager* manager) {
  MemBlockTable* table = manager->table;
  void* handle = manager->user_handle;
  if (table->capacity > kMaxRows / 2) return false;
  uint64_t capacity = table->capacity * 2;
  if (capacity < kFirstCapacity) capacity = kFirstCapacity;
  auto* entries = static_cast<MemBlockEntry*>(
      manager->malloc_callback(handle, capacity * sizeof(MemBlockEntry)));
  auto* free_next =
      static_cast<uint64_t*>(manager->malloc_callback(handle, capacity * sizeof(uint64_t)));
  if (entries == nullptr || free_next == nullptr) {
    manager->free_callback(handle, entries);
    manager->free_callback(handle, free_next);
    return false;
  }
  uint64_t head = capacity;
  if (table->used > 0) {
    std::memcpy(entries, table->entries, table->used * sizeof(MemBlockEntry));
    for (uint64_t row = 0; row < table->used; ++row) {
      if (entries[row].in_use != 0) continue;
      free_next[row] = head;
      head = row;
    }
  }
  manager->free_callback(handle, table->entries);
  manager->free_callback(handle, table->free_next);
  table->capacity = capacity;
  table->entries = entries;
  table->free_next = free_next;
  table->free_head = head;
  return true;
}

void emit_alloc_line(MemManager* manager, const char* file, int32_t line, uint64_t bytes,
                     void* raw, uint64_t number) {
  char size_text[128];
  char usage_text[128];
  char text[1024];
  memman_format_size(1, sizeof size_text, size_text, bytes);
  memman_format_size(1, sizeof usage_text, usage_text, manager->current_usage);
  sysstr_format(sizeof text, text,
                "%-10s #%-12" PRIu64 " at %-32p of size %-16s (%-16s) in file '%s(%d)'.\n", "Alloc",
                number, raw, size_text, usage_text, file_text(file),
                file != nullptr ? line : -1);
  memman_emit(manager, text, kMemLevelOperation);
}

void emit_free_line(MemManager* manager, const char* file, int32_t line,
                    const MemBlockEntry& entry) {
  char size_text[128];
  char usage_text[128];
  char text[1024];
  memman_format_size(1, sizeof size_text, size_text, entry.size);
  memman_format_size(1, sizeof usage_text, usage_text, manager->current_usage);
  sysstr_format(sizeof text, text,
                "%-10s #%-12" PRIu64 " at %-32p of size %-s (%-s) in file '%s(%d)'\n", "Free",
                entry.block_number, entry.raw, size_text, usage_text, file_text(file), line);
  memman_emit(manager, text, kMemLevelOperation);
}

void emit_realloc_line(MemManager* manager, const char* file, int32_t line, uint64_t number,
                       void* raw, uint64_t size) {
  char size_text[256];
  char usage_text[256];
  char text[256];
  memman_format_size(1, sizeof size_text, size_text, size);
  memman_format_size(1, sizeof usage_text, usage_text, manager->current_usage);
  // "Rellocated", as the word has always stood in these logs: tools that
  // read them match it.
  sysstr_format(sizeof text, text,
                "Rellocated(%s)   #%-6" PRIu64 " at %-10p of size %-s (%-s) in file '%s(%d)'.\n",
                manager->name, number, raw, size_text, usage_text, file_text(file),
                file != nullptr ? line : -1);
  memman_emit(manager, text, kMemLevelOperation);
}

// The scan's way out when the manager record itself can't be trusted: plain
// standard output, no callback, no trace file. The name position stands empty
// as it does in every other fatal message of the manager; the record's own
// name is not read because the record is not trusted.
[[noreturn]] void untrusted_manager(const char* file, int32_t line, const char* text) {
  std::printf("Fatal error in file '%s(%d)'\n", file_text(file), line);
  std::printf("Message(%s): %s\n", "", text);
  std::fflush(stdout);
  std::exit(-99);
}

constexpr char kBeginTag[] = "begin";

}  // namespace

// Callbacks run under the lock, and a print callback may allocate from its
// own manager while a line goes out: whether the table has room is decided
// again after the line, and rows are found again by their index after any
// callback, never through a pointer kept across it.
void* memman_tracked_alloc(const char* file, int32_t line, MemManager* manager, uint64_t bytes,
                           bool zeroed) {
  MemLock lock(manager);
  // The manager's own mutex doesn't fail on a live record; a lock that can't
  // be had means the record is damaged, and handing out a block unguarded by
  // the lock would corrupt the table, so the run ends as for a damaged block.
  if (!lock.ok()) memman_fatal(manager, file, line, "Could not lock mutex");
  MemBlockTable* table = manager->table;
  if (table == nullptr) return nullptr;

  if (!has_room(table) && !grow_table(manager)) {
    report_out_of_space(manager, file, line, bytes, false);
    return nullptr;
  }
  void* raw = nullptr;
  if (bytes <= UINT64_MAX - kMemOverhead) {
    raw = zeroed ? manager->calloc_callback(manager->user_handle, bytes + kMemOverhead, 1)
                 : memman_call_malloc(manager, bytes + kMemOverhead);
  }
  if (raw == nullptr) {
    report_out_of_space(manager, file, line, bytes, false);
    return nullptr;
  }
  // The number is the block's from here on, so that the line and the block
  // agree whatever a print callback allocates in between.
  const uint64_t number = table->next_number++;
  if (memman_operations_read(manager)) {
    emit_alloc_line(manager, file, line, bytes, raw, number);
    if (!has_room(table) && !grow_table(manager)) {
      memman_call_free(manager, raw);
      report_out_of_space(manager, file, line, bytes, false);
      return nullptr;
    }
  }

  uint64_t row;
  if (table->free_head == table->capacity) {
    row = table->used++;
  } else {
    row = table->free_head;
    table->free_head = table->free_next[row];
  }
  MemBlockEntry& entry = table->entries[row];
  entry.in_use = 1;
  entry.block_number = number;
  entry.size = bytes;
  entry.raw = raw;
  entry.begin_seed = kGuardSeed;
  entry.end_seed = kGuardSeed;
  dress_block(bytes_of(raw), bytes, row);

  manager->current_usage += bytes;
  if (manager->current_usage > manager->peak_usage) manager->peak_usage = manager->current_usage;
  return bytes_of(raw) + kMemHeader;
}

void memman_tracked_free(const char* file, int32_t line, MemManager* manager, void* pointer) {
  MemLock lock(manager);
  if (!lock.ok()) std::exit(-1);
  MemBlockTable* table = manager->table;
  if (pointer == nullptr || table == nullptr) return;

  unsigned char* raw = bytes_of(pointer) - kMemHeader;
  const uint64_t row = live_row(manager, raw);
  if (row == kNoRow) {
    char text[1024];
    sysstr_format(sizeof text, text, "Invalid block %p to deallocate.\n", static_cast<void*>(raw));
    memman_fatal(manager, file, line, text);
  }
  check_block(manager, file, line, table->entries[row]);

  manager->current_usage -= table->entries[row].size;
  if (memman_operations_read(manager)) emit_free_line(manager, file, line, table->entries[row]);
  memman_call_free(manager, raw);

  MemBlockEntry& entry = table->entries[row];
  entry.in_use = 0;
  entry.raw = nullptr;
  table->free_next[row] = table->free_head;
  table->free_head = row;
}

void* memman_tracked_realloc(const char* file, int32_t line, MemManager* manager, void* pointer,
                             uint64_t size) {
  MemLock lock(manager);
  if (!lock.ok()) memman_fatal(manager, file, line, "Could not lock mutex");
  MemBlockTable* table = manager->table;

  unsigned char* raw = bytes_of(pointer) - kMemHeader;
  const uint64_t row = live_row(manager, raw);
  if (row == kNoRow) {
    // Formatted into 256 bytes like the other lines of a reallocation.
    char text[256];
    sysstr_format(sizeof text, text, "Block at adr. %p is not allocated.\n",
                  static_cast<void*>(raw));
    memman_fatal(manager, file, line, text);
  }
  check_block(manager, file, line, table->entries[row]);

  void* moved = nullptr;
  if (size <= UINT64_MAX - kMemOverhead) {
    moved = manager->realloc_callback(manager->user_handle, raw, size + kMemOverhead);
  }
  if (moved == nullptr) {
    report_out_of_space(manager, file, line, size, true);
    return nullptr;
  }
  const uint64_t old_size = table->entries[row].size;
  if (memman_operations_read(manager)) {
    emit_realloc_line(manager, file, line, table->entries[row].block_number, moved, size);
  }

  // Only allocations raise the peak: growth by reallocation doesn't show in it.
  manager->current_usage = manager->current_usage - old_size + size;
  MemBlockEntry& entry = table->entries[row];
  entry.size = size;
  entry.raw = moved;
  entry.begin_seed = kGuardSeed;
  entry.end_seed = kGuardSeed;
  dress_block(bytes_of(moved), size, row);
  return bytes_of(moved) + kMemHeader;
}

extern "C" int32_t memman_scan(const char* file, int32_t line, MemManager* manager,
                               int32_t threshold) {
  if (manager == nullptr) untrusted_manager(file, line, "memman=NULL");
  if (manager->tracking == 0) return 0;
  MemLock lock(manager);
  if (!lock.ok()) return 0;
  const MemBlockTable* table = manager->table;
  if (table == nullptr) return 0;
  if (std::memcmp(manager->begin_tag, kBeginTag, sizeof kBeginTag) != 0) {
    char text[64];
    sysstr_format(sizeof text, text, "begin guard of mman: %p", static_cast<void*>(manager));
    untrusted_manager(file, line, text);
  }

  char text[1024];
  sysstr_format(sizeof text, text, "Scanning memory at '%s'(%d)\n", file_text(file), line);
  memman_emit(manager, text, threshold);

  uint64_t blocks = 0;
  uint64_t total = 0;
  for (uint64_t row = 0; row < table->used; ++row) {
    const MemBlockEntry& entry = table->entries[row];
    if (entry.in_use == 0) continue;
    ++blocks;
    total += entry.size;
    check_block(manager, file, line, entry);
  }

  char count_text[128];
  char total_text[128];
  char peak_text[128];
  memman_format_size(0, sizeof count_text, count_text, blocks);
  memman_format_size(1, sizeof total_text, total_text, total);
  memman_format_size(1, sizeof peak_text, peak_text, manager->peak_usage);
  sysstr_format(sizeof text, text,
                "Space usage. Number of blocks: %s  Current usage: %s Maximum usage: %s\n",
                count_text, total_text, peak_text);
  memman_emit(manager, text, threshold);
  return 0;
}
