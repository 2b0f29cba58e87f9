// The host identity context: its record cache with the lifetime that bounds
// it, the lookup that fills it, the errors and the query.
#include "hostid_internal.h"

namespace {

constexpr int32_t kDefaultLifetime = 30;

// -1 until the first lookup of the process has read the environment.
int32_t g_lifetime = -1;

const HostidPort& port() { return *hostid_port(); }

// The process-wide lifetime of cached hardware addresses, in seconds.
int32_t lifetime() {
  if (g_lifetime < 0) {
    g_lifetime = hostid_lifetime_from_text(port().get_env(port().handle, "HID_DEBUG_HOSTID"));
  }
  return g_lifetime;
}

}  // namespace

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
  int64_t now = port().now(port().handle);
  int32_t seconds = lifetime();

  HostIdRecord* found = context->records;
  while (found != nullptr && found->type != type) found = found->next;
  if (found != nullptr) {
    // Only hardware addresses expire. The age is signed: a clock set back
    // gives a negative age, which is still young.
    if (type != HOSTID_TYPE_ETHER || now - context->records_time <= seconds) return found;
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
  } else if (type == HOSTID_TYPE_ETHER && hostid_read_adapter_addresses(context) == 0) {
    record->type = HOSTID_TYPE_NUMBER;
    record->value.number = 0xFFFFFFFFu;
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
  hostid_copy_bounded(buffer, hostid_chain_to_text(context, chain), HOSTID_QUERY_BUFFER_SIZE - 1);
  return 0;
}
