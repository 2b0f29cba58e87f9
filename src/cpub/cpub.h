/* The support layer: system environment, memory manager, locks, files and
 * streams. */
#ifndef HOSTKIT_CPUB_H
#define HOSTKIT_CPUB_H

#include "memman.h"
#include "sysenv.h"
#include "sysenv_stream.h"
#include "sysfile.h"
#include "sysutf8.h"
#include "syszstd.h"
#include "sysmutex.h"
#include "sysatomic.h"
#include "systhread.h"

#endif
