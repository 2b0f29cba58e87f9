// Files made by the real gzip and zstd tools (see make_tool_files.sh), read
// back through the file object and compared with the plain bytes the tools
// were given: whole, by gets and by getline; and the same files damaged.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "files_test_util.h"

#ifndef HOSTKIT_TOOL_MADE
#error "HOSTKIT_TOOL_MADE names the folder of the tool-made files"
#endif

namespace {

using files_test::read_bytes;

std::string tool_file(const std::string& name) { return std::string(HOSTKIT_TOOL_MADE) + "/" + name; }

int32_t kind_of(const std::string& name) {
  const std::string ext = name.substr(name.rfind('.'));
  return ext == ".gz" ? SYSFILE_GZIP : ext == ".zst" ? SYSFILE_ZSTD : SYSFILE_PLAIN;
}

// Lines as the readers must deliver them, worked out on the flat bytes: a
// piece ends after a LF or when `room` bytes are taken; then one LF and one
// CR come off its end.
std::vector<std::string> expected_lines(const std::string& bytes, size_t room) {
  std::vector<std::string> lines;
  for (size_t at = 0, n; at < bytes.size(); at += n) {
    const size_t limit = std::min(room, bytes.size() - at);
    const auto* lf = static_cast<const char*>(std::memchr(bytes.data() + at, '\n', limit));
    n = lf != nullptr ? static_cast<size_t>(lf - (bytes.data() + at)) + 1 : limit;
    std::string piece = bytes.substr(at, n);
    if (!piece.empty() && piece.back() == '\n') piece.pop_back();
    if (!piece.empty() && piece.back() == '\r') piece.pop_back();
    lines.push_back(piece);
  }
  return lines;
}

class ToolMade : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    env_ = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    // "x.txt.gz", "x.txt.frames.zst": the tool was given the bytes of x.txt.
    const std::string name = GetParam();
    expected_ = read_bytes(tool_file(name.substr(0, name.find(".txt") + 4)));
    ASSERT_NE(expected_, "<missing>") << "run make_tool_files.sh";
    int32_t status = 0;
    sysfile_open(env_, tool_file(name).c_str(), 0, 1, 0, 0, kind_of(name), 0, &file_, &status);
    ASSERT_EQ(status, 0);
  }
  void TearDown() override {
    sysfile_close(&file_);
    EXPECT_EQ(sysenv_destroy(&env_), 0);
  }
  SysEnv* env_ = nullptr;
  SysFile* file_ = nullptr;
  std::string expected_;
};

TEST_P(ToolMade, ReadsBackExactly) {
  // Requests of an odd size, so they straddle every refill.
  std::string got, buffer(77777, '\0');
  int32_t status = 0;
  while (status == 0) got.append(buffer.data(), sysfile_read(file_, buffer.data(), buffer.size(), &status));
  EXPECT_EQ(status, SYSFILE_ERR_EOF);
  EXPECT_EQ(got.size(), expected_.size());
  EXPECT_TRUE(got == expected_);
}

TEST_P(ToolMade, GetlineAndGetsDeliverEveryLine) {
  // Rooms: a short one that cuts most lines, one that cuts only the long
  // line, one larger than the buffer; each after a rewind.
  for (size_t capacity : {size_t{50}, size_t{4096}, size_t{3} << 20}) {
    SCOPED_TRACE(capacity);
    ASSERT_EQ(sysfile_rewind(file_), 0);
    std::vector<std::string> got, got_gets;
    std::string line(capacity, '\0');
    int32_t status = 0;
    uint64_t length = 0;
    while (sysfile_getline(file_, capacity, &length, line.data(), &status), status == 0) {
      got.emplace_back(line.data(), length);
    }
    EXPECT_EQ(status, SYSFILE_ERR_EOF);
    EXPECT_TRUE(got == expected_lines(expected_, capacity - 1));
    sysfile_rewind(file_);
    // gets gives a terminated text: random bytes may hold a NUL inside, so
    // compare as C texts.
    std::vector<std::string> want_gets = expected_lines(expected_, capacity - 2);
    for (std::string& w : want_gets) w = (w + "\n").c_str();
    status = 0;
    while (sysfile_gets(file_, capacity, line.data(), &status), status == 0) {
      got_gets.emplace_back(line.c_str());
    }
    EXPECT_TRUE(got_gets == want_gets);
  }
}

