// The file object on real files of all three kinds: the open rules and their
// statuses, round trips around the buffers' sizes, appending, paths outside
// ASCII, and allocation failures during open.
#include <gtest/gtest.h>
#include <zstd.h>

#include <string>

#include "files_test_util.h"
#include "test_support.h"

namespace {

using files_test::pattern_text;
using files_test::read_bytes;

// "sysfile_Grüße_文件_😀.txt" in UTF-8 and in UTF-16.
const char* const kUtf8Name =
    "sysfile_Gr\xC3\xBC\xC3\x9F" "e_\xE6\x96\x87\xE4\xBB\xB6_\xF0\x9F\x98\x80.txt";
const std::u16string kWideName = u"sysfile_Grüße_文件_😀.txt";

class OpenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(env_ = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr), nullptr);
    // A file name per test, so tests can run side by side.
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    path_ = std::string("sysfile_") + info->name() + ".dat";
    for (char& c : path_) c = c == '/' ? '_' : c;
  }
  void TearDown() override {
    std::remove(path_.c_str());
    EXPECT_EQ(sysenv_destroy(&env_), 0) << "every block released";
  }
  SysFile* open(int32_t read, int32_t write, int32_t append, int32_t kind, int32_t text = 0,
                int32_t level = 6) {
    SysFile* file = nullptr;
    int32_t status = 0;
    sysfile_open(env_, path_.c_str(), text, read, write, append, kind, level, &file, &status);
    EXPECT_EQ(status, 0);
    return file;
  }
  void write_file(int32_t kind, const std::string& data, int32_t level = 6) {
    SysFile* file = open(0, 1, 0, kind, 0, level);
    EXPECT_EQ(sysfile_write(file, data.size(), data.data()), SYSFILE_OK);
    sysfile_close(&file);
  }
  std::string read_through(int32_t kind) {
    SysFile* file = open(1, 0, 0, kind);
    std::string out, buffer(300000, '\0');
    int32_t status = 0;
    while (status == 0) out.append(buffer.data(), sysfile_read(file, buffer.data(), buffer.size(), &status));
    EXPECT_EQ(status, SYSFILE_ERR_EOF);
    sysfile_close(&file);
    return out;
  }
  SysEnv* env_ = nullptr;
  std::string path_;
};

