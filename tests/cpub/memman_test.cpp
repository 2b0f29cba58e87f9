// What the memory manager says (the trace file of a short session, the
// message levels, the size text), how it ends a run on damage (the exact
// fatal texts), and several threads or a re-entering print callback on one
// manager. The allocation rules themselves are memman_model_test's.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <latch>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "cpub.h"
#include "test_support.h"

namespace {

using hostkit_test::CountingAllocator;
using hostkit_test::StartsWithText;

unsigned char* bytes(void* p) { return static_cast<unsigned char*>(p); }
unsigned char* raw_of(void* p) { return bytes(p) - 40; }

std::vector<std::string> read_lines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) lines.push_back(line.substr(0, line.find('\r')));
  return lines;
}

// Compares a trace file with its expected text in tests/cpub/data, where
// "<pN>" is the address `addresses[N]` as %p prints it, "<pN:W>" the same
// padded to W columns (a padded %p differs from a plain one on some
// platforms), and "<time>" a local time as asctime writes it.
void expect_trace(const std::string& path, const char* expected, const std::vector<void*>& addresses) {
  const std::vector<std::string> want = read_lines(std::string(HOSTKIT_CPUB_DATA) + "/" + expected);
  const std::vector<std::string> got = read_lines(path);
  ASSERT_EQ(got.size(), want.size()) << expected;
  const std::regex asctime("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}");
  for (size_t i = 0; i < want.size(); ++i) {
    std::string line = want[i];
    for (size_t n = 0; n < addresses.size(); ++n) {
      for (int width : {0, 10, 32}) {
        const std::string token = "<p" + std::to_string(n) + (width ? ":" + std::to_string(width) : "") + ">";
        char text[64];
        std::snprintf(text, sizeof text, width ? "%-*p" : "%*p", width, addresses[n]);
        for (size_t at; (at = line.find(token)) != line.npos;) line.replace(at, token.size(), text);
      }
    }
    const size_t time = line.find("<time>");
    EXPECT_EQ(got[i].substr(0, time), line.substr(0, time)) << expected << " line " << i;
    if (time != line.npos) {
      EXPECT_TRUE(std::regex_match(got[i].substr(time), asctime)) << got[i];
    }
  }
}

TEST(MemmanMessages, TraceFileOfAShortSession) {
  CountingAllocator user;
  MemManager* manager = user.create_manager(1);
  const std::string path = "memman_trace_session.txt", first = "memman_trace_first.txt";
  memman_open_trace(manager, first.c_str(), "first");
  memman_open_trace(manager, path.c_str(), "session one");  // closes the first
  // Usage 0, 100 (peak 100), 300 by reallocation (peak stays), 308 with the
  // copy of "hostkit" (peak 308), 300.
  void* p = memman_alloc("t.c", 10, manager, 10, 10);
  void* raw0 = raw_of(p);
  p = memman_realloc("t.c", 11, manager, p, 300);
  char* s = memman_strdup(nullptr, 12, manager, "hostkit");
  memman_free(nullptr, 13, manager, s);
  memman_trace_text(manager, "-- a note --\n");
  memman_scan("t.c", 14, manager, 3);
  EXPECT_EQ(memman_delete("t.c", 15, &manager), 1u);
  expect_trace(path, "trace_session.txt", {raw0, raw_of(p), raw_of(s), raw_of(p) + 32});
  expect_trace(first, "trace_first.txt", {});
  CountingAllocator::free(&user, raw_of(p));
  EXPECT_EQ(user.live, 0);
  std::remove(path.c_str());
  std::remove(first.c_str());
}

// A print callback hears a message when the level is above its threshold:
// the line of every operation above 5, the closing lines above 1, the leak
// listing above 0. A trace file that can't be opened is silent, and so is
// text for none. A copy of no string is empty; an aligned size that wraps
// is refused. Sizes in plain and grouped text.
TEST(MemmanMessages, LevelsAndSizes) {
  for (int32_t level : {1, 5, 6}) {
    CountingAllocator user;
    MemManager* manager = user.create_manager(1);
    hostkit_test::TextSink sink;
    memman_set_print_callback(manager, hostkit_test::TextSink::receive, &sink);
    memman_set_levels(manager, 0, level);
    memman_open_trace(manager, "no/such/folder/t.txt", "h");
    memman_trace_text(manager, "lost");
    memman_trace_text(nullptr, "lost");
    memman_free("o.c", 2, manager, memman_alloc("o.c", 1, manager, 1, 8));
    char* empty = memman_strdup("o.c", 4, manager, nullptr);  // a copy of none is empty
    EXPECT_STREQ(empty, "");
    memman_free("o.c", 5, manager, empty);
    EXPECT_EQ(memman_alloc_aligned("o.c", 6, manager, UINT64_MAX - 3, 64), nullptr);
    memman_delete("d.c", 3, &manager);
    EXPECT_EQ(sink.text.find("Alloc      #0") == 0, level == 6) << sink.text;
    EXPECT_EQ(sink.text.find("Deleting mem manager.") != std::string::npos, level > 1) << sink.text;
    EXPECT_NE(sink.text.find("Checking leaks\nDone checking leaks\n"), std::string::npos);
    EXPECT_EQ(user.live, 0);
  }
  const std::tuple<int32_t, uint64_t, const char*> sizes[] = {
      {1, 1234567, "0:1:181:647"},  // 1 MiB + 181 KiB + 647
      {1, (uint64_t{5} << 30) + (uint64_t{1} << 20) + 1, "5:1:0:1"},
      {0, UINT64_MAX, "18446744073709551615"}};
  for (const auto& [grouped, value, text] : sizes) {
    char buffer[128];
    memman_format_size(grouped, sizeof buffer, buffer, value);
    EXPECT_STREQ(buffer, text);
  }
  char small[4];
  memman_format_size(0, sizeof small, small, 123456);
  EXPECT_STREQ(small, "123");
}

