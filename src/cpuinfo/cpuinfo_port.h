/* The processor identification's view of the machine: the CPUID instruction
 * and the affinity of processes and threads. Every read of the processor and
 * every change of the thread's placement goes through the active port, which
 * is the real machine unless a test or a tool installs another one. */
#ifndef HOSTKIT_CPUINFO_PORT_H
#define HOSTKIT_CPUINFO_PORT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CpuinfoPort {
  /* CPUID with EAX = leaf and ECX = subleaf, on the processor where the
   * calling thread runs; regs receives EAX, EBX, ECX, EDX. */
  void (*cpuid)(uint32_t leaf, uint32_t subleaf, uint32_t regs[4]);
  /* The process's affinity mask and the mask of the processors the system
   * has, bit i for processor i, the first 64 processors only. Returns
   * non-zero on success; on failure both masks are 0. */
  int32_t (*process_affinity)(uint64_t* process_mask, uint64_t* system_mask);
  /* Places the calling thread on `mask`. Returns the thread's previous mask,
   * or 0 when it could not be placed there (and nothing changed). */
  uint64_t (*set_thread_affinity)(uint64_t mask);
  /* Gives up the rest of the time slice, so that a thread just moved runs on
   * its new processor before it goes on. */
  void (*yield)(void);
} CpuinfoPort;

/* The port over the real machine. */
const CpuinfoPort* cpuinfo_native_port(void);

/* The active port. */
const CpuinfoPort* cpuinfo_active_port(void);

/* Makes `port` the active one (null: the native port) and returns the port it
 * replaced. The record must outlive its use. Not for use while another thread
 * runs processor identification. */
const CpuinfoPort* cpuinfo_set_port(const CpuinfoPort* port);

#ifdef __cplusplus
}
#endif

#endif
