// The report tool's steps, apart from main so that tests can run them.
#ifndef HOSTKIT_REPORT_H
#define HOSTKIT_REPORT_H

#include <cstdint>

// Sets flush-to-zero and denormals-are-zero in MXCSR for the calling thread,
// leaving every other bit as it was.
void report_set_fp_mode();

// The message-stream callback of the report: the text to standard output.
extern "C" void report_print_text(void* handle, const char* text);

typedef struct SysEnv SysEnv;

// The processor block: counts, class and their traces, on standard output
// and through `env`'s message stream.
void report_processor_block(SysEnv* env);

// One whole run of the report. Always returns 0.
int report_run();

#endif
