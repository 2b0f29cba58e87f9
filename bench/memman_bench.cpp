// The memory manager against raw malloc and free, in the same run, 64-byte
// and 4 KiB blocks:
//   - untracked memman_alloc + memman_free, with the default allocators that
//     an environment uses, and with callbacks straight onto malloc and free
//     (the manager's own cost alone);
//   - tracked memman_alloc + memman_free, with the same two kinds of callbacks;
//   - tracked against malloc + free in an AddressSanitizer build: the peer
//     binary bench_memman_asan_peer, run by this program after its own
//     benchmarks (pass --no-asan-peer to leave it out);
//   - four threads on one tracked manager: throughput, and its ratio to one.
// The ratios are printed at the end. Nothing here fails on a time.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cpub.h"
#include "memman_bench_loop.h"

namespace {

void* plain_malloc(void*, uint64_t size) { return std::malloc(size); }
void* plain_calloc(void*, uint64_t count, uint64_t size) { return std::calloc(count, size); }
void* plain_realloc(void*, void* pointer, uint64_t size) { return std::realloc(pointer, size); }
void plain_free(void*, void* pointer) { std::free(pointer); }

MemManager* with_defaults(int32_t tracking) {
  return memman_create(tracking, nullptr, sysenv_default_malloc, sysenv_default_calloc,
                       sysenv_default_realloc, sysenv_default_free);
}

void run_on(benchmark::State& state, MemManager* manager) {
  alloc_free_loop(
      state, [manager](size_t size) { return memman_alloc(__FILE__, __LINE__, manager, 1, size); },
      [manager](void* block) { memman_free(__FILE__, __LINE__, manager, block); });
}

void BM_RawMallocFree(benchmark::State& state) {
  alloc_free_loop(
      state, [](size_t size) { return std::malloc(size); }, [](void* block) { std::free(block); });
}

void BM_Untracked(benchmark::State& state) {
  MemManager* manager = with_defaults(0);
  run_on(state, manager);
  memman_delete(__FILE__, __LINE__, &manager);
}

void BM_UntrackedPlainCallbacks(benchmark::State& state) {
  MemManager* manager =
      memman_create(0, nullptr, plain_malloc, plain_calloc, plain_realloc, plain_free);
  run_on(state, manager);
  memman_delete(__FILE__, __LINE__, &manager);
}

void BM_Tracked(benchmark::State& state) {
  MemManager* manager = with_defaults(1);
  run_on(state, manager);
  memman_delete(__FILE__, __LINE__, &manager);
}

// One tracked manager for all threads of every run, made before any
// benchmark starts: the threads of a run begin together only at the loop.
MemManager* g_shared = nullptr;

void BM_TrackedShared(benchmark::State& state) { run_on(state, g_shared); }

void BM_TrackedPlainCallbacks(benchmark::State& state) {
  MemManager* manager =
      memman_create(1, nullptr, plain_malloc, plain_calloc, plain_realloc, plain_free);
  run_on(state, manager);
  memman_delete(__FILE__, __LINE__, &manager);
}

BENCHMARK(BM_RawMallocFree)->Arg(64)->Arg(4096);
BENCHMARK(BM_Untracked)->Arg(64)->Arg(4096);
BENCHMARK(BM_UntrackedPlainCallbacks)->Arg(64)->Arg(4096);
BENCHMARK(BM_Tracked)->Arg(64)->Arg(4096);
BENCHMARK(BM_TrackedPlainCallbacks)->Arg(64)->Arg(4096);
BENCHMARK(BM_TrackedShared)
    ->Arg(64)
    ->Arg(4096)
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime();

struct Result {
  double nanoseconds = 0;       // real time per operation, the best repetition
  double items_per_second = 0;  // all threads together, the best repetition
  int repetitions = 0;
};

// Keeps the best of the repetitions of each benchmark: on a shared machine
// the other processes only ever add time, so the best run is the one that
// shows the code's own cost.
class Collector : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      std::string name = run.benchmark_name();
      const size_t repeats = name.find("/repeats:");
      if (repeats != std::string::npos) name.erase(repeats, name.find('/', repeats + 1) - repeats);
      Result& result = results[name];
      ++result.repetitions;
      const double nanoseconds = run.GetAdjustedRealTime();
      if (result.nanoseconds == 0 || nanoseconds < result.nanoseconds) {
        result.nanoseconds = nanoseconds;
      }
      const auto items = run.counters.find("items_per_second");
      if (items != run.counters.end() && items->second.value > result.items_per_second) {
        result.items_per_second = items->second.value;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, Result> results;
};

double ns(const Collector& c, const std::string& name) {
  const auto it = c.results.find(name);
  return it != c.results.end() ? it->second.nanoseconds : 0.0;
}

double per_second(const Collector& c, const std::string& name) {
  const auto it = c.results.find(name);
  return it != c.results.end() ? it->second.items_per_second : 0.0;
}

void print_ratio(const char* what, double ours, double peer, const char* goal) {
  if (ours <= 0 || peer <= 0) {
    std::printf("  %-46s  (not measured)\n", what);
    return;
  }
  std::printf("  %-46s %8.2f ns / %8.2f ns = %5.2fx   goal %s\n", what, ours, peer, ours / peer,
              goal);
}

// Runs the AddressSanitizer peer and reads its "peer SIZE NANOSECONDS" lines.
std::map<int, double> run_asan_peer() {
  std::map<int, double> peer;
  std::fflush(stdout);
  FILE* pipe =
      popen(HOSTKIT_ASAN_PEER " --benchmark_color=false --benchmark_min_time=0.2 2>/dev/null", "r");
  if (pipe == nullptr) return peer;
  char line[256];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    int size = 0;
    double nanoseconds = 0;
    const char* at = std::strstr(line, "peer ");
    if (at != nullptr && std::sscanf(at, "peer %d %lf", &size, &nanoseconds) == 2) {
      peer[size] = nanoseconds;
    }
  }
  pclose(pipe);
  return peer;
}

}  // namespace

