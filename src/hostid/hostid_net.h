/* The host name through the run-time network layer, and the machine's
 * hardware addresses from its network adapters. */
#ifndef HOSTKIT_HOSTID_NET_H
#define HOSTKIT_HOSTID_NET_H

#include <stdint.h>

#include "hostid_context.h"

#ifdef __cplusplus
extern "C" {
#endif

#define HOSTID_MAX_ADDRESSES 10
#define HOSTID_CACHE_ADDRESSES 5
#define HOSTID_ADDRESS_CACHE_SECONDS 120

/* Host name. */
const char* hostname_get(HostIdContext* context);
int32_t hostname_read_utf8(char* buffer, int32_t size);
int32_t netlayer_gethostname(char* buffer, int32_t size);
int32_t netlayer_load(void);
/* Both return text the caller frees with hostid_heap_free. */
char* text_ansi_to_utf8(const char* text, int32_t* size);
char* text_wide_to_utf8(const uint16_t* text, int32_t* size);

/* Hardware addresses. */
int32_t hostid_read_adapter_addresses(HostIdContext* context);
int32_t hostid_adapters_enumerate(HostIdContext* context);
void hostid_adapters_from_ip_helper(int32_t physical_only);
void hostid_ip_helper_load(void);
int32_t hostid_adapter_is_physical(const char* name);
/* `list` has room for HOSTID_MAX_ADDRESSES addresses. */
int32_t hostid_address_add(uint8_t list[][6], int32_t* count, const uint8_t address[6]);
/* Reads a transport address (12 hexadecimal digits, upper case) into six
 * bytes. Returns 1, or 0 when the text is shorter than 12 characters. */
int32_t hostid_transport_address_parse(const uint16_t* text, uint8_t address[6]);

/* Whether only physical adapters count. Process-wide, off unless a program
 * turns it on; the report never does. */
void hostid_set_physical_only(int32_t on);

/* The facility's heap: zero-filled blocks from the process heap, through
 * the active port. */
void* hostid_heap_calloc(uint64_t count, uint64_t size);
void hostid_heap_free(void* block);

#ifdef __cplusplus
}
#endif

#endif
