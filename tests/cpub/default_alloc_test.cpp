// The default allocators: address arithmetic over C library blocks at every
// offset, the hidden pointer, and the size rules, with a fake C library that
// hands out blocks where the test wants them and counts its calls.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "sysenv.h"
#include "sysenv_internal.h"

namespace {

// A fake C library over one arena: each block starts at `next_offset` bytes
// past a 64-byte boundary, so tests choose the address modulo 32.
struct FakeClib {
  alignas(64) unsigned char arena[4][4096];
  int next_arena = 0;
  uintptr_t next_offset = 0;
  int malloc_calls = 0, calloc_calls = 0, realloc_calls = 0, free_calls = 0;
  size_t last_size = 0, last_count = 0;
  void* last_freed = nullptr;
  bool fail = false;

  void* take(size_t size) {
    if (fail || next_arena == 4 || size + next_offset > sizeof arena[0]) return nullptr;
    return arena[next_arena++] + next_offset;
  }
};
FakeClib* fake = nullptr;

void* fake_malloc(size_t size) {
  ++fake->malloc_calls;
  fake->last_size = size;
  return fake->take(size);
}
void* fake_calloc(size_t count, size_t size) {
  ++fake->calloc_calls;
  fake->last_count = count;
  fake->last_size = size;
  void* block = fake->take(count * size);
  if (block != nullptr) std::memset(block, 0, count * size);
  return block;
}
void* fake_realloc(void* pointer, size_t size) {
  ++fake->realloc_calls;
  fake->last_size = size;
  void* block = fake->take(size);
  if (block != nullptr) std::memcpy(block, pointer, size);
  return block;
}
void fake_free(void* pointer) {
  ++fake->free_calls;
  fake->last_freed = pointer;
}

class DefaultAllocTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake = &clib_;
    const SysEnvCLib table{fake_malloc, fake_calloc, fake_realloc, fake_free};
    sysenv_set_clib(&table);
  }
  void TearDown() override {
    sysenv_set_clib(nullptr);
    fake = nullptr;
  }
  void* hidden(void* pointer) {
    void* raw;
    std::memcpy(&raw, static_cast<char*>(pointer) - 8, 8);
    return raw;
  }
  FakeClib clib_{};
};

TEST(DefaultPlace, SmallestMultipleOf32AboveRawPlus8) {
  // Worked by hand: raw = 0 -> 32 (0 + 40 - 8); raw = 24 -> 64 (24 + 40 - 0);
  // raw = 25 -> 64 (25 + 40 - 1); raw = 23 -> 32 (23 + 40 - 31).
  EXPECT_EQ(sysenv_default_place(0), 32u);
  EXPECT_EQ(sysenv_default_place(24), 64u);
  EXPECT_EQ(sysenv_default_place(25), 64u);
  EXPECT_EQ(sysenv_default_place(23), 32u);
  for (uintptr_t raw = 0x1000; raw < 0x1000 + 64; ++raw) {
    const uintptr_t p = sysenv_default_place(raw);
    EXPECT_EQ(p % 32, 0u) << raw;
    EXPECT_GE(p, raw + 9) << raw;
    EXPECT_LE(p, raw + 40) << raw;
  }
}

TEST_F(DefaultAllocTest, MallocAlignsEveryBlockAddressAndHidesTheBlock) {
  for (uintptr_t offset = 0; offset < 32; offset += 1) {
    clib_.next_arena = 0;
    clib_.next_offset = offset;
    void* p = sysenv_default_malloc(nullptr, 100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 32, 0u) << offset;
    EXPECT_EQ(hidden(p), clib_.arena[0] + offset);
    EXPECT_EQ(clib_.last_size, 140u);
    // The caller's 100 bytes lie inside the 140 of the block.
    EXPECT_LE(static_cast<char*>(p) + 100, reinterpret_cast<char*>(clib_.arena[0] + offset) + 140);
    sysenv_default_free(nullptr, p);
    EXPECT_EQ(clib_.last_freed, clib_.arena[0] + offset);
  }
}

