// The process-wide active port and the CPUID read through it.
#include "cpuinfo.h"

namespace {

const CpuinfoPort* g_port = nullptr;

}  // namespace

extern "C" {

const CpuinfoPort* cpuinfo_active_port(void) {
  return g_port != nullptr ? g_port : cpuinfo_native_port();
}

const CpuinfoPort* cpuinfo_set_port(const CpuinfoPort* port) {
  const CpuinfoPort* previous = cpuinfo_active_port();
  g_port = port;
  return previous;
}

void cpuinfo_cpuid(uint32_t leaf, uint32_t subleaf, uint32_t* eax, uint32_t* ebx, uint32_t* ecx,
                   uint32_t* edx) {
  uint32_t regs[4] = {0, 0, 0, 0};
  cpuinfo_active_port()->cpuid(leaf, subleaf, regs);
  *eax = regs[0];
  *ebx = regs[1];
  *ecx = regs[2];
  *edx = regs[3];
}

}  // extern "C"
