// The report: one straight pass that writes the processor block, the heading
// and the host block to standard output.
#include "report.h"

#include <xmmintrin.h>

#include <cstdio>

#include "cpub.h"

namespace {
constexpr unsigned kFlushToZeroAndDenormalsAreZero = 0x8040;
}  // namespace

void report_set_fp_mode() { _mm_setcsr(_mm_getcsr() | kFlushToZeroAndDenormalsAreZero); }

extern "C" void report_print_text(void* /*handle*/, const char* text) { std::printf("%s", text); }

int report_run() {
  report_set_fp_mode();
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  if (env != nullptr) {
    sysenv_set_log_level(env, 10);
    sysenv_set_stream(env, 0, nullptr, report_print_text);

    // The processor block goes here.

    sysenv_printf(env, "HOSTkit information\n\n");

    // The host block goes here.
  }
  sysenv_destroy(&env);
  return 0;
}
