// The lock on POSIX (Linux), built to behave as a Windows critical section
// with a spin count of 4000: recursive for the thread that holds it, and
// spinning a while on a contended lock before it sleeps on a futex.
//
// Most locks here are only ever taken by one thread (a memory manager used
// by one thread, for one), and an atomic read-modify-write costs as much as
// the rest of a tracked allocation. So a lock starts out biased to the first
// thread that takes it: that thread takes and releases it with plain stores
// to a flag of its own. The first other thread that wants the lock revokes
// the bias for good, and from then on every thread goes through the shared
// lock word: one compare-and-swap to take it, a plain store to release it.
//
// Both plain-store protocols rest on the same asymmetric barrier. A thread
// storing a flag and then reading the other side's word may see a stale word
// while its store still sits in its processor's store buffer. The other side
// (the revoking thread, or a thread about to sleep on the shared word) first
// publishes its own word and then forces a full barrier on every running
// thread of the process (membarrier). After it, either the fast thread's
// store is visible to the slow side, or the fast thread's read comes after
// the barrier and sees the slow side's word. The barrier's cost falls only on
// a revocation, once in a lock's life, and on a thread that has spun 4000
// times and is about to sleep. Where the kernel offers no such barrier, locks
// are never biased and the shared release is an atomic exchange, which
// orders its store before its read by itself.
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <new>

#include "sysmutex_inline.h"

namespace {

using namespace sysmutex_detail;

constexpr int kSpinCount = 4000;

long membarrier(int command) { return syscall(SYS_membarrier, command, 0, 0); }

// Whether the process-wide barrier is registered and usable; decided once.
bool register_barrier() {
  const long offered = membarrier(MEMBARRIER_CMD_QUERY);
  return offered > 0 && (offered & MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0 &&
         membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
}

bool g_barrier = false;

void futex(std::atomic<uint32_t>* word, int operation, uint32_t value) {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), operation | FUTEX_PRIVATE_FLAG, value,
          nullptr, nullptr, 0);
}

bool try_take(RecursiveLock* lock) {
  uint32_t seen = 0;
  return lock->state.compare_exchange_strong(seen, 1, std::memory_order_acquire);
}

[[gnu::noinline]] void take_contended(RecursiveLock* lock) {
  for (int i = 0; i < kSpinCount; ++i) {
    if (lock->state.load(std::memory_order_relaxed) == 0 && try_take(lock)) return;
    __builtin_ia32_pause();
  }
  for (;;) {
    lock->sleepers.fetch_add(1, std::memory_order_seq_cst);
    if (g_barrier) membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
    if (try_take(lock)) {
      lock->sleepers.fetch_sub(1, std::memory_order_relaxed);
      return;
    }
    futex(&lock->state, FUTEX_WAIT, 1);
    lock->sleepers.fetch_sub(1, std::memory_order_relaxed);
    if (try_take(lock)) return;
  }
}

void take_shared(RecursiveLock* lock) {
  if (!try_take(lock)) take_contended(lock);
}

void release_shared(RecursiveLock* lock) {
  if (g_barrier) {
    lock->state.store(0, std::memory_order_release);
    keep_order();
  } else {
    lock->state.exchange(0, std::memory_order_seq_cst);
  }
  if (lock->sleepers.load(std::memory_order_relaxed) != 0) futex(&lock->state, FUTEX_WAKE, 1);
}

// Ends the bias for good: after the barrier the bias thread sees the phase
// and stays off its flag, and once its flag reads clear it holds nothing.
// The wait lasts as long as the bias thread's current hold, once per lock.
[[gnu::noinline]] void revoke(RecursiveLock* lock) {
  uint32_t biased = kBiased;
  lock->phase.compare_exchange_strong(biased, kRevoking, std::memory_order_seq_cst);
  membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
  for (int round = 0; lock->bias_depth.load(std::memory_order_acquire) != 0; ++round) {
    if (round < kSpinCount) {
      __builtin_ia32_pause();
    } else if (round < 2 * kSpinCount) {
      sched_yield();
    } else {
      const timespec pause{0, 50'000};
      nanosleep(&pause, nullptr);
    }
  }
  lock->phase.store(kRevoked, std::memory_order_release);
}

}  // namespace

constinit thread_local char sysmutex_detail::t_identity = 0;

void sysmutex_detail::take_unbiased(RecursiveLock* lock, const void* self) {
  if (lock->owner.load(std::memory_order_relaxed) == self) {
    ++lock->depth;
    return;
  }
  const uint32_t phase = lock->phase.load(std::memory_order_acquire);
  if (phase == kBiased) {
    // The first thread to come claims the bias; any other ends it.
    const void* bias = nullptr;
    if (lock->bias.compare_exchange_strong(bias, self, std::memory_order_relaxed) &&
        take_biased(lock)) {
      return;
    }
    if (bias != nullptr) revoke(lock);
  } else if (phase == kRevoking && lock->bias.load(std::memory_order_relaxed) != self) {
    // Some thread is revoking; the bias thread may still hold.
    revoke(lock);
  }
  take_shared(lock);
  lock->owner.store(self, std::memory_order_relaxed);
  lock->depth = 1;
}

int32_t sysmutex_detail::release_unbiased(RecursiveLock* lock, const void* self) {
  // Only the owner may let go.
  if (lock->owner.load(std::memory_order_relaxed) != self) return 1;
  if (--lock->depth > 0) return 0;
  lock->owner.store(nullptr, std::memory_order_relaxed);
  release_shared(lock);
  return 0;
}

namespace {

// The kernel's barrier, registered at the first lock made or asked about.
bool kernel_barrier() {
  static const bool registered = register_barrier();
  return registered;
}

std::atomic<bool> g_barrier_wanted{true};

}  // namespace

bool sysmutex_detail::barrier_in_use() { return g_barrier_wanted.load() && kernel_barrier(); }

bool sysmutex_detail::use_barrier(bool wanted) {
  const bool was = g_barrier_wanted.exchange(wanted) && kernel_barrier();
  // For tests of the lock without the barrier; switched while no thread is
  // in a lock, since a release and a sleeper must agree on it. Biased locks
  // made before stay correct: their revocation uses the registered barrier.
  g_barrier = wanted && kernel_barrier();
  return was;
}

extern "C" {

int32_t sysmutex_create(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  const bool barrier = g_barrier_wanted.load() && kernel_barrier();
  g_barrier = barrier;
  RecursiveLock* lock = new (mutex->opaque) RecursiveLock;
  if (!barrier) lock->phase.store(kRevoked, std::memory_order_relaxed);
  return 0;
}

int32_t sysmutex_lock(sysmutex* mutex) { return mutex != nullptr ? sysmutex_enter(mutex) : 1; }

int32_t sysmutex_unlock(sysmutex* mutex) { return mutex != nullptr ? sysmutex_leave(mutex) : 1; }

int32_t sysmutex_destroy(sysmutex* mutex) {
  if (mutex == nullptr) return 1;
  native(mutex)->~RecursiveLock();
  return 0;
}

}  // extern "C"
