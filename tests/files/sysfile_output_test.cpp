// The output side of the file object over a recording stream: the append
// step at the buffer's edges, LF to CR LF with the pair split at the end,
// failures that keep the bytes, and the print operations.
#include <gtest/gtest.h>

#include <string>

#include "fake_stream.h"
#include "test_support.h"

namespace {

using files_test::FakeStream;
using files_test::fake_file;

constexpr uint64_t kCap = SYSFILE_BUFFER_SIZE;

class OutputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = counting_.create_env();
    ASSERT_NE(env_, nullptr);
  }
  void TearDown() override {
    sysfile_close(&file_);
    EXPECT_EQ(sysenv_destroy(&env_), 0);
    EXPECT_EQ(counting_.live, 0);
  }
  SysFile* open(int32_t text) { return file_ = fake_file(env_, &fake_, true, text); }
  SysFileState* state() { return file_->state; }
  // Fills the buffer with `n` letters (no LF), which stay in the buffer.
  void fill(uint64_t n) {
    const std::string letters(n, 'x');
    ASSERT_EQ(sysfile_write(file_, n, letters.data()), SYSFILE_OK);
    ASSERT_EQ(state()->count, n);
    ASSERT_TRUE(fake_.writes.empty());
  }

  hostkit_test::CountingAllocator counting_;
  SysEnv* env_ = nullptr;
  SysFile* file_ = nullptr;
  FakeStream fake_;
};

TEST_F(OutputTest, AByteAtAFullBufferDrainsItAndGoesDirectly) {
  open(0);
  fill(kCap - 1);
  // The last free byte is stored: the buffer may stand exactly full.
  EXPECT_EQ(sysfile_putc(file_, 'y'), SYSFILE_OK);
  EXPECT_EQ(state()->count, kCap);
  EXPECT_TRUE(fake_.writes.empty());
  // The next one finds no room: drain the whole buffer, then the byte alone.
  EXPECT_EQ(sysfile_putc(file_, 'z'), SYSFILE_OK);
  EXPECT_EQ(fake_.writes, (std::vector<uint64_t>{kCap, 1}));
  EXPECT_EQ(state()->count, 0u);
  EXPECT_TRUE(fake_.accepted == std::string(kCap - 1, 'x') + "yz");
  EXPECT_EQ(fake_.flushes, 0) << "draining is not flushing";
}

TEST_F(OutputTest, LineFeedAtTheLastByteSplitsTheCrLfPair) {
  open(1);
  fill(kCap - 1);
  // CR takes the last byte and leaves with the buffer; LF follows directly.
  EXPECT_EQ(sysfile_putc(file_, '\n'), SYSFILE_OK);
  EXPECT_EQ(fake_.writes, (std::vector<uint64_t>{kCap, 1}));
  EXPECT_EQ(state()->count, 0u);
  EXPECT_EQ(fake_.accepted.substr(kCap - 2), "x\r\n");
}

TEST_F(OutputTest, LineFeedWithTwoBytesLeftStoresBoth) {
  open(1);
  fill(kCap - 2);
  EXPECT_EQ(sysfile_write(file_, 1, "\n"), SYSFILE_OK);
  EXPECT_TRUE(fake_.writes.empty());
  EXPECT_EQ(state()->count, kCap);
  EXPECT_EQ(state()->buffer[kCap - 2], '\r');
  EXPECT_EQ(state()->buffer[kCap - 1], '\n');
}

TEST_F(OutputTest, DataOfExactlyTheRoomLeftDrainsWithAnEmptyDirectWrite) {
  open(0);
  fill(100);
  const std::string rest(kCap - 100, 'r');
  EXPECT_EQ(sysfile_write(file_, rest.size(), rest.data()), SYSFILE_OK);
  EXPECT_EQ(fake_.writes, (std::vector<uint64_t>{kCap, 0}));
  EXPECT_EQ(state()->count, 0u);
}

TEST_F(OutputTest, DataLongerThanTheRoomGoesOutInOneDirectCall) {
  open(0);
  fill(100);
  // Three buffers' worth: the buffer is topped up and drained, the rest is
  // one call however long, never chunked through the buffer.
  const std::string big(3 * kCap, 'b');
  sysfile_write(file_, big.size(), big.data());
  EXPECT_EQ(fake_.writes, (std::vector<uint64_t>{kCap, 2 * kCap + 100}));
  EXPECT_TRUE(fake_.accepted == std::string(100, 'x') + big);
  EXPECT_EQ(state()->count, 0u);
}

