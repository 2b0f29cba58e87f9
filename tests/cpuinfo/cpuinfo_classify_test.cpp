// Classification and cache detection on fake processors: the class table,
// the query vocabulary, the leaf 2 descriptors and the leaf 0x80000006
// override, the trace's text, and the settings an environment takes from them.
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

// Runs cpuinfo_system_info and returns what it printed.
std::string system_info(int32_t verbose, CpuSystemInfo* info) {
  testing::internal::CaptureStdout();
  cpuinfo_system_info(verbose, info);
  return hostkit_test::without_cr(testing::internal::GetCapturedStdout());
}

// A processor of `vendor` with the given leaf 1 signature, SSE2 and SSE3 set.
void make_processor(FakeCpu& cpu, const char* vendor, uint32_t sig) {
  cpu.set(0, vendor_leaf(0xD, vendor));
  cpu.set(1, Regs{sig, 0, 0x1, 1u << 26});
}

// The environment takes its settings from the classification when it is
// made, silently.
void expect_environment(int32_t class_setting, int32_t l1, int32_t l2, int32_t sse2,
                        int32_t sse3) {
  testing::internal::CaptureStdout();
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  ASSERT_NE(env, nullptr);
  EXPECT_EQ(env->class_setting, class_setting);
  EXPECT_EQ(env->cache_l1, l1);
  EXPECT_EQ(env->cache_l2, l2);
  EXPECT_EQ(env->has_sse2, sse2);
  EXPECT_EQ(env->has_sse3, sse3);
  sysenv_destroy(&env);
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

// Expected classes read off the decision table and the cpu type to class
// step: family = family number + extended family, model = model number +
// 16 x extended model, for every vendor. unknown: "cpu type unknown." printed.
TEST(CpuinfoClass, TableAcrossVendorsFamiliesAndModels) {
  const char *amd = "AuthenticAMD", *intel = "GenuineIntel";
  struct Case {
    const char* vendor;
    uint32_t family, ext_family, model, ext_model, procid;
    bool unknown;
  };
  const Case cases[] = {
      // AMD: family 6 is type 6 (class 17), 15 type 7 (18), 23 type 8 (19);
      // 25 (15 + 10), 16 and 5 are not in the table.
      {amd, 6, 0, 8, 0, 17, false}, {amd, 15, 0, 5, 0, 18, false}, {amd, 15, 0, 15, 15, 18, false},
      {amd, 15, 8, 1, 0, 19, false}, {amd, 15, 10, 1, 1, 0, true}, {amd, 15, 1, 9, 0, 0, true},
      {amd, 5, 0, 1, 0, 0, true},
      // Intel family 4: models 0,1 type 9; 2..5 types 10..13; 7, 8 types 14,
      // 15: all class 1. Model 6 and models above 8 (16 with the extended
      // model): type 0, no unknown line. Family 5: types 16 and 17, class 4.
      {intel, 4, 0, 0, 0, 1, false}, {intel, 4, 0, 1, 0, 1, false}, {intel, 4, 0, 5, 0, 1, false},
      {intel, 4, 0, 8, 0, 1, false}, {intel, 4, 0, 6, 0, 0, false}, {intel, 4, 0, 9, 0, 0, false},
      {intel, 4, 0, 0, 1, 0, false}, {intel, 5, 0, 2, 0, 4, false}, {intel, 5, 0, 4, 0, 4, false},
      // Family 6: model 1 type 18 (class 4), 3 and 5 type 19 (5), 6 type 20
      // (6), 7, 8, 10, 11 type 21 (6), 9 and 13 type 23 (8), others type 22
      // (7), among them 0x9E, 25 (not 9) and 29 (not 13).
      {intel, 6, 0, 1, 0, 4, false}, {intel, 6, 0, 3, 0, 5, false}, {intel, 6, 0, 5, 0, 5, false},
      {intel, 6, 0, 6, 0, 6, false}, {intel, 6, 0, 11, 0, 6, false}, {intel, 6, 0, 9, 0, 8, false},
      {intel, 6, 0, 13, 0, 8, false}, {intel, 6, 0, 0, 0, 7, false}, {intel, 6, 0, 12, 0, 7, false},
      {intel, 6, 0, 14, 9, 7, false}, {intel, 6, 0, 9, 1, 7, false}, {intel, 6, 0, 13, 1, 7, false},
      // Family 15 is type 22, class 7; other families (7, 16) the same, with
      // the line. Other vendors: class 0; all twelve characters count.
      {intel, 15, 0, 2, 0, 7, false}, {intel, 7, 0, 0, 0, 7, true}, {intel, 15, 1, 0, 0, 7, true},
      {"CentaurHauls", 6, 0, 15, 0, 0, false}, {"HygonGenuine", 15, 8, 0, 0, 0, false},
      {"GenuineIntex", 6, 0, 9, 0, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.vendor) + " family " + std::to_string(c.family) + "+" +
                 std::to_string(c.ext_family) + " model " + std::to_string(c.model) + "+16*" +
                 std::to_string(c.ext_model));
    FakeCpu cpu;
    make_processor(cpu, c.vendor, signature(c.family, c.ext_family, c.model, c.ext_model));
    CpuSystemInfo info{}, quiet{};
    const std::string trace = system_info(1, &info);
    EXPECT_EQ(info.procid, c.procid);
    EXPECT_EQ(trace.find("cpu type unknown.\n") != std::string::npos, c.unknown);
    EXPECT_EQ(system_info(0, &quiet), "");  // silent runs give the same answer
    EXPECT_EQ(quiet.procid, c.procid);
    // Class 19 alone sets the class setting's high part. No cache leaves here.
    expect_environment(c.procid == 19 ? 10010 : 10, 0, 0, 1, 1);
  }
}

