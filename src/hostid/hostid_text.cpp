// The text form of records and chains, as the report prints them.
#include <cinttypes>
#include <cstdio>

#include "hostid_internal.h"

namespace {

// Result buffer of the chain text, shared by every context.
char g_text[HOSTID_TEXT_BUFFER_SIZE];

}  // namespace

extern "C" char* hostid_record_to_text(const HostIdRecord* record, char* out) {
  out[0] = '\0';
  if (record == nullptr) return out;
  switch (record->type) {
    case HOSTID_TYPE_HOSTNAME:
      // The precision keeps a record whose text lost its NUL from being read
      // past its end; a well-formed record prints whole.
      std::snprintf(out, 9 + HOSTID_NAME_TEXT_LIMIT + 1, "%s%.*s",
                    "HOSTNAME=", HOSTID_NAME_TEXT_LIMIT, record->value.text);
      break;
    case HOSTID_TYPE_NUMBER:
      std::snprintf(out, 9, "%" PRIx32, record->value.number);
      break;
    case HOSTID_TYPE_ETHER: {
      // "%2x" pads with a blank, which becomes the leading 0 of the pair:
      // the form the identifier has always had, byte by byte.
      char* at = out;
      for (uint8_t byte : record->value.address) {
        std::snprintf(at, 3, "%2x", static_cast<unsigned>(byte));
        if (at[0] == ' ') at[0] = '0';
        at += 2;
      }
      *at = '\0';
      break;
    }
    default:
      break;
  }
  return out;
}

extern "C" const char* hostid_chain_to_text(HostIdContext* /*context*/, const HostIdRecord* chain) {
  int count = 0;
  for (const HostIdRecord* r = chain; r != nullptr; r = r->next) ++count;

  // Every write is bounded by the buffer: a chain whose text would not fit
  // is cut at the end of the buffer, and its closing quote only stands when
  // there is room for it.
  size_t at = 0;
  constexpr size_t kLast = sizeof g_text - 1;  // keeps room for the NUL
  auto put = [&](const char* text) {
    while (*text != '\0' && at < kLast) g_text[at++] = *text++;
  };
  if (count > 1) put("\"");
  char one[9 + HOSTID_NAME_TEXT_LIMIT + 1];
  for (const HostIdRecord* r = chain; r != nullptr; r = r->next) {
    put(hostid_record_to_text(r, one));
    if (r->next != nullptr) put(" ");
  }
  if (count > 1) put("\"");
  g_text[at] = '\0';
  return g_text;
}
