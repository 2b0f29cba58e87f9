// The system environment: creation and end, message streams, the fatal path,
// and the default allocators.
#include "sysenv.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cpuinfo.h"
#include "memman.h"
#include "sysenv_internal.h"

extern "C" {

void* sysenv_default_malloc(void* /*handle*/, uint64_t size) { return sysenv_malloc_inline(size); }

void* sysenv_default_calloc(void* /*handle*/, uint64_t count, uint64_t size) {
  const uint64_t total = count * size;
  if (sysenv_too_large(total) || total == 0) return nullptr;
  void* raw = std::calloc(static_cast<size_t>(total + kSysEnvOverAllocation), 1);
  return raw != nullptr ? sysenv_dress_inline(raw) : nullptr;
}

void* sysenv_default_realloc(void* handle, void* pointer, uint64_t size) {
  if (sysenv_too_large(size)) return nullptr;
  if (size == 0) {
    if (pointer != nullptr) sysenv_default_free(handle, pointer);
    return nullptr;
  }
  if (pointer == nullptr) return sysenv_default_malloc(handle, size);
  void* old_raw = sysenv_start_of(pointer);
  const uintptr_t offset = reinterpret_cast<uintptr_t>(pointer) - reinterpret_cast<uintptr_t>(old_raw);
  void* raw = std::realloc(old_raw, static_cast<size_t>(size + kSysEnvOverAllocation));
  if (raw == nullptr) return nullptr;
  // The content moved with the block, so the caller's bytes stay at the same
  // distance from its start.
  char* result = static_cast<char*>(raw) + offset;
  std::memcpy(result - sizeof(void*), &raw, sizeof(void*));
  return result;
}

void sysenv_default_free(void* /*handle*/, void* pointer) { sysenv_free_inline(pointer); }

SysEnv* sysenv_create(int32_t mode, int32_t tracking, void* user_handle,
                      SysEnvMallocCallback user_malloc, SysEnvCallocCallback user_calloc,
                      SysEnvReallocCallback user_realloc, SysEnvFreeCallback user_free) {
  const bool user = user_malloc != nullptr && user_calloc != nullptr && user_realloc != nullptr &&
                    user_free != nullptr;
  MemManager* memory =
      user ? memman_create(tracking, user_handle, user_malloc, user_calloc, user_realloc, user_free)
           : memman_create(tracking, nullptr, sysenv_default_malloc, sysenv_default_calloc,
                           sysenv_default_realloc, sysenv_default_free);
  if (memory == nullptr) return nullptr;

  auto* env = static_cast<SysEnv*>(memman_calloc(__FILE__, __LINE__, memory, 1, sizeof(SysEnv)));
  if (env == nullptr) {
    memman_delete(__FILE__, __LINE__, &memory);
    return nullptr;
  }
  env->memory = memory;

  auto* handler = static_cast<SysEnvFatalHandler*>(
      memman_calloc(__FILE__, __LINE__, memory, 1, sizeof(SysEnvFatalHandler)));
  if (handler == nullptr) return env;  // half made: ready stays 0

  env->mode = mode;
  env->fatal_handler = handler;
  env->ready = 0;
  env->log_level = 0;
  env->preset_c = 1;
  env->class_setting = 0;
  env->cache_l1 = -1;
  env->cache_l2 = -1;
  env->preset_b = -1;

  memman_set_fatal_callback(memory, sysenv_memman_fatal, env);
  env->preset_a = 16;
  env->path_separator = ';';
  sysstr_copy(sizeof env->path_variable, env->path_variable, "PATH");
  sysstr_copy(sizeof env->library_suffix, env->library_suffix, ".dll");

  // Processor settings, taken silently: log_level is still 0 here.
  CpuSystemInfo info;
  cpuinfo_system_info(env->log_level, &info);
  // 10010 (not 10000) is the value readers expect for class 19, AMD family 23.
  env->class_setting = info.procid == 19 ? 10010 : 10;
  env->cache_l1 = static_cast<int32_t>(info.l1);
  env->cache_l2 = static_cast<int32_t>(info.l2);
  env->has_sse2 = static_cast<int32_t>(info.has_sse2);
  env->has_sse3 = static_cast<int32_t>(info.has_sse3);

  env->ready = 1;
  return env;
}

int32_t sysenv_destroy(SysEnv** env_slot) {
  if (env_slot == nullptr || *env_slot == nullptr) return SYSENV_OK;
  SysEnv* env = *env_slot;
  MemManager* memory = env->memory;
  memman_free(__FILE__, __LINE__, memory, env->fatal_handler);
  env->fatal_handler = nullptr;
  memman_free(__FILE__, __LINE__, memory, env);
  const uint64_t left = memman_delete(__FILE__, __LINE__, &memory);
  *env_slot = nullptr;
  return left > 0 ? SYSENV_BLOCKS_LEFT : SYSENV_OK;
}

void sysenv_set_log_level(SysEnv* env, int32_t level) {
  if (env != nullptr) env->log_level = level;
}

// Stream 0 is the only stream. A registration takes the lowest free slot, so
// every registered receiver gets all the text; registering the same callback
// and handle again changes nothing, and with all ten slots taken the call is
// ignored. A null callback removes the registrations made with `handle`.
void sysenv_set_stream(SysEnv* env, int32_t stream, void* handle, SysEnvStreamCallback callback) {
  if (env == nullptr || stream != 0) return;
  if (callback == nullptr) {
    for (int i = 0; i < SYSENV_STREAM_SLOTS; ++i) {
      if (env->stream_callback[i] != nullptr && env->stream_handle[i] == handle) {
        env->stream_callback[i] = nullptr;
        env->stream_handle[i] = nullptr;
      }
    }
    return;
  }
  for (int i = 0; i < SYSENV_STREAM_SLOTS; ++i) {
    if (env->stream_callback[i] == callback && env->stream_handle[i] == handle) return;
  }
  for (int i = 0; i < SYSENV_STREAM_SLOTS; ++i) {
    if (env->stream_callback[i] == nullptr) {
      env->stream_handle[i] = handle;
      env->stream_callback[i] = callback;
      return;
    }
  }
}

void sysenv_printf(SysEnv* env, const char* format, ...) {
  char buffer[SYSENV_PRINT_BUFFER];
  va_list arguments;
  va_start(arguments, format);
  sysstr_vformat(sizeof buffer, buffer, format, arguments);
  va_end(arguments);
  if (env == nullptr) return;
  for (int i = 0; i < SYSENV_STREAM_SLOTS; ++i) {
    if (env->stream_callback[i] != nullptr) env->stream_callback[i](env->stream_handle[i], buffer);
  }
}

// Standard output is flushed before the abort so that the last words reach a
// pipe or a file as well as a console.
void sysenv_fatal(SysEnv* env, const char* file, int32_t line, const char* format, ...) {
  char text[SYSENV_FATAL_BUFFER];
  va_list arguments;
  va_start(arguments, format);
  sysstr_vformat(sizeof text, text, format, arguments);
  va_end(arguments);

  if (env == nullptr) {
    std::printf("\n\nFatal error");
    std::printf("\nFile : %s", file);
    std::printf("\nLine : %d", line);
    std::printf("\nMsg. : %s\n", text);
  } else if (env->fatal_handler != nullptr) {
    if (env->fatal_handler->callback != nullptr) {
      env->fatal_handler->callback(env->fatal_handler->handle, file, line, text, -1);
    }
    sysenv_printf(env, "\n\nFatal error");
    sysenv_printf(env, "\nFile : %s", file);
    sysenv_printf(env, "\nLine : %d", line);
    sysenv_printf(env, "\nMsg. : %s\n", text);
  }
  std::fflush(stdout);
  std::abort();
}

void sysenv_memman_fatal(void* handle, const char* file, int32_t line, const char* text,
                         int32_t /*code*/) {
  sysenv_fatal(static_cast<SysEnv*>(handle), file, line, "%s", text);
}

void sysenv_check(SysEnv* env, const char* file, int32_t line, int32_t condition) {
  if (condition != 0) return;
  sysenv_fatal(env, file, line, "Assertion failed at %s(%d).", file, line);
}

void sysenv_assert_failed(const char* expression, const char* file, int32_t line) {
  std::printf("Assertion '%s' failed at %s:%d.\n", expression, file, line);
  std::fflush(stdout);
  std::abort();
}

void* sysenv_calloc(SysEnv* env, const char* file, int32_t line, uint64_t count, uint64_t size) {
  return memman_calloc(file, line, env->memory, count, size);
}

void* sysenv_alloc(SysEnv* env, const char* file, int32_t line, uint64_t count, uint64_t size) {
  return memman_alloc(file, line, env->memory, count, size);
}

void sysenv_free(SysEnv* env, const char* file, int32_t line, void* pointer) {
  if (pointer == env) {
    sysenv_fatal(env, file, line, "Trying to free the sysenv. sys: %p == buffer: %p",
                 static_cast<void*>(env), pointer);
  }
  memman_free(file, line, env->memory, pointer);
}

}  // extern "C"
