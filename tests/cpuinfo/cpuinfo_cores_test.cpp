// Core counting on fake machines: the Intel walk over fake topologies, the
// AMD path with and without leaf 0x8000001E, unknown vendors, restricted
// processes, and the helpers the walk is made of.
#include <gtest/gtest.h>

#include <string>

#include "cpub.h"
#include "cpuinfo.h"
#include "fake_cpu.h"
#include "test_support.h"

namespace {

using hostkit_test::FakeCpu;
using hostkit_test::Regs;
using hostkit_test::signature;
using hostkit_test::TextSink;
using hostkit_test::vendor_leaf;

constexpr uint32_t kHtt = 1u << 28;

struct Counted {
  uint32_t status = 0, logical = 0, cores = 0, sockets = 0;
  std::string trace;
};

Counted count(int32_t verbose = 1) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  TextSink sink;
  sysenv_set_stream(env, 0, &sink, TextSink::receive);
  Counted c;
  c.status = cpuinfo_count_cores(env, &c.logical, &c.cores, &c.sockets, verbose);
  c.trace = sink.text;
  sysenv_destroy(&env);
  return c;
}

// An Intel machine: leaf 1 EBX bits 16-23 = logical processors per package,
// leaf 4 EAX bits 26-31 = cores per package - 1, HTT as given.
void intel(FakeCpu& cpu, uint32_t lp_per_package, uint32_t cores_per_package, bool htt) {
  cpu.set(0, vendor_leaf(0xB, "GenuineIntel"));
  cpu.set(1, Regs{signature(6, 0, 10, 1), lp_per_package << 16, 0, htt ? kHtt : 0});
  cpu.set(4, Regs{(cores_per_package - 1) << 26, 0, 0, 0});
}

// The walk's lines for one processor.
std::string walk_lines(uint64_t mask, uint64_t system, int apic, int pkg, int core, int smt) {
  char text[400];
  std::snprintf(text, sizeof text,
                "dwAffinityMask 0x%llx\ndwSystemAffinity 0x%llx\nAPIC_ID = %d\n"
                "  AffinityMask = %llu, Initial APIC = %d; Physical ID = %d, Core ID = %d,  "
                "SMT ID = %d\n",
                static_cast<unsigned long long>(mask), static_cast<unsigned long long>(system),
                apic, static_cast<unsigned long long>(mask), apic, pkg, core, smt);
  return text;
}

TEST(CpuinfoFieldWidth, BitsForValuesBelowN) {
  const std::pair<uint32_t, uint32_t> cases[] = {
      {0, 0}, {1, 0},  {2, 1},  {3, 2},   {4, 2},   {5, 3},   {8, 3},
      {9, 4}, {16, 4}, {17, 5}, {255, 8}, {256, 8}, {257, 9}, {0xFFFFFFFF, 32}};
  for (auto [n, width] : cases) EXPECT_EQ(cpuinfo_field_width(n), width) << n;
}

TEST(CpuinfoTopologyHelpers, FollowHttAndTheVendor) {
  FakeCpu cpu;
  intel(cpu, 16, 8, true);
  EXPECT_EQ(cpuinfo_htt_supported(), 1u);
  EXPECT_EQ(cpuinfo_max_lp_per_package(), 16u);
  EXPECT_EQ(cpuinfo_max_core_per_physical_proc(), 8u);
  cpu.set(0, vendor_leaf(3, "GenuineIntel"));  // no leaf 4 below 4
  EXPECT_EQ(cpuinfo_max_core_per_physical_proc(), 1u);
  cpu.set(0, vendor_leaf(0, "GenuineIntel"));  // no leaf 1 at all
  EXPECT_EQ(cpuinfo_htt_supported(), 0u);
  EXPECT_EQ(cpuinfo_max_lp_per_package(), 1u);
  EXPECT_EQ(cpuinfo_max_core_per_physical_proc(), 1u);
  // Another vendor: the low byte of ECX of 0x80000008, halved.
  cpu.set(0, vendor_leaf(1, "AuthenticAMD"));
  cpu.set(0x80000008, Regs{0, 0, 0x100F, 0});
  EXPECT_EQ(cpuinfo_max_core_per_physical_proc(), 7u);
}

