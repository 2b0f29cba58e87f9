// The file object on real files of all three kinds: the open rules and their
// statuses, round trips around the buffer's size, appending, paths outside
// ASCII, and allocation failures during open.
#include <gtest/gtest.h>
#include <zstd.h>

#include <string>
#include <vector>

#include "files_test_util.h"
#include "sysfile_internal.h"
#include "test_support.h"

namespace {

using files_test::pattern_text;
using files_test::read_bytes;
using files_test::with_crlf;
using files_test::write_bytes;

constexpr uint64_t kCap = SYSFILE_BUFFER_SIZE;

// A file name per test, so tests can run side by side.
std::string test_path(const char* suffix) {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string("sysfile_") + info->test_suite_name() + "_" + info->name() + suffix;
  for (char& c : name) {
    if (c == '/') c = '_';
  }
  return name;
}

class OpenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(env_, nullptr);
    path_ = test_path(".dat");
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
  std::string read_through(int32_t kind) {
    SysFile* file = open(1, 0, 0, kind);
    std::string out;
    std::string buffer(300000, '\0');
    int32_t status = 0;
    while (status == 0) out.append(buffer.data(), sysfile_read(file, buffer.data(), buffer.size(), &status));
    EXPECT_EQ(status, SYSFILE_ERR_EOF);
    sysfile_close(&file);
    return out;
  }
  SysEnv* env_ = nullptr;
  std::string path_;
};

