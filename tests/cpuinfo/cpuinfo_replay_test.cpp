// Recorded machines: the dump reader, the replayed machine behind the port,
// and the processor block of each machine of the recorded set with values
// worked out by hand from its leaves.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "cpub.h"
#include "cpuinfo.h"
#include "cpuinfo_record.h"
#include "fake_cpu.h"
#include "report.h"

namespace {

using hostkit_test::family_lines;
using hostkit_test::info_lines;
using hostkit_test::walk_lines;

std::string machine_dir(const char* name) { return std::string(HOSTKIT_CPUID_DIR) + "/" + name; }

ReplayMachine load(const char* name) {
  ReplayMachine machine;
  std::string error;
  EXPECT_TRUE(replay_load(machine_dir(name).c_str(), &machine, &error)) << name << ": " << error;
  return machine;
}

// What the processor block prints on `machine`, as cpuinfo-replay runs it.
std::string replay_block(ReplayMachine* machine) {
  replay_install(machine);
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_NE(env, nullptr);
  sysenv_set_log_level(env, 10);
  sysenv_set_stream(env, 0, nullptr, report_print_text);
  testing::internal::CaptureStdout();
  report_processor_block(env);
  const std::string text = hostkit_test::without_cr(testing::internal::GetCapturedStdout());
  sysenv_destroy(&env);
  replay_install(nullptr);
  return text;
}

std::string replay_block(const char* name) {
  ReplayMachine machine = load(name);
  return replay_block(&machine);
}

std::string four_lines(int procid, int logical, int cores, int sockets) {
  return hostkit_test::format(
      "VEGRA CPU id = %d\nLogical CPUs = %d\nCPU Cores    = %d\nCPU sockets  = %d\n", procid,
      logical, cores, sockets);
}

struct Machine {
  const char* name;
  int procid, logical, cores, sockets, status;
};

// Derivations, all from pu0 unless said (the thread reads there: the lowest
// processor of the process mask). Family/model: leaf 1 EAX. Vendor for the
// count: leaf 0 ECX. Intel walk over min(N, 64) processors: MaxLPPerCore =
// (leaf 1 EBX 16-23) / ((leaf 4 EAX >> 26) + 1), w1/w2/w3 the field widths of
// MaxLPPerCore, cores per package and LPs per package; keys are the APIC id
// (leaf 1 EBX >> 24) masked to package | core. AMD: logical = (0x80000008 ECX
// & 0xFF) + 1, threads per core from 0x8000001E EBX bits 8-9 when 0x80000000
// reaches 0x1E, else 2 with HTT (leaf 1 EDX bit 28) and 1 without.
const Machine kMachines[] = {
    // 0x600F12: 15 + 6 = 21, not in the AMD table. 0x8000001E (EBX 0x100): 2
    // threads per core; ECX 0x500F: 16 logical, 8 cores. Status 6.
    {"AMD-15h-Bulldozer-4xOpteron-6272", 0, 16, 8, 1, 6},
    // 0x800F12: 15 + 8 = 23, cpu type 8, class 19. ECX 0x602F: 48 logical;
    // EBX 0x100: 2 per core, 24 cores.
    {"AMD-17h-Zen-2xEpyc-7451", 19, 48, 24, 1, 6},
    // 0xA00F11: 15 + 10 = 25, unknown. ECX 0x603F: 64 logical; 0x8000001E
    // recorded as zeros: 1 per core, 64 cores. Status 5.
    {"AMD-19h-Zen3-2xEpyc-7763", 0, 64, 64, 1, 5},
    // 0x100F91: 15 + 1 = 16, unknown. Highest 0x8000001B: HTT set, 2 per
    // core; ECX 0x400B: 12 logical, 6 cores.
    {"AMD-K10-MagnyCours-2xOpteron-6164HE", 0, 12, 6, 1, 6},
    // 0xF5A: family 15, type 7, class 18. ECX 0: 1 logical; no HTT
    // (EDX 0x078BFBFF), 1 per core. Status 4.
    {"AMD-K8-SledgeHammer-2xOpteron-250", 18, 1, 1, 1, 4},
    // "HygonGenuine": ECX "uine", neither vendor: ones, status 8; class 0.
    {"Hygon-Dhyana-32cores", 0, 1, 1, 1, 8},
    // 0x806E9: family 6, model 14 + 16 x 8 = 142: type 22, class 7.
    // EBX 0x100800: 16 LPs; leaf 4 EAX 0x1C004121: 8 cores; MaxLPPerCore 2;
    // w1 1, w2 3, w3 4. APIC 0, 2, 1, 3 -> keys (& 0xFE) 0, 2: 2 cores.
    {"Intel-CPUID.1A-1p2co2t", 7, 4, 2, 1, 6},
    // 0x6F7: family 6 model 15: class 7. EBX 0x40800: 4 LPs; leaf 4
    // 0xC000121: 4 cores; MaxLPPerCore 1; w1 0, w2 2, w3 2: package 0xFC,
    // core 0x03. APIC 0, 4, 2, 6, 1, 5, 3, 7: 8 keys, packages 0 and 4.
    {"Intel-Core-2xXeon-E5345", 7, 8, 8, 2, 5},
    // 0x50671: model 7 + 16 x 5 = 87: class 7. 256 processors, 64 walked
    // (system mask all ones). EBX 0xFF0800: 255 LPs; leaf 4 0xFC00C121: 64
    // cores; MaxLPPerCore 3; w1 2, w2 6, w3 8: package mask 0, core 0xFC.
    // The 64 APIC ids (multiples of 4, some repeated because the 8-bit id
    // wraps) take 56 distinct values; one package.
    {"Intel-KnightsLanding-XeonPhi-7210", 7, 64, 56, 1, 6},
    // 0x106A5: model 10 + 16 = 26, "any other": class 7. 16 LPs, 8 cores,
    // MaxLPPerCore 2, w1 1, w2 3, w3 4. APIC 0..6, 16..22 even then odd:
    // 8 keys; packages 0 and 16.
    {"Intel-Nehalem-2xXeon-X5550", 7, 16, 8, 2, 6},
    // 0xB06A2: model 10 + 16 x 11 = 186: class 7. EBX 0x800800: 128 LPs;
    // 0xFC004121: 64 cores; MaxLPPerCore 2; w1 1, w2 6, w3 7: package 0x80,
    // core 0x7E. APIC 0,1,8,9,...,40,41 (6 cores of 2 threads) and
    // 48,50,...,62 (8 single-thread cores): 14 cores.
    {"Intel-RaptorLake-Corei7-1370P", 7, 20, 14, 1, 6},
    // 0x206D7: model 13 + 32 = 45: class 7. 32 LPs, 16 cores; w1 1, w2 4,
    // w3 5: package 0xE0. APIC 0,32,2,34,...,14,46 then odd: 16 keys,
    // packages 0 and 32.
    {"Intel-SandyBridge-2xXeon-E5-2650", 7, 32, 16, 2, 6},
    // 0x50654: model 5 + 80 = 85: class 7. 72 processors, 64 walked. 64 LPs,
    // 32 cores; w1 1, w2 5, w3 6: package 0xC0. The first 36 APIC ids are
    // even and distinct, the next 28 their odd siblings: 36 cores; packages
    // 0 and 64.
    {"Intel-Skylake-2xXeon6140", 7, 64, 36, 2, 6},
    // "CentaurHauls": ECX "auls": ones, status 8; class 0.
    {"Zhaoxin-CentaurHauls-ZXD-4600", 0, 1, 1, 1, 8},
};

TEST(CpuinfoReplay, EveryRecordedMachineGivesItsFourLines) {
  for (const Machine& m : kMachines) {
    const std::string block = replay_block(m.name);
    EXPECT_TRUE(block.ends_with(four_lines(m.procid, m.logical, m.cores, m.sockets)))
        << m.name << "\n" << block;
    EXPECT_NE(block.find("End CPU core counting. statusflag = " + std::to_string(m.status) + "\n"),
              std::string::npos)
        << m.name << "\n" << block;
  }
}

TEST(CpuinfoReplay, FullTraceOfAnIntelMachineWithoutSmt) {
  // Two E5345 packages; values derived above, every position after the first
  // a new key. Leaf 2: EAX 0x05B0B101, EBX 0x005657F0, ECX 0, EDX 0x2CB43049;
  // only 0x2C is known: L1 32. L2 is ECX 16-31 of 0x80000006 (0x10008040):
  // 4096. SSE2 (EDX 0xBFEBFBFF bit 26) and SSE3 (ECX 0x4E3BD bit 0) set.
  const int apic[8] = {0, 4, 2, 6, 1, 5, 3, 7};
  std::string expected = "Begin CPU core counting\nMaxLPPerCore = 1\nMaxCorePerPhysicalProc = 4\n";
  for (int i = 0; i < 8; ++i) {
    expected += walk_lines(uint64_t{1} << i, 0xFF, apic[i], apic[i] & 0xFC, apic[i] & 3, 0);
  }
  expected += "Number of logical CPU's detected 8\n";
  for (int i = 1; i < 8; ++i) {
    expected += hostkit_test::format("New core detected with tblPkgID %d tblCoreID %d\n",
                                     apic[i] & 0xFC, apic[i] & 3);
  }
  expected += "End CPU core counting. statusflag = 5\nVegra system information:\nVendor = INTEL\n" +
              family_lines(6, 0, 15, 0) +
              "Cache detection info:\n  Cache_sizes[0] = 95465729\n  Cache_sizes[1] = 5658608\n"
              "  Cache_sizes[2] = 0\n  Cache_sizes[3] = 750006345\n" +
              info_lines(7, 32, 4096, 1, 1, "Intel(R) Xeon(R) CPU           E5345  @ 2.33GHz") +
              four_lines(7, 8, 8, 2);
  EXPECT_EQ(replay_block("Intel-Core-2xXeon-E5345"), expected);
}

TEST(CpuinfoReplay, FullTraceOfAnAmdMachine) {
  // Opteron 250: AMD path, no walk. L1 = 0x80000005 ECX 0x40020140 bits
  // 24-31 = 64; L2 = 0x80000006 ECX 0x04008140 bits 16-31 = 1024. SSE2 from
  // EDX 0x078BFBFF bit 26; leaf 1 ECX 0: no SSE3.
  EXPECT_EQ(replay_block("AMD-K8-SledgeHammer-2xOpteron-250"),
            "Begin CPU core counting\nEnd CPU core counting. statusflag = 4\n"
            "Vegra system information:\nVendor = AMD\n" +
                family_lines(15, 0, 5, 0) +
                info_lines(18, 64, 1024, 1, 0, "AMD Opteron(tm) Processor 250") +
                four_lines(18, 1, 1, 1));
}

TEST(CpuinfoReplay, FullTraceOfAnUnknownVendor) {
  // 0x900F00: family number 15, extended family 9, model 0. No caches for an
  // unknown vendor; SSE2 (EDX 0x178BFBFF bit 26) and SSE3 (ECX 0x3CD83209
  // bit 0) set. The brand ends in 24 blanks.
  const std::string brand = "Hygon Dhyana Eng Sample" + std::string(24, ' ');
  EXPECT_EQ(replay_block("Hygon-Dhyana-32cores"),
            "Begin CPU core counting\nEnd CPU core counting. statusflag = 8\n"
            "Vegra system information:\nVendor = UNKNOWN, vendor id string = HygonGenuine\n" +
                family_lines(15, 9, 0, 0) + "Cpu id num = 15\n" +
                info_lines(0, 0, 0, 1, 1, brand.c_str()) + four_lines(0, 1, 1, 1));
}

TEST(CpuinfoRecord, ReaderRefusesMalformedInputAndWriterIsCanonical) {
  // Four inputs, three or five results, no arrow (with ten fields), a value
  // beyond 32 bits or not plain hexadecimal, nothing after the arrow, a short
  // second line, a NUL.
  const std::string_view bad[] = {
      "1 0 0 0 => 1 2 3 4\n",           "1 0 0 0 0 => 1 2 3\n",
      "1 0 0 0 0 => 1 2 3 4 5\n",       "1 0 0 0 0 = 1 2 3 4\n",
      "1 0 0 0 0 1 2 3 4 5\n",          "=> => => => => => => => => =>\n",
      "1 0 0 0 0 => 1 2 3 100000000\n", "1 0 0 0 0 => 1 2 3 0x4\n",
      "1 0 0 0 0 => 1 2 3 -4\n",        "1 0 0 0 0 =>\n",
      "1 0 0 0 0 => 1 2 3 4\n1 2\n",    std::string_view("1 0 0 0 0 => 1 2 3 4\0", 21),
  };
  CpuidRecord record;
  std::string error;
  for (std::string_view text : bad) {
    EXPECT_FALSE(cpuid_record_parse(text, &record, &error)) << text;
    EXPECT_EQ(error.rfind("line ", 0), 0u) << text;
  }
  EXPECT_FALSE(cpuid_record_parse(std::string(kRecordMaxLineBytes + 1, ' '), &record, &error));
  EXPECT_TRUE(cpuid_record_parse(std::string(kRecordMaxLineBytes, ' '), &record, &error));
  EXPECT_TRUE(cpuid_record_parse("", &record, &error));
  EXPECT_TRUE(record.entries.empty());
  // Comments, blanks, tabs, CRs and capitals read; the writer's form is canonical.
  ASSERT_TRUE(cpuid_record_parse("# x\n\n\t5 4 0 2 0 => C004143 3c0003f fff 1  # leaf 4\r\n",
                                 &record, &error));
  ASSERT_EQ(record.entries.size(), 1u);
  EXPECT_EQ(cpuid_record_line(record.entries[0]), "5 4 0 2 0 => c004143 3c0003f fff 1\n");
}

TEST(CpuinfoRecord, MaskArgument) {
  uint64_t mask = 0;
  EXPECT_TRUE(replay_parse_mask("0x3", &mask) && mask == 3u);
  EXPECT_TRUE(replay_parse_mask("FFFFFFFFFFFFFFFF", &mask) && mask == ~uint64_t{0});
  for (const char* bad : {"1FFFFFFFFFFFFFFFF", "", "0x", "12g"}) {
    EXPECT_FALSE(replay_parse_mask(bad, &mask)) << bad;
  }
}

// Recording a replayed machine and replaying the recording gives the same
// block: the recorder reaches every processor and writes what the reader reads.
TEST(CpuinfoRecord, DumpOfAReplayedMachineReplaysTheSame) {
  for (const char* name : {"Intel-Nehalem-2xXeon-X5550", "AMD-17h-Zen-2xEpyc-7451"}) {
    ReplayMachine original = load(name);
    const std::string dir =
        (std::filesystem::temp_directory_path() / ("hostkit-dump-test-" + std::string(name)))
            .string();
    std::error_code code;
    std::filesystem::remove_all(dir, code);
    std::string error;
    replay_install(&original);
    const bool dumped = cpuid_dump_machine(cpuinfo_active_port(), dir.c_str(), &error);
    replay_install(nullptr);
    ASSERT_TRUE(dumped) << error;
    EXPECT_EQ(original.thread_mask, original.process_mask);
    ReplayMachine copy;
    ASSERT_TRUE(replay_load(dir.c_str(), &copy, &error)) << error;
    EXPECT_EQ(copy.total_processors, std::min<size_t>(original.total_processors, 64));
    EXPECT_EQ(replay_block(&copy), replay_block(&original)) << name;
    std::filesystem::remove_all(dir, code);
  }
}

}  // namespace
