// The zstd backend on its own: frames checked with the library's one-shot
// decoder (a path apart from the streaming code under test), level clamping,
// partial reads, rewind, and damaged input that must end the reading.
#include <gtest/gtest.h>
#include <zstd.h>

#include <string>

#include "files_test_util.h"
#include "syszstd_internal.h"
#include "test_support.h"

namespace {

using files_test::pattern_text;
using files_test::read_bytes;
using files_test::write_bytes;

std::string one_shot_decode(const std::string& frame, size_t expected_size) {
  std::string out(expected_size + 16, '\0');
  const size_t n = ZSTD_decompress(out.data(), out.size(), frame.data(), frame.size());
  if (ZSTD_isError(n)) return std::string("<error: ") + ZSTD_getErrorName(n) + ">";
  out.resize(n);
  return out;
}

std::string direct_frame(const std::string& data, int level) {
  return files_test::zstd_stream_frame(data, level);
}

class ZstdStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(env_, nullptr);
    path_ = std::string("zstd_stream_") +
            ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".zst";
  }
  void TearDown() override {
    std::remove(path_.c_str());
    EXPECT_EQ(sysenv_destroy(&env_), 0) << "every block released";
  }

  std::string write_frame(const std::string& data, int32_t level, size_t piece) {
    FILE* f = std::fopen(path_.c_str(), "wb");
    ZstdStream* z = syszstd_create(env_, f, level, 0);
    EXPECT_NE(z, nullptr);
    for (size_t at = 0; at < data.size(); at += piece) {
      const size_t n = std::min(piece, data.size() - at);
      EXPECT_EQ(syszstd_write(z, data.data() + at, n), n);
    }
    syszstd_close(z);
    return read_bytes(path_);
  }

  ZstdStream* open_reader(const std::string& file_content) {
    EXPECT_TRUE(write_bytes(path_, file_content));
    FILE* f = std::fopen(path_.c_str(), "rb");
    return syszstd_create(env_, f, 0, 1);
  }

  // Reads to the end in requests of `piece` bytes.
  static std::string read_all(ZstdStream* z, size_t piece) {
    std::string out;
    std::string buffer(piece, '\0');
    for (;;) {
      const uint64_t n = syszstd_read(z, buffer.data(), piece);
      out.append(buffer.data(), n);
      if (n < piece) return out;
    }
  }

  SysEnv* env_ = nullptr;
  std::string path_;
};

TEST_F(ZstdStreamTest, BufferSizesAreTheLibrarysRecommendations) {
  FILE* f = std::fopen(path_.c_str(), "wb");
  ZstdStream* w = syszstd_create(env_, f, 3, 0);
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(w->out_capacity, ZSTD_CStreamOutSize());
  EXPECT_EQ(w->in_capacity, 0u);
  EXPECT_EQ(w->in_buffer, nullptr);
  EXPECT_EQ(w->dstream, nullptr);
  syszstd_close(w);
  f = std::fopen(path_.c_str(), "rb");
  ZstdStream* r = syszstd_create(env_, f, 3, 1);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->in_capacity, ZSTD_DStreamInSize());
  EXPECT_EQ(r->out_capacity, ZSTD_DStreamOutSize());
  EXPECT_EQ(r->cstream, nullptr);
  syszstd_close(r);
}

TEST_F(ZstdStreamTest, WriterMakesOneFrameThatTheLibraryDecodes) {
  // Pieces that straddle the out buffer size in different ways.
  const std::string data = pattern_text(700000);
  for (size_t piece : {size_t{1000}, size_t{131591}, data.size()}) {
    const std::string frame = write_frame(data, 3, piece);
    EXPECT_EQ(ZSTD_findFrameCompressedSize(frame.data(), frame.size()), frame.size())
        << "exactly one frame";
    EXPECT_TRUE(one_shot_decode(frame, data.size()) == data) << piece;
  }
}

TEST_F(ZstdStreamTest, WriterClosedWithoutDataStillEndsItsFrame) {
  const std::string frame = write_frame("", 3, 1);
  ASSERT_FALSE(frame.empty());
  EXPECT_EQ(ZSTD_findFrameCompressedSize(frame.data(), frame.size()), frame.size());
  EXPECT_EQ(one_shot_decode(frame, 0), "");
}

TEST_F(ZstdStreamTest, LevelsAreClampedToTheLibrarysRange) {
  const std::string data = pattern_text(300000, 7);
  // The clamping is only visible if level 1 makes another frame than 3,
  // which level 0 would mean to the library.
  ASSERT_FALSE(direct_frame(data, 1) == direct_frame(data, 3));
  EXPECT_TRUE(write_frame(data, 0, data.size()) == direct_frame(data, 1));
  EXPECT_TRUE(write_frame(data, -5, data.size()) == direct_frame(data, 1));
  EXPECT_TRUE(write_frame(data, 23, data.size()) == direct_frame(data, ZSTD_maxCLevel()));
  EXPECT_TRUE(write_frame(data, 3, data.size()) == direct_frame(data, 3));
}

