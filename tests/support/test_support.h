// Helpers shared by the unit tests: an allocator that counts and fails on
// request, a message-stream sink, and matchers for the text of death tests.
#ifndef HOSTKIT_TEST_SUPPORT_H
#define HOSTKIT_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "cpub.h"

namespace hostkit_test {

// Four allocator callbacks over the C library that count the allocating
// calls (malloc, calloc and realloc together), the releases and the blocks
// outstanding. `fail_at` = N makes the Nth allocating call, counted from 1,
// return null; 0 never fails. With `park`, released blocks are kept until
// the allocator's end, so that reading a block freed twice reads memory
// still owned, as in a real heap.
struct CountingAllocator {
  int allocating_calls = 0, free_calls = 0, fail_at = 0;
  int64_t live = 0;
  bool park = false;
  std::vector<void*> parked;
  ~CountingAllocator();

  static void* malloc(void* handle, uint64_t size);
  static void* calloc(void* handle, uint64_t count, uint64_t size);
  static void* realloc(void* handle, void* pointer, uint64_t size);
  static void free(void* handle, void* pointer);

  SysEnv* create_env(int32_t tracking = 0) {
    return sysenv_create(0, tracking, this, malloc, calloc, realloc, free);
  }
  MemManager* create_manager(int32_t tracking) {
    return memman_create(tracking, this, malloc, calloc, realloc, free);
  }
};

// A message-stream or print callback that collects everything it is given.
struct TextSink {
  std::string text;
  static void receive(void* handle, const char* text) { static_cast<TextSink*>(handle)->text += text; }
};

// A stream callback that writes to standard error, where death tests look.
void write_to_stderr(void* handle, const char* text);

// Sends standard output to standard error, for death tests of code that prints.
void stdout_to_stderr();

// A death test's child may place its blocks elsewhere than its parent (on
// Windows it is a new process): a child that must show an address writes it
// first on a line of its own to standard error.
void announce(const void* address);

// Matches a death test's standard error that begins with `expected`, whatever
// the runtime adds behind it. In `expected`, "<p>" stands for any address as
// %p prints it on either platform, and "<a>" for the address announced on
// the first line (which is then not part of the text).
::testing::Matcher<const std::string&> StartsWithText(const std::string& expected);

}  // namespace hostkit_test

#endif
