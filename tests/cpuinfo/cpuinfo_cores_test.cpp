// Core counting on fake machines: the Intel walk over fake topologies, the
// AMD path with and without leaf 0x8000001E, unknown vendors and restricted
// processes.
#include <gtest/gtest.h>

#include <string>

#include "cpub.h"
#include "cpuinfo.h"
#include "fake_cpu.h"
#include "test_support.h"

namespace {

using hostkit_test::FakeCpu;
using hostkit_test::Regs;
using hostkit_test::vendor_leaf;
using hostkit_test::walk_lines;

constexpr uint32_t kHtt = 1u << 28;

struct Counted {
  uint32_t status = 0, logical = 0, cores = 0, sockets = 0;
  std::string trace;
};

Counted count(int32_t verbose = 1) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  hostkit_test::TextSink sink;
  sysenv_set_stream(env, 0, &sink, hostkit_test::TextSink::receive);
  Counted c;
  c.status = cpuinfo_count_cores(env, &c.logical, &c.cores, &c.sockets, verbose);
  c.trace = sink.text;
  sysenv_destroy(&env);
  return c;
}

void expect_counts(const Counted& c, uint32_t logical, uint32_t cores, uint32_t sockets,
                   uint32_t status) {
  EXPECT_EQ(c.logical, logical);
  EXPECT_EQ(c.cores, cores);
  EXPECT_EQ(c.sockets, sockets);
  EXPECT_EQ(c.status, status);
}

// An Intel machine: leaf 1 EBX bits 16-23 = logical processors per package,
// leaf 4 EAX bits 26-31 = cores per package - 1, HTT as given; APIC ids in
// the processors' order.
void intel(FakeCpu& cpu, uint32_t lp_per_package, uint32_t cores_per_package, bool htt,
           const std::vector<uint32_t>& apic = {}) {
  cpu.set(0, vendor_leaf(0xB, "GenuineIntel"));
  cpu.set(1, Regs{hostkit_test::signature(6, 0, 10, 1), lp_per_package << 16, 0, htt ? kHtt : 0});
  cpu.set(4, Regs{(cores_per_package - 1) << 26, 0, 0, 0});
  for (size_t i = 0; i < apic.size(); ++i) cpu.set_apic(i, apic[i]);
}

TEST(CpuinfoFieldWidth, BitsForValuesBelowN) {
  const std::pair<uint32_t, uint32_t> cases[] = {
      {0, 0}, {1, 0},  {2, 1},  {3, 2},   {4, 2},   {5, 3},   {8, 3},
      {9, 4}, {16, 4}, {17, 5}, {255, 8}, {256, 8}, {257, 9}, {0xFFFFFFFF, 32}};
  for (auto [n, width] : cases) EXPECT_EQ(cpuinfo_field_width(n), width) << n;
}

TEST(CpuinfoIntelWalk, OneProcessor) {
  FakeCpu cpu(1);
  intel(cpu, 1, 1, false, {0});
  const Counted c = count();
  expect_counts(c, 1, 1, 1, 4);  // one core per socket, MaxLPPerCore 1
  EXPECT_EQ(c.trace, "Begin CPU core counting\nMaxLPPerCore = 1\nMaxCorePerPhysicalProc = 1\n" +
                         walk_lines(1, 1, 0, 0, 0, 0) +
                         "Number of logical CPU's detected 1\n"
                         "End CPU core counting. statusflag = 4\n");
  // With HTT and two logical processors per package, one core (leaf 4 says
  // 8, but it lies above the highest leaf, 3): MaxLPPerCore 2, the one
  // thread of the core idle.
  intel(cpu, 2, 8, true);
  cpu.set(0, vendor_leaf(3, "GenuineIntel"));
  const Counted smt = count(0);
  expect_counts(smt, 1, 1, 1, 2);
  EXPECT_EQ(smt.trace, "");
}