TEST_F(ZstdStreamTest, PartialReadsKeepTheOrderAndRewindStartsOver) {
  const std::string data = pattern_text(400000, 3);
  ZstdStream* z = open_reader(direct_frame(data, 3));
  ASSERT_NE(z, nullptr);
  // A request smaller than what is decoded leaves the rest for the next one.
  EXPECT_TRUE(read_all(z, 7) == data);
  EXPECT_EQ(syszstd_read(z, nullptr, 0), 0u);
  char c;
  EXPECT_EQ(syszstd_read(z, &c, 1), 0u) << "the end stays until rewind";
  EXPECT_EQ(syszstd_rewind(z), 0);
  EXPECT_TRUE(read_all(z, 1 << 20) == data);
  EXPECT_EQ(syszstd_failed(z), 0);
  syszstd_close(z);
}

TEST_F(ZstdStreamTest, ConcatenatedAndSkippableFramesReadAsOneStream) {
  const std::string a = pattern_text(150000, 11);
  const std::string b = pattern_text(90000, 12);
  // A skippable frame: magic 0x184D2A50, length 4, four bytes of payload.
  const std::string skippable("\x50\x2A\x4D\x18\x04\x00\x00\x00junk", 12);
  ZstdStream* z = open_reader(direct_frame(a, 3) + skippable + direct_frame("", 1) +
                              direct_frame(b, 19));
  ASSERT_NE(z, nullptr);
  EXPECT_TRUE(read_all(z, 65536) == a + b);
  EXPECT_EQ(syszstd_failed(z), 0);
  syszstd_close(z);
}

TEST_F(ZstdStreamTest, EmptyFileIsAnEmptyStream) {
  ZstdStream* z = open_reader("");
  ASSERT_NE(z, nullptr);
  char buffer[16];
  EXPECT_EQ(syszstd_read(z, buffer, sizeof buffer), 0u);
  EXPECT_EQ(syszstd_failed(z), 0);
  syszstd_close(z);
}

TEST_F(ZstdStreamTest, DamagedInputEndsTheReadingAndIsReported) {
  const std::string data = pattern_text(600000, 5);
  const std::string frame = direct_frame(data, 3);
  // Cut at several places, including inside the header and just before the end.
  for (size_t keep : {size_t{3}, size_t{20}, frame.size() / 2, frame.size() - 1}) {
    ZstdStream* z = open_reader(frame.substr(0, keep));
    ASSERT_NE(z, nullptr);
    const std::string got = read_all(z, 100000);
    EXPECT_LE(got.size(), data.size());
    EXPECT_TRUE(got == data.substr(0, got.size())) << "what comes out is the true beginning";
    EXPECT_EQ(syszstd_failed(z), 1) << "cut at " << keep;
    syszstd_close(z);
  }
  // Overwritten bytes in the middle: the checksum-free frame may decode to
  // garbage or stop with an error, but the reading must end.
  std::string broken = frame;
  for (size_t i = broken.size() / 3; i < broken.size() / 3 + 64; ++i) broken[i] = '\xFF';
  ZstdStream* z = open_reader(broken);
  ASSERT_NE(z, nullptr);
  const std::string got = read_all(z, 100000);
  EXPECT_LE(got.size(), data.size() + ZSTD_BLOCKSIZE_MAX);
  syszstd_close(z);
  // Bytes that aren't zstd at all.
  z = open_reader("this is plain text, not a zstd frame\n");
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(read_all(z, 100), "");
  EXPECT_EQ(syszstd_failed(z), 1);
  syszstd_close(z);
}

TEST_F(ZstdStreamTest, RewindOnAWriterIsRefused) {
  FILE* f = std::fopen(path_.c_str(), "wb");
  ZstdStream* z = syszstd_create(env_, f, 3, 0);
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(syszstd_write(z, "abc", 3), 3u);
  EXPECT_EQ(syszstd_rewind(z), -1);
  syszstd_close(z);
  EXPECT_EQ(one_shot_decode(read_bytes(path_), 3), "abc");
  syszstd_close(nullptr);
}

TEST(ZstdStreamMemory, EveryFailingAllocationLeavesNothingBehind) {
  for (int32_t read : {0, 1}) {
    for (int fail = 1;; ++fail) {
      hostkit_test::CountingAllocator counting;
      SysEnv* env = counting.create_env();
      ASSERT_NE(env, nullptr);
      const int64_t before = counting.live;
      counting.fail_at = counting.allocating_calls + fail;
      FILE* f = std::fopen("zstd_stream_memory.zst", read != 0 ? "wb+" : "wb");
      ZstdStream* z = syszstd_create(env, f, 3, read);
      if (z != nullptr) {
        syszstd_close(z);
        EXPECT_EQ(fail, read != 0 ? 4 : 3) << "record and buffers, then success";
        sysenv_destroy(&env);
        break;
      }
      EXPECT_EQ(counting.live, before) << "failing allocation " << fail;
      std::fclose(f);  // the caller keeps the stream when creation fails
      sysenv_destroy(&env);
    }
  }
  std::remove("zstd_stream_memory.zst");
}

}  // namespace
