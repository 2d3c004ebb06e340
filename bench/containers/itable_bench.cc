// ItableGet and ItableFirstFree: the 32-bit indexed table against JudyL and
// std::unordered_map on the same indexes and the same script of changes.
#include <Judy.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <unordered_map>
#include <vector>

#include "containers/itable.h"

namespace {

void *ptr_of(uint32_t i) { return reinterpret_cast<void *>(uintptr_t{i} * 8 + 8); }

// ItableGet: 10,000 distinct indexes below `span` (12,500: dense, like
// interface indexes; 1,048,576: sparse), looked up in a shuffled order.
struct get_data {
  std::vector<uint32_t> indexes, order;
  explicit get_data(uint32_t span) {
    std::mt19937 rng(4711);
    std::vector<uint32_t> all(span);
    for (uint32_t i = 0; i < span; i++) all[i] = i;
    std::shuffle(all.begin(), all.end(), rng);
    indexes.assign(all.begin(), all.begin() + 10000);
    order = indexes;
    std::shuffle(order.begin(), order.end(), rng);
  }
};

void ItableGetOurs(benchmark::State &state) {
  get_data d(static_cast<uint32_t>(state.range(0)));
  itable_t *t = itable_create(ITAB_MAXINDEX);
  for (uint32_t i : d.indexes) itable_set(t, i, ptr_of(i));
  size_t n = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(itable_get(t, d.order[n]));
    if (++n == d.order.size()) n = 0;
  }
  itable_clear(t);
  itable_free(t);
}

void ItableGetJudy(benchmark::State &state) {
  get_data d(static_cast<uint32_t>(state.range(0)));
  Pvoid_t judy = nullptr;
  for (uint32_t i : d.indexes) *JudyLIns(&judy, i, PJE0) = ptr_of(i);
  size_t n = 0;
  for (auto _ : state) {
    PPvoid_t v = JudyLGet(judy, d.order[n], PJE0);
    void *p = v ? *v : nullptr;
    benchmark::DoNotOptimize(p);
    if (++n == d.order.size()) n = 0;
  }
  JudyLFreeArray(&judy, PJE0);
}

void ItableGetUnorderedMap(benchmark::State &state) {
  get_data d(static_cast<uint32_t>(state.range(0)));
  std::unordered_map<uint32_t, void *> m;
  for (uint32_t i : d.indexes) m.emplace(i, ptr_of(i));
  size_t n = 0;
  for (auto _ : state) {
    auto it = m.find(d.order[n]);
    void *p = it == m.end() ? nullptr : it->second;
    benchmark::DoNotOptimize(p);
    if (++n == d.order.size()) n = 0;
  }
}

// ItableFirstFree: an index allocator. Indexes 1 to n + n/10 are taken and a
// tenth of them, at random, given back; then each iteration takes the lowest
// free index above 0 and gives back a random one in use. Every implementation
// finds the same indexes, so all follow one script: the list of indexes in use
// and the random choices are kept outside the structure measured.
struct index_pool {
  std::vector<uint32_t> in_use;
  std::mt19937 rng{99};
  uint32_t give_back() {
    size_t k = rng() % in_use.size();
    uint32_t i = in_use[k];
    in_use[k] = in_use.back();
    in_use.pop_back();
    return i;
  }
};

template <typename Impl>
void first_free_run(benchmark::State &state, Impl &impl) {
  uint32_t n = static_cast<uint32_t>(state.range(0));
  index_pool pool;
  for (uint32_t i = 1; i <= n + n / 10; i++) {
    impl.set(i);
    pool.in_use.push_back(i);
  }
  for (uint32_t k = 0; k < n / 10; k++) impl.reset(pool.give_back());
  for (auto _ : state) {
    uint32_t i = impl.first_free();
    impl.set(i);
    pool.in_use.push_back(i);
    impl.reset(pool.give_back());
  }
}

void ItableFirstFreeOurs(benchmark::State &state) {
  struct impl {
    itable_t *t = itable_create(ITAB_MAXINDEX);
    void set(uint32_t i) { itable_set(t, i, ptr_of(i)); }
    void reset(uint32_t i) { itable_reset(t, i); }
    uint32_t first_free() { return itable_find_first_free(t, 0); }
  } ours;
  first_free_run(state, ours);
  itable_clear(ours.t);
  itable_free(ours.t);
}

void ItableFirstFreeJudy(benchmark::State &state) {
  struct impl {
    Pvoid_t judy = nullptr;
    void set(uint32_t i) { *JudyLIns(&judy, i, PJE0) = ptr_of(i); }
    void reset(uint32_t i) { JudyLDel(&judy, i, PJE0); }
    uint32_t first_free() {
      Word_t i = 1;
      JudyLFirstEmpty(judy, &i, PJE0);
      return static_cast<uint32_t>(i);
    }
  } judy;
  first_free_run(state, judy);
  JudyLFreeArray(&judy.judy, PJE0);
}

// A hash map has no order: the lowest free index is found by probing upward.
void ItableFirstFreeUnorderedMap(benchmark::State &state) {
  struct impl {
    std::unordered_map<uint32_t, void *> m;
    void set(uint32_t i) { m[i] = ptr_of(i); }
    void reset(uint32_t i) { m.erase(i); }
    uint32_t first_free() {
      uint32_t i = 1;
      while (m.count(i)) i++;
      return i;
    }
  } map;
  first_free_run(state, map);
}

}  // namespace

BENCHMARK(ItableGetOurs)->Name("ItableGet/ours")->Arg(12500)->Arg(1 << 20);
BENCHMARK(ItableGetJudy)->Name("ItableGet/judy")->Arg(12500)->Arg(1 << 20);
BENCHMARK(ItableGetUnorderedMap)->Name("ItableGet/unordered_map")->Arg(12500)->Arg(1 << 20);
BENCHMARK(ItableFirstFreeOurs)->Name("ItableFirstFree/ours")->Arg(10000);
BENCHMARK(ItableFirstFreeJudy)->Name("ItableFirstFree/judy")->Arg(10000);
BENCHMARK(ItableFirstFreeUnorderedMap)->Name("ItableFirstFree/unordered_map")->Arg(10000);