// ---- The end of a run on damage ---------------------------------------------

// exit(-99): -99 where the platform keeps 32 bits of the status, 157 where it keeps 8.
bool ended_with_minus_99(int status) {
  return ::testing::ExitedWithCode(-99)(status) || ::testing::ExitedWithCode(157)(status);
}

class MemmanDeathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    user_.park = true;  // a block freed twice is still there to be read, as in a real heap
    manager_ = user_.create_manager(1);
    // No fatal callback: both fatal lines go out at threshold 0.
    memman_set_print_callback(manager_, hostkit_test::write_to_stderr, nullptr);
  }
  void TearDown() override {
    memman_delete("t.c", 1, &manager_);
    EXPECT_EQ(user_.live, 0);
  }
  unsigned char* block(uint64_t size) { return bytes(memman_alloc("b.c", 1, manager_, 1, size)); }
  CountingAllocator user_;
  MemManager* manager_ = nullptr;
};

// Guard byte i should read 32 + i; a byte above 0x7F prints sign-extended
// through %u. A begin guard is named by its block's start, an end guard by
// its own address. "<a>" in a text is the address the child announces.
TEST_F(MemmanDeathTest, GuardDamageNamesGuardBlockPositionAndBytes) {
  enum Op { kFree, kRealloc, kScan };
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
    unsigned char* p = block(c.size);
    const unsigned char good = p[c.at];
    p[c.at] = c.value;
    const bool begin = c.at < 0;
    EXPECT_EXIT(
        {
          hostkit_test::announce(begin ? raw_of(p) : p + c.size);
          if (c.op == kFree) memman_free("g.c", 12, manager_, p);
          if (c.op == kRealloc) memman_realloc("g.c", 12, manager_, p, 100);
          if (c.op == kScan) memman_scan("g.c", 12, manager_, 0);
        },
        ended_with_minus_99,
        StartsWithText(std::string(c.op == kScan ? "Scanning memory at 'g.c'(12)\n" : "") +
                       "Fatal error in file 'g.c(12)'\nMessage(): *** Block " +
                       (begin ? "begin" : "end") + " guard violation. #" +
                       std::to_string(number++) + " at <a>. " + c.detail + "\n"));
    p[c.at] = good;
    memman_free("g.c", 13, manager_, p);
  }
}

// A block freed before, or one whose row names another block (an index past
// the rows in use, or row 0), is named by its start; so is a manager that
// can't be trusted, whose scan writes only to standard output.
TEST_F(MemmanDeathTest, BlocksNoRowClaimsAndUntrustedManagers) {
  unsigned char* live = block(40);  // row 0
  unsigned char* freed = block(16);
  memman_free("d.c", 1, manager_, freed);
  alignas(8) unsigned char foreign[2][128] = {};
  const uint64_t beyond = 99;
  std::memcpy(foreign[0], &beyond, sizeof beyond);
  const std::tuple<unsigned char*, bool, const char*> cases[] = {
      {freed, false, "Invalid block <a> to deallocate."},
      {freed, true, "Block at adr. <a> is not allocated."},
      {foreign[0] + 40, false, "Invalid block <a> to deallocate."},
      {foreign[1] + 40, true, "Block at adr. <a> is not allocated."}};
  for (const auto& [p, realloc, text] : cases) {
    EXPECT_EXIT(
        {
          hostkit_test::announce(raw_of(p));
          if (realloc) memman_realloc("x.c", 2, manager_, p, 32);
          if (!realloc) memman_free("x.c", 2, manager_, p);
        },
        ended_with_minus_99,
        StartsWithText("Fatal error in file 'x.c(2)'\nMessage(): " + std::string(text) + "\n\n"));
  }
  memman_free("x.c", 6, manager_, live);
  EXPECT_EXIT(
      {
        hostkit_test::stdout_to_stderr();
        memman_scan("n.c", 5, nullptr, 0);
      },
      ended_with_minus_99, StartsWithText("Fatal error in file 'n.c(5)'\nMessage(): memman=NULL\n"));
  EXPECT_EXIT(
      {
        hostkit_test::stdout_to_stderr();
        hostkit_test::announce(manager_);
        manager_->begin_tag[0] = 'B';
        memman_scan(nullptr, 6, manager_, 0);
      },
      ended_with_minus_99,
      StartsWithText("Fatal error in file '(6)'\nMessage(): begin guard of mman: <a>\n"));
}

