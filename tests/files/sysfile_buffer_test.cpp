// The buffer of the file object over a recording stream. Output: the append
// step at the buffer's edges, LF to CR LF with the pair split at the end,
// failures that keep the bytes, the print operations. Input: the line
// readers' room and end stripping, refills inside a line, the byte readers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "files_test_util.h"
#include "test_support.h"

namespace {

using files_test::FakeStream;
using files_test::with_crlf;
using Lines = std::vector<std::string>;
using Sizes = std::vector<uint64_t>;

constexpr uint64_t kCap = SYSFILE_BUFFER_SIZE;

class BufferTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(env_ = counting_.create_env(), nullptr); }
  void TearDown() override {
    sysfile_close(&file_);
    EXPECT_EQ(sysenv_destroy(&env_), 0);
    EXPECT_EQ(counting_.live, 0);
  }
  SysFileState* attach(bool writer, int32_t text) {
    sysfile_close(&file_);
    fake_ = FakeStream();
    return (file_ = files_test::fake_file(env_, &fake_, writer, text))->state;
  }
  SysFileState* writer(int32_t text, uint64_t letters = 0) {
    attach(true, text);
    const std::string fill(letters, 'x');  // no LF: it all stays in the buffer
    EXPECT_EQ(sysfile_write(file_, letters, fill.data()), SYSFILE_OK);
    EXPECT_TRUE(fake_.writes.empty());
    return file_->state;
  }
  SysFileState* reader(const std::string& input, uint64_t max_read = UINT64_MAX) {
    attach(false, 0);
    fake_.input = input;
    fake_.max_read = max_read;
    return file_->state;
  }
  // Every line until status 4, through getline (gets = false) or gets, with
  // a room of `capacity`; nothing may land past the bytes that the line
  // took (its end of up to two bytes, stripped in place) and the terminator.
  Lines lines(uint64_t capacity, bool gets = false) {
    Lines out;
    std::string buffer(capacity + 1, '\x7F');
    for (;;) {
      int32_t status = 0;
      uint64_t length = 99;
      buffer.assign(capacity + 1, '\x7F');
      gets ? sysfile_gets(file_, capacity, buffer.data(), &status)
           : sysfile_getline(file_, capacity, &length, buffer.data(), &status);
      if (gets) length = std::strlen(buffer.c_str());
      EXPECT_EQ(buffer.find_first_not_of('\x7F', length + 3), std::string::npos)
          << "a byte written past line " << out.size();
      if (status == SYSFILE_ERR_EOF) {
        EXPECT_EQ(length, 0u);
        EXPECT_EQ(buffer[0], '\0');
        return out;
      }
      EXPECT_EQ(status, 0);
      EXPECT_EQ(buffer[length], '\0');
      out.emplace_back(buffer.data(), length);
    }
  }

  hostkit_test::CountingAllocator counting_;
  SysEnv* env_ = nullptr;
  SysFile* file_ = nullptr;
  FakeStream fake_;
};