TEST(CpuinfoQuery, SnapshotIsReadOnceWithItsExtendedLeavesGuarded) {
  FakeCpu cpu;
  make_processor(cpu, "AuthenticAMD", signature(15, 8, 1, 0));
  cpu.set(0x80000000, Regs{0x80000005, 0, 0, 0});
  cpu.set(0x80000005, Regs{1, 2, 0x40000000, 4});
  cpu.set(0x80000006, Regs{9, 9, 0x02000000, 9});  // beyond the highest leaf
  CpuIdSnapshot snapshot{};
  EXPECT_EQ(cpuinfo_query(0x28, &snapshot, 0), 64u);
  // Leaf 0, leaf 1, 0x80000000, then 0x80000005, 0x80000002..4 and
  // 0x80000001 only as far as 0x80000000 allows.
  EXPECT_EQ(cpu.leaves_read, (std::vector<uint32_t>{0, 1, 0x80000000, 0x80000005, 0x80000002,
                                                    0x80000003, 0x80000004, 0x80000001}));
  EXPECT_EQ(cpuinfo_query(0x30, &snapshot, 0), 0u);  // 0x80000006 was never read
  EXPECT_EQ(cpu.leaves_read.size(), 8u);
}

// Every feature query against every single bit of leaf 1 EDX and ECX and of
// 0x80000001 EDX: each answers 1 for its own bits and 0 for all others.
TEST(CpuinfoQuery, FeatureBitsOfTheVocabulary) {
  enum Source { kEdx, kEcx, kExtEdx };
  struct Bit {
    uint32_t query;
    Source source;
    uint32_t bit;
  };
  std::vector<Bit> bits = {{22, kEdx, 25},    {22, kExtEdx, 22}, {23, kEdx, 23}, {24, kEdx, 24},
                           {25, kExtEdx, 30}, {26, kExtEdx, 31}, {27, kExtEdx, 22},
                           {28, kEdx, 25},    {29, kEdx, 26},    {30, kEcx, 0}};
  for (uint32_t q = 5; q <= 21; ++q) bits.push_back({q, kEdx, q <= 14 ? q - 5 : q - 4});
  FakeCpu cpu;
  cpu.set(0, vendor_leaf(1, "AuthenticAMD"));
  cpu.set(0x80000000, Regs{0x80000001, 0, 0, 0});
  for (Source source : {kEdx, kEcx, kExtEdx}) {
    for (uint32_t b = 0; b < 32; ++b) {
      const uint32_t v = 1u << b;
      cpu.set(1, Regs{0, 0, source == kEcx ? v : 0, source == kEdx ? v : 0});
      cpu.set(0x80000001, Regs{0, 0, 0, source == kExtEdx ? v : 0});
      CpuIdSnapshot s{};
      for (uint32_t q = 5; q <= 30; ++q) {
        uint32_t expected = 0;
        for (const Bit& e : bits) expected |= e.query == q && e.source == source && e.bit == b;
        EXPECT_EQ(cpuinfo_query(q, &s, 0), expected) << "query " << q << " source " << source
                                                     << " bit " << b;
      }
      EXPECT_EQ(cpuinfo_query(2, &s, 0) + cpuinfo_query(3, &s, 0), 0u);
      EXPECT_EQ(cpuinfo_query(4, &s, 0), 1u);
    }
  }
}

TEST(CpuinfoCache, DescriptorBytesLastMatchWins) {
  const struct {
    Regs leaf2;
    uint32_t l1, l2, l3;
  } cases[] = {
      {Regs{0x00000001, 0, 0, 0}, 0, 0, 0},        // the count byte isn't a descriptor
      {leaf2({0xFF}), 0, 0, 0},                    // leaf 4 isn't consulted
      {leaf2({0x01, 0x43, 0x44}), 0, 1024, 0},     // last match wins,
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
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.leaf2[0] << " " << c.leaf2[1]);
    cpu.set(2, c.leaf2);
    uint32_t l1 = 9, l2 = 9, l3 = 9;
    cpuinfo_cache_sizes(&l1, &l2, &l3, 0);
    EXPECT_EQ(l1, c.l1);
    EXPECT_EQ(l2, c.l2);
    EXPECT_EQ(l3, c.l3);
  }
}

