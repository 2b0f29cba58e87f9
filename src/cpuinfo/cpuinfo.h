/* Processor identification: counting logical processors, cores and sockets,
 * the processor class, cache sizes and two feature flags. */
#ifndef HOSTKIT_CPUINFO_H
#define HOSTKIT_CPUINFO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct SysEnv SysEnv;

typedef struct CpuSystemInfo {
  uint32_t procid;   /* processor class, 0 unknown */
  uint32_t l1;       /* level 1 data cache, kilobytes, 0 unknown */
  uint32_t l2;       /* level 2 cache, kilobytes, 0 unknown */
  uint32_t l3;       /* level 3 cache, kilobytes, 0 unknown */
  uint32_t has_sse2; /* 1 or 0 */
  uint32_t has_sse3; /* 1 or 0 */
} CpuSystemInfo;

/* Fills `info`; with `verbose` non-zero writes its trace to standard output. */
void cpuinfo_system_info(int32_t verbose, CpuSystemInfo* info);

/* Counts logical processors, cores and sockets; the trace goes through the
 * environment's message streams. Returns the status flag. */
uint32_t cpuinfo_count_cores(SysEnv* env, uint32_t* logical, uint32_t* cores, uint32_t* sockets,
                             int32_t verbose);

#ifdef __cplusplus
}
#endif

#endif
