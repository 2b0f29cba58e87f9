/* Host identification: the host name and the machine's default hardware
 * identifier, through a context with a short-lived cache. */
#ifndef HOSTKIT_HOSTID_H
#define HOSTKIT_HOSTID_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct HostIdContext HostIdContext;

#ifdef __cplusplus
}
#endif

#endif
