// The peer of the tracked manager for finding memory faults: malloc and free
// in a build with AddressSanitizer. Run on its own it is an ordinary Google
// Benchmark program; bench_memman runs it after its own measurements and
// reads the lines "peer SIZE NANOSECONDS" that it prints last.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "memman_bench_loop.h"

namespace {

void BM_AsanMallocFree(benchmark::State& state) {
  alloc_free_loop(
      state, [](size_t size) { return std::malloc(size); }, [](void* block) { std::free(block); });
}
BENCHMARK(BM_AsanMallocFree)->Arg(64)->Arg(4096)->Repetitions(5);

// Keeps the time per operation of each run, by block size.
class Collector : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        const std::string name = run.benchmark_name();
        // The best repetition, as bench_memman keeps it.
        const size_t size_at = name.find('/') + 1;
        double& best = nanoseconds[std::atoi(name.c_str() + size_at)];
        const double ns = run.GetAdjustedRealTime();
        if (best == 0 || ns < best) best = ns;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<int, double> nanoseconds;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  for (const auto& [size, ns] : collector.nanoseconds) std::printf("peer %d %.3f\n", size, ns);
  benchmark::Shutdown();
  return 0;
}