// Sizes around zlib's 8 KiB and 16 KiB, the zstd buffers (131072, 131075,
// 131591) and the 1 MiB buffer; several members or frames; empty files and
// files that hold nothing at all.
const char* const kFiles[] = {
    "lines.txt.gz", "lines.txt.zst", "lines.txt", "lines.txt.members.gz", "lines.txt.frames.zst",
    "empty.txt.gz", "empty.txt.zst", "empty.txt.nothing.gz", "empty.txt.nothing.zst",
    "bin_1.txt.gz", "bin_1.txt.zst", "bin_8191.txt.gz", "bin_8192.txt.gz", "bin_8193.txt.gz",
    "bin_16384.txt.gz", "bin_131072.txt.zst", "bin_131075.txt.zst", "bin_131591.txt.zst",
    "bin_131591.txt.gz", "bin_1048575.txt.gz", "bin_1048576.txt.zst", "bin_1048577.txt.gz",
    "bin_1048577.txt.zst", "bin_1048576.txt", "bin_2500000.txt.gz", "bin_2500000.txt.zst",
};

INSTANTIATE_TEST_SUITE_P(Files, ToolMade, ::testing::ValuesIn(kFiles),
                         [](const ::testing::TestParamInfo<const char*>& c) {
                           std::string name = c.param;
                           for (char& ch : name) ch = ch == '.' ? '_' : ch;
                           return name;
                         });

// Tool-made files cut short (inside the header, a third in, in the trailer)
// or overwritten in the middle: what was decoded before the damage comes
// first, then status 10, from the byte reader and the line reader alike and
// again after a rewind. A cut trailer leaves all the content readable. Plain
// text read as gzip reads as itself (zlib passes such files through); read
// as zstd it is no frame at all.
TEST(ToolMadeDamaged, BytesBeforeTheDamageThenStatusTen) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  const std::string plain = read_bytes(tool_file("lines.txt"));
  std::string buffer(1 << 20, '\0');
  for (const char* name : {"lines.txt.gz", "lines.txt.zst"}) {
    const std::string whole = read_bytes(tool_file(name));
    std::string flipped = whole;
    for (size_t i = whole.size() / 2; i < whole.size() / 2 + 40; ++i) flipped[i] ^= 0x5A;
    const bool gz = kind_of(name) == SYSFILE_GZIP;
    enum Got { kPrefix, kSomePrefix, kAll, kAnything };
    const struct {
      std::string bytes;
      Got got;
      int32_t status;
    } cases[] = {{whole.substr(0, 5), kPrefix, SYSFILE_ERR_DATA},
                 {whole.substr(0, whole.size() / 3), kSomePrefix, SYSFILE_ERR_DATA},
                 {whole.substr(0, whole.size() - 3), kAll, SYSFILE_ERR_DATA},
                 {flipped, kAnything, SYSFILE_ERR_DATA},
                 {plain, gz ? kAll : kPrefix, gz ? SYSFILE_ERR_EOF : SYSFILE_ERR_DATA}};
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(name) + " of " + std::to_string(c.bytes.size()) + " bytes");
      const std::string path = std::string("interop_damaged_") + name;
      ASSERT_TRUE(files_test::write_bytes(path, c.bytes));
      SysFile* file = nullptr;
      int32_t status = 0;
      sysfile_open(env, path.c_str(), 0, 1, 0, 0, kind_of(name), 0, &file, &status);
      ASSERT_EQ(status, 0);
      for (int pass = 0; pass < 2; ++pass) {
        std::string got;
        status = 0;
        while (status == 0) {
          got.append(buffer.data(), sysfile_read(file, buffer.data(), buffer.size(), &status));
        }
        EXPECT_EQ(status, c.status);
        if (c.got == kAll) { EXPECT_EQ(got.size(), plain.size()); }
        if (c.got == kSomePrefix) { EXPECT_GT(got.size(), 0u); }
        if (c.got != kAnything) { EXPECT_EQ(got, plain.substr(0, got.size())); }
        EXPECT_LE(got.size(), plain.size() + buffer.size());
        EXPECT_EQ(sysfile_rewind(file), 0);
      }
      uint64_t length = 0;
      status = 0;
      while (status == 0) sysfile_getline(file, buffer.size(), &length, buffer.data(), &status);
      EXPECT_EQ(status, c.status);
      sysfile_close(&file);
      std::remove(path.c_str());
    }
  }
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

}  // namespace
