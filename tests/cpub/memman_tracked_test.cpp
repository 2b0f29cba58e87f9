// The memory manager with tracking on: the block layout and its guards, the
// table (growth, last-in first-out reuse), counters, the tracked family, the
// reports (per-operation lines, leak listing, the trace file), the fatal
// texts, fault injection and several threads on one manager.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cpub.h"
#include "test_support.h"

namespace {

using hostkit_test::CountingAllocator;
using hostkit_test::StartsWithText;
using hostkit_test::TextSink;

// The block's shape: index (8), begin guard (32), caller's bytes, end guard (32).
constexpr uint64_t kHeader = 40;
constexpr uint64_t kOverhead = 72;

std::string address(const void* p) {
  char text[64];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

// An address as the line's own conversion prints it. The platforms' printf
// families differ in how %p looks (and mingw's in whether a width changes
// it), so the address field alone comes from the platform's printf.
std::string address_field(const char* conversion, const void* p) {
  char text[64];
  std::snprintf(text, sizeof text, conversion, p);
  return text;
}

std::string pad(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

unsigned char* raw_of(void* p) { return static_cast<unsigned char*>(p) - kHeader; }

uint64_t index_of(void* p) {
  uint64_t row = 0;
  std::memcpy(&row, raw_of(p), sizeof row);
  return row;
}

// A healthy guard reads 0x20, 0x21, ... 0x3F.
bool guard_is_healthy(const unsigned char* guard) {
  for (int i = 0; i < 32; ++i) {
    if (guard[i] != 0x20 + i) return false;
  }
  return true;
}

// The child of a death test may place its blocks elsewhere than the parent
// (on Windows it is a new process), so a child that must show a particular
// address announces it first, on a line of its own, and the matcher puts that
// address where the expected text says "<a>".
void announce(const void* p) {
  std::fprintf(stderr, "%p\n", p);
  std::fflush(stderr);
}

class AnnouncedMatcher : public ::testing::MatcherInterface<const std::string&> {
 public:
  explicit AnnouncedMatcher(std::string expected) : expected_(std::move(expected)) {}
  bool MatchAndExplain(const std::string& actual,
                       ::testing::MatchResultListener* listener) const override {
    std::string plain;
    for (char c : actual) {
      if (c != '\r') plain += c;
    }
    *listener << "whose text is \"" << plain << "\"";
    const size_t end = plain.find('\n');
    if (end == std::string::npos) return false;
    const std::string announced = plain.substr(0, end);
    std::string want = expected_;
    for (size_t at = want.find("<a>"); at != std::string::npos; at = want.find("<a>", at)) {
      want.replace(at, 3, announced);
      at += announced.size();
    }
    return plain.compare(end + 1, want.size(), want) == 0;
  }
  void DescribeTo(std::ostream* os) const override {
    *os << "an address line, then \"" << expected_ << "\" with that address for <a>";
  }

 private:
  std::string expected_;
};

::testing::Matcher<const std::string&> ShowsAnnounced(const std::string& expected) {
  return ::testing::MakeMatcher(new AnnouncedMatcher(expected));
}

// exit(-99): the status is -99 where the platform keeps 32 bits of it, and its
// low byte, 157, where it keeps 8.
bool ended_with_minus_99(int status) {
  return ::testing::ExitedWithCode(-99)(status) || ::testing::ExitedWithCode(157)(status);
}

// The counting allocator, also remembering what it was asked for last.
struct Recorder {
  CountingAllocator base;
  uint64_t malloc_size = 0;
  uint64_t calloc_count = 0;
  uint64_t calloc_size = 0;
  uint64_t realloc_size = 0;

  static void* malloc(void* handle, uint64_t size) {
    auto* self = static_cast<Recorder*>(handle);
    self->malloc_size = size;
    return CountingAllocator::malloc(&self->base, size);
  }
  static void* calloc(void* handle, uint64_t count, uint64_t size) {
    auto* self = static_cast<Recorder*>(handle);
    self->calloc_count = count;
    self->calloc_size = size;
    return CountingAllocator::calloc(&self->base, count, size);
  }
  static void* realloc(void* handle, void* pointer, uint64_t size) {
    auto* self = static_cast<Recorder*>(handle);
    self->realloc_size = size;
    return CountingAllocator::realloc(&self->base, pointer, size);
  }
  static void free(void* handle, void* pointer) {
    CountingAllocator::free(&static_cast<Recorder*>(handle)->base, pointer);
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
    EXPECT_EQ(user_.base.live, 0);
  }
  const MemBlockEntry& row(uint64_t index) const { return manager_->table->entries[index]; }
  Recorder user_;
  MemManager* manager_ = nullptr;
};

TEST_F(MemmanTracked, BlockCarriesItsRowIndexAndTwoGuards) {
  auto* p = static_cast<unsigned char*>(memman_alloc("a.c", 7, manager_, 10, 10));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(user_.malloc_size, 100 + kOverhead);
  EXPECT_EQ(index_of(p), 0u);
  EXPECT_TRUE(guard_is_healthy(p - 32));
  EXPECT_TRUE(guard_is_healthy(p + 100));
  const MemBlockEntry& entry = row(0);
  EXPECT_EQ(entry.in_use, 1);
  EXPECT_EQ(entry.block_number, 0u);
  EXPECT_EQ(entry.size, 100u);
  EXPECT_EQ(entry.raw, raw_of(p));
  EXPECT_EQ(entry.begin_seed, 0x20);
  EXPECT_EQ(entry.end_seed, 0x20);
  // The first block makes the first table: 1024 rows, one of them used.
  EXPECT_EQ(manager_->table->capacity, 1024u);
  EXPECT_EQ(manager_->table->used, 1u);
  EXPECT_EQ(manager_->table->free_head, 1024u);
  EXPECT_EQ(manager_->table->next_number, 1u);
  std::memset(p, 0xEE, 100);  // the whole of the caller's bytes may be written
  memman_free("a.c", 8, manager_, p);
  EXPECT_EQ(entry.in_use, 0);
  EXPECT_EQ(entry.raw, nullptr);
  EXPECT_EQ(manager_->table->free_head, 0u);
}

TEST_F(MemmanTracked, ZeroBytesMakeNoRowAndNoNumber) {
  const int before = user_.base.allocating_calls;
  EXPECT_EQ(memman_alloc("z.c", 1, manager_, 0, 8), nullptr);
  EXPECT_EQ(memman_calloc("z.c", 1, manager_, 8, 0), nullptr);
  EXPECT_EQ(memman_alloc_with("z.c", 1, manager_, 0, 0, 1), nullptr);
  EXPECT_EQ(user_.base.allocating_calls, before);
  EXPECT_EQ(manager_->table->next_number, 0u);
  EXPECT_EQ(manager_->table->used, 0u);
  const int frees = user_.base.free_calls;
  memman_free("z.c", 2, manager_, nullptr);  // no error, and nothing reaches the allocator
  EXPECT_EQ(user_.base.free_calls, frees);
}

TEST_F(MemmanTracked, ZeroedFormsAskCallocForTheWholeBlockInBytes) {
  auto* z = static_cast<unsigned char*>(memman_calloc("c.c", 1, manager_, 3, 7));
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(user_.calloc_count, 21 + kOverhead);
  EXPECT_EQ(user_.calloc_size, 1u);
  for (int i = 0; i < 21; ++i) EXPECT_EQ(z[i], 0) << i;
  EXPECT_TRUE(guard_is_healthy(z + 21));
  auto* w = static_cast<unsigned char*>(memman_alloc_with("c.c", 2, manager_, 5, 5, 1));
  EXPECT_EQ(user_.calloc_count, 25 + kOverhead);
  auto* m = static_cast<unsigned char*>(memman_alloc_with("c.c", 3, manager_, 5, 5, 0));
  EXPECT_EQ(user_.malloc_size, 25 + kOverhead);
  EXPECT_EQ(user_.base.calloc_calls, 2);
  for (void* p : {static_cast<void*>(z), static_cast<void*>(w), static_cast<void*>(m)}) {
    memman_free("c.c", 4, manager_, p);
  }
}

TEST_F(MemmanTracked, StringCopiesAreTrackedBlocksOfLengthPlusOne) {
  char* a = memman_strdup("s.c", 1, manager_, "hostkit");
  char* b = memman_strndup("s.c", 2, manager_, "hostkit", 4);
  char* c = memman_strndup("s.c", 3, manager_, "hostkit", 100);
  char* d = memman_strndup("s.c", 4, manager_, "hostkit", 0);
  char* e = memman_strdup("s.c", 5, manager_, nullptr);
  EXPECT_STREQ(a, "hostkit");
  EXPECT_STREQ(b, "host");
  EXPECT_STREQ(c, "hostkit");
  EXPECT_STREQ(d, "");
  EXPECT_STREQ(e, "");
  const uint64_t sizes[] = {8, 5, 8, 1, 1};
  char* all[] = {a, b, c, d, e};
  for (uint64_t i = 0; i < 5; ++i) {
    EXPECT_EQ(row(i).size, sizes[i]) << i;
    EXPECT_TRUE(guard_is_healthy(reinterpret_cast<unsigned char*>(all[i]) + sizes[i])) << i;
  }
  for (char* p : all) memman_free("s.c", 6, manager_, p);
}

TEST_F(MemmanTracked, The1025thLiveBlockDoublesTheTableAndEarlierBlocksStay) {
  std::vector<unsigned char*> blocks;
  for (int i = 0; i < 1024; ++i) {
    auto* p = static_cast<unsigned char*>(memman_alloc("g.c", i, manager_, 1, 16));
    ASSERT_NE(p, nullptr);
    std::memset(p, i & 0xFF, 16);
    blocks.push_back(p);
  }
  EXPECT_EQ(manager_->table->capacity, 1024u);
  const MemBlockEntry* old_entries = manager_->table->entries;
  auto* p = static_cast<unsigned char*>(memman_alloc("g.c", 2000, manager_, 1, 16));
  ASSERT_NE(p, nullptr);
  blocks.push_back(p);
  EXPECT_EQ(manager_->table->capacity, 2048u);
  EXPECT_NE(manager_->table->entries, old_entries);
  EXPECT_EQ(manager_->table->used, 1025u);
  EXPECT_EQ(manager_->table->free_head, 2048u);
  for (uint64_t i = 0; i < 1024; ++i) {
    EXPECT_EQ(index_of(blocks[i]), i);
    EXPECT_EQ(row(i).block_number, i);
    EXPECT_EQ(row(i).raw, raw_of(blocks[i]));
    EXPECT_EQ(blocks[i][15], i & 0xFF);
  }
  EXPECT_EQ(memman_scan("g.c", 1, manager_, 0), 0);
  for (unsigned char* b : blocks) memman_free("g.c", 3000, manager_, b);
  EXPECT_EQ(manager_->table->capacity, 2048u);  // capacity only grows
}

TEST_F(MemmanTracked, FreedRowsAreReusedLastInFirstOutWithNewNumbers) {
  void* a = memman_alloc("r.c", 1, manager_, 1, 8);
  void* b = memman_alloc("r.c", 2, manager_, 1, 8);
  void* c = memman_alloc("r.c", 3, manager_, 1, 8);
  memman_free("r.c", 4, manager_, b);  // row 1 freed first
  memman_free("r.c", 5, manager_, a);  // row 0 freed last: taken first
  void* x = memman_alloc("r.c", 6, manager_, 1, 8);
  void* y = memman_alloc("r.c", 7, manager_, 1, 8);
  void* z = memman_alloc("r.c", 8, manager_, 1, 8);
  EXPECT_EQ(index_of(x), 0u);
  EXPECT_EQ(index_of(y), 1u);
  EXPECT_EQ(index_of(z), 3u);  // free list empty: the next untouched row
  EXPECT_EQ(row(0).block_number, 3u);
  EXPECT_EQ(row(1).block_number, 4u);
  EXPECT_EQ(row(3).block_number, 5u);
  EXPECT_EQ(manager_->table->used, 4u);
  for (void* p : {c, x, y, z}) memman_free("r.c", 9, manager_, p);
}

TEST_F(MemmanTracked, CountersFollowTheCallersSizesAndOnlyAllocationsRaiseThePeak) {
  uint64_t current = 0, peak = 0;
  void* a = memman_alloc("u.c", 1, manager_, 1, 100);
  void* b = memman_alloc("u.c", 2, manager_, 2, 100);
  memman_usage(manager_, &current, &peak);
  EXPECT_EQ(current, 300u);
  EXPECT_EQ(peak, 300u);
  memman_free("u.c", 3, manager_, a);
  memman_usage(manager_, &current, &peak);
  EXPECT_EQ(current, 200u);
  EXPECT_EQ(peak, 300u);
  b = memman_realloc("u.c", 4, manager_, b, 1000);  // past the old peak
  memman_usage(manager_, &current, &peak);
  EXPECT_EQ(current, 1000u);
  EXPECT_EQ(peak, 300u);
  void* c = memman_alloc("u.c", 5, manager_, 1, 1);
  memman_usage(manager_, &current, &peak);
  EXPECT_EQ(current, 1001u);
  EXPECT_EQ(peak, 1001u);
  memman_free("u.c", 6, manager_, b);
  memman_free("u.c", 7, manager_, c);
  memman_usage(manager_, &current, &peak);
  EXPECT_EQ(current, 0u);
  EXPECT_EQ(peak, 1001u);
}

TEST_F(MemmanTracked, ReallocKeepsNumberRowAndContentAndMovesTheEndGuard) {
  auto* p = static_cast<unsigned char*>(memman_alloc("m.c", 1, manager_, 1, 10));
  for (int i = 0; i < 10; ++i) p[i] = static_cast<unsigned char>(i + 1);
  auto* q = static_cast<unsigned char*>(memman_realloc("m.c", 2, manager_, p, 5000));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(user_.realloc_size, 5000 + kOverhead);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(q[i], i + 1);
  EXPECT_EQ(index_of(q), 0u);
  EXPECT_EQ(row(0).block_number, 0u);
  EXPECT_EQ(row(0).size, 5000u);
  EXPECT_EQ(row(0).raw, raw_of(q));
  EXPECT_TRUE(guard_is_healthy(q - 32));
  EXPECT_TRUE(guard_is_healthy(q + 5000));
  auto* r = static_cast<unsigned char*>(memman_realloc("m.c", 3, manager_, q, 3));  // shrink
  EXPECT_EQ(r[2], 3);
  EXPECT_TRUE(guard_is_healthy(r + 3));
  EXPECT_EQ(manager_->table->next_number, 1u);

  // realloc of null allocates with undefined content; of size 0 it frees.
  const int callocs = user_.base.calloc_calls;
  void* n = memman_realloc("m.c", 4, manager_, nullptr, 64);
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(user_.base.calloc_calls, callocs);
  EXPECT_EQ(user_.malloc_size, 64 + kOverhead);
  EXPECT_EQ(row(1).block_number, 1u);
  EXPECT_EQ(memman_realloc("m.c", 5, manager_, n, 0), nullptr);
  EXPECT_EQ(row(1).in_use, 0);
  memman_free("m.c", 6, manager_, r);
}

TEST_F(MemmanTracked, AlignedPairOnTrackedBlocks) {
  for (uint64_t alignment : {8u, 32u, 256u, 4096u}) {
    auto* p = static_cast<unsigned char*>(memman_alloc_aligned("l.c", 1, manager_, 40, alignment));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignment, 0u);
    // The reservation is one tracked block of size + alignment bytes.
    EXPECT_EQ(user_.malloc_size, 40 + alignment + kOverhead);
    std::memset(p, 0x77, 40);  // inside the reservation, so its end guard stays whole
    EXPECT_EQ(memman_scan("l.c", 2, manager_, 0), 0);
    memman_free_aligned("l.c", 3, manager_, p);
  }
  memman_free_aligned("l.c", 4, manager_, nullptr);

  // A null stored start is passed over in silence.
  auto* p = static_cast<unsigned char*>(memman_alloc_aligned("l.c", 5, manager_, 16, 64));
  void* start = nullptr;
  std::memcpy(&start, p - sizeof(void*), sizeof start);
  std::memset(p - sizeof(void*), 0, sizeof(void*));
  memman_free_aligned("l.c", 6, manager_, p);
  EXPECT_EQ(row(0).in_use, 1);
  memman_free("l.c", 7, manager_, start);
}

// The lines of each operation, at threshold 5, with the raw address.
TEST_F(MemmanTracked, OperationLinesReachAPrintCallbackAboveLevelFive) {
  TextSink sink;
  memman_set_print_callback(manager_, TextSink::receive, &sink);
  memman_set_levels(manager_, 0, 5);  // 5 isn't above 5
  void* quiet = memman_alloc("o.c", 1, manager_, 1, 8);
  memman_free("o.c", 2, manager_, quiet);
  EXPECT_EQ(sink.text, "");

  memman_set_levels(manager_, 0, 6);
  void* p = memman_alloc("o.c", 3, manager_, 1, 1234567);
  // 1234567 bytes = 1 MiB + 181 KiB + 647; the usage before the block was 0.
  const std::string alloc_line =
      "Alloc      #1            at " + address_field("%-32p", raw_of(p)) + " of size " +
      pad("0:1:181:647", 16) + " (" + pad("0:0:0:0", 16) + ") in file 'o.c(3)'.\n";
  EXPECT_EQ(sink.text, alloc_line);
  sink.text.clear();
  memman_free("o.c", 4, manager_, p);
  EXPECT_EQ(sink.text, "Free       #1            at " + address_field("%-32p", raw_of(p)) +
                           " of size 0:1:181:647 (0:0:0:0) in file 'o.c(4)'\n");
  memman_set_print_callback(manager_, nullptr, nullptr);
}

TEST(MemmanTrackedDelete, ListsTheBlocksLeftAndReturnsTheirNumber) {
  CountingAllocator user;
  MemManager* manager = user.create_manager(1);
  ASSERT_NE(manager, nullptr);
  TextSink sink;
  memman_set_print_callback(manager, TextSink::receive, &sink);
  void* a = memman_alloc("k.c", 1, manager, 1, 10);
  void* b = memman_alloc("k.c", 2, manager, 1, 20);
  void* c = memman_alloc("k.c", 3, manager, 1, 30);
  memman_free("k.c", 4, manager, b);
  const std::string expected =
      "Deleting mem manager. Scanning memory\n"
      "Scanning memory at 'd.c'(9)\n"
      "Space usage. Number of blocks: 2  Current usage: 0:0:0:40 Maximum usage: 0:0:0:60\n"
      "Checking leaks\n"
      "**** ALLOCATED  BLOCKS LEFT\n"
      "#0 at " +
      address(raw_of(a)) + " (" + address(raw_of(a) + 32) +
      ") is allocated\n"
      "#2 at " +
      address(raw_of(c)) + " (" + address(raw_of(c) + 32) +
      ") is allocated\n"
      "Done checking leaks\n";
  EXPECT_EQ(memman_delete("d.c", 9, &manager), 2u);
  EXPECT_EQ(manager, nullptr);
  EXPECT_EQ(sink.text, expected);
  // The blocks left stay with the allocator; everything else went back.
  EXPECT_EQ(user.live, 2);
  user.free(&user, raw_of(a));
  user.free(&user, raw_of(c));
}

TEST(MemmanTrackedDelete, CountsBlocksLeftWithNobodyListening) {
  CountingAllocator user;
  MemManager* manager = user.create_manager(1);
  void* a = memman_alloc("k.c", 1, manager, 1, 10);
  EXPECT_EQ(memman_delete("d.c", 9, &manager), 1u);
  user.free(&user, raw_of(a));
  EXPECT_EQ(user.live, 0);
}

// Reads a text file into lines, without their line ends.
std::vector<std::string> read_lines(const std::string& path) {
  std::vector<std::string> lines;
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return lines;
  std::string line;
  int c;
  while ((c = std::fgetc(file)) != EOF) {
    if (c == '\n') {
      lines.push_back(line);
      line.clear();
    } else if (c != '\r') {
      line += static_cast<char>(c);
    }
  }
  if (!line.empty()) lines.push_back(line);
  std::fclose(file);
  return lines;
}

// asctime's form, "Www Mmm dd hh:mm:ss yyyy", without its line end.
bool is_asctime(const std::string& text) {
  const std::string shape = "Aaa Aaa _9 99:99:99 9999";
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < shape.size(); ++i) {
    const char c = text[i];
    const bool fits = shape[i] == 'A'   ? (c >= 'A' && c <= 'Z')
                      : shape[i] == 'a' ? (c >= 'a' && c <= 'z')
                      : shape[i] == '9' ? (c >= '0' && c <= '9')
                      : shape[i] == '_' ? (c == ' ' || (c >= '0' && c <= '9'))
                                        : c == shape[i];
    if (!fits) return false;
  }
  return true;
}

TEST(MemmanTraceFile, AScriptedSessionLineByLine) {
  const std::string path = ::testing::TempDir() + "memman_trace_session.txt";
  const std::string first = ::testing::TempDir() + "memman_trace_first.txt";
  CountingAllocator user;
  MemManager* manager = user.create_manager(1);
  ASSERT_NE(manager, nullptr);
  memman_open_trace(manager, first.c_str(), "first");
  EXPECT_STREQ(manager->trace_name, first.c_str());
  // A second open closes the first file with its closing line.
  memman_open_trace(manager, path.c_str(), "session one");
  EXPECT_STREQ(manager->trace_name, path.c_str());

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
  const std::vector<std::string> expected = {
      "Header: session one",
      "",
      "File opened: <time>",
      "",
      "Alloc      #0            at " + address_field("%-32p", raw0) + " of size " +
          pad("0:0:0:100", 16) + " (" + pad("0:0:0:0", 16) + ") in file 't.c(10)'.",
      "Rellocated()   #0      at " + address_field("%-10p", raw0_moved) +
          " of size 0:0:0:300 (0:0:0:100) in file 't.c(11)'.",
      "Alloc      #1            at " + address_field("%-32p", raw1) + " of size " +
          pad("0:0:0:8", 16) + " (" + pad("0:0:0:300", 16) + ") in file '(-1)'.",
      "Free       #1            at " + address_field("%-32p", raw1) +
          " of size 0:0:0:8 (0:0:0:300) in file '(13)'",
      "-- a note --",
      "Scanning memory at 't.c'(14)",
      "Space usage. Number of blocks: 1  Current usage: 0:0:0:300 Maximum usage: 0:0:0:308",
      "Deleting mem manager. Scanning memory",
      "Scanning memory at 't.c'(15)",
      "Space usage. Number of blocks: 1  Current usage: 0:0:0:300 Maximum usage: 0:0:0:308",
      "Checking leaks",
      "**** ALLOCATED  BLOCKS LEFT",
      "#0 at " + address(raw0_moved) + " (" +
          address(static_cast<unsigned char*>(raw0_moved) + 32) + ") is allocated",
      "Done checking leaks",
      "",
      "File closed: <time>",
      ""};
  std::vector<std::string> lines = read_lines(path);
  ASSERT_EQ(lines.size(), expected.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string& want = expected[i];
    const size_t at = want.find("<time>");
    if (at != std::string::npos) {
      EXPECT_EQ(lines[i].substr(0, at), want.substr(0, at)) << "line " << i;
      EXPECT_TRUE(is_asctime(lines[i].substr(at))) << "line " << i << ": " << lines[i];
    } else {
      EXPECT_EQ(lines[i], want) << "line " << i;
    }
  }

  std::vector<std::string> closed = read_lines(first);
  ASSERT_EQ(closed.size(), 7u);
  EXPECT_EQ(closed[0], "Header: first");
  EXPECT_EQ(closed[4], "");
  EXPECT_EQ(closed[5].substr(0, 13), "File closed: ");
  EXPECT_TRUE(is_asctime(closed[5].substr(13)));
  std::remove(path.c_str());
  std::remove(first.c_str());
  user.free(&user, raw0_moved);
  EXPECT_EQ(user.live, 0);
}

TEST(MemmanTraceFile, AFileThatCantBeOpenedIsSilent) {
  CountingAllocator user;
  MemManager* manager = user.create_manager(1);
  TextSink sink;
  memman_set_print_callback(manager, TextSink::receive, &sink);
  memman_set_levels(manager, 0, 100);
  memman_open_trace(manager, (::testing::TempDir() + "no/such/folder/trace.txt").c_str(), "h");
  EXPECT_EQ(manager->trace_file, nullptr);
  EXPECT_EQ(sink.text, "");
  memman_close_trace(manager);  // nothing open: nothing happens
  memman_trace_text(manager, "lost");
  memman_trace_text(nullptr, "lost");
  void* p = memman_alloc("h.c", 1, manager, 1, 1);
  memman_free("h.c", 2, manager, p);
  EXPECT_NE(sink.text.find("Alloc      #0"), std::string::npos);
  memman_delete("h.c", 3, &manager);
  EXPECT_EQ(user.live, 0);
}

// ---- Fault injection -------------------------------------------------------

// A scripted session on an allocator that fails its Nth allocating call.
// Returns which operations got null; frees what it got and checks for leaks.
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
    void* got[5] = {};
    got[0] = memman_alloc("f.c", 1, manager, 1, 64);
    if (got[0] != nullptr) std::memset(got[0], 0x5A, 64);
    got[1] = memman_calloc("f.c", 2, manager, 3, 10);
    void* moved = got[0] != nullptr ? memman_realloc("f.c", 3, manager, got[0], 500) : nullptr;
    if (got[0] != nullptr) {
      got[2] = moved;
      if (moved != nullptr) got[0] = nullptr;  // the old pointer is gone
    }
    got[3] = memman_strdup("f.c", 4, manager, "abc");
    got[4] = memman_alloc_aligned("f.c", 5, manager, 100, 64);
    const std::string out = ::testing::internal::GetCapturedStdout();

