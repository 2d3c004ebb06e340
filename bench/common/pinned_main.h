// The main of an event-loop benchmark: every case runs pinned to CPU 0, so
// ours and the anchors meet the same cache and the same scheduler.
#pragma once

#include <benchmark/benchmark.h>
#include <sched.h>

#define TVX_BENCH_PINNED_MAIN()                            \
  int main(int argc, char **argv) {                        \
    cpu_set_t one;                                         \
    CPU_ZERO(&one);                                        \
    CPU_SET(0, &one);                                      \
    sched_setaffinity(0, sizeof one, &one);                \
    benchmark::Initialize(&argc, argv);                    \
    benchmark::RunSpecifiedBenchmarks();                   \
    benchmark::Shutdown();                                 \
  }
