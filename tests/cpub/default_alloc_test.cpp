// The default allocators over the real C library: the placement rule worked
// by hand, the hidden start of every block, and the size rules.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "sysenv.h"
#include "sysenv_internal.h"

// The sanitizer build lets a refused allocation come back as null, as the C
// library's does, instead of ending the run.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

// The distance from the C library's block, whose start is stored in the 8
// bytes below the caller's block, to the caller's block.
uintptr_t offset(const void* pointer) {
  uintptr_t raw;
  std::memcpy(&raw, static_cast<const char*>(pointer) - 8, 8);
  return reinterpret_cast<uintptr_t>(pointer) - raw;
}

// Worked by hand: raw = 0 -> 32 (0 + 40 - 8); raw = 24 -> 64 (24 + 40 - 0);
// raw = 25 -> 64 (25 + 40 - 1); raw = 23 -> 32 (23 + 40 - 31). Every block
// is a multiple of 32 with its C library block's start 9 to 40 bytes below
// it; reallocation keeps the content and that distance.
TEST(DefaultAlloc, BlocksAtTheSmallestMultipleOf32AboveRawPlus8) {
  const uintptr_t raw[4] = {0, 24, 25, 23}, placed[4] = {32, 64, 64, 32};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(sysenv_place_inline(raw[i]), placed[i]) << raw[i];
  for (uint64_t size = 1; size < 5000; size = size * 3 + 1) {
    for (bool zeroed : {false, true}) {
      auto* p = static_cast<unsigned char*>(zeroed ? sysenv_default_calloc(nullptr, size, 1)
                                                   : sysenv_default_malloc(nullptr, size));
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 32, 0u);
      EXPECT_TRUE(offset(p) >= 9 && offset(p) <= 40) << offset(p);
      if (zeroed) { EXPECT_EQ(p[size - 1] | p[0], 0); }
      std::memset(p, 0xAB, size);
      const uintptr_t before = offset(p);
      auto* q = static_cast<unsigned char*>(sysenv_default_realloc(nullptr, p, size * 2));
      ASSERT_NE(q, nullptr);
      EXPECT_EQ(offset(q), before);
      EXPECT_EQ(q[0], 0xAB);
      EXPECT_EQ(q[size - 1], 0xAB);
      sysenv_default_free(nullptr, q);
    }
  }
}

// Sizes that are zero or whose 40 more bytes wrap give null without asking
// the C library, which would say why in errno; the largest size that
// doesn't wrap is asked for, and refused. Null acts as an allocation; a
// refused reallocation leaves the block as it was; size 0 releases it.
TEST(DefaultAlloc, SizeRulesAndFailures) {
  volatile uint64_t most = UINT64_MAX;  // not a constant: the compiler would warn of it
  errno = 0;
  EXPECT_EQ(sysenv_default_malloc(nullptr, 0), nullptr);
  EXPECT_EQ(sysenv_default_malloc(nullptr, most - 39), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 0, 8), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 8, 0), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 1, most - 20), nullptr);
  EXPECT_EQ(sysenv_default_realloc(nullptr, nullptr, most), nullptr);
  sysenv_default_free(nullptr, nullptr);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(sysenv_default_malloc(nullptr, most - 40), nullptr);
  EXPECT_NE(errno, 0);
  auto* p = static_cast<char*>(sysenv_default_realloc(nullptr, nullptr, 16));
  ASSERT_NE(p, nullptr);
  std::memcpy(p, "fifteen letters", 16);
  EXPECT_EQ(sysenv_default_realloc(nullptr, p, most - 64), nullptr);
  EXPECT_STREQ(p, "fifteen letters");
  EXPECT_EQ(sysenv_default_realloc(nullptr, p, 0), nullptr);
  EXPECT_EQ(sysenv_default_realloc(nullptr, nullptr, 0), nullptr);
}

}  // namespace