    // Exactly the failing operation reports, once, in the same words on
    // standard output and through the print callback.
    std::string expected;
    if (n <= 6) {
      expected = lines[0];  // the table's arrays or the first block
    } else if (n <= 10) {
      expected = lines[n - 6];
    }
    if (n == 8) {
      // The realloc failed: its old block is still readable and freeable.
      ASSERT_NE(got[0], nullptr);
      EXPECT_EQ(static_cast<unsigned char*>(got[0])[63], 0x5A);
    }
    EXPECT_EQ(out, expected);
    EXPECT_EQ(sink.text, expected);
    if (n <= 6) {
      EXPECT_EQ(got[0], nullptr);
    }
    memman_set_print_callback(manager, nullptr, nullptr);
    memman_free("f.c", 6, manager, got[0]);
    memman_free("f.c", 7, manager, got[1]);
    memman_free("f.c", 8, manager, got[2]);
    memman_free("f.c", 9, manager, got[3]);
    memman_free_aligned("f.c", 10, manager, got[4]);
    EXPECT_EQ(memman_delete("f.c", 11, &manager), 0u);
    EXPECT_EQ(user.live, 0);
  }
}

TEST(MemmanFaults, AFailedGrowthLeavesTheOldTableStanding) {
  CountingAllocator user;
  MemManager* manager = user.create_manager(1);
  ASSERT_NE(manager, nullptr);
  std::vector<void*> blocks;
  for (int i = 0; i < 1024; ++i) blocks.push_back(memman_alloc("w.c", i, manager, 1, 8));
  const MemBlockEntry* entries = manager->table->entries;
  const uint64_t* free_next = manager->table->free_next;
  // The growth asks for the new rows, then the new free list; fail each.
  for (int which = 1; which <= 2; ++which) {
    SCOPED_TRACE(which);
    user.fail_at = user.allocating_calls + which;
    const int64_t live = user.live;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(memman_alloc("w.c", 5000, manager, 1, 77), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Out of space while trying to allocate a block of size 77 in file 'w.c(5000)'\n");
    EXPECT_EQ(user.live, live);
    EXPECT_EQ(manager->table->capacity, 1024u);
    EXPECT_EQ(manager->table->entries, entries);
    EXPECT_EQ(manager->table->free_next, free_next);
    EXPECT_EQ(manager->table->used, 1024u);
    EXPECT_EQ(manager->table->next_number, 1024u);
  }
  user.fail_at = 0;
  void* extra = memman_alloc("w.c", 6000, manager, 1, 77);
  ASSERT_NE(extra, nullptr);
  EXPECT_EQ(manager->table->capacity, 2048u);
  EXPECT_EQ(manager->table->entries[1024].block_number, 1024u);
  blocks.push_back(extra);
  for (void* b : blocks) memman_free("w.c", 7000, manager, b);
  EXPECT_EQ(memman_delete("w.c", 8000, &manager), 0u);
  EXPECT_EQ(user.live, 0);
}

TEST(MemmanFaults, AFailedReallocLeavesBlockRowAndCounters) {
  CountingAllocator user;
  MemManager* manager = user.create_manager(1);
  auto* p = static_cast<unsigned char*>(memman_alloc("r.c", 1, manager, 1, 32));
  for (int i = 0; i < 32; ++i) p[i] = static_cast<unsigned char>(i);
  user.fail_at = user.allocating_calls + 1;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(memman_realloc("r.c", 2, manager, p, 5000), nullptr);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Out of space while trying to reallocate a block of size 5000 in file 'r.c(2)'\n");
  uint64_t current = 0, peak = 0;
  memman_usage(manager, &current, &peak);
  EXPECT_EQ(current, 32u);
  EXPECT_EQ(manager->table->entries[0].size, 32u);
  EXPECT_EQ(manager->table->entries[0].raw, raw_of(p));
  for (int i = 0; i < 32; ++i) EXPECT_EQ(p[i], i);
  EXPECT_EQ(memman_scan("r.c", 3, manager, 0), 0);
  memman_free("r.c", 4, manager, p);
  EXPECT_EQ(memman_delete("r.c", 5, &manager), 0u);
  EXPECT_EQ(user.live, 0);
}

// ---- Fatal texts -------------------------------------------------------------

// Keeps every block it is given back until its own end, so that a block
// freed twice is still there to be read, as it would be inside a real heap,
// and no memory checker reports the read itself. Blocks that a test leaves
// with the manager go back at the end too.
struct RetainingAllocator {
  std::vector<void*> blocks;
  static RetainingAllocator* self(void* handle) { return static_cast<RetainingAllocator*>(handle); }
  static void* keep(void* handle, void* block) {
    if (block != nullptr) self(handle)->blocks.push_back(block);
    return block;
  }
  static void* malloc(void* handle, uint64_t size) { return keep(handle, std::malloc(size)); }
  static void* calloc(void* handle, uint64_t count, uint64_t size) {
    return keep(handle, std::calloc(count, size));
  }
  static void* realloc(void* handle, void* pointer, uint64_t size) {
    void* block = std::realloc(pointer, size);
    if (block == nullptr) return nullptr;
    for (void*& kept : self(handle)->blocks) {
      if (kept == pointer) kept = nullptr;
    }
    return keep(handle, block);
  }
  static void free(void*, void*) {}
  ~RetainingAllocator() {
    for (void* p : blocks) std::free(p);
  }
};

class MemmanFatalDeathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager_ = memman_create(1, &user_, RetainingAllocator::malloc, RetainingAllocator::calloc,
                             RetainingAllocator::realloc, RetainingAllocator::free);
    ASSERT_NE(manager_, nullptr);
    // No fatal callback: both fatal lines go out at threshold 0.
    memman_set_print_callback(manager_, hostkit_test::write_to_stderr, nullptr);
  }
  void TearDown() override {
    memman_set_print_callback(manager_, nullptr, nullptr);
    memman_delete("t.c", 1, &manager_);
  }
  unsigned char* block(uint64_t size) {
    return static_cast<unsigned char*>(memman_alloc("b.c", 1, manager_, 1, size));
  }
  RetainingAllocator user_;
  MemManager* manager_ = nullptr;
};

