// Shared by the file tests and the line fuzzer: files as bytes, and the one
// model of the readers with a seeded random driver that checks a handle
// against it.
#ifndef HOSTKIT_FILES_TEST_UTIL_H
#define HOSTKIT_FILES_TEST_UTIL_H

#include <algorithm>
#include <bit>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <tuple>

#include "sysfile.h"

namespace files_test {

inline std::string read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return in ? bytes.str() : "<missing>";
}

inline bool write_bytes(const std::string& path, const std::string& bytes) {
  return static_cast<bool>(std::ofstream(path, std::ios::binary) << bytes);
}

// The line readers' rule: a line ends after its LF or when `room` bytes are
// taken, and then one LF and after it one CR come off its end. Returns the
// line and where the next one begins.
inline std::pair<std::string, size_t> model_line(const std::string& bytes, size_t at,
                                                 size_t room) {
  const size_t lf = bytes.find('\n', at);
  const size_t end = std::min(at + room, lf == std::string::npos ? bytes.size() : lf + 1);
  std::string line = bytes.substr(at, end - at);
  if (!line.empty() && line.back() == '\n') line.pop_back();
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return {line, end};
}

// Reads `file`, which holds `bytes`, by a seeded random sequence of the line
// readers and, less often, read and read_items, with capacities and sizes
// from 0 to past the input (each power of two as likely: small rooms come
// often, and on a large input rooms past the 1 MiB buffer too), some on a
// status already set (then nothing may happen), and on for three calls past
// the end. Each result must be the model's, and nothing may land in the
// destination past the bytes the call took. Returns "" or the call that
// differed first.
inline std::string read_as_model(SysFile* file, const std::string& bytes, uint32_t seed) {
  std::mt19937 random(seed);
  const uint64_t bits = std::bit_width(uint64_t{2 * bytes.size() + 64});
  std::string out(size_t{1} << bits, '\0');
  for (size_t at = 0, past_end = 0; past_end < 3; past_end += at == bytes.size()) {
    // 0 getline, 1 gets (each 3 in 8), 2 read, 3 read_items (each 1 in 8).
    const uint32_t pick = random() % 8, op = pick < 6 ? pick / 3 : pick - 4;
    const uint64_t n = random() % ((uint64_t{1} << random() % bits) + 1);
    const int32_t preset = random() % 16 == 0 ? SYSFILE_ERR_WRITE : 0;
    const size_t start = at;
    std::string want;     // the destination's first bytes
    uint64_t result = 0;  // getline's length, read's count
    int32_t want_status = preset;
    const uint64_t kept = op == 0 ? 1 : 2;  // room for the terminator, for gets the LF too
    if (preset == 0 && op < 2 && n > 0) {
      std::string line;
      if (n > kept && at == bytes.size()) want_status = SYSFILE_ERR_EOF;
      if (n > kept && at < bytes.size()) std::tie(line, at) = model_line(bytes, at, n - kept);
      if (op == 1 && n > 1 && want_status == 0) line += '\n';
      result = op == 0 ? line.size() : 0;
      want = line + '\0';
    } else if (preset == 0 && op >= 2) {
      at = std::min(at + n, bytes.size());
      want = bytes.substr(start, at - start);
      result = op == 2 ? want.size() : 0;
      if (want.size() < n) want_status = op == 2 ? SYSFILE_ERR_EOF : SYSFILE_ERR_SHORT_READ;
    }
    const size_t reach = std::max(at - start, want.size());  // the call may write up to here
    const size_t window = std::min(out.size(), reach + 4096);
    std::fill_n(out.begin(), window, '\x7F');
    int32_t status = preset;
    uint64_t got = 0;
    if (op == 0) sysfile_getline(file, n, &got, out.data(), &status);
    if (op == 1) sysfile_gets(file, n, out.data(), &status);
    if (op == 2) got = sysfile_read(file, out.data(), n, &status);
    if (op == 3) sysfile_read_items(file, out.data(), 1, n, &status);
    if (status != want_status || got != result || out.compare(0, want.size(), want) != 0 ||
        out.find_first_not_of('\x7F', reach) < window) {
      return "reader " + std::to_string(op) + " with " + std::to_string(n) + " at " +
             std::to_string(start) + ": status " + std::to_string(status);
    }
  }
  return "";
}

}  // namespace files_test

#endif
