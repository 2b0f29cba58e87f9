// The memory manager with tracking on: the block layout and its guards, the
// table (growth, last-in first-out reuse), counters, the tracked family, the
// reports (per-operation lines, leak listing, the trace file), the fatal
// texts, fault injection and several threads on one manager.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cpub.h"
#include "test_support.h"

namespace {

using hostkit_test::CountingAllocator;
using hostkit_test::StartsWithText;
using hostkit_test::TextSink;

// The block's shape: index (8), begin guard (32), caller's bytes, end guard (32).
constexpr uint64_t kHeader = 40;

// An address as a line's own conversion prints it: the platforms' printf
// families differ in how %p looks, so the field comes from the platform's printf.
std::string address(const void* p, const char* conversion = "%p") {
  char text[64];
  std::snprintf(text, sizeof text, conversion, p);
  return text;
}

std::string pad(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

unsigned char* bytes(void* p) { return static_cast<unsigned char*>(p); }
unsigned char* raw_of(void* p) { return bytes(p) - kHeader; }

uint64_t index_of(void* p) {
  uint64_t row = 0;
  std::memcpy(&row, raw_of(p), sizeof row);
  return row;
}

// A healthy guard reads 0x20, 0x21, ... 0x3F.
bool healthy(const unsigned char* guard) {
  for (int i = 0; i < 32; ++i) {
    if (guard[i] != 0x20 + i) return false;
  }
  return true;
}

// A death test's child may place its blocks elsewhere than the parent (on
// Windows it is a new process), so a child that must show an address prints
// it first on a line of its own, and the expected text's "<a>" stands for it.
void announce(const void* p) {
  std::fprintf(stderr, "%p\n", p);
  std::fflush(stderr);
}

struct Announced : ::testing::MatcherInterface<const std::string&> {
  std::string expected;
  explicit Announced(std::string text) : expected(std::move(text)) {}
  bool MatchAndExplain(const std::string& actual, ::testing::MatchResultListener*) const override {
    std::string plain;
    for (char c : actual) {
      if (c != '\r') plain += c;
    }
    const size_t end = plain.find('\n');
    if (end == std::string::npos) return false;
    std::string want = expected;
    for (size_t at = want.find("<a>"); at != std::string::npos; at = want.find("<a>", at)) {
      want.replace(at, 3, plain.substr(0, end));
    }
    return plain.compare(end + 1, want.size(), want) == 0;
  }
  void DescribeTo(std::ostream* os) const override { *os << "an address line, then " << expected; }
};

::testing::Matcher<const std::string&> ShowsAnnounced(const std::string& expected) {
  return ::testing::MakeMatcher(new Announced(expected));
}

// exit(-99): -99 where the platform keeps 32 bits of the status, 157 where it keeps 8.
bool ended_with_minus_99(int status) {
  return ::testing::ExitedWithCode(-99)(status) || ::testing::ExitedWithCode(157)(status);
}

// The counting allocator, noting the last request ("malloc 172", "calloc
// 93x1", "realloc 5072") and parking freed blocks until its own end, so that a
// block freed twice is still there to be read, as inside a real heap, and no
// memory checker reports the read itself.
struct Recorder {
  CountingAllocator base;
  std::string last;
  std::vector<void*> parked;
  static Recorder* self(void* handle) { return static_cast<Recorder*>(handle); }
  static void* malloc(void* handle, uint64_t size) {
    self(handle)->last = "malloc " + std::to_string(size);
    return CountingAllocator::malloc(&self(handle)->base, size);
  }
  static void* calloc(void* handle, uint64_t count, uint64_t size) {
    self(handle)->last = "calloc " + std::to_string(count) + "x" + std::to_string(size);
    return CountingAllocator::calloc(&self(handle)->base, count, size);
  }
  static void* realloc(void* handle, void* pointer, uint64_t size) {
    self(handle)->last = "realloc " + std::to_string(size);
    return CountingAllocator::realloc(&self(handle)->base, pointer, size);
  }
  int frees = 0;
  static void free(void* handle, void* pointer) {
    ++self(handle)->frees;
    if (pointer != nullptr) self(handle)->parked.push_back(pointer);
  }
  int64_t live() const { return base.live - static_cast<int64_t>(parked.size()); }
  ~Recorder() {
    for (void* p : parked) CountingAllocator::free(&base, p);
  }
};

class MemmanTracked : public ::testing::Test {
 protected:
  void SetUp() override {
    manager_ = memman_create(1, &user_, Recorder::malloc, Recorder::calloc, Recorder::realloc,
                             Recorder::free);
    ASSERT_NE(manager_, nullptr);
  }
  void TearDown() override {
    if (manager_ != nullptr) memman_delete("t.c", 1, &manager_);
    EXPECT_EQ(user_.live(), 0);
  }
  const MemBlockEntry& row(uint64_t index) const { return manager_->table->entries[index]; }
  unsigned char* block(uint64_t size) { return bytes(memman_alloc("b.c", 1, manager_, 1, size)); }
  Recorder user_;
  MemManager* manager_ = nullptr;
};

TEST_F(MemmanTracked, BlocksCarryTheirRowIndexAndTwoGuardsAcrossTheFamily) {
  unsigned char* p = bytes(memman_alloc("a.c", 7, manager_, 10, 10));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(user_.last, "malloc 172");  // 100 + 8 + 2 * 32
  EXPECT_EQ(index_of(p), 0u);
  EXPECT_TRUE(healthy(p - 32) && healthy(p + 100));
  const MemBlockEntry& entry = row(0);
  EXPECT_EQ(entry.in_use, 1);
  EXPECT_EQ(entry.block_number, 0u);
  EXPECT_EQ(entry.size, 100u);
  EXPECT_EQ(entry.raw, raw_of(p));
  EXPECT_EQ(manager_->table->capacity, 1024u);  // the first block makes the first table
  std::memset(p, 0xEE, 100);                    // the whole of the caller's bytes may be written
  memman_free("a.c", 8, manager_, p);
  EXPECT_EQ(entry.in_use, 0);
  EXPECT_EQ(entry.raw, nullptr);
  EXPECT_EQ(manager_->table->free_head, 0u);

  // Zero bytes make no block, row or number; a free of null reaches nobody.
  const int calls = user_.base.allocating_calls;
  const int frees = user_.frees;
  EXPECT_EQ(memman_alloc("z.c", 1, manager_, 0, 8), nullptr);
  EXPECT_EQ(memman_calloc("z.c", 1, manager_, 8, 0), nullptr);
  EXPECT_EQ(memman_alloc_with("z.c", 1, manager_, 0, 0, 1), nullptr);
  memman_free("z.c", 2, manager_, nullptr);
  EXPECT_EQ(user_.base.allocating_calls, calls);
  EXPECT_EQ(user_.frees, frees);
  EXPECT_EQ(manager_->table->next_number, 1u);

  // The zeroed forms ask calloc for the whole block in bytes.
  unsigned char* z = bytes(memman_calloc("c.c", 1, manager_, 3, 7));
  EXPECT_EQ(user_.last, "calloc 93x1");
  for (int i = 0; i < 21; ++i) EXPECT_EQ(z[i], 0) << i;
  EXPECT_TRUE(healthy(z + 21));
  void* w = memman_alloc_with("c.c", 2, manager_, 5, 5, 1);
  EXPECT_EQ(user_.last, "calloc 97x1");
  void* m = memman_alloc_with("c.c", 3, manager_, 5, 5, 0);
  EXPECT_EQ(user_.last, "malloc 97");

  // String copies are blocks of the copied length plus one.
  const struct {
    char* copy;
    const char* text;
  } copies[] = {{memman_strdup("s.c", 1, manager_, "hostkit"), "hostkit"},
                {memman_strndup("s.c", 2, manager_, "hostkit", 4), "host"},
                {memman_strndup("s.c", 3, manager_, "hostkit", 100), "hostkit"},
                {memman_strndup("s.c", 4, manager_, "hostkit", 0), ""},
                {memman_strdup("s.c", 5, manager_, nullptr), ""}};
  for (const auto& c : copies) {
    SCOPED_TRACE(c.text);
    EXPECT_STREQ(c.copy, c.text);
    const uint64_t size = std::strlen(c.text) + 1;
    EXPECT_EQ(row(index_of(c.copy)).size, size);
    EXPECT_TRUE(healthy(bytes(c.copy) + size));
    memman_free("s.c", 6, manager_, c.copy);
  }
  for (void* q : {static_cast<void*>(z), w, m}) memman_free("c.c", 4, manager_, q);
}

TEST_F(MemmanTracked, The1025thLiveBlockDoublesTheTableAndEarlierBlocksStay) {
  std::vector<unsigned char*> blocks;
  for (int i = 0; i < 1024; ++i) {
    blocks.push_back(block(16));
    std::memset(blocks.back(), i & 0xFF, 16);
  }
  // The growth asks for the new rows, then the new free list: when either
  // fails, the block fails and the old table stands as it was.
  const MemBlockTable before = *manager_->table;  // no padding: compared bytewise
  for (int which = 1; which <= 2; ++which) {
    SCOPED_TRACE(which);
    user_.base.fail_at = user_.base.allocating_calls + which;
    const int64_t live = user_.live();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(memman_alloc("w.c", 5000, manager_, 1, 77), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Out of space while trying to allocate a block of size 77 in file 'w.c(5000)'\n");
    EXPECT_EQ(user_.live(), live);
    EXPECT_EQ(std::memcmp(manager_->table, &before, sizeof before), 0);
  }
  user_.base.fail_at = 0;
  blocks.push_back(block(16));
  EXPECT_EQ(manager_->table->capacity, 2048u);
  EXPECT_EQ(manager_->table->free_head, 2048u);
  EXPECT_EQ(row(1024).block_number, 1024u);
  for (uint64_t i = 0; i < 1024; ++i) {
    EXPECT_EQ(index_of(blocks[i]), i);
    EXPECT_EQ(row(i).block_number, i);
    EXPECT_EQ(row(i).raw, raw_of(blocks[i]));
    EXPECT_EQ(blocks[i][15], i & 0xFF);
  }
  EXPECT_EQ(memman_scan("g.c", 1, manager_, 0), 0);
  for (unsigned char* b : blocks) memman_free("g.c", 3, manager_, b);
  EXPECT_EQ(manager_->table->capacity, 2048u);  // capacity only grows
}

TEST_F(MemmanTracked, FreedRowsAreReusedLastInFirstOutWithNewNumbers) {
  void* a = block(8);
  void* b = block(8);
  void* c = block(8);
  memman_free("r.c", 4, manager_, b);  // row 1 freed first
  memman_free("r.c", 5, manager_, a);  // row 0 freed last: taken first
  void* reused[3] = {block(8), block(8), block(8)};
  // Rows 0 and 1 from the free list, then the next untouched row; numbers go on.
  const uint64_t rows[3] = {0, 1, 3};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(index_of(reused[i]), rows[i]) << i;
    EXPECT_EQ(row(rows[i]).block_number, 3u + static_cast<uint64_t>(i)) << i;
    memman_free("r.c", 9, manager_, reused[i]);
  }
  memman_free("r.c", 9, manager_, c);
}

TEST_F(MemmanTracked, CountersFollowTheCallersSizesAndOnlyAllocationsRaiseThePeak) {
  auto expect_usage = [&](uint64_t current, uint64_t peak) {
    uint64_t c = 0, p = 0;
    memman_usage(manager_, &c, &p);
    EXPECT_EQ(c, current);
    EXPECT_EQ(p, peak);
  };
  void* a = memman_alloc("u.c", 1, manager_, 1, 100);
  void* b = memman_alloc("u.c", 2, manager_, 2, 100);
  expect_usage(300, 300);
  memman_free("u.c", 3, manager_, a);
  expect_usage(200, 300);
  b = memman_realloc("u.c", 4, manager_, b, 1000);
  expect_usage(1000, 300);  // past the old peak, by realloc
  void* c = memman_alloc("u.c", 5, manager_, 1, 1);
  expect_usage(1001, 1001);
  memman_free("u.c", 6, manager_, b);
  memman_free("u.c", 7, manager_, c);
  expect_usage(0, 1001);
}

TEST_F(MemmanTracked, ReallocKeepsNumberRowAndContentAndMovesTheEndGuard) {
  unsigned char* p = block(10);
  for (int i = 0; i < 10; ++i) p[i] = static_cast<unsigned char>(i + 1);
  unsigned char* q = bytes(memman_realloc("m.c", 2, manager_, p, 5000));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(user_.last, "realloc 5072");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(q[i], i + 1);
  EXPECT_EQ(index_of(q), 0u);
  EXPECT_EQ(row(0).block_number, 0u);
  EXPECT_EQ(row(0).size, 5000u);
  EXPECT_EQ(row(0).raw, raw_of(q));
  EXPECT_TRUE(healthy(q - 32) && healthy(q + 5000));
  unsigned char* r = bytes(memman_realloc("m.c", 3, manager_, q, 3));  // shrink
  EXPECT_EQ(r[2], 3);
  EXPECT_TRUE(healthy(r + 3));
  // realloc of null allocates with undefined content; of size 0 it frees.
  void* n = memman_realloc("m.c", 4, manager_, nullptr, 64);
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(user_.last, "malloc 136");
  EXPECT_EQ(row(1).block_number, 1u);
  EXPECT_EQ(memman_realloc("m.c", 5, manager_, n, 0), nullptr);
  EXPECT_EQ(row(1).in_use, 0);
  memman_free("m.c", 6, manager_, r);
}

TEST_F(MemmanTracked, AlignedPairOnTrackedBlocks) {
  for (uint64_t alignment : {8u, 32u, 256u, 4096u}) {
    unsigned char* p = bytes(memman_alloc_aligned("l.c", 1, manager_, 40, alignment));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignment, 0u);
    // The reservation is one tracked block of size + alignment bytes.
    EXPECT_EQ(user_.last, "malloc " + std::to_string(40 + alignment + 72));
    std::memset(p, 0x77, 40);
    EXPECT_EQ(memman_scan("l.c", 2, manager_, 0), 0);
    memman_free_aligned("l.c", 3, manager_, p);
  }
  memman_free_aligned("l.c", 4, manager_, nullptr);
  // A null stored start is passed over in silence.
  unsigned char* p = bytes(memman_alloc_aligned("l.c", 5, manager_, 16, 64));
  void* start = nullptr;
  std::memcpy(&start, p - sizeof(void*), sizeof start);
  std::memset(p - sizeof(void*), 0, sizeof(void*));
  memman_free_aligned("l.c", 6, manager_, p);
  EXPECT_EQ(row(0).in_use, 1);
  memman_free("l.c", 7, manager_, start);
}

// The per-operation lines go to a print callback only above level 5, with
// or without a trace file; their exact form is checked in the trace file below.
TEST_F(MemmanTracked, OperationLinesReachAPrintCallbackAboveLevelFive) {
  TextSink sink;
  memman_set_print_callback(manager_, TextSink::receive, &sink);
  memman_set_levels(manager_, 0, 100);
  // A trace file that can't be opened is passed over in silence.
  memman_open_trace(manager_, (::testing::TempDir() + "no/such/folder/trace.txt").c_str(), "h");
  EXPECT_EQ(manager_->trace_file, nullptr);
  memman_close_trace(manager_);  // nothing open: nothing happens
  memman_trace_text(manager_, "lost");
  memman_trace_text(nullptr, "lost");
  EXPECT_EQ(sink.text, "");
  memman_set_levels(manager_, 0, 5);
  memman_free("o.c", 2, manager_, block(8));
  EXPECT_EQ(sink.text, "");
  memman_set_levels(manager_, 0, 6);
  memman_free("o.c", 4, manager_, block(8));
  EXPECT_EQ(sink.text.rfind("Alloc      #1", 0), 0u) << sink.text;
  EXPECT_NE(sink.text.find("\nFree       #1"), std::string::npos) << sink.text;
  memman_set_print_callback(manager_, nullptr, nullptr);
}

TEST_F(MemmanTracked, DeleteListsTheBlocksLeftAndReturnsTheirNumber) {
  TextSink sink;
  memman_set_print_callback(manager_, TextSink::receive, &sink);
  void* a = block(10);
  void* b = block(20);
  void* c = block(30);
  memman_free("k.c", 4, manager_, b);
  const std::string expected =
      "Deleting mem manager. Scanning memory\nScanning memory at 'd.c'(9)\n"
      "Space usage. Number of blocks: 2  Current usage: 0:0:0:40 Maximum usage: 0:0:0:60\n"
      "Checking leaks\n**** ALLOCATED  BLOCKS LEFT\n"
      "#0 at " +
      address(raw_of(a)) + " (" + address(raw_of(a) + 32) +
      ") is allocated\n"
      "#2 at " +
      address(raw_of(c)) + " (" + address(raw_of(c) + 32) +
      ") is allocated\n"
      "Done checking leaks\n";
  EXPECT_EQ(memman_delete("d.c", 9, &manager_), 2u);
  EXPECT_EQ(manager_, nullptr);
  EXPECT_EQ(sink.text, expected);
  // The blocks left stay with the allocator; everything else went back.
  EXPECT_EQ(user_.live(), 2);
  // With nobody listening the count is the same.
  manager_ = memman_create(1, &user_, Recorder::malloc, Recorder::calloc, Recorder::realloc,
                           Recorder::free);
  void* d = block(10);
  EXPECT_EQ(memman_delete("d.c", 9, &manager_), 1u);
  for (void* left : {a, c, d}) Recorder::free(&user_, raw_of(left));
}

std::vector<std::string> read_lines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

// asctime's form, "Www Mmm dd hh:mm:ss yyyy", without its line end.
bool is_asctime(const std::string& text) {
  char day[4], month[4];
  int d, h, m, s, y, used = 0;
  return text.size() == 24 &&
         std::sscanf(text.c_str(), "%3s %3s %2d %2d:%2d:%2d %4d%n", day, month, &d, &h, &m, &s, &y,
                     &used) == 7 &&
         used == 24;
}

TEST_F(MemmanTracked, TraceFileOfAScriptedSessionLineByLine) {
  const std::string path = ::testing::TempDir() + "memman_trace_session.txt";
  const std::string first = ::testing::TempDir() + "memman_trace_first.txt";
  MemManager* manager = manager_;
  manager_ = nullptr;
  memman_open_trace(manager, first.c_str(), "first");
  // A second open closes the first file with its closing line.
  memman_open_trace(manager, path.c_str(), "session one");
  void* p = memman_alloc("t.c", 10, manager, 10, 10);
  void* raw0 = raw_of(p);
  p = memman_realloc("t.c", 11, manager, p, 300);
  void* raw0_moved = raw_of(p);
  char* s = memman_strdup(nullptr, 12, manager, "hostkit");
  void* raw1 = raw_of(s);
  memman_free(nullptr, 13, manager, s);
  memman_trace_text(manager, "-- a note --\n");
  memman_scan("t.c", 14, manager, 3);
  EXPECT_EQ(memman_delete("t.c", 15, &manager), 1u);

  // Worked out by hand: usage 0 -> 100 (peak 100) -> 300 by realloc
  // (peak stays) -> 308 with the copy of "hostkit" (peak 308) -> 300.
  const std::string usage =
      "Space usage. Number of blocks: 1  Current usage: 0:0:0:300 Maximum usage: 0:0:0:308";
  const std::vector<std::string> expected = {
      "Header: session one",
      "",
      "File opened: <time>",
      "",
      "Alloc      #0            at " + address(raw0, "%-32p") + " of size " + pad("0:0:0:100", 16) +
          " (" + pad("0:0:0:0", 16) + ") in file 't.c(10)'.",
      "Rellocated()   #0      at " + address(raw0_moved, "%-10p") +
          " of size 0:0:0:300 (0:0:0:100) in file 't.c(11)'.",
      "Alloc      #1            at " + address(raw1, "%-32p") + " of size " + pad("0:0:0:8", 16) +
          " (" + pad("0:0:0:300", 16) + ") in file '(-1)'.",
      "Free       #1            at " + address(raw1, "%-32p") +
          " of size 0:0:0:8 (0:0:0:300) in file '(13)'",
      "-- a note --",
      "Scanning memory at 't.c'(14)",
      usage,
      "Deleting mem manager. Scanning memory",
      "Scanning memory at 't.c'(15)",
      usage,
      "Checking leaks",
      "**** ALLOCATED  BLOCKS LEFT",
      "#0 at " + address(raw0_moved) + " (" + address(bytes(raw0_moved) + 32) + ") is allocated",
      "Done checking leaks",
      "",
      "File closed: <time>",
      ""};
  const std::vector<std::string> closed_first = {
      "Header: first", "", "File opened: <time>", "", "", "File closed: <time>", ""};
  const std::pair<std::string, std::vector<std::string>> files[] = {{path, expected},
                                                                    {first, closed_first}};
  for (const auto& [file, want] : files) {
    const std::vector<std::string> lines = read_lines(file);
    ASSERT_EQ(lines.size(), want.size()) << file;
    for (size_t i = 0; i < lines.size(); ++i) {
      const size_t at = want[i].find("<time>");
      if (at == std::string::npos) {
        EXPECT_EQ(lines[i], want[i]) << file << " line " << i;
      } else {
        EXPECT_EQ(lines[i].substr(0, at), want[i].substr(0, at)) << file << " line " << i;
        EXPECT_TRUE(is_asctime(lines[i].substr(at))) << file << ": " << lines[i];
      }
    }
    std::remove(file.c_str());
  }
  Recorder::free(&user_, raw0_moved);
}

// ---- Fault injection -------------------------------------------------------

TEST(MemmanFaults, EveryFailingCallIsReportedAndLeaksNothing) {
  // The session's allocating calls: 3 to create the manager, then the table's
  // two arrays and a block, then one call per operation.
  const char* lines[] = {
      "Out of space while trying to allocate a block of size 64 in file 'f.c(1)'\n",
      "Out of space while trying to allocate a block of size 30 in file 'f.c(2)'\n",
      "Out of space while trying to reallocate a block of size 500 in file 'f.c(3)'\n",
      "Out of space while trying to allocate a block of size 4 in file 'f.c(4)'\n",
      "Out of space while trying to allocate a block of size 164 in file 'f.c(5)'\n",
  };
  for (int n = 1; n <= 12; ++n) {
    SCOPED_TRACE(n);
    CountingAllocator user;
    user.fail_at = n;
    MemManager* manager = user.create_manager(1);
    if (n <= 3) {
      EXPECT_EQ(manager, nullptr);
      EXPECT_EQ(user.live, 0);
      continue;
    }
    ASSERT_NE(manager, nullptr);
    TextSink sink;
    memman_set_print_callback(manager, TextSink::receive, &sink);
    ::testing::internal::CaptureStdout();
    void* got[5] = {memman_alloc("f.c", 1, manager, 1, 64)};
    if (got[0] != nullptr) std::memset(got[0], 0x5A, 64);
    got[1] = memman_calloc("f.c", 2, manager, 3, 10);
    if (got[0] != nullptr) {
      got[2] = memman_realloc("f.c", 3, manager, got[0], 500);
      if (got[2] != nullptr) got[0] = nullptr;  // the old pointer is gone
    }
    got[3] = memman_strdup("f.c", 4, manager, "abc");
    got[4] = memman_alloc_aligned("f.c", 5, manager, 100, 64);
    const std::string out = ::testing::internal::GetCapturedStdout();
    // Exactly the failing operation reports, once, in the same words on
    // standard output and through the print callback.
    const std::string expected = n <= 6 ? lines[0] : n <= 10 ? lines[n - 6] : "";
    EXPECT_EQ(out, expected);
    EXPECT_EQ(sink.text, expected);
    if (n <= 6) {
      EXPECT_EQ(got[0], nullptr);
    }
    if (n == 8) {
      // The realloc failed: the old block keeps its bytes, row and count.
      ASSERT_NE(got[0], nullptr);
      EXPECT_EQ(bytes(got[0])[63], 0x5A);
      EXPECT_EQ(manager->table->entries[0].raw, raw_of(got[0]));
      uint64_t current = 0, peak = 0;
      memman_usage(manager, &current, &peak);
      EXPECT_EQ(current, 64u + 30u + 4u + 164u);  // the old block still counts 64
      EXPECT_EQ(memman_scan("f.c", 3, manager, 0), 0);
    }
    memman_set_print_callback(manager, nullptr, nullptr);
    for (int i = 0; i < 4; ++i) memman_free("f.c", 6, manager, got[i]);
    memman_free_aligned("f.c", 10, manager, got[4]);
    EXPECT_EQ(memman_delete("f.c", 11, &manager), 0u);
    EXPECT_EQ(user.live, 0);
  }
}

// ---- Fatal texts -------------------------------------------------------------

class MemmanTrackedDeathTest : public MemmanTracked {
 protected:
  void SetUp() override {
    MemmanTracked::SetUp();
    // No fatal callback: both fatal lines go out at threshold 0.
    memman_set_print_callback(manager_, hostkit_test::write_to_stderr, nullptr);
  }
};

TEST_F(MemmanTrackedDeathTest, GuardDamageNamesGuardBlockPositionAndBytes) {
  enum Op { kFree, kRealloc, kScan };
  // Guard byte i should read 32 + i; a byte above 0x7F prints sign-extended
  // through %u: 0xFF as 2^32 - 1, 0x80 as 2^32 - 128. A begin guard is shown
  // at the block's start, an end guard at its own address.
  const struct {
    uint64_t size;
    int64_t at;  // from the caller's first byte
    unsigned char value;
    Op op;
    const char* detail;
  } cases[] = {
      {24, 24, 'A', kFree, "pos: 0 expected: 32 got 65"},
      {24, 27, 0, kFree, "pos: 3 expected: 35 got 0"},
      {16, -1, 'z', kFree, "pos: 31 expected: 63 got 122"},
      {8, -32, 0xFF, kFree, "pos: 0 expected: 32 got 4294967295"},
      {8, 8 + 31, 0x80, kRealloc, "pos: 31 expected: 63 got 4294967168"},
      {8, 8, 0x21, kScan, "pos: 0 expected: 32 got 33"},
  };
  int number = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.detail);
    unsigned char* p = block(c.size);
    const unsigned char good = p[c.at];
    p[c.at] = c.value;
    const bool begin = c.at < 0;
    const std::string text = std::string(c.op == kScan ? "Scanning memory at 'g.c'(12)\n" : "") +
                             "Fatal error in file 'g.c(12)'\nMessage(): *** Block " +
                             (begin ? "begin" : "end") + " guard violation. #" +
                             std::to_string(number++) + " at <a>. " + c.detail + "\n";
    EXPECT_EXIT(
        {
          announce(begin ? raw_of(p) : p + c.size);
          if (c.op == kFree) memman_free("g.c", 12, manager_, p);
          if (c.op == kRealloc) memman_realloc("g.c", 12, manager_, p, 100);
          if (c.op == kScan) memman_scan("g.c", 12, manager_, 0);
        },
        ended_with_minus_99, ShowsAnnounced(text));
    p[c.at] = good;
    memman_free("g.c", 13, manager_, p);
  }
}