TEST_F(DefaultAllocTest, SizeRulesReturnNullWithoutAskingTheLibrary) {
  EXPECT_EQ(sysenv_default_malloc(nullptr, 0), nullptr);
  EXPECT_EQ(sysenv_default_malloc(nullptr, UINT64_MAX), nullptr);
  EXPECT_EQ(sysenv_default_malloc(nullptr, UINT64_MAX - 39), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 0, 8), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 8, 0), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 1, UINT64_MAX - 20), nullptr);
  EXPECT_EQ(sysenv_default_realloc(nullptr, nullptr, UINT64_MAX), nullptr);
  EXPECT_EQ(clib_.malloc_calls + clib_.calloc_calls + clib_.realloc_calls, 0);
  sysenv_default_free(nullptr, nullptr);
  EXPECT_EQ(clib_.free_calls, 0);
  // UINT64_MAX - 40 is the largest size whose over-allocation does not wrap:
  // the library is asked, and fails here as the fake has no such block.
  EXPECT_EQ(sysenv_default_malloc(nullptr, UINT64_MAX - 40), nullptr);
  EXPECT_EQ(clib_.malloc_calls, 1);
}

TEST_F(DefaultAllocTest, CallocAsksForWholeBlockOfBytes) {
  clib_.next_offset = 8;
  auto* p = static_cast<unsigned char*>(sysenv_default_calloc(nullptr, 3, 10));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(clib_.last_count, 70u);  // 3 * 10 + 40 elements of one byte
  EXPECT_EQ(clib_.last_size, 1u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 32, 0u);
  for (int i = 0; i < 30; ++i) EXPECT_EQ(p[i], 0);
}

TEST_F(DefaultAllocTest, ReallocKeepsDistanceFromBlockStart) {
  clib_.next_offset = 0;  // first block at a 64-byte boundary: result at +32
  auto* p = static_cast<char*>(sysenv_default_malloc(nullptr, 16));
  ASSERT_EQ(p, reinterpret_cast<char*>(clib_.arena[0]) + 32);
  std::memcpy(p, "fifteen letters", 16);
  clib_.next_offset = 8;  // the new block is 8 bytes off modulo 32
  auto* q = static_cast<char*>(sysenv_default_realloc(nullptr, p, 64));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(clib_.last_size, 104u);
  EXPECT_EQ(q, reinterpret_cast<char*>(clib_.arena[1]) + 8 + 32);
  EXPECT_EQ(hidden(q), clib_.arena[1] + 8);
  EXPECT_STREQ(q, "fifteen letters");
  // Not a multiple of 32 any more: the offset, not the alignment, is kept.
  EXPECT_EQ(reinterpret_cast<uintptr_t>(q) % 32, 8u);
}

TEST_F(DefaultAllocTest, ReallocEdgeCases) {
  void* p = sysenv_default_realloc(nullptr, nullptr, 10);  // acts as malloc
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(clib_.malloc_calls, 1);
  EXPECT_EQ(clib_.realloc_calls, 0);

  clib_.fail = true;
  EXPECT_EQ(sysenv_default_realloc(nullptr, p, 20), nullptr);
  EXPECT_EQ(clib_.free_calls, 0);  // the old block is left alone
  clib_.fail = false;

  EXPECT_EQ(sysenv_default_realloc(nullptr, p, 0), nullptr);
  EXPECT_EQ(clib_.free_calls, 1);
  EXPECT_EQ(clib_.last_freed, clib_.arena[0]);
  EXPECT_EQ(sysenv_default_realloc(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(clib_.free_calls, 1);
}

TEST(DefaultAllocReal, RealMallocBlocksAreMultiplesOf32AndUsable) {
  std::vector<void*> blocks;
  for (uint64_t size = 1; size < 5000; size = size * 3 + 1) {
    auto* p = static_cast<unsigned char*>(sysenv_default_malloc(nullptr, size));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 32, 0u);
    std::memset(p, 0xAB, size);
    blocks.push_back(p);
  }
  for (void* p : blocks) sysenv_default_free(nullptr, p);
}

}  // namespace
