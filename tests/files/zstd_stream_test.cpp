// The zstd backend on its own: its frames against the library's streaming
// interface used directly, its buffer sizes, level clamping, partial reads
// over several frames, and rewind. (Damaged input: interop_test.cpp.)
#include <gtest/gtest.h>
#include <zstd.h>

#include <string>

#include "files_test_util.h"
#include "syszstd_internal.h"

namespace {

using files_test::pattern_text;
using files_test::read_bytes;
using files_test::zstd_stream_frame;

class ZstdStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(env_ = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr), nullptr);
    path_ = std::string("zstd_stream_") +
            ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".zst";
  }
  void TearDown() override {
    std::remove(path_.c_str());
    EXPECT_EQ(sysenv_destroy(&env_), 0) << "every block released";
  }
  std::string write_frame(const std::string& data, int32_t level, size_t piece) {
    ZstdStream* z = syszstd_create(env_, std::fopen(path_.c_str(), "wb"), level, 0);
    EXPECT_NE(z, nullptr);
    EXPECT_EQ(z->out_capacity, ZSTD_CStreamOutSize()) << "the library's recommendation";
    for (size_t at = 0; at < data.size(); at += piece) {
      const size_t n = std::min(piece, data.size() - at);
      EXPECT_EQ(syszstd_write(z, data.data() + at, n), n);
    }
    EXPECT_EQ(syszstd_rewind(z), -1) << "a writer can't rewind";
    syszstd_close(z);
    return read_bytes(path_);
  }
  ZstdStream* open_reader(const std::string& file_content) {
    EXPECT_TRUE(files_test::write_bytes(path_, file_content));
    ZstdStream* z = syszstd_create(env_, std::fopen(path_.c_str(), "rb"), 0, 1);
    EXPECT_NE(z, nullptr);
    EXPECT_EQ(z->in_capacity, ZSTD_DStreamInSize()) << "the library's recommendation";
    EXPECT_EQ(z->out_capacity, ZSTD_DStreamOutSize());
    return z;
  }
  // Reads to the end in requests of `piece` bytes.
  static std::string read_all(ZstdStream* z, size_t piece) {
    std::string out, buffer(piece, '\0');
    for (uint64_t n = piece; n == piece; out.append(buffer.data(), n)) {
      n = syszstd_read(z, buffer.data(), piece);
    }
    return out;
  }
  SysEnv* env_ = nullptr;
  std::string path_;
};

// The frames are the library's own streaming frames at the clamped level,
// whatever the pieces (which straddle the out buffer size in different
// ways); no data at all still makes a whole frame.
TEST_F(ZstdStreamTest, FramesAreTheLibrarysAtTheClampedLevel) {
  const std::string data = pattern_text(300000, 7);
  // The clamping is only visible if level 1 makes another frame than 3,
  // which level 0 would mean to the library.
  ASSERT_FALSE(zstd_stream_frame(data, 1) == zstd_stream_frame(data, 3));
  const struct {
    int32_t level, clamped;
    size_t piece;
  } cases[] = {{0, 1, 1000}, {-5, 1, data.size()}, {23, ZSTD_maxCLevel(), 131591}, {3, 3, 65536}};
  for (const auto& c : cases) {
    EXPECT_TRUE(write_frame(data, c.level, c.piece) == zstd_stream_frame(data, c.clamped))
        << c.level;
  }
  EXPECT_TRUE(write_frame("", 3, 1) == zstd_stream_frame("", 3));
}

TEST_F(ZstdStreamTest, PartialReadsConcatenatedFramesAndRewind) {
  const std::string a = pattern_text(400000, 11), b = pattern_text(90000, 12);
  // A skippable frame: magic 0x184D2A50, length 4, four bytes of payload.
  const std::string skippable("\x50\x2A\x4D\x18\x04\x00\x00\x00junk", 12);
  ZstdStream* z = open_reader(zstd_stream_frame(a, 3) + skippable + zstd_stream_frame("", 1) +
                              zstd_stream_frame(b, 19));
  // Requests smaller than what is decoded leave the rest for the next one.
  EXPECT_TRUE(read_all(z, 7) == a + b);
  char c;
  EXPECT_EQ(syszstd_read(z, &c, 1), 0u) << "the end stays until rewind";
  EXPECT_EQ(syszstd_rewind(z), 0);
  EXPECT_TRUE(read_all(z, 1 << 20) == a + b);
  EXPECT_EQ(syszstd_failed(z), 0);
  syszstd_close(z);
}

}  // namespace
