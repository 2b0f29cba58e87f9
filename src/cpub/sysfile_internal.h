// Seams of the file object for the layer's own files and tests.
#ifndef HOSTKIT_SYSFILE_INTERNAL_H
#define HOSTKIT_SYSFILE_INTERNAL_H

#include <cstdint>

extern "C" {

// The zlib mode text of a gzip file: direction letter, 'b', the level digit
// (clamped to 0..9), terminator.
void sysfile_gz_mode(int32_t read, int32_t append, int32_t level, char mode[5]);
}

#endif
