#include "test_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

namespace hostkit_test {

namespace {

CountingAllocator& self_of(void* handle) { return *static_cast<CountingAllocator*>(handle); }

// Counts an allocating call; true when it is the one to fail.
bool fails(void* handle) { return ++self_of(handle).allocating_calls == self_of(handle).fail_at; }

// Counts a block newly handed out; `fresh`: not a reallocation.
void* counted(void* handle, bool fresh, void* block) {
  self_of(handle).live += block != nullptr && fresh;
  return block;
}

}  // namespace

CountingAllocator::~CountingAllocator() {
  for (void* p : parked) std::free(p);
}

void* CountingAllocator::malloc(void* handle, uint64_t size) {
  return counted(handle, true, fails(handle) ? nullptr : std::malloc(static_cast<size_t>(size)));
}

void* CountingAllocator::calloc(void* handle, uint64_t count, uint64_t size) {
  return counted(handle, true, fails(handle) ? nullptr : std::calloc(count, size));
}

void* CountingAllocator::realloc(void* handle, void* pointer, uint64_t size) {
  return counted(handle, pointer == nullptr,
                 fails(handle) ? nullptr : std::realloc(pointer, static_cast<size_t>(size)));
}

void CountingAllocator::free(void* handle, void* pointer) {
  CountingAllocator* self = &self_of(handle);
  ++self->free_calls;
  self->live -= pointer != nullptr;
  if (self->park && pointer != nullptr) {
    self->parked.push_back(pointer);
  } else {
    std::free(pointer);
  }
}

void write_to_stderr(void*, const char* text) {
  std::fputs(text, stderr);
  std::fflush(stderr);
}

void announce(const void* address) {
  std::fprintf(stderr, "%p\n", address);
  std::fflush(stderr);
}

void stdout_to_stderr() {
  std::fflush(stdout);
  dup2(fileno(stderr), fileno(stdout));
}

namespace {

std::string literal(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

// The expected text as a pattern: its own characters literally, "<p>" any
// address, "<a>" the first line of the text itself. Windows text-mode
// streams write CR LF: the text is compared with LF.
struct StartsWith : ::testing::MatcherInterface<const std::string&> {
  std::string expected;
  explicit StartsWith(std::string e) : expected(std::move(e)) {}
  bool MatchAndExplain(const std::string& actual, ::testing::MatchResultListener*) const override {
    std::string text = std::regex_replace(actual, std::regex("\r"), "");
    std::string announced;
    if (expected.find("<a>") != std::string::npos) {
      announced = text.substr(0, text.find('\n'));
      text.erase(0, announced.size() + 1);
    }
    std::string pattern = std::regex_replace(literal(expected), std::regex("<p>"), "(0x)?[0-9a-fA-F]+");
    pattern = std::regex_replace(pattern, std::regex("<a>"), literal(announced));
    return std::regex_search(text, std::regex("^" + pattern));
  }
  void DescribeTo(std::ostream* os) const override { *os << "starts with \"" << expected << "\""; }
};

}  // namespace

::testing::Matcher<const std::string&> StartsWithText(const std::string& expected) {
  return ::testing::MakeMatcher(new StartsWith(expected));
}

}  // namespace hostkit_test
