// The POSIX lock's record and its uncontended paths, inline so that the
// layer's own hot paths (the tracked memory manager) take and release it
// without a call. How the lock works is told in sysmutex_posix.cpp.
#ifndef HOSTKIT_SYSMUTEX_INLINE_H
#define HOSTKIT_SYSMUTEX_INLINE_H

#include <atomic>
#include <cstdint>
#include <new>

#include "sysmutex.h"

namespace sysmutex_detail {

// The bias's phases. Only `kRevoked` lets a thread other than the bias
// thread take the shared word: it is set after the barrier, once the bias
// thread was seen not holding.
inline constexpr uint32_t kBiased = 0;
inline constexpr uint32_t kRevoking = 1;
inline constexpr uint32_t kRevoked = 2;

struct RecursiveLock {
  std::atomic<uint32_t> state{0};  // the shared word: 0 free, 1 held
  std::atomic<uint32_t> sleepers{0};
  std::atomic<const void*> owner{nullptr};  // holder through the shared word
  uint32_t depth = 0;                       // written only by that holder
  std::atomic<uint32_t> phase{kBiased};
  std::atomic<const void*> bias{nullptr};  // the bias thread, once one took the lock
  // The bias thread's flag: its depth of holding through the bias, written
  // only by that thread.
  std::atomic<uint32_t> bias_depth{0};
};

static_assert(sizeof(RecursiveLock) <= sizeof(sysmutex), "sysmutex too small for the lock");
static_assert(alignof(RecursiveLock) <= alignof(sysmutex), "sysmutex alignment too small");

// A thread's identity: the address of a thread-local byte, distinct for
// every live thread.
extern constinit thread_local char t_identity;

inline RecursiveLock* native(sysmutex* mutex) {
  return std::launder(reinterpret_cast<RecursiveLock*>(mutex->opaque));
}

// Keeps the compiler from moving a read above the store before it; the
// processor's own reordering is what the other side's barrier covers.
inline void keep_order() { std::atomic_signal_fence(std::memory_order_seq_cst); }

// The bias thread's first hold: the flag is raised, and then the phase
// read; if the bias is being revoked, the flag comes down again.
inline bool take_biased(RecursiveLock* lock) {
  lock->bias_depth.store(1, std::memory_order_relaxed);
  keep_order();
  if (lock->phase.load(std::memory_order_acquire) == kBiased) return true;
  lock->bias_depth.store(0, std::memory_order_release);
  return false;
}

// Whether new locks use the process-wide barrier (and so start biased).
// use_barrier(false) makes later locks unbiased and every release an atomic
// exchange, as on a kernel without the barrier; use_barrier(true) takes back
// the barrier if the kernel has it. Returns the setting it replaced. For
// tests, switched while no thread is in a lock.
bool barrier_in_use();
bool use_barrier(bool wanted);

// The ways in and out for a thread that is not the bias thread, or when the
// bias is gone.
void take_unbiased(RecursiveLock* lock, const void* self);
int32_t release_unbiased(RecursiveLock* lock, const void* self);

}  // namespace sysmutex_detail

// sysmutex_lock and sysmutex_unlock for a mutex known not to be null.
inline int32_t sysmutex_enter(sysmutex* mutex) {
  using namespace sysmutex_detail;
  RecursiveLock* lock = native(mutex);
  const void* self = &t_identity;
  if (lock->bias.load(std::memory_order_relaxed) == self) {
    const uint32_t depth = lock->bias_depth.load(std::memory_order_relaxed);
    if (depth != 0) {
      lock->bias_depth.store(depth + 1, std::memory_order_relaxed);
      return 0;
    }
    if (take_biased(lock)) return 0;
  }
  take_unbiased(lock, self);
  return 0;
}

inline int32_t sysmutex_leave(sysmutex* mutex) {
  using namespace sysmutex_detail;
  RecursiveLock* lock = native(mutex);
  const void* self = &t_identity;
  if (lock->bias.load(std::memory_order_relaxed) == self) {
    const uint32_t depth = lock->bias_depth.load(std::memory_order_relaxed);
    if (depth != 0) {
      lock->bias_depth.store(depth - 1, std::memory_order_release);
      return 0;
    }
  }
  return release_unbiased(lock, self);
}

#endif