TEST_F(MemmanFatalDeathTest, OneByteBehindTheBlock) {
  unsigned char* p = block(24);
  p[24] = 'A';
  EXPECT_EXIT(memman_free("g.c", 12, manager_, p), ended_with_minus_99,
              StartsWithText("Fatal error in file 'g.c(12)'\n"
                             "Message(): *** Block end guard violation. #0 at <p>. "
                             "pos: 0 expected: 32 got 65\n"));
  p[24] = 0x20;
  memman_free("g.c", 13, manager_, p);
}

TEST_F(MemmanFatalDeathTest, EndGuardReportShowsTheGuardsAddress) {
  unsigned char* p = block(24);
  p[24 + 3] = 0;
  EXPECT_EXIT(
      {
        announce(p + 24);
        memman_free("g.c", 12, manager_, p);
      },
      ended_with_minus_99,
      ShowsAnnounced("Fatal error in file 'g.c(12)'\nMessage(): *** Block end guard "
                     "violation. #0 at <a>. pos: 3 expected: 35 got 0\n"));
  p[27] = 0x23;
  memman_free("g.c", 13, manager_, p);
}

TEST_F(MemmanFatalDeathTest, OneByteBeforeTheBlock) {
  block(8);
  unsigned char* p = block(16);  // block #1
  p[-1] = 'z';
  EXPECT_EXIT(
      {
        announce(raw_of(p));
        memman_free("g.c", 20, manager_, p);
      },
      ended_with_minus_99,
      ShowsAnnounced("Fatal error in file 'g.c(20)'\nMessage(): *** Block begin guard "
                     "violation. #1 at <a>. pos: 31 expected: 63 got 122\n"));
  p[-1] = 0x3F;
  memman_free("g.c", 21, manager_, p);
}

