/* Processor identification: counting logical processors, cores and sockets,
 * the processor class, cache sizes and two feature flags. */
#ifndef HOSTKIT_CPUINFO_H
#define HOSTKIT_CPUINFO_H

#include <stdint.h>

#include "cpuinfo_port.h"

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

/* The CPUID leaves the classification works from, read once per snapshot. */
typedef struct CpuIdSnapshot {
  int32_t state;            /* 0 before the first query, 1 once read */
  uint32_t feature_edx;     /* leaf 1 EDX */
  uint32_t feature_ecx;     /* leaf 1 ECX */
  uint32_t ext_feature_edx; /* leaf 0x80000001 EDX, 0 without that leaf */
  uint32_t signature;       /* leaf 1 EAX */
  char vendor[13];          /* leaf 0 EBX, EDX, ECX, terminated */
  char brand[48];           /* leaves 0x80000002..4, not terminated */
  uint32_t l1_regs[4];      /* leaf 0x80000005, zeros without it */
  uint32_t l2_regs[4];      /* leaf 0x80000006, zeros without it */
} CpuIdSnapshot;

/* Status of cpuinfo_count_cores. */
enum {
  CPUINFO_ONE_CORE_SMT_IN_USE = 1,
  CPUINFO_ONE_CORE_SMT_IDLE = 2,
  CPUINFO_ONE_CORE_NO_SMT = 4,
  CPUINFO_MULTI_CORE_NO_SMT = 5,
  CPUINFO_MULTI_CORE_SMT_IN_USE = 6,
  CPUINFO_MULTI_CORE_SMT_IDLE = 7,
  CPUINFO_NOT_COUNTED = 8
};

/* Fills `info`; with `verbose` non-zero writes its trace to standard output. */
void cpuinfo_system_info(int32_t verbose, CpuSystemInfo* info);

/* Counts logical processors, cores and sockets; the trace goes through the
 * environment's message streams. Returns the status flag. */
uint32_t cpuinfo_count_cores(SysEnv* env, uint32_t* logical, uint32_t* cores, uint32_t* sockets,
                             int32_t verbose);

/* Question `query` (0..30 identification and features, above 30 caches) put
 * to `snapshot`, which is read on the first query while its state is 0. */
uint32_t cpuinfo_query(uint32_t query, CpuIdSnapshot* snapshot, int32_t verbose);

/* Cache sizes in kilobytes from the descriptors of leaf 2; all three written. */
void cpuinfo_cache_sizes(uint32_t* l1, uint32_t* l2, uint32_t* l3, int32_t verbose);

/* CPUID through the active port. */
void cpuinfo_cpuid(uint32_t leaf, uint32_t subleaf, uint32_t* eax, uint32_t* ebx, uint32_t* ecx,
                   uint32_t* edx);
void cpuinfo_cpuid_leaf(uint32_t leaf, uint32_t* eax, uint32_t* ebx, uint32_t* ecx, uint32_t* edx);

/* Topology facts of the processor the thread runs on. */
uint32_t cpuinfo_htt_supported(void);
uint32_t cpuinfo_max_lp_per_package(void);
uint32_t cpuinfo_max_core_per_physical_proc(void);
/* Bits needed for values 0..n-1: 0 for n <= 1. */
uint32_t cpuinfo_field_width(uint32_t n);

#ifdef __cplusplus
}
#endif

#endif