TEST_F(MemmanTrackedDeathTest, InvalidBlocksAreNamedByTheirStart) {
  unsigned char* mine = block(40);  // row 0, live
  unsigned char* freed = block(16);
  memman_free("d.c", 1, manager_, freed);
  auto dies = [&](unsigned char* p, bool realloc, const std::string& message) {
    EXPECT_EXIT(
        {
          announce(raw_of(p));
          if (realloc) memman_realloc("x.c", 2, manager_, p, 32);
          if (!realloc) memman_free("x.c", 2, manager_, p);
        },
        ended_with_minus_99,
        ShowsAnnounced("Fatal error in file 'x.c(2)'\nMessage(): " + message + "\n\n"));
  };
  dies(freed, false, "Invalid block <a> to deallocate.");  // a double free
  dies(freed, true, "Block at adr. <a> is not allocated.");
  // Foreign blocks: an index beyond the rows in use, then one naming a live
  // row whose block is elsewhere.
  alignas(8) unsigned char foreign[128] = {};
  for (uint64_t index : {99u, 0u}) {
    std::memcpy(foreign, &index, sizeof index);
    dies(foreign + kHeader, false, "Invalid block <a> to deallocate.");
  }
  memman_free("x.c", 6, manager_, mine);
}

TEST_F(MemmanTrackedDeathTest, ScanOfAnUntrustedManagerWritesToStandardOutputOnly) {
  EXPECT_EXIT(
      {
        hostkit_test::stdout_to_stderr();
        memman_scan("n.c", 5, nullptr, 0);
      },
      ended_with_minus_99,
      StartsWithText("Fatal error in file 'n.c(5)'\nMessage(): memman=NULL\n"));
  EXPECT_EXIT(
      {
        hostkit_test::stdout_to_stderr();
        announce(manager_);
        manager_->begin_tag[0] = 'B';
        memman_scan(nullptr, 6, manager_, 0);
      },
      ended_with_minus_99,
      // Only standard output: the print callback would have written the
      // "Scanning memory" line first.
      ShowsAnnounced("Fatal error in file '(6)'\nMessage(): begin guard of mman: <a>\n"));
}

