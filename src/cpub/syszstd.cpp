// zstd frames on C streams. Every library result is checked and every loop
// also stops when its input no longer advances, so a damaged file ends the
// reading instead of spinning.
#include <cstdio>
#include <cstring>

#include "syszstd_internal.h"

namespace {

// Hands the compressed bytes waiting in `out` to the file. On a short write
// the rest moves to the front of the buffer, and the writer is marked: the
// frame on the file has a hole from here on, so every later write and flush
// reports the loss instead of writing past it.
bool write_out(ZstdStream* r) {
  if (r->out.pos == 0) return true;
  const size_t n = std::fwrite(r->out_buffer, 1, r->out.pos, r->stream);
  r->bytes_written += n;
  if (n < r->out.pos) {
    std::memmove(r->out_buffer, r->out_buffer + n, r->out.pos - n);
    r->out.pos -= n;
    r->refused = 1;
    return false;
  }
  r->out.pos = 0;
  return true;
}

// Flushes (or, with `end`, finishes the frame) until the library has nothing
// more to give. One call is not always enough: the result tells how much is
// still held inside. False when the library or the file failed.
bool drain_library(ZstdStream* r, bool end) {
  for (;;) {
    const size_t left =
        end ? ZSTD_endStream(r->cstream, &r->out) : ZSTD_flushStream(r->cstream, &r->out);
    if (!write_out(r) || ZSTD_isError(left)) return false;
    if (left == 0) return true;
  }
}

void release(ZstdStream* r) {
  SysEnv* env = r->env;
  if (r->in_buffer != nullptr) SYSENV_FREE(env, r->in_buffer);
  if (r->out_buffer != nullptr) SYSENV_FREE(env, r->out_buffer);
  if (r->cstream != nullptr) ZSTD_freeCStream(r->cstream);
  if (r->dstream != nullptr) ZSTD_freeDStream(r->dstream);
  SYSENV_FREE(env, r);
}

}  // namespace

