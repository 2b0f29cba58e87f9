// Counting logical processors, cores and sockets. Intel parts are counted by
// moving the thread over every processor of the affinity mask and splitting
// each initial APIC id into package, core and SMT fields; AMD parts answer
// from their extended leaves; other vendors count as one of everything.
#include <cinttypes>
#include <cstring>

#include "cpuinfo.h"
#include "sysenv.h"

namespace {

// Core counting tells the vendor by the last four characters of leaf 0
// alone, in ECX, where the classification compares all twelve: a part
// whose name ends in "ntel" is counted as Intel's even when it isn't
// classified as one. The report's counts depend on this test as it stands.
constexpr uint32_t kVendorIntelEcx = 0x6C65746E;  // "ntel"
constexpr uint32_t kVendorAmdEcx = 0x444D4163;    // "cAMD"
constexpr uint32_t kHttBit = 0x10000000;
constexpr int kTableSize = 256;
constexpr int kMaskBits = 64;

uint32_t leaf_reg(uint32_t leaf, int reg) {
  uint32_t regs[4];
  cpuinfo_cpuid(leaf, 0, &regs[0], &regs[1], &regs[2], &regs[3]);
  return regs[reg];
}

// 0xFF shifted left, kept to the 8 bits of an APIC id. Field widths stay far
// below 32, but the shift is safe for any width.
uint32_t high_bits(uint32_t width) { return width < 32 ? (0xFFu << width) & 0xFFu : 0u; }

// The status table, from what was counted and how many logical processors
// each core can hold.
uint32_t status_of(uint32_t logical, uint32_t cores, uint32_t sockets, uint32_t lp_per_core) {
  if (cores <= sockets) {
    if (lp_per_core == 1) return CPUINFO_ONE_CORE_NO_SMT;
    return cores < logical ? CPUINFO_ONE_CORE_SMT_IN_USE : CPUINFO_ONE_CORE_SMT_IDLE;
  }
  if (lp_per_core == 1) return CPUINFO_MULTI_CORE_NO_SMT;
  return cores < logical ? CPUINFO_MULTI_CORE_SMT_IN_USE : CPUINFO_MULTI_CORE_SMT_IDLE;
}

// Counts the distinct values of key(i) over the positions in `read`, in
// position order; `on_new` hears of each new value after the first.
template <typename Key, typename OnNew>
uint32_t count_distinct(uint64_t read, Key key, OnNew on_new) {
  uint8_t keys[kTableSize];
  uint32_t count = 0;
  for (int i = 0; i < kMaskBits; ++i) {
    if (((read >> i) & 1) == 0) continue;
    const uint8_t k = key(i);
    bool known = false;
    for (uint32_t j = 0; j < count; ++j) {
      if (keys[j] == k) {
        known = true;
        break;
      }
    }
    if (known) continue;
    keys[count] = k;
    if (count > 0) on_new(i);
    ++count;
  }
  return count;
}

struct Counts {
  uint32_t logical = 1;
  uint32_t cores = 1;
  uint32_t sockets = 1;
  // Logical processors a core can hold, in the sense of the status table.
  uint32_t lp_per_core = 1;
  // False when nothing could be counted.
  bool counted = true;
};

Counts count_intel(SysEnv* env, const CpuinfoPort* port, uint64_t process_mask,
                   uint64_t system_mask, bool verbose) {
  Counts counts;
  // A part that doesn't call itself GenuineIntel in full can report no cores
  // per package; the package's processors then count as one core's.
  const uint32_t core_per_proc = cpuinfo_max_core_per_physical_proc();
  const uint32_t lp_per_core =
      cpuinfo_max_lp_per_package() / (core_per_proc != 0 ? core_per_proc : 1);
  if (verbose) {
    sysenv_printf(env, "MaxLPPerCore = %d\n", static_cast<int>(lp_per_core));
    sysenv_printf(env, "MaxCorePerPhysicalProc = %d\n", static_cast<int>(core_per_proc));
  }
  const uint32_t w1 = cpuinfo_field_width(lp_per_core);

  uint8_t pkg_id[kTableSize];
  uint8_t core_id[kTableSize];
  uint8_t smt_id[kTableSize];
  // Positions that were read: the passes below look at these and no others,
  // so a processor that refused the thread, or a hole in the system mask,
  // leaves no unwritten entry behind.
  uint64_t read = 0;
  uint32_t read_count = 0;

  uint64_t mask = 1;
  int position = 0;
  while (mask != 0 && mask <= system_mask) {
    if (verbose) {
      sysenv_printf(env, "dwAffinityMask 0x%llx\n", static_cast<unsigned long long>(mask));
      sysenv_printf(env, "dwSystemAffinity 0x%llx\n", static_cast<unsigned long long>(system_mask));
    }
    if (port->set_thread_affinity(mask) != 0) {
      port->yield();
      const uint32_t apic = leaf_reg(1, 1) >> 24;
      if (verbose) sysenv_printf(env, "APIC_ID = %d\n", static_cast<int>(apic));
      const uint32_t w2 = cpuinfo_field_width(cpuinfo_max_core_per_physical_proc());
      const uint32_t w3 = cpuinfo_field_width(cpuinfo_max_lp_per_package());
      smt_id[position] = static_cast<uint8_t>(apic & ~high_bits(w1) & 0xFFu);
      core_id[position] = static_cast<uint8_t>(apic & (high_bits(w1) ^ high_bits(w1 + w2)));
      pkg_id[position] = static_cast<uint8_t>(apic & high_bits(w3));
      if (verbose) {
        sysenv_printf(env,
                      "  AffinityMask = %" PRIu64
                      ", Initial APIC = %d; Physical ID = %d, Core ID = %d,  SMT ID = %d\n",
                      mask, static_cast<int>(apic), pkg_id[position], core_id[position],
                      smt_id[position]);
      }
      read |= mask;
      ++read_count;
    }
    ++position;
    mask <<= 1;
  }
  port->set_thread_affinity(process_mask);
  port->yield();

  if (verbose) {
    sysenv_printf(env, "Number of logical CPU's detected %d\n", static_cast<int>(read_count));
  }
  if (read_count == 0) {
    // Not one processor took the thread: there is nothing to count, and
    // the counts stay at one.
    counts.counted = false;
    return counts;
  }
  counts.logical = read_count;
  counts.lp_per_core = lp_per_core;
  counts.cores = count_distinct(
      read, [&](int i) { return static_cast<uint8_t>(pkg_id[i] | core_id[i]); },
      [&](int i) {
        if (verbose) {
          sysenv_printf(env, "New core detected with tblPkgID %d tblCoreID %d\n", pkg_id[i],
                        core_id[i]);
        }
      });
  counts.sockets = count_distinct(
      read, [&](int i) { return pkg_id[i]; }, [](int) {});
  return counts;
}

Counts count_amd() {
  Counts counts;
  const uint32_t highest = leaf_reg(0x80000000, 0) & 0xFFFF;
  const bool htt = cpuinfo_htt_supported() != 0;
  if (highest < 8) {
    if (htt) {
      counts.logical = 2;
      counts.cores = 1;
      counts.lp_per_core = 2;
    }
    return counts;
  }
  counts.logical = (leaf_reg(0x80000008, 2) & 0xFF) + 1;
  uint32_t threads_per_core = htt ? 2 : 1;
  if (highest >= 0x1E) threads_per_core = ((leaf_reg(0x8000001E, 1) >> 8) & 3) + 1;
  counts.cores = counts.logical / threads_per_core;
  counts.lp_per_core = threads_per_core;
  return counts;
}

}  // namespace

