// UTF-8 to UTF-16 against a plain decoder written here from the rules: the
// same units, bytes consumed and replacement count for any text, and with
// any capacity a prefix of the whole that never passes the capacity.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sysutf8.h"

namespace {

struct Decoded {
  std::vector<uint16_t> units;
  size_t consumed = 0;
  int32_t bad = 0;
};

// Byte by byte, with the sequence length from the count of leading one bits.
Decoded reference(const std::string& s) {
  Decoded d;
  size_t i = 0;
  while (i < s.size()) {
    const auto lead = static_cast<uint8_t>(s[i]);
    if (lead < 0x80) {
      d.units.push_back(lead);
      ++i;
      continue;
    }
    int ones = 0;
    while (ones < 8 && (lead & (0x80 >> ones)) != 0) ++ones;
    size_t length;
    uint32_t value;
    if (ones >= 2 && ones <= 5) {
      length = static_cast<size_t>(ones);
      value = lead & (0xFFu >> (ones + 1));
    } else {
      length = 6;
      value = lead & 1u;
    }
    bool bad = false;
    size_t used = length;
    for (size_t k = 1; k < length; ++k) {
      if (i + k >= s.size()) {  // the terminator: not consumed
        bad = true;
        used = k;
        break;
      }
      const auto next = static_cast<uint8_t>(s[i + k]);
      if ((next >> 6) != 2) {
        bad = true;
        used = k + 1;
        break;
      }
      value = value * 64 + (next & 63u);
    }
    if (bad || value > 0x10FFFF) {
      d.units.push_back('.');
      ++d.bad;
    } else if (value <= 0xFFFF) {
      d.units.push_back(static_cast<uint16_t>(value));
    } else {
      d.units.push_back(static_cast<uint16_t>(0xD800 | ((value - 0x10000) >> 10)));
      d.units.push_back(static_cast<uint16_t>(0xDC00 | ((value - 0x10000) & 0x3FF)));
    }
    i += used;
  }
  d.consumed = i;
  return d;
}

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks a capacity; the rest, up to a NUL, is the text.
  const uint64_t capacity = data[0] % 40 + 1;
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  text = text.c_str();
  const Decoded want = reference(text);

  uint64_t consumed = 0;
  int32_t bad = -1;
  const uint64_t need = sysutf8_to_utf16(text.c_str(), nullptr, &consumed, 0, &bad);
  check(need == want.units.size());
  check(consumed == want.consumed);
  check(bad == want.bad);

  std::vector<uint16_t> whole(need + 1);
  check(sysutf8_to_utf16(text.c_str(), whole.data(), &consumed, need + 1, &bad) == need);
  check(need == 0 || std::memcmp(whole.data(), want.units.data(), need * 2) == 0);
  check(whole[need] == 0);
  check(consumed == want.consumed);

  // A buffer of exactly `capacity` units: the sanitizer sees any write past it.
  std::vector<uint16_t> small(capacity);
  const uint64_t n = sysutf8_to_utf16(text.c_str(), small.data(), &consumed, capacity, nullptr);
  check(n < capacity);
  check(small[n] == 0);
  check(n == 0 || std::memcmp(small.data(), want.units.data(), n * 2) == 0);
  check(consumed <= text.size());
  // What was consumed converts to exactly those units on its own.
  const std::string head = text.substr(0, consumed);
  check(sysutf8_to_utf16(head.c_str(), nullptr, nullptr, 0, nullptr) == n);
  return 0;
}
