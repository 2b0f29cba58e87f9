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

// ---- Atomics -----------------------------------------------------------------

class SysAtomicTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = user_.create_env();
    ASSERT_NE(env_, nullptr);
  }
  void TearDown() override {
    EXPECT_EQ(sysenv_destroy(&env_), 0);
    EXPECT_EQ(user_.live, 0);
  }
  CountingAllocator user_;
  SysEnv* env_ = nullptr;
};

TEST_F(SysAtomicTest, CreateGivesZeroedSlotsAndOneSpare) {
  const int callocs = user_.calloc_calls;
  SysAtomic* atomic = sysatomic_create(env_, 3);
  ASSERT_NE(atomic, nullptr);
  EXPECT_EQ(user_.calloc_calls, callocs + 1);  // the record, zero-filled
  EXPECT_EQ(atomic->env, env_);
  EXPECT_EQ(atomic->count, 3);
  EXPECT_EQ(static_cast<void*>(atomic->counters), atomic->storage);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(sysatomic_read(atomic, i), 0);
  sysatomic_destroy(&atomic);
  EXPECT_EQ(atomic, nullptr);
  sysatomic_destroy(&atomic);  // null content is no error

  SysAtomic* none = sysatomic_create(env_, 0);  // one slot all the same
  ASSERT_NE(none, nullptr);
  EXPECT_NE(none->storage, nullptr);
  sysatomic_destroy(&none);
}

TEST(SysAtomic, EachFailingAllocationGivesNullAndLeaksNothing) {
  for (int extra = 1; extra <= 2; ++extra) {
    CountingAllocator user;
    SysEnv* env = user.create_env();
    ASSERT_NE(env, nullptr);
    user.fail_at = user.allocating_calls + extra;  // the record, then the slots
    EXPECT_EQ(sysatomic_create(env, 4), nullptr) << extra;
    EXPECT_EQ(sysenv_destroy(&env), 0);
    EXPECT_EQ(user.live, 0);
  }
}

TEST_F(SysAtomicTest, OperationsReturnWhatTheyPromise) {
  SysAtomic* atomic = sysatomic_create(env_, 2);
  EXPECT_EQ(sysatomic_increment(atomic, 0), 1);
  EXPECT_EQ(sysatomic_increment(atomic, 0), 2);
  EXPECT_EQ(sysatomic_decrement(atomic, 1), -1);
  EXPECT_EQ(sysatomic_read(atomic, 0), 2);
  EXPECT_EQ(sysatomic_read(atomic, 1), -1);
  // A wrong expected value leaves the slot and returns what it holds.
  EXPECT_EQ(sysatomic_compare_exchange(atomic, 0, 7, 100), 2);
  EXPECT_EQ(sysatomic_read(atomic, 0), 2);
  // The right one stores; the result equals `expected`.
  EXPECT_EQ(sysatomic_compare_exchange(atomic, 0, 2, 100), 2);
  EXPECT_EQ(sysatomic_read(atomic, 0), 100);
  // Counters wrap as the processor's add does.
  EXPECT_EQ(sysatomic_compare_exchange(atomic, 1, -1, INT32_MAX), -1);
  EXPECT_EQ(sysatomic_increment(atomic, 1), INT32_MIN);
  EXPECT_EQ(sysatomic_decrement(atomic, 1), INT32_MAX);
  sysatomic_destroy(&atomic);
}

TEST_F(SysAtomicTest, SetRangeIndexesValuesBySlot) {
  SysAtomic* atomic = sysatomic_create(env_, 5);
  const int32_t values[5] = {10, 11, 12, 13, 14};
  sysatomic_set_range(atomic, 1, 4, values);
  EXPECT_EQ(sysatomic_read(atomic, 0), 0);
  EXPECT_EQ(sysatomic_read(atomic, 1), 11);
  EXPECT_EQ(sysatomic_read(atomic, 3), 13);
  EXPECT_EQ(sysatomic_read(atomic, 4), 0);  // `end` isn't included
  sysatomic_destroy(&atomic);
}

struct CounterRun {
  SysAtomic* atomic;
  int32_t last_seen;
};

void* count_a_million(void* argument) {
  auto* run = static_cast<CounterRun*>(argument);
  for (int i = 0; i < 1000000; ++i) run->last_seen = sysatomic_increment(run->atomic, 1);
  return argument;
}

TEST_F(SysAtomicTest, FourThreadsIncrementingLoseNoStep) {
  SysAtomic* atomic = sysatomic_create(env_, 3);
  CounterRun runs[4];
  SysThread threads[4];
  for (int t = 0; t < 4; ++t) {
    runs[t] = CounterRun{atomic, 0};
    ASSERT_EQ(systhread_create(&threads[t], nullptr, count_a_million, &runs[t]), 0);
  }
  for (int t = 0; t < 4; ++t) {
    void* result = nullptr;
    EXPECT_EQ(systhread_join(&threads[t], &result), 0);
    EXPECT_EQ(result, &runs[t]);
  }
  EXPECT_EQ(sysatomic_read(atomic, 1), 4000000);
  // Each increment returns a new value: the last one of some thread is the end.
  int32_t highest = 0;
  for (const CounterRun& run : runs) highest = run.last_seen > highest ? run.last_seen : highest;
  EXPECT_EQ(highest, 4000000);
  EXPECT_EQ(sysatomic_read(atomic, 0), 0);  // neighbours untouched
  EXPECT_EQ(sysatomic_read(atomic, 2), 0);
  sysatomic_destroy(&atomic);
}

