// The buffered file object. All output passes through one append step into
// the 1 MiB buffer (whatever doesn't fit goes to the stream in one call), all
// input comes through the same buffer in whole refills.
#include "sysfile.h"

#include <zlib.h>

#include <cstdio>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "sysenv_stream.h"
#include "sysfile_os.h"
#include "sysutf8.h"
#include "syszstd.h"

namespace {

constexpr unsigned char kLf = '\n';
constexpr unsigned char kCr = '\r';

// The zstd operations in the shape of the table. A read that met damaged
// input delivers what was decoded before it; the next one reports -1.
int64_t zstd_read(void* backend, void* buffer, uint64_t size) {
  auto* stream = static_cast<ZstdStream*>(backend);
  const uint64_t n = syszstd_read(stream, buffer, size);
  return n == 0 && syszstd_failed(stream) != 0 ? -1 : static_cast<int64_t>(n);
}
int64_t zstd_write(void* backend, const void* data, uint64_t size) {
  return static_cast<int64_t>(syszstd_write(static_cast<ZstdStream*>(backend), data, size));
}
int32_t zstd_close(void* backend) {
  syszstd_close(static_cast<ZstdStream*>(backend));
  return 0;
}
int32_t zstd_flush(void* backend) { return syszstd_flush(static_cast<ZstdStream*>(backend)); }
int32_t zstd_rewind(void* backend) { return syszstd_rewind(static_cast<ZstdStream*>(backend)); }

struct Operations {
  SysFileReadOp read;
  SysFileWriteOp write;
  SysFileControlOp close;
  SysFileControlOp flush;
  SysFileControlOp rewind;
};

constexpr Operations kPlain = {sysenv_stdio_read, sysenv_stdio_write, sysenv_stdio_close,
                               sysenv_stdio_flush, sysenv_stdio_rewind};
constexpr Operations kGzip = {sysenv_gz_read, sysenv_gz_write, sysenv_gz_close, sysenv_gz_flush,
                              sysenv_gz_rewind};
constexpr Operations kZstd = {zstd_read, zstd_write, zstd_close, zstd_flush, zstd_rewind};

SysFileState* writer(SysFile* handle) {
  return handle != nullptr && handle->state != nullptr && handle->state->write != nullptr
             ? handle->state
             : nullptr;
}

SysFileState* reader(SysFile* handle) {
  return handle != nullptr && handle->state != nullptr && handle->state->read != nullptr
             ? handle->state
             : nullptr;
}

// Hands every waiting byte to the stream. Only a complete write empties the
// buffer: on a short one the bytes stay for a later flush.
bool drain(SysFileState* s) {
  if (s->count == 0) return true;
  const int64_t n = s->write(s->backend, s->buffer, s->count);
  if (n < 0 || static_cast<uint64_t>(n) != s->count) return false;
  s->count = 0;
  return true;
}

// The one way into the buffer. Data that doesn't fit tops the buffer up, the
// buffer goes out, and the rest goes straight to the stream in one call,
// however long it is: no byte is copied twice.
int32_t append(SysFileState* s, const unsigned char* bytes, uint64_t n) {
  const uint64_t room = s->capacity - s->count;
  if (n < room) {
    if (n > 0) std::memcpy(s->buffer + s->count, bytes, static_cast<size_t>(n));
    s->count += n;
    return SYSFILE_OK;
  }
  if (room > 0) std::memcpy(s->buffer + s->count, bytes, static_cast<size_t>(room));
  s->count += room;
  if (!drain(s)) return SYSFILE_ERR_WRITE;
  const uint64_t rest = n - room;
  const int64_t written = s->write(s->backend, bytes + room, rest);
  return written >= 0 && static_cast<uint64_t>(written) == rest ? SYSFILE_OK : SYSFILE_ERR_WRITE;
}

// One byte, with LF as CR LF in text mode. A byte fits while the buffer isn't
// full, so the buffer can stand exactly full; a CR LF pair that doesn't fit
// whole is split by the append step, CR leaving with the buffer.
int32_t put_byte(SysFileState* s, unsigned char c) {
  if (c == kLf && s->text != 0) {
    if (s->count + 1 < s->capacity) {
      s->buffer[s->count++] = kCr;
      s->buffer[s->count++] = kLf;
      return SYSFILE_OK;
    }
    static constexpr unsigned char kPair[2] = {kCr, kLf};
    return append(s, kPair, 2);
  }
  if (s->count < s->capacity) {
    s->buffer[s->count++] = c;
    return SYSFILE_OK;
  }
  return append(s, &c, 1);
}

// Text output: runs between line feeds are appended whole, each LF goes
// through the translation. The first failure ends the output. Without
// translation a LF is an ordinary byte, and the runs with their LFs are the
// same bytes in the same order as one append of the whole data, which is
// what such a file gets: no search for LFs, no step per line.
int32_t put_text(SysFileState* s, const unsigned char* data, uint64_t n) {
  if (s->text == 0) return n > 0 ? append(s, data, n) : SYSFILE_OK;
  while (n > 0) {
    const auto* lf = static_cast<const unsigned char*>(std::memchr(data, kLf, static_cast<size_t>(n)));
    const uint64_t run = lf != nullptr ? static_cast<uint64_t>(lf - data) : n;
    if (run > 0) {
      const int32_t status = append(s, data, run);
      if (status != SYSFILE_OK) return status;
    }
    if (lf == nullptr) break;
    const int32_t status = put_byte(s, kLf);
    if (status != SYSFILE_OK) return status;
    data += run + 1;
    n -= run + 1;
  }
  return SYSFILE_OK;
}

// A read that fails (-1: damaged compressed input) ends the input for good,
// until a rewind; no negative count ever reaches the buffer.
void refill(SysFileState* s) {
  s->count = 0;
  s->position = 0;
  if (s->damaged != 0) return;
  const int64_t n = s->read(s->backend, s->buffer, s->capacity);
  if (n < 0) s->damaged = 1;
  if (n <= 0) return;
  s->count = static_cast<uint64_t>(n) < s->capacity ? static_cast<uint64_t>(n) : s->capacity;
}

// Why the input gave nothing more.
int32_t end_status(const SysFileState* s) {
  return s->damaged != 0 ? SYSFILE_ERR_DATA : SYSFILE_ERR_EOF;
}

// Copies up to `n` bytes (1 to 16) from `from` to `to` without touching a
// byte of either beyond them: two overlapping moves of the widest size that
// fits.
inline void copy_short(unsigned char* to, const unsigned char* from, uint64_t n) {
  if (n >= 8) {
    uint64_t a, b;
    std::memcpy(&a, from, 8);
    std::memcpy(&b, from + n - 8, 8);
    std::memcpy(to, &a, 8);
    std::memcpy(to + n - 8, &b, 8);
  } else if (n >= 4) {
    uint32_t a, b;
    std::memcpy(&a, from, 4);
    std::memcpy(&b, from + n - 4, 4);
    std::memcpy(to, &a, 4);
    std::memcpy(to + n - 4, &b, 4);
  } else {
    to[0] = from[0];
    to[n / 2] = from[n / 2];
    to[n - 1] = from[n - 1];
  }
}

// Copies from `from` to `to` up to and including the first LF, at most
// `limit` bytes, in one pass: each 16 bytes are searched and stored
// together. Returns the number copied; `found` tells whether a LF ended it.
// Nothing is written past the bytes copied, and nothing read past `limit`.
inline uint64_t copy_through_lf(unsigned char* to, const unsigned char* from, uint64_t limit,
                                bool* found) {
  uint64_t i = 0;
#if defined(__SSE2__)
  const __m128i lf = _mm_set1_epi8(static_cast<char>(kLf));
  for (; i + 16 <= limit; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, lf)));
    if (mask != 0) {
      const uint64_t n = i + static_cast<uint64_t>(__builtin_ctz(mask)) + 1;
      // The line's last 16 bytes end at its LF; shorter lines are copied
      // in small moves.
      if (n >= 16) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + n - 16),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + n - 16)));
      } else {
        copy_short(to, from, n);
      }
      *found = true;
      return n;
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i), v);
  }
