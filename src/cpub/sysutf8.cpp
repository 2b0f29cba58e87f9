// UTF-8 to UTF-16. The converter never fails: what it can't decode becomes a
// full stop and is counted, and the caller decides what a count means.
#include "sysutf8.h"

#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "unicode.h"

namespace {

constexpr uint16_t kReplacement = 0x2E;

struct Sequence {
  uint32_t value;
  uint64_t length;  // bytes consumed
  bool bad;
};

// Decodes the sequence whose lead byte is at s[i] (not ASCII). `end` is the
// position of the terminating NUL, which is never consumed.
inline Sequence decode(const unsigned char* s, uint64_t i, uint64_t end) {
  const uint32_t lead = s[i];
  uint64_t length;
  uint32_t value;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
    value = lead & 0x1F;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    value = lead & 0x0F;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
    value = lead & 0x07;
  } else if ((lead & 0xFC) == 0xF8) {
    length = 5;
    value = lead & 0x03;
  } else {
    // Stray continuation bytes and 0xFC..0xFF land here too.
    length = 6;
    value = lead & 0x01;
  }
  for (uint64_t k = 1; k < length; ++k) {
    if (i + k == end) return {0, k, true};
    const uint32_t next = s[i + k];
    if ((next & 0xC0) != 0x80) return {0, k + 1, true};
    value = (value << 6) | (next & 0x3F);
  }
  return {value, length, false};
}

// Widens the ASCII bytes from s[i] on, 16 at a time, while they last and the
// room allows. Returns the bytes taken.
inline uint64_t widen_ascii(const unsigned char* s, uint64_t i, uint64_t end, uint16_t* out,
                            uint64_t room) {
  uint64_t taken = 0;
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  while (end - (i + taken) >= 16 && room - taken >= 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + taken));
    const int high = _mm_movemask_epi8(bytes);
    if (high != 0) {
      const uint64_t ascii = static_cast<uint64_t>(__builtin_ctz(static_cast<unsigned>(high)));
      if (out != nullptr) {
        for (uint64_t k = 0; k < ascii; ++k) out[taken + k] = s[i + taken + k];
      }
      return taken + ascii;
    }
    if (out != nullptr) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + taken), _mm_unpacklo_epi8(bytes, zero));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + taken + 8), _mm_unpackhi_epi8(bytes, zero));
    }
    taken += 16;
  }
#endif
  while (i + taken < end && taken < room && s[i + taken] < 0x80) {
    if (out != nullptr) out[taken] = s[i + taken];
    ++taken;
  }
  return taken;
}

}  // namespace

extern "C" {

const char* const sysutf8_state_names[UTF8STATE_COUNT] = {
    "UTF8STATE_OK",   "UTF8STATE_EOF",
    "UTF8STATE_ERR_IO", "UTF8STATE_ERR_UTF8",
    "UTF8STATE_ERR_PREMATURE_END", "UTF8STATE_ERR_ILLEGAL_UNICODE",
};

uint64_t sysutf8_to_utf16(const char* source, uint16_t* destination, uint64_t* consumed,
                          uint64_t capacity, int32_t* bad_count) {
  const auto* s = reinterpret_cast<const unsigned char*>(source != nullptr ? source : "");
  uint64_t i = 0;
  uint64_t units = 0;
  uint64_t bad = 0;
  // A destination without room for even the terminator gets nothing written.
  if (destination == nullptr || capacity > 0) {
    const uint64_t end = std::strlen(reinterpret_cast<const char*>(s));
    const uint64_t limit = destination != nullptr ? capacity - 1 : UINT64_MAX;
    while (i < end && units < limit) {
      if (s[i] < 0x80) {
        const uint64_t n = widen_ascii(s, i, end, destination != nullptr ? destination + units
                                                                         : nullptr,
                                       limit - units);
        i += n;
        units += n;
        continue;
      }
      const Sequence seq = decode(s, i, end);
      if (seq.bad || seq.value >= 0x110000) {
        if (destination != nullptr) destination[units] = kReplacement;
        ++units;
        ++bad;
      } else if (seq.value < 0x10000) {
        if (destination != nullptr) destination[units] = static_cast<uint16_t>(seq.value);
        ++units;
      } else {
        // Half a pair would be a broken text; leave the character for the
        // caller's next buffer instead.
        if (destination != nullptr && limit - units < 2) break;
        if (destination != nullptr) unicode::surrogate_pair(seq.value, destination + units);
        units += 2;
      }
      i += seq.length;
    }
    if (destination != nullptr) destination[units] = 0;
  }
  if (consumed != nullptr) *consumed = i;
  if (bad_count != nullptr) *bad_count = bad > INT32_MAX ? INT32_MAX : static_cast<int32_t>(bad);
  return units;
}

int32_t sysenv_utf8_to_utf16(SysEnv* /*env*/, uint64_t capacity, uint64_t* written,
                             uint16_t* destination, uint64_t* consumed, const char* source) {
  int32_t status = 0;
  const uint64_t units = sysutf8_to_utf16(source, destination, consumed, capacity, &status);
  if (written != nullptr) *written = units;
  return status != 0 ? SYSENV_ERR_UTF8 : SYSENV_OK;
}

}  // extern "C"