// ---- Conditions --------------------------------------------------------------

TEST(SysCond, NullArgumentsAreRefused) {
  EXPECT_EQ(syscond_create(nullptr), 1);
  EXPECT_EQ(syscond_signal(nullptr), 1);
  EXPECT_EQ(syscond_destroy(nullptr), 1);
  syscond none{nullptr};
  EXPECT_EQ(syscond_signal(&none), 1);
  EXPECT_EQ(syscond_destroy(&none), 1);
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  const int64_t deadline = 0;
  EXPECT_EQ(syscond_wait(nullptr, &mutex), 6);
  EXPECT_EQ(syscond_wait(&none, &mutex), 6);
  EXPECT_EQ(syscond_timedwait(&none, &mutex, &deadline), 6);
  syscond cond;
  ASSERT_EQ(syscond_create(&cond), 0);
  EXPECT_EQ(syscond_wait(&cond, nullptr), 6);
  EXPECT_EQ(syscond_timedwait(&cond, nullptr, &deadline), 6);
  EXPECT_EQ(syscond_timedwait(&cond, &mutex, nullptr), 6);
  EXPECT_EQ(syscond_destroy(&cond), 0);
  EXPECT_EQ(syscond_destroy(&cond), 1);  // the event is gone
  sysmutex_destroy(&mutex);
}

// A thread that takes the lock and reports when it has it.
struct LockProbe {
  sysmutex* mutex;
  SysAtomic* flag;
};

void* take_lock(void* argument) {
  auto* probe = static_cast<LockProbe*>(argument);
  sysmutex_lock(probe->mutex);
  sysatomic_increment(probe->flag, 0);
  sysmutex_unlock(probe->mutex);
  return nullptr;
}

TEST(SysCond, PastDeadlineTimesOutAtOnceWithTheMutexHeld) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  SysAtomic* flag = sysatomic_create(env, 1);
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  syscond cond;
  ASSERT_EQ(syscond_create(&cond), 0);

  sysmutex_lock(&mutex);
  const int64_t deadline = static_cast<int64_t>(std::time(nullptr)) - 5;
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(syscond_timedwait(&cond, &mutex, &deadline), 138);
  EXPECT_LT(elapsed_ms(start), 1000);

  // Held: another thread can't take it until we let go.
  LockProbe probe{&mutex, flag};
  SysThread thread;
  ASSERT_EQ(systhread_create(&thread, nullptr, take_lock, &probe), 0);
  syssleep(100);
  EXPECT_EQ(sysatomic_read(flag, 0), 0);
  sysmutex_unlock(&mutex);
  EXPECT_EQ(systhread_join(&thread, nullptr), 0);
  EXPECT_EQ(sysatomic_read(flag, 0), 1);

  syscond_destroy(&cond);
  sysmutex_destroy(&mutex);
  sysatomic_destroy(&flag);
  sysenv_destroy(&env);
}

TEST(SysCond, ASignalGivenWhileNobodyWaitsIsLost) {
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  syscond cond;
  ASSERT_EQ(syscond_create(&cond), 0);
  syscond_signal(&cond);
  syscond_signal(&cond);
  sysmutex_lock(&mutex);
  // The wait resets the event first, so the two signals above don't count.
  // The deadline is 1 to 2 seconds away, depending on where in the second
  // we stand; the wait lasts a whole number of seconds, at least one.
  const int64_t deadline = static_cast<int64_t>(std::time(nullptr)) + 2;
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(syscond_timedwait(&cond, &mutex, &deadline), 138);
  EXPECT_GE(elapsed_ms(start), 900);
  sysmutex_unlock(&mutex);
  syscond_destroy(&cond);
  sysmutex_destroy(&mutex);
}

// Waiters announce themselves under the mutex and then wait: once the main
// thread holds the mutex and sees them all announced, each of them has reset
// the event and let go of the mutex inside its wait, so a signal from then on
// reaches a waiter.
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
  int32_t result;
  if (w->timed) {
    const int64_t deadline = static_cast<int64_t>(std::time(nullptr)) + 60;
    result = syscond_timedwait(&w->cond, &w->mutex, &deadline);
  } else {
    result = syscond_wait(&w->cond, &w->mutex);
  }
  ++w->woken;  // under the mutex: the wait took it again
  w->results_sum += result;
  sysmutex_unlock(&w->mutex);
  return nullptr;
}

int read_under(sysmutex* mutex, const int* value) {
  sysmutex_lock(mutex);
  const int v = *value;
  sysmutex_unlock(mutex);
  return v;
}

void wait_for(sysmutex* mutex, const int* value, int target) {
  const Clock::time_point start = Clock::now();
  while (read_under(mutex, value) < target && elapsed_ms(start) < 10000) syssleep(1);
}

