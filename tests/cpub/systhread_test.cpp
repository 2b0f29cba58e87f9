// Atomic counters, the lock, conditions as auto-reset events, threads and
// sleep, on the platform's real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "cpub.h"
#include "test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t elapsed_ms(Clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

int64_t seconds_from_now(int64_t seconds) { return static_cast<int64_t>(std::time(nullptr)) + seconds; }

// Runs `body` on `n` threads at once and waits for them.
template <typename Body>
void on_threads(int n, Body body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < n; ++t) threads.emplace_back(body);
  for (std::thread& t : threads) t.join();
}

TEST(SysAtomic, OperationsAndFourThreadsLosingNoStep) {
  hostkit_test::CountingAllocator user;
  SysEnv* env = user.create_env();
  void* used = SYSENV_ALLOC(env, 4, 4);  // the counters' block comes back dirty
  std::memset(used, 0x5A, 16);
  SYSENV_FREE(env, used);
  SysAtomic* atomic = sysatomic_create(env, 3);
  EXPECT_EQ(sysatomic_read(atomic, 0) + sysatomic_read(atomic, 2), 0);  // all start at 0
  EXPECT_EQ(sysatomic_read(atomic, 0), 0);  // and a read changes nothing
  EXPECT_EQ(sysatomic_decrement(atomic, 0), -1);
  EXPECT_EQ(sysatomic_compare_exchange(atomic, 0, 7, 100), -1);  // wrong expected: left alone
  EXPECT_EQ(sysatomic_compare_exchange(atomic, 0, -1, INT32_MAX), -1);
  EXPECT_EQ(sysatomic_increment(atomic, 0), INT32_MIN);  // wraps as the processor's add does
  const int32_t values[3] = {10, 11, 12};
  sysatomic_set_range(atomic, 1, 2, values);  // by slot number, the end left out
  on_threads(4, [atomic] {
    for (int i = 0; i < 250000; ++i) sysatomic_increment(atomic, 2);
  });
  EXPECT_EQ(sysatomic_read(atomic, 2), 1000000);
  EXPECT_EQ(sysatomic_read(atomic, 1), 11);
  sysatomic_destroy(&atomic);
  EXPECT_EQ(atomic, nullptr);
  sysatomic_destroy(&atomic);
  atomic = sysatomic_create(env, 0);  // a count of 0 still owns a slot
  EXPECT_NE(atomic, nullptr);
  sysatomic_destroy(&atomic);
  for (int extra = 1; extra <= 2; ++extra) {  // each failing allocation gives null
    user.fail_at = user.allocating_calls + extra;
    EXPECT_EQ(sysatomic_create(env, 4), nullptr) << extra;
  }
  EXPECT_EQ(sysenv_destroy(&env), 0);
  EXPECT_EQ(user.live, 0);
}

// Null arguments; past deadlines, the farthest too, end at once with the
// mutex held again, which keeps another thread out; a signal given while
// nobody waits is lost, since the wait resets the event first. (The lock's
// recursion and exclusion under load are the memory manager's thread and
// callback tests: its table lives under this lock.)
TEST(SysCond, NullArgumentsDeadlinesAndLostSignals) {
  EXPECT_EQ(sysmutex_create(nullptr), 1);
  EXPECT_EQ(sysmutex_lock(nullptr), 1);
  EXPECT_EQ(sysmutex_unlock(nullptr), 1);
  EXPECT_EQ(sysmutex_destroy(nullptr), 1);
  syscond none{nullptr}, cond;
  EXPECT_EQ(syscond_create(nullptr), 1);
  EXPECT_EQ(syscond_signal(nullptr), 1);
  EXPECT_EQ(syscond_signal(&none), 1);
  EXPECT_EQ(syscond_destroy(&none), 1);
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  ASSERT_EQ(syscond_create(&cond), 0);
  const int64_t zero = 0;
  EXPECT_EQ(syscond_wait(&none, &mutex), 6);
  EXPECT_EQ(syscond_wait(&cond, nullptr), 6);
  EXPECT_EQ(syscond_timedwait(&none, &mutex, &zero), 6);
  EXPECT_EQ(syscond_timedwait(&cond, nullptr, &zero), 6);
  EXPECT_EQ(syscond_timedwait(&cond, &mutex, nullptr), 6);
  sysmutex_lock(&mutex);
  const Clock::time_point start = Clock::now();
  for (int64_t past : {seconds_from_now(-5), int64_t{0}, INT64_MIN}) {
    EXPECT_EQ(syscond_timedwait(&cond, &mutex, &past), 138) << past;
  }
  EXPECT_LT(elapsed_ms(start), 1000);
  std::atomic<int> taken{0};
  std::thread other([&] {
    sysmutex_lock(&mutex);
    taken = 1;
    sysmutex_unlock(&mutex);
  });
  syssleep(100);
  EXPECT_EQ(taken.load(), 0);
  sysmutex_unlock(&mutex);
  other.join();
  syscond_signal(&cond);
  sysmutex_lock(&mutex);
  const int64_t soon = seconds_from_now(2);  // 1 to 2 s away
  const Clock::time_point again = Clock::now();
  EXPECT_EQ(syscond_timedwait(&cond, &mutex, &soon), 138);
  EXPECT_GE(elapsed_ms(again), 900);
  sysmutex_unlock(&mutex);
  EXPECT_EQ(syscond_destroy(&cond), 0);
  EXPECT_EQ(syscond_destroy(&cond), 1);  // the event is gone
  sysmutex_destroy(&mutex);
}

