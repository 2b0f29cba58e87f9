// UTF-8 to UTF-16: the decoding rules byte by byte, the two-pass use, and
// the promise that a short buffer is never written past its capacity.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "sysutf8.h"

namespace {

using Units = std::vector<uint16_t>;

struct Converted {
  Units units;  // without the terminator
  uint64_t result = 0;
  uint64_t consumed = 0;
  int32_t bad = -1;
};

// Measures, then converts into exactly the measured room, as callers do.
Converted convert(const std::string& text) {
  Converted c;
  int32_t bad_measured = -1;
  uint64_t consumed_measured = 0;
  const uint64_t need =
      sysutf8_to_utf16(text.c_str(), nullptr, &consumed_measured, 0, &bad_measured);
  std::vector<uint16_t> out(need + 1, 0xAAAA);
  c.result = sysutf8_to_utf16(text.c_str(), out.data(), &c.consumed, need + 1, &c.bad);
  EXPECT_EQ(c.result, need);
  EXPECT_EQ(c.consumed, consumed_measured);
  EXPECT_EQ(c.bad, bad_measured);
  EXPECT_EQ(out[need], 0) << "terminated";
  c.units.assign(out.begin(), out.begin() + static_cast<long>(need));
  return c;
}

TEST(Utf8Decode, ValidSequencesOfEveryLength) {
  // U+00E9 = C3 A9, U+20AC = E2 82 AC, U+1F600 = F0 9F 98 80 (pair D83D DE00
  // by v = 0xF600: D800 + (v >> 10) = D83D, DC00 + (v & 3FF) = DE00).
  Converted c = convert("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z");
  EXPECT_EQ(c.units, (Units{'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 'z'}));
  EXPECT_EQ(c.bad, 0);
  EXPECT_EQ(c.consumed, 11u);
  // The highest value, U+10FFFF = F4 8F BF BF: v = 0xFFFFF -> DBFF DFFF.
  EXPECT_EQ(convert("\xF4\x8F\xBF\xBF").units, (Units{0xDBFF, 0xDFFF}));
  // A byte-order mark is an ordinary character.
  EXPECT_EQ(convert("\xEF\xBB\xBFx").units, (Units{0xFEFF, 'x'}));
}

TEST(Utf8Decode, MalformedInputIsReplacedAndCounted) {
  // C3 opens two bytes; 'b' isn't a continuation, so it goes with C3.
  Converted c = convert("a\xC3" "b");
  EXPECT_EQ(c.units, (Units{'a', '.'}));
  EXPECT_EQ(c.bad, 1);
  EXPECT_EQ(c.consumed, 3u);
  // A sequence cut by the end: the terminator is not consumed.
  c = convert("\xE2\x82");
  EXPECT_EQ(c.units, (Units{'.'}));
  EXPECT_EQ(c.bad, 1);
  EXPECT_EQ(c.consumed, 2u);
  // F4 90 80 80 decodes to 0x110000, above the last code point.
  c = convert("\xF4\x90\x80\x80");
  EXPECT_EQ(c.units, (Units{'.'}));
  EXPECT_EQ(c.bad, 1);
  // A stray continuation opens a six-byte sequence; 'a' breaks it and goes too.
  c = convert("\x80" "abc");
  EXPECT_EQ(c.units, (Units{'.', 'b', 'c'}));
  EXPECT_EQ(c.bad, 1);
  // FF also opens six bytes: payload 1 then five times 6 bits is 2^30, too big.
  c = convert("\xFF\x80\x80\x80\x80\x80x");
  EXPECT_EQ(c.units, (Units{'.', 'x'}));
  EXPECT_EQ(c.consumed, 7u);
  // Five bytes F8 88 80 80 80: 8 << 18 = 0x200000, too big.
  c = convert("\xF8\x88\x80\x80\x80");
  EXPECT_EQ(c.units, (Units{'.'}));
  // Two faults, two counts; C3 C3 is one fault, the second C3 going with the first.
  EXPECT_EQ(convert("\xC3" "a\xC3" "b").bad, 2);
  EXPECT_EQ(convert("\xC3\xC3").bad, 1);
}

TEST(Utf8Decode, OverlongFormsAndSurrogatesBelow0x10000PassUnchecked) {
  // C0 80 is an overlong NUL: one unit 0, inside the text.
  Converted c = convert("\xC0\x80" "a");
  EXPECT_EQ(c.units, (Units{0, 'a'}));
  EXPECT_EQ(c.bad, 0);
  // ED A0 80 encodes the surrogate D800; E0 81 81 is an overlong 'A'.
  EXPECT_EQ(convert("\xED\xA0\x80\xE0\x81\x81").units, (Units{0xD800, 'A'}));
}

TEST(Utf8Decode, EmptyAndNullSources) {
  uint16_t out[2] = {0xAAAA, 0xAAAA};
  uint64_t consumed = 99;
  int32_t bad = 99;
  EXPECT_EQ(sysutf8_to_utf16("", out, &consumed, 2, &bad), 0u);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(consumed, 0u);
  EXPECT_EQ(bad, 0);
  EXPECT_EQ(sysutf8_to_utf16(nullptr, nullptr, nullptr, 0, nullptr), 0u);
}

// The wide routine handles 16 bytes at a time: put the first non-ASCII
// character at every offset around those blocks and at the very end.
TEST(Utf8Decode, AsciiRunsOfEveryLengthAroundTheBlockSize) {
  for (int before = 0; before < 40; ++before) {
    for (int after : {0, 1, 15, 16, 17}) {
      const std::string text =
          std::string(static_cast<size_t>(before), 'x') + "\xC3\xA9" +
          std::string(static_cast<size_t>(after), 'y');
      Units expected(static_cast<size_t>(before), 'x');
      expected.push_back(0xE9);
      expected.insert(expected.end(), static_cast<size_t>(after), 'y');
      ASSERT_EQ(convert(text).units, expected) << before << " " << after;
    }
  }
}

TEST(Utf8Capacity, ASmallBufferIsFilledUpToItsEndAndNoFurther) {
  // Capacity 3 holds two units and the terminator.
  uint16_t out[8];
  std::fill(std::begin(out), std::end(out), 0xAAAA);
  uint64_t consumed = 0;
  EXPECT_EQ(sysutf8_to_utf16("abcde", out, &consumed, 3, nullptr), 2u);
  EXPECT_EQ(out[0], 'a');
  EXPECT_EQ(out[1], 'b');
  EXPECT_EQ(out[2], 0);
  EXPECT_EQ(out[3], 0xAAAA);
  EXPECT_EQ(consumed, 2u);

  // A pair that would take the last free unit stays out whole: "ab" + U+1F600
  // with capacity 4 leaves room for one unit after "ab".
  std::fill(std::begin(out), std::end(out), 0xAAAA);
  EXPECT_EQ(sysutf8_to_utf16("ab\xF0\x9F\x98\x80", out, &consumed, 4, nullptr), 2u);
  EXPECT_EQ(out[2], 0);
  EXPECT_EQ(out[3], 0xAAAA);
  EXPECT_EQ(consumed, 2u);

  // Capacity 0 with a buffer: nothing at all is written.
  std::fill(std::begin(out), std::end(out), 0xAAAA);
  EXPECT_EQ(sysutf8_to_utf16("abc", out, &consumed, 0, nullptr), 0u);
  EXPECT_EQ(out[0], 0xAAAA);
  EXPECT_EQ(consumed, 0u);
}

// Every capacity from 1 up on a mixed text: nothing lands past the capacity,
// and converting on from `consumed` in pieces gives the same units as one
// conversion of the whole (pieces of capacity 3 and more always move on).
TEST(Utf8Capacity, PiecesFromConsumedAddUpToTheWhole) {
  const std::string text =
      "Gr\xC3\xBC\xC3\x9F" "e \xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80\xF0\x9F\x8E\x89 "
      "plain ascii text that runs past sixteen bytes \xC3" "x end";
  const Converted whole = convert(text);
  for (uint64_t capacity = 1; capacity < whole.units.size() + 3; ++capacity) {
    std::vector<uint16_t> out(capacity + 8, 0xAAAA);
    uint64_t consumed = 0;
    const uint64_t n = sysutf8_to_utf16(text.c_str(), out.data(), &consumed, capacity, nullptr);
    ASSERT_LE(n, capacity - 1);
    ASSERT_EQ(out[n], 0);
    for (uint64_t i = capacity; i < out.size(); ++i) ASSERT_EQ(out[i], 0xAAAA) << capacity;
    ASSERT_TRUE(std::equal(out.begin(), out.begin() + static_cast<long>(n), whole.units.begin()));
    if (capacity < 3) continue;
    Units joined;
    uint64_t at = 0;
    while (at < text.size()) {
      std::fill(out.begin(), out.end(), 0xAAAA);
      const uint64_t got = sysutf8_to_utf16(text.c_str() + at, out.data(), &consumed, capacity, nullptr);
      ASSERT_GT(consumed, 0u);
      joined.insert(joined.end(), out.begin(), out.begin() + static_cast<long>(got));
      at += consumed;
    }
    ASSERT_EQ(joined, whole.units) << "capacity " << capacity;
  }
}

TEST(Utf8Environment, StatusTwelveWhenAnythingWasReplaced) {
  uint64_t written = 0;
  uint64_t consumed = 0;
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
  EXPECT_STREQ(sysutf8_state_names[UTF8STATE_OK], "UTF8STATE_OK");
  EXPECT_STREQ(sysutf8_state_names[UTF8STATE_EOF], "UTF8STATE_EOF");
  EXPECT_STREQ(sysutf8_state_names[UTF8STATE_ERR_IO], "UTF8STATE_ERR_IO");
  EXPECT_STREQ(sysutf8_state_names[UTF8STATE_ERR_UTF8], "UTF8STATE_ERR_UTF8");
  EXPECT_STREQ(sysutf8_state_names[UTF8STATE_ERR_PREMATURE_END], "UTF8STATE_ERR_PREMATURE_END");
  EXPECT_STREQ(sysutf8_state_names[UTF8STATE_ERR_ILLEGAL_UNICODE],
               "UTF8STATE_ERR_ILLEGAL_UNICODE");
  EXPECT_EQ(UTF8STATE_ERR_ILLEGAL_UNICODE, 5);
}

}  // namespace
