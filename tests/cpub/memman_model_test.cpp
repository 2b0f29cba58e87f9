// The memory manager, tracked and untracked, against a plain model: a seeded
// random sequence of allocations, zeroed allocations, reallocations, string
// copies, aligned pairs and frees. Each block must hold what was written to
// it; with tracking on, usage and peak follow the callers' sizes, rows are
// reused last in first out (so the leak listing names the blocks left by
// number in the model's row order), the table doubles from 1024 rows, a scan
// finds every guard whole, and an allocator call that fails makes exactly
// its operation fail, with its out-of-space line.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "cpub.h"
#include "test_support.h"

namespace {

using hostkit_test::CountingAllocator;
using hostkit_test::TextSink;

struct Block {
  std::string bytes;  // what the caller wrote
  uint64_t number;
  uint64_t row;
  uint64_t reserved;  // the bytes the manager counts: size, or size + alignment
  void* tracked;      // the manager's block: the pointer itself, or an aligned pair's start
};

class Model {
 public:
  Model(int32_t tracking, int fail_at) : tracking_(tracking) { user_.fail_at = fail_at; }

  // Runs `steps` random operations from `seed`, checking as it goes.
  void run(uint64_t seed, int steps) {
    manager_ = user_.create_manager(tracking_);
    if (user_.fail_at >= 1 && user_.fail_at <= 3) {  // the record, the table, the mutex
      EXPECT_EQ(manager_, nullptr);
      return;
    }
    calls_ = 3;
    ASSERT_NE(manager_, nullptr);
    memman_set_print_callback(manager_, TextSink::receive, &sink_);
    std::mt19937_64 random(seed);
    ::testing::internal::CaptureStdout();
    for (int step = 0; step < steps && !::testing::Test::HasFatalFailure(); ++step) {
      one_step(random);
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), out_of_space_);
    EXPECT_EQ(sink_.text, out_of_space_);
    finish();
  }

  int calls() const { return calls_; }
  int growth_call() const { return growth_call_; }

 private:
  bool tracked() const { return tracking_ != 0; }
  // Counts `calls` allocator calls; true when the failing one is among them.
  bool fails(int calls) {
    const int before = calls_;
    calls_ += calls;
    return before < user_.fail_at && user_.fail_at <= calls_;
  }