// Two players hand a turn back and forth: each, holding the lock, sleeps so
// that the other is surely blocked in its wait, signals it and waits in turn.
// Every signal meets a blocked waiter, which must wake although the signaller
// resets the event on its own way into the wait; a lost signal stalls the
// hand-off until the wait's deadline. The rules leave one window open, between
// a wait's reset and its blocking: a player held off the processor there for
// longer than the other's sleep misses the signal meant for it, so a loaded
// machine may see a stall or two in 600 turns. A faulty event stalls in every
// turn. Then two waiters announce themselves and wait: one signal wakes one.
TEST(SysCond, ASignalWakesOneWaiterAlreadyBlocked) {
  sysmutex mutex;
  syscond cond;
  sysmutex_create(&mutex);
  syscond_create(&cond);
  int turns = 0, stalls = 0;
  on_threads(2, [&] {
    sysmutex_lock(&mutex);
    for (int i = 0; i < 300 && stalls <= 2; ++i) {
      syssleep(2);
      syscond_signal(&cond);
      const int64_t deadline = seconds_from_now(2);
      stalls += syscond_timedwait(&cond, &mutex, &deadline) != 0;
      ++turns;
    }
    syscond_signal(&cond);  // the other player's last wait
    sysmutex_unlock(&mutex);
  });
  EXPECT_LE(stalls, 2);
  EXPECT_EQ(turns, 600);

  int waiting = 0, woken = 0;
  auto seen = [&](const int& value) {
    sysmutex_lock(&mutex);
    const int v = value;
    sysmutex_unlock(&mutex);
    return v;
  };
  std::thread waiters([&] {
    on_threads(2, [&] {
      sysmutex_lock(&mutex);
      ++waiting;
      EXPECT_EQ(syscond_wait(&cond, &mutex), 0);
      ++woken;
      EXPECT_EQ(sysmutex_unlock(&mutex), 0);  // the wait took the mutex again
    });
  });
  while (seen(waiting) < 2) syssleep(1);
  syscond_signal(&cond);
  while (seen(woken) < 1) syssleep(1);
  syssleep(200);
  EXPECT_EQ(seen(woken), 1);
  syscond_signal(&cond);
  waiters.join();
  syscond_destroy(&cond);
  sysmutex_destroy(&mutex);
}

void* sleep_then_return(void* argument) {
  syssleep(150);
  return argument;
}

// Join waits for the start routine, hands back its result and leaves the
// record as never started; a record that never started joins at once.
TEST(SysThread, CreateAndJoin) {
  SysThread thread;
  int marker = 0;
  const Clock::time_point start = Clock::now();
  ASSERT_EQ(systhread_create(&thread, nullptr, sleep_then_return, &marker), 0);
  void* result = nullptr;
  EXPECT_EQ(systhread_join(&thread, &result), 0);
  EXPECT_EQ(result, &marker);
  EXPECT_GE(elapsed_ms(start), 140);  // syssleep(150) and the Windows tick's rounding
  EXPECT_EQ(thread.handle, nullptr);
  result = &thread;
  EXPECT_EQ(systhread_join(&thread, &result), 0);
  EXPECT_EQ(result, &thread);  // nothing to hand back
  EXPECT_EQ(systhread_create(&thread, nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(systhread_join(&thread, nullptr), 0);
  EXPECT_EQ(systhread_create(nullptr, nullptr, sleep_then_return, nullptr), 1);
  EXPECT_EQ(systhread_join(nullptr, nullptr), 1);
}

}  // namespace
