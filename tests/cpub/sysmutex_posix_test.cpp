// The POSIX lock's own mechanism: the bias that a lock used by one thread
// keeps, its end when a second thread comes, and the lock as it is where
// the kernel has no process-wide barrier (never biased, released by an
// atomic exchange), which the shared workloads must pass as well.
#include <gtest/gtest.h>

#include <thread>

#include "mutex_workloads.h"
#include "sysmutex_inline.h"

namespace {

using sysmutex_detail::native;

TEST(SysMutexPosix, BiasedToItsOnlyThreadUntilASecondComes) {
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  sysmutex_detail::RecursiveLock* lock = native(&mutex);
  if (!sysmutex_detail::barrier_in_use()) {
    // A kernel without membarrier: no lock is ever biased.
    EXPECT_EQ(lock->phase.load(), sysmutex_detail::kRevoked);
    sysmutex_destroy(&mutex);
    return;
  }
  EXPECT_EQ(lock->bias.load(), nullptr) << "no thread has taken it yet";
  ASSERT_EQ(sysmutex_lock(&mutex), 0);
  ASSERT_EQ(sysmutex_lock(&mutex), 0);
  EXPECT_EQ(lock->bias.load(), &sysmutex_detail::t_identity);
  EXPECT_EQ(lock->bias_depth.load(), 2u);
  EXPECT_EQ(lock->state.load(), 0u) << "the shared word stays untouched";
  EXPECT_EQ(sysmutex_unlock(&mutex), 0);
  EXPECT_EQ(sysmutex_unlock(&mutex), 0);
  EXPECT_EQ(lock->bias_depth.load(), 0u);

  std::thread([&] {
    EXPECT_EQ(sysmutex_lock(&mutex), 0);
    EXPECT_EQ(lock->state.load(), 1u) << "a second thread holds through the shared word";
    EXPECT_EQ(sysmutex_unlock(&mutex), 0);
  }).join();
  EXPECT_EQ(lock->phase.load(), sysmutex_detail::kRevoked);
  ASSERT_EQ(sysmutex_lock(&mutex), 0);
  EXPECT_EQ(lock->bias_depth.load(), 0u) << "the bias is gone for its first thread too";
  EXPECT_EQ(lock->state.load(), 1u);
  EXPECT_EQ(sysmutex_unlock(&mutex), 0);
  EXPECT_EQ(lock->state.load(), 0u);
  sysmutex_destroy(&mutex);
}

class WithoutBarrier : public ::testing::Test {
 protected:
  void SetUp() override { was_ = sysmutex_detail::use_barrier(false); }
  void TearDown() override { sysmutex_detail::use_barrier(was_); }
  bool was_ = false;
};

TEST_F(WithoutBarrier, LocksAreNeverBiased) {
  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  ASSERT_EQ(sysmutex_lock(&mutex), 0);
  EXPECT_EQ(native(&mutex)->state.load(), 1u);
  EXPECT_EQ(native(&mutex)->bias_depth.load(), 0u);
  EXPECT_EQ(sysmutex_unlock(&mutex), 0);
  sysmutex_destroy(&mutex);
}

TEST_F(WithoutBarrier, FourThreadsEnteringTwiceLoseNoIncrement) {
  mutex_workloads::four_threads_entering_twice();
}

TEST_F(WithoutBarrier, ThreadsArrivingWhileTheFirstHolderHoldsWaitForIt) {
  mutex_workloads::threads_arriving_while_held();
}

}  // namespace
