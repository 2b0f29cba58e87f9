/* The system environment: the handle every call of the support layer carries.
 * It owns the memory manager, the message-stream slots and the fatal path, and
 * publishes a few processor settings taken when it is made. */
#ifndef HOSTKIT_SYSENV_H
#define HOSTKIT_SYSENV_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The layer formats with the C99 printf family on every platform. */
#if defined(__clang__)
#define SYSENV_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))
#define SYSENV_NORETURN __attribute__((noreturn))
#elif defined(__GNUC__)
#define SYSENV_PRINTF(fmt, first) __attribute__((format(gnu_printf, fmt, first)))
#define SYSENV_NORETURN __attribute__((noreturn))
#else
#define SYSENV_PRINTF(fmt, first)
#define SYSENV_NORETURN
#endif

typedef struct MemManager MemManager;

/* Message stream: `text` is terminated and valid for the call only. */
typedef void (*SysEnvStreamCallback)(void* handle, const char* text);
/* Fatal error: `code` is always -1. */
typedef void (*SysEnvFatalCallback)(void* handle, const char* file, int32_t line, const char* text,
                                    int32_t code);
/* The four allocator callbacks, user handle first, sizes in 64 bits. */
typedef void* (*SysEnvMallocCallback)(void* handle, uint64_t size);
typedef void* (*SysEnvCallocCallback)(void* handle, uint64_t count, uint64_t size);
typedef void* (*SysEnvReallocCallback)(void* handle, void* pointer, uint64_t size);
typedef void (*SysEnvFreeCallback)(void* handle, void* pointer);

typedef struct SysEnvFatalHandler {
  void* handle;
  SysEnvFatalCallback callback;
} SysEnvFatalHandler;

enum { SYSENV_STREAM_SLOTS = 10, SYSENV_PRINT_BUFFER = 1048, SYSENV_FATAL_BUFFER = 2048 };

/* Status codes of the environment. */
enum { SYSENV_OK = 0, SYSENV_BLOCKS_LEFT = 8, SYSENV_ERR_UTF8 = 12 };

/* The presets, the class setting, the cache and feature fields and the three
 * texts are the environment's published settings: fixed values (preset_a 16,
 * preset_b -1, preset_c 1, class_setting 10, or 10010 on a processor of class
 * 19) that programs on top of the layer read from the handle. Nothing in the
 * layer acts on them, and their names and values stay as they are for those
 * readers. */
typedef struct SysEnv {
  int32_t log_level;
  int32_t ready;
  int32_t mode;
  MemManager* memory;
  SysEnvFatalHandler* fatal_handler;
  int32_t preset_a;
  int32_t preset_b;
  int32_t class_setting;
  int32_t cache_l1;
  int32_t cache_l2;
  int32_t has_sse2;
  int32_t has_sse3;
  char path_separator;
  char path_variable[80];
  char library_suffix[80];
  int32_t preset_c;
  void* stream_handle[SYSENV_STREAM_SLOTS];
  SysEnvStreamCallback stream_callback[SYSENV_STREAM_SLOTS];
} SysEnv;

/* Creation and end. With any of the four allocator callbacks null, all four
 * defaults are used and `user_handle` is dropped. */
SysEnv* sysenv_create(int32_t mode, int32_t tracking, void* user_handle,
                      SysEnvMallocCallback user_malloc, SysEnvCallocCallback user_calloc,
                      SysEnvReallocCallback user_realloc, SysEnvFreeCallback user_free);
/* Ends the environment and sets `*env_slot` to null. Returns 0, or
 * SYSENV_BLOCKS_LEFT when the memory manager reported blocks left. */
int32_t sysenv_destroy(SysEnv** env_slot);
void sysenv_set_log_level(SysEnv* env, int32_t level);
void sysenv_set_stream(SysEnv* env, int32_t stream, void* handle, SysEnvStreamCallback callback);

/* Text. */
void sysenv_printf(SysEnv* env, const char* format, ...) SYSENV_PRINTF(2, 3);
SYSENV_NORETURN void sysenv_fatal(SysEnv* env, const char* file, int32_t line, const char* format,
                                  ...) SYSENV_PRINTF(4, 5);
void sysenv_check(SysEnv* env, const char* file, int32_t line, int32_t condition);
SYSENV_NORETURN void sysenv_assert_failed(const char* expression, const char* file, int32_t line);
/* The fatal callback an environment gives its manager; `handle` is the environment. */
void sysenv_memman_fatal(void* handle, const char* file, int32_t line, const char* text,
                         int32_t code);

/* Allocation through the environment's manager, with the call site. */
void* sysenv_calloc(SysEnv* env, const char* file, int32_t line, uint64_t count, uint64_t size);
void* sysenv_alloc(SysEnv* env, const char* file, int32_t line, uint64_t count, uint64_t size);
void sysenv_free(SysEnv* env, const char* file, int32_t line, void* pointer);

#define SYSENV_CALLOC(env, count, size) sysenv_calloc((env), __FILE__, __LINE__, (count), (size))
#define SYSENV_ALLOC(env, count, size) sysenv_alloc((env), __FILE__, __LINE__, (count), (size))
#define SYSENV_FREE(env, pointer) sysenv_free((env), __FILE__, __LINE__, (pointer))
#define SYSENV_CHECK(env, condition) sysenv_check((env), __FILE__, __LINE__, (condition) ? 1 : 0)
#define SYSENV_ASSERT(expression) \
  ((expression) ? (void)0 : sysenv_assert_failed(#expression, __FILE__, __LINE__))

/* Default allocators: blocks of the C library with 40 bytes more, handed out
 * at a multiple of 32 with the C library's pointer in the 8 bytes below. */
void* sysenv_default_malloc(void* handle, uint64_t size);
void* sysenv_default_calloc(void* handle, uint64_t count, uint64_t size);
void* sysenv_default_realloc(void* handle, void* pointer, uint64_t size);
void sysenv_default_free(void* handle, void* pointer);

/* Bounded text routines. */
uint64_t sysstr_len(const char* text);
char* sysstr_copy(uint64_t size, char* destination, const char* source);
/* Formats into `buffer` of `size` bytes. Returns the number of characters, or
 * -1 when the text did not fit or formatting failed. The buffer always holds a
 * terminated text (cut at size - 1 when it did not fit) unless size is 0. */
int32_t sysstr_vformat(uint64_t size, char* buffer, const char* format, va_list arguments)
    SYSENV_PRINTF(3, 0);
int32_t sysstr_format(uint64_t size, char* buffer, const char* format, ...) SYSENV_PRINTF(3, 4);

#ifdef __cplusplus
}
#endif

#endif
