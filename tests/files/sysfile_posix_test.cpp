// What only a POSIX system shows: a device that refuses every byte, file
// names on disk as UTF-8 bytes, and the permissions of new files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>

#include "files_test_util.h"

namespace {

// 100 kB stay in the buffer, and the flush finds that they never reached
// the disk; a buffer's worth drains at once, and the write finds it. Every
// later write that drains and every flush says so too, for every kind.
TEST(FullDevice, BytesTheDeviceRefusedAreStatusFive) {
  SysEnv* env = sysenv_create(0, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
  std::mt19937 random(12345);  // random bytes: the compressors can't shrink them to nothing
  std::string data(3 * SYSFILE_BUFFER_SIZE / 2, '\0');
  for (char& c : data) c = static_cast<char>(random());
  for (int32_t kind : {SYSFILE_PLAIN, SYSFILE_GZIP, SYSFILE_ZSTD}) {
    for (uint64_t first : {uint64_t{100000}, uint64_t{SYSFILE_BUFFER_SIZE}}) {
      SysFile* file = nullptr;
      int32_t status = 0;
      sysfile_open(env, "/dev/full", 0, 0, 1, 0, kind, 6, &file, &status);
      EXPECT_EQ(sysfile_write(file, first, data.data()) + status,
                first < SYSFILE_BUFFER_SIZE ? SYSFILE_OK : SYSFILE_ERR_WRITE) << kind;
      EXPECT_EQ(sysfile_flush(file), SYSFILE_ERR_WRITE) << kind;
      EXPECT_EQ(sysfile_write(file, data.size(), data.data()), SYSFILE_ERR_WRITE) << kind;
      EXPECT_EQ(sysfile_flush(file), SYSFILE_ERR_WRITE) << kind;
      sysfile_close(&file);
    }
  }
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

// The C library opens the same bytes as a name; new files are for their
// owner to read and write; an unpaired surrogate has no name on disk.
TEST(PosixNames, TheNameOnDiskIsTheUtf8PathAndNewFilesAreOwnerReadWrite) {
  SysEnv* env = sysenv_create(0, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
  const char* name = "files_posix_\xC3\xA9\xE6\x96\x87\xF0\x9F\x98\x80";
  SysFile* file = nullptr;
  int32_t status = 0;
  const mode_t old = umask(0);
  sysfile_open(env, name, 1, 0, 1, 0, SYSFILE_PLAIN, 0, &file, &status);
  umask(old);
  sysfile_puts_checked(file, "x\n", &status);
  sysfile_close(&file);
  struct stat st {};
  EXPECT_EQ(stat(name, &st) == 0 ? st.st_mode & 0777 : 0u, 0600u);
  EXPECT_EQ(files_test::read_bytes(name), "x\r\n");
  const uint16_t broken[] = {'a', 0xD800, 'b', 0};
  sysfile_open_wide(env, broken, 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(status, SYSFILE_ERR_PATH);
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

}  // namespace
