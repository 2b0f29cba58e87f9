// The lock on POSIX, built to behave as a Windows critical section with a
// spin count of 4000: recursive for the thread that holds it, and spinning a
// while on a contended lock before it sleeps. The word `state` is 0 when
// free, 1 when held, 2 when held with sleepers; sleeping and waking go
// through C++20 atomic wait and notify (a futex on Linux). An uncontended
// lock and unlock is one atomic operation each.
#include <atomic>
#include <cstdint>
#include <new>

#include "sysmutex.h"

namespace {

constexpr int kSpinCount = 4000;

struct RecursiveLock {
  std::atomic<uint32_t> state{0};
  uint32_t depth = 0;  // written only by the owner
  std::atomic<const void*> owner{nullptr};
};

static_assert(sizeof(RecursiveLock) <= sizeof(sysmutex), "sysmutex too small for the lock");
static_assert(alignof(RecursiveLock) <= alignof(sysmutex), "sysmutex alignment too small");

// A thread's identity: the address of a thread-local byte, distinct for
// every live thread.
thread_local char t_identity;

RecursiveLock* native(sysmutex* mutex) {
  return std::launder(reinterpret_cast<RecursiveLock*>(mutex->opaque));
}

void acquire(RecursiveLock* lock) {
  uint32_t seen = 0;
  if (lock->state.compare_exchange_strong(seen, 1, std::memory_order_acquire)) return;
  for (int i = 0; i < kSpinCount; ++i) {
    if (lock->state.load(std::memory_order_relaxed) == 0) {
      seen = 0;
      if (lock->state.compare_exchange_weak(seen, 1, std::memory_order_acquire)) return;
    }
  }
  // Sleep, marking the lock as having sleepers so that its release wakes one.
  seen = lock->state.exchange(2, std::memory_order_acquire);
  while (seen != 0) {
    lock->state.wait(2, std::memory_order_relaxed);
    seen = lock->state.exchange(2, std::memory_order_acquire);
  }
}

}  // namespace

extern "C" {

int32_t sysmutex_create(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  new (mutex->opaque) RecursiveLock;
  return 0;
}

int32_t sysmutex_lock(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  RecursiveLock* lock = native(mutex);
  const void* self = &t_identity;
  if (lock->owner.load(std::memory_order_relaxed) == self) {
    ++lock->depth;
    return 0;
  }
  acquire(lock);
  lock->owner.store(self, std::memory_order_relaxed);
  lock->depth = 1;
  return 0;
}

int32_t sysmutex_unlock(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  RecursiveLock* lock = native(mutex);
  // Only the owner may let go.
  if (lock->owner.load(std::memory_order_relaxed) != &t_identity) return 1;
  if (--lock->depth > 0) return 0;
  lock->owner.store(nullptr, std::memory_order_relaxed);
  if (lock->state.exchange(0, std::memory_order_release) == 2) lock->state.notify_one();
  return 0;
}

int32_t sysmutex_destroy(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  native(mutex)->~RecursiveLock();
  return 0;
}

}  // extern "C"
