// HeapChurn: the indexed heap against Boost's mutable binary d-ary heap, both
// holding pointers to the same items and comparing through them.
#include <benchmark/benchmark.h>

#include <boost/heap/d_ary_heap.hpp>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "containers/iheap.h"

namespace {

struct item {
  uint64_t key;
  uint32_t pos;
};

// One round: change the key of one item, delete another and add it back with
// a new key. Every item is in the heap before and after each round, so the
// script does not depend on the heap it drives.
struct round_script {
  uint32_t changed;
  uint64_t changed_key;
  uint32_t readded;
  uint64_t readded_key;
};

struct churn_data {
  std::vector<uint64_t> initial;
  std::vector<round_script> rounds;
  explicit churn_data(size_t n) {
    std::mt19937_64 rng(777);
    for (size_t i = 0; i < n; i++) initial.push_back(rng());
    rounds.resize(1 << 16);
    for (auto &r : rounds)
      r = {static_cast<uint32_t>(rng() % n), rng(), static_cast<uint32_t>(rng() % n), rng()};
  }
};

int cmp_items(const void *a, const void *b) {
  uint64_t ka = static_cast<const item *>(a)->key, kb = static_cast<const item *>(b)->key;
  return ka < kb ? -1 : ka > kb ? 1 : 0;
}

// Each benchmark iteration is one operation: change, delete or add in turn.
void HeapChurnOurs(benchmark::State &state) {
  churn_data d(static_cast<size_t>(state.range(0)));
  std::vector<item> items(d.initial.size());
  iheap heap{};
  iheap_init(&heap, offsetof(item, pos), cmp_items);
  for (size_t i = 0; i < items.size(); i++) {
    items[i].key = d.initial[i];
    iheap_add(&heap, &items[i]);
  }
  size_t r = 0;
  int phase = 0;
  for (auto _ : state) {
    const round_script &s = d.rounds[r];
    if (phase == 0) {
      items[s.changed].key = s.changed_key;
      iheap_change(&heap, &items[s.changed]);
      phase = 1;
    } else if (phase == 1) {
      iheap_delete(&heap, &items[s.readded]);
      phase = 2;
    } else {
      items[s.readded].key = s.readded_key;
      iheap_add(&heap, &items[s.readded]);
      phase = 0;
      if (++r == d.rounds.size()) r = 0;
    }
  }
  benchmark::DoNotOptimize(iheap_first(&heap));
  for (auto &it : items)
    if (it.pos) iheap_delete(&heap, &it);  // the run may stop between a delete and its add
  iheap_release(&heap);
}

struct later_key {
  bool operator()(const item *a, const item *b) const { return a->key > b->key; }
};
using boost_heap = boost::heap::d_ary_heap<item *, boost::heap::arity<2>, boost::heap::mutable_<true>,
                                           boost::heap::compare<later_key>>;

void HeapChurnBoost(benchmark::State &state) {
  churn_data d(static_cast<size_t>(state.range(0)));
  std::vector<item> items(d.initial.size());
  boost_heap heap;
  std::vector<boost_heap::handle_type> handles(items.size());
  for (size_t i = 0; i < items.size(); i++) {
    items[i].key = d.initial[i];
    handles[i] = heap.push(&items[i]);
  }
  size_t r = 0;
  int phase = 0;
  for (auto _ : state) {
    const round_script &s = d.rounds[r];
    if (phase == 0) {
      items[s.changed].key = s.changed_key;
      heap.update(handles[s.changed]);
      phase = 1;
    } else if (phase == 1) {
      heap.erase(handles[s.readded]);
      phase = 2;
    } else {
      items[s.readded].key = s.readded_key;
      handles[s.readded] = heap.push(&items[s.readded]);
      phase = 0;
      if (++r == d.rounds.size()) r = 0;
    }
  }
  benchmark::DoNotOptimize(heap.top());
}

}  // namespace

BENCHMARK(HeapChurnOurs)->Name("HeapChurn/ours")->Arg(1000)->Arg(100000);
BENCHMARK(HeapChurnBoost)->Name("HeapChurn/boost")->Arg(1000)->Arg(100000);