TEST_F(MemmanFatalDeathTest, AByteAbove0x7FShowsItsSignExtension) {
  unsigned char* p = block(8);
  p[-32] = 0xFF;  // first byte of the begin guard
  EXPECT_EXIT(memman_free("g.c", 30, manager_, p), ended_with_minus_99,
              StartsWithText("Fatal error in file 'g.c(30)'\nMessage(): *** Block begin guard "
                             "violation. #0 at <p>. pos: 0 expected: 32 got 4294967295\n"));
  p[-32] = 0x20;
  p[8 + 31] = 0x80;  // last byte of the end guard: 0x80 is -128 as a signed byte
  EXPECT_EXIT(memman_realloc("g.c", 31, manager_, p, 100), ended_with_minus_99,
              StartsWithText("Fatal error in file 'g.c(31)'\nMessage(): *** Block end guard "
                             "violation. #0 at <p>. pos: 31 expected: 63 got 4294967168\n"));
  p[8 + 31] = 0x3F;
  memman_free("g.c", 32, manager_, p);
}

TEST_F(MemmanFatalDeathTest, DoubleFree) {
  unsigned char* p = block(40);
  memman_free("d.c", 1, manager_, p);
  EXPECT_EXIT(
      {
        announce(raw_of(p));
        memman_free("d.c", 2, manager_, p);
      },
      ended_with_minus_99,
      ShowsAnnounced("Fatal error in file 'd.c(2)'\nMessage(): Invalid block <a> to "
                     "deallocate.\n\n"));
}