extern "C" {

ZstdStream* syszstd_create(SysEnv* env, FILE* stream, int32_t level, int32_t read) {
  auto* r = static_cast<ZstdStream*>(SYSENV_CALLOC(env, 1, sizeof(ZstdStream)));
  if (r == nullptr) return nullptr;
  r->env = env;
  r->level = level;
  if (read != 0) {
    r->in_capacity = ZSTD_DStreamInSize();
    r->out_capacity = ZSTD_DStreamOutSize();
    r->in_buffer = static_cast<unsigned char*>(SYSENV_CALLOC(env, 1, r->in_capacity));
    if (r->in_buffer != nullptr) {
      r->out_buffer = static_cast<unsigned char*>(SYSENV_CALLOC(env, 1, r->out_capacity));
    }
  } else {
    r->out_capacity = ZSTD_CStreamOutSize();
    r->out_buffer = static_cast<unsigned char*>(SYSENV_CALLOC(env, 1, r->out_capacity));
  }
  if (r->out_buffer == nullptr) {
    release(r);
    return nullptr;
  }
  r->out = {r->out_buffer, r->out_capacity, 0};
  if (read != 0) {
    r->in = {r->in_buffer, 0, 0};
    r->dstream = ZSTD_createDStream();
    if (r->dstream == nullptr || ZSTD_isError(ZSTD_initDStream(r->dstream))) {
      release(r);
      return nullptr;
    }
  } else {
    int32_t clamped = level <= 0 ? 1 : level;
    if (clamped > ZSTD_maxCLevel()) clamped = ZSTD_maxCLevel();
    r->cstream = ZSTD_createCStream();
    if (r->cstream == nullptr || ZSTD_isError(ZSTD_initCStream(r->cstream, clamped))) {
      release(r);
      return nullptr;
    }
  }
  r->stream = stream;
  return r;
}

uint64_t syszstd_write(ZstdStream* r, const void* data, uint64_t size) {
  if (r == nullptr || r->cstream == nullptr || size == 0 || r->refused != 0) return 0;
  r->in = {data, 0, 0};
  // The data goes in slices of the library's recommended input size, with
  // the output written after each: a block then always finds room to be
  // compressed straight into `out` instead of through the library's own
  // buffer.
  const size_t slice = ZSTD_CStreamInSize();
  uint64_t consumed = 0;
  do {
    const uint64_t rest = size - r->in.pos;
    r->in.size = r->in.pos + static_cast<size_t>(rest < slice ? rest : slice);
    const size_t before = r->in.pos;
    const size_t out_before = r->out.pos;
    const size_t hint = ZSTD_compressStream(r->cstream, &r->out, &r->in);
    consumed += r->in.pos - before;
    if (ZSTD_isError(hint)) break;
    const bool moved = r->in.pos != before || r->out.pos != out_before;
    if (!write_out(r) || !moved) break;
  } while (r->in.pos < size);
  r->in = {nullptr, 0, 0};
  return consumed;
}

int32_t syszstd_flush(ZstdStream* r) {
  if (r == nullptr || r->cstream == nullptr) return 0;
  const bool drained = r->refused == 0 && drain_library(r, false);
  const int flushed = std::fflush(r->stream);
  return drained ? flushed : EOF;
}

uint64_t syszstd_read(ZstdStream* r, void* destination, uint64_t size) {
  if (r == nullptr || r->dstream == nullptr || size == 0) return 0;
  auto* out = static_cast<unsigned char*>(destination);
  uint64_t delivered = 0;
  for (;;) {
    // What was decoded goes out first, also after the end was seen: the last
    // decoding step may have produced bytes.
    if (r->out.pos > 0) {
      const uint64_t wanted = size - delivered;
      const size_t n = wanted < r->out.pos ? static_cast<size_t>(wanted) : r->out.pos;
      std::memcpy(out + delivered, r->out_buffer, n);
      delivered += n;
      if (n < r->out.pos) std::memmove(r->out_buffer, r->out_buffer + n, r->out.pos - n);
      r->out.pos -= n;
      if (delivered == size) return delivered;
    }
    if (r->at_end != 0) return delivered;
    if (r->in.pos == r->in.size) {
      // A read error ends the input like the end of the file.
      r->in.size = std::fread(r->in_buffer, 1, static_cast<size_t>(r->in_capacity), r->stream);
      r->in.pos = 0;
    }
    const size_t before = r->in.pos;
    size_t hint;
    size_t produced;
    if (size - delivered >= r->out_capacity) {
      // Room for a whole block at the caller's: decode straight there and
      // save a copy. Nothing is waiting in `out` at this point.
      ZSTD_outBuffer direct = {out + delivered, static_cast<size_t>(size - delivered), 0};
      hint = ZSTD_decompressStream(r->dstream, &direct, &r->in);
      produced = direct.pos;
      if (!ZSTD_isError(hint)) delivered += produced;
    } else {
      hint = ZSTD_decompressStream(r->dstream, &r->out, &r->in);
      produced = r->out.pos;
    }
    if (ZSTD_isError(hint)) {
      r->failed = 1;
      r->at_end = 1;
      continue;
    }
    if (r->in.pos == before && produced == 0) {
      // Nothing moved. With no input left that is the end of the file, damaged
      // if a frame was still open; with input left the library is stuck.
      if (r->in.pos < r->in.size || r->mid_frame != 0) r->failed = 1;
      r->at_end = 1;
      continue;
    }
    r->mid_frame = hint != 0 ? 1 : 0;
    if (delivered == size) return delivered;
  }
}

int32_t syszstd_rewind(ZstdStream* r) {
  if (r == nullptr || r->dstream == nullptr) return -1;
  ZSTD_initDStream(r->dstream);
  r->in.pos = 0;
  r->in.size = 0;
  r->out.pos = 0;
  r->at_end = 0;
  r->failed = 0;
  r->mid_frame = 0;
  std::rewind(r->stream);
  return 0;
}

void syszstd_close(ZstdStream* r) {
  if (r == nullptr) return;
  if (r->cstream != nullptr && r->refused == 0) {
    // Ending the frame is what makes the file complete.
    if (drain_library(r, false)) drain_library(r, true);
  }
  std::fclose(r->stream);
  release(r);
}

int32_t syszstd_failed(const ZstdStream* r) { return r != nullptr ? r->failed : 0; }

}  // extern "C"
