// The whole report against lscpu: the wall time of one run of each program,
// output thrown away, measured in the same process run. The medians and their
// ratio are printed at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

extern char** environ;

namespace {

std::vector<double> g_hostkit_ms;
std::vector<double> g_lscpu_ms;

// Runs `program` with its output on /dev/null; false when it can't be run or
// doesn't end with status 0.
bool run(const char* program, bool search_path) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  char* argv[] = {const_cast<char*>(program), nullptr};
  pid_t pid = 0;
  const int error = search_path ? posix_spawnp(&pid, program, &actions, nullptr, argv, environ)
                                : posix_spawn(&pid, program, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return false;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void measure(benchmark::State& state, const char* program, bool search_path,
             std::vector<double>* times) {
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    const bool ok = run(program, search_path);
    const auto end = std::chrono::steady_clock::now();
    if (!ok) {
      state.SkipWithError("the program could not be run");
      return;
    }
    const double seconds = std::chrono::duration<double>(end - start).count();
    state.SetIterationTime(seconds);
    times->push_back(seconds * 1e3);
  }
}

void BM_Hostkit(benchmark::State& state) { measure(state, HOSTKIT_PATH, false, &g_hostkit_ms); }
void BM_Lscpu(benchmark::State& state) { measure(state, "lscpu", true, &g_lscpu_ms); }

constexpr int kRuns = 101;
BENCHMARK(BM_Hostkit)->UseManualTime()->Iterations(kRuns)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lscpu)->UseManualTime()->Iterations(kRuns)->Unit(benchmark::kMillisecond);

double median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const size_t mid = v.size() / 2;
  return v.size() % 2 != 0 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  const double hostkit = median(g_hostkit_ms);
  const double lscpu = median(g_lscpu_ms);
  std::printf("report: hostkit median %.3f ms over %zu runs, lscpu median %.3f ms over %zu runs\n",
              hostkit, g_hostkit_ms.size(), lscpu, g_lscpu_ms.size());
  if (hostkit > 0 && lscpu > 0) {
    std::printf("report: hostkit / lscpu = %.3f (lscpu takes %.2fx the time)\n", hostkit / lscpu,
                lscpu / hostkit);
  }
  return 0;
}
