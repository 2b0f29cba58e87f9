#include "test_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace hostkit_test {

bool CountingAllocator::fails_now() {
  ++allocating_calls;
  return fail_at != 0 && allocating_calls == fail_at;
}

void* CountingAllocator::malloc(void* handle, uint64_t size) {
  auto* self = static_cast<CountingAllocator*>(handle);
  ++self->malloc_calls;
  if (self->fails_now()) return nullptr;
  void* block = std::malloc(static_cast<size_t>(size));
  if (block != nullptr) ++self->live;
  return block;
}

void* CountingAllocator::calloc(void* handle, uint64_t count, uint64_t size) {
  auto* self = static_cast<CountingAllocator*>(handle);
  ++self->calloc_calls;
  if (self->fails_now()) return nullptr;
  void* block = std::calloc(static_cast<size_t>(count), static_cast<size_t>(size));
  if (block != nullptr) ++self->live;
  return block;
}

void* CountingAllocator::realloc(void* handle, void* pointer, uint64_t size) {
  auto* self = static_cast<CountingAllocator*>(handle);
  ++self->realloc_calls;
  if (self->fails_now()) return nullptr;
  void* block = std::realloc(pointer, static_cast<size_t>(size));
  if (block != nullptr && pointer == nullptr) ++self->live;
  return block;
}

void CountingAllocator::free(void* handle, void* pointer) {
  auto* self = static_cast<CountingAllocator*>(handle);
  ++self->free_calls;
  if (pointer != nullptr) --self->live;
  std::free(pointer);
}

void TextSink::receive(void* handle, const char* text) {
  auto* self = static_cast<TextSink*>(handle);
  self->text += text;
  ++self->calls;
}

void write_to_stderr(void*, const char* text) {
  std::fputs(text, stderr);
  std::fflush(stderr);
}

void stdout_to_stderr() {
  std::fflush(stdout);
  dup2(fileno(stderr), fileno(stdout));
}

namespace {
class StartsWithMatcher : public ::testing::MatcherInterface<const std::string&> {
 public:
  explicit StartsWithMatcher(std::string expected) : expected_(std::move(expected)) {}
  bool MatchAndExplain(const std::string& actual,
                       ::testing::MatchResultListener* listener) const override {
    // Windows text-mode streams write CR LF; compare the text with LF.
    std::string plain;
    for (char c : actual) {
      if (c != '\r') plain += c;
    }
    *listener << "whose text is \"" << plain << "\"";
    return starts_with(plain, 0, 0);
  }
  void DescribeTo(std::ostream* os) const override {
    *os << "starts with \"" << expected_ << "\"";
  }

 private:
  static bool is_address_char(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || c == 'x';
  }
  bool starts_with(const std::string& actual, size_t a, size_t e) const {
    while (e < expected_.size()) {
      if (expected_.compare(e, 3, "<p>") == 0) {
        const size_t start = a;
        while (a < actual.size() && is_address_char(actual[a])) ++a;
        if (a == start) return false;
        e += 3;
        continue;
      }
      if (a >= actual.size() || actual[a] != expected_[e]) return false;
      ++a;
      ++e;
    }
    return true;
  }
  std::string expected_;
};
}  // namespace

::testing::Matcher<const std::string&> StartsWithText(const std::string& expected) {
  return ::testing::MakeMatcher(new StartsWithMatcher(expected));
}

}  // namespace hostkit_test
