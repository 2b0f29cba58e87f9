// Processor identification on replayed machines: every line of the table
// data/machines prints its expected processor block and gives its expected
// answers (data/README.md says how they were worked out), on the machine and
// on its recording by the dump writer.
#include "cpuinfo.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "cpub.h"
#include "cpuinfo_record.h"
#include "report.h"
#include "test_support.h"

namespace {

const std::string kData = HOSTKIT_CPUID_DIR;

std::string read_text(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string captured_stdout() {
  std::string text = testing::internal::GetCapturedStdout();
  std::erase(text, '\r');  // Windows text mode
  return text;
}

// The one fake is the replay machine. Between it and the processor
// identification stand the faults a recording can't hold (masks that can't be
// read, processors that refuse the thread) and a count of CPUID reads made
// after a move of the thread and before the yield that lets the move happen.
struct Faults {
  bool masks_unreadable = false;
  uint64_t refused = 0;
  bool moved = false;
  int reads_before_yield = 0;
};
Faults g_faults;
const CpuinfoPort* g_replay = nullptr;

void faulty_cpuid(uint32_t leaf, uint32_t subleaf, uint32_t regs[4]) {
  if (g_faults.moved) ++g_faults.reads_before_yield;
  g_replay->cpuid(leaf, subleaf, regs);
}
int32_t faulty_masks(uint64_t* process, uint64_t* system) {
  if (!g_faults.masks_unreadable) return g_replay->process_affinity(process, system);
  *process = *system = 0;
  return 0;
}
uint64_t faulty_pin(uint64_t mask) {
  if ((mask & ~g_faults.refused) == 0) return 0;
  const uint64_t previous = g_replay->set_thread_affinity(mask);
  g_faults.moved = g_faults.moved || previous != 0;
  return previous;
}
void faulty_yield() {
  g_faults.moved = false;
  g_replay->yield();
}
constexpr CpuinfoPort kFaultyPort = {faulty_cpuid, faulty_masks, faulty_pin, faulty_yield};

// Puts `machine` behind the active port; null puts the native port back.
void install(ReplayMachine* machine, Faults faults = {}) {
  replay_install(machine);
  g_replay = cpuinfo_active_port();
  g_faults = faults;
  if (machine != nullptr) cpuinfo_set_port(&kFaultyPort);
}

ReplayMachine load(const std::string& dir) {
  ReplayMachine machine;
  std::string error;
  EXPECT_TRUE(replay_load(dir.c_str(), &machine, &error)) << error;
  return machine;
}

// `machine` as the dump writer records it, read back.
ReplayMachine recorded(ReplayMachine* machine) {
  std::error_code ignored;
  std::filesystem::remove_all(HOSTKIT_DUMP_DIR, ignored);
  std::string error;
  install(machine);
  EXPECT_TRUE(cpuid_dump_machine(cpuinfo_active_port(), HOSTKIT_DUMP_DIR, &error)) << error;
  install(nullptr);
  EXPECT_EQ(machine->thread_mask, machine->process_mask);
  return load(HOSTKIT_DUMP_DIR);
}

// On `machine`: the processor block, made as cpuinfo-replay makes it, is
// `block`; the environment takes the settings the block shows; silent, the
// counts and status are the same and the questions 0 to 0x3D answer `answers`.
void expect_machine(ReplayMachine* machine, Faults faults, const std::string& block,
                    const std::string& answers) {
  machine->yields = 0;
  install(machine, faults);
  testing::internal::CaptureStdout();
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  sysenv_set_log_level(env, 10);
  sysenv_set_stream(env, 0, nullptr, report_print_text);
  report_processor_block(env);
  EXPECT_EQ(captured_stdout(), block);
  char shown[128];
  std::snprintf(shown, sizeof shown, "L1 = %d\nL2 = %d\nHAS_SSE2: %d \nHAS_SSE3: %d \n",
                env->cache_l1, env->cache_l2, env->has_sse2, env->has_sse3);
  EXPECT_NE(block.find(shown), std::string::npos) << shown;
  EXPECT_EQ(env->class_setting,
            block.find("\nVegra procid = 19\n") != std::string::npos ? 10010 : 10);

  hostkit_test::TextSink sink;
  sysenv_set_stream(env, 0, &sink, hostkit_test::TextSink::receive);
  uint32_t logical = 0, cores = 0, sockets = 0;
  testing::internal::CaptureStdout();
  const uint32_t status = cpuinfo_count_cores(env, &logical, &cores, &sockets, 0);
  std::ostringstream answered;
  CpuIdSnapshot snapshot{};
  for (uint32_t question = 0; question <= 0x3D; ++question) {
    answered << std::hex << cpuinfo_query(question, &snapshot, 0)
             << (question % 16 == 15 || question == 0x3D ? "\n" : " ");
  }
  EXPECT_EQ(captured_stdout() + sink.text, "");
  EXPECT_EQ(answered.str(), answers);
  std::snprintf(shown, sizeof shown, "Logical CPUs = %u\nCPU Cores    = %u\nCPU sockets  = %u\n",
                logical, cores, sockets);
  EXPECT_TRUE(block.ends_with(shown)) << shown;
  // A restricted process ends the count before its status line, with 8.
  const size_t flag = block.find("statusflag = ");
  EXPECT_EQ(status, flag == std::string::npos ? 8u : std::stoul(block.substr(flag + 13)));
  sysenv_destroy(&env);
  install(nullptr);

  // Only the walk moves the thread; every read waits for the move, and the
  // thread ends on the process mask.
  EXPECT_EQ(machine->yields > 0, block.find("dwAffinityMask") != std::string::npos);
  EXPECT_EQ(g_faults.reads_before_yield, 0);
  EXPECT_EQ(machine->thread_mask, machine->process_mask);
}

TEST(CpuinfoReplay, EveryLineOfTheMachineTable) {
  std::ifstream table(kData + "/machines");
  std::string line;
  int lines = 0;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string name, dir, process, refused;
    if (line.starts_with("#") || !(fields >> name >> dir >> process >> refused)) continue;
    SCOPED_TRACE(name);
    ++lines;
    const std::string block = read_text(kData + "/" + name + ".expected");
    const std::string answers = read_text(kData + "/" + name + ".answers");
    ReplayMachine original = load(kData + "/" + dir);
    ReplayMachine copy = recorded(&original);
    for (ReplayMachine* machine : {&original, &copy}) {
      std::string error;
      if (process != "all" && process != "unreadable") {
        const uint64_t mask = std::strtoull(process.c_str(), nullptr, 16);
        ASSERT_TRUE(replay_restrict_process(machine, mask, &error)) << error;
      }
      const Faults faults{process == "unreadable", std::strtoull(refused.c_str(), nullptr, 16)};
      expect_machine(machine, faults, block, answers);
    }
  }
  EXPECT_GE(lines, 47);
}

}  // namespace
