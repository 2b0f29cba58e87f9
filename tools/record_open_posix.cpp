// Opening a recorded file on POSIX systems.
#include <fcntl.h>

#include "cpuinfo_record.h"

// Without O_NONBLOCK, opening a FIFO waits for a writer that may never come.
int record_open_nowait(const char* path) { return open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC); }
