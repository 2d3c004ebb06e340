// SparseLookup: the sparse tables against std::unordered_map and Boost's
// unordered_flat_map, looking up the same keys in the same shuffled order.
//
// Shapes:
//   random  10,000 random 32-bit keys in a sparse_table32;
//   vni     4,096 VNIs in four dense runs of 1,024 at random 24-bit starts, in
//           a sparse_table32, as the responder's VNI table holds them;
//   bd      16,000 random bridge-domain ids below 65,536, in a sparse_table16,
//           as its bridge-domain table holds them.
// Every lookup finds its key; each implementation must return the same value.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "containers/sparse_table.h"

namespace {

enum Shape { kRandom, kVni, kBd };

// Distinct keys of a shape, and the order in which they are looked up.
struct keys_of {
  std::vector<uint32_t> keys, order;
  explicit keys_of(Shape shape) {
    std::mt19937 rng(20240601 + shape);
    std::unordered_set<uint32_t> seen;
    auto add = [&](uint32_t k) {
      if (seen.insert(k).second) keys.push_back(k);
    };
    switch (shape) {
      case kRandom:
        while (keys.size() < 10000) add(static_cast<uint32_t>(rng()));
        break;
      case kVni:
        while (keys.size() < 4096) {
          uint32_t start = rng() % ((1u << 24) - 1024);
          for (uint32_t i = 0; i < 1024 && keys.size() < 4096; i++) add(start + i);
        }
        break;
      case kBd:
        while (keys.size() < 16000) add(rng() % 65536);
        break;
    }
    order = keys;
    std::shuffle(order.begin(), order.end(), rng);
  }
};
const keys_of &data(Shape s) {
  static const keys_of d[3] = {keys_of(kRandom), keys_of(kVni), keys_of(kBd)};
  return d[s];
}
void *value_of(uint32_t k) { return reinterpret_cast<void *>(uintptr_t{k} << 1 | 1); }

// Runs the lookups of `find` in the shape's order; checks every answer first.
template <typename Find>
void lookups(benchmark::State &state, const keys_of &d, Find find) {
  for (uint32_t k : d.order)
    if (find(k) != value_of(k)) {
      fprintf(stderr, "SparseLookup: wrong value for key %u\n", k);
      abort();
    }
  size_t i = 0;
  for (auto _ : state) {
    void *v = find(d.order[i]);
    benchmark::DoNotOptimize(v);
    if (++i == d.order.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

void ours(benchmark::State &state, Shape s) {
  const auto &d = data(s);
  if (s == kBd) {
    sparse_table16 *t = sparse_table16_create(nullptr, nullptr, nullptr);
    for (uint32_t k : d.keys) sparse_table16_insert(t, value_of(k), &k);
    lookups(state, d, [t](uint32_t k) { return sparse_table16_lookup(t, &k); });
    sparse_table16_destroy(t);
    return;
  }
  sparse_table32 *t = sparse_table32_create(nullptr, nullptr, nullptr);
  for (uint32_t k : d.keys) sparse_table32_insert(t, value_of(k), &k);
  lookups(state, d, [t](uint32_t k) { return sparse_table32_lookup(t, &k); });
  sparse_table32_destroy(t);
}

template <typename Map>
void map(benchmark::State &state, Shape s) {
  const auto &d = data(s);
  Map m;
  for (uint32_t k : d.keys) m.emplace(k, value_of(k));
  lookups(state, d, [&m](uint32_t k) {
    auto it = m.find(k);
    return it == m.end() ? nullptr : it->second;
  });
}

void std_map(benchmark::State &state, Shape s) { map<std::unordered_map<uint32_t, void *>>(state, s); }
void flat_map(benchmark::State &state, Shape s) { map<boost::unordered_flat_map<uint32_t, void *>>(state, s); }

}  // namespace

BENCHMARK_CAPTURE(ours, random, kRandom)->Name("SparseLookup/ours/random");
BENCHMARK_CAPTURE(std_map, random, kRandom)->Name("SparseLookup/unordered_map/random");
BENCHMARK_CAPTURE(flat_map, random, kRandom)->Name("SparseLookup/boost/random");
BENCHMARK_CAPTURE(ours, vni, kVni)->Name("SparseLookup/ours/vni");
BENCHMARK_CAPTURE(std_map, vni, kVni)->Name("SparseLookup/unordered_map/vni");
BENCHMARK_CAPTURE(flat_map, vni, kVni)->Name("SparseLookup/boost/vni");
BENCHMARK_CAPTURE(ours, bd, kBd)->Name("SparseLookup/ours/bd");
BENCHMARK_CAPTURE(std_map, bd, kBd)->Name("SparseLookup/unordered_map/bd");
BENCHMARK_CAPTURE(flat_map, bd, kBd)->Name("SparseLookup/boost/bd");
