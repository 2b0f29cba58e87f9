// cpuinfo-replay [--process-mask HEX] DIR
// Runs processor identification against a recorded machine and prints what
// the report's processor block prints there.
#include <cstdio>
#include <cstring>
#include <string>

#include "cpub.h"
#include "cpuinfo_record.h"
#include "report.h"

namespace {

int usage() {
  std::fprintf(stderr, "usage: cpuinfo-replay [--process-mask HEX] DIR\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const char* dir = nullptr;
  const char* process_mask_text = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--process-mask") == 0) {
      if (i + 1 >= argc || process_mask_text != nullptr) return usage();
      process_mask_text = argv[++i];
    } else if (dir == nullptr && argv[i][0] != '-') {
      dir = argv[i];
    } else {
      return usage();
    }
  }
  if (dir == nullptr) return usage();

  ReplayMachine machine;
  std::string error;
  if (!replay_load(dir, &machine, &error)) {
    std::fprintf(stderr, "cpuinfo-replay: %s\n", error.c_str());
    return 1;
  }
  if (process_mask_text != nullptr) {
    uint64_t mask = 0;
    if (!replay_parse_mask(process_mask_text, &mask)) {
      std::fprintf(stderr, "cpuinfo-replay: %s: not a hexadecimal mask\n", process_mask_text);
      return 2;
    }
    if (!replay_restrict_process(&machine, mask, &error)) {
      std::fprintf(stderr, "cpuinfo-replay: %s\n", error.c_str());
      return 2;
    }
  }

  // The environment is made on the recorded machine as well, as the report's
  // is on the real one.
  replay_install(&machine);
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  if (env == nullptr) {
    replay_install(nullptr);
    std::fprintf(stderr, "cpuinfo-replay: out of memory\n");
    return 1;
  }
  sysenv_set_log_level(env, 10);
  sysenv_set_stream(env, 0, nullptr, report_print_text);
  report_processor_block(env);
  sysenv_destroy(&env);
  replay_install(nullptr);
  return 0;
}
