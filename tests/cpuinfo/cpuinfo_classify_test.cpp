// Classification and cache detection on fake processors: the class table
// across vendors, families and models, the query vocabulary, the leaf 2
// descriptors and the leaf 0x80000006 override, the trace's exact text, and
// the settings an environment takes from them.
#include <gtest/gtest.h>

#include <string>

#include "cpub.h"
#include "cpuinfo.h"
#include "fake_cpu.h"

namespace {

using hostkit_test::FakeCpu;
using hostkit_test::Regs;
using hostkit_test::signature;
using hostkit_test::vendor_leaf;

std::string without_cr(std::string text) {
  std::string out;
  for (char c : text) {
    if (c != '\r') out += c;
  }
  return out;
}

// Runs cpuinfo_system_info and returns what it printed.
std::string system_info(int32_t verbose, CpuSystemInfo* info) {
  testing::internal::CaptureStdout();
  cpuinfo_system_info(verbose, info);
  return without_cr(testing::internal::GetCapturedStdout());
}

// A processor of `vendor` with the given leaf 1 signature, SSE2 and SSE3 set.
void make_processor(FakeCpu& cpu, const char* vendor, uint32_t sig) {
  cpu.set(0, vendor_leaf(0xD, vendor));
  cpu.set(1, Regs{sig, 0, 0x1, 1u << 26});
}

struct ClassCase {
  const char* vendor;
  uint32_t family, ext_family, model, ext_model;
  uint32_t procid;
  bool unknown_line;  // "cpu type unknown." under verbose
};

// Expected classes read off the decision table and the cpu type to class
// step: family = family number + extended family, model = model number +
// 16 x extended model, for every vendor.
const ClassCase kClassCases[] = {
    // AMD: family 6 is type 6 (class 17), 15 type 7 (18), 23 type 8 (19).
    {"AuthenticAMD", 6, 0, 8, 0, 17, false},
    {"AuthenticAMD", 15, 0, 5, 0, 18, false},
    {"AuthenticAMD", 15, 0, 15, 15, 18, false},  // any model
    {"AuthenticAMD", 15, 8, 1, 0, 19, false},    // 15 + 8 = 23
    {"AuthenticAMD", 15, 10, 1, 1, 0, true},     // 25: not in the table
    {"AuthenticAMD", 15, 1, 9, 0, 0, true},      // 16
    {"AuthenticAMD", 5, 0, 1, 0, 0, true},
    // Intel family 4: models 0,1 type 9; 2..5 types 10..13; 7, 8 types 14, 15:
    // all class 1. Model 6 and models above 8 give type 0, with no unknown line.
    {"GenuineIntel", 4, 0, 0, 0, 1, false},
    {"GenuineIntel", 4, 0, 1, 0, 1, false},
    {"GenuineIntel", 4, 0, 5, 0, 1, false},
    {"GenuineIntel", 4, 0, 8, 0, 1, false},
    {"GenuineIntel", 4, 0, 6, 0, 0, false},
    {"GenuineIntel", 4, 0, 9, 0, 0, false},
    {"GenuineIntel", 4, 0, 0, 1, 0, false},  // model 16
    // Family 5: types 16 and 17, class 4.
    {"GenuineIntel", 5, 0, 2, 0, 4, false},
    {"GenuineIntel", 5, 0, 4, 0, 4, false},
    // Family 6: model 1 type 18 (class 4), 3 and 5 type 19 (class 5), 6 type 20
    // (class 6), 7, 8, 10, 11 type 21 (class 6), 9 and 13 type 23 (class 8),
    // the rest type 22 (class 7).
    {"GenuineIntel", 6, 0, 1, 0, 4, false},
    {"GenuineIntel", 6, 0, 3, 0, 5, false},
    {"GenuineIntel", 6, 0, 5, 0, 5, false},
    {"GenuineIntel", 6, 0, 6, 0, 6, false},
    {"GenuineIntel", 6, 0, 11, 0, 6, false},
    {"GenuineIntel", 6, 0, 9, 0, 8, false},
    {"GenuineIntel", 6, 0, 13, 0, 8, false},
    {"GenuineIntel", 6, 0, 0, 0, 7, false},
    {"GenuineIntel", 6, 0, 12, 0, 7, false},
    {"GenuineIntel", 6, 0, 14, 9, 7, false},  // 0x9E = 158
    {"GenuineIntel", 6, 0, 9, 1, 7, false},   // 25, not 9
    {"GenuineIntel", 6, 0, 13, 1, 7, false},  // 29, not 13
    // Family 15 is type 22, class 7, known; other families the same class,
    // with the unknown line.
    {"GenuineIntel", 15, 0, 2, 0, 7, false},
    {"GenuineIntel", 7, 0, 0, 0, 7, true},
    {"GenuineIntel", 15, 1, 0, 0, 7, true},  // 16
    // Other vendors: class 0, whatever the family.
    {"CentaurHauls", 6, 0, 15, 0, 0, false},
    {"HygonGenuine", 15, 8, 0, 0, 0, false},
    {"GenuineIntex", 6, 0, 9, 0, 0, false},  // twelve characters compared
};

TEST(CpuinfoClass, TableAcrossVendorsFamiliesAndModels) {
  for (const ClassCase& c : kClassCases) {
    FakeCpu cpu;
    make_processor(cpu, c.vendor, signature(c.family, c.ext_family, c.model, c.ext_model));
    CpuSystemInfo info{};
    const std::string trace = system_info(1, &info);
    const std::string where = std::string(c.vendor) + " family " + std::to_string(c.family) + "+" +
                              std::to_string(c.ext_family) + " model " + std::to_string(c.model) +
                              "+16*" + std::to_string(c.ext_model);
    EXPECT_EQ(info.procid, c.procid) << where;
    EXPECT_EQ(trace.find("cpu type unknown.\n") != std::string::npos, c.unknown_line) << where;
    // Silent runs give the same answer.
    CpuSystemInfo quiet{};
    EXPECT_EQ(system_info(0, &quiet), "") << where;
    EXPECT_EQ(quiet.procid, c.procid) << where;
  }
}

TEST(CpuinfoClass, TraceOfAnUnknownVendorNamesItAndItsFamilyNumber) {
  FakeCpu cpu;
  make_processor(cpu, "CentaurHauls", signature(6, 1, 15, 2));
  CpuSystemInfo info{};
  // Family number 6, extended family 1, family 7; model 15 + 16 x 2 = 47.
  // Not Intel: no cache lines; the caches are 0, the SSE bits as set.
  EXPECT_EQ(system_info(1, &info),
            "Vegra system information:\n"
            "Vendor = UNKNOWN, vendor id string = CentaurHauls\n"
            "Cpu id family number          = 6\n"
            "Cpu id extended family number = 1\n"
            "Cpu id family                 = 7\n"
            "Cpu id model number           = 15\n"
            "Cpu id extended model         = 2\n"
            "Cpu id  model                 = 47\n"
            "Cpu id num = 6\n"
            "Vegra procid = 0\n"
            "L1 = 0\n"
            "L2 = 0\n"
            "HAS_SSE2: 1 \n"
            "HAS_SSE3: 1 \n"
            "proc name str = \n");
  EXPECT_EQ(info.l1, 0u);
  EXPECT_EQ(info.l2, 0u);
  EXPECT_EQ(info.l3, 0u);
}

TEST(CpuinfoClass, IntelTraceHasTheCacheLinesOnceAndTheBrand) {
  FakeCpu cpu;
  make_processor(cpu, "GenuineIntel", signature(6, 0, 13, 0));
  cpu.set(2, Regs{0x2C430001, 0x00000000, 0x00000000, 0x80000000});
  cpu.set(0x80000000, Regs{0x80000004, 0, 0, 0});
  // "Fake CPU 1.0" in EAX..EDX of 0x80000002, then a terminator.
  cpu.set(0x80000002, Regs{0x656B6146, 0x55504320, 0x302E3120, 0});
  CpuSystemInfo info{};
  // Leaf 2 bytes 0x01, 0x00, 0x43, 0x2C: L1 32 (0x2C), L2 512 (0x43). No
  // leaf 0x80000006, so no override. EDX 0x80000000 prints as unsigned.
  EXPECT_EQ(system_info(1, &info),
            "Vegra system information:\n"
            "Vendor = INTEL\n"
            "Cpu id family number          = 6\n"
            "Cpu id extended family number = 0\n"
            "Cpu id family                 = 6\n"
            "Cpu id model number           = 13\n"
            "Cpu id extended model         = 0\n"
            "Cpu id  model                 = 13\n"
            "Cache detection info:\n"
            "  Cache_sizes[0] = 742588417\n"
            "  Cache_sizes[1] = 0\n"
            "  Cache_sizes[2] = 0\n"
            "  Cache_sizes[3] = 2147483648\n"
            "Vegra procid = 8\n"
            "L1 = 32\n"
            "L2 = 512\n"
            "HAS_SSE2: 1 \n"
            "HAS_SSE3: 1 \n"
            "proc name str = Fake CPU 1.0\n");
  EXPECT_EQ(info.l3, 0u);
}

TEST(CpuinfoClass, BrandIsCutAt48Characters) {
  FakeCpu cpu;
  make_processor(cpu, "AuthenticAMD", signature(15, 8, 1, 0));
  cpu.set(0x80000000, Regs{0x80000004, 0, 0, 0});
  const Regs letters{0x41414141, 0x41414141, 0x41414141, 0x41414141};  // "AAAA" x 4
  for (uint32_t leaf : {0x80000002u, 0x80000003u, 0x80000004u}) cpu.set(leaf, letters);
  CpuSystemInfo info{};
  const std::string trace = system_info(1, &info);
  EXPECT_NE(trace.find("\nproc name str = " + std::string(48, 'A') + "\n"), std::string::npos)
      << trace;
}

TEST(CpuinfoQuery, SnapshotIsReadOnceWithItsExtendedLeavesGuarded) {
  FakeCpu cpu;
  make_processor(cpu, "AuthenticAMD", signature(15, 8, 1, 0));
  cpu.set(0x80000000, Regs{0x80000005, 0, 0, 0});
  cpu.set(0x80000005, Regs{1, 2, 0x40000000, 4});
  cpu.set(0x80000006, Regs{9, 9, 0x02000000, 9});  // beyond the highest leaf
  CpuIdSnapshot snapshot{};
  EXPECT_EQ(cpuinfo_query(0x28, &snapshot, 0), 64u);
  EXPECT_EQ(snapshot.state, 1);
  // Leaf 0, leaf 1, 0x80000000, then 0x80000005 and 0x80000002..4 and
  // 0x80000001 only as far as 0x80000000 allows.
  EXPECT_EQ(cpu.leaves_read, (std::vector<uint32_t>{0, 1, 0x80000000, 0x80000005, 0x80000002,
                                                    0x80000003, 0x80000004, 0x80000001}));
  EXPECT_EQ(cpuinfo_query(0x30, &snapshot, 0), 0u);  // 0x80000006 was never read
  EXPECT_EQ(cpu.leaves_read.size(), 8u);
}

TEST(CpuinfoQuery, FeatureBitsOfTheVocabulary) {
  FakeCpu cpu;
  cpu.set(0, vendor_leaf(1, "AuthenticAMD"));
  cpu.set(0x80000000, Regs{0x80000001, 0, 0, 0});
  for (uint32_t b = 0; b < 32; ++b) {
    // One bit at a time in leaf 1 EDX, and in 0x80000001 EDX.
    cpu.set(1, Regs{0, 0, 0, 1u << b});
    cpu.set(0x80000001, Regs{0, 0, 0, 0});
    CpuIdSnapshot s{};
    for (uint32_t q = 5; q <= 14; ++q) EXPECT_EQ(cpuinfo_query(q, &s, 0), b == q - 5 ? 1u : 0u);
    for (uint32_t q = 15; q <= 21; ++q) EXPECT_EQ(cpuinfo_query(q, &s, 0), b == q - 4 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(22, &s, 0), b == 25 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(23, &s, 0), b == 23 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(24, &s, 0), b == 24 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(28, &s, 0), b == 25 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(29, &s, 0), b == 26 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(25, &s, 0), 0u);
    cpu.set(1, Regs{0, 0, 0, 0});
    cpu.set(0x80000001, Regs{0, 0, 0, 1u << b});
    CpuIdSnapshot e{};
    EXPECT_EQ(cpuinfo_query(22, &e, 0), b == 22 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(25, &e, 0), b == 30 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(26, &e, 0), b == 31 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(27, &e, 0), b == 22 ? 1u : 0u);
    EXPECT_EQ(cpuinfo_query(13, &e, 0), 0u);
  }
  cpu.set(1, Regs{0, 0, 0xFFFFFFFE, 0});
  CpuIdSnapshot s{};
  EXPECT_EQ(cpuinfo_query(30, &s, 0), 0u);  // SSE3 is ECX bit 0 alone
  EXPECT_EQ(cpuinfo_query(2, &s, 0), 0u);
  EXPECT_EQ(cpuinfo_query(3, &s, 0), 0u);
  EXPECT_EQ(cpuinfo_query(4, &s, 0), 1u);
  EXPECT_EQ(cpuinfo_query(0, &s, 0), 1u);
}

// Leaf 2 registers for a list of descriptor bytes, in reading order.
Regs leaf2(std::initializer_list<uint8_t> bytes) {
  Regs r{0, 0, 0, 0};
  size_t i = 0;
  for (uint8_t b : bytes) {
    r[i / 4] |= static_cast<uint32_t>(b) << (8 * (i % 4));
    ++i;
  }
  return r;
}

struct CacheCase {
  Regs leaf2;
  uint32_t l1, l2, l3;
};

TEST(CpuinfoCache, DescriptorBytesLastMatchWins) {
  const CacheCase cases[] = {
      {Regs{0x00000001, 0, 0, 0}, 0, 0, 0},        // the count byte isn't a descriptor
      {leaf2({0xFF}), 0, 0, 0},                    // leaf 4 isn't consulted
      {leaf2({0x01, 0x43, 0x44}), 0, 1024, 0},     // last match wins
      {leaf2({0x01, 0x44, 0x43}), 0, 512, 0},      // not the largest
      {leaf2({0x3A, 0x3D, 0x3E, 0x49}), 0, 0, 0},  // not in the table
      {leaf2({0x0A, 0x0C, 0x22, 0x39}), 16, 128, 512},
      {leaf2({0x66, 0x60, 0x67, 0x2C, 0x68, 0x23, 0x25, 0x29, 0x4E}), 32, 6144, 4096},
      {leaf2({0x2C, 0, 0, 0, 0x66, 0, 0, 0, 0x79, 0x7A, 0x7B, 0x7C, 0x7D, 0x25, 0x22, 0}), 8, 2048,
       512},
      {leaf2({0x3B, 0x41, 0x3C, 0x42, 0x82, 0x83, 0x86, 0x87, 0x84, 0x78, 0x85, 0x45}), 0, 2048, 0},
      {Regs{0x80000001, 0x800000FF, 0x80000000, 0x8000002C}, 32, 0, 0},  // bit 31 not heeded
  };
  FakeCpu cpu;
  for (const CacheCase& c : cases) {
    cpu.set(2, c.leaf2);
    uint32_t l1 = 9, l2 = 9, l3 = 9;
    cpuinfo_cache_sizes(&l1, &l2, &l3, 0);
    EXPECT_EQ(l1, c.l1) << std::hex << c.leaf2[0] << " " << c.leaf2[1];
    EXPECT_EQ(l2, c.l2) << std::hex << c.leaf2[0] << " " << c.leaf2[1];
    EXPECT_EQ(l3, c.l3) << std::hex << c.leaf2[0] << " " << c.leaf2[1];
  }
}

TEST(CpuinfoCache, IntelL2ComesFromLeaf80000006WhenItExists) {
  FakeCpu cpu;
  make_processor(cpu, "GenuineIntel", signature(6, 0, 15, 0));
  cpu.set(2, leaf2({0x01, 0x44, 0x2C, 0x29}));
  cpu.set(0x80000000, Regs{0x80000006, 0, 0, 0});
  cpu.set(0x80000006, Regs{0, 0, 256u << 16 | 0x40, 0});
  CpuSystemInfo info{};
  system_info(0, &info);
  EXPECT_EQ(info.l1, 32u);
  EXPECT_EQ(info.l2, 256u);  // not 1024 from 0x44
  EXPECT_EQ(info.l3, 4096u);
  // A zero there replaces leaf 2's answer all the same.
  cpu.set(0x80000006, Regs{0, 0, 0x40, 0});
  system_info(0, &info);
  EXPECT_EQ(info.l2, 0u);
  // Below 0x80000006, leaf 2 stands.
  cpu.set(0x80000000, Regs{0x80000005, 0, 0, 0});
  system_info(0, &info);
  EXPECT_EQ(info.l2, 1024u);
  // Leaf 2 is read afresh for each of the three size queries.
  cpu.leaves_read.clear();
  system_info(0, &info);
  int leaf2_reads = 0;
  for (uint32_t l : cpu.leaves_read) leaf2_reads += l == 2;
  EXPECT_EQ(leaf2_reads, 3);
}

TEST(CpuinfoCache, AmdAnswersFromTheExtendedLeaves) {
  FakeCpu cpu;
  cpu.set(0, vendor_leaf(1, "AuthenticAMD"));
  cpu.set(1, Regs{signature(6, 0, 4, 0), 0, 0, 0});
  cpu.set(0x80000000, Regs{0x80000006, 0, 0, 0});
  cpu.set(0x80000005, Regs{0xA1A2A3A4, 0xB1B2B3B4, 0x40C2C3C4, 0xD1D2D3D4});
  cpu.set(0x80000006, Regs{0x9ABCDEF1, 0x12345678, 0x0200F4C5, 0x77777777});
  CpuIdSnapshot s{};
  // l1_regs byte by byte, highest first.
  EXPECT_EQ(cpuinfo_query(0x20, &s, 0), 0xB1u);
  EXPECT_EQ(cpuinfo_query(0x23, &s, 0), 0xB4u);
  EXPECT_EQ(cpuinfo_query(0x28, &s, 0), 0x40u);
  EXPECT_EQ(cpuinfo_query(0x2B, &s, 0), 0xC4u);
  EXPECT_EQ(cpuinfo_query(0x2C, &s, 0), 0xD1u);
  EXPECT_EQ(cpuinfo_query(0x2F, &s, 0), 0xD4u);
  // l2_regs ECX: 16-31, 12-15, 8-11, 0-7.
  EXPECT_EQ(cpuinfo_query(0x30, &s, 0), 0x0200u);
  EXPECT_EQ(cpuinfo_query(0x31, &s, 0), 0xFu);
  EXPECT_EQ(cpuinfo_query(0x32, &s, 0), 0x4u);
  EXPECT_EQ(cpuinfo_query(0x33, &s, 0), 0xC5u);
  // Family 6 (cpu type 6) only: EAX of l1_regs, and EAX/EBX fields of l2_regs.
  EXPECT_EQ(cpuinfo_query(0x24, &s, 0), 0xA1u);
  EXPECT_EQ(cpuinfo_query(0x27, &s, 0), 0xA4u);
  EXPECT_EQ(cpuinfo_query(0x34, &s, 0), 0x9u);
  EXPECT_EQ(cpuinfo_query(0x35, &s, 0), 0xABCu);
  EXPECT_EQ(cpuinfo_query(0x36, &s, 0), 0xDu);
  EXPECT_EQ(cpuinfo_query(0x37, &s, 0), 0xEF1u);
  EXPECT_EQ(cpuinfo_query(0x38, &s, 0), 0x1u);
  EXPECT_EQ(cpuinfo_query(0x39, &s, 0), 0x234u);
  EXPECT_EQ(cpuinfo_query(0x3A, &s, 0), 0x5u);
  EXPECT_EQ(cpuinfo_query(0x3B, &s, 0), 0x678u);
  EXPECT_EQ(cpuinfo_query(0x3C, &s, 0), 0u);  // no L3 on AMD parts
  EXPECT_EQ(cpuinfo_query(0x1F, &s, 0), 0u);
  EXPECT_EQ(cpuinfo_query(0x3D, &s, 0), 0u);

  // Family 15: the family 6 queries answer 0, the others as before.
  cpu.set(1, Regs{signature(15, 0, 4, 0), 0, 0, 0});
  CpuIdSnapshot k8{};
  EXPECT_EQ(cpuinfo_query(0x24, &k8, 0), 0u);
  EXPECT_EQ(cpuinfo_query(0x35, &k8, 0), 0u);
  EXPECT_EQ(cpuinfo_query(0x28, &k8, 0), 0x40u);

  CpuSystemInfo info{};
  testing::internal::CaptureStdout();
  cpuinfo_system_info(1, &info);
  const std::string trace = testing::internal::GetCapturedStdout();
  EXPECT_EQ(trace.find("Cache detection info:"), std::string::npos);  // leaf 2 is Intel's
  EXPECT_EQ(info.l1, 64u);
  EXPECT_EQ(info.l2, 512u);
  EXPECT_EQ(info.l3, 0u);
}

TEST(CpuinfoCache, UnknownVendorHasNoCaches) {
  FakeCpu cpu;
  make_processor(cpu, "HygonGenuine", signature(15, 9, 0, 0));
  cpu.set(2, leaf2({0x2C, 0x44, 0x29}));
  cpu.set(0x80000000, Regs{0x80000006, 0, 0, 0});
  cpu.set(0x80000005, Regs{0, 0, 0x40000000, 0});
  cpu.set(0x80000006, Regs{0, 0, 0x02000000, 0});
  CpuSystemInfo info{};
  system_info(0, &info);
  EXPECT_EQ(info.l1, 0u);
  EXPECT_EQ(info.l2, 0u);
  EXPECT_EQ(info.l3, 0u);
  EXPECT_EQ(info.has_sse2, 1u);
  EXPECT_EQ(info.has_sse3, 1u);
}

// The environment takes its settings from the classification when it is made,
// silently.
TEST(CpuinfoEnvironment, ClassSettingAndCachesComeFromTheProcessor) {
  struct Case {
    const char* vendor;
    uint32_t family, ext_family;
    int32_t class_setting;
  };
  const Case cases[] = {
      {"AuthenticAMD", 15, 8, 10010},  // family 23: class 19
      {"AuthenticAMD", 15, 10, 10},    // family 25: class 0
      {"AuthenticAMD", 15, 0, 10},     // class 18
      {"GenuineIntel", 6, 0, 10},     {"CentaurHauls", 6, 0, 10},
  };
  for (const Case& c : cases) {
    FakeCpu cpu;
    cpu.set(0, vendor_leaf(1, c.vendor));
    cpu.set(1, Regs{signature(c.family, c.ext_family, 1, 0), 0, 0, 1u << 26});
    cpu.set(0x80000000, Regs{0x80000006, 0, 0, 0});
    cpu.set(0x80000005, Regs{0, 0, 0x20000000, 0});
    cpu.set(0x80000006, Regs{0, 0, 0x02000000, 0});
    testing::internal::CaptureStdout();
    SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    ASSERT_NE(env, nullptr);
    EXPECT_EQ(env->class_setting, c.class_setting)
        << c.vendor << " " << c.family << "+" << c.ext_family;
    const bool amd = std::string(c.vendor) == "AuthenticAMD";
    const bool intel = std::string(c.vendor) == "GenuineIntel";
    // AMD: l1 is ECX 24-31 of 0x80000005 (32), l2 ECX 16-31 of 0x80000006
    // (512). Intel: no leaf 2 descriptors, l2 from 0x80000006. Others: none.
    EXPECT_EQ(env->cache_l1, amd ? 32 : 0);
    EXPECT_EQ(env->cache_l2, amd || intel ? 512 : 0);
    EXPECT_EQ(env->has_sse2, 1);
    EXPECT_EQ(env->has_sse3, 0);
    sysenv_destroy(&env);
  }
}

}  // namespace
