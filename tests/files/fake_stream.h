// A stream of the test's own behind a file handle: it records every call the
// file object makes and can refuse bytes or fail a read on request.
#ifndef HOSTKIT_FAKE_STREAM_H
#define HOSTKIT_FAKE_STREAM_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "sysfile.h"

namespace files_test {

struct FakeStream {
  // Output side.
  std::string accepted;            // every byte taken, in order
  std::vector<uint64_t> writes;    // the size asked of each write call
  int64_t accept_limit = -1;       // at most this many bytes per call; -1: all
  int flushes = 0;
  // Input side.
  std::string input;
  size_t at = 0;
  uint64_t max_read = UINT64_MAX;  // at most this many bytes per read call
  bool fail_reads = false;         // reads report -1, as a failing gzread does
  int reads = 0;
  int rewinds = 0;
  int closes = 0;

  static FakeStream* self(void* b) { return static_cast<FakeStream*>(b); }
  static int64_t write(void* b, const void* data, uint64_t size) {
    FakeStream* f = self(b);
    f->writes.push_back(size);
    uint64_t n = size;
    if (f->accept_limit >= 0 && n > static_cast<uint64_t>(f->accept_limit)) {
      n = static_cast<uint64_t>(f->accept_limit);
    }
    f->accepted.append(static_cast<const char*>(data), n);
    return static_cast<int64_t>(n);
  }
  static int64_t read(void* b, void* buffer, uint64_t size) {
    FakeStream* f = self(b);
    ++f->reads;
    if (f->fail_reads) return -1;
    uint64_t n = f->input.size() - f->at;
    if (n > size) n = size;
    if (n > f->max_read) n = f->max_read;
    std::memcpy(buffer, f->input.data() + f->at, n);
    f->at += n;
    return static_cast<int64_t>(n);
  }
  static int32_t flush(void* b) { return ++self(b)->flushes, 0; }
  static int32_t rewind(void* b) {
    self(b)->at = 0;
    return ++self(b)->rewinds, 0;
  }
  static int32_t close(void* b) { return ++self(b)->closes, 0; }
};

// A handle built as sysfile_open builds one, over `fake`. Released by
// sysfile_close like any other.
inline SysFile* fake_file(SysEnv* env, FakeStream* fake, bool writer, int32_t text) {
  auto* file = static_cast<SysFile*>(SYSENV_CALLOC(env, 1, sizeof(SysFile)));
  auto* s = static_cast<SysFileState*>(SYSENV_CALLOC(env, 1, sizeof(SysFileState)));
  file->env = env;
  file->state = s;
  s->capacity = SYSFILE_BUFFER_SIZE;
  s->text = text;
  s->backend = fake;
  s->close = FakeStream::close;
  if (writer) {
    s->write = FakeStream::write;
    s->flush = FakeStream::flush;
  } else {
    s->read = FakeStream::read;
    s->rewind = FakeStream::rewind;
  }
  return file;
}

}  // namespace files_test

#endif