TEST_F(OutputTest, TextModeTranslatesEveryLineFeedAndNothingElse) {
  open(1);
  // Existing CR LF becomes CR CR LF: CR bytes aren't looked at.
  const char data[] = "ab\ncd\r\n\n\0z\n";  // with a NUL byte inside
  EXPECT_EQ(sysfile_write(file_, sizeof data - 1, data), SYSFILE_OK);
  EXPECT_EQ(sysfile_puts(file_, "p\nq"), SYSFILE_OK);
  int32_t status = 0;
  sysfile_newline(file_, &status);
  sysfile_puts_raw(file_, "raw\n", &status);
  sysfile_puts_checked(file_, "c\n", &status);
  sysfile_write_items(file_, "12\n45\n", 3, 2, &status);
  EXPECT_EQ(status, SYSFILE_OK);
  EXPECT_EQ(sysfile_flush(file_), SYSFILE_OK);
  EXPECT_EQ(fake_.accepted,
            std::string("ab\r\ncd\r\r\n\r\n\0z\r\n", 15) + "p\r\nq" + "\r\n" + "raw\n" + "c\r\n" +
                "12\n45\n");
  EXPECT_EQ(fake_.flushes, 1);
}

TEST_F(OutputTest, BinaryModeLeavesLineFeedsAlone) {
  open(0);
  sysfile_puts(file_, "a\nb\n");
  sysfile_putc(file_, '\n');
  sysfile_flush(file_);
  EXPECT_EQ(fake_.accepted, "a\nb\n\n");
}

TEST_F(OutputTest, PutsStopsAtNulAndEmptyOutputTouchesNothing) {
  open(1);
  EXPECT_EQ(sysfile_puts(file_, "ab\0cd"), SYSFILE_OK);
  EXPECT_EQ(state()->count, 2u);
  // Nothing to write returns at once, even at a full buffer (no drain).
  const std::string most(kCap - 3, 'm');
  sysfile_write(file_, most.size(), most.data());
  sysfile_putc(file_, 'm');
  ASSERT_EQ(state()->count, kCap);
  EXPECT_EQ(sysfile_puts(file_, ""), SYSFILE_OK);
  EXPECT_EQ(sysfile_puts(file_, nullptr), SYSFILE_OK);
  EXPECT_EQ(sysfile_write(file_, 0, "x"), SYSFILE_OK);
  EXPECT_EQ(sysfile_printf(file_, "%s", ""), SYSFILE_OK);
  int32_t status = 0;
  sysfile_puts_checked(file_, "", &status);
  EXPECT_TRUE(fake_.writes.empty());
  EXPECT_EQ(state()->count, kCap);
}

TEST_F(OutputTest, AShortDrainKeepsTheBytesForALaterFlush) {
  open(0);
  fill(kCap - 1);
  fake_.accept_limit = 10;
  // The drain falls short: status 5, the count doesn't move, and the data
  // after it ("tail") is not written at all.
  EXPECT_EQ(sysfile_write(file_, 5, "ztail"), SYSFILE_ERR_WRITE);
  EXPECT_EQ(state()->count, kCap);
  EXPECT_EQ(fake_.writes, (std::vector<uint64_t>{kCap}));
  EXPECT_EQ(sysfile_flush(file_), SYSFILE_ERR_WRITE);
  EXPECT_EQ(state()->count, kCap);
  EXPECT_EQ(fake_.flushes, 0);
  fake_.accept_limit = -1;
  fake_.accepted.clear();
  EXPECT_EQ(sysfile_flush(file_), SYSFILE_OK);
  EXPECT_EQ(state()->count, 0u);
  EXPECT_TRUE(fake_.accepted == std::string(kCap - 1, 'x') + "z");
  EXPECT_EQ(fake_.flushes, 1);
}

TEST_F(OutputTest, AShortDirectWriteIsStatusFive) {
  open(0);
  fake_.accept_limit = static_cast<int64_t>(kCap);
  const std::string big(3 * kCap, 'd');
  EXPECT_EQ(sysfile_write(file_, big.size(), big.data()), SYSFILE_ERR_WRITE);
  EXPECT_EQ(state()->count, 0u) << "the drain itself was complete";
}

