// The reader of HID_DEBUG_HOSTID over arbitrary text: always a lifetime of 1
// to 30 seconds, and a text of one or two digits alone gives its own number
// whenever that lies in the range.
#include <cstdlib>
#include <string>

#include "hostid_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The environment holds text up to its first NUL.
  const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
  const int32_t lifetime = hostid_lifetime_from_text(text.c_str());
  if (lifetime < 1 || lifetime > 30) std::abort();
  const int value = std::atoi(text.c_str());
  const bool digits = text.size() <= 2 && text.find_first_not_of("0123456789") == std::string::npos;
  if (digits && value >= 1 && value <= 30 && lifetime != value) std::abort();
  return 0;
}
