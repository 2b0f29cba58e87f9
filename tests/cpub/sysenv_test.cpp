// The system environment (creation with every allocation failing in turn,
// the stream slots, the fatal path's exact texts), the bounded text
// routines.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "cpub.h"
#include "test_support.h"

namespace {

using hostkit_test::CountingAllocator;
using hostkit_test::StartsWithText;
using hostkit_test::TextSink;

// A successful creation makes five allocating calls: the manager's record,
// table and mutex, then the environment and its fatal handler record. When
// one fails, the environment is null, or (the handler) half made; with all
// four user callbacks given they serve, with the user's handle; with three,
// the defaults do and the handle is dropped. Untracked, nothing counts as
// left at the end; tracked, the blocks left are the status.
TEST(SysEnv, CreationFailingAtEveryAllocation) {
  for (int n = 1; n <= 6; ++n) {
    SCOPED_TRACE(n);
    CountingAllocator user;
    user.fail_at = n;
    SysEnv* env = user.create_env();
    EXPECT_EQ(env != nullptr, n >= 5);
    if (n == 5) {
      EXPECT_EQ(env->ready, 0);
      EXPECT_EQ(env->preset_a, 0);
      EXPECT_EQ(env->fatal_handler, nullptr);
      EXPECT_EQ(env->memory->fatal_callback, nullptr);
      sysenv_printf(env, "goes nowhere\n");
    }
    if (n == 6) { EXPECT_EQ(env->memory->user_handle, &user); }
    EXPECT_EQ(sysenv_destroy(&env), 0);
    EXPECT_EQ(env, nullptr);
    EXPECT_EQ(user.live, 0);
  }
  CountingAllocator user;
  SysEnv* env = sysenv_create(7, 0, &user, CountingAllocator::malloc, CountingAllocator::calloc,
                              nullptr, CountingAllocator::free);
  EXPECT_EQ(std::tuple(env->mode, env->ready, env->preset_a, env->preset_b, env->preset_c),
            std::tuple(7, 1, 16, -1, 1));
  EXPECT_EQ(std::string(env->path_variable) + env->library_suffix + env->path_separator, "PATH.dll;");
  EXPECT_EQ(env->memory->fatal_handle, env);
  void* block = SYSENV_CALLOC(env, 3, 5);
  EXPECT_EQ(static_cast<unsigned char*>(block)[14], 0);
  SYSENV_FREE(env, block);
  void* left = SYSENV_ALLOC(env, 1, 8);
  EXPECT_EQ(sysenv_destroy(&env), 0);
  sysenv_default_free(nullptr, left);
  EXPECT_EQ(user.allocating_calls + user.free_calls, 0);
  EXPECT_EQ(sysenv_destroy(nullptr), 0);
  SysEnv* tracked = sysenv_create(0, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
  left = SYSENV_ALLOC(tracked, 1, 8);
  EXPECT_EQ(sysenv_destroy(&tracked), 8);
  sysenv_default_free(nullptr, static_cast<char*>(left) - 40);
}

// Stream 0 registers in the lowest free slot (once per callback and handle;
// a null callback removes); every registered slot gets the same text in slot
// order, cut at the print buffer.
TEST(SysEnv, StreamSlots) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  sysenv_printf(env, "%s\n", "nobody listens");
  TextSink a, b;
  sysenv_set_stream(env, 1, &a, TextSink::receive);
  sysenv_set_stream(env, 0, &a, TextSink::receive);
  sysenv_set_stream(env, 0, &b, TextSink::receive);
  sysenv_set_stream(env, 0, &a, TextSink::receive);
  EXPECT_EQ(env->stream_handle[1], &b);
  EXPECT_EQ(env->stream_callback[2], nullptr);
  sysenv_printf(env, "n=%d|", 5);
  sysenv_set_stream(env, 0, &a, nullptr);
  sysenv_printf(env, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(a.text, "n=5|");
  EXPECT_EQ(b.text, "n=5|" + std::string(SYSENV_PRINT_BUFFER - 1, 'x'));
  sysenv_destroy(&env);
}

// The four lines through the streams, or standard output without an
// environment; the handler's callback before them; nothing from a half-made
// environment.
TEST(SysEnvDeathTest, FatalTexts) {
  SysEnv* env = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  sysenv_set_stream(env, 0, nullptr, hostkit_test::write_to_stderr);
  const std::string four = "\n\nFatal error\nFile : f.c\nLine : 9\nMsg. : ";
  EXPECT_DEATH(sysenv_fatal(env, "f.c", 9, "lost %d of %s", 3, "4"),
               StartsWithText(four + "lost 3 of 4\n"));
  EXPECT_DEATH(sysenv_check(env, "f.c", 9, 0),
               StartsWithText(four + "Assertion failed at f.c(9).\n"));
  sysenv_check(env, "f.c", 9, -7);
  EXPECT_DEATH(sysenv_free(env, "f.c", 9, env),
               StartsWithText(four + "Trying to free the sysenv. sys: <p> == buffer: <p>\n"));
  EXPECT_DEATH(
      {
        hostkit_test::stdout_to_stderr();
        sysenv_fatal(nullptr, "f.c", 9, "%s", "gone");
      },
      StartsWithText(four + "gone\n"));
  EXPECT_DEATH(
      {
        hostkit_test::stdout_to_stderr();
        sysenv_assert_failed("n > 0", "m.c", 77);
      },
      StartsWithText("Assertion 'n > 0' failed at m.c:77.\n"));
  env->fatal_handler->handle = const_cast<char*>("h");
  env->fatal_handler->callback = [](void* handle, const char* file, int32_t line,
                                    const char* text, int32_t code) {
    std::fprintf(stderr, "[%s|%s|%d|%s|%d]", static_cast<const char*>(handle), file, line, text,
                 code);
  };
  EXPECT_DEATH(sysenv_fatal(env, "f.c", 9, "x"), StartsWithText("[h|f.c|9|x|-1]" + four + "x\n"));
  sysenv_destroy(&env);
  CountingAllocator user;
  user.fail_at = 5;
  SysEnv* half = user.create_env();
  half->stream_callback[0] = hostkit_test::write_to_stderr;
  EXPECT_DEATH(sysenv_fatal(half, "f.c", 1, "unseen"), ::testing::Eq(std::string()));
  sysenv_destroy(&half);
}

TEST(SysStr, BoundedCopyAndFormat) {
  EXPECT_EQ(sysstr_len(nullptr) + sysstr_len("") + sysstr_len("hostkit"), 7u);
  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(sysstr_copy(4, buffer, "abcdefgh"), buffer);  // 3 letters and the terminator
  EXPECT_EQ(std::string(buffer, 5), std::string("abc\0x", 5));
  sysstr_copy(sizeof buffer, buffer, nullptr);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(sysstr_copy(0, buffer, "abc"), nullptr);
  EXPECT_EQ(sysstr_format(sizeof buffer, buffer, "%s", ""), 0);
  EXPECT_EQ(sysstr_format(sizeof buffer, buffer, "%d-%s", 42, "ab"), 5);
  EXPECT_EQ(sysstr_format(sizeof buffer, buffer, "%s", "1234567"), 7);  // exactly fits
  EXPECT_EQ(sysstr_format(sizeof buffer, buffer, "%s", "12345678"), -1);
  EXPECT_STREQ(buffer, "1234567");
  EXPECT_EQ(sysstr_format(0, buffer, "x"), -1);
  char wide[64];
  sysstr_format(sizeof wide, wide, "%llu %lld", 18446744073709551615ull, -5ll);
  EXPECT_STREQ(wide, "18446744073709551615 -5");
}

}  // namespace
