// Internal seams of the environment, for tests and for the layer's own files.
#ifndef HOSTKIT_SYSENV_INTERNAL_H
#define HOSTKIT_SYSENV_INTERNAL_H

#include <cstdint>

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

#endif