TEST(CpuinfoIntelWalk, OneProcessor) {
  FakeCpu cpu(1);
  intel(cpu, 1, 1, false);
  cpu.set_apic(0, 0);
  const Counted c = count();
  EXPECT_EQ(c.logical, 1u);
  EXPECT_EQ(c.cores, 1u);
  EXPECT_EQ(c.sockets, 1u);
  EXPECT_EQ(c.status, 4u);  // one core per socket, MaxLPPerCore 1
  EXPECT_EQ(c.trace,
            "Begin CPU core counting\n"
            "MaxLPPerCore = 1\n"
            "MaxCorePerPhysicalProc = 1\n" +
                walk_lines(1, 1, 0, 0, 0, 0) +
                "Number of logical CPU's detected 1\n"
                "End CPU core counting. statusflag = 4\n");
  // With HTT and two logical processors per package, one core: MaxLPPerCore 2.
  intel(cpu, 2, 1, true);
  const Counted smt = count(0);
  EXPECT_EQ(smt.status, 2u);
  EXPECT_EQ(smt.logical, 1u);
  EXPECT_EQ(smt.trace, "");  // verbose 0
}

TEST(CpuinfoIntelWalk, TwoSocketsOfFourCoresWithoutSmt) {
  FakeCpu cpu(8);
  // 4 logical per package, 4 cores: MaxLPPerCore 1, w1 0, w2 2, w3 2. Package
  // mask 0xFC, core mask 0x03. Packages at APIC 0 and 4, in the OS order of
  // an interleaving machine.
  intel(cpu, 4, 4, true);
  const int apic[8] = {0, 4, 1, 5, 2, 6, 3, 7};
  for (int i = 0; i < 8; ++i) cpu.set_apic(static_cast<size_t>(i), static_cast<uint32_t>(apic[i]));
  const Counted c = count();
  EXPECT_EQ(c.logical, 8u);
  EXPECT_EQ(c.cores, 8u);
  EXPECT_EQ(c.sockets, 2u);
  EXPECT_EQ(c.status, 5u);
  std::string expected = "Begin CPU core counting\nMaxLPPerCore = 1\nMaxCorePerPhysicalProc = 4\n";
  for (int i = 0; i < 8; ++i) {
    expected += walk_lines(uint64_t{1} << i, 0xFF, apic[i], apic[i] & 0xFC, apic[i] & 3, 0);
  }
  expected += "Number of logical CPU's detected 8\n";
  // Every position after the first brings a new key (package | core).
  for (int i = 1; i < 8; ++i) {
    expected += "New core detected with tblPkgID " + std::to_string(apic[i] & 0xFC) +
                " tblCoreID " + std::to_string(apic[i] & 3) + "\n";
  }
  expected += "End CPU core counting. statusflag = 5\n";
  EXPECT_EQ(c.trace, expected);
}

TEST(CpuinfoIntelWalk, OneSocketFourCoresTwoThreads) {
  FakeCpu cpu(8);
  // 8 logical per package, 4 cores: MaxLPPerCore 2, w1 1, w2 2, w3 3: SMT
  // mask 0x01, core mask 0x06, package mask 0xF8.
  intel(cpu, 8, 4, true);
  const int apic[8] = {0, 2, 4, 6, 1, 3, 5, 7};
  for (int i = 0; i < 8; ++i) cpu.set_apic(static_cast<size_t>(i), static_cast<uint32_t>(apic[i]));
  const Counted c = count();
  EXPECT_EQ(c.logical, 8u);
  EXPECT_EQ(c.cores, 4u);
  EXPECT_EQ(c.sockets, 1u);
  EXPECT_EQ(c.status, 6u);
  EXPECT_NE(c.trace.find(walk_lines(0x20, 0xFF, 3, 0, 2, 1)), std::string::npos) << c.trace;
  // New cores at positions 1..3 only; the second threads find their cores.
  EXPECT_NE(c.trace.find("detected 8\n"
                         "New core detected with tblPkgID 0 tblCoreID 2\n"
                         "New core detected with tblPkgID 0 tblCoreID 4\n"
                         "New core detected with tblPkgID 0 tblCoreID 6\n"
                         "End CPU core counting. statusflag = 6\n"),
            std::string::npos)
      << c.trace;
  // The same package with SMT switched off in the firmware: four processors,
  // four cores, SMT capable but idle.
  FakeCpu idle(4);
  intel(idle, 8, 4, true);
  for (int i = 0; i < 4; ++i) idle.set_apic(static_cast<size_t>(i), static_cast<uint32_t>(2 * i));
  const Counted d = count(0);
  EXPECT_EQ(d.logical, 4u);
  EXPECT_EQ(d.cores, 4u);
  EXPECT_EQ(d.status, 7u);
}

