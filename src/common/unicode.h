// UTF-16 and UTF-8 code units, shared by the support layer and host
// identification: the surrogate pair rule and the UTF-8 byte forms, once.
// Header only; nothing here is part of the installed interface.
#ifndef HOSTKIT_UNICODE_H
#define HOSTKIT_UNICODE_H

#include <cstdint>

namespace unicode {

inline constexpr uint32_t kReplacementCharacter = 0xFFFD;

inline bool is_high_surrogate(uint32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
inline bool is_low_surrogate(uint32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

// A code point above 0xFFFF as its two UTF-16 units.
inline void surrogate_pair(uint32_t code, uint16_t out[2]) {
  const uint32_t v = code - 0x10000;
  out[0] = static_cast<uint16_t>(0xD800 + (v >> 10));
  out[1] = static_cast<uint16_t>(0xDC00 + (v & 0x3FF));
}

// The code point at `text`, which takes one unit or a pair. A surrogate
// without its partner takes one unit and sets `lone`.
struct Decoded {
  uint32_t code;
  int units;
  bool lone;
};

inline Decoded decode_utf16(const uint16_t* text) {
  const uint32_t first = text[0];
  if (is_high_surrogate(first) && is_low_surrogate(text[1])) {
    return {0x10000 + ((first - 0xD800) << 10) + (text[1] - 0xDC00u), 2, false};
  }
  const bool lone = is_high_surrogate(first) || is_low_surrogate(first);
  return {first, 1, lone};
}

// The UTF-8 bytes of a code point (at most 0x10FFFF); returns their count.
inline int encode_utf8(uint32_t code, unsigned char out[4]) {
  if (code < 0x80) {
    out[0] = static_cast<unsigned char>(code);
    return 1;
  }
  if (code < 0x800) {
    out[0] = static_cast<unsigned char>(0xC0 | (code >> 6));
    out[1] = static_cast<unsigned char>(0x80 | (code & 0x3F));
    return 2;
  }
  if (code < 0x10000) {
    out[0] = static_cast<unsigned char>(0xE0 | (code >> 12));
    out[1] = static_cast<unsigned char>(0x80 | ((code >> 6) & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | (code & 0x3F));
    return 3;
  }
  out[0] = static_cast<unsigned char>(0xF0 | (code >> 18));
  out[1] = static_cast<unsigned char>(0x80 | ((code >> 12) & 0x3F));
  out[2] = static_cast<unsigned char>(0x80 | ((code >> 6) & 0x3F));
  out[3] = static_cast<unsigned char>(0x80 | (code & 0x3F));
  return 4;
}

// What becomes of a surrogate without its partner, which has no UTF-8 form.
enum class LoneSurrogate { kRefuse, kReplace };

// The NUL-terminated UTF-16 `text` as UTF-8 with its NUL. Returns the bytes
// with the NUL counted, or 0 when a lone surrogate was refused or `out`
// (when given) is too small. A null `out` measures.
inline uint64_t utf16_to_utf8(const uint16_t* text, char* out, uint64_t out_size,
                              LoneSurrogate lone) {
  uint64_t n = 0;
  for (const uint16_t* at = text;;) {
    Decoded d = decode_utf16(at);
    if (d.lone) {
      if (lone == LoneSurrogate::kRefuse) return 0;
      d.code = kReplacementCharacter;
    }
    unsigned char bytes[4];
    const int k = encode_utf8(d.code, bytes);
    if (out != nullptr && n + static_cast<uint64_t>(k) > out_size) return 0;
    for (int j = 0; j < k; ++j) {
      if (out != nullptr) out[n] = static_cast<char>(bytes[j]);
      ++n;
    }
    if (d.code == 0) return n;
    at += d.units;
  }
}

}  // namespace unicode

#endif
