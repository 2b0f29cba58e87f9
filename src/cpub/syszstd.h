/* A zstd frame on a C stream, in one direction: compression when writing,
 * decompression when reading. The file object keeps one of these as the
 * backend of a zstd file. */
#ifndef HOSTKIT_SYSZSTD_H
#define HOSTKIT_SYSZSTD_H

#include <stdint.h>
#include <stdio.h>

#include "sysenv.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZstdStream ZstdStream;

/* Makes a writer (`read` 0) or a reader. `stream` is an open C stream; it is
 * owned by the record on success only. A writer's level is clamped to
 * 1..ZSTD_maxCLevel(); a reader ignores it. Null when out of memory. */
ZstdStream* syszstd_create(SysEnv* env, FILE* stream, int32_t level, int32_t read);
/* Delivers up to `size` decompressed bytes; fewer only at the end of the
 * input, or when the input is damaged (see syszstd_failed). */
uint64_t syszstd_read(ZstdStream* record, void* destination, uint64_t size);
/* Compresses `data`; returns the bytes of it consumed, fewer than `size` when
 * the library reported an error. Once the file has refused compressed bytes
 * (a short fwrite), the frame can't be completed: that write still counts
 * what the compressor took, and every later write returns 0. */
uint64_t syszstd_write(ZstdStream* record, const void* data, uint64_t size);
/* Pushes everything compressed so far to the file; returns fflush's result,
 * or EOF when the file refused bytes, now or before. */
int32_t syszstd_flush(ZstdStream* record);
/* Back to the start of a reader's file: 0, or -1 on a writer. */
int32_t syszstd_rewind(ZstdStream* record);
/* Ends the frame of a writer, closes the file and frees the record. Null is
 * accepted. */
void syszstd_close(ZstdStream* record);
/* 1 once a reader met input it could not decode: a library error, or the
 * file ending inside a frame. Reading stops there as at the end of input.
 * Cleared by rewind. */
int32_t syszstd_failed(const ZstdStream* record);

#ifdef __cplusplus
}
#endif

#endif
