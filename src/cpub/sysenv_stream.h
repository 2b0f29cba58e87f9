/* Stream thunks: the C library's streams and zlib's gzip handles as the
 * uniform operations a file object keeps in its table. Each takes the stream
 * first, as an opaque pointer (a FILE* or a gzFile). */
#ifndef HOSTKIT_SYSENV_STREAM_H
#define HOSTKIT_SYSENV_STREAM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* fread/fwrite of `size` bytes; the result is the bytes moved. */
int64_t sysenv_stdio_read(void* stream, void* buffer, uint64_t size);
int64_t sysenv_stdio_write(void* stream, const void* buffer, uint64_t size);
int32_t sysenv_stdio_close(void* stream);
int32_t sysenv_stdio_flush(void* stream);
/* Always 0. */
int32_t sysenv_stdio_rewind(void* stream);

/* gzread/gzwrite. The result is zlib's, sign included: -1 is an error; a
 * read also gives -1 where zlib ends a file cut short with 0. */
int64_t sysenv_gz_read(void* stream, void* buffer, uint64_t size);
int64_t sysenv_gz_write(void* stream, const void* buffer, uint64_t size);
int32_t sysenv_gz_close(void* stream);
/* gzflush with flush mode 0 (Z_NO_FLUSH). */
int32_t sysenv_gz_flush(void* stream);
int32_t sysenv_gz_rewind(void* stream);

#ifdef __cplusplus
}
#endif

#endif
