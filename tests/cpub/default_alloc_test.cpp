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

uintptr_t address(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// The C library's block under a caller's block, read from the 8 bytes below.
uintptr_t hidden(const void* pointer) {
  uintptr_t raw;
  std::memcpy(&raw, static_cast<const char*>(pointer) - 8, 8);
  return raw;
}

// Worked by hand: raw = 0 -> 32 (0 + 40 - 8); raw = 24 -> 64 (24 + 40 - 0);
// raw = 25 -> 64 (25 + 40 - 1); raw = 23 -> 32 (23 + 40 - 31).
TEST(DefaultAlloc, PlacedAtTheSmallestMultipleOf32AboveRawPlus8) {
  const uintptr_t raw[4] = {0, 24, 25, 23}, placed[4] = {32, 64, 64, 32};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(sysenv_place_inline(raw[i]), placed[i]) << raw[i];
}

// Every block is a multiple of 32 with its C library block's start 9 to 40
// bytes below it; reallocation keeps the content and that distance.
TEST(DefaultAlloc, BlocksOfTheCLibraryAlignedWithTheirStartHidden) {
  for (uint64_t size = 1; size < 5000; size = size * 3 + 1) {
    SCOPED_TRACE(size);
    for (bool zeroed : {false, true}) {
      auto* p = static_cast<unsigned char*>(zeroed ? sysenv_default_calloc(nullptr, size, 1)
                                                   : sysenv_default_malloc(nullptr, size));
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(address(p) % 32, 0u);
      EXPECT_GE(address(p) - hidden(p), 9u);
      EXPECT_LE(address(p) - hidden(p), 40u);
      if (zeroed) { EXPECT_EQ(p[size - 1] | p[0], 0); }
      std::memset(p, 0xAB, size);
      const uintptr_t offset = address(p) - hidden(p);
      auto* q = static_cast<unsigned char*>(sysenv_default_realloc(nullptr, p, size * 2));
      ASSERT_NE(q, nullptr);
      EXPECT_EQ(address(q) - hidden(q), offset);
      EXPECT_EQ(q[0], 0xAB);
      EXPECT_EQ(q[size - 1], 0xAB);
      std::memset(q, 0xCD, size * 2);
      sysenv_default_free(nullptr, q);
    }
  }
}

// Sizes that are zero or whose 40 more bytes wrap give null without asking
// the C library, which would say why in errno.
TEST(DefaultAlloc, SizeRulesAndFailures) {
  errno = 0;
  EXPECT_EQ(sysenv_default_malloc(nullptr, 0), nullptr);
  EXPECT_EQ(sysenv_default_malloc(nullptr, UINT64_MAX - 39), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 0, 8), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 8, 0), nullptr);
  EXPECT_EQ(sysenv_default_calloc(nullptr, 1, UINT64_MAX - 20), nullptr);
  EXPECT_EQ(sysenv_default_realloc(nullptr, nullptr, UINT64_MAX), nullptr);
  sysenv_default_free(nullptr, nullptr);
  EXPECT_EQ(errno, 0);
  // The largest size that doesn't wrap is asked for, and refused.
  EXPECT_EQ(sysenv_default_malloc(nullptr, UINT64_MAX - 40), nullptr);
  EXPECT_NE(errno, 0);

  // Null acts as an allocation; a refused reallocation leaves the block as
  // it was; size 0 releases it (the sanitizer build would see a leak).
  auto* p = static_cast<char*>(sysenv_default_realloc(nullptr, nullptr, 16));
  ASSERT_NE(p, nullptr);
  std::memcpy(p, "fifteen letters", 16);
  EXPECT_EQ(sysenv_default_realloc(nullptr, p, UINT64_MAX - 64), nullptr);
  EXPECT_STREQ(p, "fifteen letters");
  EXPECT_EQ(sysenv_default_realloc(nullptr, p, 0), nullptr);
  EXPECT_EQ(sysenv_default_realloc(nullptr, nullptr, 0), nullptr);
}

}  // namespace
