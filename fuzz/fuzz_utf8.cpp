// UTF-8 to UTF-16 against a plain decoder written here from the rules: the
// same units, bytes consumed and replacements for any text; and with any
// capacity a prefix of the whole that never passes the capacity, whose bytes
// consumed convert to exactly those units.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "sysutf8.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

// The lead byte's leading ones give the length (2 to 5, any other count 6)
// and its other bits the payload's start. A byte that isn't 10xxxxxx ends
// the sequence as bad and goes with it, but for the terminator; a value above
// 0x10FFFF is bad too, and values above 0xFFFF are surrogate pairs.
std::u16string reference(const std::string& s, size_t* consumed, int32_t* bad) {
  std::u16string out;
  size_t i = 0;
  for (*bad = 0; i < s.size();) {
    const unsigned lead = static_cast<unsigned char>(s[i]);
    size_t ones = 0;
    while (ones < 8 && ((lead << ones) & 0x80) != 0) ++ones;
    const size_t length = ones == 0 ? 1 : ones >= 2 && ones <= 5 ? ones : 6;
    uint32_t value = length == 1 ? lead : lead & (0x7Fu >> length);
    size_t used = 1;
    bool broken = false;
    for (; used < length && !broken; ++used) {
      const unsigned next = static_cast<unsigned char>(s.c_str()[i + used]);
      broken = next >> 6 != 2;
      if (next == 0) break;
      value = value << 6 | (next & 0x3F);
    }
    if (broken || value > 0x10FFFF) {
      out += u'.';
      ++*bad;
    } else if (value < 0x10000) {
      out += static_cast<char16_t>(value);
    } else {
      out += static_cast<char16_t>(0xD800 + ((value - 0x10000) >> 10));
      out += static_cast<char16_t>(0xDC00 + (value & 0x3FF));
    }
    i += used;
  }
  *consumed = i;
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks a capacity; the rest, up to a NUL, is the text.
  const uint64_t capacity = data[0] % 41;
  const std::string text = std::string(reinterpret_cast<const char*>(data + 1), size - 1).c_str();
  size_t want_consumed = 0;
  int32_t want_bad = 0;
  const std::u16string want = reference(text, &want_consumed, &want_bad);
  uint64_t consumed = 0;
  int32_t bad = -1;
  check(sysutf8_to_utf16(text.c_str(), nullptr, &consumed, 0, &bad) == want.size());
  check(consumed == want_consumed && bad == want_bad);
  std::vector<uint16_t> whole(want.size() + 1, 0xAAAA);
  check(sysutf8_to_utf16(text.c_str(), whole.data(), &consumed, whole.size(), &bad) == want.size());
  check(std::equal(want.begin(), want.end(), whole.begin()) && whole.back() == 0);
  // Exactly `capacity` units, the sanitizer sees any write past them; with
  // no room at all, one unit that must stay untouched.
  std::vector<uint16_t> small(std::max<uint64_t>(capacity, 1), 0xAAAA);
  const uint64_t n = sysutf8_to_utf16(text.c_str(), small.data(), &consumed, capacity, nullptr);
  if (capacity == 0) {
    check(n == 0 && consumed == 0 && small[0] == 0xAAAA);
    return 0;
  }
  check(n < capacity && small[n] == 0 && n + 2 >= std::min<uint64_t>(capacity, want.size() + 1));
  check(std::equal(small.begin(), small.begin() + static_cast<long>(n), want.begin()));
  check(sysutf8_to_utf16(text.substr(0, consumed).c_str(), nullptr, nullptr, 0, nullptr) == n);
  return 0;
}
