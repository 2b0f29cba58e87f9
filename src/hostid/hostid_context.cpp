// The host identity context: its record cache, the queries through it and
// the text form of a chain.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hostid_internal.h"

namespace {

constexpr int32_t kDefaultLifetime = 30;

// -1 until the first lookup of the process has read the environment.
int32_t g_lifetime = -1;

// Result buffer of the chain text, shared by every context.
char g_text[HOSTID_TEXT_BUFFER_SIZE];

int g_fail_at = 0;
int g_allocations = 0;
int64_t g_live = 0;

bool type_expires(int32_t type) { return type == HOSTID_TYPE_ETHER; }

const HostidPort& port() { return *hostid_port(); }

}  // namespace

extern "C" void* hostid_heap_calloc(uint64_t count, uint64_t size) {
  ++g_allocations;
  if (g_fail_at != 0 && g_allocations == g_fail_at) return nullptr;
  void* block = std::calloc(static_cast<size_t>(count), static_cast<size_t>(size));
  if (block != nullptr) ++g_live;
  return block;
}

extern "C" void hostid_heap_free(void* block) {
  if (block == nullptr) return;
  --g_live;
  std::free(block);
}

int hostid_heap_fail_at(int n) {
  int made = g_allocations;
  g_allocations = 0;
  g_fail_at = n;
  return made;
}

int64_t hostid_heap_live() { return g_live; }

int32_t hostid_lifetime_from_text(const char* text) {
  if (text == nullptr) return kDefaultLifetime;
  const char* p = text;
  while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  // Saturating: any number too large to matter is as good as 31.
  int64_t value = 0;
  while (*p >= '0' && *p <= '9') {
    if (value < 1000) value = value * 10 + (*p - '0');
    ++p;
  }
  if (negative) value = -value;
  return value >= 1 && value <= kDefaultLifetime ? static_cast<int32_t>(value) : kDefaultLifetime;
}

extern "C" int32_t hostid_lifetime(void) {
  if (g_lifetime < 0) {
    const HostidPort& p = port();
    g_lifetime = hostid_lifetime_from_text(p.get_env(p.handle, "HID_DEBUG_HOSTID"));
  }
  return g_lifetime;
}

void hostid_context_process_reset() {
  g_lifetime = -1;
  g_text[0] = '\0';
}

void hostid_process_reset() {
  hostid_context_process_reset();
  hostid_net_process_reset();
  hostid_adapters_process_reset();
}

extern "C" void hostid_error_reset(HostIdContext* context) {
  if (context == nullptr) return;
  context->error_code = 0;
  context->error_minor = 0;
}

extern "C" void hostid_error_set(HostIdContext* context, int32_t code, int32_t minor) {
  if (context == nullptr) return;
  context->error_code = code;
  context->error_minor = minor;
}

extern "C" void hostid_copy_bounded(char* destination, const char* source, int32_t limit) {
  if (destination == nullptr) return;
  // A negative limit is taken as no room at all.
  if (source == nullptr || limit <= 0) {
    destination[0] = '\0';
    return;
  }
  for (int32_t i = 0; i < limit; ++i) {
    destination[i] = source[i];
    if (source[i] == '\0') break;
  }
  destination[limit] = '\0';
}

extern "C" HostIdRecord* hostid_record_new(void) {
  return static_cast<HostIdRecord*>(hostid_heap_calloc(1, sizeof(HostIdRecord)));
}

extern "C" void hostid_records_free(HostIdRecord* chain) {
  while (chain != nullptr) {
    HostIdRecord* next = chain->next;
    hostid_heap_free(chain);
    chain = next;
  }
}

extern "C" int32_t hostid_context_open(HostIdContext** out) {
  if (out == nullptr) return HOSTID_ERR_NULL_HANDLE_SLOT;
  *out = nullptr;
  auto* context = static_cast<HostIdContext*>(hostid_heap_calloc(1, sizeof(HostIdContext)));
  if (context == nullptr) return HOSTID_ERR_NO_MEMORY;
  context->tag = HOSTID_CONTEXT_TAG;
  *out = context;
  return 0;
}

extern "C" void hostid_context_close(HostIdContext* context) {
  if (context == nullptr) return;
  if (context->tag != HOSTID_CONTEXT_TAG) {
    if (context->error_code == 0) {
      hostid_error_set(context, HOSTID_ERR_BAD_CONTEXT, HOSTID_MINOR_BAD_CONTEXT);
    }
    return;
  }
  hostid_records_free(context->records);
  context->records = nullptr;
  context->tag = 0;
  hostid_heap_free(context);
}

extern "C" HostIdRecord* hostid_lookup_records(HostIdContext* context, int32_t type) {
  const HostidPort& p = port();
  int64_t now = p.now(p.handle);
  int32_t lifetime = hostid_lifetime();

  HostIdRecord* found = context->records;
  while (found != nullptr && found->type != type) found = found->next;
  if (found != nullptr) {
    if (!type_expires(type)) return found;
    // Signed: a clock set back gives a negative age, which is still young.
    if (now - context->records_time <= lifetime) return found;
  }

  hostid_records_free(context->records);
  context->records = nullptr;
  context->records_time = now;

  HostIdRecord* record = hostid_record_new();
  if (record == nullptr) return nullptr;
  record->type = static_cast<int16_t>(type);
  context->records = record;

  if (type == HOSTID_TYPE_HOSTNAME) {
    hostid_copy_bounded(record->value.text, hostname_get(context), HOSTID_NAME_TEXT_LIMIT);
  } else if (type == HOSTID_TYPE_ETHER) {
    if (hostid_read_adapter_addresses(context) == 0) {
      record->type = HOSTID_TYPE_NUMBER;
      record->value.number = 0xFFFFFFFFu;
    }
  }
  return record;
}

extern "C" int32_t hostid_query(HostIdContext* context, int32_t type, char* buffer) {
  hostid_error_reset(context);
  if (type != HOSTID_TYPE_DEFAULT && type != HOSTID_TYPE_ETHER && type != HOSTID_TYPE_HOSTNAME) {
    hostid_error_set(context, HOSTID_ERR_TYPE_NOT_AVAILABLE, HOSTID_MINOR_TYPE_NOT_AVAILABLE);
    return HOSTID_ERR_TYPE_NOT_AVAILABLE;
  }
  HostIdRecord* chain =
      hostid_lookup_records(context, type == HOSTID_TYPE_DEFAULT ? HOSTID_TYPE_ETHER : type);
  if (chain == nullptr) return context->error_code;
  const char* text = hostid_chain_to_text(context, chain);
  hostid_copy_bounded(buffer, text, HOSTID_QUERY_BUFFER_SIZE - 1);
  return 0;
}

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
