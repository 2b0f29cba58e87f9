// The native port on Windows: the CPUID instruction and the process and thread
// affinity services. Masks are those of the process's processor group, which
// holds at most 64 processors.
#include <windows.h>

#include "cpuinfo_port.h"
#include "cpuinfo_x86.h"

namespace {

int32_t native_process_affinity(uint64_t* process_mask, uint64_t* system_mask) {
  DWORD_PTR process = 0, system = 0;
  if (!GetProcessAffinityMask(GetCurrentProcess(), &process, &system)) {
    *process_mask = *system_mask = 0;
    return 0;
  }
  *process_mask = process;
  *system_mask = system;
  return 1;
}

uint64_t native_set_thread_affinity(uint64_t mask) {
  return SetThreadAffinityMask(GetCurrentThread(), static_cast<DWORD_PTR>(mask));
}

void native_yield() { Sleep(0); }

constexpr CpuinfoPort kNativePort = {cpuinfo_x86_cpuid, native_process_affinity,
                                     native_set_thread_affinity, native_yield};

}  // namespace

extern "C" const CpuinfoPort* cpuinfo_native_port(void) { return &kNativePort; }
