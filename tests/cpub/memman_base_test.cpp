// The memory manager with tracking off: creation and its failures, the
// pass-through family, the aligned pair, settings, the closing lines, the
// size text, and the lock.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

#include "cpub.h"
#include "mutex_workloads.h"
#include "test_support.h"

namespace {

using hostkit_test::CountingAllocator;
using hostkit_test::TextSink;

static_assert(offsetof(MemManager, begin_tag) == 0);
static_assert(offsetof(MemManager, name) == 9);
static_assert(offsetof(MemManager, lock_enabled) < offsetof(MemManager, mutex));
static_assert(offsetof(MemManager, free_callback) < offsetof(MemManager, fatal_handle));
static_assert(offsetof(MemManager, print_callback) < offsetof(MemManager, table));
static_assert(offsetof(MemManager, peak_usage) + 8 == offsetof(MemManager, current_usage));
static_assert(offsetof(MemManager, trace_file) < offsetof(MemManager, end_tag));
static_assert(offsetof(MemBlockTable, next_number) == 8);
static_assert(offsetof(MemBlockTable, capacity) == offsetof(MemBlockTable, used) + 8);

class MemmanUntracked : public ::testing::Test {
 protected:
  void SetUp() override {
    manager_ = user_.create_manager(0);
    ASSERT_NE(manager_, nullptr);
    base_calls_ = user_.allocating_calls;
  }
  void TearDown() override {
    if (manager_ != nullptr) {
      EXPECT_EQ(memman_delete("t.c", 1, &manager_), 0u);
    }
    EXPECT_EQ(user_.live, 0);
  }
  CountingAllocator user_;
  MemManager* manager_ = nullptr;
  int base_calls_ = 0;
};

TEST_F(MemmanUntracked, CreationFillsTheRecord) {
  EXPECT_STREQ(manager_->begin_tag, "begin");
  EXPECT_STREQ(manager_->end_tag, "end");
  EXPECT_EQ(manager_->lock_enabled, 1);  // the mutex stands, tracked or not
  ASSERT_NE(manager_->table, nullptr);
  EXPECT_EQ(manager_->table->first_level, -1);
  EXPECT_EQ(memman_tracking(manager_), 0);
  EXPECT_EQ(base_calls_, 3);  // record, table, mutex, all through malloc
  EXPECT_EQ(user_.malloc_calls, 3);
}

TEST(MemmanCreate, EachFailingAllocationFailsTheWholeAndLeaksNothing) {
  for (int n = 1; n <= 3; ++n) {
    CountingAllocator user;
    user.fail_at = n;
    EXPECT_EQ(user.create_manager(1), nullptr) << n;
    EXPECT_EQ(user.live, 0) << n;
  }
  MemManager* none = nullptr;
  EXPECT_EQ(memman_delete("x.c", 1, &none), 0u);
  EXPECT_EQ(memman_delete("x.c", 1, nullptr), 0u);
}

TEST_F(MemmanUntracked, ZeroBytesAskForNothing) {
  EXPECT_EQ(memman_alloc("a.c", 1, manager_, 0, 16), nullptr);
  EXPECT_EQ(memman_alloc("a.c", 1, manager_, 16, 0), nullptr);
  EXPECT_EQ(memman_calloc("a.c", 1, manager_, 0, 16), nullptr);
  EXPECT_EQ(memman_alloc_with("a.c", 1, manager_, 4, 0, 1), nullptr);
  EXPECT_EQ(user_.allocating_calls, base_calls_);
}

TEST_F(MemmanUntracked, FamilyPassesThroughToTheCallbacks) {
  void* a = memman_alloc("a.c", 1, manager_, 3, 7);
  EXPECT_EQ(user_.malloc_calls, 4);
  auto* z = static_cast<unsigned char*>(memman_calloc("a.c", 2, manager_, 3, 7));
  EXPECT_EQ(user_.calloc_calls, 1);
  for (int i = 0; i < 21; ++i) EXPECT_EQ(z[i], 0);
  void* w = memman_alloc_with("a.c", 3, manager_, 2, 2, 1);
  EXPECT_EQ(user_.calloc_calls, 2);
  void* m = memman_alloc_with("a.c", 3, manager_, 2, 2, 0);
  EXPECT_EQ(user_.malloc_calls, 5);
  auto* r = static_cast<char*>(memman_realloc("a.c", 4, manager_, a, 100));
  EXPECT_EQ(user_.realloc_calls, 1);
  ASSERT_NE(r, nullptr);
  for (void* p : {static_cast<void*>(r), static_cast<void*>(z), w, m}) {
    memman_free("a.c", 5, manager_, p);
  }
  const int frees = user_.free_calls;
  memman_free("a.c", 6, manager_, nullptr);  // null reaches the callback too
  EXPECT_EQ(user_.free_calls, frees + 1);
  uint64_t current = 1, peak = 1;
  memman_usage(manager_, &current, &peak);
  EXPECT_EQ(current, 0u);  // nothing is counted with tracking off
  EXPECT_EQ(peak, 0u);
}

TEST_F(MemmanUntracked, StringCopies) {
  char* a = memman_strdup("s.c", 1, manager_, "hostkit");
  EXPECT_STREQ(a, "hostkit");
  char* b = memman_strdup("s.c", 1, manager_, nullptr);
  EXPECT_STREQ(b, "");
  char* c = memman_strndup("s.c", 1, manager_, "hostkit", 4);
  EXPECT_STREQ(c, "host");
  char* d = memman_strndup("s.c", 1, manager_, "hostkit", 100);
  EXPECT_STREQ(d, "hostkit");
  char* e = memman_strndup("s.c", 1, manager_, "hostkit", 0);
  EXPECT_STREQ(e, "");
  for (char* p : {a, b, c, d, e}) memman_free("s.c", 2, manager_, p);
}

TEST_F(MemmanUntracked, AlignedBlocksRespectTheAlignmentAndFreeTheirReservation) {
  for (uint64_t alignment : {1u, 8u, 16u, 64u, 100u, 4096u}) {
    auto* p = static_cast<unsigned char*>(memman_alloc_aligned("g.c", 1, manager_, 50, alignment));
    ASSERT_NE(p, nullptr);
    uint64_t effective = 8;
    while (effective < alignment) effective <<= 1;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % effective, 0u) << alignment;
    std::memset(p, 0x5A, 50);  // the sanitizer build sees a write past the reservation
    memman_free_aligned("g.c", 2, manager_, p);
  }
  memman_free_aligned("g.c", 3, manager_, nullptr);
  EXPECT_EQ(memman_alloc_aligned("g.c", 4, manager_, UINT64_MAX - 3, 64), nullptr);
}