TEST(CpuinfoCache, IntelTraceAndTheLeaf80000006Override) {
  FakeCpu cpu;
  make_processor(cpu, "GenuineIntel", signature(6, 0, 13, 0));
  cpu.set(2, Regs{0x2C430001, 0x00000000, 0x00000000, 0x80000000});
  cpu.set(0x80000000, Regs{0x80000004, 0, 0, 0});
  for (uint32_t leaf : {0x80000002u, 0x80000003u, 0x80000004u}) {
    cpu.set(leaf, Regs{0x41414141, 0x41414141, 0x41414141, 0x41414141});  // "AAAA" x 4
  }
  CpuSystemInfo info{};
  // Leaf 2 bytes 0x01, 0x00, 0x43, 0x2C: L1 32 (0x2C), L2 512 (0x43). No
  // leaf 0x80000006, so no override. EDX 0x80000000 prints as unsigned.
  EXPECT_EQ(system_info(1, &info),
            "Vegra system information:\nVendor = INTEL\n" + hostkit_test::family_lines(6, 0, 13, 0) +
                "Cache detection info:\n  Cache_sizes[0] = 742588417\n  Cache_sizes[1] = 0\n"
                "  Cache_sizes[2] = 0\n  Cache_sizes[3] = 2147483648\n" +
                hostkit_test::info_lines(8, 32, 512, 1, 1, std::string(48, 'A').c_str()));
  EXPECT_EQ(info.l3, 0u);
  // From 0x80000006 on, its ECX bits 16-31 are L2, a zero all the same.
  cpu.set(0x80000000, Regs{0x80000006, 0, 0, 0});
  cpu.set(0x80000006, Regs{0, 0, 256u << 16 | 0x40, 0});
  system_info(0, &info);
  EXPECT_EQ(info.l1, 32u);
  EXPECT_EQ(info.l2, 256u);
  expect_environment(10, 32, 256, 1, 1);
  cpu.set(0x80000006, Regs{0, 0, 0x40, 0});
  system_info(0, &info);
  EXPECT_EQ(info.l2, 0u);
}

TEST(CpuinfoCache, AmdQueriesReadTheExtendedLeaves) {
  FakeCpu cpu;
  cpu.set(0, vendor_leaf(1, "AuthenticAMD"));
  cpu.set(0x80000000, Regs{0x80000006, 0, 0, 0});
  cpu.set(0x80000005, Regs{0xA1A2A3A4, 0xB1B2B3B4, 0x40C2C3C4, 0xD1D2D3D4});
  cpu.set(0x80000006, Regs{0x9ABCDEF1, 0x12345678, 0x0200F4C5, 0x77777777});
  // 0x20..0x2F: bytes of 0x80000005 EBX, EAX, ECX, EDX, highest first;
  // 0x30..0x33: 0x80000006 ECX bits 16-31, 12-15, 8-11, 0-7; 0x34..0x3B:
  // 0x80000006 EAX then EBX as 4-bit and 12-bit fields, highest first. EAX of
  // 0x80000005 and the 0x34.. fields only for family 6 (cpu type 6); no L3.
  const struct {
    uint32_t query, family6, family15;
  } cases[] = {
      {0x20, 0xB1, 0xB1}, {0x23, 0xB4, 0xB4}, {0x24, 0xA1, 0},        {0x27, 0xA4, 0},
      {0x28, 0x40, 0x40}, {0x2B, 0xC4, 0xC4}, {0x2C, 0xD1, 0xD1},     {0x2F, 0xD4, 0xD4},
      {0x30, 0x200, 0x200}, {0x31, 0xF, 0xF}, {0x32, 0x4, 0x4},       {0x33, 0xC5, 0xC5},
      {0x34, 0x9, 0},     {0x35, 0xABC, 0},   {0x36, 0xD, 0},         {0x37, 0xEF1, 0},
      {0x38, 0x1, 0},     {0x39, 0x234, 0},   {0x3A, 0x5, 0},         {0x3B, 0x678, 0},
      {0x3C, 0, 0},       {0x1F, 0, 0},       {0x3D, 0, 0},
  };
  for (uint32_t family : {6u, 15u}) {
    cpu.set(1, Regs{signature(family, 0, 4, 0), 0, 0, 1u << 26});  // SSE2, not SSE3
    CpuIdSnapshot s{};
    for (const auto& c : cases) {
      EXPECT_EQ(cpuinfo_query(c.query, &s, 0), family == 6 ? c.family6 : c.family15)
          << "family " << family << " query " << std::hex << c.query;
    }
  }
  // System information: L1 from 0x28, L2 from 0x30. Family 15, class 18.
  expect_environment(10, 0x40, 0x200, 1, 0);
}

}  // namespace
