// Recorded machines: the dump reader, the replayed machine behind the port,
// and the processor block of each machine of the recorded set with values
// worked out by hand from its leaves.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "cpub.h"
#include "cpuinfo.h"
#include "cpuinfo_record.h"
#include "report.h"

namespace {

std::string machine_dir(const char* name) { return std::string(HOSTKIT_CPUID_DIR) + "/" + name; }

std::string without_cr(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c != '\r') out += c;
  }
  return out;
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
  const std::string text = without_cr(testing::internal::GetCapturedStdout());
  sysenv_destroy(&env);
  replay_install(nullptr);
  return text;
}

std::string replay_block(const char* name) {
  ReplayMachine machine;
  std::string error;
  EXPECT_TRUE(replay_load(machine_dir(name).c_str(), &machine, &error)) << name << ": " << error;
  return replay_block(&machine);
}

std::string four_lines(int procid, int logical, int cores, int sockets) {
  return "VEGRA CPU id = " + std::to_string(procid) +
         "\nLogical CPUs = " + std::to_string(logical) +
         "\nCPU Cores    = " + std::to_string(cores) +
         "\nCPU sockets  = " + std::to_string(sockets) + "\n";
}

std::string walk(uint64_t mask, uint64_t system, int apic, int pkg, int core, int smt) {
  char text[400];
  std::snprintf(text, sizeof text,
                "dwAffinityMask 0x%llx\ndwSystemAffinity 0x%llx\nAPIC_ID = %d\n"
                "  AffinityMask = %llu, Initial APIC = %d; Physical ID = %d, Core ID = %d,  "
                "SMT ID = %d\n",
                static_cast<unsigned long long>(mask), static_cast<unsigned long long>(system),
                apic, static_cast<unsigned long long>(mask), apic, pkg, core, smt);
  return text;
}

std::string family_lines(int number, int extended, int model_number, int extended_model) {
  return "Cpu id family number          = " + std::to_string(number) +
         "\nCpu id extended family number = " + std::to_string(extended) +
         "\nCpu id family                 = " + std::to_string(number + extended) +
         "\nCpu id model number           = " + std::to_string(model_number) +
         "\nCpu id extended model         = " + std::to_string(extended_model) +
         "\nCpu id  model                 = " + std::to_string(model_number + 16 * extended_model) +
         "\n";
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
    const std::string lines = four_lines(m.procid, m.logical, m.cores, m.sockets);
    ASSERT_GE(block.size(), lines.size()) << m.name;
    EXPECT_EQ(block.substr(block.size() - lines.size()), lines) << m.name << "\n" << block;
    EXPECT_NE(block.find("End CPU core counting. statusflag = " + std::to_string(m.status) + "\n"),
              std::string::npos)
        << m.name << "\n"
        << block;
  }
}

TEST(CpuinfoReplay, FullTraceOfAnIntelMachineWithoutSmt) {
  // Two E5345 packages; values derived above. Leaf 2: EAX 0x05B0B101,
  // EBX 0x005657F0, ECX 0, EDX 0x2CB43049; only 0x2C is known: L1 32. L2 is
  // ECX 16-31 of 0x80000006 (0x10008040): 4096. SSE2 (EDX 0xBFEBFBFF bit 26)
  // and SSE3 (ECX 0x4E3BD bit 0) set. Brand from 0x80000002..4.
  const int apic[8] = {0, 4, 2, 6, 1, 5, 3, 7};
  std::string expected = "Begin CPU core counting\nMaxLPPerCore = 1\nMaxCorePerPhysicalProc = 4\n";
  for (int i = 0; i < 8; ++i) {
    expected += walk(uint64_t{1} << i, 0xFF, apic[i], apic[i] & 0xFC, apic[i] & 3, 0);
  }
  expected +=
      "Number of logical CPU's detected 8\n"
      "New core detected with tblPkgID 4 tblCoreID 0\n"
      "New core detected with tblPkgID 0 tblCoreID 2\n"
      "New core detected with tblPkgID 4 tblCoreID 2\n"
      "New core detected with tblPkgID 0 tblCoreID 1\n"
      "New core detected with tblPkgID 4 tblCoreID 1\n"
      "New core detected with tblPkgID 0 tblCoreID 3\n"
      "New core detected with tblPkgID 4 tblCoreID 3\n"
      "End CPU core counting. statusflag = 5\n"
      "Vegra system information:\n"
      "Vendor = INTEL\n" +
      family_lines(6, 0, 15, 0) +
      "Cache detection info:\n"
      "  Cache_sizes[0] = 95465729\n"
      "  Cache_sizes[1] = 5658608\n"
      "  Cache_sizes[2] = 0\n"
      "  Cache_sizes[3] = 750006345\n"
      "Vegra procid = 7\n"
      "L1 = 32\n"
      "L2 = 4096\n"
      "HAS_SSE2: 1 \n"
      "HAS_SSE3: 1 \n"
      "proc name str = Intel(R) Xeon(R) CPU           E5345  @ 2.33GHz\n" +
      four_lines(7, 8, 8, 2);
  EXPECT_EQ(replay_block("Intel-Core-2xXeon-E5345"), expected);
}

