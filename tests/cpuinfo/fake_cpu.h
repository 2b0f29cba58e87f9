// A fake machine behind the processor identification's port: per-processor
// leaves, the process and system masks, the thread's mask, and a log of what
// the code under test asked of it.
#ifndef HOSTKIT_TEST_FAKE_CPU_H
#define HOSTKIT_TEST_FAKE_CPU_H

#include <array>
#include <cstdint>
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

struct FakeCpu {
  // Leaves of each processor; a leaf missing reads as zeros. Subleaves are
  // not modelled: every read in processor identification uses subleaf 0.
  std::vector<std::map<uint32_t, Regs>> processors;
  uint64_t process_mask = 1;
  uint64_t system_mask = 1;
  uint64_t thread_mask = 1;
  bool masks_fail = false;
  uint64_t refused = 0;  // processors that won't take the thread
  std::vector<std::string> log;
  std::vector<uint32_t> leaves_read;
  int reads_before_yield = 0;  // CPUID reads between a move and its yield
  bool moved = false;

  explicit FakeCpu(size_t count = 1, const std::map<uint32_t, Regs>& leaves = {})
      : processors(count, leaves) {
    system_mask = count >= 64 ? ~uint64_t{0} : (uint64_t{1} << count) - 1;
    process_mask = thread_mask = system_mask;
    previous_ = cpuinfo_set_port(&kPort);
    current_ = this;
  }
  ~FakeCpu() {
    cpuinfo_set_port(previous_);
    current_ = nullptr;
  }
  FakeCpu(const FakeCpu&) = delete;
  FakeCpu& operator=(const FakeCpu&) = delete;

  // Sets a leaf on every processor.
  void set(uint32_t leaf, Regs regs) {
    for (auto& p : processors) p[leaf] = regs;
  }
  // Sets the initial APIC id (leaf 1 EBX bits 24-31) of processor i.
  void set_apic(size_t i, uint32_t apic) {
    Regs& r = processors.at(i)[1];
    r[1] = (r[1] & 0x00FFFFFF) | (apic << 24);
  }
  int count(const std::string& entry) const {
    int n = 0;
    for (const auto& e : log) n += e == entry;
    return n;
  }

 private:
  static int lowest(uint64_t mask) {
    for (int i = 0; i < 64; ++i) {
      if ((mask >> i) & 1) return i;
    }
    return -1;
  }
  static void cpuid(uint32_t leaf, uint32_t, uint32_t regs[4]) {
    FakeCpu* f = current_;
    f->leaves_read.push_back(leaf);
    if (f->moved) ++f->reads_before_yield;
    regs[0] = regs[1] = regs[2] = regs[3] = 0;
    const int p = lowest(f->thread_mask);
    if (p < 0 || static_cast<size_t>(p) >= f->processors.size()) return;
    const auto& leaves = f->processors[static_cast<size_t>(p)];
    const auto it = leaves.find(leaf);
    if (it != leaves.end()) std::memcpy(regs, it->second.data(), 16);
  }
  static int32_t affinity(uint64_t* process, uint64_t* system) {
    FakeCpu* f = current_;
    f->log.push_back("masks");
    if (f->masks_fail) {
      *process = *system = 0;
      return 0;
    }
    *process = f->process_mask;
    *system = f->system_mask;
    return 1;
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