// The append step: after `letters` bytes in the buffer, `data` goes in by
// sysfile_write, or byte by byte by sysfile_putc; then the stream must have
// seen exactly `writes`, `count` bytes wait, and a flush brings the rest.
TEST_F(BufferTest, AppendStepAtTheBufferEdges) {
  const std::string three(3 * kCap, 'b'), rest(kCap - 100, 'r');
  const struct {
    const char* why;
    int32_t text;
    uint64_t letters;
    std::string data;
    bool bytewise;
    Sizes writes;
    uint64_t count;
  } cases[] = {
      {"the last free byte is stored, the next drains and goes directly", 0, kCap - 1, "yz", true,
       {kCap, 1}, 0},
      {"LF at capacity-1: CR leaves with the buffer, LF follows directly", 1, kCap - 1, "\n", true,
       {kCap, 1}, 0},
      {"LF with two bytes left: the pair fills the buffer", 1, kCap - 2, "\n", false, {}, kCap},
      {"exactly the room left: drain, then an empty direct write", 0, 100, rest, false, {kCap, 0}, 0},
      {"longer than the room: top up, drain, the rest in one call", 0, 100, three, false,
       {kCap, 2 * kCap + 100}, 0},
      {"nothing to write at a full buffer touches nothing", 0, kCap - 1, "y", true, {}, kCap},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    SysFileState* s = writer(c.text, c.letters);
    if (c.bytewise) {
      for (char ch : c.data) ASSERT_EQ(sysfile_putc(file_, ch), SYSFILE_OK);
    } else {
      ASSERT_EQ(sysfile_write(file_, c.data.size(), c.data.data()), SYSFILE_OK);
    }
    int32_t status = 0;
    if (s->count == kCap) {  // every empty output returns before any drain
      EXPECT_EQ(sysfile_puts(file_, "") | sysfile_puts(file_, nullptr) |
                    sysfile_write(file_, 0, "x") | sysfile_printf(file_, "%s", ""),
                SYSFILE_OK);
      sysfile_puts_checked(file_, "", &status);
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(fake_.writes, c.writes);
    EXPECT_EQ(s->count, c.count);
    EXPECT_TRUE(c.text == 0 || c.count < kCap || s->buffer[kCap - 2] == '\r') << "the pair inside";
    EXPECT_EQ(fake_.flushes, 0) << "draining is not flushing";
    EXPECT_EQ(sysfile_flush(file_), SYSFILE_OK);
    EXPECT_EQ(fake_.flushes, 1);
    const std::string all = std::string(c.letters, 'x') + c.data;
    EXPECT_TRUE(fake_.accepted == (c.text != 0 ? with_crlf(all) : all));
  }
}

TEST_F(BufferTest, TextModeTranslatesLineFeedsExceptInRawOutput) {
  const char data[] = "ab\ncd\r\n\n\0z\n";  // with a NUL inside
  const std::string bytes(data, sizeof data - 1);
  for (int32_t text : {0, 1}) {
    writer(text);
    EXPECT_EQ(sysfile_write(file_, bytes.size(), data), SYSFILE_OK);
    EXPECT_EQ(sysfile_puts(file_, "p\nq\0never"), SYSFILE_OK);
    int32_t status = 0;
    sysfile_newline(file_, &status);
    sysfile_puts_raw(file_, "raw\n", &status);
    sysfile_puts_checked(file_, "c\n", &status);
    sysfile_write_items(file_, "12\n45\n", 3, 2, &status);
    EXPECT_EQ(sysfile_printf(file_, "%d-%s\n", 42, "x"), SYSFILE_OK);
    EXPECT_EQ(status, SYSFILE_OK);
    sysfile_close(&file_);
    const auto t = [&](const std::string& s) { return text != 0 ? with_crlf(s) : s; };
    EXPECT_EQ(fake_.accepted, t(bytes + "p\nq\n") + "raw\n" + t("c\n") + "12\n45\n" + t("42-x\n"));
    EXPECT_EQ(fake_.closes, 1);
  }
}

TEST_F(BufferTest, PrintBeyondItsStackBufferWritesAllOrNothing) {
  writer(1);
  // 5000 bytes are more than the 2048 on the stack; 2047 still fit with the NUL.
  const std::string long_text(5000, 'L'), edge(2047, 'E');
  EXPECT_EQ(sysfile_printf(file_, "<%s>\n", long_text.c_str()), SYSFILE_OK);
  EXPECT_EQ(sysfile_printf(file_, "%s", edge.c_str()), SYSFILE_OK);
  counting_.fail_at = counting_.allocating_calls + 1;
  EXPECT_EQ(sysfile_printf(file_, "%s", long_text.c_str()), SYSFILE_ERR_MEMORY);
  sysfile_flush(file_);
  EXPECT_EQ(fake_.accepted, "<" + long_text + ">\r\n" + edge);
}

TEST_F(BufferTest, ShortWritesAreStatusFiveAndKeepTheBytes) {
  SysFileState* s = writer(0, kCap - 1);
  fake_.accept_limit = 10;
  // The drain falls short: the count stays, "tail" is not written at all.
  EXPECT_EQ(sysfile_write(file_, 5, "ztail"), SYSFILE_ERR_WRITE);
  EXPECT_EQ(s->count, kCap);
  EXPECT_EQ(sysfile_flush(file_), SYSFILE_ERR_WRITE);
  EXPECT_EQ(s->count, kCap);
  EXPECT_EQ(fake_.writes, (Sizes{kCap, kCap}));
  EXPECT_EQ(fake_.flushes, 0);
  // In a chain the first failure stops the rest.
  int32_t status = 0;
  sysfile_puts_checked(file_, "a", &status);
  sysfile_puts_checked(file_, "b", &status);
  sysfile_newline(file_, &status);
  EXPECT_EQ(status, SYSFILE_ERR_WRITE);
  EXPECT_EQ(fake_.writes.size(), 3u);
  fake_.accept_limit = -1;
  fake_.accepted.clear();
  EXPECT_EQ(sysfile_flush(file_), SYSFILE_OK);
  EXPECT_EQ(s->count, 0u);
  EXPECT_TRUE(fake_.accepted == std::string(kCap - 1, 'x') + "z");
  // A short direct write after a complete drain.
  fake_.accept_limit = static_cast<int64_t>(kCap);
  const std::string big(3 * kCap, 'd');
  EXPECT_EQ(sysfile_write(file_, big.size(), big.data()), SYSFILE_ERR_WRITE);
  EXPECT_EQ(s->count, 0u);
  // The stream took every byte but could not pass them on.
  fake_.fail_flush = true;
  EXPECT_EQ(sysfile_flush(file_), SYSFILE_ERR_WRITE);
}

TEST_F(BufferTest, EachDirectionRefusesTheOthersOperations) {
  reader("data");
  EXPECT_EQ(sysfile_putc(file_, 'a'), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_puts(file_, "a"), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_printf(file_, "%d", 1), SYSFILE_ERR_WRITE);
  EXPECT_EQ(sysfile_flush(file_), SYSFILE_OK) << "nothing to flush on a reader";
  EXPECT_EQ(file_->state->count, 0u);
  writer(0);
  sysfile_puts(file_, "kept");
  int32_t status = 0;
  sysfile_write_items(file_, "abcdef", UINT64_MAX / 2, 3, &status);  // the size overflows
  EXPECT_EQ(status, SYSFILE_ERR_ARGUMENT);
  EXPECT_EQ(sysfile_rewind(file_), SYSFILE_ERR_NO_REWIND);
  EXPECT_EQ(sysfile_rewind(nullptr), SYSFILE_ERR_NO_REWIND);
  char buffer[8];
  int32_t statuses[4] = {0, 0, 0, 0};
  uint64_t length = 0;
  sysfile_gets(file_, sizeof buffer, buffer, &statuses[0]);
  sysfile_getline(file_, sizeof buffer, &length, buffer, &statuses[1]);
  EXPECT_EQ(sysfile_read(file_, buffer, 1, &statuses[2]), 0u);
  sysfile_read_items(file_, buffer, 1, 1, &statuses[3]);
  for (int32_t each : statuses) EXPECT_EQ(each, SYSFILE_ERR_NOT_READABLE);
  EXPECT_EQ(file_->state->count, 4u);
  EXPECT_EQ(sysfile_close(&file_), 0);
  EXPECT_EQ(fake_.accepted, "kept") << "close drains";
  EXPECT_EQ(sysfile_close(&file_), 0) << "a null handle is no error";
}

TEST_F(BufferTest, CapacitiesZeroOneAndTwoReadNothing) {
  // 0 touches nothing, 1 is an empty text, and gets with 2 is a lone LF,
  // null handle or not.
  reader("first line\n");
  for (SysFile* f : {file_, static_cast<SysFile*>(nullptr)}) {
    char buffer[6] = "#####";
    int32_t status = 0;
    uint64_t length = 99;
    sysfile_gets(f, 0, buffer, &status);
    sysfile_getline(f, 0, &length, buffer, &status);
    EXPECT_STREQ(buffer, "#####");
    sysfile_gets(f, 2, buffer, &status);
    sysfile_gets(f, 1, buffer + 2, &status);
    sysfile_getline(f, 1, &length, buffer + 3, &status);
    EXPECT_EQ(std::string(buffer, 5), std::string("\n\0\0\0#", 5));
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(fake_.reads, 0);
  char buffer[4];
  int32_t status = 0;
  sysfile_gets(file_, 3, buffer, &status);  // room for one byte
  EXPECT_STREQ(buffer, "f\n");
}

TEST_F(BufferTest, LineEndsStrippedOnceAndLongLinesCutAtTheRoom) {
  // LF, CR LF and a lone CR at the end go; a CR inside a line stays, and of
  // CR CR LF only one CR goes. gets puts one LF back on each piece.
  reader("a\nb\r\nc\rd\n\r\n\r\r\nlast\r");
  EXPECT_EQ(lines(64), (Lines{"a", "b", "c\rd", "", "\r", "last"}));
  EXPECT_EQ(sysfile_rewind(file_), SYSFILE_OK);
  EXPECT_EQ(lines(64, true), (Lines{"a\n", "b\n", "c\rd\n", "\n", "\r\n", "last\n"}));
  // The end stays: a further call says so again.
  int32_t status = 0;
  char buffer[8];
  sysfile_gets(file_, sizeof buffer, buffer, &status);
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
  // getline with capacity 5 has room 4, gets with capacity 6 too; a CR cut
  // off by the room is stripped as a line end as well.
  reader("abcdefgh\nxy\nabc\r\nz");
  EXPECT_EQ(lines(5), (Lines{"abcd", "efgh", "", "xy", "abc", "", "z"}));
  sysfile_rewind(file_);
  EXPECT_EQ(lines(6, true), (Lines{"abcd\n", "efgh\n", "\n", "xy\n", "abc\n", "\n", "z\n"}));
}

TEST_F(BufferTest, LinesOfEveryLengthAroundTheRoom) {
  // Lines of 0 to 40 bytes before their LF, the odd ones with CR LF, read
  // with rooms around 16 and 32: a line longer than the room comes in pieces
  // of the room, the last piece with the rest.
  std::string input;
  for (size_t n = 0; n <= 40; ++n) {
    for (size_t i = 0; i < n; ++i) input += static_cast<char>('a' + (n + i) % 26);
    input += n % 2 == 1 ? "\r\n" : "\n";
  }
  for (uint64_t room : {15u, 16u, 17u, 31u, 32u, 33u, 100u}) {
    Lines want;
    for (size_t n = 0; n <= 40; ++n) {
      std::string line;
      for (size_t i = 0; i < n; ++i) line += static_cast<char>('a' + (n + i) % 26);
      const size_t end = n + (n % 2 == 1 ? 2 : 1);  // bytes with the line end
      size_t at = 0;
      while (end - at > room) {
        want.push_back(line.substr(at, room));
        at += room;
      }
      // The rest is the line's tail with its end, which the reader strips;
      // a CR left alone at the start of the last piece is stripped as well.
      want.push_back(at < n ? line.substr(at) : "");
    }
    reader(input);
    EXPECT_EQ(lines(room + 1), want) << "room " << room;
  }
}

TEST_F(BufferTest, LinesAcrossRefills) {
  // Few bytes per stream read: lines end inside a refill, at its end, and
  // across several.
  for (uint64_t step : {1u, 2u, 3u, 5u, 12u, 13u}) {
    reader("hello world\nsecond\r\n\nx\ny", step);
    EXPECT_EQ(lines(100), (Lines{"hello world", "second", "", "x", "y"})) << step;
  }
  // A line runs over the end of the first 1 MiB refill, and a CR LF is split
  // by it: the CR at index cap - 1, the LF first of the next refill.
  std::string text = std::string(kCap - 10, 'a') + "\nbbbbbbbb\r\ncc";
  ASSERT_EQ(text[kCap - 1], '\r');
  reader(text);
  EXPECT_EQ(lines(kCap + 16), (Lines{std::string(kCap - 10, 'a'), "bbbbbbbb", "cc"}));
  EXPECT_EQ(fake_.reads, 4) << "two refills with data, then two empty ones";
}

TEST_F(BufferTest, ByteReadersStatusRules) {
  reader("0123456789", 3);
  char buffer[16] = {};
  int32_t status = 0;
  EXPECT_EQ(sysfile_read(file_, buffer, 4, &status), 4u);
  EXPECT_EQ(std::string(buffer, 4), "0123");
  EXPECT_EQ(sysfile_read(file_, buffer, 10, &status), 6u);
  EXPECT_EQ(std::string(buffer, 6), "456789");
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
  EXPECT_EQ(sysfile_read(file_, buffer, 1, &status), 0u) << "status already set";
  // Items: a short read is status 3, never 4; nothing asked does nothing.
  reader("abcdefgh");
  status = 0;
  sysfile_read_items(file_, buffer, 3, 2, &status);
  EXPECT_EQ(std::string(buffer, 6), "abcdef");
  sysfile_read_items(file_, buffer, 0, 5, &status);
  EXPECT_EQ(status, 0);
  sysfile_read_items(file_, buffer, 2, 2, &status);
  EXPECT_EQ(status, SYSFILE_ERR_SHORT_READ);
  EXPECT_EQ(std::string(buffer, 2), "gh");
  // A failing stream read (damaged input) is status 10 from then on, also
  // once the stream would deliver again, and never a negative count in the
  // buffer; a rewind reads afresh.
  reader("read anew");
  fake_.fail_reads = true;
  status = 0;
  uint64_t length = 7;
  sysfile_getline(file_, sizeof buffer, &length, buffer, &status);
  EXPECT_EQ(status, SYSFILE_ERR_DATA);
  EXPECT_EQ(length, 0u);
  fake_.fail_reads = false;
  for (int32_t items : {0, 1}) {
    status = 0;
    items ? sysfile_read_items(file_, buffer, 1, 1, &status)
          : (void)sysfile_read(file_, buffer, sizeof buffer, &status);
    EXPECT_EQ(status, SYSFILE_ERR_DATA);
  }
  EXPECT_EQ(fake_.reads, 1);
  EXPECT_EQ(sysfile_rewind(file_), 0);
  status = 0;
  sysfile_getline(file_, sizeof buffer, &length, buffer, &status);
  EXPECT_EQ(std::string(buffer, length), "read anew");
}

}  // namespace
