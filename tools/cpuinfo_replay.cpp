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

constexpr char kUsage[] = "usage: cpuinfo-replay [--process-mask HEX] DIR\n";

// Status 2: the command line or the folder it names is at fault.
int fail(const std::string& why, bool show_usage) {
  std::fprintf(stderr, "cpuinfo-replay: %s\n%s", why.c_str(), show_usage ? kUsage : "");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const char* dir = nullptr;
  const char* process_mask_text = nullptr;
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strcmp(arg, "--help") == 0) {
      std::printf(
          "%s"
          "Prints hostkit's processor block as it reads on the machine recorded in\n"
          "DIR, one file per logical processor: DIR/pu0, DIR/pu1, ...\n\n"
          "  --process-mask HEX  run the process on these processors only\n"
          "  --help              show this help and exit\n"
          "  --version           show the version and exit\n",
          kUsage);
      return 0;
    }
    if (std::strcmp(arg, "--version") == 0) {
      std::printf("cpuinfo-replay (hostkit) %s\n", HOSTKIT_VERSION);
      return 0;
    }
    if (std::strcmp(arg, "--process-mask") == 0) {
      if (i + 1 >= argc) return fail("--process-mask needs a hexadecimal mask", true);
      if (process_mask_text != nullptr) return fail("--process-mask given twice", true);
      process_mask_text = argv[++i];
    } else if (arg[0] == '-') {
      return fail(std::string("unknown option ") + arg, true);
    } else if (dir != nullptr) {
      return fail("one folder only", true);
    } else {
      dir = arg;
    }
  }
  if (dir == nullptr) return fail("no folder given", true);

  uint64_t mask = 0;
  if (process_mask_text != nullptr && !replay_parse_mask(process_mask_text, &mask)) {
    return fail(std::string(process_mask_text) + ": not a hexadecimal mask", true);
  }
  ReplayMachine machine;
  std::string error;
  if (!replay_load(dir, &machine, &error)) return fail(error, false);
  if (process_mask_text != nullptr && !replay_restrict_process(&machine, mask, &error)) {
    return fail(error, false);
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
