// What only a POSIX system has: a device that refuses every byte.
#include <gtest/gtest.h>

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

}  // namespace