TEST_F(OpenTest, ExactlyOneDirection) {
  SysFile* file = reinterpret_cast<SysFile*>(&file);  // anything but null
  int32_t status = 0;
  // Read with write, read with append, and no direction at all.
  const int32_t bad[][3] = {{1, 1, 0}, {1, 0, 1}, {0, 0, 0}, {1, 1, 1}};
  for (const auto& d : bad) {
    status = 0;
    sysfile_open(env_, path_.c_str(), 0, d[0], d[1], d[2], 0, 0, &file, &status);
    EXPECT_EQ(status, SYSFILE_ERR_ARGUMENT);
    EXPECT_EQ(file, nullptr);
  }
  status = 0;
  sysfile_open(env_, nullptr, 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(status, SYSFILE_ERR_ARGUMENT);
  // A file that isn't there can't be read.
  status = 0;
  sysfile_open(env_, "no_such_folder/no_such_file", 0, 1, 0, 0, 0, 0, &file, &status);
  EXPECT_EQ(status, SYSFILE_ERR_ARGUMENT);
  EXPECT_EQ(file, nullptr);
}

TEST_F(OpenTest, NonZeroStatusOnEntryDoesNothing) {
  SysFile* file = reinterpret_cast<SysFile*>(&file);
  int32_t status = SYSFILE_ERR_WRITE;
  sysfile_open(env_, path_.c_str(), 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(file, reinterpret_cast<SysFile*>(&file)) << "UTF-8 open leaves the variable";
  EXPECT_EQ(status, SYSFILE_ERR_WRITE);
  const uint16_t wide[] = {'x', 0};
  sysfile_open_wide(env_, wide, 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(file, nullptr) << "the wide open clears it";
  EXPECT_EQ(status, SYSFILE_ERR_WRITE);
  EXPECT_EQ(read_bytes(path_), "<missing>");
}

TEST_F(OpenTest, InvalidUtf8PathIsStatusNine) {
  SysFile* file = nullptr;
  int32_t status = 0;
  // C3 followed by 'b': the converter would replace it.
  sysfile_open(env_, "bad_\xC3" "b.txt", 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(status, SYSFILE_ERR_PATH);
  EXPECT_EQ(file, nullptr);
  status = 0;
  sysfile_open(env_, "bad_\xF4\x90\x80\x80.txt", 0, 0, 1, 0, 0, 0, &file, &status);
  EXPECT_EQ(status, SYSFILE_ERR_PATH);
}

TEST_F(OpenTest, NonAsciiPathsOpenThroughBothEntries) {
  // "sysfile_Grüße_文件_😀.txt" in UTF-8, and the same name in UTF-16.
  const char* utf8 = "sysfile_Gr\xC3\xBC\xC3\x9F" "e_\xE6\x96\x87\xE4\xBB\xB6_\xF0\x9F\x98\x80.txt";
  const std::u16string wide = u"sysfile_Grüße_文件_😀.txt";
  SysFile* file = nullptr;
  int32_t status = 0;
  sysfile_open(env_, utf8, 0, 0, 1, 0, SYSFILE_GZIP, 6, &file, &status);
  ASSERT_EQ(status, 0);
  sysfile_puts(file, "written by name in UTF-8\n");
  sysfile_close(&file);
  sysfile_open_wide(env_, reinterpret_cast<const uint16_t*>(wide.c_str()), 0, 1, 0, 0,
                    SYSFILE_GZIP, 0, &file, &status);
  ASSERT_EQ(status, 0) << "the UTF-16 name finds the same file";
  char line[64];
  sysfile_gets(file, sizeof line, line, &status);
  EXPECT_STREQ(line, "written by name in UTF-8\n");
  sysfile_close(&file);
  // Appending through the wide name, reading through the UTF-8 one.
  sysfile_open_wide(env_, reinterpret_cast<const uint16_t*>(wide.c_str()), 0, 0, 0, 1,
                    SYSFILE_GZIP, 6, &file, &status);
  sysfile_puts(file, "second\n");
  sysfile_close(&file);
  sysfile_open(env_, utf8, 0, 1, 0, 0, SYSFILE_GZIP, 0, &file, &status);
  uint64_t length = 0;
  sysfile_getline(file, sizeof line, &length, line, &status);
  sysfile_getline(file, sizeof line, &length, line, &status);
  EXPECT_STREQ(line, "second");
  EXPECT_EQ(status, 0);
  sysfile_close(&file);
}

TEST_F(OpenTest, HandlesHaveTheOperationsOfTheirDirection) {
  SysFile* w = open(0, 1, 0, SYSFILE_ZSTD, 1);
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(w->env, env_);
  EXPECT_NE(w->state->write, nullptr);
  EXPECT_NE(w->state->flush, nullptr);
  EXPECT_NE(w->state->close, nullptr);
  EXPECT_EQ(w->state->read, nullptr);
  EXPECT_EQ(w->state->rewind, nullptr);
  EXPECT_EQ(w->state->text, 1);
  EXPECT_EQ(w->state->capacity, kCap);
  sysfile_close(&w);
  SysFile* r = open(1, 0, 0, SYSFILE_PLAIN, 7);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->state->write, nullptr);
  EXPECT_EQ(r->state->flush, nullptr);
  EXPECT_NE(r->state->read, nullptr);
  EXPECT_NE(r->state->rewind, nullptr);
  EXPECT_EQ(r->state->text, 1) << "any non-zero flag is 1";
  sysfile_close(&r);
}

TEST(SysFileGzipMode, LettersAndClampedLevel) {
  char mode[5];
  sysfile_gz_mode(0, 1, 12, mode);
  EXPECT_STREQ(mode, "ab9");
  sysfile_gz_mode(0, 0, -3, mode);
  EXPECT_STREQ(mode, "wb0");
  sysfile_gz_mode(1, 0, 5, mode);
  EXPECT_STREQ(mode, "rb5");
}

// Sizes around the 1 MiB buffer, the zstd buffers (131072, 131075, 131591)
// and zlib's 8 KiB/16 KiB, in binary and text mode, through every kind.
class RoundTrip : public OpenTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(RoundTrip, WhatIsWrittenReadsBackExactly) {
  const int32_t kind = GetParam();
  for (uint64_t size : {uint64_t{0}, uint64_t{1}, uint64_t{8193}, uint64_t{131072},
                        uint64_t{131591}, kCap - 1, kCap, kCap + 1, 3 * kCap + 17}) {
    const std::string data = pattern_text(size, static_cast<uint32_t>(size));
    for (int32_t text : {0, 1}) {
      SysFile* file = open(0, 1, 0, kind, text);
      ASSERT_NE(file, nullptr);
      // Pieces of odd sizes, so appends meet the buffer's end anywhere.
      for (uint64_t at = 0; at < data.size();) {
        const uint64_t n = std::min<uint64_t>(data.size() - at, 1 + (at * 7919) % 70001);
        ASSERT_EQ(sysfile_write(file, n, data.data() + at), SYSFILE_OK);
        at += n;
      }
      EXPECT_EQ(sysfile_flush(file), SYSFILE_OK);
      sysfile_close(&file);
      const std::string expected = text != 0 ? with_crlf(data) : data;
      if (kind == SYSFILE_PLAIN) {
        EXPECT_TRUE(read_bytes(path_) == expected);
      }
      EXPECT_TRUE(read_through(kind) == expected) << size << " text " << text;
      // The line reader sees the original lines again, CR LF or not.
      SysFile* in = open(1, 0, 0, kind);
      std::string joined;
      std::string line(200, '\0');
      int32_t status = 0;
      uint64_t length = 0;
      for (;;) {
        sysfile_getline(in, line.size(), &length, line.data(), &status);
        if (status != 0) break;
        joined.append(line.data(), length);
        joined += '\n';
      }
      EXPECT_EQ(status, SYSFILE_ERR_EOF);
      // pattern_text ends its last line with LF unless the size cut it off.
      std::string lines = data;
      if (!lines.empty() && lines.back() != '\n') lines += '\n';
      EXPECT_TRUE(joined == lines) << size << " text " << text;
      sysfile_close(&in);
    }
  }
}

TEST_P(RoundTrip, AppendingAddsToWhatIsThere) {
  const int32_t kind = GetParam();
  SysFile* file = open(0, 1, 0, kind);
  sysfile_puts(file, "first\n");
  sysfile_close(&file);
  // write and append together also append.
  file = open(0, 1, 1, kind);
  sysfile_puts(file, "second\n");
  sysfile_close(&file);
  file = open(0, 0, 1, kind);
  sysfile_puts(file, "third\n");
  sysfile_close(&file);
  EXPECT_EQ(read_through(kind), "first\nsecond\nthird\n");
  file = open(0, 1, 0, kind);
  sysfile_puts(file, "new\n");
  sysfile_close(&file);
  EXPECT_EQ(read_through(kind), "new\n") << "writing truncates";
}

TEST_P(RoundTrip, RewindReadsTheSameAgain) {
  const int32_t kind = GetParam();
  const std::string data = pattern_text(kCap + 5000, 99);
  SysFile* file = open(0, 1, 0, kind);
  sysfile_write(file, data.size(), data.data());
  sysfile_close(&file);
  file = open(1, 0, 0, kind);
  std::string first(data.size(), '\0');
  int32_t status = 0;
  sysfile_read_items(file, first.data(), 1, first.size(), &status);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(first == data);
  EXPECT_EQ(sysfile_rewind(file), SYSFILE_OK);
  std::string again(data.size(), '\0');
  sysfile_read_items(file, again.data(), data.size(), 1, &status);
  EXPECT_TRUE(again == data);
  sysfile_close(&file);
}

INSTANTIATE_TEST_SUITE_P(Kinds, RoundTrip,
                         ::testing::Values(SYSFILE_PLAIN, SYSFILE_GZIP, SYSFILE_ZSTD, 7),
                         [](const ::testing::TestParamInfo<int32_t>& kind) {
                           return kind.param == SYSFILE_GZIP   ? std::string("gzip")
                                  : kind.param == SYSFILE_ZSTD ? std::string("zstd")
                                  : kind.param == 0            ? std::string("plain")
                                                               : std::string("other_is_plain");
                         });

TEST_F(OpenTest, GzipLevelSelectsTheCompression) {
  // Level -3 is stored (0): pseudo-random letters hardly shrink; 12 is 9.
  const std::string data = pattern_text(200000, 4);
  SysFile* file = open(0, 1, 0, SYSFILE_GZIP, 0, -3);
  sysfile_write(file, data.size(), data.data());
  sysfile_close(&file);
  const size_t stored = read_bytes(path_).size();
  EXPECT_GT(stored, data.size());
  file = open(0, 1, 0, SYSFILE_GZIP, 0, 12);
  sysfile_write(file, data.size(), data.data());
  sysfile_close(&file);
  EXPECT_LT(read_bytes(path_).size(), data.size() * 3 / 4);
  EXPECT_TRUE(read_through(SYSFILE_GZIP) == data);
}

TEST_F(OpenTest, ZstdWritesOneFrameAtLevelThreeWhateverTheLevel) {
  const std::string data = pattern_text(300000, 8);
  SysFile* file = open(0, 1, 0, SYSFILE_ZSTD, 0, 19);
  sysfile_write(file, data.size(), data.data());
  sysfile_close(&file);
  const std::string frame = read_bytes(path_);
  EXPECT_EQ(ZSTD_findFrameCompressedSize(frame.data(), frame.size()), frame.size());
  const std::string direct = files_test::zstd_stream_frame(data, 3);
  EXPECT_TRUE(frame == direct);
}

TEST_F(OpenTest, DamagedCompressedFilesEndTheReading) {
  const std::string data = pattern_text(2 * kCap, 21);
  for (int32_t kind : {SYSFILE_GZIP, SYSFILE_ZSTD}) {
    SysFile* file = open(0, 1, 0, kind);
    sysfile_write(file, data.size(), data.data());
    sysfile_close(&file);
    const std::string whole = read_bytes(path_);
    std::string flipped = whole;
    for (size_t i = whole.size() / 2; i < whole.size() / 2 + 32; ++i) flipped[i] ^= 0x5A;
    for (const std::string& damaged : {whole.substr(0, whole.size() / 2), flipped,
                                       whole.substr(0, 5)}) {
      ASSERT_TRUE(write_bytes(path_, damaged));
      file = open(1, 0, 0, kind);
      std::string line(1000, '\0');
      int32_t status = 0;
      uint64_t length = 0;
      uint64_t lines = 0;
      while (status == 0) {
        sysfile_getline(file, line.size(), &length, line.data(), &status);
        ++lines;
      }
      EXPECT_EQ(status, SYSFILE_ERR_EOF);
      EXPECT_LT(lines, data.size());
      sysfile_rewind(file);
      status = 0;
      std::string buffer(kCap, '\0');
      uint64_t total = 0;
      while (status == 0) total += sysfile_read(file, buffer.data(), buffer.size(), &status);
      EXPECT_EQ(status, SYSFILE_ERR_EOF);
      EXPECT_LE(total, data.size() + 2 * kCap);
      sysfile_close(&file);
    }
  }
}

// Every allocation sysfile_open makes, failing in turn: no block stays
// behind, and the status says memory.
TEST(SysFileMemory, EveryFailingAllocationOfOpenLeavesNothing) {
  const std::string path = "sysfile_memory.dat";
  for (int32_t kind : {SYSFILE_PLAIN, SYSFILE_GZIP, SYSFILE_ZSTD}) {
    for (int32_t read : {0, 1}) {
      if (read != 0) {
        ASSERT_TRUE(write_bytes(path, ""));
      }
      bool opened = false;
      for (int fail = 1; !opened && fail < 20; ++fail) {
        hostkit_test::CountingAllocator counting;
        SysEnv* env = counting.create_env();
        ASSERT_NE(env, nullptr);
        const int64_t before = counting.live;
        counting.fail_at = counting.allocating_calls + fail;
        SysFile* file = nullptr;
        int32_t status = 0;
        sysfile_open(env, path.c_str(), 0, read, read == 0 ? 1 : 0, 0, kind, 6, &file, &status);
        opened = status == 0;
        if (!opened) {
          EXPECT_EQ(status, SYSFILE_ERR_MEMORY) << kind << " fail " << fail;
        }
        sysfile_close(&file);
        EXPECT_EQ(counting.live, before) << "kind " << kind << " read " << read << " fail " << fail;
        EXPECT_EQ(sysenv_destroy(&env), 0);
      }
      EXPECT_TRUE(opened);
    }
  }
  std::remove(path.c_str());
}

}  // namespace
