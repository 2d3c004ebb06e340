// Mapped files against what a program would otherwise use for a lock and a
// heap that several processes share.
//
// MmfLock: one uncontended lock and unlock of the file's lock word, against a
// process-shared pthread mutex living in a mapped file of its own (and, for
// information, the same mutex made robust, which like ours survives a holder
// that dies, and the bare atomics of ours).
// MmfAlloc: a working set of 10,000 live blocks of seeded sizes; each
// iteration frees a block picked by a fixed random sequence and allocates its
// replacement of the sequence's next size. Every implementation replays the
// same sequence. The anchor is a Boost.Interprocess managed_shared_memory
// segment. Each implementation's answers are checked before the timed loop.
// MmfTakeover: a child takes the lock and is killed; the time from the kill
// until this process holds the word, at the time scale in force.
//
// Every file lives under a fresh directory of /dev/shm (the root of the run),
// removed at exit; Boost's segment is a uniquely named /dev/shm object,
// removed after its case.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <boost/interprocess/managed_shared_memory.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "../common/pinned_main.h"
#include "mmf/mmf.h"
#include "platform/path.h"

namespace bip = boost::interprocess;

namespace {

// The run's root: every mapped file of this binary goes under it.
struct Root {
  std::string dir;
  Root() {
    char tmpl[] = "/dev/shm/bench_mmf.XXXXXX";
    if (!mkdtemp(tmpl)) {
      perror("bench_mmf: mkdtemp");
      exit(1);
    }
    dir = tmpl;
    tvx_path_set_root(dir.c_str());
  }
  ~Root() {
    mmf_sem_remove();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
} root;

const uint32_t kClasses[] = {32, 64, 128, 256, 512, 1024, 2048};

mmf *open_heap(const char *name) {
  mmf_unlink(name);
  return mmf_create(name, int64_t(256) << 20, int64_t(16) << 20, int64_t(16) << 20, true, 0, 1,
                    sizeof kClasses / sizeof kClasses[0], kClasses, 0, nullptr);
}

// ---- MmfLock ------------------------------------------------------------------

void MmfLock_ours(benchmark::State &s) {
  mmf *m = open_heap("/mfs/var/bench/lock");
  if (!m) {
    s.SkipWithError("mmf_create failed");
    return;
  }
  for (auto _ : s) {
    mmf_lock(m);
    mmf_unlock(m);
  }
  // Each pass must have gone through the word, not the recursion shortcut.
  if (m->shared_info->lockerpid != 0 || m->shared_info->lock_count < uint64_t(s.iterations()))
    s.SkipWithError("lock word not taken and released each time");
  mmf_destroy(m);
}

// A mutex in a file mapped MAP_SHARED, as a process that shares it would have it.
void pthread_case(benchmark::State &s, bool robust) {
  std::string path = root.dir + "/mutex";
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || ftruncate(fd, 4096) != 0) {
    s.SkipWithError("mutex file");
    return;
  }
  void *p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (p == MAP_FAILED) {
    s.SkipWithError("mmap");
    return;
  }
  auto *mu = static_cast<pthread_mutex_t *>(p);
  pthread_mutexattr_t a;
  pthread_mutexattr_init(&a);
  pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
  if (robust) pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(mu, &a);
  pthread_mutexattr_destroy(&a);
  int bad = 0;
  for (auto _ : s) {
    bad |= pthread_mutex_lock(mu);
    bad |= pthread_mutex_unlock(mu);
  }
  if (bad) s.SkipWithError("pthread mutex call failed");
  pthread_mutex_destroy(mu);
  munmap(p, 4096);
  unlink(path.c_str());
}
void MmfLock_pthread(benchmark::State &s) { pthread_case(s, false); }
void MmfLock_pthread_robust(benchmark::State &s) { pthread_case(s, true); }

// For information: the two locked read-modify-writes one lock and unlock of
// ours makes (the word's compare-and-swap both ways), with nothing else: the
// least ours can cost. A pthread mutex makes two as well.
void MmfLock_atomics(benchmark::State &s) {
  uint32_t word = 0;
  for (auto _ : s) {
    uint32_t expect = 0;
    __atomic_compare_exchange_n(&word, &expect, 7, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
    benchmark::ClobberMemory();
    expect = 7;
    __atomic_compare_exchange_n(&word, &expect, 0, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED);
  }
  if (word) s.SkipWithError("the sequence did not return to zero");
}

BENCHMARK(MmfLock_ours)->Name("MmfLock/ours");
BENCHMARK(MmfLock_atomics)->Name("MmfLock/atomics");
BENCHMARK(MmfLock_pthread)->Name("MmfLock/pthread");
BENCHMARK(MmfLock_pthread_robust)->Name("MmfLock/pthread_robust");

// ---- MmfAlloc -----------------------------------------------------------------

constexpr size_t kLive = 10000;
constexpr size_t kSeq = 1 << 16;

// The replayed sequence: which live block goes, and the size of its replacement.
struct Script {
  std::vector<uint32_t> pick, size;
  std::vector<uint32_t> first;  // sizes of the initial working set
  Script() {
    std::mt19937 rng(20261123);
    pick.resize(kSeq);
    size.resize(kSeq);
    first.resize(kLive);
    auto sz = [&] { return 8 + static_cast<uint32_t>(rng() % 1017); };  // 8..1024 bytes
    for (auto &x : first) x = sz();
    for (size_t i = 0; i < kSeq; i++) {
      pick[i] = static_cast<uint32_t>(rng() % kLive);
      size[i] = sz();
    }
  }
};
const Script &script() {
  static Script sc;
  return sc;
}

// An allocator as the loop sees it: alloc(bytes) -> handle, free(handle),
// ptr(handle) -> bytes, for checking only.
struct OursHeap {
  mmf *m;
  struct H {
    off_t off;
    void *p;
  };
  H alloc(uint32_t n) {
    H h;
    h.p = mmf_alloc(m, n, &h.off);
    return h;
  }
  void release(H h) { mmf_free_offset(m, h.off); }
  static bool null(H h) { return h.p == nullptr || h.off == 0; }
  uint8_t *ptr(H h, uint32_t n) { return static_cast<uint8_t *>(mmf_user_ptr(m, h.off, n)); }
  bool empty() const { return m->shared_info->allocated_bytes == 0; }
};

struct BoostHeap {
  bip::managed_shared_memory *seg;
  using H = void *;
  H alloc(uint32_t n) { return seg->allocate(n, std::nothrow); }
  void release(H h) { seg->deallocate(h); }
  static bool null(H h) { return h == nullptr; }
  uint8_t *ptr(H h, uint32_t) { return static_cast<uint8_t *>(h); }
  bool empty() const { return seg->all_memory_deallocated(); }
};

uint8_t fill_byte(size_t slot, size_t step) { return static_cast<uint8_t>(slot * 31 + step * 7 + 1); }

// Replays the whole script once with every block written on allocation and
// every block read back when it is freed and at the end: the answers the
// timed loop relies on. Returns an error or null.
template <typename Heap>
const char *check(Heap &heap) {
  const Script &sc = script();
  using H = typename Heap::H;
  std::vector<H> set(kLive);
  std::vector<uint32_t> len(kLive);
  std::vector<size_t> step(kLive);
  const char *err = nullptr;
  auto put = [&](size_t i, uint32_t n, size_t k) {
    set[i] = heap.alloc(n);
    len[i] = n;
    step[i] = k;
    if (Heap::null(set[i])) return false;
    memset(heap.ptr(set[i], n), fill_byte(i, k), n);
    return true;
  };
  auto intact = [&](size_t i) {
    const uint8_t *p = heap.ptr(set[i], len[i]);
    for (uint32_t b = 0; b < len[i]; b++)
      if (p[b] != fill_byte(i, step[i])) return false;
    return true;
  };
  for (size_t made = 0; made < kLive; made++)
    if (!put(made, sc.first[made], kSeq + made)) {
      err = "allocation failed while filling";
      break;
    }
  for (size_t k = 0; !err && k < kSeq; k++) {
    size_t i = sc.pick[k];
    if (!intact(i)) err = "a block's contents changed while it was live";
    heap.release(set[i]);
    set[i] = H{};
    if (!err && !put(i, sc.size[k], k)) err = "allocation failed in the replay";
  }
  for (size_t i = 0; i < kLive; i++) {
    if (Heap::null(set[i])) continue;
    if (!err && !intact(i)) err = "a block's contents changed by the end";
    heap.release(set[i]);
  }
  if (!err && !heap.empty()) err = "memory still allocated after every block was freed";
  return err;
}

template <typename Heap>
void churn(benchmark::State &s, Heap &heap) {
  if (const char *err = check(heap)) {
    s.SkipWithError(err);
    return;
  }
  const Script &sc = script();
  using H = typename Heap::H;
  std::vector<H> set(kLive);
  for (size_t i = 0; i < kLive; i++) set[i] = heap.alloc(sc.first[i]);
  size_t k = 0, nulls = 0;
  for (auto _ : s) {
    size_t j = k++ & (kSeq - 1);
    uint32_t i = sc.pick[j];
    heap.release(set[i]);
    set[i] = heap.alloc(sc.size[j]);
    nulls += Heap::null(set[i]);
    benchmark::DoNotOptimize(set[i]);
  }
  for (auto &h : set)
    if (!Heap::null(h)) heap.release(h);
  if (nulls) s.SkipWithError("an allocation failed in the timed loop");
  s.SetItemsProcessed(s.iterations());
}

void MmfAlloc_ours(benchmark::State &s) {
  mmf *m = open_heap("/mfs/var/bench/heap");
  if (!m) {
    s.SkipWithError("mmf_create failed");
    return;
  }
  OursHeap h{m};
  churn(s, h);
  if (!mmf_valid(m, false)) s.SkipWithError("the file does not walk after the run");
  s.counters["file_mb"] = double(m->shared_info->current_bytes) / (1 << 20);
  mmf_destroy(m);
}

void MmfAlloc_boostipc(benchmark::State &s) {
  std::string name = "bench_mmf_ipc." + std::to_string(getpid());
  bip::shared_memory_object::remove(name.c_str());
  {
    bip::managed_shared_memory seg(bip::create_only, name.c_str(), size_t(256) << 20);
    BoostHeap h{&seg};
    churn(s, h);
    if (!seg.check_sanity()) s.SkipWithError("the segment fails its own check after the run");
  }
  bip::shared_memory_object::remove(name.c_str());
}

BENCHMARK(MmfAlloc_ours)->Name("MmfAlloc/ours");
BENCHMARK(MmfAlloc_boostipc)->Name("MmfAlloc/boostipc");

// ---- MmfTakeover --------------------------------------------------------------

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// The waiter starts at the kill, so each sample is the quiet rounds of
// back-off plus one scaled dead-holder check interval. Without
// TVX_MM_TIME_SCALE the run uses 0.05 (a 0.1 s check) so that it ends in
// seconds; the counters say which scale was in force.
void MmfTakeover_ours(benchmark::State &s) {
  if (!getenv("TVX_MM_TIME_SCALE")) mmf_set_time_scale(0.05);
  mmf *m = open_heap("/mfs/var/bench/takeover");
  if (!m) {
    s.SkipWithError("mmf_create failed");
    return;
  }
  const char *err = nullptr;
  for (auto _ : s) {
    int fds[2];
    if (pipe(fds) != 0) {
      err = "pipe";
      break;
    }
    uint32_t before = m->shared_info->dead_holder_takeovers;
    pid_t kid = fork();
    if (kid == 0) {
      mmf_lock(m);
      char c = 1;
      if (write(fds[1], &c, 1) != 1) _exit(1);
      for (;;) pause();
    }
    close(fds[1]);
    char c;
    bool held = kid > 0 && read(fds[0], &c, 1) == 1;
    close(fds[0]);
    if (!held) {
      err = "the holder did not take the lock";
      if (kid > 0) kill(kid, SIGKILL), waitpid(kid, nullptr, 0);
      break;
    }
    kill(kid, SIGKILL);
    double t0 = now_s();
    waitpid(kid, nullptr, 0);
    mmf_lock(m);
    double t1 = now_s();
    bool mine = m->shared_info->lockerpid == uint32_t(getpid()) &&
                m->shared_info->dead_holder_takeovers == before + 1;
    mmf_unlock(m);
    if (!mine) {
      err = "the lock was not taken over from the dead holder";
      break;
    }
    s.SetIterationTime(t1 - t0);
  }
  if (err) s.SkipWithError(err);
  s.counters["scale"] = mmf_time_scale();
  s.counters["check_s"] = 2 * mmf_time_scale();
  mmf_destroy(m);
}

BENCHMARK(MmfTakeover_ours)->Name("MmfTakeover/ours")->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

TVX_BENCH_PINNED_MAIN()