TEST(CpuinfoReplay, FullTraceOfAnIntelMachineWithSmt) {
  // One package, two cores of two threads. APIC 0, 2, 1, 3 with SMT mask
  // 0x01, core mask 0x0E, package mask 0xF0. Leaf 2 (0x76036301, 0x00F0B5FF,
  // 0, 0x00C30000) has no byte of the table; 0x80000006 ECX 0x01006040 gives
  // L2 256.
  const std::string expected =
      "Begin CPU core counting\nMaxLPPerCore = 2\nMaxCorePerPhysicalProc = 8\n" +
      walk(1, 0xF, 0, 0, 0, 0) + walk(2, 0xF, 2, 0, 2, 0) + walk(4, 0xF, 1, 0, 0, 1) +
      walk(8, 0xF, 3, 0, 2, 1) +
      "Number of logical CPU's detected 4\n"
      "New core detected with tblPkgID 0 tblCoreID 2\n"
      "End CPU core counting. statusflag = 6\n"
      "Vegra system information:\n"
      "Vendor = INTEL\n" +
      family_lines(6, 0, 14, 8) +
      "Cache detection info:\n"
      "  Cache_sizes[0] = 1979933441\n"
      "  Cache_sizes[1] = 15775231\n"
      "  Cache_sizes[2] = 0\n"
      "  Cache_sizes[3] = 12779520\n"
      "Vegra procid = 7\n"
      "L1 = 0\n"
      "L2 = 256\n"
      "HAS_SSE2: 1 \n"
      "HAS_SSE3: 1 \n"
      "proc name str = Intel(R) Core(TM) i7-7600U CPU @ 2.80GHz\n" +
      four_lines(7, 4, 2, 1);
  EXPECT_EQ(replay_block("Intel-CPUID.1A-1p2co2t"), expected);
}

TEST(CpuinfoReplay, FullTraceOfAnAmdMachine) {
  // Opteron 250: AMD path, no walk. L1 = 0x80000005 ECX 0x40020140 bits
  // 24-31 = 64; L2 = 0x80000006 ECX 0x04008140 bits 16-31 = 1024. SSE2 from
  // EDX 0x078BFBFF bit 26; leaf 1 ECX 0: no SSE3.
  const std::string expected =
      "Begin CPU core counting\n"
      "End CPU core counting. statusflag = 4\n"
      "Vegra system information:\n"
      "Vendor = AMD\n" +
      family_lines(15, 0, 5, 0) +
      "Vegra procid = 18\n"
      "L1 = 64\n"
      "L2 = 1024\n"
      "HAS_SSE2: 1 \n"
      "HAS_SSE3: 0 \n"
      "proc name str = AMD Opteron(tm) Processor 250\n" +
      four_lines(18, 1, 1, 1);
  EXPECT_EQ(replay_block("AMD-K8-SledgeHammer-2xOpteron-250"), expected);
}

