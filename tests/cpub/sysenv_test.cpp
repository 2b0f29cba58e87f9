// The system environment: layout, creation with every allocation failing in
// turn, destruction, the stream slots, and the fatal path's exact texts.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "cpub.h"
#include "test_support.h"

namespace {

using hostkit_test::CountingAllocator;
using hostkit_test::StartsWithText;
using hostkit_test::TextSink;

// Field order of the published records.
static_assert(offsetof(SysEnv, log_level) == 0);
static_assert(offsetof(SysEnv, ready) == 4);
static_assert(offsetof(SysEnv, mode) == 8);
static_assert(offsetof(SysEnv, memory) == 16);
static_assert(offsetof(SysEnv, fatal_handler) == 24);
static_assert(offsetof(SysEnv, preset_a) < offsetof(SysEnv, preset_b));
static_assert(offsetof(SysEnv, has_sse3) < offsetof(SysEnv, path_separator));
static_assert(offsetof(SysEnv, path_variable) == offsetof(SysEnv, path_separator) + 1);
static_assert(offsetof(SysEnv, library_suffix) == offsetof(SysEnv, path_variable) + 80);
static_assert(offsetof(SysEnv, preset_c) < offsetof(SysEnv, stream_handle));
static_assert(offsetof(SysEnv, stream_callback) ==
              offsetof(SysEnv, stream_handle) + 10 * sizeof(void*));
static_assert(offsetof(SysEnvFatalHandler, callback) == sizeof(void*));

// Allocating calls that a successful creation makes: the manager's record,
// table and mutex, then the environment and its fatal handler record.
constexpr int kCreateCalls = 5;

TEST(SysEnvCreate, FillsEveryFieldAsDocumented) {
  SysEnv* env = sysenv_create(7, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(env, nullptr);
  EXPECT_EQ(env->ready, 1);
  EXPECT_EQ(env->log_level, 0);
  EXPECT_EQ(env->mode, 7);
  ASSERT_NE(env->memory, nullptr);
  ASSERT_NE(env->fatal_handler, nullptr);
  EXPECT_EQ(env->fatal_handler->handle, nullptr);
  EXPECT_EQ(env->fatal_handler->callback, nullptr);
  EXPECT_EQ(env->preset_a, 16);
  EXPECT_EQ(env->preset_b, -1);
  EXPECT_EQ(env->preset_c, 1);
  EXPECT_EQ(env->path_separator, ';');
  EXPECT_STREQ(env->path_variable, "PATH");
  EXPECT_STREQ(env->library_suffix, ".dll");
  EXPECT_TRUE(env->class_setting == 10 || env->class_setting == 10010);
  EXPECT_TRUE(env->has_sse2 == 0 || env->has_sse2 == 1);
  EXPECT_EQ(env->memory->fatal_callback, &sysenv_memman_fatal);
  EXPECT_EQ(env->memory->fatal_handle, env);
  EXPECT_EQ(memman_tracking(env->memory), 0);
  EXPECT_EQ(sysenv_destroy(&env), 0);
  EXPECT_EQ(env, nullptr);
}

TEST(SysEnvCreate, ThreeUserCallbacksOfFourMeanTheDefaults) {
  CountingAllocator user;
  SysEnv* env = sysenv_create(0, 0, &user, CountingAllocator::malloc, CountingAllocator::calloc,
                              nullptr, CountingAllocator::free);
  ASSERT_NE(env, nullptr);
  EXPECT_EQ(env->memory->user_handle, nullptr);
  EXPECT_EQ(env->memory->malloc_callback, &sysenv_default_malloc);
  EXPECT_EQ(env->memory->calloc_callback, &sysenv_default_calloc);
  EXPECT_EQ(env->memory->realloc_callback, &sysenv_default_realloc);
  EXPECT_EQ(env->memory->free_callback, &sysenv_default_free);
  void* block = SYSENV_ALLOC(env, 4, 8);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 32, 0u);
  SYSENV_FREE(env, block);
  EXPECT_EQ(sysenv_destroy(&env), 0);
  // The user's callbacks were never called, so the handle never reached them.
  EXPECT_EQ(user.malloc_calls + user.calloc_calls + user.realloc_calls + user.free_calls, 0);
}

TEST(SysEnvCreate, EveryFailingAllocationGivesNullOrTheHalfMadeRecordAndLeaksNothing) {
  for (int n = 1; n <= kCreateCalls + 1; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
    CountingAllocator user;
    user.fail_at = n;
    SysEnv* env = user.create_env();
    if (n <= 4) {
      // The manager's record, table or mutex, or the environment itself.
      EXPECT_EQ(env, nullptr);
      EXPECT_EQ(user.allocating_calls, n);
    } else if (n == 5) {
      // The fatal handler record: the half-made environment.
      ASSERT_NE(env, nullptr);
      EXPECT_EQ(env->ready, 0);
      EXPECT_NE(env->memory, nullptr);
      EXPECT_EQ(env->fatal_handler, nullptr);
      EXPECT_EQ(env->mode, 0);
      EXPECT_EQ(env->preset_a, 0);
      EXPECT_EQ(env->preset_b, 0);
      EXPECT_EQ(env->cache_l1, 0);
      EXPECT_EQ(env->path_variable[0], '\0');
      EXPECT_EQ(env->memory->fatal_callback, nullptr);
      sysenv_printf(env, "goes nowhere\n");
    } else {
      // All four user callbacks given: they serve, with the user's handle.
      ASSERT_NE(env, nullptr);
      EXPECT_EQ(env->ready, 1);
      EXPECT_EQ(env->memory->user_handle, &user);
      EXPECT_EQ(user.allocating_calls, kCreateCalls);
      EXPECT_EQ(user.calloc_calls, 2);  // the environment and its handler are zero-filled
    }
    EXPECT_EQ(sysenv_destroy(&env), 0);
    EXPECT_EQ(env, nullptr);
    EXPECT_EQ(user.live, 0);
  }
}

TEST(SysEnvDestroy, NullHandleIsNoError) {
  SysEnv* env = nullptr;
  EXPECT_EQ(sysenv_destroy(&env), 0);
  EXPECT_EQ(env, nullptr);
  EXPECT_EQ(sysenv_destroy(nullptr), 0);
}

class SysEnvStreams : public ::testing::Test {
 protected:
  void SetUp() override { env_ = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr); }
  void TearDown() override { sysenv_destroy(&env_); }
  SysEnv* env_ = nullptr;
};