TEST_F(OutputTest, InOutStatusStopsEveryChainedCall) {
  open(1);
  int32_t status = SYSFILE_ERR_WRITE;
  sysfile_puts_checked(file_, "a", &status);
  sysfile_puts_raw(file_, "b", &status);
  sysfile_newline(file_, &status);
  sysfile_write_items(file_, "c", 1, 1, &status);
  EXPECT_EQ(status, SYSFILE_ERR_WRITE);
  EXPECT_EQ(state()->count, 0u);
  // The first failure in a chain stops the rest.
  fill(kCap - 1);
  sysfile_putc(file_, 'x');
  fake_.accept_limit = 0;
  status = 0;
  sysfile_puts_checked(file_, "a", &status);
  EXPECT_EQ(status, SYSFILE_ERR_WRITE);
  sysfile_puts_checked(file_, "b", &status);
  EXPECT_EQ(fake_.writes.size(), 1u);
  fake_.accept_limit = -1;
}

TEST_F(OutputTest, PrintFormatsTranslatesAndWritesLongTextWhole) {
  open(1);
  EXPECT_EQ(sysfile_printf(file_, "%d-%s\n", 42, "x"), SYSFILE_OK);
  // Longer than the 2048 bytes on the stack: it all arrives.
  const std::string long_text(5000, 'L');
  EXPECT_EQ(sysfile_printf(file_, "<%s>\n", long_text.c_str()), SYSFILE_OK);
  // Exactly 2047 characters still fits the stack buffer with its terminator.
  const std::string edge(2047, 'E');
  EXPECT_EQ(sysfile_printf(file_, "%s", edge.c_str()), SYSFILE_OK);
  sysfile_flush(file_);
  EXPECT_EQ(fake_.accepted, "42-x\r\n<" + long_text + ">\r\n" + edge);
}

TEST_F(OutputTest, LongPrintWithoutMemoryWritesNothing) {
  open(0);
  const std::string long_text(3000, 'L');
  counting_.fail_at = counting_.allocating_calls + 1;
  EXPECT_EQ(sysfile_printf(file_, "%s", long_text.c_str()), SYSFILE_ERR_MEMORY);
  EXPECT_EQ(state()->count, 0u);
}

TEST_F(OutputTest, WriteItemsMultipliesAndRefusesAnOverflow) {
  open(0);
  int32_t status = 0;
  sysfile_write_items(file_, "abcdef", 2, 3, &status);
  EXPECT_EQ(status, SYSFILE_OK);
  EXPECT_EQ(state()->count, 6u);
  sysfile_write_items(file_, "abcdef", UINT64_MAX / 2, 3, &status);
  EXPECT_EQ(status, SYSFILE_ERR_ARGUMENT);
  EXPECT_EQ(state()->count, 6u);
}

TEST_F(OutputTest, CloseDrainsAndClosesTheStream) {
  open(0);
  sysfile_puts(file_, "last words");
  EXPECT_EQ(sysfile_close(&file_), 0);
  EXPECT_EQ(file_, nullptr);
  EXPECT_EQ(fake_.accepted, "last words");
  EXPECT_EQ(fake_.closes, 1);
  EXPECT_EQ(sysfile_close(&file_), 0) << "a null handle is no error";
}

TEST_F(OutputTest, ReaderHandlesRefuseOutputAndWritersRefuseRewind) {
  fake_.input = "data";
  file_ = fake_file(env_, &fake_, false, 1);
  EXPECT_EQ(sysfile_putc(file_, 'a'), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_puts(file_, "a"), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_printf(file_, "%d", 1), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_flush(file_), SYSFILE_OK) << "nothing to flush on a reader";
  EXPECT_EQ(state()->count, 0u);
  sysfile_close(&file_);
  open(0);
  sysfile_puts(file_, "kept");
  EXPECT_EQ(sysfile_rewind(file_), SYSFILE_ERR_NO_REWIND);
  EXPECT_EQ(state()->count, 4u);
  EXPECT_EQ(sysfile_rewind(nullptr), SYSFILE_ERR_NO_REWIND);
  EXPECT_EQ(sysfile_flush(nullptr), SYSFILE_OK);
}

}  // namespace
