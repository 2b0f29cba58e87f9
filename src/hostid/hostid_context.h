/* The host identity context: a handle with a short-lived cache of identifier
 * records, the queries made through it, the records themselves and the text
 * form of a chain. */
#ifndef HOSTKIT_HOSTID_CONTEXT_H
#define HOSTKIT_HOSTID_CONTEXT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HOSTID_TYPE_DEFAULT (-1)
#define HOSTID_TYPE_NUMBER 1
#define HOSTID_TYPE_ETHER 2
#define HOSTID_TYPE_HOSTNAME 6

#define HOSTID_ERR_NO_MEMORY (-40)
#define HOSTID_ERR_BAD_CONTEXT (-42)
#define HOSTID_ERR_TYPE_NOT_AVAILABLE (-45)
#define HOSTID_ERR_NULL_HANDLE_SLOT (-130)

#define HOSTID_MINOR_BAD_CONTEXT 166
#define HOSTID_MINOR_TYPE_NOT_AVAILABLE 285

#define HOSTID_CONTEXT_TAG 0x66
#define HOSTID_QUERY_BUFFER_SIZE 4096
#define HOSTID_TEXT_BUFFER_SIZE 4096
#define HOSTID_NAME_TEXT_LIMIT 1024

/* One identifier value; `type` says which member of `value` is valid. */
typedef struct HostIdRecord {
  int16_t type;
  union {
    char text[HOSTID_NAME_TEXT_LIMIT + 1];
    uint8_t address[6];
    uint32_t number;
  } value;
  struct HostIdRecord* next;
} HostIdRecord;

typedef struct HostIdContext {
  int32_t tag;
  int32_t error_code;
  int32_t error_minor;
  HostIdRecord* records;
  int64_t records_time;
  char host_name_work[1024];
  char host_name_saved[1025];
} HostIdContext;

int32_t hostid_context_open(HostIdContext** out);
/* `buffer` needs room for 4096 bytes. */
int32_t hostid_query(HostIdContext* context, int32_t type, char* buffer);
void hostid_context_close(HostIdContext* context);

HostIdRecord* hostid_lookup_records(HostIdContext* context, int32_t type);
HostIdRecord* hostid_record_new(void);
void hostid_records_free(HostIdRecord* chain);
void hostid_error_reset(HostIdContext* context);
void hostid_error_set(HostIdContext* context, int32_t code, int32_t minor);
/* Copies at most `limit` bytes and always writes destination[limit]. */
void hostid_copy_bounded(char* destination, const char* source, int32_t limit);

/* The text of a whole chain in the process-wide result buffer, valid until
 * the next call from any context. */
const char* hostid_chain_to_text(HostIdContext* context, const HostIdRecord* chain);
/* `out` needs room for 1034 bytes (a host name record). */
char* hostid_record_to_text(const HostIdRecord* record, char* out);

#ifdef __cplusplus
}
#endif

#endif