TEST(CpuinfoIntelWalk, MovesBeforeEachReadAndEndsOnTheProcessMask) {
  FakeCpu cpu(4);
  intel(cpu, 4, 2, true);
  for (int i = 0; i < 4; ++i) cpu.set_apic(static_cast<size_t>(i), static_cast<uint32_t>(i));
  cpu.thread_mask = 0x4;  // the thread's own mask is lost
  count(0);
  EXPECT_EQ(cpu.reads_before_yield, 0);
  EXPECT_EQ(cpu.thread_mask, 0xFu);
  EXPECT_EQ(cpu.log.back(), "yield");
  EXPECT_EQ(cpu.log[cpu.log.size() - 2], "pin f");
  EXPECT_EQ(cpu.count("pin 10"), 0);  // above the system mask
}

TEST(CpuinfoIntelWalk, SystemMaskWithBit63WalksAll64Positions) {
  FakeCpu cpu(64);
  // One package of 64 cores without SMT: 64 logical per package.
  intel(cpu, 64, 64, true);
  for (size_t i = 0; i < 64; ++i) cpu.set_apic(i, static_cast<uint32_t>(i));
  EXPECT_EQ(cpu.system_mask, ~uint64_t{0});
  const Counted c = count();
  EXPECT_EQ(c.logical, 64u);
  EXPECT_EQ(c.cores, 64u);
  EXPECT_EQ(c.sockets, 1u);
  EXPECT_EQ(c.status, 5u);
  EXPECT_EQ(cpu.count("pin 8000000000000000"), 1);
  EXPECT_NE(c.trace.find("dwAffinityMask 0x8000000000000000\n"
                         "dwSystemAffinity 0xffffffffffffffff\n"
                         "APIC_ID = 63\n"
                         "  AffinityMask = 9223372036854775808, Initial APIC = 63;"),
            std::string::npos);
  // The walk ended by the mask's overflow: the next thing is the return to
  // the process mask.
  EXPECT_EQ(cpu.log[cpu.log.size() - 2], "pin ffffffffffffffff");
}

TEST(CpuinfoIntelWalk, ApicIdsAboveTheFieldsAlias) {
  // The 8-bit APIC id of a large machine wraps; processors at 0 and 256 read
  // the same id and count as one core.
  FakeCpu cpu(3);
  intel(cpu, 1, 1, false);
  cpu.set_apic(0, 0);
  cpu.set_apic(1, 1);
  cpu.set_apic(2, 0);
  const Counted c = count(0);
  EXPECT_EQ(c.logical, 3u);
  EXPECT_EQ(c.cores, 2u);
  EXPECT_EQ(c.sockets, 2u);  // no HTT: w3 is 0 and the whole id is the package
}

TEST(CpuinfoIntelWalk, RestrictedProcessCountsNothing) {
  FakeCpu cpu(4);
  intel(cpu, 4, 4, true);
  cpu.process_mask = cpu.thread_mask = 0x1;
  const Counted c = count();
  EXPECT_EQ(c.status, 8u);
  EXPECT_EQ(c.logical, 1u);
  EXPECT_EQ(c.cores, 1u);
  EXPECT_EQ(c.sockets, 1u);
  EXPECT_EQ(c.trace, "Begin CPU core counting\nNot all cpus enabled\n");
  EXPECT_EQ(cpu.count("pin 1"), 0);  // the thread never moved
  EXPECT_EQ(cpu.thread_mask, 0x1u);
}

