// The input side over a stream of the test's own: the line readers' room and
// end stripping, refills in the middle of a line, end of input, and the
// status rules of the two byte readers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_stream.h"
#include "files_test_util.h"
#include "test_support.h"

namespace {

using files_test::FakeStream;
using files_test::fake_file;

class InputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(env_, nullptr);
  }
  void TearDown() override {
    sysfile_close(&file_);
    EXPECT_EQ(sysenv_destroy(&env_), 0);
  }
  SysFile* open(const std::string& input, uint64_t max_read = UINT64_MAX) {
    fake_ = FakeStream();
    fake_.input = input;
    fake_.max_read = max_read;
    return file_ = fake_file(env_, &fake_, false, 0);
  }
  // Every getline result until status 4, with the room of `capacity`.
  std::vector<std::string> getlines(uint64_t capacity) {
    std::vector<std::string> lines;
    std::string buffer(capacity + 1, '\x7F');
    for (;;) {
      int32_t status = 0;
      uint64_t length = 99;
      sysfile_getline(file_, capacity, &length, buffer.data(), &status);
      if (status == SYSFILE_ERR_EOF) {
        EXPECT_EQ(length, 0u);
        EXPECT_EQ(buffer[0], '\0');
        return lines;
      }
      EXPECT_EQ(status, 0);
      EXPECT_EQ(buffer[length], '\0');
      EXPECT_EQ(buffer[capacity], '\x7F') << "nothing past the capacity";
      lines.emplace_back(buffer.data(), length);
    }
  }
  std::vector<std::string> gets_all(uint64_t capacity) {
    std::vector<std::string> lines;
    std::string buffer(capacity + 1, '\x7F');
    for (;;) {
      int32_t status = 0;
      sysfile_gets(file_, capacity, buffer.data(), &status);
      if (status == SYSFILE_ERR_EOF) {
        EXPECT_EQ(buffer[0], '\0');
        return lines;
      }
      EXPECT_EQ(status, 0);
      EXPECT_EQ(buffer[capacity], '\x7F');
      lines.emplace_back(buffer.data());
    }
  }

  SysEnv* env_ = nullptr;
  SysFile* file_ = nullptr;
  FakeStream fake_;
};

using Lines = std::vector<std::string>;

TEST_F(InputTest, SmallCapacitiesReadNothing) {
  open("first line\n");
  char buffer[4] = {'#', '#', '#', '#'};
  int32_t status = 0;
  sysfile_gets(file_, 0, buffer, &status);
  EXPECT_EQ(buffer[0], '#');
  sysfile_gets(file_, 1, buffer, &status);
  EXPECT_STREQ(buffer, "");
  sysfile_gets(file_, 2, buffer, &status);
  EXPECT_STREQ(buffer, "\n");
  uint64_t length = 99;
  buffer[0] = '#';
  sysfile_getline(file_, 0, &length, buffer, &status);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(buffer[0], '#');
  length = 99;
  sysfile_getline(file_, 1, &length, buffer, &status);
  EXPECT_EQ(length, 0u);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(fake_.reads, 0);
  // These come before the test for a reader: a null handle behaves the same.
  sysfile_gets(nullptr, 2, buffer, &status);
  EXPECT_STREQ(buffer, "\n");
  EXPECT_EQ(status, 0);
  // Capacity 3 reads one byte at a time: "f" then LF.
  sysfile_gets(file_, 3, buffer, &status);
  EXPECT_STREQ(buffer, "f\n");
}

TEST_F(InputTest, LastLineWithoutEndGetsOneFromGets) {
  open("abc");
  EXPECT_EQ(gets_all(64), (Lines{"abc\n"}));
  // End of input stays: every further call says so again.
  int32_t status = 0;
  char buffer[8];
  sysfile_gets(file_, sizeof buffer, buffer, &status);
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
  EXPECT_STREQ(buffer, "");
  status = 0;
  sysfile_gets(file_, sizeof buffer, buffer, &status);
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
}

TEST_F(InputTest, LineEndsAreStrippedOnceEach) {
  // LF, CR LF and a lone CR at the end go; a CR inside a line stays, and of
  // CR CR LF only one CR goes.
  open("a\nb\r\nc\rd\n\r\n\r\r\nlast\r");
  EXPECT_EQ(getlines(64), (Lines{"a", "b", "c\rd", "", "\r", "last"}));
  EXPECT_EQ(sysfile_rewind(file_), SYSFILE_OK);
  EXPECT_EQ(gets_all(64), (Lines{"a\n", "b\n", "c\rd\n", "\n", "\r\n", "last\n"}));
  EXPECT_EQ(fake_.rewinds, 1);
}

