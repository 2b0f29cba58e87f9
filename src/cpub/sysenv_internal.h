// Internal seams of the environment, for tests and for the layer's own files.
#ifndef HOSTKIT_SYSENV_INTERNAL_H
#define HOSTKIT_SYSENV_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sysenv.h"

extern "C" {

// The C library allocator under the default allocators. Tests replace it to
// hand out blocks at chosen addresses and to count calls.
struct SysEnvCLib {
  void* (*malloc)(size_t size);
  void* (*calloc)(size_t count, size_t size);
  void* (*realloc)(void* pointer, size_t size);
  void (*free)(void* pointer);
};

// Installs `clib`, or the real C library for null. Returns the one it replaced.
SysEnvCLib sysenv_set_clib(const SysEnvCLib* clib);

// Where the default allocators place a caller's block inside a C library block
// that starts at `raw`: the smallest multiple of 32 above raw + 8.
uintptr_t sysenv_default_place(uintptr_t raw);
}

// The C library in use under the default allocators.
extern SysEnvCLib g_sysenv_clib;

// The bodies of the default allocation and release, inline so that the
// manager's untracked path runs them without a call through its callback
// when the callbacks are the defaults (the case of every environment made
// without user allocators). Each C library block is 40 bytes larger than the
// caller's, and the word below the caller's block holds the block's start.
inline constexpr uint64_t kSysEnvOverAllocation = 40;
inline constexpr uintptr_t kSysEnvAlignment = 32;

// Whether `size` bytes and the over-allocation overflow 64 bits.
inline bool sysenv_too_large(uint64_t size) { return size + kSysEnvOverAllocation < size; }

inline uintptr_t sysenv_place_inline(uintptr_t raw) {
  return raw + kSysEnvOverAllocation - ((raw + 8) % kSysEnvAlignment);
}

// The caller's block inside the C library block `raw`, with the start noted.
inline void* sysenv_dress_inline(void* raw) {
  const uintptr_t result = sysenv_place_inline(reinterpret_cast<uintptr_t>(raw));
  std::memcpy(reinterpret_cast<void*>(result - sizeof(void*)), &raw, sizeof(void*));
  return reinterpret_cast<void*>(result);
}

// The start of the C library block under a caller's block.
inline void* sysenv_start_of(void* pointer) {
  void* raw = nullptr;
  std::memcpy(&raw, static_cast<char*>(pointer) - sizeof(void*), sizeof(void*));
  return raw;
}

inline void* sysenv_malloc_inline(uint64_t size) {
  if (sysenv_too_large(size) || size == 0) return nullptr;
  void* raw = g_sysenv_clib.malloc(static_cast<size_t>(size + kSysEnvOverAllocation));
  return raw != nullptr ? sysenv_dress_inline(raw) : nullptr;
}

inline void sysenv_free_inline(void* pointer) {
  if (pointer != nullptr) g_sysenv_clib.free(sysenv_start_of(pointer));
}

#endif