#endif
  // The last bytes before `limit`, fewer than 16.
  const auto* lf_at =
      i < limit ? static_cast<const unsigned char*>(std::memchr(from + i, kLf, limit - i)) : nullptr;
  const uint64_t n = lf_at != nullptr ? static_cast<uint64_t>(lf_at - from) + 1 : limit;
  if (n > i) std::memcpy(to + i, from + i, static_cast<size_t>(n - i));
  *found = lf_at != nullptr;
  return n;
}

// Collects one line of at most `room` bytes into `out` and strips its end.
// False when the input had nothing left.
// Inlined into both readers: it is the whole cost of reading a short line.
[[gnu::always_inline]] inline bool read_line(SysFileState* s, char* out, uint64_t room,
                                             uint64_t* length) {
  uint64_t collected = 0;
  const unsigned char* last = nullptr;  // the last stretch copied, still in the buffer
  uint64_t last_n = 0;
  for (;;) {
    const uint64_t unread = s->count - s->position;
    const uint64_t take = unread < room - collected ? unread : room - collected;
    const unsigned char* from = s->buffer + s->position;
    bool found = false;
    const uint64_t n =
        copy_through_lf(reinterpret_cast<unsigned char*>(out) + collected, from, take, &found);
    s->position += n;
    collected += n;
    last = from;
    last_n = n;
    if (found || collected == room) break;
    refill(s);
    last_n = 0;  // the refill overwrote it
    if (s->count == 0) {
      if (collected > 0) break;
      *length = 0;
      return false;
    }
  }
  // The line's last bytes, read from the buffer while it still holds them:
  // reading back what memcpy just stored would stall on the store.
  auto from_end = [&](uint64_t i) -> unsigned char {
    return i < last_n ? last[last_n - 1 - i] : static_cast<unsigned char>(out[collected - 1 - i]);
  };
  // LF, CR LF and a lone CR all end a line; one of each goes, whether the
  // line ended, was cut by the room, or was the last one of the input.
  uint64_t kept = collected;
  if (kept > 0 && from_end(0) == kLf) {
    --kept;
    if (kept > 0 && from_end(1) == kCr) --kept;
  } else if (kept > 0 && from_end(0) == kCr) {
    --kept;
  }
  *length = kept;
  return true;
}