TEST(CpuinfoIntelWalk, RestrictionAppliesToEveryVendor) {
  for (const char* vendor : {"AuthenticAMD", "CentaurHauls"}) {
    FakeCpu cpu(2);
    cpu.set(0, vendor_leaf(1, vendor));
    cpu.set(1, Regs{0, 0, 0, kHtt});
    cpu.process_mask = 0x2;
    const Counted c = count();
    EXPECT_EQ(c.status, 8u) << vendor;
    EXPECT_EQ(c.trace, "Begin CPU core counting\nNot all cpus enabled\n") << vendor;
  }
  // Masks that can't be read at all count nothing either.
  FakeCpu cpu(2);
  intel(cpu, 1, 1, false);
  cpu.masks_fail = true;
  const Counted c = count();
  EXPECT_EQ(c.status, 8u);
  EXPECT_EQ(c.logical, 1u);
}

TEST(CpuinfoIntelWalk, ProcessorsThatRefuseTheThreadAreSkipped) {
  FakeCpu cpu(4);
  intel(cpu, 1, 1, false);
  for (int i = 0; i < 4; ++i) cpu.set_apic(static_cast<size_t>(i), static_cast<uint32_t>(8 * i));
  cpu.refused = 0x1;  // position 0 never written
  const Counted c = count();
  // Three processors read at positions 1..3; position 0 plays no part in the
  // passes: three distinct packages.
  EXPECT_EQ(c.logical, 3u);
  EXPECT_EQ(c.cores, 3u);
  EXPECT_EQ(c.sockets, 3u);
  EXPECT_NE(c.trace.find("dwAffinityMask 0x1\ndwSystemAffinity 0xf\ndwAffinityMask 0x2\n"),
            std::string::npos)
      << c.trace;
  EXPECT_NE(c.trace.find("detected 3\n"
                         "New core detected with tblPkgID 16 tblCoreID 0\n"
                         "New core detected with tblPkgID 24 tblCoreID 0\n"
                         "End"),
            std::string::npos)
      << c.trace;
  // Not one processor takes the thread: the counts stay at one.
  cpu.refused = 0xF;
  const Counted none = count();
  EXPECT_EQ(none.logical, 1u);
  EXPECT_EQ(none.cores, 1u);
  EXPECT_EQ(none.status, 8u);
  EXPECT_NE(none.trace.find("detected 0\nEnd CPU core counting. statusflag = 8\n"),
            std::string::npos);
}

TEST(CpuinfoIntelWalk, SystemMaskWithAHole) {
  FakeCpu cpu(4);
  intel(cpu, 1, 1, false);
  for (int i = 0; i < 4; ++i) cpu.set_apic(static_cast<size_t>(i), static_cast<uint32_t>(i));
  cpu.system_mask = cpu.process_mask = cpu.thread_mask = 0xD;  // processor 1 offline
  const Counted c = count(0);
  // Positions 0, 2, 3 read; mask 0x2 is within the system mask by value and
  // is tried (no processor there), then skipped.
  EXPECT_EQ(c.logical, 3u);
  EXPECT_EQ(c.cores, 3u);
  EXPECT_EQ(c.sockets, 3u);
  EXPECT_EQ(cpu.count("pin 2"), 1);
}

TEST(CpuinfoIntelWalk, ZeroCoresPerPackageDividesNothingByZero) {
  // ECX says "ntel" but the vendor isn't GenuineIntel: the core count comes
  // from 0x80000008, which says 0 (1 halved).
  FakeCpu cpu(2);
  cpu.set(0, vendor_leaf(4, "GenuineXntel"));
  cpu.set(1, Regs{0, 2u << 16, 0, kHtt});
  cpu.set(0x80000008, Regs{0, 0, 1, 0});
  cpu.set_apic(0, 0);
  cpu.set_apic(1, 1);
  const Counted c = count();
  EXPECT_NE(c.trace.find("MaxLPPerCore = 2\nMaxCorePerPhysicalProc = 0\n"), std::string::npos)
      << c.trace;
  EXPECT_EQ(c.logical, 2u);
}