TEST_F(SysEnvStreams, NoSlotMeansNoOutputAndNoFailure) { sysenv_printf(env_, "%s\n", "nobody"); }

TEST_F(SysEnvStreams, SlotsAreCalledInOrderWithTheSameText) {
  std::string order;
  static std::string* log;
  log = &order;
  auto first = [](void* h, const char* t) { *log += "0:" + std::string(t) + (h ? "+" : "-"); };
  auto fourth = [](void* h, const char* t) { *log += "3:" + std::string(t) + (h ? "+" : "-"); };
  sysenv_set_stream(env_, 0, nullptr, first);
  env_->stream_callback[3] = fourth;
  env_->stream_handle[3] = env_;
  sysenv_printf(env_, "n=%d|", 5);
  EXPECT_EQ(order, "0:n=5|-3:n=5|+");
}

TEST_F(SysEnvStreams, OnlyStreamZeroRegistersAndEachRegistrationTakesTheNextFreeSlot) {
  TextSink a, b;
  sysenv_set_stream(env_, 1, &a, TextSink::receive);
  sysenv_set_stream(env_, -1, &a, TextSink::receive);
  for (int i = 0; i < SYSENV_STREAM_SLOTS; ++i) EXPECT_EQ(env_->stream_callback[i], nullptr);

  sysenv_set_stream(env_, 0, &a, TextSink::receive);
  sysenv_set_stream(env_, 0, &b, TextSink::receive);
  sysenv_set_stream(env_, 0, &a, TextSink::receive);  // already there
  EXPECT_EQ(env_->stream_handle[0], &a);
  EXPECT_EQ(env_->stream_handle[1], &b);
  EXPECT_EQ(env_->stream_callback[2], nullptr);
  sysenv_printf(env_, "both");
  EXPECT_EQ(a.text, "both");
  EXPECT_EQ(b.text, "both");

  sysenv_set_stream(env_, 0, &a, nullptr);  // removal
  sysenv_printf(env_, "+b");
  EXPECT_EQ(a.text, "both");
  EXPECT_EQ(b.text, "both+b");
}

TEST_F(SysEnvStreams, LongTextIsCutAtTheBufferAndTerminated) {
  TextSink sink;
  sysenv_set_stream(env_, 0, &sink, TextSink::receive);
  const std::string long_text(3000, 'x');
  sysenv_printf(env_, "%s", long_text.c_str());
  EXPECT_EQ(sink.text, std::string(SYSENV_PRINT_BUFFER - 1, 'x'));
  EXPECT_EQ(sink.calls, 1);
}

using SysEnvDeathTest = SysEnvStreams;

