// Atomic counters, conditions as auto-reset events, threads and sleep, run on
// the platform's real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>

#include "cpub.h"
#include "test_support.h"

namespace {

using hostkit_test::CountingAllocator;
using Clock = std::chrono::steady_clock;

int64_t elapsed_ms(Clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

TEST(SysAtomic, OperationsReturnWhatTheyPromise) {
  CountingAllocator user;
  SysEnv* env = user.create_env();
  ASSERT_NE(env, nullptr);
  SysAtomic* atomic = sysatomic_create(env, 5);
  ASSERT_NE(atomic, nullptr);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(sysatomic_read(atomic, i), 0) << i;
  EXPECT_EQ(sysatomic_increment(atomic, 0), 1);
  EXPECT_EQ(sysatomic_increment(atomic, 0), 2);
  EXPECT_EQ(sysatomic_decrement(atomic, 1), -1);
  // A wrong expected value leaves the slot; either way the result is what it held.
  EXPECT_EQ(sysatomic_compare_exchange(atomic, 0, 7, 100), 2);
  EXPECT_EQ(sysatomic_read(atomic, 0), 2);
  EXPECT_EQ(sysatomic_compare_exchange(atomic, 0, 2, 100), 2);
  EXPECT_EQ(sysatomic_read(atomic, 0), 100);
  // Counters wrap as the processor's add does.
  EXPECT_EQ(sysatomic_compare_exchange(atomic, 1, -1, INT32_MAX), -1);
  EXPECT_EQ(sysatomic_increment(atomic, 1), INT32_MIN);
  EXPECT_EQ(sysatomic_decrement(atomic, 1), INT32_MAX);
  // set_range takes values by slot number, `end` excluded.
  const int32_t values[5] = {10, 11, 12, 13, 14};
  sysatomic_set_range(atomic, 2, 4, values);
  const int32_t after[5] = {100, INT32_MAX, 12, 13, 0};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(sysatomic_read(atomic, i), after[i]) << i;
  sysatomic_destroy(&atomic);
  EXPECT_EQ(atomic, nullptr);
  sysatomic_destroy(&atomic);  // null content is no error
  // Each failing allocation (the record, then the slots) gives null, leaking nothing.
  for (int extra = 1; extra <= 2; ++extra) {
    user.fail_at = user.allocating_calls + extra;
    EXPECT_EQ(sysatomic_create(env, 4), nullptr) << extra;
  }
  EXPECT_EQ(sysenv_destroy(&env), 0);
  EXPECT_EQ(user.live, 0);
}

struct CounterRun {
  SysAtomic* atomic;
  std::atomic<int>* ready;
  int32_t last_seen;
};

void* count_a_million(void* argument) {
  auto* run = static_cast<CounterRun*>(argument);
  // All four start together, so that they really contend.
  run->ready->fetch_add(1);
  while (run->ready->load() < 4) {
  }
  for (int i = 0; i < 1000000; ++i) run->last_seen = sysatomic_increment(run->atomic, 1);
  return argument;
}

TEST(SysAtomic, FourThreadsIncrementingLoseNoStep) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  SysAtomic* atomic = sysatomic_create(env, 3);
  std::atomic<int> ready{0};
  CounterRun runs[4];
  SysThread threads[4];
  for (int t = 0; t < 4; ++t) {
    runs[t] = CounterRun{atomic, &ready, 0};
    ASSERT_EQ(systhread_create(&threads[t], nullptr, count_a_million, &runs[t]), 0);
  }
  int32_t highest = 0;  // each increment returns a new value: some thread saw the last
  for (int t = 0; t < 4; ++t) {
    void* result = nullptr;
    EXPECT_EQ(systhread_join(&threads[t], &result), 0);
    EXPECT_EQ(result, &runs[t]);  // join hands back what the start routine returned
    highest = runs[t].last_seen > highest ? runs[t].last_seen : highest;
  }
  EXPECT_EQ(sysatomic_read(atomic, 1), 4000000);
  EXPECT_EQ(highest, 4000000);
  EXPECT_EQ(sysatomic_read(atomic, 0) | sysatomic_read(atomic, 2), 0);  // neighbours untouched
  sysatomic_destroy(&atomic);
  sysenv_destroy(&env);
}

TEST(SysCond, NullArgumentsAreRefused) {
  EXPECT_EQ(syscond_create(nullptr), 1);
  EXPECT_EQ(syscond_signal(nullptr), 1);
  syscond none{nullptr};
  EXPECT_EQ(syscond_signal(&none), 1);
  EXPECT_EQ(syscond_destroy(&none), 1);
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  syscond cond;
  ASSERT_EQ(syscond_create(&cond), 0);
  const int64_t deadline = 0;
  EXPECT_EQ(syscond_wait(&none, &mutex), 6);
  EXPECT_EQ(syscond_wait(&cond, nullptr), 6);
  EXPECT_EQ(syscond_timedwait(&none, &mutex, &deadline), 6);
  EXPECT_EQ(syscond_timedwait(&cond, nullptr, &deadline), 6);
  EXPECT_EQ(syscond_timedwait(&cond, &mutex, nullptr), 6);
  EXPECT_EQ(syscond_destroy(&cond), 0);
  EXPECT_EQ(syscond_destroy(&cond), 1);  // the event is gone
  sysmutex_destroy(&mutex);
}

struct LockProbe {
  sysmutex* mutex;
  std::atomic<int> taken{0};
};

void* take_lock(void* argument) {
  auto* probe = static_cast<LockProbe*>(argument);
  sysmutex_lock(probe->mutex);
  probe->taken = 1;
  sysmutex_unlock(probe->mutex);
  return nullptr;
}

TEST(SysCond, TimedWaitsEndWith138AndTheMutexHeld) {
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  syscond cond;
  ASSERT_EQ(syscond_create(&cond), 0);
  sysmutex_lock(&mutex);
  // Past deadlines end at once, the farthest ones too (no overflow).
  Clock::time_point start = Clock::now();
  for (int64_t past : {static_cast<int64_t>(std::time(nullptr)) - 5, int64_t{0}, INT64_MIN}) {
    EXPECT_EQ(syscond_timedwait(&cond, &mutex, &past), 138) << past;
  }
  EXPECT_LT(elapsed_ms(start), 1000);
  // Held: another thread can't take it until we let go.
  LockProbe probe{&mutex};
  SysThread thread;
  ASSERT_EQ(systhread_create(&thread, nullptr, take_lock, &probe), 0);
  syssleep(100);
  EXPECT_EQ(probe.taken.load(), 0);
  sysmutex_unlock(&mutex);
  EXPECT_EQ(systhread_join(&thread, nullptr), 0);
  EXPECT_EQ(probe.taken.load(), 1);

  // A signal given while nobody waits is lost: the wait resets the event
  // first. The deadline is 1 to 2 s away; the wait lasts whole seconds, at least one.
  syscond_signal(&cond);
  syscond_signal(&cond);
  sysmutex_lock(&mutex);
  int64_t deadline = static_cast<int64_t>(std::time(nullptr)) + 2;
  start = Clock::now();
  EXPECT_EQ(syscond_timedwait(&cond, &mutex, &deadline), 138);
  EXPECT_GE(elapsed_ms(start), 900);
  sysmutex_unlock(&mutex);
  syscond_destroy(&cond);
  sysmutex_destroy(&mutex);
}

// Waiters announce themselves under the mutex and then wait: once the main
// thread holds the mutex and sees them all announced, each has reset the event
// and let go of the mutex inside its wait, so a signal from then on reaches one.
struct Waiters {
  sysmutex mutex;
  syscond cond;
  int announced = 0;
  int woken = 0;
  int results_sum = 0;
  bool timed = false;
};

void* wait_once(void* argument) {
  auto* w = static_cast<Waiters*>(argument);
  sysmutex_lock(&w->mutex);
  ++w->announced;
  const int64_t deadline = static_cast<int64_t>(std::time(nullptr)) + 60;
  const int32_t result = w->timed ? syscond_timedwait(&w->cond, &w->mutex, &deadline)
                                  : syscond_wait(&w->cond, &w->mutex);
  ++w->woken;  // under the mutex: the wait took it again
  w->results_sum += result;
  sysmutex_unlock(&w->mutex);
  return nullptr;
}

int wait_for(Waiters* w, const int* value, int target) {
  const Clock::time_point start = Clock::now();
  for (;;) {
    sysmutex_lock(&w->mutex);
    const int seen = *value;
    sysmutex_unlock(&w->mutex);
    if (seen >= target || elapsed_ms(start) > 10000) return seen;
    syssleep(1);
  }
}

class SysCondWaiters : public ::testing::TestWithParam<bool> {};

TEST_P(SysCondWaiters, OneSignalWakesOneWaiter) {
  Waiters w;
  w.timed = GetParam();
  ASSERT_EQ(sysmutex_create(&w.mutex), 0);
  ASSERT_EQ(syscond_create(&w.cond), 0);
  SysThread threads[2];
  for (SysThread& t : threads) ASSERT_EQ(systhread_create(&t, nullptr, wait_once, &w), 0);
  ASSERT_EQ(wait_for(&w, &w.announced, 2), 2);
  EXPECT_EQ(syscond_signal(&w.cond), 0);
  wait_for(&w, &w.woken, 1);
  syssleep(200);
  EXPECT_EQ(wait_for(&w, &w.woken, 0), 1);  // the other one still waits
  EXPECT_EQ(syscond_signal(&w.cond), 0);
  for (SysThread& t : threads) EXPECT_EQ(systhread_join(&t, nullptr), 0);
  EXPECT_EQ(w.woken, 2);
  EXPECT_EQ(w.results_sum, 0);
  syscond_destroy(&w.cond);
  sysmutex_destroy(&w.mutex);
}

INSTANTIATE_TEST_SUITE_P(PlainAndTimed, SysCondWaiters, ::testing::Bool());

// Two threads hand a turn back and forth: each, holding the lock, sleeps so
// that the other is surely blocked in its wait, signals it, and waits in
// turn. Every signal meets a blocked waiter, which must wake although the
// signaller resets the event on its own way into the wait.
struct Turns {
  sysmutex mutex;
  syscond cond;
  int players = 0;
  int rounds[2] = {0, 0};
  int32_t failure = 0;
};
constexpr int kRounds = 300;

void* take_turns(void* argument) {
  auto* t = static_cast<Turns*>(argument);
  sysmutex_lock(&t->mutex);
  const int me = t->players++;
  for (int i = 0; i < kRounds && t->failure == 0; ++i) {
    syssleep(2);
    syscond_signal(&t->cond);
    const int64_t deadline = static_cast<int64_t>(std::time(nullptr)) + 10;
    const int32_t result = syscond_timedwait(&t->cond, &t->mutex, &deadline);
    if (result != 0) t->failure = result;
    ++t->rounds[me];
  }
  syscond_signal(&t->cond);  // the other player's last wait
  sysmutex_unlock(&t->mutex);
  return nullptr;
}

TEST(SysCond, ASignalWakesTheWaiterAlreadyBlocked) {
  Turns t;
  ASSERT_EQ(sysmutex_create(&t.mutex), 0);
  ASSERT_EQ(syscond_create(&t.cond), 0);
  SysThread players[2];
  for (SysThread& p : players) ASSERT_EQ(systhread_create(&p, nullptr, take_turns, &t), 0);
  for (SysThread& p : players) EXPECT_EQ(systhread_join(&p, nullptr), 0);
  EXPECT_EQ(t.failure, 0);
  EXPECT_EQ(t.rounds[0], kRounds);
  EXPECT_EQ(t.rounds[1], kRounds);
  syscond_destroy(&t.cond);
  sysmutex_destroy(&t.mutex);
}

void* sleep_then_return(void* argument) {
  syssleep(150);
  return argument;
}

TEST(SysThread, JoinWaitsForTheStartRoutineThenActsAsNeverStarted) {
  SysThread thread;
  int marker = 0;
  const Clock::time_point start = Clock::now();
  ASSERT_EQ(systhread_create(&thread, nullptr, sleep_then_return, &marker), 0);
  void* result = nullptr;
  EXPECT_EQ(systhread_join(&thread, &result), 0);
  EXPECT_EQ(result, &marker);
  EXPECT_GE(elapsed_ms(start), 140);  // syssleep(150) and the Windows tick's rounding
  EXPECT_EQ(thread.handle, nullptr);
  EXPECT_EQ(thread.done, nullptr);
  result = nullptr;
  EXPECT_EQ(systhread_join(&thread, &result), 0);
  EXPECT_EQ(result, nullptr);  // nothing to hand back
}

TEST(SysThread, JoinOfAThreadThatNeverStartedReturnsZero) {
  SysThread never{};
  void* result = &never;
  EXPECT_EQ(systhread_join(&never, &result), 0);
  EXPECT_EQ(result, &never);  // nothing to hand back
  EXPECT_EQ(systhread_join(nullptr, nullptr), 1);
  // A record with no start routine brings no thread up and joins as never started.
  SysThread refused;
  EXPECT_EQ(systhread_create(&refused, nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(refused.handle, nullptr);
  EXPECT_EQ(systhread_join(&refused, nullptr), 0);
  EXPECT_EQ(systhread_create(nullptr, nullptr, sleep_then_return, nullptr), 1);
  const Clock::time_point start = Clock::now();
  syssleep(0);
  EXPECT_LT(elapsed_ms(start), 1000);
}

}  // namespace
