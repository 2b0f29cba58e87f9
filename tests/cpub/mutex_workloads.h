// Two workloads that a lock must pass. Each
// increment is a separate read and write of a volatile counter, so without
// exclusion the threads overwrite each other's steps.
#ifndef HOSTKIT_TEST_MUTEX_WORKLOADS_H
#define HOSTKIT_TEST_MUTEX_WORKLOADS_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "sysmutex.h"

namespace mutex_workloads {

// Four threads, each entering the lock twice around every increment.
inline void four_threads_entering_twice() {
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  volatile long counter = 0;
  auto work = [&] {
    for (int i = 0; i < 50000; ++i) {
      sysmutex_lock(&mutex);
      sysmutex_lock(&mutex);
      const long seen = counter;
      counter = seen + 1;
      sysmutex_unlock(&mutex);
      sysmutex_unlock(&mutex);
    }
  };
  std::thread a(work), b(work), c(work), d(work);
  a.join();
  b.join();
  c.join();
  d.join();
  EXPECT_EQ(counter, 200000);
  sysmutex_destroy(&mutex);
}

// The main thread takes the lock alone for a while first, then holds it
// across the others' arrival: they must neither step in during the hold
// (long enough for them to give up spinning and sleep) nor stay asleep
// after it, and no increment may be lost afterwards.
inline void threads_arriving_while_held() {
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  volatile long counter = 0;
  auto step = [&] {
    sysmutex_lock(&mutex);
    const long seen = counter;
    counter = seen + 1;
    sysmutex_unlock(&mutex);
  };
  for (int i = 0; i < 1000; ++i) step();

  constexpr long kSteps = 100000;
  ASSERT_EQ(sysmutex_lock(&mutex), 0);
  std::atomic<int> started{0};
  auto work = [&] {
    started.fetch_add(1);
    for (int i = 0; i < kSteps; ++i) step();
  };
  std::thread a(work), b(work), c(work);
  while (started.load() < 3) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(counter, 1000) << "a thread stepped in while the lock was held";
  EXPECT_EQ(sysmutex_unlock(&mutex), 0);

  for (int i = 0; i < kSteps; ++i) step();
  a.join();
  b.join();
  c.join();
  EXPECT_EQ(counter, 1000 + 4 * kSteps);
  sysmutex_destroy(&mutex);
}

}  // namespace mutex_workloads

#endif