// A tracked manager of an environment ends through the environment's route:
// the environment's handler is the manager's fatal callback, so the
// manager's own two lines go out only at a level above 1000, and only the
// environment's four lines are seen; the trace file gets the two lines
// always, and is closed after them.
TEST(MemmanEnvironmentDeathTest, AbortsWithTheEnvironmentsFourLines) {
  SysEnv* env = sysenv_create(0, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
  sysenv_set_stream(env, 0, nullptr, hostkit_test::write_to_stderr);
  unsigned char* p = bytes(SYSENV_ALLOC(env, 1, 10));
  p[10] = 1;
  const char* path = "memman_fatal.txt";
  const std::string message = "Message(): *** Block end guard violation. #2 at <p>. pos: 0 expected: 32 got 1";
  EXPECT_DEATH(
      {
        memman_open_trace(env->memory, path, "fatal");
        sysenv_free(env, "e.c", 5, p);
      },
      StartsWithText("\n\nFatal error\nFile : e.c\nLine : 5\nMsg. : " + message + "\n\n"));
  const std::vector<std::string> trace = read_lines(path);
  std::remove(path);
  ASSERT_EQ(trace.size(), 9u);
  EXPECT_EQ(trace[4] + trace[5].substr(0, 48), "Fatal error in file 'e.c(5)'" + message.substr(0, 48));
  EXPECT_EQ(trace[7].substr(0, 13), "File closed: ");
  p[10] = 0x20;
  sysenv_free(env, "e.c", 6, p);
  sysenv_destroy(&env);
}

// ---- Several threads, and a callback that allocates -------------------------

// Four threads each keep a window of 300 blocks alive, filled with their
// own letter, reallocating and freeing 100000 times: no block changes under
// its owner. Each fills its window before any goes on, so 1200 blocks live
// at once and the table grows past its first 1024 rows while they run. Two
// threads opening and closing the trace file crash nothing and leave no
// stream open (a stream left behind would hold the lowest free descriptor,
// which a new stream gets).
TEST(MemmanThreads, ChurningBlocksAndTraceFilesOnOneManager) {
  CountingAllocator user;  // safe: callbacks run under the manager's lock
  MemManager* manager = user.create_manager(1);
  int damaged[4] = {};
  std::latch filled(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([manager, &filled, mark = static_cast<char>('A' + t),
                          damaged = &damaged[t]] {
      std::vector<char*> live(300, nullptr);
      for (int i = 0; i < 100000; ++i) {
        char*& p = live[static_cast<size_t>(i) % live.size()];
        if (p != nullptr) *damaged += std::string(p, 100) != std::string(100, mark);
        memman_free("c.c", 1, manager, p);
        p = static_cast<char*>(memman_alloc("c.c", 2, manager, 1, 50));
        std::memset(p, mark, 50);
        p = static_cast<char*>(memman_realloc("c.c", 3, manager, p, 100));
        std::memset(p + 50, mark, 50);
        if (i + 1 == static_cast<int>(live.size())) filled.arrive_and_wait();
      }
      for (char* p : live) memman_free("c.c", 4, manager, p);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(damaged[0] + damaged[1] + damaged[2] + damaged[3], 0);
  EXPECT_GE(manager->table->capacity, 2048u);

  const std::string path = "memman_trace_race.txt";
  auto lowest_free_descriptor = [&path] {
    std::FILE* probe = std::fopen(path.c_str(), "a");
    const int descriptor = fileno(probe);
    std::fclose(probe);
    return descriptor;
  };
  const int lowest = lowest_free_descriptor();
  auto open_and_close = [&] {
    for (int i = 0; i < 5000; ++i) {
      memman_open_trace(manager, path.c_str(), "race");
      memman_close_trace(manager);
    }
  };
  std::thread other(open_and_close);
  open_and_close();
  other.join();
  EXPECT_EQ(lowest_free_descriptor(), lowest);
  EXPECT_EQ(memman_delete("c.c", 6, &manager), 0u);
  EXPECT_EQ(user.live, 0);
  std::remove(path.c_str());
}

// A print callback that keeps every line in a block of the manager it
// listens to (not the line of its own copy). With 1023 live blocks the line
// of an allocation is copied into the last row; with 1024 the copies of the
// lines of a reallocation and a release grow the table under them. The
// listing at the end counts the blocks live when it begins: those left and
// the copies made so far, with those of the closing lines before it (its
// start, the scan's two lines, "Checking leaks").
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
    const uint64_t left = blocks.size() + keeper.lines.size() + 4;
    EXPECT_EQ(memman_delete("a.c", 6, &keeper.manager), left) << live;
    for (void* p : blocks) CountingAllocator::free(&user, raw_of(p));
    for (char* p : keeper.lines) CountingAllocator::free(&user, raw_of(p));
    EXPECT_EQ(user.live, 0) << live;
  }
}

}  // namespace
