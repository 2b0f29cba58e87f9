/* The buffered file: one handle over a plain, gzip or zstd stream, with one
 * 1 MiB buffer for output (optionally turning LF into CR LF) or input (with
 * line readers that normalise line ends).
 *
 * Status convention: operations that take an `int32_t* status` do nothing
 * when it is already non-zero, so calls can be chained and tested once; the
 * others return their status. */
#ifndef HOSTKIT_SYSFILE_H
#define HOSTKIT_SYSFILE_H

#include <stdarg.h>
#include <stdint.h>

#include "sysenv.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SYSFILE_OK = 0,
  SYSFILE_ERR_MEMORY = 1,      /* out of memory, or the zstd stream could not be made */
  SYSFILE_ERR_ARGUMENT = 2,    /* bad direction, null path, or the file could not be opened */
  SYSFILE_ERR_SHORT_READ = 3,  /* sysfile_read_items delivered fewer bytes than asked */
  SYSFILE_ERR_EOF = 4,         /* end of input */
  SYSFILE_ERR_WRITE = 5,       /* the stream accepted fewer bytes than given */
  SYSFILE_ERR_NOT_READABLE = 6,
  SYSFILE_ERR_NO_REWIND = 7,
  SYSFILE_ERR_PATH = 9,        /* the UTF-8 path is not valid UTF-8 */
  SYSFILE_ERR_DATA = 10        /* the gzip or zstd input is damaged or cut short */
};

/* Compression selector of the open operations; any other value is plain. */
enum { SYSFILE_PLAIN = 0, SYSFILE_GZIP = 1, SYSFILE_ZSTD = 2 };

enum { SYSFILE_BUFFER_SIZE = 0x100000, SYSFILE_PRINT_BUFFER = 0x800 };

typedef int64_t (*SysFileReadOp)(void* backend, void* buffer, uint64_t size);
typedef int64_t (*SysFileWriteOp)(void* backend, const void* data, uint64_t size);
typedef int32_t (*SysFileControlOp)(void* backend);

typedef struct SysFileState {
  SysFileReadOp read;        /* reader only */
  SysFileWriteOp write;      /* writer only */
  SysFileControlOp close;
  SysFileControlOp flush;    /* writer only */
  SysFileControlOp rewind;   /* reader only */
  void* backend;             /* FILE*, gzFile or ZstdStream*; null once closed */
  int32_t text;              /* 1: LF goes out as CR LF */
  uint64_t capacity;         /* always SYSFILE_BUFFER_SIZE */
  uint64_t count;            /* writer: bytes waiting; reader: bytes valid */
  uint64_t position;         /* reader: next unread byte */
  int32_t damaged;           /* reader: the stream met damaged input; until rewind */
  unsigned char buffer[SYSFILE_BUFFER_SIZE];
} SysFileState;

typedef struct SysFile {
  SysEnv* env;
  SysFileState* state;
} SysFile;

/* Opens `path` (UTF-8) for exactly one direction: `read`, or `write`
 * (truncating), or `append` (`write` with `append` appends too). `compression`
 * is SYSFILE_GZIP (with `level` 0..9, clamped) or SYSFILE_ZSTD (always at
 * level 3) or plain. New files get owner read and write permission.
 * Whenever `*file` comes back non-null, pass it to sysfile_close, whatever
 * the status: when the stream can't be attached to the opened file the status
 * is 2 (or 1 for zstd) and the handle is an empty shell to release. */
void sysfile_open(SysEnv* env, const char* path, int32_t text, int32_t read, int32_t write,
                  int32_t append, int32_t compression, int32_t level, SysFile** file,
                  int32_t* status);
/* The same with a UTF-16 path. */
void sysfile_open_wide(SysEnv* env, const uint16_t* path, int32_t text, int32_t read,
                       int32_t write, int32_t append, int32_t compression, int32_t level,
                       SysFile** file, int32_t* status);
/* Writes what is buffered (ignoring the outcome: call sysfile_flush first to
 * know it), closes the stream and frees the handle. Sets `*file` to null.
 * Always 0. */
int32_t sysfile_close(SysFile** file);
/* Hands the buffered bytes to the stream and flushes the stream. 0, or
 * SYSFILE_ERR_WRITE when the stream took fewer bytes (they stay in the
 * buffer) or could not pass them on: the C stream's flush failed, or a zstd
 * writer's file refused its compressed output, which it never recovers from
 * (every later write on it is short). */
int32_t sysfile_flush(SysFile* handle);
/* 0, or SYSFILE_ERR_NO_REWIND on a writer. */
int32_t sysfile_rewind(SysFile* handle);

/* Output. On a handle opened for reading they write nothing and return
 * SYSFILE_ERR_WRITE. */
int32_t sysfile_putc(SysFile* handle, int32_t ch);
int32_t sysfile_puts(SysFile* handle, const char* text);
int32_t sysfile_write(SysFile* handle, uint64_t size, const void* data);
void sysfile_puts_checked(SysFile* handle, const char* text, int32_t* status);
void sysfile_puts_raw(SysFile* handle, const char* text, int32_t* status);
void sysfile_newline(SysFile* handle, int32_t* status);
/* Formats into SYSFILE_PRINT_BUFFER bytes on the stack. A longer text is
 * formatted again into a block of the environment and written whole; when
 * that block can't be had nothing is written and the result is
 * SYSFILE_ERR_MEMORY. A format the C library refuses gives
 * SYSFILE_ERR_ARGUMENT. */
int32_t sysfile_printf(SysFile* handle, const char* format, ...) SYSENV_PRINTF(2, 3);
int32_t sysfile_vprintf(SysFile* handle, const char* format, va_list arguments)
    SYSENV_PRINTF(2, 0);
/* `size` times `count` bytes, untranslated. */
void sysfile_write_items(SysFile* handle, const void* data, uint64_t size, uint64_t count,
                         int32_t* status);

/* Input. A gzip or zstd file that is damaged or cut short delivers the bytes
 * decoded before the damage, and then SYSFILE_ERR_DATA where the others give
 * SYSFILE_ERR_EOF or SYSFILE_ERR_SHORT_READ, until a rewind starts afresh. */
/* Up to `size` bytes; at the end of input status 4 and the bytes delivered. */
uint64_t sysfile_read(SysFile* handle, void* destination, uint64_t size, int32_t* status);
/* Exactly `size` times `count` bytes, or status 3. */
void sysfile_read_items(SysFile* handle, void* destination, uint64_t size, uint64_t count,
                        int32_t* status);
/* One line into `capacity` bytes, its end (LF, CR LF or CR) replaced by one
 * LF. A line longer than capacity - 2 comes in pieces. Status 4 and an empty
 * text when nothing is left. */
void sysfile_gets(SysFile* handle, uint64_t capacity, char* destination, int32_t* status);
/* One line into `capacity` bytes without its end; its length in `length`. A
 * line longer than capacity - 1 comes in pieces. */
void sysfile_getline(SysFile* handle, uint64_t capacity, uint64_t* length, char* destination,
                     int32_t* status);

#ifdef __cplusplus
}
#endif

#endif
