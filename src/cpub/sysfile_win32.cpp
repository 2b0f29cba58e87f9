// The file object's platform layer on Windows: UTF-16 paths through _wopen,
// descriptors of the C runtime.
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include "sysfile.h"
#include "sysfile_os.h"
#include "sysutf8.h"

static_assert(sizeof(wchar_t) == sizeof(uint16_t), "Windows wide text is UTF-16");

extern "C" {

int32_t sysfile_os_path_utf8(SysEnv* env, const char* path, SysFileNativePath* native) {
  *native = {nullptr, nullptr};
  uint64_t units = 0;
  if (sysenv_utf8_to_utf16(env, 0, &units, nullptr, nullptr, path) != 0) return SYSFILE_ERR_PATH;
  auto* wide = static_cast<uint16_t*>(SYSENV_ALLOC(env, units + 1, sizeof(uint16_t)));
  if (wide == nullptr) return SYSFILE_ERR_MEMORY;
  sysenv_utf8_to_utf16(env, units + 1, nullptr, wide, nullptr, path);
  *native = {wide, wide};
  return SYSFILE_OK;
}

int32_t sysfile_os_path_wide(SysEnv* /*env*/, const uint16_t* path, SysFileNativePath* native) {
  *native = {path, nullptr};
  return SYSFILE_OK;
}

int sysfile_os_open(const SysFileNativePath* native, SysFileDirection direction) {
  const auto* path = static_cast<const wchar_t*>(native->path);
  switch (direction) {
    case SYSFILE_DIR_READ: return _wopen(path, _O_RDONLY | _O_BINARY);
    case SYSFILE_DIR_WRITE:
      return _wopen(path, _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, _S_IREAD | _S_IWRITE);
    case SYSFILE_DIR_APPEND:
      return _wopen(path, _O_WRONLY | _O_CREAT | _O_APPEND | _O_BINARY, _S_IREAD | _S_IWRITE);
  }
  return -1;
}

FILE* sysfile_os_fdopen(int descriptor, const char* mode) { return _fdopen(descriptor, mode); }

int sysfile_os_close(int descriptor) { return _close(descriptor); }

}  // extern "C"