// With a fatal callback the two lines go out at threshold 1000: a print
// callback sees them only above that level; the trace file always does.
// One death per test, since on Windows the child runs the test from its start.
class MemmanFatalLevelDeathTest : public MemmanTrackedDeathTest,
                                  public ::testing::WithParamInterface<int32_t> {};

TEST_P(MemmanFatalLevelDeathTest, LinesCallbackTraceFileAndExit) {
  const int32_t level = GetParam();
  const std::string path =
      ::testing::TempDir() + "memman_fatal_trace_" + std::to_string(level) + ".txt";
  unsigned char* p = block(4);
  p[4] = 0;
  memman_set_levels(manager_, 0, level);
  memman_set_fatal_callback(
      manager_,
      [](void* handle, const char* file, int32_t line, const char* text, int32_t code) {
        std::fprintf(stderr, "[%s|%s|%d|%s|%d]", static_cast<const char*>(handle), file, line, text,
                     code);
      },
      const_cast<char*>("cb"));
  const std::string message =
      "Message(): *** Block end guard violation. #0 at <p>. pos: 0 expected: 32 got 0\n";
  EXPECT_EXIT(
      {
        memman_open_trace(manager_, path.c_str(), "fatal");
        memman_free("q.c", 2, manager_, p);
      },
      ended_with_minus_99,
      StartsWithText((level > 1000 ? "Fatal error in file 'q.c(2)'\n" + message : "") +
                     "[cb|q.c|2|" + message + "|-1]"));
  // The trace file got both lines, and was closed after them.
  const std::vector<std::string> trace = read_lines(path);
  std::remove(path.c_str());
  ASSERT_EQ(trace.size(), 9u);
  EXPECT_EQ(trace[0], "Header: fatal");
  EXPECT_EQ(trace[4], "Fatal error in file 'q.c(2)'");
  EXPECT_EQ(trace[5].substr(0, 48), message.substr(0, 48));
  EXPECT_EQ(trace[6], "");
  EXPECT_EQ(trace[7].substr(0, 13), "File closed: ");
  p[4] = 0x20;
  memman_free("q.c", 3, manager_, p);
}

