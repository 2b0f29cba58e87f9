// What only a POSIX system shows: a device that refuses every byte, file
// names on disk as UTF-8 bytes, and the permissions of new files.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <random>
#include <string>

#include "files_test_util.h"

namespace {

class FullDevice : public ::testing::TestWithParam<int32_t> {};

// 100 kB go into the buffer; the flush finds that they never reached the
// disk, whatever the kind, and so does every later write that drains.
TEST_P(FullDevice, BytesTheDeviceRefusedAreStatusFive) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  SysFile* file = nullptr;
  int32_t status = 0;
  sysfile_open(env, "/dev/full", 0, 0, 1, 0, GetParam(), 6, &file, &status);
  ASSERT_EQ(status, 0) << "/dev/full opens on every Linux system";
  // Random bytes: the compressors can't shrink them to nothing.
  std::mt19937 gen(12345);
  std::string data(3 * SYSFILE_BUFFER_SIZE / 2, '\0');
  for (auto& c : data) c = static_cast<char>(gen());
  EXPECT_EQ(sysfile_write(file, 100000, data.data()), SYSFILE_OK) << "still buffered";
  EXPECT_EQ(sysfile_printf(file, "%s", "and a line\n"), SYSFILE_OK);
  EXPECT_EQ(sysfile_flush(file), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_write(file, data.size(), data.data()), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_flush(file), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_close(&file), 0);
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, FullDevice,
                         ::testing::Values(SYSFILE_PLAIN, SYSFILE_GZIP, SYSFILE_ZSTD));

TEST(PosixNames, TheNameOnDiskIsTheUtf8PathAndNewFilesAreOwnerReadWrite) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  const char* name = "sysfile_posix_\xC3\xA9\xE6\x96\x87\xF0\x9F\x98\x80.txt";
  SysFile* file = nullptr;
  int32_t status = 0;
  const mode_t old = umask(0);
  sysfile_open(env, name, 1, 0, 1, 0, SYSFILE_PLAIN, 0, &file, &status);
  umask(old);
  ASSERT_EQ(status, 0);
  sysfile_puts(file, "x\n");
  sysfile_close(&file);
  // The C library opens the same bytes as a name.
  EXPECT_EQ(files_test::read_bytes(name), "x\r\n");
  struct stat st {};
  ASSERT_EQ(stat(name, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  // An unpaired surrogate has no UTF-8 name on disk.
  const uint16_t broken[] = {'a', 0xD800, 'b', 0};
  sysfile_open_wide(env, broken, 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(status, SYSFILE_ERR_PATH);
  EXPECT_EQ(file, nullptr);
  std::remove(name);
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

}  // namespace