TEST_F(MemmanFatalDeathTest, ForeignPointers) {
  unsigned char* mine = block(40);
  // An index beyond the rows in use.
  alignas(8) unsigned char foreign[128] = {};
  const uint64_t beyond = 99;
  std::memcpy(foreign, &beyond, sizeof beyond);
  EXPECT_EXIT(
      {
        announce(foreign);
        memman_free("x.c", 3, manager_, foreign + kHeader);
      },
      ended_with_minus_99,
      ShowsAnnounced("Fatal error in file 'x.c(3)'\nMessage(): Invalid block <a> to "
                     "deallocate.\n\n"));
  // An index naming a live row whose block is elsewhere.
  const uint64_t live_row = 0;
  std::memcpy(foreign, &live_row, sizeof live_row);
  EXPECT_EXIT(memman_free("x.c", 5, manager_, foreign + kHeader), ended_with_minus_99,
              StartsWithText("Fatal error in file 'x.c(5)'\nMessage(): Invalid block <p> to "
                             "deallocate.\n\n"));
  memman_free("x.c", 6, manager_, mine);
}

TEST_F(MemmanFatalDeathTest, ReallocOfAFreedBlock) {
  unsigned char* p = block(16);
  memman_free("r.c", 1, manager_, p);
  EXPECT_EXIT(
      {
        announce(raw_of(p));
        memman_realloc("r.c", 2, manager_, p, 32);
      },
      ended_with_minus_99,
      ShowsAnnounced("Fatal error in file 'r.c(2)'\nMessage(): Block at adr. <a> is not "
                     "allocated.\n\n"));
}

