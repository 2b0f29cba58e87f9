/* Host identification: the host name and the machine's default hardware
 * identifier, through a context with a short-lived cache. */
#ifndef HOSTKIT_HOSTID_H
#define HOSTKIT_HOSTID_H

#include "hostid_context.h"
#include "hostid_net.h"
#include "hostid_port.h"

#endif