// The zlib mode text of a gzip file: direction letter, 'b', the level digit
// (clamped to 0..9), terminator.
void gz_mode(bool read, bool append, int32_t level, char mode[5]) {
  int n = 0;
  if (read) {
    mode[n++] = 'r';
  } else {
    mode[n++] = append ? 'a' : 'w';
  }
  mode[n++] = 'b';
  const int32_t digit = level > 9 ? 9 : level < 0 ? 0 : level;
  mode[n++] = static_cast<char>('0' + digit);
  mode[n] = '\0';
}

// Attaches the stream for `compression` to the opened descriptor. Returns 0,
// or the status when it failed (the descriptor or C stream closed then).
int32_t attach(SysEnv* env, SysFileState* s, int descriptor, SysFileDirection direction,
               int32_t compression, int32_t level) {
  const bool reading = direction == SYSFILE_DIR_READ;
  Operations ops;
  if (compression == SYSFILE_GZIP) {
    char mode[5];
    gz_mode(reading, direction == SYSFILE_DIR_APPEND, level, mode);
    gzFile gz = gzdopen(descriptor, mode);
    if (gz == nullptr) {
      sysfile_os_close(descriptor);
      return SYSFILE_ERR_ARGUMENT;
    }
    s->backend = gz;
    ops = kGzip;
  } else if (compression == SYSFILE_ZSTD) {
    // The descriptor itself appends, so "wb" serves appending too.
    FILE* stream = sysfile_os_fdopen(descriptor, reading ? "rb" : "wb");
    if (stream == nullptr) {
      sysfile_os_close(descriptor);
      return SYSFILE_ERR_ARGUMENT;
    }
    ZstdStream* z = syszstd_create(env, stream, 3, reading ? 1 : 0);
    if (z == nullptr) {
      std::fclose(stream);
      return SYSFILE_ERR_MEMORY;
    }
    s->backend = z;
    ops = kZstd;
  } else {
    const char* mode = reading ? "rb" : direction == SYSFILE_DIR_APPEND ? "ab" : "wb";
    FILE* stream = sysfile_os_fdopen(descriptor, mode);
    if (stream == nullptr) {
      sysfile_os_close(descriptor);
      return SYSFILE_ERR_ARGUMENT;
    }
    s->backend = stream;
    ops = kPlain;
  }
  if (reading) {
    s->read = ops.read;
    s->rewind = ops.rewind;
  } else {
    s->write = ops.write;
    s->flush = ops.flush;
  }
  s->close = ops.close;
  return SYSFILE_OK;
}

