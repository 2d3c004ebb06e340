// SparseLookup: the 32-bit sparse table against std::unordered_map, looking up
// the same random keys in the same order.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "containers/sparse_table.h"

namespace {

constexpr size_t kKeys = 10000;

// Distinct random 32-bit keys, and the order in which they are looked up.
struct sparse_data {
  std::vector<uint32_t> keys, order;
  sparse_data() {
    std::mt19937 rng(20240601);
    std::unordered_set<uint32_t> seen;
    while (keys.size() < kKeys) {
      uint32_t k = static_cast<uint32_t>(rng());
      if (seen.insert(k).second) keys.push_back(k);
    }
    order = keys;
    std::shuffle(order.begin(), order.end(), rng);
  }
};
const sparse_data &data() {
  static const sparse_data d;
  return d;
}
void *value_of(uint32_t k) { return reinterpret_cast<void *>(uintptr_t{k} | 1); }

void SparseLookupOurs(benchmark::State &state) {
  const auto &d = data();
  sparse_table32 *t = sparse_table32_create(nullptr, nullptr, nullptr);
  for (uint32_t k : d.keys) sparse_table32_insert(t, value_of(k), &k);
  size_t i = 0;
  for (auto _ : state) {
    void *v = sparse_table32_lookup(t, &d.order[i]);
    benchmark::DoNotOptimize(v);
    if (++i == d.order.size()) i = 0;
  }
  sparse_table32_destroy(t);
}

void SparseLookupUnorderedMap(benchmark::State &state) {
  const auto &d = data();
  std::unordered_map<uint32_t, void *> m;
  for (uint32_t k : d.keys) m.emplace(k, value_of(k));
  size_t i = 0;
  for (auto _ : state) {
    auto it = m.find(d.order[i]);
    void *v = it == m.end() ? nullptr : it->second;
    benchmark::DoNotOptimize(v);
    if (++i == d.order.size()) i = 0;
  }
}

}  // namespace

BENCHMARK(SparseLookupOurs)->Name("SparseLookup/ours");
BENCHMARK(SparseLookupUnorderedMap)->Name("SparseLookup/unordered_map");
