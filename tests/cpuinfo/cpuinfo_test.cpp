// The processor identification's rules, on fake processors behind its port
// and on the recorded machines: the class table and the query vocabulary,
// cache detection, core counting, the dump reader and writer, and the
// processor block of every recorded machine with values worked out by hand.
#include "cpuinfo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "cpub.h"
#include "cpuinfo_record.h"
#include "report.h"
#include "test_support.h"

namespace {

using hostkit_test::TextSink;

// ---- A fake machine behind the port, and the trace texts.

using Regs = std::array<uint32_t, 4>;

// EAX of leaf 1 from its four fields.
constexpr uint32_t signature(uint32_t family, uint32_t ext_family, uint32_t model,
                             uint32_t ext_model) {
  return (ext_family << 20) | (ext_model << 16) | (family << 8) | (model << 4);
}

// Leaf 0 for a vendor string of 12 characters: EBX, EDX, ECX hold it.
Regs vendor_leaf(uint32_t max_leaf, const char* vendor) {
  Regs r{max_leaf, 0, 0, 0};
  std::memcpy(&r[1], vendor, 4);
  std::memcpy(&r[3], vendor + 4, 4);
  std::memcpy(&r[2], vendor + 8, 4);
  return r;
}

std::string without_cr(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '\r' ? "" : std::string(1, c);
  return out;
}

std::string format(const char* pattern, ...) {
  char text[512];
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(text, sizeof text, pattern, args);
  va_end(args);
  return text;
}

// The walk's trace lines for one processor.
std::string walk_lines(uint64_t mask, uint64_t system, int apic, int pkg, int core, int smt) {
  const auto m = static_cast<unsigned long long>(mask);
  return format(
      "dwAffinityMask 0x%llx\ndwSystemAffinity 0x%llx\nAPIC_ID = %d\n  AffinityMask = %llu, "
      "Initial APIC = %d; Physical ID = %d, Core ID = %d,  SMT ID = %d\n",
      m, static_cast<unsigned long long>(system), apic, m, apic, pkg, core, smt);
}

// The classification trace's family and model lines.
std::string family_lines(int number, int extended, int model, int extended_model) {
  return format(
      "Cpu id family number          = %d\nCpu id extended family number = %d\n"
      "Cpu id family                 = %d\nCpu id model number           = %d\n"
      "Cpu id extended model         = %d\nCpu id  model                 = %d\n",
      number, extended, number + extended, model, extended_model, model + 16 * extended_model);
}

// The classification trace's last lines.
std::string info_lines(int procid, int l1, int l2, int sse2, int sse3, const char* brand) {
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
  std::ptrdiff_t count(const std::string& entry) const { return std::ranges::count(log, entry); }

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
    f->log.push_back(format("pin %llx", static_cast<unsigned long long>(mask)));
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

// ---- Classification and cache detection.

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

// The environment takes its settings from the classification when it is
// made, silently.
void expect_environment(int32_t class_setting, int32_t l1, int32_t l2, int32_t sse2, int32_t sse3) {
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
  // clang-format off
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
  // clang-format on
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
  std::vector<Bit> bits = {{22, kEdx, 25},    {22, kExtEdx, 22}, {23, kEdx, 23},    {24, kEdx, 24},
                           {25, kExtEdx, 30}, {26, kExtEdx, 31}, {27, kExtEdx, 22}, {28, kEdx, 25},
                           {29, kEdx, 26},    {30, kEcx, 0}};
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
        EXPECT_EQ(cpuinfo_query(q, &s, 0), expected)
            << "query " << q << " source " << source << " bit " << b;
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
    EXPECT_EQ((std::array{l1, l2, l3}), (std::array{c.l1, c.l2, c.l3}));
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
            "Vegra system information:\nVendor = INTEL\n" + family_lines(6, 0, 13, 0) +
                "Cache detection info:\n  Cache_sizes[0] = 742588417\n  Cache_sizes[1] = 0\n"
                "  Cache_sizes[2] = 0\n  Cache_sizes[3] = 2147483648\n" +
                info_lines(8, 32, 512, 1, 1, std::string(48, 'A').c_str()));
  EXPECT_EQ(info.l3, 0u);
  // From 0x80000006 on, its ECX bits 16-31 are L2, a zero all the same.
  cpu.set(0x80000000, Regs{0x80000006, 0, 0, 0});
  cpu.set(0x80000006, Regs{0, 0, 256u << 16 | 0x40, 0});
  expect_environment(10, 32, 256, 1, 1);
  cpu.set(0x80000006, Regs{0, 0, 0x40, 0});
  expect_environment(10, 32, 0, 1, 1);
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
      {0x20, 0xB1, 0xB1},   {0x23, 0xB4, 0xB4}, {0x24, 0xA1, 0},    {0x27, 0xA4, 0},
      {0x28, 0x40, 0x40},   {0x2B, 0xC4, 0xC4}, {0x2C, 0xD1, 0xD1}, {0x2F, 0xD4, 0xD4},
      {0x30, 0x200, 0x200}, {0x31, 0xF, 0xF},   {0x32, 0x4, 0x4},   {0x33, 0xC5, 0xC5},
      {0x34, 0x9, 0},       {0x35, 0xABC, 0},   {0x36, 0xD, 0},     {0x37, 0xEF1, 0},
      {0x38, 0x1, 0},       {0x39, 0x234, 0},   {0x3A, 0x5, 0},     {0x3B, 0x678, 0},
      {0x3C, 0, 0},         {0x1F, 0, 0},       {0x3D, 0, 0},
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

// ---- Core counting.

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
  cpu.set(1, Regs{signature(6, 0, 10, 1), lp_per_package << 16, 0, htt ? kHtt : 0});
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
  expect_counts(count(), 1, 1, 1, 2);
  EXPECT_NE(count().trace.find("MaxLPPerCore = 2\nMaxCorePerPhysicalProc = 1\n"),
            std::string::npos);
  EXPECT_EQ(count(0).trace, "");
}

TEST(CpuinfoIntelWalk, TwoSocketsOfFourCoresWithoutSmt) {
  FakeCpu cpu(8);
  // 4 logical per package, 4 cores: MaxLPPerCore 1, w1 0, w2 2, w3 2. Package
  // mask 0xFC, core mask 0x03. Packages at APIC 0 and 4, interleaved.
  intel(cpu, 4, 4, true, {0, 4, 1, 5, 2, 6, 3, 7});
  cpu.thread_mask = 0x4;  // the thread's own mask is lost
  // The full trace of this topology is checked on the recorded E5345 pair.
  const Counted c = count();
  expect_counts(c, 8, 8, 2, 5);
  EXPECT_NE(c.trace.find(walk_lines(0x20, 0xFF, 6, 4, 2, 0)), std::string::npos) << c.trace;
  EXPECT_NE(c.trace.find("detected 8\nNew core detected with tblPkgID 4 tblCoreID 0\n"),
            std::string::npos);
  // Every read follows a move and its yield; none above the system mask; the
  // thread ends on the process mask.
  EXPECT_EQ(cpu.reads_before_yield, 0);
  EXPECT_EQ(cpu.count("pin 100"), 0);
  EXPECT_EQ(std::vector(cpu.log.end() - 2, cpu.log.end()),
            (std::vector<std::string>{"pin ff", "yield"}));
  EXPECT_EQ(cpu.thread_mask, 0xFFu);
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
    EXPECT_EQ(u.trace, "Begin CPU core counting\nEnd CPU core counting. statusflag = 8\n")
        << vendor;
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
    cpu.set(1, Regs{signature(15, 8, 1, 0), 0, 0, k.htt ? kHtt : 0});
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

// ---- Recorded machines.

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
  const std::string text = without_cr(testing::internal::GetCapturedStdout());
  sysenv_destroy(&env);
  replay_install(nullptr);
  return text;
}

std::string replay_block(const char* name) {
  ReplayMachine machine = load(name);
  return replay_block(&machine);
}

std::string four_lines(int procid, int logical, int cores, int sockets) {
  return format("VEGRA CPU id = %d\nLogical CPUs = %d\nCPU Cores    = %d\nCPU sockets  = %d\n",
                procid, logical, cores, sockets);
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
        << m.name << "\n"
        << block;
    EXPECT_NE(block.find("End CPU core counting. statusflag = " + std::to_string(m.status) + "\n"),
              std::string::npos)
        << m.name << "\n"
        << block;
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
    expected +=
        format("New core detected with tblPkgID %d tblCoreID %d\n", apic[i] & 0xFC, apic[i] & 3);
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
