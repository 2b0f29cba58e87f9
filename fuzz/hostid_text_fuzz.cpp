// The text form of arbitrary chains: any types, any host name bytes, any
// length of chain. The text always ends within the 4096-byte buffer, and the
// query's copy within its 4095 bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hostid_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<HostIdRecord> records;
  size_t at = 0;
  while (at < size && records.size() < 64) {
    HostIdRecord r{};
    r.type = static_cast<int16_t>(static_cast<int8_t>(data[at++]) % 8);
    size_t take = at < size ? data[at++] : 0;
    take = take * 8 > size - at ? size - at : take * 8;
    // Text is copied as the lookup does: at most 1024 bytes and a NUL.
    std::vector<char> text(data + at, data + at + take);
    text.push_back('\0');
    hostid_copy_bounded(r.value.text, text.data(), HOSTID_NAME_TEXT_LIMIT);
    if (take < sizeof r.value.address) std::memcpy(r.value.address, data + at, take);
    at += take;
    records.push_back(r);
  }
  for (size_t i = 0; i + 1 < records.size(); ++i) records[i].next = &records[i + 1];
  const char* text = hostid_chain_to_text(nullptr, records.empty() ? nullptr : records.data());
  size_t length = std::strlen(text);
  if (length >= HOSTID_TEXT_BUFFER_SIZE) std::abort();
  if (records.size() > 1 && text[0] != '"') std::abort();
  if (records.size() == 1 && records[0].type == HOSTID_TYPE_ETHER && length != 12) std::abort();
  char buffer[HOSTID_QUERY_BUFFER_SIZE];
  hostid_copy_bounded(buffer, text, HOSTID_QUERY_BUFFER_SIZE - 1);
  if (std::strcmp(buffer, text) != 0) std::abort();
  return 0;
}
