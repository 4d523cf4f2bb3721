// Measures one operation of the module in two ways: its time with Google Benchmark, and its instructions under
// valgrind's callgrind, which are the same on a busy machine.
#ifndef GX_BENCH_MICRO_MEASURE_H
#define GX_BENCH_MICRO_MEASURE_H

#include <benchmark/benchmark.h>

#include <string>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_TOGGLE_COLLECT
#define CALLGRIND_DUMP_STATS_AT(name) static_cast<void>(name)
#endif

namespace gxbench {

inline constexpr int kCountedOperations = 1000;  // bench/instructions divides by it

// `name` is the name of the dump with the counts. The first operations, which fill caches and free lists, are
// not counted.
template <typename Operation>
void Measure(benchmark::State& state, const std::string& name, Operation operation) {
  for (auto _ : state) operation();
  if (RUNNING_ON_VALGRIND == 0) return;
  for (int i = 0; i < kCountedOperations; ++i) operation();
  CALLGRIND_ZERO_STATS;
  CALLGRIND_TOGGLE_COLLECT;
  for (int i = 0; i < kCountedOperations; ++i) operation();
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(name.c_str());
}

template <typename Operation>
void MeasureAt(benchmark::State& state, const char* name, Operation operation) {
  Measure(state, std::string(name) + "/" + std::to_string(state.range(0)), operation);
}

}  // namespace gxbench

#endif  // GX_BENCH_MICRO_MEASURE_H
