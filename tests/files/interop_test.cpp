// Files made by the real gzip and zstd tools (see make_tool_files.sh), read
// back through the file object and compared with the plain bytes the tools
// were given: whole, by gets and by getline.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "files_test_util.h"
#include "sysfile.h"

#ifndef HOSTKIT_TOOL_MADE
#error "HOSTKIT_TOOL_MADE names the folder of the tool-made files"
#endif

namespace {

using files_test::read_bytes;
using files_test::write_bytes;

std::string tool_file(const std::string& name) { return std::string(HOSTKIT_TOOL_MADE) + "/" + name; }

// Lines as the readers must deliver them, worked out on the flat bytes: a
// piece ends after a LF or when `room` bytes are taken; then one LF and one
// CR come off its end.
std::vector<std::string> expected_lines(const std::string& bytes, size_t room) {
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < bytes.size()) {
    // Look no further than the room: a long line is cut there anyway.
    const size_t limit = std::min(room, bytes.size() - at);
    const auto* lf = static_cast<const char*>(std::memchr(bytes.data() + at, '\n', limit));
    const size_t n = lf != nullptr ? static_cast<size_t>(lf - (bytes.data() + at)) + 1 : limit;
    std::string piece = bytes.substr(at, n);
    at += n;
    if (!piece.empty() && piece.back() == '\n') piece.pop_back();
    if (!piece.empty() && piece.back() == '\r') piece.pop_back();
    lines.push_back(piece);
  }
  return lines;
}

struct Case {
  const char* file;      // made by a tool
  const char* expected;  // the bytes the tool was given
  int32_t kind;
};

class ToolMade : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    env_ = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    expected_ = read_bytes(tool_file(GetParam().expected));
    ASSERT_NE(expected_, "<missing>") << "run make_tool_files.sh";
  }
  void TearDown() override { EXPECT_EQ(sysenv_destroy(&env_), 0); }
  SysFile* open() {
    SysFile* file = nullptr;
    int32_t status = 0;
    sysfile_open(env_, tool_file(GetParam().file).c_str(), 0, 1, 0, 0, GetParam().kind, 0, &file,
                 &status);
    EXPECT_EQ(status, 0);
    return file;
  }
  SysEnv* env_ = nullptr;
  std::string expected_;
};

TEST_P(ToolMade, ReadsBackExactly) {
  SysFile* file = open();
  ASSERT_NE(file, nullptr);
  // Requests of an odd size, so they straddle every refill.
  std::string got;
  std::string buffer(77777, '\0');
  int32_t status = 0;
  while (status == 0) got.append(buffer.data(), sysfile_read(file, buffer.data(), buffer.size(), &status));
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
  EXPECT_EQ(got.size(), expected_.size());
  EXPECT_TRUE(got == expected_);
  // Again after a rewind, in one request for everything.
  EXPECT_EQ(sysfile_rewind(file), 0);
  std::string all(expected_.size(), '\0');
  status = 0;
  sysfile_read_items(file, all.data(), 1, all.size(), &status);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(all == expected_);
  sysfile_close(&file);
}

TEST_P(ToolMade, GetlineAndGetsDeliverEveryLine) {
  // Rooms: a short one that cuts most lines, one that cuts only the long
  // line, one larger than the buffer.
  for (size_t capacity : {size_t{50}, size_t{4096}, size_t{3} << 20}) {
    SysFile* file = open();
    ASSERT_NE(file, nullptr);
    const std::vector<std::string> want = expected_lines(expected_, capacity - 1);
    std::string line(capacity, '\0');
    std::vector<std::string> got;
    int32_t status = 0;
    uint64_t length = 0;
    for (;;) {
      sysfile_getline(file, capacity, &length, line.data(), &status);
      if (status != 0) break;
      got.emplace_back(line.data(), length);
    }
    EXPECT_EQ(status, SYSFILE_ERR_EOF);
    EXPECT_EQ(got.size(), want.size()) << capacity;
    EXPECT_TRUE(got == want) << capacity;

    sysfile_rewind(file);
    const std::vector<std::string> want_gets = expected_lines(expected_, capacity - 2);
    size_t matched = 0;
    size_t count = 0;
    status = 0;
    for (;;) {
      sysfile_gets(file, capacity, line.data(), &status);
      if (status != 0) break;
      // gets gives a terminated text: random bytes may hold a NUL inside,
      // so compare as C texts.
      if (count < want_gets.size() &&
          std::string(line.c_str()) == std::string((want_gets[count] + "\n").c_str())) {
        ++matched;
      }
      ++count;
    }
    EXPECT_EQ(count, want_gets.size()) << capacity;
    EXPECT_EQ(matched, want_gets.size()) << capacity;
    sysfile_close(&file);
  }
}

