// Runs a fuzz target's own checks over seeded random inputs, so that every
// native test run, with and without the sanitizers, goes through them and
// not only the fuzzing build. Half the bytes come from those the parsers
// treat apart: line ends, NUL, digits, blanks, UTF-8 lead and continuation
// bytes. A failed check aborts the target, and so fails the test.
// Usage: TARGET [RUNS]   (20000 by default)
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  const char special[] = "\r\n\r\n 0123456789abcdefABCDEF\x80\xBF\xC0\xC3\xE2\xED\xF0\xF4\xF8\xFF";
  std::mt19937 random(1);
  std::vector<uint8_t> input;
  const long runs = argc > 1 ? std::atol(argv[1]) : 20000;
  for (long run = 0; run < runs; ++run) {
    input.resize(random() % (run % 100 == 0 ? 4096 : 300));
    for (uint8_t& byte : input) {
      const char pick = random() % 2 != 0 ? special[random() % sizeof special] : static_cast<char>(random());
      byte = static_cast<uint8_t>(pick);
    }
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  return 0;
}
