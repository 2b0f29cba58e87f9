// Processor classification and cache detection: numbered questions put to a
// snapshot of the CPUID leaves, a fixed class table over vendor, family and
// model, and the cache sizes from leaf 2 or the AMD extended leaves. The
// trace goes straight to standard output.
#include <cstdio>
#include <cstring>

#include "cpuinfo.h"

namespace {

enum : uint32_t { kVendorUnknown = 0, kVendorAmd = 1, kVendorIntel = 2 };

enum : uint32_t {
  kQueryVendor = 0,
  kQueryCpuType = 1,
  kQueryL1 = 0x28,
  kQueryL2 = 0x30,
  kQueryL3 = 0x3C,
  kQuerySse2 = 0x1D,
  kQuerySse3 = 0x1E,
};

constexpr uint32_t kCpuTypeAmdFamily6 = 6;

// The feature questions, 2 to 30. Each answer is the OR of the bits named
// (leaf 1 EDX and ECX, leaf 0x80000001 EDX; -1 names none) and `fixed`.
struct FeatureQuestion {
  int8_t edx;
  int8_t ecx;
  int8_t ext_edx;
  uint8_t fixed;
};
constexpr uint32_t kFirstFeatureQuery = 2;
constexpr uint32_t kLastFeatureQuery = kQuerySse3;
constexpr FeatureQuestion kFeatureQuestions[] = {
    {-1, -1, -1, 0},  // 2: always 0
    {-1, -1, -1, 0},  // 3: always 0
    {-1, -1, -1, 1},  // 4: always 1
    {0, -1, -1, 0},   // 5: FPU
    {1, -1, -1, 0},   // 6: VME
    {2, -1, -1, 0},   // 7: DE
    {3, -1, -1, 0},   // 8: PSE
    {4, -1, -1, 0},   // 9: TSC
    {5, -1, -1, 0},   // 10: MSR
    {6, -1, -1, 0},   // 11: PAE
    {7, -1, -1, 0},   // 12: MCE
    {8, -1, -1, 0},   // 13: CX8
    {9, -1, -1, 0},   // 14: APIC
    {11, -1, -1, 0},  // 15: SEP
    {12, -1, -1, 0},  // 16: MTRR
    {13, -1, -1, 0},  // 17: PGE
    {14, -1, -1, 0},  // 18: MCA
    {15, -1, -1, 0},  // 19: CMOV
    {16, -1, -1, 0},  // 20: PAT
    {17, -1, -1, 0},  // 21: PSE-36
    {25, -1, 22, 0},  // 22: SSE, or AMD's MMX extensions
    {23, -1, -1, 0},  // 23: MMX
    {24, -1, -1, 0},  // 24: FXSR
    {-1, -1, 30, 0},  // 25: AMD's 3DNow! extensions
    {-1, -1, 31, 0},  // 26: 3DNow!
    {-1, -1, 22, 0},  // 27: AMD's MMX extensions
    {25, -1, -1, 0},  // 28: SSE
    {26, -1, -1, 0},  // 29: SSE2
    {-1, 0, -1, 0},   // 30: SSE3
};
static_assert(sizeof kFeatureQuestions / sizeof kFeatureQuestions[0] ==
              kLastFeatureQuery - kFirstFeatureQuery + 1);

uint32_t bit(uint32_t value, uint32_t index) { return (value >> index) & 1u; }
uint32_t bits(uint32_t value, uint32_t low, uint32_t count) {
  return (value >> low) & ((1u << count) - 1u);
}

void read_leaf(uint32_t leaf, uint32_t regs[4]) {
  cpuinfo_cpuid_leaf(leaf, &regs[0], &regs[1], &regs[2], &regs[3]);
}

// Every field starts at zero, so a leaf the processor lacks leaves its part
// empty rather than undefined.
void read_snapshot(CpuIdSnapshot* s) {
  std::memset(s, 0, sizeof *s);
  uint32_t regs[4];
  read_leaf(0, regs);
  std::memcpy(s->vendor, &regs[1], 4);
  std::memcpy(s->vendor + 4, &regs[3], 4);
  std::memcpy(s->vendor + 8, &regs[2], 4);
  s->vendor[12] = '\0';
  read_leaf(1, regs);
  s->signature = regs[0];
  s->feature_ecx = regs[2];
  s->feature_edx = regs[3];
  read_leaf(0x80000000, regs);
  const uint32_t highest = regs[0];
  if (highest >= 0x80000006) read_leaf(0x80000006, s->l2_regs);
  if (highest >= 0x80000005) read_leaf(0x80000005, s->l1_regs);
  for (uint32_t i = 0; i < 3; ++i) {
    if (highest >= 0x80000002 + i) {
      read_leaf(0x80000002 + i, regs);
      std::memcpy(s->brand + 16 * i, regs, 16);
    }
  }
  if (highest >= 0x80000001) {
    read_leaf(0x80000001, regs);
    s->ext_feature_edx = regs[3];
  }
  s->state = 1;
}

uint32_t vendor_number(const CpuIdSnapshot* s, bool verbose) {
  if (std::memcmp(s->vendor, "AuthenticAMD", 12) == 0) {
    if (verbose) std::printf("Vendor = AMD\n");
    return kVendorAmd;
  }
  if (std::memcmp(s->vendor, "GenuineIntel", 12) == 0) {
    if (verbose) std::printf("Vendor = INTEL\n");
    return kVendorIntel;
  }
  if (verbose) std::printf("Vendor = UNKNOWN, vendor id string = %s\n", s->vendor);
  return kVendorUnknown;
}

uint32_t intel_family4_type(uint32_t model) {
  switch (model) {
    case 0:
    case 1:
      return 9;
    case 2:
      return 10;
    case 3:
      return 11;
    case 4:
      return 12;
    case 5:
      return 13;
    case 7:
      return 14;
    case 8:
      return 15;
    default:
      return 0;
  }
}

uint32_t intel_family6_type(uint32_t model) {
  switch (model) {
    case 1:
      return 18;
    case 3:
    case 5:
      return 19;
    case 6:
      return 20;
    case 7:
    case 8:
    case 10:
    case 11:
      return 21;
    case 9:
    case 13:
      return 23;
    default:
      return 22;
  }
}

uint32_t cpu_type(const CpuIdSnapshot* s, bool verbose) {
  const uint32_t vendor = vendor_number(s, verbose);
  const uint32_t family_number = bits(s->signature, 8, 4);
  const uint32_t extended_family = bits(s->signature, 20, 8);
  const uint32_t model_number = bits(s->signature, 4, 4);
  const uint32_t extended_model = bits(s->signature, 16, 4);
  const uint32_t family = family_number + extended_family;
  const uint32_t model = model_number + 16 * extended_model;
  if (verbose) {
    std::printf("Cpu id family number          = %d\n", static_cast<int>(family_number));
    std::printf("Cpu id extended family number = %d\n", static_cast<int>(extended_family));
    std::printf("Cpu id family                 = %d\n", static_cast<int>(family));
    std::printf("Cpu id model number           = %d\n", static_cast<int>(model_number));
    std::printf("Cpu id extended model         = %d\n", static_cast<int>(extended_model));
    std::printf("Cpu id  model                 = %d\n", static_cast<int>(model));
  }
  if (vendor == kVendorAmd) {
    switch (family) {
      case 6:
        return 6;
      case 15:
        return 7;
      case 23:
        return 8;
      default:
        if (verbose) std::printf("cpu type unknown.\n");
        return 0;
    }
  }
  if (vendor == kVendorIntel) {
    switch (family) {
      case 4:
        return intel_family4_type(model);
      case 5:
        return model >= 1 && model <= 3 ? 16 : 17;
      case 6:
        return intel_family6_type(model);
      case 15:
        return 22;
      default:
        if (verbose) std::printf("cpu type unknown.\n");
        return 22;
    }
  }
  if (verbose) std::printf("Cpu id num = %d\n", static_cast<int>(family_number));
  return 0;
}

uint32_t class_of(uint32_t type) {
  if (type >= 1 && type <= 5) return 15;
  if (type >= 9 && type <= 15) return 1;
  if (type >= 16 && type <= 18) return 4;
  switch (type) {
    case 6:
      return 17;
    case 7:
      return 18;
    case 8:
      return 19;
    case 19:
      return 5;
    case 20:
    case 21:
      return 6;
    case 22:
      return 7;
    case 23:
      return 8;
    case 24:
      return 12;
    default:
      return 0;
  }
}

// A known descriptor byte of leaf 2: its level (1..3) and size in kilobytes.
struct Descriptor {
  uint8_t byte;
  uint8_t level;
  uint32_t kilobytes;
};

constexpr Descriptor kDescriptors[] = {
    {0x0A, 1, 8},    {0x66, 1, 8},    {0x0C, 1, 16},   {0x60, 1, 16},   {0x67, 1, 16},
    {0x2C, 1, 32},   {0x68, 1, 32},   {0x39, 2, 128},  {0x3B, 2, 128},  {0x41, 2, 128},
    {0x79, 2, 128},  {0x3C, 2, 256},  {0x42, 2, 256},  {0x7A, 2, 256},  {0x82, 2, 256},
    {0x43, 2, 512},  {0x7B, 2, 512},  {0x83, 2, 512},  {0x86, 2, 512},  {0x44, 2, 1024},
    {0x78, 2, 1024}, {0x7C, 2, 1024}, {0x84, 2, 1024}, {0x87, 2, 1024}, {0x45, 2, 2048},
    {0x7D, 2, 2048}, {0x85, 2, 2048}, {0x4E, 2, 6144}, {0x22, 3, 512},  {0x23, 3, 1024},
    {0x25, 3, 2048}, {0x29, 3, 4096},
};

uint32_t intel_cache_answer(uint32_t query, bool verbose) {
  uint32_t sizes[3];
  cpuinfo_cache_sizes(&sizes[0], &sizes[1], &sizes[2], verbose ? 1 : 0);
  uint32_t regs[4];
  read_leaf(0x80000000, regs);
  if (regs[0] >= 0x80000006) {
    read_leaf(0x80000006, regs);
    sizes[1] = regs[2] >> 16;
  }
  switch (query) {
    case kQueryL1:
      return sizes[0];
    case kQueryL2:
      return sizes[1];
    case kQueryL3:
      return sizes[2];
    default:
      return 0;
  }
}

uint32_t amd_cache_answer(uint32_t query, CpuIdSnapshot* s) {
  const uint32_t* l1 = s->l1_regs;
  const uint32_t* l2 = s->l2_regs;
  // Queries 0x20..0x2F: four registers of leaf 0x80000005 byte by byte,
  // highest byte first: 0x20..0x23 EBX, 0x24..0x27 EAX (family 6 only),
  // 0x28..0x2B ECX, 0x2C..0x2F EDX.
  if (query >= 0x20 && query <= 0x2F) {
    const uint32_t reg = (query - 0x20) / 4;
    const uint32_t shift = 24 - 8 * ((query - 0x20) % 4);
    static constexpr int kRegister[4] = {1, 0, 2, 3};
    if (reg == 1 && cpuinfo_query(kQueryCpuType, s, 0) != kCpuTypeAmdFamily6) return 0;
    return (l1[kRegister[reg]] >> shift) & 0xFF;
  }
  switch (query) {
    case 0x30:
      return bits(l2[2], 16, 16);
    case 0x31:
      return bits(l2[2], 12, 4);
    case 0x32:
      return bits(l2[2], 8, 4);
    case 0x33:
      return bits(l2[2], 0, 8);
    default:
      break;
  }
  if (query >= 0x34 && query <= 0x3B) {
    if (cpuinfo_query(kQueryCpuType, s, 0) != kCpuTypeAmdFamily6) return 0;
    // EAX then EBX of leaf 0x80000006, each as fields 28-31, 16-27, 12-15, 0-11.
    static constexpr uint32_t kLow[4] = {28, 16, 12, 0};
    static constexpr uint32_t kCount[4] = {4, 12, 4, 12};
    const uint32_t index = query - 0x34;
    const uint32_t reg = l2[index / 4];
    return bits(reg, kLow[index % 4], kCount[index % 4]);
  }
  return 0;  // 0x3C among them: no L3 size is read on AMD parts
}

}  // namespace

