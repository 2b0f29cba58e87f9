// The reader of HID_DEBUG_HOSTID over arbitrary text: always a lifetime of 1
// to 30 seconds, and the number itself whenever the text starts with one in
// that range.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "hostid_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  text = text.c_str();  // the environment holds text up to its first NUL
  int32_t lifetime = hostid_lifetime_from_text(text.c_str());
  if (lifetime < 1 || lifetime > 30) std::abort();
  // Independently: a text of one or two digits alone must give itself when
  // it lies in range.
  if (!text.empty() && text.size() <= 2 &&
      text.find_first_not_of("0123456789") == std::string::npos) {
    int value = std::atoi(text.c_str());
    if (value >= 1 && value <= 30 && lifetime != value) std::abort();
  }
  return 0;
}