INSTANTIATE_TEST_SUITE_P(BelowAndAbove, MemmanFatalLevelDeathTest, ::testing::Values(10, 1001));

// A tracked manager of an environment ends through the environment's route.
TEST(MemmanFatalCallbackDeathTest, EnvironmentManagerAbortsWithItsFourLines) {
  SysEnv* env = sysenv_create(0, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(env, nullptr);
  sysenv_set_stream(env, 0, nullptr, hostkit_test::write_to_stderr);
  unsigned char* p = bytes(SYSENV_ALLOC(env, 1, 10));
  p[10] = 1;
  EXPECT_DEATH(sysenv_free(env, "e.c", 5, p),
               StartsWithText("\n\nFatal error\nFile : e.c\nLine : 5\nMsg. : Message(): *** Block "
                              "end guard violation. #2 at <p>. pos: 0 expected: 32 got 1\n\n"));
  p[10] = 0x20;
  sysenv_free(env, "e.c", 6, p);
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

// ---- Several threads on one manager -----------------------------------------

constexpr int kWindow = 300;

struct Worker {
  MemManager* manager;
  unsigned char mark;
  int damaged = 0;
  unsigned char* live[kWindow] = {};
  uint64_t sizes[kWindow] = {};
  void check(int slot) {
    for (uint64_t i = 0; i < sizes[slot]; ++i) {
      if (live[slot][i] != mark) {
        ++damaged;
        return;
      }
    }
  }
};

// Allocates, reallocates and frees 100000 blocks, leaving a window of them
// alive so that the threads together push the table past its first size.
void* churn(void* argument) {
  auto* w = static_cast<Worker*>(argument);
  for (int i = 0; i < 100000; ++i) {
    const int slot = i % kWindow;
    if (w->live[slot] != nullptr) {
      w->check(slot);
      if (i % 2 == 0) {
        w->live[slot] =
            bytes(memman_realloc("c.c", 1, w->manager, w->live[slot], w->sizes[slot] + 24));
        w->check(slot);  // the old bytes moved with the block
        w->sizes[slot] += 24;
        std::memset(w->live[slot], w->mark, w->sizes[slot]);
      }
      memman_free("c.c", 2, w->manager, w->live[slot]);
    }
    w->sizes[slot] = 1 + static_cast<uint64_t>(i * 7) % 200;
    w->live[slot] = bytes(memman_alloc("c.c", 3, w->manager, 1, w->sizes[slot]));
    std::memset(w->live[slot], w->mark, w->sizes[slot]);
  }
  return nullptr;
}

TEST(MemmanThreads, FourThreadsChurningOneManagerLeaveNoDamageAndNoLeak) {
  CountingAllocator user;  // its counts are safe: callbacks run under the manager's lock
  MemManager* manager = user.create_manager(1);
  ASSERT_NE(manager, nullptr);
  Worker workers[4] = {{manager, 'A'}, {manager, 'B'}, {manager, 'C'}, {manager, 'D'}};
  SysThread threads[4];
  for (int t = 0; t < 4; ++t) {
    ASSERT_EQ(systhread_create(&threads[t], nullptr, churn, &workers[t]), 0);
  }
  for (int t = 0; t < 4; ++t) EXPECT_EQ(systhread_join(&threads[t], nullptr), 0);
  EXPECT_EQ(manager->table->next_number, 400000u);
  EXPECT_GE(manager->table->capacity, 2048u);
  TextSink sink;
  memman_set_print_callback(manager, TextSink::receive, &sink);
  EXPECT_EQ(memman_scan("c.c", 5, manager, 0), 0);  // all 4 x 300 windows are still alive
  EXPECT_EQ(
      sink.text.rfind("Scanning memory at 'c.c'(5)\nSpace usage. Number of blocks: 1200  ", 0), 0u)
      << sink.text;
  for (Worker& w : workers) {
    for (int slot = 0; slot < kWindow; ++slot) {
      w.check(slot);
      memman_free("c.c", 4, manager, w.live[slot]);
    }
    EXPECT_EQ(w.damaged, 0);
  }
  sink.text.clear();
  EXPECT_EQ(memman_delete("c.c", 6, &manager), 0u);
  EXPECT_EQ(sink.text.find("**** ALLOCATED"), std::string::npos);
  EXPECT_EQ(user.live, 0);
}

// The lowest descriptor a new stream gets: streams are given the lowest free
// one, so a stream left open behind raises it.
int lowest_free_descriptor(const std::string& path) {
  std::FILE* probe = std::fopen(path.c_str(), "a");
  const int descriptor = probe != nullptr ? fileno(probe) : -1;
  if (probe != nullptr) std::fclose(probe);
  return descriptor;
}

void open_and_close_trace(MemManager* manager, const std::string& path) {
  for (int i = 0; i < 5000; ++i) {
    memman_open_trace(manager, path.c_str(), "race");
    memman_close_trace(manager);
  }
}

TEST(MemmanThreads, TwoThreadsOpeningAndClosingTheTraceLeaveNoStreamBehind) {
  CountingAllocator user;
  MemManager* manager = user.create_manager(1);
  const std::string path = ::testing::TempDir() + "memman_trace_race.txt";
  const int lowest = lowest_free_descriptor(path);
  std::thread other(open_and_close_trace, manager, path);
  open_and_close_trace(manager, path);
  other.join();
  EXPECT_EQ(manager->trace_file, nullptr);
  EXPECT_EQ(lowest_free_descriptor(path), lowest);
  memman_delete("r.c", 1, &manager);
  std::remove(path.c_str());
}

// A print callback that keeps every line it is given in a block of the
// manager it listens to (but not the line of its own copy).
struct LineKeeper {
  MemManager* manager = nullptr;
  bool copying = false;
  std::vector<char*> lines;
  static void receive(void* handle, const char* text) {
    auto* self = static_cast<LineKeeper*>(handle);
    if (self->copying) return;
    self->copying = true;
    self->lines.push_back(memman_strdup("k.c", 1, self->manager, text));
    self->copying = false;
  }
};

// With 1023 live blocks the line of an allocation is copied into the last
// row; with 1024 the copies of the lines of a reallocation and a release
// grow the table under them.
TEST(MemmanCallbacks, APrintCallbackMayAllocateFromItsOwnManager) {
  for (int live : {1023, 1024}) {
    CountingAllocator user;
    LineKeeper keeper;
    keeper.manager = user.create_manager(1);
    std::vector<void*> blocks;
    for (int i = 0; i < live; ++i) blocks.push_back(memman_alloc("a.c", 1, keeper.manager, 1, 8));
    memman_set_levels(keeper.manager, 0, 10);
    memman_set_print_callback(keeper.manager, LineKeeper::receive, &keeper);
    blocks.push_back(memman_alloc("a.c", 2, keeper.manager, 1, 8));
    blocks[0] = memman_realloc("a.c", 3, keeper.manager, blocks[0], 64);
    memman_free("a.c", 4, keeper.manager, blocks[1]);
    blocks.erase(blocks.begin() + 1);
    EXPECT_EQ(keeper.lines.size(), 3u) << live;
    EXPECT_EQ(memman_scan("a.c", 5, keeper.manager, 0), 0);  // dies on a damaged guard
    // The lines of the closing sequence up to the listing are copied too
    // (its start, the scan's two lines, "Checking leaks"), and the listing
    // counts the blocks live when it begins.
    const uint64_t left = blocks.size() + keeper.lines.size() + 4;
    EXPECT_EQ(memman_delete("a.c", 6, &keeper.manager), left) << live;
    for (void* p : blocks) CountingAllocator::free(&user, raw_of(p));
    for (char* p : keeper.lines) CountingAllocator::free(&user, raw_of(p));
    EXPECT_EQ(user.live, 0) << live;
  }
}

}  // namespace
