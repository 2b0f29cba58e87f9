// UTF-8 to UTF-16: the decoding rules byte by byte, the two-pass use, and
// the promise that a short buffer is never written past its capacity.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sysutf8.h"

namespace {

using Units = std::vector<uint16_t>;

struct Converted {
  Units units;  // without the terminator
  uint64_t consumed = 0;
  int32_t bad = -1;
};

// Measures, then converts into exactly the measured room, as callers do.
Converted convert(const std::string& text) {
  Converted c;
  int32_t bad_measured = -1;
  uint64_t consumed_measured = 0;
  const uint64_t need = sysutf8_to_utf16(text.c_str(), nullptr, &consumed_measured, 0, &bad_measured);
  std::vector<uint16_t> out(need + 1, 0xAAAA);
  EXPECT_EQ(sysutf8_to_utf16(text.c_str(), out.data(), &c.consumed, need + 1, &c.bad), need);
  EXPECT_EQ(c.consumed, consumed_measured);
  EXPECT_EQ(c.bad, bad_measured);
  EXPECT_EQ(out[need], 0) << "terminated";
  c.units.assign(out.begin(), out.begin() + static_cast<long>(need));
  return c;
}

TEST(Utf8Decode, RulesByteByByte) {
  const struct {
    const char* why;
    std::string text;
    Units units;
    int32_t bad;
    uint64_t consumed;
  } cases[] = {
      // Pairs: v = cp - 0x10000, D800 + (v >> 10), DC00 + (v & 3FF).
      {"1 to 4 bytes: U+00E9, U+20AC, U+1F600 (v F600: D83D DE00)",
       "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z", {'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 'z'}, 0, 11},
      {"U+10FFFF, the highest (v FFFFF)", "\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}, 0, 4},
      {"a byte-order mark is an ordinary character", "\xEF\xBB\xBFx", {0xFEFF, 'x'}, 0, 4},
      {"overlong NUL C0 80 is one unit 0", std::string("\xC0\x80" "a"), {0, 'a'}, 0, 3},
      {"surrogate D800 and overlong 'A' pass", "\xED\xA0\x80\xE0\x81\x81", {0xD800, 'A'}, 0, 6},
      {"empty", "", {}, 0, 0},
      {"C3 opens two; 'b' is no continuation and goes with it", "a\xC3" "b", {'a', '.'}, 1, 3},
      {"cut by the end: the terminator is not consumed", "\xE2\x82", {'.'}, 1, 2},
      {"F4 90 80 80 is 0x110000, above the last code point", "\xF4\x90\x80\x80", {'.'}, 1, 4},
      {"a stray continuation opens six bytes; 'a' breaks it and goes too", "\x80" "abc",
       {'.', 'b', 'c'}, 1, 4},
      {"FF opens six bytes: 1 then five times 6 bits is 2^30, too big",
       "\xFF\x80\x80\x80\x80\x80x", {'.', 'x'}, 1, 7},
      {"F8 88 80 80 80: 8 << 18 = 0x200000, too big", "\xF8\x88\x80\x80\x80", {'.'}, 1, 5},
      {"two faults, two counts", "\xC3" "a\xC3" "b", {'.', '.'}, 2, 4},
      {"C3 C3 is one fault, the second going with the first", "\xC3\xC3", {'.'}, 1, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    const Converted got = convert(c.text);
    EXPECT_EQ(got.units, c.units);
    EXPECT_EQ(got.bad, c.bad);
    EXPECT_EQ(got.consumed, c.consumed);
  }
  EXPECT_EQ(sysutf8_to_utf16(nullptr, nullptr, nullptr, 0, nullptr), 0u);
}

// The wide routine handles 16 bytes at a time: put the first non-ASCII
// character at every offset around those blocks and at the very end.
TEST(Utf8Decode, AsciiRunsOfEveryLengthAroundTheBlockSize) {
  for (size_t before = 0; before < 40; ++before) {
    for (size_t after : {0u, 1u, 15u, 16u, 17u}) {
      Units expected(before, 'x');
      expected.push_back(0xE9);
      expected.insert(expected.end(), after, 'y');
      ASSERT_EQ(convert(std::string(before, 'x') + "\xC3\xA9" + std::string(after, 'y')).units,
                expected)
          << before << " " << after;
    }
  }
}

// Every capacity from 0 up on a mixed text: nothing lands past the capacity,
// a pair never goes in halves, and converting on from `consumed` in pieces
// gives the same units as one conversion of the whole (pieces of capacity 3
// and more always move on).
TEST(Utf8Capacity, PiecesFromConsumedAddUpToTheWhole) {
  const std::string text =
      "Gr\xC3\xBC\xC3\x9F" "e \xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80\xF0\x9F\x8E\x89 "
      "plain ascii text that runs past sixteen bytes \xC3" "x end";
  const Converted whole = convert(text);
  for (uint64_t capacity = 0; capacity < whole.units.size() + 3; ++capacity) {
    Units out(capacity + 8, 0xAAAA);
    uint64_t consumed = 99;
    const uint64_t n = sysutf8_to_utf16(text.c_str(), out.data(), &consumed, capacity, nullptr);
    if (capacity == 0) {
      ASSERT_EQ(n + consumed, 0u) << "no room at all: nothing written, nothing taken";
    } else {  // full up to the terminator, but for a pair that didn't fit
      ASSERT_LE(n, capacity - 1);
      ASSERT_GE(n + 1, std::min<uint64_t>(capacity - 1, whole.units.size()));
      ASSERT_EQ(out[n], 0);
    }
    for (uint64_t i = capacity; i < out.size(); ++i) ASSERT_EQ(out[i], 0xAAAA) << capacity;
    ASSERT_TRUE(std::equal(out.begin(), out.begin() + static_cast<long>(n), whole.units.begin()));
    if (capacity < 3) continue;
    Units joined;
    for (uint64_t at = 0; at < text.size(); at += consumed) {
      const uint64_t got = sysutf8_to_utf16(text.c_str() + at, out.data(), &consumed, capacity, nullptr);
      ASSERT_GT(consumed, 0u);
      joined.insert(joined.end(), out.begin(), out.begin() + static_cast<long>(got));
    }
    ASSERT_EQ(joined, whole.units) << "capacity " << capacity;
  }
}

TEST(Utf8Environment, StatusTwelveWhenAnythingWasReplaced) {
  uint64_t written = 0, consumed = 0;
  uint16_t out[16];
  EXPECT_EQ(sysenv_utf8_to_utf16(nullptr, 16, &written, out, &consumed, "ok\xC3\xA9"), 0);
  EXPECT_EQ(written, 3u);
  EXPECT_EQ(consumed, 4u);
  EXPECT_EQ(sysenv_utf8_to_utf16(nullptr, 0, &written, nullptr, nullptr, "a\xC3" "b"), SYSENV_ERR_UTF8);
  EXPECT_EQ(written, 2u);
  EXPECT_EQ(sysenv_utf8_to_utf16(nullptr, 16, &written, out, nullptr, "bad \xFF"), SYSENV_ERR_UTF8);
  EXPECT_EQ(written, 5u);
}

TEST(Utf8State, NamesInStateOrder) {
  const char* const names[] = {"UTF8STATE_OK",          "UTF8STATE_EOF",
                               "UTF8STATE_ERR_IO",      "UTF8STATE_ERR_UTF8",
                               "UTF8STATE_ERR_PREMATURE_END", "UTF8STATE_ERR_ILLEGAL_UNICODE"};
  for (int i = 0; i < 6; ++i) EXPECT_STREQ(sysutf8_state_names[i], names[i]);
  EXPECT_EQ(UTF8STATE_ERR_ILLEGAL_UNICODE, 5);
}

}  // namespace
