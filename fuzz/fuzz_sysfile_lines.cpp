// The line readers over arbitrary bytes through all three kinds of stream:
// the bytes stored plain, as a gzip member and as a zstd frame must give the
// lines a plain model of the rules gives; the same bytes handed raw to the
// gzip and zstd readers (damaged input) must end reading without a crash,
// with status 4 or 10.
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "sysfile.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

std::vector<std::string> model(const std::string& bytes, size_t room) {
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < bytes.size()) {
    const size_t lf = bytes.find('\n', at);
    size_t n = lf == std::string::npos ? bytes.size() - at : lf - at + 1;
    if (n > room) n = room;
    std::string piece = bytes.substr(at, n);
    at += n;
    if (!piece.empty() && piece.back() == '\n') piece.pop_back();
    if (!piece.empty() && piece.back() == '\r') piece.pop_back();
    lines.push_back(piece);
  }
  return lines;
}

void store(const std::string& path, const std::string& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  check(f != nullptr);
  check(std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size());
  std::fclose(f);
}

std::string as_gzip(const std::string& bytes) {
  z_stream z{};
  check(deflateInit2(&z, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) == Z_OK);
  std::string out(deflateBound(&z, bytes.size()) + 64, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  z.avail_in = static_cast<uInt>(bytes.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  check(deflate(&z, Z_FINISH) == Z_STREAM_END);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

std::string as_zstd(const std::string& bytes) {
  std::string out(ZSTD_compressBound(bytes.size()), '\0');
  const size_t n = ZSTD_compress(out.data(), out.size(), bytes.data(), bytes.size(), 1);
  check(!ZSTD_isError(n));
  out.resize(n);
  return out;
}

// Reads every line; with `want` given they must match it.
void read_lines(SysEnv* env, const std::string& path, int32_t kind, uint64_t capacity,
                bool use_gets, const std::vector<std::string>* want) {
  SysFile* file = nullptr;
  int32_t status = 0;
  sysfile_open(env, path.c_str(), 0, 1, 0, 0, kind, 0, &file, &status);
  check(status == 0);
  std::vector<char> line(capacity);
  size_t count = 0;
  for (size_t guard = 0;; ++guard) {
    check(guard < 1000000);
    std::string got;
    if (use_gets) {
      sysfile_gets(file, capacity, line.data(), &status);
      if (status != 0) break;
      got = line.data();
    } else {
      uint64_t length = 0;
      sysfile_getline(file, capacity, &length, line.data(), &status);
      if (status != 0) break;
      check(length < capacity && line[length] == '\0');
      got.assign(line.data(), length);
    }
    if (want != nullptr) {
      check(count < want->size());
      const std::string& w = (*want)[count];
      // gets delivers a C text with one LF; NUL bytes in the data cut it.
      check(use_gets ? got == std::string((w + "\n").c_str()) : got == w);
    }
    ++count;
  }
  // Whole input ends with 4; raw bytes read as compressed input may also be
  // damaged input, 10.
  check(status == SYSFILE_ERR_EOF || (want == nullptr && status == SYSFILE_ERR_DATA));
  if (want != nullptr) check(count == want->size());
  sysfile_close(&file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  // The first byte picks the line capacity (3 to 66) and the reader.
  const uint64_t capacity = data[0] % 64 + 3;
  const bool use_gets = (data[1] & 1) != 0;
  const std::string bytes(reinterpret_cast<const char*>(data + 2), size - 2);
  static SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  static const std::string base = "/tmp/fuzz_sysfile_lines_" + std::to_string(getpid());

  const auto want = model(bytes, use_gets ? capacity - 2 : capacity - 1);
  store(base + ".txt", bytes);
  read_lines(env, base + ".txt", SYSFILE_PLAIN, capacity, use_gets, &want);
  store(base + ".gz", as_gzip(bytes));
  read_lines(env, base + ".gz", SYSFILE_GZIP, capacity, use_gets, &want);
  store(base + ".zst", as_zstd(bytes));
  read_lines(env, base + ".zst", SYSFILE_ZSTD, capacity, use_gets, &want);
  // The raw bytes as compressed input: anything may come out, but it ends.
  store(base + ".gz", bytes);
  read_lines(env, base + ".gz", SYSFILE_GZIP, capacity, use_gets, nullptr);
  store(base + ".zst", bytes);
  read_lines(env, base + ".zst", SYSFILE_ZSTD, capacity, use_gets, nullptr);
  for (const char* suffix : {".txt", ".gz", ".zst"}) std::remove((base + suffix).c_str());
  return 0;
}