int main(int argc, char** argv) {
  bool with_peer = true;
  // The repetitions of all benchmarks run interleaved in random order, so a
  // slow spell of the machine falls on ours and the peer's runs alike, and
  // there are enough of them for the best to be a quiet one. Flags on the
  // command line come later and override these.
  static char interleave[] = "--benchmark_enable_random_interleaving=true";
  static char repetitions[] = "--benchmark_repetitions=11";
  std::vector<char*> args{argv[0], interleave, repetitions};
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no-asan-peer") == 0) {
      with_peer = false;
    } else {
      args.push_back(argv[i]);
    }
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  g_shared = with_defaults(1);
  Collector c;
  benchmark::RunSpecifiedBenchmarks(&c);
  memman_delete(__FILE__, __LINE__, &g_shared);
  const std::map<int, double> peer = with_peer ? run_asan_peer() : std::map<int, double>{};

  const auto raw_runs = c.results.find("BM_RawMallocFree/64");
  std::printf("\nRatios, best of %d repetitions (time per allocation + release):\n",
              raw_runs != c.results.end() ? raw_runs->second.repetitions : 0);
  for (int size : {64, 4096}) {
    auto name = [size](const char* base, const char* suffix = "") {
      char text[128];
      std::snprintf(text, sizeof text, "%s/%d%s", base, size, suffix);
      return std::string(text);
    };
    const double raw = ns(c, name("BM_RawMallocFree"));
    std::printf("%d-byte blocks\n", size);
    print_ratio("untracked (default allocators) vs malloc+free", ns(c, name("BM_Untracked")), raw,
                "<= 1.15x");
    print_ratio("untracked (plain callbacks) vs malloc+free",
                ns(c, name("BM_UntrackedPlainCallbacks")), raw, "<= 1.15x");
    print_ratio("tracked (default allocators) vs malloc+free", ns(c, name("BM_Tracked")), raw,
                "<= 3x");
    print_ratio("tracked (plain callbacks) vs malloc+free", ns(c, name("BM_TrackedPlainCallbacks")),
                raw, "<= 3x");
    const auto asan = peer.find(size);
    print_ratio("tracked vs malloc+free under AddressSanitizer", ns(c, name("BM_Tracked")),
                asan != peer.end() ? asan->second : 0.0, "< 1x");
    const double one = per_second(c, name("BM_TrackedShared", "/real_time/threads:1"));
    const double four = per_second(c, name("BM_TrackedShared", "/real_time/threads:4"));
    if (one > 0 && four > 0) {
      std::printf("  %-46s %8.2f M/s vs %8.2f M/s = %5.2fx of one thread\n",
                  "tracked, 4 threads on one manager", four / 1e6, one / 1e6, four / one);
    }
  }
  benchmark::Shutdown();
  return 0;
}