TEST(CpuinfoReplay, FullTraceOfAnUnknownVendor) {
  // 0x900F00: family number 15, extended family 9, model 0. No caches for an
  // unknown vendor; SSE2 (EDX 0x178BFBFF bit 26) and SSE3 (ECX 0x3CD83209
  // bit 0) set. The brand ends in 24 blanks.
  const std::string expected =
      "Begin CPU core counting\n"
      "End CPU core counting. statusflag = 8\n"
      "Vegra system information:\n"
      "Vendor = UNKNOWN, vendor id string = HygonGenuine\n" +
      family_lines(15, 9, 0, 0) +
      "Cpu id num = 15\n"
      "Vegra procid = 0\n"
      "L1 = 0\n"
      "L2 = 0\n"
      "HAS_SSE2: 1 \n"
      "HAS_SSE3: 1 \n"
      "proc name str = Hygon Dhyana Eng Sample" +
      std::string(24, ' ') + "\n" + four_lines(0, 1, 1, 1);
  EXPECT_EQ(replay_block("Hygon-Dhyana-32cores"), expected);
}

TEST(CpuinfoReplay, RestrictedProcessMask) {
  ReplayMachine machine;
  std::string error;
  ASSERT_TRUE(replay_load(machine_dir("Intel-Nehalem-2xXeon-X5550").c_str(), &machine, &error));
  EXPECT_EQ(machine.system_mask, 0xFFFFu);
  EXPECT_FALSE(replay_restrict_process(&machine, 0, &error));
  EXPECT_FALSE(replay_restrict_process(&machine, 0x10000, &error));
  ASSERT_TRUE(replay_restrict_process(&machine, 0x6, &error));
  const std::string block = replay_block(&machine);
  EXPECT_EQ(
      block.rfind("Begin CPU core counting\nNot all cpus enabled\nVegra system information:\n", 0),
      0u)
      << block;
  EXPECT_EQ(block.substr(block.size() - four_lines(7, 1, 1, 1).size()), four_lines(7, 1, 1, 1));
  EXPECT_EQ(machine.thread_mask, 0x6u);  // nothing moved the thread
}

TEST(CpuinfoReplay, MachinesBeyond64ProcessorsReachTheFirst64) {
  ReplayMachine machine;
  std::string error;
  ASSERT_TRUE(
      replay_load(machine_dir("Intel-KnightsLanding-XeonPhi-7210").c_str(), &machine, &error));
  EXPECT_EQ(machine.total_processors, 256u);
  EXPECT_EQ(machine.processors.size(), 64u);
  EXPECT_EQ(machine.system_mask, ~uint64_t{0});
  ASSERT_TRUE(
      replay_load(machine_dir("AMD-K8-SledgeHammer-2xOpteron-250").c_str(), &machine, &error));
  EXPECT_EQ(machine.system_mask, 0x3u);
  EXPECT_FALSE(replay_load(machine_dir("no-such-machine").c_str(), &machine, &error));
  EXPECT_NE(error.find("no processor files"), std::string::npos);
}

TEST(CpuinfoRecord, ParsesLinesCommentsAndBlanks) {
  CpuidRecord record;
  std::string error;
  ASSERT_TRUE(
      cpuid_record_parse("# mask e[abcd]x => e[abcd]x\n"
                         "\n"
                         "1 0 0 0 0 => d 68747541 444d4163 69746e65   # leaf 0\r\n"
                         "\t5 4 0 2 0 => c004143 3c0003f fff 1\n"
                         "5 4 0 0 0 => 1 2 3 4\n"
                         "1 4 0 0 0 => 9 9 9 9\n"
                         "3 7 5 0 0 => 70 71 72 73\n"
                         "0000000001 FFFFFFFF 0 0 0 => A B C D",
                         &record, &error))
      << error;
  ASSERT_EQ(record.entries.size(), 6u);
  uint32_t r[4];
  cpuid_record_lookup(record, 0, 0, r);
  EXPECT_EQ(r[0], 0xDu);
  EXPECT_EQ(r[3], 0x69746E65u);
  cpuid_record_lookup(record, 4, 2, r);  // subleaf significant
  EXPECT_EQ(r[0], 0xC004143u);
  cpuid_record_lookup(record, 4, 0, r);
  EXPECT_EQ(r[0], 1u);
  cpuid_record_lookup(record, 4, 1, r);  // no subleaf 1: the leaf-only line
  EXPECT_EQ(r[0], 9u);
  cpuid_record_lookup(record, 7, 0, r);  // input EBX 5 is significant: no match
  EXPECT_EQ(r[0], 0u);
  cpuid_record_lookup(record, 0xFFFFFFFF, 3, r);
  EXPECT_EQ(r[2], 0xCu);
  cpuid_record_lookup(record, 0x80000000, 0, r);  // not listed: zeros
  EXPECT_EQ(r[0] | r[1] | r[2] | r[3], 0u);

  // The writer's lines read back the same.
  for (const CpuidEntry& e : record.entries) {
    CpuidRecord again;
    ASSERT_TRUE(cpuid_record_parse(cpuid_record_line(e), &again, &error));
    ASSERT_EQ(again.entries.size(), 1u);
    EXPECT_EQ(again.entries[0].inmask, e.inmask);
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(again.entries[0].in[i], e.in[i]);
      EXPECT_EQ(again.entries[0].out[i], e.out[i]);
    }
  }
  EXPECT_EQ(cpuid_record_line(record.entries[1]), "5 4 0 2 0 => c004143 3c0003f fff 1\n");
}