  void one_step(std::mt19937_64& random) {
    const uint64_t size = random() % 8 == 0 ? random() % 5000 : random() % 200;
    const int op = static_cast<int>(random() % 10);
    if (op >= 7 && !live_.empty()) {
      auto it = live_.begin();
      std::advance(it, static_cast<long>(random() % live_.size()));
      if (op == 7 && it->second.tracked == it->first) {
        reallocate(it->first, size, random);
      } else {
        release(it->first);
      }
      return;
    }
    if (op == 6 && size != 0) {
      const uint64_t alignment = uint64_t{1} << (random() % 13);  // 1 to 4096
      uint64_t effective = 8;
      while (effective < alignment) effective <<= 1;
      void* p = memman_alloc_aligned("m.c", 1, manager_, size, alignment);
      void* start = nullptr;
      if (p != nullptr) std::memcpy(&start, static_cast<char*>(p) - 8, 8);
      if (p != nullptr) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % effective, 0u);
      }
      return allocated(p, size, size + effective, start, false, random);
    }
    if (op == 5) {
      const std::string text(random() % 40, static_cast<char>('a' + random() % 26));
      const uint64_t limit = random() % 50;
      const bool whole = random() % 2 == 0;
      char* copy = whole ? memman_strdup("m.c", 1, manager_, text.c_str())
                         : memman_strndup("m.c", 1, manager_, text.c_str(), limit);
      const uint64_t length = whole ? text.size() : std::min<uint64_t>(text.size(), limit);
      if (copy != nullptr) {
        EXPECT_EQ(std::string(copy), text.substr(0, length));
      }
      return allocated(copy, length + 1, length + 1, copy, false, random);
    }
    const uint64_t count = random() % 4;  // count times size, 0 included
    const bool zeroed = op % 2 == 1;
    void* p = op < 2 ? memman_alloc_with("m.c", 1, manager_, count, size, zeroed ? 1 : 0)
                     : zeroed ? memman_calloc("m.c", 1, manager_, count, size)
                              : memman_alloc("m.c", 1, manager_, count, size);
    allocated(p, count * size, count * size, p, zeroed, random);
  }

  // A new block of `reserved` bytes the manager should have made, or refused.
  // The table grows first when no row is left (two calls, the rows and the
  // free list, both made), then the block is asked for (one call).
  void allocated(void* p, uint64_t size, uint64_t reserved, void* start, bool zeroed,
                 std::mt19937_64& random) {
    if (reserved == 0) {
      EXPECT_EQ(p, nullptr);
      return;
    }
    const bool grow = tracked() && free_rows_.empty() && used_ == capacity_;
    if (grow) growth_call_ = calls_ + 1;
    const bool grew = grow && !fails(2);
    if (grew) capacity_ = capacity_ < 1024 ? 1024 : capacity_ * 2;
    if ((grow && !grew) || fails(1)) {
      EXPECT_EQ(p, nullptr);
      if (tracked()) out_of_space("allocate", reserved, 1);
      return;
    }
    ASSERT_NE(p, nullptr);
    Block block{std::string(size, '\0'), number_++, take_row(), reserved, start};
    if (zeroed) {
      EXPECT_EQ(std::memcmp(p, block.bytes.data(), size), 0);
    }
    fill(p, block.bytes, 0, random);
    if (tracked()) current_ += reserved;
    if (current_ > peak_) peak_ = current_;
    live_[p] = block;
  }

  void reallocate(void* p, uint64_t size, std::mt19937_64& random) {
    if (!tracked() && size == 0) size = 1;  // the C library's realloc of 0 is its own business
    Block block = live_[p];
    void* q = memman_realloc("m.c", 2, manager_, p, size);
    if (size == 0) {
      EXPECT_EQ(q, nullptr);
      return forget(p);
    }
    if (fails(1)) {
      EXPECT_EQ(q, nullptr);
      if (tracked()) out_of_space("reallocate", size, 2);
      return check(p, block);
    }
    ASSERT_NE(q, nullptr);
    const uint64_t kept = std::min<uint64_t>(size, block.bytes.size());
    EXPECT_EQ(std::memcmp(q, block.bytes.data(), kept), 0);
    live_.erase(p);
    if (tracked()) current_ = current_ - block.reserved + size;
    block.bytes.resize(size);
    block.reserved = size;
    block.tracked = q;
    fill(q, block.bytes, kept, random);
    live_[q] = block;
  }

  void release(void* p) {
    check(p, live_[p]);
    if (live_[p].tracked == p) {
      memman_free("m.c", 3, manager_, p);
    } else {
      memman_free_aligned("m.c", 3, manager_, p);
    }
    forget(p);
  }

  void forget(void* p) {
    if (tracked()) current_ -= live_[p].reserved;
    free_rows_.push_back(live_[p].row);
    live_.erase(p);
  }

  void finish() {
    for (const auto& [p, block] : live_) check(p, block);
    uint64_t current = 1, peak = 1;
    memman_usage(manager_, &current, &peak);
    EXPECT_EQ(current, current_);
    EXPECT_EQ(peak, tracked() ? peak_ : 0);
    // The scan and the leak listing, through the print callback.
    std::string listing = "Deleting mem manager. Scanning memory\n";
    std::map<uint64_t, const Block*> by_row;
    for (const auto& entry : live_) by_row[entry.second.row] = &entry.second;
    if (tracked()) {
      char usage[256];
      std::snprintf(usage, sizeof usage,
                    "Scanning memory at 'd.c'(9)\nSpace usage. Number of blocks: %zu  Current "
                    "usage: %s Maximum usage: %s\n",
                    live_.size(), grouped(current_).c_str(), grouped(peak_).c_str());
      listing += usage;
    }
    listing += "Checking leaks\n";
    if (tracked() && !live_.empty()) listing += "**** ALLOCATED  BLOCKS LEFT\n";
    for (const auto& [row, block] : by_row) {
      if (!tracked()) break;
      char* raw = static_cast<char*>(block->tracked) - 40;
      char line[128];
      std::snprintf(line, sizeof line, "#%" PRIu64 " at %p (%p) is allocated\n", block->number,
                    static_cast<void*>(raw), static_cast<void*>(raw + 32));
      listing += line;
    }
    listing += "Done checking leaks\n";
    sink_.text.clear();
    EXPECT_EQ(memman_delete("d.c", 9, &manager_), tracked() ? live_.size() : 0u);
    EXPECT_EQ(sink_.text, listing);
    // The blocks left stay with the allocator; give them back.
    for (const auto& entry : live_) {
      void* tracked_block = entry.second.tracked;
      CountingAllocator::free(&user_, tracked() ? static_cast<char*>(tracked_block) - 40
                                                : tracked_block);
    }
    EXPECT_EQ(user_.live, 0);
  }

  uint64_t take_row() {
    if (free_rows_.empty()) return used_++;
    const uint64_t row = free_rows_.back();
    free_rows_.pop_back();
    return row;
  }
  void check(void* p, const Block& block) {
    EXPECT_EQ(std::memcmp(p, block.bytes.data(), block.bytes.size()), 0) << "block " << p;
  }
  static void fill(void* p, std::string& bytes, uint64_t from, std::mt19937_64& random) {
    for (uint64_t i = from; i < bytes.size(); ++i) bytes[i] = static_cast<char>(random());
    std::memcpy(p, bytes.data(), bytes.size());
  }
  void out_of_space(const char* what, uint64_t size, int line) {
    out_of_space_ += "Out of space while trying to " + std::string(what) + " a block of size " +
                     std::to_string(size) + " in file 'm.c(" + std::to_string(line) + ")'\n";
  }
  static std::string grouped(uint64_t value) {
    char text[128];
    memman_format_size(1, sizeof text, text, value);
    return text;
  }

  int32_t tracking_;
  CountingAllocator user_;
  MemManager* manager_ = nullptr;
  TextSink sink_;
  std::map<void*, Block> live_;
  std::vector<uint64_t> free_rows_;
  uint64_t used_ = 0, capacity_ = 0, number_ = 0, current_ = 0, peak_ = 0;
  int growth_call_ = 0;
  int calls_ = 0;
  std::string out_of_space_;
};

// Long enough for more than 1024 blocks to live at once.
TEST(MemmanModel, LongSequenceTrackedAndUntracked) {
  for (int32_t tracking : {1, 0}) {
    SCOPED_TRACE(tracking);
    Model(tracking, 0).run(7, 3500);
  }
}

// Every allocator call of a short sequence failing in turn, and each of the
// two calls of the long sequence's growth from 1024 to 2048 rows.
TEST(MemmanModel, EachAllocatorCallFailingInTurn) {
  for (int32_t tracking : {1, 0}) {
    Model probe(tracking, 0);
    probe.run(11, 40);
    for (int n = 1; n <= probe.calls(); ++n) {
      SCOPED_TRACE(std::to_string(tracking) + " fail " + std::to_string(n));
      Model(tracking, n).run(11, 40);
    }
  }
  Model probe(1, 0);
  probe.run(7, 3500);
  for (int n : {probe.growth_call(), probe.growth_call() + 1}) Model(1, n).run(7, 3500);
}

}  // namespace
