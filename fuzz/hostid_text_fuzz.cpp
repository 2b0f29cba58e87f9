// The text form of arbitrary chains: any types, any host name bytes, any
// length of chain. The text always ends within the 4096-byte buffer, several
// records are quoted, and one address is 12 digits.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hostid_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<HostIdRecord> records;
  for (size_t at = 0; at + 1 < size && records.size() < 64;) {
    HostIdRecord& r = records.emplace_back();
    r.type = static_cast<int16_t>(static_cast<int8_t>(data[at]) % 8);
    // Then 8 times as many bytes as the next one says: the first 1024 of them
    // are the text or the address, and the NUL behind them stays.
    const size_t take = std::min<size_t>(data[at + 1] * 8u, size - at - 2);
    std::memcpy(r.value.text, data + at + 2, std::min<size_t>(take, HOSTID_NAME_TEXT_LIMIT));
    at += 2 + take;
  }
  for (size_t i = 0; i + 1 < records.size(); ++i) records[i].next = &records[i + 1];
  const char* text = hostid_chain_to_text(nullptr, records.empty() ? nullptr : records.data());
  const size_t length = std::strlen(text);
  if (length >= HOSTID_TEXT_BUFFER_SIZE || (records.size() > 1 && text[0] != '"')) std::abort();
  if (records.size() == 1 && records[0].type == HOSTID_TYPE_ETHER && length != 12) std::abort();
  return 0;
}
