// Opening a recorded file on Windows. Named pipes live apart from folders
// (\\.\pipe\), so opening a file never waits for another process.
#include <fcntl.h>

#include "cpuinfo_record.h"

int record_open_nowait(const char* path) { return open(path, O_RDONLY | O_BINARY); }