extern "C" {

uint32_t cpuinfo_htt_supported(void) {
  if (leaf_reg(0, 0) < 1) return 0;
  return (leaf_reg(1, 3) & kHttBit) != 0 ? 1 : 0;
}

uint32_t cpuinfo_max_lp_per_package(void) {
  if (cpuinfo_htt_supported() == 0) return 1;
  return (leaf_reg(1, 1) & 0xFF0000) >> 16;
}

uint32_t cpuinfo_max_core_per_physical_proc(void) {
  if (cpuinfo_htt_supported() == 0) return 1;
  uint32_t regs[4];
  cpuinfo_cpuid(0, 0, &regs[0], &regs[1], &regs[2], &regs[3]);
  char vendor[12];
  std::memcpy(vendor, &regs[1], 4);
  std::memcpy(vendor + 4, &regs[3], 4);
  std::memcpy(vendor + 8, &regs[2], 4);
  if (std::memcmp(vendor, "GenuineIntel", 12) == 0) {
    if (regs[0] < 4) return 1;
    return (leaf_reg(4, 0) >> 26) + 1;
  }
  const uint32_t cores = leaf_reg(0x80000008, 2) & 0xFF;
  return cores >> 1;
}

uint32_t cpuinfo_field_width(uint32_t n) {
  if (n <= 1) return 0;
  const uint32_t value = n - 1;
  uint32_t width = 0;
  for (uint32_t bit = 0; bit < 32; ++bit) {
    if ((value >> bit) & 1) width = bit + 1;
  }
  return width;
}

// On AMD parts the status reads their own counts, the threads a core holds
// standing for the logical processors per core. Unknown vendors and every
// path that counted nothing report CPUINFO_NOT_COUNTED, whose counts are ones
// by default rather than facts.
uint32_t cpuinfo_count_cores(SysEnv* env, uint32_t* logical, uint32_t* cores, uint32_t* sockets,
                             int32_t verbose) {
  *logical = *cores = *sockets = 1;
  if (verbose) sysenv_printf(env, "Begin CPU core counting\n");
  const uint32_t vendor_ecx = leaf_reg(0, 2);
  const CpuinfoPort* port = cpuinfo_active_port();

  // Masks that can't be read are a restriction of their own kind: the
  // processors can't be walked, as with a restricted process.
  uint64_t process_mask = 0, system_mask = 0;
  if (port->process_affinity(&process_mask, &system_mask) == 0 || process_mask != system_mask) {
    if (verbose) sysenv_printf(env, "Not all cpus enabled\n");
    return CPUINFO_NOT_COUNTED;
  }

  Counts counts;
  if (vendor_ecx == kVendorIntelEcx) {
    counts = count_intel(env, port, process_mask, system_mask, verbose != 0);
  } else if (vendor_ecx == kVendorAmdEcx) {
    counts = count_amd();
  } else {
    counts.counted = false;
  }
  *logical = counts.logical;
  *cores = counts.cores;
  *sockets = counts.sockets;
  const uint32_t status =
      counts.counted ? status_of(counts.logical, counts.cores, counts.sockets, counts.lp_per_core)
                     : uint32_t{CPUINFO_NOT_COUNTED};
  if (verbose) {
    sysenv_printf(env, "End CPU core counting. statusflag = %d\n", static_cast<int>(status));
  }
  return status;
}

}  // extern "C"