const Case kCases[] = {
    {"lines.txt.gz", "lines.txt", SYSFILE_GZIP},
    {"lines.txt.zst", "lines.txt", SYSFILE_ZSTD},
    {"lines.txt", "lines.txt", SYSFILE_PLAIN},
    {"lines_members.gz", "lines.txt", SYSFILE_GZIP},
    {"lines_frames.zst", "lines.txt", SYSFILE_ZSTD},
    {"empty.txt.gz", "empty.txt", SYSFILE_GZIP},
    {"empty.txt.zst", "empty.txt", SYSFILE_ZSTD},
    {"nothing.gz", "empty.txt", SYSFILE_GZIP},
    {"nothing.zst", "empty.txt", SYSFILE_ZSTD},
    {"bin_1.txt.gz", "bin_1.txt", SYSFILE_GZIP},
    {"bin_1.txt.zst", "bin_1.txt", SYSFILE_ZSTD},
    {"bin_8191.txt.gz", "bin_8191.txt", SYSFILE_GZIP},
    {"bin_8192.txt.gz", "bin_8192.txt", SYSFILE_GZIP},
    {"bin_8193.txt.gz", "bin_8193.txt", SYSFILE_GZIP},
    {"bin_16384.txt.gz", "bin_16384.txt", SYSFILE_GZIP},
    {"bin_131072.txt.zst", "bin_131072.txt", SYSFILE_ZSTD},
    {"bin_131075.txt.zst", "bin_131075.txt", SYSFILE_ZSTD},
    {"bin_131591.txt.zst", "bin_131591.txt", SYSFILE_ZSTD},
    {"bin_131591.txt.gz", "bin_131591.txt", SYSFILE_GZIP},
    {"bin_1048575.txt.gz", "bin_1048575.txt", SYSFILE_GZIP},
    {"bin_1048576.txt.zst", "bin_1048576.txt", SYSFILE_ZSTD},
    {"bin_1048577.txt.gz", "bin_1048577.txt", SYSFILE_GZIP},
    {"bin_1048577.txt.zst", "bin_1048577.txt", SYSFILE_ZSTD},
    {"bin_1048576.txt", "bin_1048576.txt", SYSFILE_PLAIN},
    {"bin_2500000.txt.gz", "bin_2500000.txt", SYSFILE_GZIP},
    {"bin_2500000.txt.zst", "bin_2500000.txt", SYSFILE_ZSTD},
};

INSTANTIATE_TEST_SUITE_P(Files, ToolMade, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& c) {
                           std::string name = c.param.file;
                           for (char& ch : name) {
                             if (ch == '.') ch = '_';
                           }
                           return name;
                         });

// Tool-made files cut short or overwritten in the middle: reading ends with
// status 4, delivers no more than the file held, and doesn't hang.
TEST(ToolMadeDamaged, ReadingEndsWithoutHangOrCrash) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  const std::string plain = read_bytes(tool_file("lines.txt"));
  for (const char* name : {"lines.txt.gz", "lines.txt.zst"}) {
    const std::string whole = read_bytes(tool_file(name));
    std::string flipped = whole;
    for (size_t i = whole.size() / 2; i < whole.size() / 2 + 40; ++i) flipped[i] = '\0';
    const int32_t kind = std::string(name).back() == 'z' ? SYSFILE_GZIP : SYSFILE_ZSTD;
    for (const std::string& damaged : {whole.substr(0, whole.size() / 3), flipped,
                                       whole.substr(0, whole.size() - 3)}) {
      const std::string path = std::string("interop_damaged_") + name;
      ASSERT_TRUE(write_bytes(path, damaged));
      SysFile* file = nullptr;
      int32_t status = 0;
      sysfile_open(env, path.c_str(), 0, 1, 0, 0, kind, 0, &file, &status);
      ASSERT_EQ(status, 0);
      std::string buffer(1 << 20, '\0');
      uint64_t total = 0;
      while (status == 0) total += sysfile_read(file, buffer.data(), buffer.size(), &status);
      EXPECT_EQ(status, SYSFILE_ERR_EOF);
      EXPECT_LE(total, plain.size() + (1u << 20));
      sysfile_rewind(file);
      status = 0;
      uint64_t length = 0;
      while (status == 0) sysfile_getline(file, buffer.size(), &length, buffer.data(), &status);
      EXPECT_EQ(status, SYSFILE_ERR_EOF);
      sysfile_close(&file);
      std::remove(path.c_str());
    }
  }
  sysenv_destroy(&env);
}

}  // namespace
