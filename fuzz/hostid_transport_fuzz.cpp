// The transport address parser and the address filter over arbitrary wide
// text: never a read past the text's end, never a list past its ten places.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hostid_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The input is a run of transport addresses, UTF-16 units separated by 0.
  std::vector<uint16_t> units(size / 2 + 1, 0);
  for (size_t i = 0; i + 1 < size; i += 2) {
    units[i / 2] = static_cast<uint16_t>(data[i] | (data[i + 1] << 8));
  }
  uint8_t list[HOSTID_MAX_ADDRESSES][6];
  int32_t count = 0;
  size_t at = 0;
  while (at < units.size()) {
    size_t length = 0;
    while (units[at + length] != 0) ++length;
    uint8_t address[6] = {};
    int32_t parsed = hostid_transport_address_parse(&units[at], address);
    if (parsed != (length >= 12 ? 1 : 0)) std::abort();
    if (parsed != 0) {
      int32_t before = count;
      int32_t added = hostid_address_add(list, &count, address);
      if (count != before + added || count > HOSTID_MAX_ADDRESSES) std::abort();
      if (added != 0 && (std::memcmp(address, "DEST", 4) == 0 ||
                         (address[3] == 0 && address[4] == 0 && address[5] == 0))) {
        std::abort();
      }
    }
    at += length + 1;
  }
  // No two equal addresses in the list.
  for (int32_t i = 0; i < count; ++i) {
    for (int32_t j = i + 1; j < count; ++j) {
      if (std::memcmp(list[i], list[j], 6) == 0) std::abort();
    }
  }
  return 0;
}