void open_native(SysEnv* env, const SysFileNativePath* path, int32_t text, int32_t read,
                 int32_t write, int32_t append_flag, int32_t compression, int32_t level,
                 SysFile** file, int32_t* status) {
  const bool reading = read != 0;
  if (reading == (write != 0 || append_flag != 0)) {
    *status = SYSFILE_ERR_ARGUMENT;
    return;
  }
  const SysFileDirection direction = reading         ? SYSFILE_DIR_READ
                                     : append_flag != 0 ? SYSFILE_DIR_APPEND
                                                        : SYSFILE_DIR_WRITE;
  auto* handle = static_cast<SysFile*>(SYSENV_CALLOC(env, 1, sizeof(SysFile)));
  if (handle == nullptr) {
    *status = SYSFILE_ERR_MEMORY;
    return;
  }
  handle->env = env;
  // The state and its buffer are one block: two allocations per open file.
  auto* s = static_cast<SysFileState*>(SYSENV_CALLOC(env, 1, sizeof(SysFileState)));
  if (s == nullptr) {
    SYSENV_FREE(env, handle);
    *status = SYSFILE_ERR_MEMORY;
    return;
  }
  s->text = text != 0 ? 1 : 0;
  s->capacity = SYSFILE_BUFFER_SIZE;
  s->count = 0;
  s->position = 0;
  const int descriptor = sysfile_os_open(path, direction);
  if (descriptor == -1) {
    SYSENV_FREE(env, s);
    SYSENV_FREE(env, handle);
    *status = SYSFILE_ERR_ARGUMENT;
    return;
  }
  handle->state = s;
  *status = attach(env, s, descriptor, direction, compression, level);
  *file = handle;
}

void release_path(SysEnv* env, SysFileNativePath* native) {
  if (native->owned != nullptr) SYSENV_FREE(env, native->owned);
  *native = {nullptr, nullptr};
}

int32_t* status_or(int32_t* status, int32_t* local) { return status != nullptr ? status : local; }

// The part both line readers share: up to `room` bytes of the next line into
// `destination`, its end stripped. On failure the destination is an empty
// text and the status says why (not a reader, or the end of input).
bool next_line(SysFile* handle, char* destination, uint64_t room, uint64_t* n,
               int32_t* status) {
  SysFileState* s = reader(handle);
  if (s != nullptr && read_line(s, destination, room, n)) return true;
  destination[0] = '\0';
  *status = s == nullptr ? SYSFILE_ERR_NOT_READABLE : end_status(s);
  return false;
}

}  // namespace

