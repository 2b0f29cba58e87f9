// A fake machine behind the processor identification's port, and the text
// helpers the cpuinfo tests share.
#ifndef HOSTKIT_TEST_FAKE_CPU_H
#define HOSTKIT_TEST_FAKE_CPU_H

#include <algorithm>
#include <array>
#include <cstdarg>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cpuinfo.h"

namespace hostkit_test {

using Regs = std::array<uint32_t, 4>;

// EAX of leaf 1 from its four fields.
constexpr uint32_t signature(uint32_t family, uint32_t ext_family, uint32_t model,
                             uint32_t ext_model) {
  return (ext_family << 20) | (ext_model << 16) | (family << 8) | (model << 4);
}

// Leaf 0 for a vendor string of 12 characters: EBX, EDX, ECX hold it.
inline Regs vendor_leaf(uint32_t max_leaf, const char* vendor) {
  Regs r{max_leaf, 0, 0, 0};
  std::memcpy(&r[1], vendor, 4);
  std::memcpy(&r[3], vendor + 4, 4);
  std::memcpy(&r[2], vendor + 8, 4);
  return r;
}

inline std::string without_cr(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '\r' ? "" : std::string(1, c);
  return out;
}

inline std::string format(const char* pattern, ...) {
  char text[512];
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(text, sizeof text, pattern, args);
  va_end(args);
  return text;
}

// The walk's trace lines for one processor.
inline std::string walk_lines(uint64_t mask, uint64_t system, int apic, int pkg, int core,
                              int smt) {
  const auto m = static_cast<unsigned long long>(mask);
  return format(
      "dwAffinityMask 0x%llx\ndwSystemAffinity 0x%llx\nAPIC_ID = %d\n  AffinityMask = %llu, "
      "Initial APIC = %d; Physical ID = %d, Core ID = %d,  SMT ID = %d\n",
      m, static_cast<unsigned long long>(system), apic, m, apic, pkg, core, smt);
}

// The classification trace's family and model lines.
inline std::string family_lines(int number, int extended, int model, int extended_model) {
  return format(
      "Cpu id family number          = %d\nCpu id extended family number = %d\n"
      "Cpu id family                 = %d\nCpu id model number           = %d\n"
      "Cpu id extended model         = %d\nCpu id  model                 = %d\n",
      number, extended, number + extended, model, extended_model, model + 16 * extended_model);
}

// The classification trace's last lines.
inline std::string info_lines(int procid, int l1, int l2, int sse2, int sse3, const char* brand) {
  return format(
      "Vegra procid = %d\nL1 = %d\nL2 = %d\nHAS_SSE2: %d \nHAS_SSE3: %d \nproc name str = %s\n",
      procid, l1, l2, sse2, sse3, brand);
}

// Per-processor leaves (a missing leaf reads as zeros; subleaves aren't
// modelled, every read uses subleaf 0), the masks, and a log of the port calls.
struct FakeCpu {
  std::vector<std::map<uint32_t, Regs>> processors;
  uint64_t process_mask, system_mask, thread_mask;
  bool masks_fail = false;
  uint64_t refused = 0;  // processors that won't take the thread
  std::vector<std::string> log;
  std::vector<uint32_t> leaves_read;
  int reads_before_yield = 0;  // CPUID reads between a move and its yield
  bool moved = false;

  explicit FakeCpu(size_t count = 1) : processors(count) {
    system_mask = count >= 64 ? ~uint64_t{0} : (uint64_t{1} << count) - 1;
    process_mask = thread_mask = system_mask;
    previous_ = cpuinfo_set_port(&kPort);
    current_ = this;
  }
  ~FakeCpu() { cpuinfo_set_port(previous_); }

  void set(uint32_t leaf, Regs regs) {
    for (auto& p : processors) p[leaf] = regs;
  }
  // The initial APIC id (leaf 1 EBX bits 24-31) of processor i.
  void set_apic(size_t i, uint32_t apic) {
    Regs& r = processors.at(i)[1];
    r[1] = (r[1] & 0x00FFFFFF) | (apic << 24);
  }
  long count(const std::string& entry) const { return std::ranges::count(log, entry); }

 private:
  static void cpuid(uint32_t leaf, uint32_t, uint32_t regs[4]) {
    FakeCpu* f = current_;
    f->leaves_read.push_back(leaf);
    if (f->moved) ++f->reads_before_yield;
    regs[0] = regs[1] = regs[2] = regs[3] = 0;
    const auto p = static_cast<size_t>(std::countr_zero(f->thread_mask));
    if (p >= f->processors.size()) return;
    const auto it = f->processors[p].find(leaf);
    if (it != f->processors[p].end()) std::memcpy(regs, it->second.data(), 16);
  }
  static int32_t affinity(uint64_t* process, uint64_t* system) {
    FakeCpu* f = current_;
    f->log.push_back("masks");
    *process = f->masks_fail ? 0 : f->process_mask;
    *system = f->masks_fail ? 0 : f->system_mask;
    return f->masks_fail ? 0 : 1;
  }
  static uint64_t set_thread(uint64_t mask) {
    FakeCpu* f = current_;
    char text[40];
    std::snprintf(text, sizeof text, "pin %llx", static_cast<unsigned long long>(mask));
    f->log.push_back(text);
    if ((mask & f->system_mask & ~f->refused) == 0) return 0;
    const uint64_t previous = f->thread_mask;
    f->thread_mask = mask;
    f->moved = true;
    return previous;
  }
  static void yield() {
    current_->log.push_back("yield");
    current_->moved = false;
  }
  static inline FakeCpu* current_ = nullptr;
  static constexpr CpuinfoPort kPort = {cpuid, affinity, set_thread, yield};
  const CpuinfoPort* previous_ = nullptr;
};

}  // namespace hostkit_test

#endif
