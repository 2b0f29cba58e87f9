// The zstd backend on its own: frames checked with the library's one-shot
// decoder (a path apart from the streaming code under test), buffer sizes,
// level clamping, partial reads, rewind, and damaged input.
#include <gtest/gtest.h>
#include <zstd.h>

#include <string>

#include "files_test_util.h"
#include "syszstd_internal.h"
#include "test_support.h"

namespace {

using files_test::pattern_text;
using files_test::read_bytes;
using files_test::zstd_stream_frame;

std::string one_shot_decode(const std::string& frame, size_t expected_size) {
  std::string out(expected_size + 16, '\0');
  const size_t n = ZSTD_decompress(out.data(), out.size(), frame.data(), frame.size());
  if (ZSTD_isError(n)) return std::string("<error: ") + ZSTD_getErrorName(n) + ">";
  out.resize(n);
  return out;
}

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

TEST_F(ZstdStreamTest, WriterMakesOneFrameThatTheLibraryDecodes) {
  // Pieces that straddle the out buffer size in different ways; no data at
  // all still ends its frame.
  const std::string data = pattern_text(700000);
  for (size_t piece : {size_t{1000}, size_t{131591}, data.size()}) {
    for (const std::string& d : {std::string(), data}) {
      const std::string frame = write_frame(d, 3, piece);
      ASSERT_FALSE(frame.empty());
      EXPECT_EQ(ZSTD_findFrameCompressedSize(frame.data(), frame.size()), frame.size());
      EXPECT_TRUE(one_shot_decode(frame, d.size()) == d) << piece;
    }
  }
}

TEST_F(ZstdStreamTest, LevelsAreClampedToTheLibrarysRange) {
  const std::string data = pattern_text(300000, 7);
  // The clamping is only visible if level 1 makes another frame than 3,
  // which level 0 would mean to the library.
  ASSERT_FALSE(zstd_stream_frame(data, 1) == zstd_stream_frame(data, 3));
  const int32_t cases[][2] = {{0, 1}, {-5, 1}, {23, ZSTD_maxCLevel()}, {3, 3}};
  for (const auto& c : cases) {
    EXPECT_TRUE(write_frame(data, c[0], data.size()) == zstd_stream_frame(data, c[1])) << c[0];
  }
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

TEST_F(ZstdStreamTest, DamagedInputEndsTheReadingAndIsReported) {
  const std::string data = pattern_text(600000, 5);
  const std::string frame = zstd_stream_frame(data, 3);
  // Cut inside the header, in the middle, just before the end; and bytes
  // that aren't zstd at all.
  for (const std::string& damaged : {frame.substr(0, 3), frame.substr(0, 20),
                                     frame.substr(0, frame.size() / 2),
                                     frame.substr(0, frame.size() - 1), std::string("plain\n")}) {
    ZstdStream* z = open_reader(damaged);
    const std::string got = read_all(z, 100000);
    EXPECT_TRUE(got == data.substr(0, got.size())) << "what comes out is the true beginning";
    EXPECT_EQ(syszstd_failed(z), 1) << damaged.size();
    syszstd_close(z);
  }
  // Overwritten bytes in the middle of a checksum-free frame may decode to
  // garbage or stop with an error, but the reading must end.
  std::string broken = frame;
  for (size_t i = broken.size() / 3; i < broken.size() / 3 + 64; ++i) broken[i] = '\xFF';
  ZstdStream* z = open_reader(broken);
  EXPECT_LE(read_all(z, 100000).size(), data.size() + ZSTD_BLOCKSIZE_MAX);
  syszstd_close(z);
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
  syszstd_close(nullptr);
}

}  // namespace