class SysCondWaiters : public ::testing::TestWithParam<bool> {};

TEST_P(SysCondWaiters, OneSignalWakesOneWaiter) {
  Waiters w;
  w.timed = GetParam();
  ASSERT_EQ(sysmutex_create(&w.mutex), 0);
  ASSERT_EQ(syscond_create(&w.cond), 0);
  SysThread threads[2];
  for (SysThread& t : threads) ASSERT_EQ(systhread_create(&t, nullptr, wait_once, &w), 0);
  wait_for(&w.mutex, &w.announced, 2);
  ASSERT_EQ(read_under(&w.mutex, &w.announced), 2);

  EXPECT_EQ(syscond_signal(&w.cond), 0);
  wait_for(&w.mutex, &w.woken, 1);
  syssleep(200);
  EXPECT_EQ(read_under(&w.mutex, &w.woken), 1);  // the other one still waits

  EXPECT_EQ(syscond_signal(&w.cond), 0);
  for (SysThread& t : threads) EXPECT_EQ(systhread_join(&t, nullptr), 0);
  EXPECT_EQ(w.woken, 2);
  EXPECT_EQ(w.results_sum, 0);
  syscond_destroy(&w.cond);
  sysmutex_destroy(&w.mutex);
}

INSTANTIATE_TEST_SUITE_P(PlainAndTimed, SysCondWaiters, ::testing::Bool());

// ---- The lock under contention ------------------------------------------------

struct Contended {
  sysmutex mutex;
  volatile long counter = 0;
  std::atomic<int> ready{0};
};

// A read-modify-write with a gap in it: without exclusion, threads that
// overlap lose increments.
volatile int g_gap;

void slow_increment(volatile long* counter) {
  const long seen = *counter;
  for (int spin = 0; spin < 20; ++spin) g_gap = spin;
  *counter = seen + 1;
}

void* hammer(void* argument) {
  auto* c = static_cast<Contended*>(argument);
  // All four start together, so that they really contend.
  c->ready.fetch_add(1);
  while (c->ready.load() < 4) {
  }
  for (int i = 0; i < 100000; ++i) {
    sysmutex_lock(&c->mutex);
    sysmutex_lock(&c->mutex);  // the owner enters again
    slow_increment(&c->counter);
    sysmutex_unlock(&c->mutex);
    // Still held after one unlock of two.
    slow_increment(&c->counter);
    sysmutex_unlock(&c->mutex);
  }
  return nullptr;
}

TEST(SysMutexThreads, FourThreadsEnteringTwiceLoseNoIncrement) {
  Contended c;
  ASSERT_EQ(sysmutex_create(&c.mutex), 0);
  SysThread threads[4];
  for (SysThread& t : threads) ASSERT_EQ(systhread_create(&t, nullptr, hammer, &c), 0);
  for (SysThread& t : threads) EXPECT_EQ(systhread_join(&t, nullptr), 0);
  EXPECT_EQ(c.counter, 4 * 100000 * 2);
  EXPECT_EQ(sysmutex_destroy(&c.mutex), 0);
}

// ---- Threads -----------------------------------------------------------------

void* echo(void* argument) { return argument; }

TEST(SysThreadTest, JoinHandsBackTheResultAndClosesTheRecord) {
  int value = 0;
  SysThread thread;
  ASSERT_EQ(systhread_create(&thread, nullptr, echo, &value), 0);
  EXPECT_NE(thread.handle, nullptr);
  EXPECT_NE(thread.done, nullptr);
  EXPECT_EQ(thread.start, &echo);
  EXPECT_EQ(thread.argument, &value);
  EXPECT_NE(thread.id, 0u);
  void* result = nullptr;
  EXPECT_EQ(systhread_join(&thread, &result), 0);
  EXPECT_EQ(result, &value);
  EXPECT_EQ(thread.handle, nullptr);
  EXPECT_EQ(thread.done, nullptr);
  EXPECT_EQ(systhread_join(&thread, nullptr), 0);  // joined: as never started
}

TEST(SysThreadTest, JoinOfAThreadThatNeverStartedReturnsZero) {
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
  EXPECT_EQ(systhread_create(nullptr, nullptr, echo, nullptr), 1);
}

void* sleep_then_return(void* argument) {
  syssleep(150);
  return argument;
}

TEST(SysThreadTest, JoinWaitsForTheStartRoutine) {
  SysThread thread;
  int marker = 0;
  const Clock::time_point start = Clock::now();
  ASSERT_EQ(systhread_create(&thread, nullptr, sleep_then_return, &marker), 0);
  void* result = nullptr;
  EXPECT_EQ(systhread_join(&thread, &result), 0);
  EXPECT_EQ(result, &marker);
  EXPECT_GE(elapsed_ms(start), 140);
}

TEST(SysSleep, SleepsAtLeastAboutTheTimeAsked) {
  const Clock::time_point start = Clock::now();
  syssleep(50);
  EXPECT_GE(elapsed_ms(start), 45);  // the Windows tick may round a little
  const Clock::time_point again = Clock::now();
  syssleep(0);
  EXPECT_LT(elapsed_ms(again), 1000);
}

}  // namespace