TEST_F(InputTest, LongLinesComeInPiecesOfTheRoom) {
  // getline with capacity 5 has room 4, gets with capacity 6 too.
  open("abcdefgh\nxy\n");
  EXPECT_EQ(getlines(5), (Lines{"abcd", "efgh", "", "xy"}));
  sysfile_rewind(file_);
  EXPECT_EQ(gets_all(6), (Lines{"abcd\n", "efgh\n", "\n", "xy\n"}));
  // A CR cut off by the room is stripped as a line end too.
  sysfile_rewind(file_);
  fake_.input = "abc\r\nz";
  EXPECT_EQ(getlines(5), (Lines{"abc", "", "z"}));
}

TEST_F(InputTest, LinesAcrossRefillsOfEverySize) {
  // The stream gives out few bytes per read, so lines end in the middle of a
  // refill, at its end, and across several.
  const std::string text = "hello world\nsecond\r\n\nx\ny";
  for (uint64_t step : {1u, 2u, 3u, 5u, 12u, 13u}) {
    open(text, step);
    EXPECT_EQ(getlines(100), (Lines{"hello world", "second", "", "x", "y"})) << step;
    sysfile_close(&file_);
  }
}

TEST_F(InputTest, LinesAcrossTheBufferBoundary) {
  // A line runs over the end of the first 1 MiB refill, and a CR LF is split
  // by it: CR the last byte of the first refill, LF the first of the next.
  const uint64_t cap = SYSFILE_BUFFER_SIZE;
  std::string text(cap - 10, 'a');
  text += "\nbbbbbbbb\r\ncc";  // the CR at index cap - 1
  ASSERT_EQ(text[cap - 1], '\r');
  open(text);
  EXPECT_EQ(getlines(cap + 16), (Lines{std::string(cap - 10, 'a'), "bbbbbbbb", "cc"}));
  // Two refills bring data; "cc" and the end of input each meet an empty one.
  EXPECT_EQ(fake_.reads, 4);
}

TEST_F(InputTest, FailingStreamReadIsTheEndNotANegativeCount) {
  open("never delivered");
  fake_.fail_reads = true;
  int32_t status = 0;
  uint64_t length = 7;
  char buffer[32];
  sysfile_getline(file_, sizeof buffer, &length, buffer, &status);
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
  EXPECT_EQ(file_->state->count, 0u);
  status = 0;
  EXPECT_EQ(sysfile_read(file_, buffer, sizeof buffer, &status), 0u);
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
  EXPECT_EQ(file_->state->count, 0u);
  EXPECT_EQ(file_->state->position, 0u);
}

TEST_F(InputTest, ReadDeliversWhatIsLeftWithStatusFour) {
  open("0123456789", 3);
  char buffer[16] = {};
  int32_t status = 0;
  EXPECT_EQ(sysfile_read(file_, buffer, 4, &status), 4u);
  EXPECT_EQ(std::string(buffer, 4), "0123");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(sysfile_read(file_, buffer, 10, &status), 6u);
  EXPECT_EQ(std::string(buffer, 6), "456789");
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
  EXPECT_EQ(sysfile_read(file_, buffer, 1, &status), 0u) << "status already set";
}

TEST_F(InputTest, ReadItemsShortIsStatusThreeNeverFour) {
  open("abcdefgh");
  char buffer[16] = {};
  int32_t status = 0;
  sysfile_read_items(file_, buffer, 3, 2, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::string(buffer, 6), "abcdef");
  sysfile_read_items(file_, buffer, 0, 5, &status);
  EXPECT_EQ(status, 0) << "nothing asked, nothing done";
  sysfile_read_items(file_, buffer, 2, 2, &status);
  EXPECT_EQ(status, SYSFILE_ERR_SHORT_READ);
  EXPECT_EQ(std::string(buffer, 2), "gh");
}

TEST_F(InputTest, WritersAreNotReadable) {
  FakeStream out;
  SysFile* writer = fake_file(env_, &out, true, 0);
  char buffer[8];
  int32_t status = 0;
  sysfile_gets(writer, sizeof buffer, buffer, &status);
  EXPECT_EQ(status, SYSFILE_ERR_NOT_READABLE);
  status = 0;
  uint64_t length = 0;
  sysfile_getline(writer, sizeof buffer, &length, buffer, &status);
  EXPECT_EQ(status, SYSFILE_ERR_NOT_READABLE);
  status = 0;
  EXPECT_EQ(sysfile_read(writer, buffer, 1, &status), 0u);
  EXPECT_EQ(status, SYSFILE_ERR_NOT_READABLE);
  status = 0;
  sysfile_read_items(writer, buffer, 1, 1, &status);
  EXPECT_EQ(status, SYSFILE_ERR_NOT_READABLE);
  sysfile_close(&writer);
}

TEST_F(InputTest, RewindStartsAgainAfterTheEnd) {
  open("one\ntwo");
  EXPECT_EQ(getlines(16), (Lines{"one", "two"}));
  EXPECT_EQ(sysfile_rewind(file_), SYSFILE_OK);
  EXPECT_EQ(file_->state->count, 0u);
  EXPECT_EQ(getlines(16), (Lines{"one", "two"}));
}

}  // namespace
