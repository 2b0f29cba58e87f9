// Helpers of the file tests: byte files in the test's working folder, and
// text patterns whose content is easy to reason about.
#ifndef HOSTKIT_FILES_TEST_UTIL_H
#define HOSTKIT_FILES_TEST_UTIL_H

#include <zstd.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace files_test {

inline std::string read_bytes(const std::string& path) {
  std::string data;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return "<missing>";
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) data.append(chunk, n);
  std::fclose(f);
  return data;
}

inline bool write_bytes(const std::string& path, const std::string& data) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  return std::fclose(f) == 0 && ok;
}

// Text of `size` bytes, lines of varying length (0 to 96 letters) each ended
// by LF: compressible, and with line feeds at irregular places.
inline std::string pattern_text(uint64_t size, uint32_t seed = 1) {
  std::string s;
  s.reserve(size);
  uint32_t x = seed;
  while (s.size() < size) {
    x = x * 1103515245u + 12345u;
    const uint32_t len = (x >> 16) % 97;
    for (uint32_t i = 0; i < len && s.size() < size; ++i) s += static_cast<char>('a' + (x + i) % 26);
    if (s.size() < size) s += '\n';
  }
  return s;
}

// LF to CR LF, the text-mode output form.
inline std::string with_crlf(const std::string& s) {
  std::string out;
  out.reserve(s.size() + s.size() / 8);
  for (char c : s) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

// A frame as the library's streaming interface makes it at `level` when the
// size isn't known in advance: all data with "continue", a "flush", then
// "end" (the order in which a file's writer closes its frame).
inline std::string zstd_stream_frame(const std::string& data, int level) {
  ZSTD_CCtx* cctx = ZSTD_createCCtx();
  ZSTD_CCtx_setParameter(cctx, ZSTD_c_compressionLevel, level);
  std::string out(ZSTD_compressBound(data.size()) + 1024, '\0');
  ZSTD_outBuffer o{out.data(), out.size(), 0};
  ZSTD_inBuffer i{data.data(), data.size(), 0};
  while (i.pos < i.size) ZSTD_compressStream2(cctx, &o, &i, ZSTD_e_continue);
  while (ZSTD_compressStream2(cctx, &o, &i, ZSTD_e_flush) > 0) {
  }
  while (ZSTD_compressStream2(cctx, &o, &i, ZSTD_e_end) > 0) {
  }
  ZSTD_freeCCtx(cctx);
  out.resize(o.pos);
  return out;
}

}  // namespace files_test

#endif