extern "C" {

void sysfile_open_wide(SysEnv* env, const uint16_t* path, int32_t text, int32_t read,
                       int32_t write, int32_t append, int32_t compression, int32_t level,
                       SysFile** file, int32_t* status) {
  int32_t local = 0;
  status = status_or(status, &local);
  *file = nullptr;
  if (*status != 0) return;
  if (path == nullptr) {
    *status = SYSFILE_ERR_ARGUMENT;
    return;
  }
  SysFileNativePath native;
  *status = sysfile_os_path_wide(env, path, &native);
  if (*status != 0) return;
  open_native(env, &native, text, read, write, append, compression, level, file, status);
  release_path(env, &native);
}

void sysfile_open(SysEnv* env, const char* path, int32_t text, int32_t read, int32_t write,
                  int32_t append, int32_t compression, int32_t level, SysFile** file,
                  int32_t* status) {
  int32_t local = 0;
  status = status_or(status, &local);
  if (*status != 0) return;
  *file = nullptr;
  if (path == nullptr) {
    *status = SYSFILE_ERR_ARGUMENT;
    return;
  }
  // A path the converter had to repair would name some other file.
  uint64_t units = 0;
  uint64_t consumed = 0;
  if (sysenv_utf8_to_utf16(env, 0, &units, nullptr, &consumed, path) != 0) {
    *status = SYSFILE_ERR_PATH;
    return;
  }
  SysFileNativePath native;
  *status = sysfile_os_path_utf8(env, path, &native);
  if (*status != 0) return;
  open_native(env, &native, text, read, write, append, compression, level, file, status);
  release_path(env, &native);
}

int32_t sysfile_close(SysFile** file) {
  if (file == nullptr || *file == nullptr) return 0;
  SysFile* handle = *file;
  SysEnv* env = handle->env;
  SysFileState* s = handle->state;
  if (s != nullptr) {
    if (s->write != nullptr && s->backend != nullptr) drain(s);
    if (s->close != nullptr && s->backend != nullptr) {
      s->close(s->backend);
      s->backend = nullptr;
    }
    SYSENV_FREE(env, s);
  }
  SYSENV_FREE(env, handle);
  *file = nullptr;
  return 0;
}

int32_t sysfile_flush(SysFile* handle) {
  SysFileState* s = writer(handle);
  if (s == nullptr) return SYSFILE_OK;
  if (!drain(s)) return SYSFILE_ERR_WRITE;
  return s->flush == nullptr || s->flush(s->backend) == 0 ? SYSFILE_OK : SYSFILE_ERR_WRITE;
}

int32_t sysfile_rewind(SysFile* handle) {
  if (handle == nullptr || handle->state == nullptr || handle->state->rewind == nullptr) {
    return SYSFILE_ERR_NO_REWIND;
  }
  SysFileState* s = handle->state;
  s->count = 0;
  s->position = 0;
  s->damaged = 0;
  s->rewind(s->backend);
  return SYSFILE_OK;
}

int32_t sysfile_putc(SysFile* handle, int32_t ch) {
  SysFileState* s = writer(handle);
  if (s == nullptr) return SYSFILE_ERR_WRITE;
  return put_byte(s, static_cast<unsigned char>(ch));
}

int32_t sysfile_puts(SysFile* handle, const char* text) {
  if (text == nullptr || text[0] == '\0') return SYSFILE_OK;
  SysFileState* s = writer(handle);
  if (s == nullptr) return SYSFILE_ERR_WRITE;
  return put_text(s, reinterpret_cast<const unsigned char*>(text), std::strlen(text));
}

int32_t sysfile_write(SysFile* handle, uint64_t size, const void* data) {
  if (size == 0 || data == nullptr) return SYSFILE_OK;
  SysFileState* s = writer(handle);
  if (s == nullptr) return SYSFILE_ERR_WRITE;
  return put_text(s, static_cast<const unsigned char*>(data), size);
}

void sysfile_puts_checked(SysFile* handle, const char* text, int32_t* status) {
  if (status == nullptr || *status != 0) return;
  *status = sysfile_puts(handle, text);
}

void sysfile_puts_raw(SysFile* handle, const char* text, int32_t* status) {
  if (status == nullptr || *status != 0 || text == nullptr) return;
  SysFileState* s = writer(handle);
  if (s == nullptr) {
    *status = SYSFILE_ERR_WRITE;
    return;
  }
  *status = append(s, reinterpret_cast<const unsigned char*>(text), std::strlen(text));
}

void sysfile_newline(SysFile* handle, int32_t* status) {
  if (status == nullptr || *status != 0) return;
  *status = sysfile_putc(handle, kLf);
}

int32_t sysfile_vprintf(SysFile* handle, const char* format, va_list arguments) {
  if (format == nullptr) return SYSFILE_OK;
  SysFileState* s = writer(handle);
  if (s == nullptr) return SYSFILE_ERR_WRITE;
  va_list measure;
  va_copy(measure, arguments);
  char local[SYSFILE_PRINT_BUFFER];
  const int32_t n = sysstr_vformat(sizeof local, local, format, arguments);
  if (n >= 0) {
    va_end(measure);
    return put_text(s, reinterpret_cast<const unsigned char*>(local), static_cast<uint64_t>(n));
  }
  // Too long for the stack: a caller printing a long path or record wants all
  // of it, so the text is made again in a block of its exact size.
  va_list again;
  va_copy(again, measure);
  const int needed = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  int32_t status;
  if (needed < 0) {
    status = SYSFILE_ERR_ARGUMENT;
  } else {
    const auto size = static_cast<uint64_t>(needed) + 1;
    auto* block = static_cast<char*>(SYSENV_ALLOC(handle->env, size, 1));
    if (block == nullptr) {
      status = SYSFILE_ERR_MEMORY;
    } else {
      const int made = std::vsnprintf(block, static_cast<size_t>(size), format, again);
      status = made == needed ? put_text(s, reinterpret_cast<const unsigned char*>(block),
                                         static_cast<uint64_t>(made))
                              : SYSFILE_ERR_ARGUMENT;
      SYSENV_FREE(handle->env, block);
    }
  }
  va_end(again);
  return status;
}

int32_t sysfile_printf(SysFile* handle, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t status = sysfile_vprintf(handle, format, arguments);
  va_end(arguments);
  return status;
}

void sysfile_write_items(SysFile* handle, const void* data, uint64_t size, uint64_t count,
                         int32_t* status) {
  if (status == nullptr || *status != 0) return;
  SysFileState* s = writer(handle);
  if (s == nullptr) {
    *status = SYSFILE_ERR_WRITE;
    return;
  }
  uint64_t total = 0;
  if (__builtin_mul_overflow(size, count, &total)) {
    *status = SYSFILE_ERR_ARGUMENT;
    return;
  }
  if (total > 0 && data == nullptr) {
    *status = SYSFILE_ERR_ARGUMENT;
    return;
  }
  *status = append(s, static_cast<const unsigned char*>(data), total);
}

uint64_t sysfile_read(SysFile* handle, void* destination, uint64_t size, int32_t* status) {
  int32_t local = 0;
  status = status_or(status, &local);
  if (*status != 0) return 0;
  SysFileState* s = reader(handle);
  if (s == nullptr) {
    *status = SYSFILE_ERR_NOT_READABLE;
    return 0;
  }
  auto* out = static_cast<unsigned char*>(destination);
  uint64_t delivered = 0;
  while (delivered < size && *status == 0) {
    const uint64_t unread = s->count - s->position;
    const uint64_t wanted = size - delivered;
    if (wanted <= unread) {
      std::memcpy(out + delivered, s->buffer + s->position, static_cast<size_t>(wanted));
      s->position += wanted;
      return size;
    }
    if (unread > 0) std::memcpy(out + delivered, s->buffer + s->position, static_cast<size_t>(unread));
    delivered += unread;
    s->position = s->count;
    refill(s);
    if (s->count == 0) *status = end_status(s);
  }
  return delivered;
}

void sysfile_read_items(SysFile* handle, void* destination, uint64_t size, uint64_t count,
                        int32_t* status) {
  if (status == nullptr || *status != 0) return;
  if (reader(handle) == nullptr) {
    *status = SYSFILE_ERR_NOT_READABLE;
    return;
  }
  uint64_t total = 0;
  if (__builtin_mul_overflow(size, count, &total)) {
    *status = SYSFILE_ERR_ARGUMENT;
    return;
  }
  if (total == 0) return;
  int32_t inner = 0;
  if (sysfile_read(handle, destination, total, &inner) < total) {
    *status = inner == SYSFILE_ERR_DATA ? SYSFILE_ERR_DATA : SYSFILE_ERR_SHORT_READ;
  }
}

void sysfile_gets(SysFile* handle, uint64_t capacity, char* destination, int32_t* status) {
  if (status == nullptr || *status != 0 || capacity == 0) return;
  if (capacity == 1) {
    destination[0] = '\0';
    return;
  }
  if (capacity == 2) {
    destination[0] = '\n';
    destination[1] = '\0';
    return;
  }
  uint64_t n = 0;
  if (!next_line(handle, destination, capacity - 2, &n, status)) return;
  destination[n] = '\n';
  destination[n + 1] = '\0';
}

void sysfile_getline(SysFile* handle, uint64_t capacity, uint64_t* length, char* destination,
                     int32_t* status) {
  if (status == nullptr || *status != 0) return;
  uint64_t ignored = 0;
  if (length == nullptr) length = &ignored;
  if (capacity <= 1) {
    *length = 0;
    if (capacity == 1) destination[0] = '\0';
    return;
  }
  uint64_t n = 0;
  *length = 0;
  if (!next_line(handle, destination, capacity - 1, &n, status)) return;
  destination[n] = '\0';
  *length = n;
}

}  // extern "C"
