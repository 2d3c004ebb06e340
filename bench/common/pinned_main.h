// The main of an event-loop benchmark: every case runs pinned to one CPU, so
// ours and the anchors meet the same cache and the same scheduler. The CPU is
// the first one the process may use (CPU 0 unless started under taskset), so
// `taskset -c 1 bench_task` keeps a run off a core that other work holds.
#pragma once

#include <benchmark/benchmark.h>
#include <sched.h>

// Pins the calling thread to the first CPU it may use.
inline void tvx_bench_pin_first_cpu() {
  cpu_set_t allowed, one;
  CPU_ZERO(&one);
  int first = 0;
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0)
    while (first < CPU_SETSIZE - 1 && !CPU_ISSET(first, &allowed)) first++;
  CPU_SET(first, &one);
  sched_setaffinity(0, sizeof one, &one);
}

#define TVX_BENCH_PINNED_MAIN()             \
  int main(int argc, char **argv) {         \
    tvx_bench_pin_first_cpu();              \
    benchmark::Initialize(&argc, argv);     \
    benchmark::RunSpecifiedBenchmarks();    \
    benchmark::Shutdown();                  \
  }
