// The file object's readers over arbitrary bytes, stored plain, as a gzip
// member and as a zstd frame, against the one model the file tests use; and
// the same bytes handed raw to the gzip and zstd readers, as damaged input,
// must end the reading with status 4 or 10.
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <cstdlib>

#include "../tests/files/files_test_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  static const std::string path = "/tmp/fuzz_sysfile_lines_" + std::to_string(getpid());
  const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  std::string zstd(ZSTD_compressBound(bytes.size()), '\0');
  zstd.resize(ZSTD_compress(zstd.data(), zstd.size(), bytes.data(), bytes.size(), 1));
  gzFile gz = gzopen((path + ".gz").c_str(), "wb");
  gzwrite(gz, bytes.data(), static_cast<unsigned>(bytes.size()));
  gzclose(gz);
  if (!files_test::write_bytes(path + ".zst", zstd) || !files_test::write_bytes(path, bytes)) {
    std::abort();
  }
  // The file, its kind, and whether it holds `bytes` whole.
  const std::tuple<std::string, int32_t, bool> files[] = {
      {path, SYSFILE_PLAIN, true},  {path + ".gz", SYSFILE_GZIP, true},
      {path + ".zst", SYSFILE_ZSTD, true}, {path, SYSFILE_GZIP, false}, {path, SYSFILE_ZSTD, false}};
  for (const auto& [name, kind, whole] : files) {
    SysFile* file = nullptr;
    int32_t status = 0;
    sysfile_open(env, name.c_str(), 0, 1, 0, 0, kind, 0, &file, &status);
    // The first byte seeds the sequence of reads.
    if (status != 0 || (whole && !files_test::read_as_model(file, bytes, data[0]).empty())) {
      std::abort();
    }
    char line[64];
    for (uint64_t length = 0; !whole && status == 0;) {
      sysfile_getline(file, sizeof line, &length, line, &status);
    }
    if (!whole && status != SYSFILE_ERR_EOF && status != SYSFILE_ERR_DATA) std::abort();
    sysfile_close(&file);
  }
  for (const char* suffix : {"", ".gz", ".zst"}) std::remove((path + suffix).c_str());
  return 0;
}
