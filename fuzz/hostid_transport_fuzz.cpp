// The transport address parser and the address filter over arbitrary wide
// text: never a read past the text's end, never a list past its ten places,
// and nothing in it that the filter rejects, twice over or not.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hostid_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A run of transport addresses: UTF-16 units, each address ended by a 0.
  std::vector<uint16_t> units(size / 2 + 1, 0);
  std::memcpy(units.data(), data, size / 2 * 2);
  uint8_t list[HOSTID_MAX_ADDRESSES][6];
  int32_t count = 0;
  for (size_t at = 0, length = 0; at < units.size(); at += length + 1, length = 0) {
    while (units[at + length] != 0) ++length;
    uint8_t address[6] = {};
    const int32_t parsed = hostid_transport_address_parse(&units[at], address);
    if (parsed != (length >= 12 ? 1 : 0)) std::abort();
    const int32_t before = count;
    const int32_t added = parsed != 0 ? hostid_address_add(list, &count, address) : 0;
    const bool rejected = std::memcmp(address, "DEST", 4) == 0 ||
                          (address[3] | address[4] | address[5]) == 0 ||
                          std::memcmp(address, " LOOP ", 6) == 0;
    if (count != before + added || count > HOSTID_MAX_ADDRESSES) std::abort();
    if (added != 0 && rejected) std::abort();
    // The address just kept is a double now.
    if (added != 0 && hostid_address_add(list, &count, address) != 0) std::abort();
  }
  return 0;
}
