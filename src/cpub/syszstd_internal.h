// The zstd stream record, for the layer's own files and tests.
#ifndef HOSTKIT_SYSZSTD_INTERNAL_H
#define HOSTKIT_SYSZSTD_INTERNAL_H

#include <zstd.h>

#include "syszstd.h"

extern "C" {

struct ZstdStream {
  SysEnv* env;
  ZSTD_CStream* cstream;  // writer only
  ZSTD_DStream* dstream;  // reader only
  ZSTD_outBuffer out;     // writer: compressed bytes for the file; reader: bytes for the caller
  ZSTD_inBuffer in;       // writer: the caller's data; reader: compressed bytes from the file
  uint64_t in_capacity;   // 0 on a writer
  uint64_t out_capacity;
  unsigned char* in_buffer;  // null on a writer
  unsigned char* out_buffer;
  int32_t level;  // as given, before clamping
  uint64_t bytes_written;
  FILE* stream;
  int32_t at_end;
  int32_t failed;     // reader: damaged input seen
  int32_t mid_frame;  // reader: the last decoding step left a frame unfinished
  int32_t refused;    // writer: the file took fewer bytes than given, once
};
}

#endif
