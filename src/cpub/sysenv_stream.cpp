// Stream thunks over the C library and zlib.
#include "sysenv_stream.h"

#include <zlib.h>

#include <climits>
#include <cstdio>

namespace {

FILE* as_file(void* stream) { return static_cast<FILE*>(stream); }
gzFile as_gz(void* stream) { return static_cast<gzFile>(stream); }

// zlib counts in int: one call moves at most this much.
constexpr uint64_t kGzChunk = 1u << 30;

}  // namespace

extern "C" {

int64_t sysenv_stdio_read(void* stream, void* buffer, uint64_t size) {
  return static_cast<int64_t>(std::fread(buffer, 1, static_cast<size_t>(size), as_file(stream)));
}

int64_t sysenv_stdio_write(void* stream, const void* buffer, uint64_t size) {
  return static_cast<int64_t>(std::fwrite(buffer, 1, static_cast<size_t>(size), as_file(stream)));
}

int32_t sysenv_stdio_close(void* stream) { return std::fclose(as_file(stream)); }

int32_t sysenv_stdio_flush(void* stream) { return std::fflush(as_file(stream)); }

int32_t sysenv_stdio_rewind(void* stream) {
  std::rewind(as_file(stream));
  return 0;
}

// A request above zlib's int range is trimmed: a read may always deliver less.
// zlib gives 0, as at the end, for a file cut short and keeps the reason:
// that and every other error reads as -1, after the bytes decoded before it.
int64_t sysenv_gz_read(void* stream, void* buffer, uint64_t size) {
  const auto n = static_cast<unsigned>(size < kGzChunk ? size : kGzChunk);
  const int read = gzread(as_gz(stream), buffer, n);
  int error = Z_OK;
  if (read == 0) gzerror(as_gz(stream), &error);
  return error == Z_OK ? read : -1;
}

// A write must take everything it is given, so a long one goes in pieces
// that zlib can count; the first short piece ends it.
int64_t sysenv_gz_write(void* stream, const void* buffer, uint64_t size) {
  if (size <= kGzChunk) return gzwrite(as_gz(stream), buffer, static_cast<unsigned>(size));
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  uint64_t done = 0;
  while (done < size) {
    const uint64_t piece = size - done < kGzChunk ? size - done : kGzChunk;
    const int n = gzwrite(as_gz(stream), bytes + done, static_cast<unsigned>(piece));
    if (n <= 0) return done > 0 ? static_cast<int64_t>(done) : n;
    done += static_cast<uint64_t>(n);
    if (static_cast<uint64_t>(n) < piece) break;
  }
  return static_cast<int64_t>(done);
}

int32_t sysenv_gz_close(void* stream) { return gzclose(as_gz(stream)); }

int32_t sysenv_gz_flush(void* stream) { return gzflush(as_gz(stream), Z_NO_FLUSH); }

int32_t sysenv_gz_rewind(void* stream) { return gzrewind(as_gz(stream)); }

}  // extern "C"