TEST_F(SysEnvDeathTest, FatalWritesFourLinesThroughTheStreamsAndAborts) {
  sysenv_set_stream(env_, 0, nullptr, hostkit_test::write_to_stderr);
  EXPECT_DEATH(sysenv_fatal(env_, "disk.c", 42, "lost %d of %s", 3, "4"),
               StartsWithText("\n\nFatal error\nFile : disk.c\nLine : 42\nMsg. : lost 3 of 4\n"));
}

TEST_F(SysEnvDeathTest, FatalCallsTheHandlerFirst) {
  sysenv_set_stream(env_, 0, nullptr, hostkit_test::write_to_stderr);
  env_->fatal_handler->callback = [](void* handle, const char* file, int32_t line,
                                     const char* text, int32_t code) {
    std::fprintf(stderr, "[%s|%s|%d|%s|%d]", static_cast<const char*>(handle), file, line, text,
                 code);
  };
  env_->fatal_handler->handle = const_cast<char*>("h");
  EXPECT_DEATH(sysenv_fatal(env_, "a.c", 1, "x"),
               StartsWithText("[h|a.c|1|x|-1]\n\nFatal error\nFile : a.c\nLine : 1\nMsg. : x\n"));
}

TEST(SysEnvFatalDeathTest, WithoutEnvironmentPrintsToStandardOutput) {
  EXPECT_DEATH(
      {
        hostkit_test::stdout_to_stderr();
        sysenv_fatal(nullptr, "f.c", 9, "%s", "gone");
      },
      StartsWithText("\n\nFatal error\nFile : f.c\nLine : 9\nMsg. : gone\n"));
}

TEST(SysEnvFatalDeathTest, HalfMadeEnvironmentEndsWithoutText) {
  CountingAllocator user;
  user.fail_at = 5;
  SysEnv* env = user.create_env();
  ASSERT_NE(env, nullptr);
  ASSERT_EQ(env->ready, 0);
  env->stream_callback[0] = hostkit_test::write_to_stderr;
  EXPECT_DEATH(sysenv_fatal(env, "f.c", 1, "unseen"), ::testing::Eq(std::string()));
  sysenv_destroy(&env);
}

TEST_F(SysEnvDeathTest, CheckPassesOnNonZeroAndEndsOnZero) {
  sysenv_set_stream(env_, 0, nullptr, hostkit_test::write_to_stderr);
  sysenv_check(env_, "c.c", 5, 1);
  sysenv_check(env_, "c.c", 5, -7);
  EXPECT_DEATH(sysenv_check(env_, "c.c", 5, 0),
               StartsWithText("\n\nFatal error\nFile : c.c\nLine : 5\n"
                              "Msg. : Assertion failed at c.c(5).\n"));
}

TEST(SysEnvFatalDeathTest, AssertFailedPrintsExpressionAndPlace) {
  EXPECT_DEATH(
      {
        hostkit_test::stdout_to_stderr();
        sysenv_assert_failed("n > 0", "m.c", 77);
      },
      StartsWithText("Assertion 'n > 0' failed at m.c:77.\n"));
}

TEST_F(SysEnvDeathTest, FreeingTheEnvironmentItselfIsFatal) {
  sysenv_set_stream(env_, 0, nullptr, hostkit_test::write_to_stderr);
  EXPECT_DEATH(sysenv_free(env_, "z.c", 3, env_),
               StartsWithText("\n\nFatal error\nFile : z.c\nLine : 3\n"
                              "Msg. : Trying to free the sysenv. sys: <p> == buffer: <p>\n"));
}

TEST(SysEnvAlloc, ForwardsToTheManagerWithTheCallersNumbers) {
  CountingAllocator user;
  SysEnv* env = user.create_env();
  ASSERT_NE(env, nullptr);
  const int before = user.calloc_calls;
  auto* zeroed = static_cast<unsigned char*>(SYSENV_CALLOC(env, 3, 5));
  ASSERT_NE(zeroed, nullptr);
  EXPECT_EQ(user.calloc_calls, before + 1);
  for (int i = 0; i < 15; ++i) EXPECT_EQ(zeroed[i], 0);
  EXPECT_EQ(SYSENV_ALLOC(env, 0, 5), nullptr);
  EXPECT_EQ(SYSENV_ALLOC(env, 5, 0), nullptr);
  EXPECT_EQ(user.malloc_calls, 3);  // only the manager's own three records
  SYSENV_FREE(env, zeroed);
  EXPECT_EQ(sysenv_destroy(&env), 0);
  EXPECT_EQ(user.live, 0);
}

}  // namespace
