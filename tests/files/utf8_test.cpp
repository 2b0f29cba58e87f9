// UTF-8 to UTF-16: the decoding rules, the two-pass use, a short buffer
// never written past its capacity and converted on in pieces; the names of
// the reader states.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sysutf8.h"

namespace {

using Units = std::vector<uint16_t>;

struct Converted {
  Units units;  // without the terminator
  int32_t bad;
  uint64_t consumed;
  bool operator==(const Converted&) const = default;
};

// Measures, then converts into exactly the measured room, as callers do;
// the two passes must agree.
Converted convert(const std::string& text) {
  Converted measured{}, got{};
  const uint64_t n = sysutf8_to_utf16(text.c_str(), nullptr, &measured.consumed, 0, &measured.bad);
  got.units.assign(n + 1, 0xAAAA);
  EXPECT_EQ(sysutf8_to_utf16(text.c_str(), got.units.data(), &got.consumed, n + 1, &got.bad), n);
  EXPECT_EQ(got.units[n], 0) << "terminated";
  got.units.pop_back();
  measured.units = got.units;
  EXPECT_TRUE(got == measured) << "the passes agree";
  return got;
}

// Units, replacements and bytes consumed. A pair for U+10000 and above:
// with v = cp - 0x10000, D800 + (v >> 10), then DC00 + (v & 3FF).
TEST(Utf8Decode, RulesByteByByte) {
  const std::pair<std::string, Converted> cases[] = {
      // 1 to 4 bytes: U+00E9, U+20AC, U+1F600 (v F600); U+10FFFF, the highest (v FFFFF).
      {"a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z", {{'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 'z'}, 0, 11}},
      {"\xF4\x8F\xBF\xBF", {{0xDBFF, 0xDFFF}, 0, 4}},
      // An overlong NUL is a unit 0; an encoded surrogate and an overlong 'A' pass.
      {{"\xC0\x80" "a", 3}, {{0, 'a'}, 0, 3}},
      {"\xED\xA0\x80\xE0\x81\x81", {{0xD800, 'A'}, 0, 6}},
      // C3 opens two bytes; 'b' is no continuation and goes with it.
      {"a\xC3" "b", {{'a', '.'}, 1, 3}},
      // Cut by the end: the terminator is not consumed.
      {"\xE2\x82", {{'.'}, 1, 2}},
      // 0x110000, above the last code point.
      {"\xF4\x90\x80\x80", {{'.'}, 1, 4}},
      // A stray continuation opens six bytes, so does FF (1, then five times
      // six bits: 2^30); F8 opens five (8 << 18 = 0x200000).
      {"\x80" "abc", {{'.', 'b', 'c'}, 1, 4}},
      {"\xFF\x80\x80\x80\x80\x80x", {{'.', 'x'}, 1, 7}},
      {"\xF8\x88\x80\x80\x80", {{'.'}, 1, 5}},
      // Two faults, two counts: the second C3 goes with the first.
      {"\xC3" "a\xC3\xC3", {{'.', '.'}, 2, 4}},
      {"", {{}, 0, 0}},
  };
  for (const auto& [text, want] : cases) EXPECT_TRUE(convert(text) == want) << &want - &cases[0].second;
  EXPECT_EQ(sysutf8_to_utf16(nullptr, nullptr, nullptr, 0, nullptr), 0u) << "null is empty";
}

// Five letters with room for three units: two and the terminator. Every
// capacity on a mixed text: full up to the terminator but for a pair that
// doesn't fit whole, nothing past it, and converting on from `consumed` in
// pieces gives the units of the whole.
TEST(Utf8Capacity, PiecesFromConsumedAddUpToTheWhole) {
  uint64_t consumed = 0;
  Units out(3);
  EXPECT_EQ(sysutf8_to_utf16("abcde", out.data(), &consumed, 3, nullptr), 2u);
  EXPECT_EQ(out, (Units{'a', 'b', 0}));
  EXPECT_EQ(consumed, 2u);
  const std::string text = "Gr\xC3\xBC\xC3\x9F" "e \xE4\xB8\xAD \xF0\x9F\x98\x80\xF0\x9F\x8E\x89 "
                           "plain ascii text that runs past sixteen bytes \xC3" "x end";
  const Units whole = convert(text).units;
  for (uint64_t capacity = 0; capacity < whole.size() + 3; ++capacity) {
    out.assign(capacity + 8, 0xAAAA);
    const uint64_t n = sysutf8_to_utf16(text.c_str(), out.data(), nullptr, capacity, nullptr);
    ASSERT_LE(n + 1, std::max<uint64_t>(capacity, 1));
    ASSERT_GE(n + 2, std::min<uint64_t>(capacity, whole.size() + 1)) << capacity;
    ASSERT_TRUE(std::equal(out.begin(), out.begin() + static_cast<long>(n), whole.begin()));
    ASSERT_EQ(out[n], capacity > 0 ? 0 : 0xAAAA) << "terminated, if there is room";
    ASSERT_EQ(std::count(out.begin() + static_cast<long>(capacity), out.end(), 0xAAAA), 8);
    Units joined;
    for (uint64_t at = 0; capacity >= 3 && at < text.size(); at += consumed) {
      const uint64_t got = sysutf8_to_utf16(text.c_str() + at, out.data(), &consumed, capacity, nullptr);
      ASSERT_GT(consumed, 0u) << "three units always take a character";
      joined.insert(joined.end(), out.begin(), out.begin() + static_cast<long>(got));
    }
    ASSERT_TRUE(capacity < 3 || joined == whole) << capacity;
  }
}

TEST(Utf8State, NamesInStateOrder) {
  const char* const names[] = {"UTF8STATE_OK", "UTF8STATE_EOF", "UTF8STATE_ERR_IO",
                               "UTF8STATE_ERR_UTF8", "UTF8STATE_ERR_PREMATURE_END",
                               "UTF8STATE_ERR_ILLEGAL_UNICODE"};
  for (int i = 0; i < UTF8STATE_COUNT; ++i) EXPECT_STREQ(sysutf8_state_names[i], names[i]);
}

}  // namespace
