// Processor identification is not built yet: no class, no caches, one of
// everything.
#include <cstring>

#include "cpuinfo.h"

extern "C" void cpuinfo_system_info(int32_t, CpuSystemInfo* info) {
  std::memset(info, 0, sizeof *info);
}

extern "C" uint32_t cpuinfo_count_cores(SysEnv*, uint32_t* logical, uint32_t* cores,
                                        uint32_t* sockets, int32_t) {
  *logical = *cores = *sockets = 1;
  return 4;
}
