// The loop both memory benchmarks time: one block of the given size taken,
// touched at both ends, and given back. The touch keeps the compiler from
// dropping the pair and makes each side pay for a block it really uses.
#ifndef HOSTKIT_MEMMAN_BENCH_LOOP_H
#define HOSTKIT_MEMMAN_BENCH_LOOP_H

#include <benchmark/benchmark.h>

#include <cstddef>

template <typename Take, typename Give>
void alloc_free_loop(benchmark::State& state, Take take, Give give) {
  const auto size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    auto* block = static_cast<unsigned char*>(take(size));
    block[0] = 1;
    block[size - 1] = 2;
    benchmark::DoNotOptimize(block);
    give(block);
  }
  state.SetItemsProcessed(state.iterations());
}

#endif