TEST(CpuinfoRecord, RefusesMalformedInput) {
  const char* bad[] = {
      "1 0 0 0 => 1 2 3 4\n",            // four inputs
      "1 0 0 0 0 => 1 2 3\n",            // three results
      "1 0 0 0 0 = 1 2 3 4\n",           // no arrow
      "1 0 0 0 0 1 2 3 4 5\n",           // no arrow, ten fields
      "1 0 0 0 0 => 1 2 3 4 5\n",        // eleven fields
      "1 0 0 0 0 => 1 2 3 100000000\n",  // beyond 32 bits
      "1 0 0 0 0 => 1 2 3 0x4\n",        // not plain hexadecimal
      "1 0 0 0 0 => 1 2 3 -4\n",        "1 0 0 0 0 =>\n", "=> => => => => => => => => =>\n",
      "1 0 0 0 0 => 1 2 3 4\n1 2\n",
  };
  for (const char* text : bad) {
    CpuidRecord record;
    std::string error;
    EXPECT_FALSE(cpuid_record_parse(text, &record, &error)) << text;
    EXPECT_EQ(error.rfind("line ", 0), 0u) << text;
  }
  CpuidRecord record;
  std::string error;
  EXPECT_FALSE(cpuid_record_parse(std::string(kRecordMaxLineBytes + 1, ' '), &record, &error));
  EXPECT_TRUE(cpuid_record_parse(std::string(kRecordMaxLineBytes, ' '), &record, &error));
  EXPECT_TRUE(cpuid_record_parse("", &record, &error));
  EXPECT_TRUE(record.entries.empty());
  EXPECT_FALSE(cpuid_record_parse(std::string_view("1 0 0 0 0 => 1 2 3 4\0", 21), &record, &error));
}

TEST(CpuinfoRecord, MaskArgument) {
  uint64_t mask = 0;
  EXPECT_TRUE(replay_parse_mask("0x3", &mask));
  EXPECT_EQ(mask, 3u);
  EXPECT_TRUE(replay_parse_mask("FFFFFFFFFFFFFFFF", &mask));
  EXPECT_EQ(mask, ~uint64_t{0});
  EXPECT_FALSE(replay_parse_mask("1FFFFFFFFFFFFFFFF", &mask));
  EXPECT_FALSE(replay_parse_mask("", &mask));
  EXPECT_FALSE(replay_parse_mask("0x", &mask));
  EXPECT_FALSE(replay_parse_mask("12g", &mask));
}

// Recording a replayed machine and replaying the recording gives the same
// block: the recorder reaches every processor and writes what the reader
// reads.
TEST(CpuinfoRecord, DumpOfAReplayedMachineReplaysTheSame) {
  for (const char* name : {"Intel-Nehalem-2xXeon-X5550", "AMD-17h-Zen-2xEpyc-7451"}) {
    ReplayMachine original;
    std::string error;
    ASSERT_TRUE(replay_load(machine_dir(name).c_str(), &original, &error)) << error;
    const std::string dir =
        (std::filesystem::temp_directory_path() / ("hostkit-dump-test-" + std::string(name)))
            .string();
    std::error_code code;
    std::filesystem::remove_all(dir, code);
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
