// The file object's platform layer on POSIX. Paths are given to the system
// as UTF-8 bytes, which is what file names are here.
#include <fcntl.h>
#include <unistd.h>

#include "sysfile.h"
#include "sysfile_os.h"

namespace {

// UTF-16 to UTF-8 for the wide entry point. An unpaired surrogate has no
// UTF-8 form and makes the path unusable: 0 then.
uint64_t utf16_to_utf8(const uint16_t* path, char* out) {
  uint64_t n = 0;
  for (uint64_t i = 0; path[i] != 0; ++i) {
    uint32_t v = path[i];
    if (v >= 0xD800 && v < 0xE000) {
      const uint32_t low = path[i + 1];
      if (v >= 0xDC00 || low < 0xDC00 || low >= 0xE000) return 0;
      v = 0x10000 + ((v - 0xD800) << 10) + (low - 0xDC00);
      ++i;
    }
    char bytes[4];
    int k;
    if (v < 0x80) {
      bytes[0] = static_cast<char>(v);
      k = 1;
    } else if (v < 0x800) {
      bytes[0] = static_cast<char>(0xC0 | (v >> 6));
      bytes[1] = static_cast<char>(0x80 | (v & 0x3F));
      k = 2;
    } else if (v < 0x10000) {
      bytes[0] = static_cast<char>(0xE0 | (v >> 12));
      bytes[1] = static_cast<char>(0x80 | ((v >> 6) & 0x3F));
      bytes[2] = static_cast<char>(0x80 | (v & 0x3F));
      k = 3;
    } else {
      bytes[0] = static_cast<char>(0xF0 | (v >> 18));
      bytes[1] = static_cast<char>(0x80 | ((v >> 12) & 0x3F));
      bytes[2] = static_cast<char>(0x80 | ((v >> 6) & 0x3F));
      bytes[3] = static_cast<char>(0x80 | (v & 0x3F));
      k = 4;
    }
    for (int j = 0; j < k; ++j) {
      if (out != nullptr) out[n] = bytes[j];
      ++n;
    }
  }
  if (out != nullptr) out[n] = '\0';
  return n + 1;
}

}  // namespace

extern "C" {

int32_t sysfile_os_path_utf8(SysEnv* /*env*/, const char* path, SysFileNativePath* native) {
  *native = {path, nullptr};
  return SYSFILE_OK;
}

int32_t sysfile_os_path_wide(SysEnv* env, const uint16_t* path, SysFileNativePath* native) {
  *native = {nullptr, nullptr};
  const uint64_t bytes = utf16_to_utf8(path, nullptr);
  if (bytes == 0) return SYSFILE_ERR_PATH;
  auto* text = static_cast<char*>(SYSENV_ALLOC(env, bytes, 1));
  if (text == nullptr) return SYSFILE_ERR_MEMORY;
  utf16_to_utf8(path, text);
  *native = {text, text};
  return SYSFILE_OK;
}

void sysfile_os_path_release(SysEnv* env, SysFileNativePath* native) {
  if (native->owned != nullptr) SYSENV_FREE(env, native->owned);
  *native = {nullptr, nullptr};
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
