// Writes files through the file object for the real tools to check
// afterwards (check_written_files.sh): every kind, binary and text mode,
// sizes around the buffers, appended members and frames. Beside each file
// goes the exact byte sequence it must decode to, written with stdio, and
// a line for it in manifest.txt. Usage: files_tool_writer DIR
#include <cstdio>
#include <string>
#include <utility>

#include "files_test_util.h"
#include "sysfile.h"

namespace {

using files_test::pattern_text;
using files_test::with_crlf;

int failures = 0;
std::string manifest;

void fail(const std::string& what) {
  std::fprintf(stderr, "FAIL %s\n", what.c_str());
  ++failures;
}

// Writes `data` through the file at `path` with a mix of the output
// operations, so each of them meets the buffer's end somewhere.
void make(SysEnv* env, const std::string& path, int32_t kind, int32_t text, int32_t append,
          const std::string& data) {
  SysFile* file = nullptr;
  int32_t status = 0;
  sysfile_open(env, path.c_str(), text, 0, 1 - append, append, kind, 6, &file, &status);
  for (uint64_t at = 0, n, step = 0; status == 0 && at < data.size(); at += n, ++step) {
    n = std::min<uint64_t>(data.size() - at, 1 + (at * 2654435761u) % 90001);
    const std::string piece = data.substr(at, n);
    if (step % 4 == 0) status = sysfile_write(file, n, piece.data());
    if (step % 4 == 1) sysfile_puts_checked(file, piece.c_str(), &status);
    for (size_t i = 0; step % 4 == 2 && status == 0 && i < n; ++i) status = sysfile_putc(file, piece[i]);
    if (step % 4 == 3) status = sysfile_printf(file, "%s", piece.c_str());
  }
  if (status != 0 || sysfile_flush(file) != 0) fail(path + ": status " + std::to_string(status));
  sysfile_close(&file);
}

// `expected` goes beside the file, written with stdio, with a manifest line.
void expect(const std::string& dir, const std::string& name, const std::string& expected) {
  if (!files_test::write_bytes(dir + "/" + name + ".expected", expected)) fail("expected " + name);
  manifest += name + " " + name + ".expected\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: files_tool_writer DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  const std::pair<const char*, int32_t> kinds[] = {
      {".txt", SYSFILE_PLAIN}, {".gz", SYSFILE_GZIP}, {".zst", SYSFILE_ZSTD}};
  const uint64_t mib = SYSFILE_BUFFER_SIZE;
  for (const auto& [suffix, kind] : kinds) {
    for (uint64_t size : {uint64_t{0}, uint64_t{1}, uint64_t{8193}, uint64_t{131072},
                          uint64_t{131591}, mib - 1, mib, mib + 1, 3 * mib + 5}) {
      const std::string data = pattern_text(size, static_cast<uint32_t>(size) + 3);
      for (int32_t text : {0, 1}) {
        const std::string name = "w_" + std::to_string(size) + (text != 0 ? "_text" : "_bin") + suffix;
        make(env, dir + "/" + name, kind, text, 0, data);
        expect(dir, name, text != 0 ? with_crlf(data) : data);
      }
    }
    // A file written, then appended to: two members or frames for the tools.
    const std::string first = pattern_text(300000, 41), second = pattern_text(200000, 42);
    const std::string name = std::string("w_appended") + suffix;
    std::remove((dir + "/" + name).c_str());
    make(env, dir + "/" + name, kind, 1, 1, first);
    make(env, dir + "/" + name, kind, 0, 1, second);
    expect(dir, name, with_crlf(first) + second);
  }
  if (!files_test::write_bytes(dir + "/manifest.txt", manifest)) fail("manifest");
  if (sysenv_destroy(&env) != 0) fail("blocks left");
  std::printf("%s\n", failures == 0 ? "all files written" : "failures");
  return failures == 0 ? 0 : 1;
}