TEST(CpuinfoIntelWalk, TwoSocketsOfFourCoresWithoutSmt) {
  FakeCpu cpu(8);
  // 4 logical per package, 4 cores: MaxLPPerCore 1, w1 0, w2 2, w3 2. Package
  // mask 0xFC, core mask 0x03. Packages at APIC 0 and 4, interleaved.
  intel(cpu, 4, 4, true, {0, 4, 1, 5, 2, 6, 3, 7});
  // The full trace of this topology is checked on the recorded E5345 pair.
  const Counted c = count();
  expect_counts(c, 8, 8, 2, 5);
  EXPECT_NE(c.trace.find(walk_lines(0x20, 0xFF, 6, 4, 2, 0)), std::string::npos) << c.trace;
  EXPECT_NE(c.trace.find("detected 8\nNew core detected with tblPkgID 4 tblCoreID 0\n"),
            std::string::npos);
}

TEST(CpuinfoIntelWalk, OneSocketFourCoresTwoThreads) {
  FakeCpu cpu(8);
  // 8 logical per package, 4 cores: MaxLPPerCore 2, w1 1, w2 2, w3 3: SMT
  // mask 0x01, core mask 0x06, package mask 0xF8.
  intel(cpu, 8, 4, true, {0, 2, 4, 6, 1, 3, 5, 7});
  const Counted c = count();
  expect_counts(c, 8, 4, 1, 6);
  EXPECT_NE(c.trace.find(walk_lines(0x20, 0xFF, 3, 0, 2, 1)), std::string::npos) << c.trace;
  // New cores at positions 1..3 only; the second threads find their cores.
  EXPECT_NE(c.trace.find("detected 8\n"
                         "New core detected with tblPkgID 0 tblCoreID 2\n"
                         "New core detected with tblPkgID 0 tblCoreID 4\n"
                         "New core detected with tblPkgID 0 tblCoreID 6\n"
                         "End CPU core counting. statusflag = 6\n"),
            std::string::npos)
      << c.trace;
  // The same package with SMT off in the firmware: SMT capable but idle.
  FakeCpu idle(4);
  intel(idle, 8, 4, true, {0, 2, 4, 6});
  expect_counts(count(0), 4, 4, 1, 7);
}

TEST(CpuinfoIntelWalk, MovesBeforeEachReadAndEndsOnTheProcessMask) {
  FakeCpu cpu(4);
  intel(cpu, 4, 2, true, {0, 1, 2, 3});
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
  std::vector<uint32_t> apic(64);
  for (uint32_t i = 0; i < 64; ++i) apic[i] = i;
  intel(cpu, 64, 64, true, apic);  // one package of 64 cores without SMT
  const Counted c = count();
  expect_counts(c, 64, 64, 1, 5);
  EXPECT_EQ(cpu.count("pin 8000000000000000"), 1);
  EXPECT_NE(c.trace.find(walk_lines(uint64_t{1} << 63, ~uint64_t{0}, 63, 0, 63, 0)),
            std::string::npos);
  // The walk ended by the mask's overflow, then returned to the process mask.
  EXPECT_EQ(cpu.log[cpu.log.size() - 2], "pin ffffffffffffffff");
}

TEST(CpuinfoIntelWalk, RestrictedOrUnreadableMasksCountNothing) {
  for (const char* vendor : {"GenuineIntel", "AuthenticAMD", "CentaurHauls"}) {
    for (bool fail : {false, true}) {
      SCOPED_TRACE(std::string(vendor) + (fail ? " masks unreadable" : " restricted"));
      FakeCpu cpu(4);
      intel(cpu, 4, 4, true);
      cpu.set(0, vendor_leaf(0xB, vendor));
      cpu.process_mask = cpu.thread_mask = 0x2;
      cpu.masks_fail = fail;
      const Counted c = count();
      expect_counts(c, 1, 1, 1, 8);
      EXPECT_EQ(c.trace, "Begin CPU core counting\nNot all cpus enabled\n");
      EXPECT_EQ(cpu.log, std::vector<std::string>{"masks"});  // the thread never moved
    }
  }
}

