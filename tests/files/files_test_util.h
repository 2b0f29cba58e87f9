// Helpers of the file tests: byte files, text patterns that are easy to
// reason about, and a recording stream to put behind a file handle.
#ifndef HOSTKIT_FILES_TEST_UTIL_H
#define HOSTKIT_FILES_TEST_UTIL_H

#include <zstd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sysfile.h"

namespace files_test {

inline std::string read_bytes(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return "<missing>";
  std::string data;
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

// `size` bytes of lines of 0 to 96 letters, each ended by LF: compressible,
// with line feeds at irregular places.
inline std::string pattern_text(uint64_t size, uint32_t seed = 1) {
  std::string s;
  for (uint32_t x = seed; s.size() < size;) {
    x = x * 1103515245u + 12345u;
    const uint32_t len = (x >> 16) % 97;
    for (uint32_t i = 0; i < len && s.size() < size; ++i) s += static_cast<char>('a' + (x + i) % 26);
    if (s.size() < size) s += '\n';
  }
  return s;
}

// LF to CR LF, the text-mode output form (CR bytes are not looked at).
inline std::string with_crlf(const std::string& s) {
  std::string out;
  for (char c : s) (c == '\n' ? out += "\r\n" : out += c);
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

// A stream that records every call the file object makes, and can refuse
// bytes or fail its reads on request.
struct FakeStream {
  std::string accepted;            // every byte taken, in order
  std::vector<uint64_t> writes;    // the size asked of each write call
  int64_t accept_limit = -1;       // at most this many bytes per write call; -1: all
  std::string input;               // what reads give out
  size_t at = 0;
  uint64_t max_read = UINT64_MAX;  // at most this many bytes per read call
  bool fail_reads = false;         // reads report -1, as on damaged compressed input
  bool fail_flush = false;         // the stream's flush fails, as fflush on a full disk
  int flushes = 0, reads = 0, closes = 0;

  static FakeStream* self(void* b) { return static_cast<FakeStream*>(b); }
  static int64_t write(void* b, const void* data, uint64_t size) {
    FakeStream* f = self(b);
    f->writes.push_back(size);
    const uint64_t n = f->accept_limit < 0 ? size : std::min(size, uint64_t(f->accept_limit));
    f->accepted.append(static_cast<const char*>(data), n);
    return static_cast<int64_t>(n);
  }
  static int64_t read(void* b, void* buffer, uint64_t size) {
    FakeStream* f = self(b);
    ++f->reads;
    if (f->fail_reads) return -1;
    const uint64_t n = std::min({size, f->max_read, uint64_t{f->input.size() - f->at}});
    std::memcpy(buffer, f->input.data() + f->at, n);
    f->at += n;
    return static_cast<int64_t>(n);
  }
  static int32_t flush(void* b) { return ++self(b)->flushes, self(b)->fail_flush ? -1 : 0; }
  static int32_t rewind(void* b) { return self(b)->at = 0, 0; }
  static int32_t close(void* b) { return ++self(b)->closes, 0; }
};

// A handle built as sysfile_open builds one, over `fake`; sysfile_close
// releases it like any other.
inline SysFile* fake_file(SysEnv* env, FakeStream* fake, bool writer, int32_t text) {
  auto* file = static_cast<SysFile*>(SYSENV_CALLOC(env, 1, sizeof(SysFile)));
  auto* s = static_cast<SysFileState*>(SYSENV_CALLOC(env, 1, sizeof(SysFileState)));
  file->env = env;
  file->state = s;
  s->capacity = SYSFILE_BUFFER_SIZE;
  s->text = text;
  s->backend = fake;
  s->close = FakeStream::close;
  s->write = writer ? FakeStream::write : nullptr;
  s->flush = writer ? FakeStream::flush : nullptr;
  s->read = writer ? nullptr : FakeStream::read;
  s->rewind = writer ? nullptr : FakeStream::rewind;
  return file;
}

}  // namespace files_test

#endif