TEST_F(MemmanUntracked, ClosingWritesItsThreeLinesAtTheirLevels) {
  TextSink sink;
  memman_set_print_callback(manager_, TextSink::receive, &sink);
  EXPECT_EQ(memman_delete("d.c", 1, &manager_), 0u);
  EXPECT_EQ(manager_, nullptr);
  // With no level chosen, a print callback gets the closing lines.
  EXPECT_EQ(sink.text, "Deleting mem manager. Scanning memory\nChecking leaks\nDone checking leaks\n");

  CountingAllocator other;
  MemManager* quiet = other.create_manager(0);
  TextSink sink1;
  memman_set_print_callback(quiet, TextSink::receive, &sink1);
  memman_set_levels(quiet, 3, 1);  // threshold 1 needs a level of 2
  EXPECT_EQ(quiet->table->first_level, 3);
  EXPECT_EQ(quiet->table->message_level, 1);
  EXPECT_EQ(memman_delete("d.c", 1, &quiet), 0u);
  EXPECT_EQ(sink1.text, "Checking leaks\nDone checking leaks\n");
  EXPECT_EQ(other.live, 0);
}

TEST_F(MemmanUntracked, ScanWithTrackingOffWritesNothing) {
  TextSink sink;
  memman_set_print_callback(manager_, TextSink::receive, &sink);
  memman_set_levels(manager_, 0, 100);
  EXPECT_EQ(memman_scan("s.c", 1, manager_, 0), 0);
  EXPECT_EQ(sink.text, "");
  memman_set_print_callback(manager_, nullptr, nullptr);
}

TEST(MemmanFormatSize, PlainAndGrouped) {
  char buffer[128];
  memman_format_size(1, sizeof buffer, buffer, 1234567);
  EXPECT_STREQ(buffer, "0:1:181:647");  // 1234567 = 1 MiB + 181 KiB + 647
  memman_format_size(1, sizeof buffer, buffer, 1023);
  EXPECT_STREQ(buffer, "0:0:0:1023");
  memman_format_size(1, sizeof buffer, buffer, uint64_t{1} << 30);
  EXPECT_STREQ(buffer, "1:0:0:0");
  memman_format_size(1, sizeof buffer, buffer, (uint64_t{5} << 30) + (uint64_t{1} << 20) + 1);
  EXPECT_STREQ(buffer, "5:1:0:1");
  memman_format_size(0, sizeof buffer, buffer, 1234567);
  EXPECT_STREQ(buffer, "1234567");
  memman_format_size(0, sizeof buffer, buffer, UINT64_MAX);
  EXPECT_STREQ(buffer, "18446744073709551615");
  char small[4];
  memman_format_size(0, sizeof small, small, 123456);
  EXPECT_STREQ(small, "123");
}

TEST(SysMutex, NullIsRefusedAndTheOwnerMayLockAgain) {
  EXPECT_EQ(sysmutex_create(nullptr), 1);
  EXPECT_EQ(sysmutex_lock(nullptr), 1);
  EXPECT_EQ(sysmutex_unlock(nullptr), 1);
  EXPECT_EQ(sysmutex_destroy(nullptr), 1);

  sysmutex mutex;
  ASSERT_EQ(sysmutex_create(&mutex), 0);
  EXPECT_EQ(sysmutex_lock(&mutex), 0);
  EXPECT_EQ(sysmutex_lock(&mutex), 0);  // recursive for its owner
  EXPECT_EQ(sysmutex_unlock(&mutex), 0);
  EXPECT_EQ(sysmutex_unlock(&mutex), 0);
  EXPECT_EQ(sysmutex_destroy(&mutex), 0);
}

TEST(SysMutex, FourThreadsEnteringTwiceLoseNoIncrement) {
  mutex_workloads::four_threads_entering_twice();
}

TEST(SysMutex, ThreadsArrivingWhileTheFirstHolderHoldsWaitForIt) {
  mutex_workloads::threads_arriving_while_held();
}

}  // namespace
