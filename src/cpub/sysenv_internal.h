// The default allocators' bodies, for the layer's own files and tests.
#ifndef HOSTKIT_SYSENV_INTERNAL_H
#define HOSTKIT_SYSENV_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "sysenv.h"

// The bodies of the default allocation and release, inline so that the
// manager's untracked path runs them without a call through its callback
// when the callbacks are the defaults (the case of every environment made
// without user allocators). Each C library block is 40 bytes larger than the
// caller's, and the word below the caller's block holds the block's start.
inline constexpr uint64_t kSysEnvOverAllocation = 40;
inline constexpr uintptr_t kSysEnvAlignment = 32;

// Whether `size` bytes and the over-allocation overflow 64 bits.
inline bool sysenv_too_large(uint64_t size) { return size + kSysEnvOverAllocation < size; }

// Where the caller's block starts in a C library block at `raw`: the
// smallest multiple of 32 above raw + 8, so raw + 9 to raw + 40.
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
  void* raw = std::malloc(static_cast<size_t>(size + kSysEnvOverAllocation));
  return raw != nullptr ? sysenv_dress_inline(raw) : nullptr;
}

inline void sysenv_free_inline(void* pointer) {
  if (pointer != nullptr) std::free(sysenv_start_of(pointer));
}

#endif
