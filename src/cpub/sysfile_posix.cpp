// The file object's platform layer on POSIX. Paths are given to the system
// as UTF-8 bytes, which is what file names are here.
#include <fcntl.h>
#include <unistd.h>

#include "sysfile.h"
#include "sysfile_os.h"
#include "unicode.h"

extern "C" {

int32_t sysfile_os_path_utf8(SysEnv* /*env*/, const char* path, SysFileNativePath* native) {
  *native = {path, nullptr};
  return SYSFILE_OK;
}

int32_t sysfile_os_path_wide(SysEnv* env, const uint16_t* path, SysFileNativePath* native) {
  *native = {nullptr, nullptr};
  // An unpaired surrogate has no UTF-8 form and makes the path unusable.
  using unicode::LoneSurrogate;
  const uint64_t bytes = unicode::utf16_to_utf8(path, nullptr, 0, LoneSurrogate::kRefuse);
  if (bytes == 0) return SYSFILE_ERR_PATH;
  auto* text = static_cast<char*>(SYSENV_ALLOC(env, bytes, 1));
  if (text == nullptr) return SYSFILE_ERR_MEMORY;
  unicode::utf16_to_utf8(path, text, bytes, LoneSurrogate::kRefuse);
  *native = {text, text};
  return SYSFILE_OK;
}

int sysfile_os_open(const SysFileNativePath* native, SysFileDirection direction) {
  // The descriptor stays with this process: a child started later must not
  // keep the file open.
  int flags = O_CLOEXEC;
  switch (direction) {
    case SYSFILE_DIR_READ: flags |= O_RDONLY; break;
    case SYSFILE_DIR_WRITE: flags |= O_WRONLY | O_CREAT | O_TRUNC; break;
    case SYSFILE_DIR_APPEND: flags |= O_WRONLY | O_CREAT | O_APPEND; break;
  }
  const char* path = static_cast<const char*>(native->path);
  return direction == SYSFILE_DIR_READ ? ::open(path, flags) : ::open(path, flags, 0600);
}

FILE* sysfile_os_fdopen(int descriptor, const char* mode) { return ::fdopen(descriptor, mode); }

int sysfile_os_close(int descriptor) { return ::close(descriptor); }

}  // extern "C"