// AMD: leaf 0x80000000's low 16 bits pick the source; one socket always.
TEST(CpuinfoAmd, FromTheExtendedLeavesWithoutAWalk) {
  struct Case {
    uint32_t highest;  // EAX of 0x80000000
    bool htt;
    uint32_t ecx_8;   // ECX of 0x80000008: logical - 1 in the low byte
    uint32_t ebx_1e;  // EBX of 0x8000001E: threads per core - 1 in bits 8-9
    uint32_t logical, cores, status;
  };
  const Case cases[] = {
      {0x8000001F, true, 0x600F, 0x0100, 16, 8, 6},   // two threads per core
      {0x8000001F, true, 0x300F, 0x0000, 16, 16, 5},  // one thread per core
      {0x8000001E, false, 0x000F, 0x0300, 16, 4, 6},  // four, HTT not heeded
      {0x8000001B, true, 0x400B, 0x0000, 12, 6, 6},   // no 0x8000001E: HTT says 2
      {0x8000001B, false, 0x4003, 0x0100, 4, 4, 5},   // and without HTT 1
      {0x80000018, false, 0x0000, 0x0000, 1, 1, 4},
      {0x80000007, false, 0x000F, 0x0100, 1, 1, 4},  // below 8: nothing changes
      {0x80000007, true, 0x000F, 0x0100, 2, 1, 1},   // below 8 with HTT
      {0x00010008, false, 0x0001, 0x0000, 2, 2, 5},  // only the low 16 bits count
  };
  for (const Case& k : cases) {
    FakeCpu cpu(4);
    cpu.set(0, vendor_leaf(1, "AuthenticAMD"));
    cpu.set(1, Regs{signature(15, 8, 1, 0), 0, 0, k.htt ? kHtt : 0});
    cpu.set(0x80000000, Regs{k.highest, 0, 0, 0});
    cpu.set(0x80000008, Regs{0, 0, k.ecx_8, 0});
    cpu.set(0x8000001E, Regs{0, k.ebx_1e, 0, 0});
    const Counted c = count();
    const std::string where = std::to_string(k.highest) + " " + std::to_string(k.ecx_8);
    EXPECT_EQ(c.logical, k.logical) << where;
    EXPECT_EQ(c.cores, k.cores) << where;
    EXPECT_EQ(c.sockets, 1u) << where;
    EXPECT_EQ(c.status, k.status) << where;
    EXPECT_EQ(c.trace, "Begin CPU core counting\nEnd CPU core counting. statusflag = " +
                           std::to_string(k.status) + "\n")
        << where;
    EXPECT_EQ(cpu.count("masks"), 1) << where;
    EXPECT_EQ(cpu.count("yield"), 0) << where;  // no pinning
  }
}

TEST(CpuinfoUnknownVendor, CountsOneOfEverything) {
  for (const char* vendor : {"CentaurHauls", "HygonGenuine", "AuthenticAMX"}) {
    FakeCpu cpu(8);
    cpu.set(0, vendor_leaf(0xD, vendor));
    cpu.set(1, Regs{0, 8u << 16, 0, kHtt});
    cpu.set(0x80000000, Regs{0x80000008, 0, 0, 0});
    cpu.set(0x80000008, Regs{0, 0, 7, 0});
    const Counted c = count();
    EXPECT_EQ(c.logical, 1u) << vendor;
    EXPECT_EQ(c.cores, 1u) << vendor;
    EXPECT_EQ(c.sockets, 1u) << vendor;
    EXPECT_EQ(c.trace, "Begin CPU core counting\nEnd CPU core counting. statusflag = 8\n")
        << vendor;
  }
}

}  // namespace