TEST_F(OpenTest, RefusedOpensLeaveNoHandle) {
  const struct {
    const char* why;
    const char* path;
    int32_t read, write, append, status;
  } cases[] = {
      {"read with write", "x.dat", 1, 1, 0, SYSFILE_ERR_ARGUMENT},
      {"read with append", "x.dat", 1, 0, 1, SYSFILE_ERR_ARGUMENT},
      {"all three", "x.dat", 1, 1, 1, SYSFILE_ERR_ARGUMENT},
      {"no direction", "x.dat", 0, 0, 0, SYSFILE_ERR_ARGUMENT},
      {"no path", nullptr, 0, 1, 0, SYSFILE_ERR_ARGUMENT},
      {"a file that isn't there", "no_such_folder/no_such_file", 1, 0, 0, SYSFILE_ERR_ARGUMENT},
      {"C3 then 'b': not UTF-8", "bad_\xC3" "b.txt", 0, 1, 0, SYSFILE_ERR_PATH},
      {"F4 90 80 80: above U+10FFFF", "bad_\xF4\x90\x80\x80.txt", 0, 1, 0, SYSFILE_ERR_PATH},
  };
  for (const auto& c : cases) {
    SysFile* file = reinterpret_cast<SysFile*>(&file);  // anything but null
    int32_t status = 0;
    sysfile_open(env_, c.path, 0, c.read, c.write, c.append, 0, 0, &file, &status);
    EXPECT_EQ(status, c.status) << c.why;
    EXPECT_EQ(file, nullptr) << c.why;
  }
  EXPECT_EQ(read_bytes("x.dat"), "<missing>");
  // A status already set: nothing is done. The UTF-8 open leaves the
  // variable, the wide open clears it.
  SysFile* file = reinterpret_cast<SysFile*>(&file);
  int32_t status = SYSFILE_ERR_WRITE;
  sysfile_open(env_, path_.c_str(), 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(file, reinterpret_cast<SysFile*>(&file));
  const uint16_t wide[] = {'x', 0};
  sysfile_open_wide(env_, wide, 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(status, SYSFILE_ERR_WRITE);
  EXPECT_EQ(read_bytes(path_), "<missing>");
}

TEST_F(OpenTest, NonAsciiPathsOpenThroughBothEntries) {
  SysFile* file = nullptr;
  int32_t status = 0;
  sysfile_open(env_, kUtf8Name, 0, 0, 1, 0, SYSFILE_GZIP, 6, &file, &status);
  ASSERT_EQ(status, 0);
  sysfile_puts(file, "written by name in UTF-8\n");
  sysfile_close(&file);
  sysfile_open_wide(env_, reinterpret_cast<const uint16_t*>(kWideName.c_str()), 0, 1, 0, 0,
                    SYSFILE_GZIP, 0, &file, &status);
  ASSERT_EQ(status, 0) << "the UTF-16 name finds the same file";
  char line[64];
  sysfile_gets(file, sizeof line, line, &status);
  EXPECT_STREQ(line, "written by name in UTF-8\n");
  sysfile_close(&file);
  std::remove(kUtf8Name);
}

// Writing, appending (by "append" alone or with "write") and writing over
// again, through every kind; a kind other than gzip or zstd is plain. (Sizes
// around the buffers: tool_writer.cpp and interop_test.cpp.)
class RoundTrip : public OpenTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(RoundTrip, AppendingAddsAndWritingTruncates) {
  const int32_t kind = GetParam();
  const int32_t directions[][3] = {{0, 1, 0}, {0, 1, 1}, {0, 0, 1}};  // write, both, append
  for (const auto& d : directions) {
    SysFile* file = open(d[0], d[1], d[2], kind);
    sysfile_puts(file, d[2] != 0 ? "more\n" : "first\n");
    sysfile_close(&file);
  }
  EXPECT_EQ(read_through(kind), "first\nmore\nmore\n");
  write_file(kind, "new\n");
  EXPECT_EQ(read_through(kind), "new\n");
  EXPECT_TRUE(kind == SYSFILE_GZIP || kind == SYSFILE_ZSTD || read_bytes(path_) == "new\n");
}

INSTANTIATE_TEST_SUITE_P(Kinds, RoundTrip,
                         ::testing::Values(SYSFILE_PLAIN, SYSFILE_GZIP, SYSFILE_ZSTD, 7));

TEST_F(OpenTest, CompressionLevels) {
  // The gzip level reaches zlib clamped to 0..9: -3 is 0, which stores, so
  // pseudo-random letters grow; 12 is 9.
  const std::string data = pattern_text(200000, 4);
  std::string made[4];
  const int32_t levels[4] = {-3, 0, 12, 9};
  for (int i = 0; i < 4; ++i) {
    write_file(SYSFILE_GZIP, data, levels[i]);
    made[i] = read_bytes(path_);
  }
  EXPECT_GT(made[0].size(), data.size());
  EXPECT_TRUE(made[0] == made[1]);
  EXPECT_LT(made[2].size(), data.size());
  EXPECT_TRUE(made[2] == made[3]);
  EXPECT_TRUE(read_through(SYSFILE_GZIP) == data);
  // zstd is one frame at level 3 whatever the level asked.
  write_file(SYSFILE_ZSTD, data, 19);
  EXPECT_TRUE(read_bytes(path_) == files_test::zstd_stream_frame(data, 3));
}

// Every allocation sysfile_open makes, failing in turn: no block stays
// behind, and the status says memory.
TEST(SysFileMemory, EveryFailingAllocationOfOpenLeavesNothing) {
  const std::string path = "sysfile_memory.dat";
  ASSERT_TRUE(files_test::write_bytes(path, ""));
  for (int32_t kind : {SYSFILE_PLAIN, SYSFILE_GZIP, SYSFILE_ZSTD}) {
    for (int32_t read : {0, 1}) {
      bool opened = false;
      for (int fail = 1; !opened && fail < 20; ++fail) {
        SCOPED_TRACE("kind " + std::to_string(kind) + " read " + std::to_string(read) +
                     " failing allocation " + std::to_string(fail));
        hostkit_test::CountingAllocator counting;
        SysEnv* env = counting.create_env();
        ASSERT_NE(env, nullptr);
        const int64_t before = counting.live;
        counting.fail_at = counting.allocating_calls + fail;
        SysFile* file = nullptr;
        int32_t status = 0;
        sysfile_open(env, path.c_str(), 0, read, 1 - read, 0, kind, 6, &file, &status);
        opened = status == 0;
        EXPECT_TRUE(opened || status == SYSFILE_ERR_MEMORY) << status;
        sysfile_close(&file);
        EXPECT_EQ(counting.live, before);
        EXPECT_EQ(sysenv_destroy(&env), 0);
      }
      EXPECT_TRUE(opened);
    }
  }
  std::remove(path.c_str());
}

}  // namespace
