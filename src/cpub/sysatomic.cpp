// Atomic counters. One implementation serves both platforms: std::atomic_ref
// gives sequentially consistent read-modify-writes on plain 32-bit slots,
// which compile to the locked instructions of x86-64 everywhere.
#include "sysatomic.h"

#include <atomic>
#include <cstdint>

namespace {

std::atomic_ref<int32_t> slot(SysAtomic* atomic, int32_t index) {
  return std::atomic_ref<int32_t>(atomic->counters[index]);
}

}  // namespace

extern "C" {

SysAtomic* sysatomic_create(SysEnv* env, int32_t count) {
  auto* atomic = static_cast<SysAtomic*>(SYSENV_CALLOC(env, 1, sizeof(SysAtomic)));
  if (atomic == nullptr) return nullptr;
  atomic->env = env;
  // One slot more than asked, so that a count of 0 still owns a valid block.
  const uint64_t slots = static_cast<uint64_t>(count < 0 ? 0 : count) + 1;
  void* storage = SYSENV_ALLOC(env, slots, sizeof(int32_t));
  if (storage == nullptr) {
    SYSENV_FREE(env, atomic);
    return nullptr;
  }
  // Atomic operations on a slot need its natural alignment.
  SYSENV_CHECK(env, reinterpret_cast<uintptr_t>(storage) % alignof(int32_t) == 0);
  atomic->storage = storage;
  atomic->count = count;
  atomic->counters = static_cast<int32_t*>(storage);
  for (int32_t i = 0; i < count; ++i) atomic->counters[i] = 0;
  return atomic;
}

void sysatomic_destroy(SysAtomic** atomic) {
  if (atomic == nullptr || *atomic == nullptr) return;
  SysAtomic* record = *atomic;
  SysEnv* env = record->env;
  SYSENV_FREE(env, record->storage);
  SYSENV_FREE(env, record);
  *atomic = nullptr;
}

int32_t sysatomic_increment(SysAtomic* atomic, int32_t index) {
  // Wrapping, as the processor's add does; the atomic form has no overflow UB.
  return static_cast<int32_t>(
      static_cast<uint32_t>(slot(atomic, index).fetch_add(1, std::memory_order_seq_cst)) + 1u);
}

int32_t sysatomic_decrement(SysAtomic* atomic, int32_t index) {
  return static_cast<int32_t>(
      static_cast<uint32_t>(slot(atomic, index).fetch_sub(1, std::memory_order_seq_cst)) - 1u);
}

int32_t sysatomic_read(SysAtomic* atomic, int32_t index) {
  // A compare-exchange of 0 with 0: a read-modify-write, so a full barrier,
  // and it leaves any value but 0 alone (and 0 stays 0).
  int32_t seen = 0;
  slot(atomic, index).compare_exchange_strong(seen, 0, std::memory_order_seq_cst);
  return seen;
}

int32_t sysatomic_compare_exchange(SysAtomic* atomic, int32_t index, int32_t expected,
                                   int32_t desired) {
  int32_t seen = expected;
  slot(atomic, index).compare_exchange_strong(seen, desired, std::memory_order_seq_cst);
  return seen;
}

void sysatomic_set_range(SysAtomic* atomic, int32_t first, int32_t end, const int32_t* values) {
  for (int32_t i = first; i < end; ++i) atomic->counters[i] = values[i];
}

}  // extern "C"