TEST(CpuinfoIntelWalk, ProcessorsThatRefuseTheThreadAreSkipped) {
  FakeCpu cpu(4);
  intel(cpu, 1, 1, false, {0, 8, 16, 24});
  cpu.refused = 0x1;  // position 0 never written
  const Counted c = count();
  // Three processors read at positions 1..3; position 0 plays no part in the
  // passes: three distinct packages.
  expect_counts(c, 3, 3, 3, 4);
  EXPECT_NE(c.trace.find("dwAffinityMask 0x1\ndwSystemAffinity 0xf\ndwAffinityMask 0x2\n"),
            std::string::npos)
      << c.trace;
  EXPECT_NE(c.trace.find("detected 3\n"
                         "New core detected with tblPkgID 16 tblCoreID 0\n"
                         "New core detected with tblPkgID 24 tblCoreID 0\nEnd"),
            std::string::npos)
      << c.trace;
  cpu.refused = 0xF;  // not one processor takes the thread: the counts stay at one
  expect_counts(count(0), 1, 1, 1, 8);
}

// The vendor's path is chosen by ECX of leaf 0 alone.
TEST(CpuinfoVendors, EcxChoosesThePathAndNothingDividesByZero) {
  // "ntel" in ECX: the walk, though the core count comes from 0x80000008 (not
  // GenuineIntel), which says 0 (1 halved).
  FakeCpu cpu(2);
  cpu.set(0, vendor_leaf(4, "GenuineXntel"));
  cpu.set(1, Regs{0, 2u << 16, 0, kHtt});
  cpu.set(0x80000000, Regs{0x80000008, 0, 0, 0});
  cpu.set(0x80000008, Regs{0, 0, 1, 0});
  cpu.set_apic(1, 1);
  const Counted c = count();
  EXPECT_NE(c.trace.find("MaxLPPerCore = 2\nMaxCorePerPhysicalProc = 0\n"), std::string::npos)
      << c.trace;
  EXPECT_EQ(c.logical, 2u);
  // Neither "ntel" nor "cAMD": ones, nothing counted.
  for (const char* vendor : {"CentaurHauls", "AuthenticAMX"}) {
    cpu.set(0, vendor_leaf(0xD, vendor));
    const Counted u = count();
    expect_counts(u, 1, 1, 1, 8);
    EXPECT_EQ(u.trace, "Begin CPU core counting\nEnd CPU core counting. statusflag = 8\n") << vendor;
  }
}

// AMD: leaf 0x80000000's low 16 bits pick the source; one socket always.
TEST(CpuinfoAmd, FromTheExtendedLeavesWithoutAWalk) {
  const struct {
    uint32_t highest;  // EAX of 0x80000000
    bool htt;
    uint32_t ecx_8;   // ECX of 0x80000008: logical - 1 in the low byte
    uint32_t ebx_1e;  // EBX of 0x8000001E: threads per core - 1 in bits 8-9
    uint32_t logical, cores, status;
  } cases[] = {
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
  for (const auto& k : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << k.highest << " " << k.ecx_8);
    FakeCpu cpu(4);
    cpu.set(0, vendor_leaf(1, "AuthenticAMD"));
    cpu.set(1, Regs{hostkit_test::signature(15, 8, 1, 0), 0, 0, k.htt ? kHtt : 0});
    cpu.set(0x80000000, Regs{k.highest, 0, 0, 0});
    cpu.set(0x80000008, Regs{0, 0, k.ecx_8, 0});
    cpu.set(0x8000001E, Regs{0, k.ebx_1e, 0, 0});
    const Counted c = count();
    expect_counts(c, k.logical, k.cores, 1, k.status);
    EXPECT_EQ(c.trace, "Begin CPU core counting\nEnd CPU core counting. statusflag = " +
                           std::to_string(k.status) + "\n");
    EXPECT_EQ(cpu.count("yield"), 0);  // no pinning
  }
}

}  // namespace
