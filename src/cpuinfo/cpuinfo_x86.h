// The CPUID instruction, shared by the native ports of both platforms.
#ifndef HOSTKIT_CPUINFO_X86_H
#define HOSTKIT_CPUINFO_X86_H

#include <cpuid.h>

#include <cstdint>

inline void cpuinfo_x86_cpuid(uint32_t leaf, uint32_t subleaf, uint32_t regs[4]) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  __cpuid_count(leaf, subleaf, a, b, c, d);
  regs[0] = a;
  regs[1] = b;
  regs[2] = c;
  regs[3] = d;
}

#endif
