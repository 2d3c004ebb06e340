// The front door and typed blocks against the allocators they stand on.
//
// Each case runs either alloc/free pairs (live = 0) or a working set of
// `live` objects where every iteration frees one object, picked by a fixed
// random sequence, and allocates its replacement. Every implementation
// replays the same sequence. Time is CPU time per pair.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <boost/pool/object_pool.hpp>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "../../lib/mem/src/jem.h"
#include "mem/block.h"
#include "mem/mem.h"
#include "mem/pool.h"

extern "C" {
void *__libc_malloc(size_t);
void __libc_free(void *);
}

namespace {

struct Started {
  Started() { task_memory_init(nullptr); }
} started;

const std::vector<uint32_t> &picks(size_t live) {
  static std::vector<uint32_t> v;
  static size_t for_live = 0;
  if (for_live != live) {
    std::mt19937 rng(20261121);
    v.resize(1 << 16);
    for (auto &x : v) x = static_cast<uint32_t>(rng() % live);
    for_live = live;
  }
  return v;
}

// Runs the pair or working-set loop over any alloc/free pair.
template <typename Alloc, typename Free>
void run(benchmark::State &state, Alloc alloc, Free release) {
  const size_t live = static_cast<size_t>(state.range(1));
  if (live == 0) {
    for (auto _ : state) {
      void *p = alloc();
      benchmark::DoNotOptimize(p);
      release(p);
    }
  } else {
    std::vector<void *> set(live);
    for (auto &p : set) p = alloc();
    const auto &pick = picks(live);
    size_t k = 0;
    for (auto _ : state) {
      uint32_t i = pick[k++ & (pick.size() - 1)];
      release(set[i]);
      set[i] = alloc();
      benchmark::DoNotOptimize(set[i]);
    }
    for (void *p : set) release(p);
  }
  state.SetItemsProcessed(state.iterations());
}

void args(benchmark::internal::Benchmark *b) {
  for (int64_t size : {32, 1024})
    for (int64_t live : {0, 10000}) b->Args({size, live});
  b->ArgNames({"size", "live"});
}

// ---- FrontDoor: malloc and free ----------------------------------------------

void FrontDoor_ours(benchmark::State &s) {
  size_t n = s.range(0);
  run(s, [n] { return tvx_fd_malloc(n); }, [](void *p) { tvx_fd_free(p); });
}
void FrontDoor_jemalloc(benchmark::State &s) {
  size_t n = s.range(0);
  run(s, [n] { return jem_mallocx(n, 0); }, [n](void *p) { jem_sdallocx(p, n, 0); });
}
void FrontDoor_glibc(benchmark::State &s) {
  size_t n = s.range(0);
  run(s, [n] { return __libc_malloc(n); }, [](void *p) { __libc_free(p); });
}
// The least an allocator whose memory comes zeroed pays: jemalloc and a memset
// of what was asked.
void FrontDoor_floor(benchmark::State &s) {
  size_t n = s.range(0);
  run(s, [n] { return memset(jem_mallocx(n, 0), 0, n); }, [n](void *p) { jem_sdallocx(p, n, 0); });
}
BENCHMARK(FrontDoor_ours)->Name("FrontDoor/ours")->Apply(args);
BENCHMARK(FrontDoor_floor)->Name("FrontDoor/floor")->Apply(args);
BENCHMARK(FrontDoor_jemalloc)->Name("FrontDoor/jemalloc")->Apply(args);
BENCHMARK(FrontDoor_glibc)->Name("FrontDoor/glibc")->Apply(args);

// ---- Block: typed objects ----------------------------------------------------------

template <size_t N>
struct Obj {
  char bytes[N];
};

void Block_ours(benchmark::State &s) {
  size_t n = s.range(0);
  task_mem_block_pool_enable();
  task_block *bp = task_block_init_flags(n, n == 32 ? "bench32" : "bench1024", TASK_BLOCK_LOCAL_POOL);
  run(s, [bp] { return task_block_alloc(bp); }, [bp](void *p) { task_block_free(bp, p); });
  task_mem_block_pool_empty();
}
void Block_jemalloc(benchmark::State &s) {
  size_t n = s.range(0);
  run(s, [n] { return jem_mallocx(n, 0); }, [n](void *p) { jem_sdallocx(p, n, 0); });
}
template <size_t N>
void block_boost(benchmark::State &s) {
  boost::object_pool<Obj<N>> pool;
  run(s, [&pool] { return static_cast<void *>(pool.malloc()); },
      [&pool](void *p) { pool.free(static_cast<Obj<N> *>(p)); });
}
void Block_boost(benchmark::State &s) {
  if (s.range(0) == 32)
    block_boost<32>(s);
  else
    block_boost<1024>(s);
}
BENCHMARK(Block_ours)->Name("Block/ours")->Apply(args);
BENCHMARK(FrontDoor_floor)->Name("Block/floor")->Apply(args);
BENCHMARK(Block_jemalloc)->Name("Block/jemalloc")->Apply(args);
BENCHMARK(Block_boost)->Name("Block/boost")->Apply(args);

// ---- Peak resident memory of the mixed working set ---------------------------------
// Each measurement runs in a fresh process (this binary, run again with
// --peak=IMPL), so that nothing inherited from the benchmarks before it hides
// the workload's growth: the figure is the high-water mark of resident memory
// minus what the process held before the workload started.
// 10,000 live objects, half 32 bytes and half 1 KiB, replaced 1,000,000 times.
// The ratio of the two figures is the front door's memory price: its 16-byte
// head and red zone move objects into larger size classes.

long status_kb(const char *field) {
  FILE *f = fopen("/proc/self/status", "r");
  char line[256];
  long kb = -1;
  while (f && fgets(line, sizeof line, f))
    if (strncmp(line, field, strlen(field)) == 0) sscanf(line + strlen(field), "%ld", &kb);
  if (f) fclose(f);
  return kb;
}

// Every object is written once, as its user would: untouched pages of the
// raw allocator would otherwise never become resident.
template <typename Alloc, typename Free>
long workload(Alloc alloc, Free release) {
  long before = status_kb("VmRSS:");
  const size_t live = 10000;
  std::vector<void *> set(live);
  auto make = [&](size_t i) {
    size_t n = i % 2 ? 1024 : 32;
    set[i] = alloc(n);
    memset(set[i], 1, n);
  };
  for (size_t i = 0; i < live; i++) make(i);
  std::mt19937 rng(7);
  for (int k = 0; k < 1000000; k++) {
    uint32_t i = rng() % live;
    release(set[i], i % 2 ? 1024 : 32);
    make(i);
  }
  return status_kb("VmHWM:") - before;
}

long run_peak(const char *impl) {
  if (strcmp(impl, "ours") == 0)
    return workload([](size_t n) { return tvx_fd_malloc(n); }, [](void *p, size_t) { tvx_fd_free(p); });
  return workload([](size_t n) { return jem_mallocx(n, 0); }, [](void *p, size_t n) { jem_sdallocx(p, n, 0); });
}

long child_peak(const char *impl) {
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);  // popen's shell has its own
  if (n <= 0) return -1;
  self[n] = '\0';
  std::string cmd = std::string("'") + self + "' --peak=" + impl;
  FILE *p = popen(cmd.c_str(), "r");
  long kb = -1;
  if (p && fscanf(p, "%ld", &kb) != 1) kb = -1;
  if (p) pclose(p);
  return kb;
}

void peak(benchmark::State &s, const char *impl) {
  long kb = 0;
  for (auto _ : s) {
    kb = child_peak(impl);
    s.SetIterationTime(1);
  }
  s.counters["peak_kb"] = static_cast<double>(kb);
}
void PeakRss_ours(benchmark::State &s) { peak(s, "ours"); }
void PeakRss_jemalloc(benchmark::State &s) { peak(s, "jemalloc"); }
BENCHMARK(PeakRss_ours)->Name("PeakRss/ours")->Iterations(1)->UseManualTime();
BENCHMARK(PeakRss_jemalloc)->Name("PeakRss/jemalloc")->Iterations(1)->UseManualTime();

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && strncmp(argv[1], "--peak=", 7) == 0) {
    printf("%ld\n", run_peak(argv[1] + 7));
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
