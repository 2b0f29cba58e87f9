/* The support layer: system environment, memory manager, locks. */
#ifndef HOSTKIT_CPUB_H
#define HOSTKIT_CPUB_H

#include "memman.h"
#include "sysenv.h"
#include "sysmutex.h"
#include "sysatomic.h"
#include "systhread.h"

#endif