extern "C" {

void cpuinfo_cpuid_leaf(uint32_t leaf, uint32_t* eax, uint32_t* ebx, uint32_t* ecx, uint32_t* edx) {
  // None of these leaves takes a subleaf; the port gets 0 so that a recorded
  // machine answers the same as the instruction does.
  cpuinfo_cpuid(leaf, 0, eax, ebx, ecx, edx);
}

void cpuinfo_cache_sizes(uint32_t* l1, uint32_t* l2, uint32_t* l3, int32_t verbose) {
  if (verbose) std::printf("Cache detection info:\n");
  uint32_t regs[4];
  read_leaf(2, regs);
  if (verbose) {
    for (int i = 0; i < 4; ++i) std::printf("  Cache_sizes[%d] = %u\n", i, regs[i]);
  }
  uint32_t sizes[4] = {0, 0, 0, 0};  // by level, 1..3
  for (uint32_t reg : regs) {
    for (int b = 0; b < 4; ++b) {
      const auto byte = static_cast<uint8_t>(reg >> (8 * b));
      for (const Descriptor& d : kDescriptors) {
        if (d.byte == byte) sizes[d.level] = d.kilobytes;
      }
    }
  }
  *l1 = sizes[1];
  *l2 = sizes[2];
  *l3 = sizes[3];
}

uint32_t cpuinfo_query(uint32_t query, CpuIdSnapshot* snapshot, int32_t verbose) {
  if (snapshot->state == 0) read_snapshot(snapshot);
  const bool trace = verbose != 0;
  if (query == kQueryVendor) return vendor_number(snapshot, trace);
  if (query == kQueryCpuType) return cpu_type(snapshot, trace);
  if (query >= kFirstFeatureQuery && query <= kLastFeatureQuery) {
    const FeatureQuestion& q = kFeatureQuestions[query - kFirstFeatureQuery];
    uint32_t answer = q.fixed;
    if (q.edx >= 0) answer |= bit(snapshot->feature_edx, static_cast<uint32_t>(q.edx));
    if (q.ecx >= 0) answer |= bit(snapshot->feature_ecx, static_cast<uint32_t>(q.ecx));
    if (q.ext_edx >= 0) answer |= bit(snapshot->ext_feature_edx, static_cast<uint32_t>(q.ext_edx));
    return answer;
  }
  // The cache questions. The vendor is asked silently: its line stands once
  // in a trace, at the cpu type.
  switch (vendor_number(snapshot, false)) {
    case kVendorIntel:
      return intel_cache_answer(query, trace);
    case kVendorAmd:
      return amd_cache_answer(query, snapshot);
    default:
      return 0;
  }
}

void cpuinfo_system_info(int32_t verbose, CpuSystemInfo* info) {
  CpuIdSnapshot snapshot;
  snapshot.state = 0;
  snapshot.brand[0] = '\0';
  if (verbose) std::printf("Vegra system information:\n");
  const uint32_t procid = class_of(cpuinfo_query(kQueryCpuType, &snapshot, verbose));
  const uint32_t l1 = cpuinfo_query(kQueryL1, &snapshot, verbose);
  const uint32_t l2 = cpuinfo_query(kQueryL2, &snapshot, 0);
  const uint32_t l3 = cpuinfo_query(kQueryL3, &snapshot, 0);
  const uint32_t sse2 = cpuinfo_query(kQuerySse2, &snapshot, 0);
  const uint32_t sse3 = cpuinfo_query(kQuerySse3, &snapshot, 0);
  info->procid = procid;
  info->l1 = l1;
  info->l2 = l2;
  info->l3 = l3;
  info->has_sse2 = sse2;
  info->has_sse3 = sse3;
  if (verbose) {
    std::printf("Vegra procid = %d\n", static_cast<int>(procid));
    std::printf("L1 = %d\n", static_cast<int>(l1));
    std::printf("L2 = %d\n", static_cast<int>(l2));
    std::printf("HAS_SSE2: %d \n", static_cast<int>(sse2));
    std::printf("HAS_SSE3: %d \n", static_cast<int>(sse3));
    std::printf("proc name str = %.48s\n", snapshot.brand);
  }
}

}  // extern "C"