TEST_F(MemmanFatalDeathTest, ScanFindsADamagedBlockWithTheScansPlace) {
  block(8);
  unsigned char* p = block(8);
  block(8);
  p[8] = 0x21;
  EXPECT_EXIT(memman_scan("scan.c", 77, manager_, 0), ended_with_minus_99,
              StartsWithText("Scanning memory at 'scan.c'(77)\n"
                             "Fatal error in file 'scan.c(77)'\nMessage(): *** Block end guard "
                             "violation. #1 at <p>. pos: 0 expected: 32 got 33\n"));
  p[8] = 0x20;
}

TEST_F(MemmanFatalDeathTest, ScanOfAnUntrustedManagerWritesToStandardOutputOnly) {
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
class MemmanFatalLevelDeathTest : public ::testing::TestWithParam<int32_t> {};

TEST_P(MemmanFatalLevelDeathTest, LinesCallbackTraceFileAndExit) {
  const int32_t level = GetParam();
  const std::string path =
      ::testing::TempDir() + "memman_fatal_trace_" + std::to_string(level) + ".txt";
  RetainingAllocator user;
  MemManager* manager =
      memman_create(1, &user, RetainingAllocator::malloc, RetainingAllocator::calloc,
                    RetainingAllocator::realloc, RetainingAllocator::free);
  auto* p = static_cast<unsigned char*>(memman_alloc("q.c", 1, manager, 1, 4));
  p[4] = 0;
  memman_set_print_callback(manager, hostkit_test::write_to_stderr, nullptr);
  memman_set_levels(manager, 0, level);
  memman_set_fatal_callback(
      manager,
      [](void* handle, const char* file, int32_t line, const char* text, int32_t code) {
        std::fprintf(stderr, "[%s|%s|%d|%s|%d]", static_cast<const char*>(handle), file, line, text,
                     code);
      },
      const_cast<char*>("cb"));
  const std::string lines =
      level > 1000 ? "Fatal error in file 'q.c(2)'\nMessage(): *** Block end guard violation. "
                     "#0 at <p>. pos: 0 expected: 32 got 0\n"
                   : "";
  EXPECT_EXIT(
      {
        memman_open_trace(manager, path.c_str(), "fatal");
        memman_free("q.c", 2, manager, p);
      },
      ended_with_minus_99,
      StartsWithText(lines + "[cb|q.c|2|Message(): *** Block end guard violation. #0 at <p>. "
                             "pos: 0 expected: 32 got 0\n|-1]"));
  // The trace file got both lines, and was closed after them.
  std::vector<std::string> trace = read_lines(path);
  std::remove(path.c_str());
  ASSERT_EQ(trace.size(), 9u);
  EXPECT_EQ(trace[0], "Header: fatal");
  EXPECT_EQ(trace[4], "Fatal error in file 'q.c(2)'");
  EXPECT_EQ(trace[5].substr(0, 48), "Message(): *** Block end guard violation. #0 at ");
  EXPECT_EQ(trace[6], "");
  EXPECT_EQ(trace[7].substr(0, 13), "File closed: ");
  memman_set_print_callback(manager, nullptr, nullptr);
  p[4] = 0x20;
  memman_free("q.c", 3, manager, p);
  memman_delete("q.c", 4, &manager);
}

INSTANTIATE_TEST_SUITE_P(BelowAndAbove, MemmanFatalLevelDeathTest, ::testing::Values(10, 1001));

// A tracked manager of an environment ends through the environment's route.
TEST(MemmanFatalCallbackDeathTest, EnvironmentManagerAbortsWithItsFourLines) {
  SysEnv* env = sysenv_create(0, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(env, nullptr);
  sysenv_set_stream(env, 0, nullptr, hostkit_test::write_to_stderr);
  auto* p = static_cast<unsigned char*>(SYSENV_ALLOC(env, 1, 10));
  p[10] = 1;
  EXPECT_DEATH(sysenv_free(env, "e.c", 5, p),
               StartsWithText("\n\nFatal error\nFile : e.c\nLine : 5\nMsg. : Message(): *** Block "
                              "end guard violation. #2 at <p>. pos: 0 expected: 32 got 1\n\n"));
  p[10] = 0x20;
  sysenv_free(env, "e.c", 6, p);
  EXPECT_EQ(sysenv_destroy(&env), 0);
}

// ---- Several threads on one manager -----------------------------------------

struct Worker {
  MemManager* manager;
  unsigned char mark;
  int damaged;
};

// Allocates, reallocates and frees 100000 blocks, keeping a window of them
// alive so that the threads together push the table past its first size.
void* churn(void* argument) {
  auto* worker = static_cast<Worker*>(argument);
  constexpr int kWindow = 300;
  unsigned char* live[kWindow] = {};
  uint64_t sizes[kWindow] = {};
  auto intact = [&](int slot) {
    for (uint64_t i = 0; i < sizes[slot]; ++i) {
      if (live[slot][i] != worker->mark) return false;
    }
    return true;
  };
  for (int i = 0; i < 100000; ++i) {
    const int slot = i % kWindow;
    if (live[slot] != nullptr) {
      if (!intact(slot)) ++worker->damaged;
      if (i % 2 == 0) {
        const uint64_t grown = sizes[slot] + 24;
        live[slot] = static_cast<unsigned char*>(
            memman_realloc("c.c", 1, worker->manager, live[slot], grown));
        if (!intact(slot)) ++worker->damaged;
        std::memset(live[slot], worker->mark, grown);
        sizes[slot] = grown;
      }
      memman_free("c.c", 2, worker->manager, live[slot]);
    }
    sizes[slot] = 1 + static_cast<uint64_t>(i * 7) % 200;
    live[slot] =
        static_cast<unsigned char*>(memman_alloc("c.c", 3, worker->manager, 1, sizes[slot]));
    std::memset(live[slot], worker->mark, sizes[slot]);
  }
  for (int slot = 0; slot < kWindow; ++slot) {
    if (!intact(slot)) ++worker->damaged;
    memman_free("c.c", 4, worker->manager, live[slot]);
  }
  return nullptr;
}

TEST(MemmanThreads, FourThreadsChurningOneManagerLeaveNoDamageAndNoLeak) {
  CountingAllocator user;  // its counts are safe: callbacks run under the manager's lock
  MemManager* manager = user.create_manager(1);
  ASSERT_NE(manager, nullptr);
  Worker workers[4];
  SysThread threads[4];
  for (int t = 0; t < 4; ++t) {
    workers[t] = Worker{manager, static_cast<unsigned char>(0x41 + t), 0};
    ASSERT_EQ(systhread_create(&threads[t], nullptr, churn, &workers[t]), 0);
  }
  for (int t = 0; t < 4; ++t) EXPECT_EQ(systhread_join(&threads[t], nullptr), 0);
  for (const Worker& w : workers) EXPECT_EQ(w.damaged, 0);
  EXPECT_EQ(manager->table->next_number, 400000u);
  EXPECT_GE(manager->table->capacity, 2048u);  // 1200 blocks were alive at once

  TextSink sink;
  memman_set_print_callback(manager, TextSink::receive, &sink);
  EXPECT_EQ(memman_scan("c.c", 5, manager, 0), 0);
  EXPECT_EQ(sink.text.find("Scanning memory at 'c.c'(5)\n"
                           "Space usage. Number of blocks: 0  Current usage: 0:0:0:0 "),
            0u);
  sink.text.clear();
  EXPECT_EQ(memman_delete("c.c", 6, &manager), 0u);
  EXPECT_EQ(sink.text.find("**** ALLOCATED"), std::string::npos);
  EXPECT_EQ(user.live, 0);
}

}  // namespace
