// The native port on Linux: the CPUID instruction, the scheduler's affinity
// calls, and the kernel's list of online processors as the system's mask.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>

#include "cpuinfo_port.h"
#include "cpuinfo_x86.h"

namespace {

constexpr int kMaskBits = 64;

uint64_t low_mask(const cpu_set_t& set) {
  uint64_t mask = 0;
  for (int i = 0; i < kMaskBits; ++i) {
    if (CPU_ISSET(static_cast<size_t>(i), &set)) mask |= uint64_t{1} << i;
  }
  return mask;
}

void set_bits(uint64_t* mask, long first, long last) {
  for (long i = first; i <= last && i < kMaskBits; ++i) {
    if (i >= 0) *mask |= uint64_t{1} << i;
  }
}

// The online list reads like "0-3,6,8-9". Anything it can't read makes the
// caller fall back on the count of online processors.
bool read_online_list(uint64_t* mask) {
  std::FILE* file = std::fopen("/sys/devices/system/cpu/online", "r");
  if (file == nullptr) return false;
  char text[4096];
  const size_t length = std::fread(text, 1, sizeof text - 1, file);
  std::fclose(file);
  text[length] = '\0';
  *mask = 0;
  const char* p = text;
  bool any = false;
  while (*p >= '0' && *p <= '9') {
    long first = 0;
    while (*p >= '0' && *p <= '9' && first < 1000000) first = first * 10 + (*p++ - '0');
    long last = first;
    if (*p == '-') {
      ++p;
      if (*p < '0' || *p > '9') return false;
      last = 0;
      while (*p >= '0' && *p <= '9' && last < 1000000) last = last * 10 + (*p++ - '0');
    }
    set_bits(mask, first, last);
    any = true;
    if (*p == ',') ++p;
  }
  return any && (*p == '\n' || *p == '\0');
}

uint64_t online_mask() {
  uint64_t mask = 0;
  if (read_online_list(&mask)) return mask;
  mask = 0;
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  set_bits(&mask, 0, count - 1);
  return mask;
}

// The main thread's mask stands for the process's: Linux keeps one per
// thread, and a process's threads inherit the main thread's at their start.
int32_t native_process_affinity(uint64_t* process_mask, uint64_t* system_mask) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(getpid(), sizeof set, &set) != 0) {
    *process_mask = *system_mask = 0;
    return 0;
  }
  *process_mask = low_mask(set);
  *system_mask = online_mask();
  return 1;
}

// A thread that stood only on processors beyond the 64th has no previous
// mask to give back; it reports the new mask instead, so that success never
// reads as failure.
uint64_t native_set_thread_affinity(uint64_t mask) {
  if (mask == 0) return 0;
  cpu_set_t previous;
  CPU_ZERO(&previous);
  if (pthread_getaffinity_np(pthread_self(), sizeof previous, &previous) != 0) return 0;
  cpu_set_t wanted;
  CPU_ZERO(&wanted);
  for (int i = 0; i < kMaskBits; ++i) {
    if ((mask >> i) & 1) CPU_SET(static_cast<size_t>(i), &wanted);
  }
  if (pthread_setaffinity_np(pthread_self(), sizeof wanted, &wanted) != 0) return 0;
  const uint64_t old = low_mask(previous);
  return old != 0 ? old : mask;
}

void native_yield() { sched_yield(); }

constexpr CpuinfoPort kNativePort = {cpuinfo_x86_cpuid, native_process_affinity,
                                     native_set_thread_affinity, native_yield};

}  // namespace

extern "C" const CpuinfoPort* cpuinfo_native_port(void) { return &kNativePort; }
