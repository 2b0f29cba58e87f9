// The file object. Over a recording stream: the append step at the buffer's
// edges, LF to CR LF split at its end, what each output operation
// translates, and the readers against the model over random
// inputs that arrive in random steps. On real files: the open rules,
// allocation failures during open; files made by the real gzip and zstd
// tools (make_tool_files.sh) read and written again for the tools to check
// once every case has run (check_written_files.sh), and damaged; a gzip
// write too long for zlib's counts.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <random>
#include <string_view>
#include <vector>

#include "files_test_util.h"
#include "test_support.h"

namespace {

using files_test::read_bytes;
using Sizes = std::vector<uint64_t>;

constexpr uint64_t kCap = SYSFILE_BUFFER_SIZE;

// Tracking on: sysenv_destroy reports any block a file left behind.
SysEnv* new_env() { return sysenv_create(0, 1, nullptr, nullptr, nullptr, nullptr, nullptr); }

// A handle built as the open operations build one, over a stream that
// records what it is handed, and delivers `input` `step` bytes a read.
struct Harness {
  SysEnv* env = new_env();
  SysFile* file = static_cast<SysFile*>(SYSENV_CALLOC(env, 1, sizeof(SysFile)));
  std::string accepted, input;
  Sizes writes;
  uint64_t step = UINT64_MAX, at = 0;
  int flushes = 0;

