// The report: one straight pass that writes the processor block, the heading
// and the host block to standard output.
#include "report.h"

#include <xmmintrin.h>

#include <cstdio>

#include "cpub.h"
#include "cpuinfo.h"
#include "hostid.h"

namespace {
constexpr unsigned kFlushToZeroAndDenormalsAreZero = 0x8040;
}  // namespace

void report_set_fp_mode() { _mm_setcsr(_mm_getcsr() | kFlushToZeroAndDenormalsAreZero); }

// The processor block: the core counting trace through the message stream,
// the classification trace and the four lines on standard output. Both reach
// the same stdio stream, so they stand in the order they were written.
void report_processor_block(SysEnv* env) {
  uint32_t logical = 0, cores = 0, sockets = 0;
  CpuSystemInfo info;
  cpuinfo_count_cores(env, &logical, &cores, &sockets, 1);
  cpuinfo_system_info(1, &info);
  std::printf("VEGRA CPU id = %d\n", static_cast<int>(info.procid));
  std::printf("Logical CPUs = %d\n", static_cast<int>(logical));
  std::printf("CPU Cores    = %d\n", static_cast<int>(cores));
  std::printf("CPU sockets  = %d\n", static_cast<int>(sockets));
}

extern "C" void report_print_text(void* /*handle*/, const char* text) { std::printf("%s", text); }

int report_run() {
  report_set_fp_mode();
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  if (env != nullptr) {
    sysenv_set_log_level(env, 10);
    sysenv_set_stream(env, 0, nullptr, report_print_text);

    report_processor_block(env);

    sysenv_printf(env, "HOSTkit information\n\n");

    // The host block: the host name and the default identifier. An
    // unanswered query leaves its buffer empty and the line stands all the
    // same.
    HostIdContext* context = nullptr;
    int32_t status = hostid_context_open(&context);
    if (status != 0) {
      sysenv_printf(env, "Hostkit error code: %d\n", status);
    } else {
      char host_name[4096];
      char host_id[4096];
      host_name[0] = '\0';
      host_id[0] = '\0';
      hostid_query(context, HOSTID_TYPE_HOSTNAME, host_name);
      hostid_query(context, HOSTID_TYPE_DEFAULT, host_id);
      sysenv_printf(env, "%-*s : %s\n", 30, "Hostname", host_name);
      sysenv_printf(env, "%-*s : %s\n", 30, "Hostid", host_id);
      hostid_context_close(context);
    }
  }
  sysenv_destroy(&env);
  return 0;
}
