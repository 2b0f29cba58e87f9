// The thin platform layer under the file object: paths in the platform's own
// form, and descriptor open, attach and close.
#ifndef HOSTKIT_SYSFILE_OS_H
#define HOSTKIT_SYSFILE_OS_H

#include <cstdint>
#include <cstdio>

#include "sysenv.h"

extern "C" {

enum SysFileDirection { SYSFILE_DIR_READ = 0, SYSFILE_DIR_WRITE = 1, SYSFILE_DIR_APPEND = 2 };

// A path ready for the platform's open call; `owned` is a block of the
// environment that the file object releases after the open, or null.
struct SysFileNativePath {
  const void* path;
  void* owned;
};

// From a UTF-8 path already checked to be valid, and from a UTF-16 path.
// Each returns a file status: 0, 1 when out of memory, 9 for a path the
// platform can't be given.
int32_t sysfile_os_path_utf8(SysEnv* env, const char* path, SysFileNativePath* native);
int32_t sysfile_os_path_wide(SysEnv* env, const uint16_t* path, SysFileNativePath* native);

// Opens for one direction in binary; new files get owner read and write.
// The descriptor, or -1.
int sysfile_os_open(const SysFileNativePath* native, SysFileDirection direction);
FILE* sysfile_os_fdopen(int descriptor, const char* mode);
int sysfile_os_close(int descriptor);
}

#endif