  Harness(bool writer, int32_t text) {
    auto* s = static_cast<SysFileState*>(SYSENV_CALLOC(env, 1, sizeof(SysFileState)));
    *file = {env, s};
    s->backend = this;
    s->text = text;
    s->capacity = kCap;
    s->write = writer ? write : nullptr;
    s->flush = writer ? flush : nullptr;
    s->read = writer ? nullptr : read;
  }
  ~Harness() {
    sysfile_close(&file);
    EXPECT_EQ(sysenv_destroy(&env), 0);
  }
  static Harness& of(void* backend) { return *static_cast<Harness*>(backend); }
  static int64_t write(void* backend, const void* data, uint64_t size) {
    Harness& h = of(backend);
    h.writes.push_back(size);
    h.accepted.append(static_cast<const char*>(data), size);
    return static_cast<int64_t>(size);
  }
  static int64_t read(void* backend, void* buffer, uint64_t size) {
    Harness& h = of(backend);
    const uint64_t n = std::min({size, h.step, h.input.size() - h.at});
    std::memcpy(buffer, h.input.data() + h.at, n);
    h.at += n;
    return static_cast<int64_t>(n);
  }
  static int32_t flush(void* backend) {
    ++of(backend).flushes;
    return 0;
  }
};

std::string with_crlf(const std::string& s) {
  std::string out;
  for (char c : s) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return out;
}

// After some letters without a LF wait in the buffer, the data goes out by
// an operation (see the switch); empty output follows, which must touch
// nothing even at a full buffer. The stream must see the writes, the first
// of them before the flush as many as the row says; the bytes are the
// letters and the data as the operation writes them: up to a NUL for the
// text operations, each LF as CR LF in text mode but for the raw ones.
TEST(Buffer, OutputAtTheBufferEdgesAndWhatEachOperationTranslates) {
  const std::string three(3 * kCap, 'b'), rest(kCap - 100, 'r'), longer(5000, 'L');
  // Text mode, letters, operation, data, writes, how many drained before the flush.
  const std::tuple<int32_t, uint64_t, char, std::string, Sizes, long> cases[] = {
      // The last free byte is stored; the next drains the buffer and goes directly.
      {0, kCap - 1, 'c', "yz", {kCap, 1}, 2},
      // A LF at capacity-1: CR leaves with the buffer, LF follows directly.
      {1, kCap - 1, 'c', "\n", {kCap, 1}, 2},
      // A LF with two bytes left: the pair fills the buffer. A byte fills it too.
      {1, kCap - 2, 'w', "\n", {kCap}, 0},
      {0, kCap - 1, 'c', "y", {kCap}, 0},
      // Exactly the room left: drain, then an empty direct write. Past the
      // room: top up, drain, the rest in one call.
      {0, 100, 'w', rest, {kCap, 0}, 2},
      {0, 100, 'i', three, {kCap, 2 * kCap + 100}, 2},
      // sysfile_write writes a NUL, and CR is not looked at; puts stops at a NUL.
      {1, 0, 'w', {"a\n\0\r\n", 5}, {7}, 0},
      {1, 0, 'p', {"p\nq\0z", 5}, {4}, 0},
      // puts_raw and write_items don't translate, a print does; a print
      // beyond the 2048 bytes on the stack comes whole.
      {1, 0, 'r', "raw\n", {4}, 0},
      {1, 0, 'i', "1\n2\n", {4}, 0},
      {1, 0, 'f', longer + "\n", {5002}, 0},
      // Binary mode translates nothing.
      {0, 0, 'p', "c\n", {2}, 0},
  };
  for (const auto& [mode, letters, op, data, writes, drained] : cases) {
    SCOPED_TRACE(::testing::Message() << op << " after " << letters << " in mode " << mode);
    Harness h(true, mode);
    const std::string fill(letters, 'x');
    int32_t status = sysfile_write(h.file, fill.size(), fill.data());
    const char* text = data.c_str();
    switch (op) {
      case 'w': status |= sysfile_write(h.file, data.size(), data.data()); break;
      case 'c': for (char ch : data) status |= sysfile_putc(h.file, ch); break;
      case 'p': sysfile_puts_checked(h.file, text, &status); break;
      case 'r': sysfile_puts_raw(h.file, text, &status); break;
      case 'i': sysfile_write_items(h.file, data.data(), 1, data.size(), &status); break;
      case 'f': status |= sysfile_printf(h.file, "%s", text); break;
    }
    EXPECT_EQ(sysfile_puts(h.file, "") | sysfile_puts(h.file, nullptr) |
                  sysfile_write(h.file, 0, "x") | sysfile_printf(h.file, "%s", "") | status,
              SYSFILE_OK);
    EXPECT_EQ(h.writes, Sizes(writes.begin(), writes.begin() + drained));
    EXPECT_EQ(sysfile_flush(h.file), SYSFILE_OK);
    EXPECT_EQ(h.writes, writes);
    EXPECT_EQ(h.flushes, 1) << "draining is not flushing";
    const std::string out = std::strchr("prf", op) != nullptr ? std::string(text) : data;
    const bool raw = mode == 0 || op == 'r' || op == 'i';
    EXPECT_TRUE(h.accepted == fill + (raw ? out : with_crlf(out)));
  }
}

// Random inputs of letters, CR, LF and NUL, which the stream delivers in
// random steps, so that lines and CR LF pairs end across refills.
TEST(Buffer, ReadersAgreeWithTheModel) {
  std::mt19937 random(14);
  for (uint32_t seed = 0; seed < 2000; ++seed) {
    Harness h(false, 0);
    const size_t size = random() % 300;
    while (h.input.size() < size) h.input += "ab\r\n\0"[random() % 5];
    h.step = random() % 4 == 0 ? UINT64_MAX : 1 + random() % 40;
    ASSERT_EQ(files_test::read_as_model(h.file, h.input, seed), "") << "seed " << seed;
  }
}

std::string tool_file(const std::string& name) { return HOSTKIT_TOOL_MADE "/" + name; }

int32_t kind_of(const std::string& name) {
  const std::string ext = name.substr(name.rfind('.'));
  return ext == ".gz" ? SYSFILE_GZIP : ext == ".zst" ? SYSFILE_ZSTD : SYSFILE_PLAIN;
}

// Opens to read, write, append or both of the last ('r', 'w', 'a', 'b').
SysFile* open(SysEnv* env, const std::string& path, char how, int32_t kind, int32_t text = 0,
              int32_t level = 6) {
  SysFile* file = nullptr;
  int32_t status = 0;
  sysfile_open(env, path.c_str(), text, how == 'r', how == 'w' || how == 'b',
               how == 'a' || how == 'b', kind, level, &file, &status);
  EXPECT_EQ(status, 0) << path;
  return file;
}

// Exactly one direction, read or write or append; a path that can't be
// opened; a path the UTF-8 converter had to repair (C3 then 'b', a value
// above U+10FFFF).
TEST(FileOpen, RefusedOpensLeaveNoHandle) {
  SysEnv* env = new_env();
  std::remove("x");  // a run that opened it must not fail every later one
  const std::tuple<const char*, int32_t, int32_t, int32_t, int32_t> cases[] = {
      {"x", 1, 1, 0, SYSFILE_ERR_ARGUMENT},        {"x", 1, 0, 1, SYSFILE_ERR_ARGUMENT},
      {"x", 0, 0, 0, SYSFILE_ERR_ARGUMENT},        {nullptr, 0, 1, 0, SYSFILE_ERR_ARGUMENT},
      {"no_such/x", 1, 0, 0, SYSFILE_ERR_ARGUMENT}, {"x\xC3" "b", 0, 1, 0, SYSFILE_ERR_PATH},
      {"x\xF4\x90\x80\x80", 0, 1, 0, SYSFILE_ERR_PATH}};
  for (const auto& [path, read, write, append, want] : cases) {
    SysFile* file = reinterpret_cast<SysFile*>(&file);  // anything but null
    int32_t status = 0;
    sysfile_open(env, path, 0, read, write, append, 0, 0, &file, &status);
    EXPECT_EQ(status, want) << (path ? path : "null") << read << write << append;
    EXPECT_EQ(file, nullptr);
  }
  EXPECT_EQ(read_bytes("x"), "<missing>");
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

// Every allocation an open makes fails in turn, for each kind and
// direction: the status says memory and no block stays behind.
TEST(FileOpen, EveryFailingAllocationOfOpenLeavesNothing) {
  ASSERT_TRUE(files_test::write_bytes("files_memory", ""));
  for (int32_t kind : {SYSFILE_PLAIN, SYSFILE_GZIP, SYSFILE_ZSTD}) {
    for (int32_t read : {0, 1}) {
      for (int32_t fail = 1, status = -1; status != 0; ++fail) {
        ASSERT_LT(fail, 20) << "kind " << kind << " read " << read;
        hostkit_test::CountingAllocator counting;
        SysEnv* env = counting.create_env();
        const int64_t before = counting.live;
        counting.fail_at = counting.allocating_calls + fail;
        SysFile* file = nullptr;
        status = 0;
        sysfile_open(env, "files_memory", 0, read, 1 - read, 0, kind, 6, &file, &status);
        EXPECT_TRUE(status == 0 || status == SYSFILE_ERR_MEMORY) << status;
        sysfile_close(&file);
        EXPECT_EQ(counting.live, before);
        sysenv_destroy(&env);
      }
    }
  }
}

// Every tool-made file ("x.txt.gz", "x.txt.frames.zst" made from x.txt),
// opened by its UTF-16 name and read in random steps, is written again
// under a name outside ASCII: in turn plain (by a kind the object doesn't
// know), gzip or zstd, binary or text mode; half of it in one call, the
// rest byte by byte after opening again to append, by "append" with or
// without "write". The tools check each against x.txt.
TEST(ToolMade, ReadInRandomStepsAndWrittenAgainForTheTools) {
  std::filesystem::remove_all(HOSTKIT_WRITTEN);
  std::filesystem::create_directory(HOSTKIT_WRITTEN);
  SysEnv* env = new_env();
  std::mt19937 random(5);
  std::string data, piece(1 << 21, '\0');
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(HOSTKIT_TOOL_MADE)) {
    const std::string name = entry.path().filename().string(), path = tool_file(name);
    if (name == "done") continue;
    const std::u16string wide(path.begin(), path.end());
    SysFile* file = nullptr;
    int32_t status = 0;
    sysfile_open_wide(env, reinterpret_cast<const uint16_t*>(wide.c_str()), 0, 1, 0, 0,
                      kind_of(name), 0, &file, &status);
    for (data.clear(); status == 0;) {
      const uint64_t n = random() % (1u << random() % 22) + 1;
      data.append(piece.data(), sysfile_read(file, piece.data(), n, &status));
    }
    EXPECT_EQ(status, SYSFILE_ERR_EOF) << name;
    sysfile_close(&file);
    const int32_t kind = std::array{7, 1, 2}[files % 3], text = files / 3 % 2;
    const std::string copy = HOSTKIT_WRITTEN "/\xC3\xA9_" + name + (text ? ".text" : ".bin") +
                             std::array{".txt", ".gz", ".zst"}[files % 3];
    file = open(env, copy, 'w', kind, text);
    status = sysfile_write(file, data.size() / 2, data.data());
    sysfile_close(&file);
    file = open(env, copy, files % 2 ? 'a' : 'b', kind, text);
    for (size_t i = data.size() / 2; i < data.size(); ++i) status |= sysfile_putc(file, data[i]);
    EXPECT_EQ(status | sysfile_flush(file), SYSFILE_OK) << copy;
    sysfile_close(&file);
    ++files;
  }
  EXPECT_EQ(files, 46u) << "the files make_tool_files.sh makes";
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

// Tool-made files whole, cut short (inside the header, a third in, in the
// trailer) or overwritten in the middle: at least `least` bytes of the
// plain text come first (only they, but for the overwritten file), then
// the status; after a rewind the line reader ends on the same status.
// Plain text read as gzip reads as itself (zlib passes such files
// through); as zstd it is no frame at all.
TEST(ToolMadeDamaged, BytesBeforeTheDamageThenStatusTen) {
  SysEnv* env = new_env();
  const std::string plain = read_bytes(tool_file("lines.txt"));
  std::string buffer(1 << 20, '\0');
  for (const std::string name : {"lines.txt.gz", "lines.txt.zst"}) {
    const std::string whole = read_bytes(tool_file(name)), path = "files_damaged_" + name;
    std::string flipped = whole;
    for (size_t i = whole.size() / 2; i < whole.size() / 2 + 40; ++i) flipped[i] ^= 0x5A;
    const bool gz = kind_of(name) == SYSFILE_GZIP;
    const std::tuple<std::string, size_t, int32_t> cases[] = {
        {whole, plain.size(), SYSFILE_ERR_EOF},
        {whole.substr(0, 5), 0, SYSFILE_ERR_DATA},
        {whole.substr(0, whole.size() / 3), 1, SYSFILE_ERR_DATA},
        {whole.substr(0, whole.size() - 3), plain.size(), SYSFILE_ERR_DATA},
        {flipped, 0, SYSFILE_ERR_DATA},
        {plain, gz ? plain.size() : 0, gz ? SYSFILE_ERR_EOF : SYSFILE_ERR_DATA}};
    for (const auto& [bytes, least, want] : cases) {
      SCOPED_TRACE(name + " of " + std::to_string(bytes.size()) + " bytes");
      ASSERT_TRUE(files_test::write_bytes(path, bytes));
      SysFile* file = open(env, path, 'r', kind_of(name));
      std::string got;
      int32_t status = 0;
      while (status == 0) got.append(buffer.data(), sysfile_read(file, buffer.data(), buffer.size(), &status));
      EXPECT_EQ(status, want);
      EXPECT_GE(got.size(), least);
      EXPECT_TRUE(bytes == flipped || plain.compare(0, got.size(), got) == 0);
      sysfile_rewind(file);
      uint64_t length = 0;
      for (status = 0; status == 0;) sysfile_getline(file, 99, &length, buffer.data(), &status);
      EXPECT_EQ(status, want) << "by lines after a rewind";
      sysfile_close(&file);
    }
  }
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

// zlib counts in int: a write past 2 GiB in one call reaches it in pieces,
// and every byte arrives. Zeros with marks at the edges of the buffer and of
// the 1 GiB and 2 GiB pieces read back in their places, and nothing else.
TEST(GzipLarge, OneWritePastTwoGiBReadsBackWhole) {
  SysEnv* env = new_env();
  const uint64_t size = (uint64_t{1} << 31) + kCap + 3, gib = uint64_t{1} << 30;
  const uint64_t marks[] = {0, kCap, kCap + gib - 1, kCap + gib, kCap + 2 * gib, size - 1};
  std::string data(size, '\0');
  for (uint64_t at : marks) data[at] = 'm';
  SysFile* file = open(env, "files_large.gz", 'w', SYSFILE_GZIP, 0, 1);  // level 1: fast
  EXPECT_EQ(sysfile_write(file, size, data.data()), SYSFILE_OK);
  sysfile_close(&file);
  std::string().swap(data);
  file = open(env, "files_large.gz", 'r', SYSFILE_GZIP);
  std::string piece(1 << 26, '\0');
  std::vector<uint64_t> found;  // where a byte other than zero came
  uint64_t at = 0;
  for (int32_t status = 0; status == 0;) {
    const uint64_t n = sysfile_read(file, piece.data(), piece.size(), &status);
    const std::string_view got(piece.data(), n);
    for (size_t i = got.find_first_not_of('\0'); i < n; i = got.find_first_not_of('\0', i + 1)) {
      found.push_back(got[i] == 'm' ? at + i : UINT64_MAX);
    }
    at += n;
  }
  EXPECT_EQ(found, std::vector<uint64_t>(std::begin(marks), std::end(marks)));
  EXPECT_EQ(at, size);
  sysfile_close(&file);
  std::remove("files_large.gz");
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

}  // namespace
