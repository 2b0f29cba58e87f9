// Bounded text routines shared by the support layer.
#include <cstdio>

#include "sysenv.h"

extern "C" {

uint64_t sysstr_len(const char* text) {
  if (text == nullptr) return 0;
  uint64_t n = 0;
  while (text[n] != '\0') ++n;
  return n;
}

char* sysstr_copy(uint64_t size, char* destination, const char* source) {
  if (size == 0) return nullptr;
  uint64_t n = 0;
  if (source != nullptr) {
    while (n + 1 < size && source[n] != '\0') {
      destination[n] = source[n];
      ++n;
    }
  }
  destination[n] = '\0';
  return destination;
}

// A text that does not fit is cut at size - 1 and terminated, so that whoever
// receives the buffer always gets a terminated string; the result says -1.
int32_t sysstr_vformat(uint64_t size, char* buffer, const char* format, va_list arguments) {
  if (size == 0 || buffer == nullptr || format == nullptr) return -1;
  const int n = std::vsnprintf(buffer, static_cast<size_t>(size), format, arguments);
  if (n < 0) {
    buffer[0] = '\0';
    return -1;
  }
  if (static_cast<uint64_t>(n) >= size) return -1;
  return n;
}

int32_t sysstr_format(uint64_t size, char* buffer, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t n = sysstr_vformat(size, buffer, format, arguments);
  va_end(arguments);
  return n;
}

}  // extern "C"
