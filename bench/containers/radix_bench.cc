// Longest-prefix match over 100,000 random IPv4 prefixes: the radix tree
// against one hash map per prefix length, probed longest first.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "containers/radix.h"

namespace {

constexpr size_t kPrefixes = 100000;
constexpr size_t kLookups = 1000000;

struct route {
  rnode rn;
  uint8_t key[4];  // network order
  uint32_t addr;   // host order, for the hash maps
  uint32_t len;
};

uint32_t mask_of(uint32_t len) { return len ? ~0u << (32 - len) : 0; }

// Same prefixes and same addresses for both: lengths uniform in 8..32; half
// the addresses lie inside a random stored prefix, half are uniform (which
// mostly match only short prefixes or nothing).
struct data_set {
  std::vector<route> routes;
  std::vector<uint32_t> addrs;             // host order
  std::vector<std::array<uint8_t, 4>> keys;  // the same, network order

  data_set() : routes(kPrefixes) {
    std::mt19937 rng(20240601);
    std::unordered_set<uint64_t> seen;
    for (size_t i = 0; i < kPrefixes;) {
      uint32_t len = 8 + rng() % 25;
      uint32_t a = static_cast<uint32_t>(rng()) & mask_of(len);
      if (!seen.insert(uint64_t{a} << 6 | len).second) continue;
      route &r = routes[i++];
      r.addr = a;
      r.len = len;
      r.key[0] = a >> 24, r.key[1] = a >> 16, r.key[2] = a >> 8, r.key[3] = static_cast<uint8_t>(a);
    }
    addrs.resize(kLookups);
    keys.resize(kLookups);
    for (size_t i = 0; i < kLookups; i++) {
      uint32_t a = static_cast<uint32_t>(rng());
      if (i % 2 == 0) {
        const route &r = routes[rng() % kPrefixes];
        a = r.addr | (a & ~mask_of(r.len));
      }
      addrs[i] = a;
      keys[i] = {static_cast<uint8_t>(a >> 24), static_cast<uint8_t>(a >> 16),
                 static_cast<uint8_t>(a >> 8), static_cast<uint8_t>(a)};
    }
  }
};

data_set &data() {
  static data_set d;
  return d;
}

struct radix_impl {
  task_radix root;
  explicit radix_impl(data_set &d) {
    task_radix_init(&root, 0, 0);
    for (route &r : d.routes) {
      task_radix32_node_init(&r.rn, r.len, 0);
      if (!task_radix32_add(&root, &r.rn)) std::abort();
    }
  }
  ~radix_impl() {
    for (route &r : data().routes) task_radix32_delete(&root, &r.rn);
  }
  const route *lookup(size_t i) const {
    return reinterpret_cast<const route *>(task_radix_lookup(&root, data().keys[i].data()));
  }
};

struct hash_lpm {
  struct level {
    uint32_t mask;
    std::unordered_map<uint32_t, const route *> map;
  };
  std::vector<level> levels;  // longest first, only lengths present
  explicit hash_lpm(const data_set &d) {
    std::vector<size_t> count(33);
    for (const route &r : d.routes) count[r.len]++;
    for (int len = 32; len >= 0; len--) {
      if (!count[len]) continue;
      levels.push_back({mask_of(len), {}});
      levels.back().map.reserve(count[len]);
      for (const route &r : d.routes)
        if (r.len == static_cast<uint32_t>(len)) levels.back().map.emplace(r.addr, &r);
    }
  }
  const route *lookup(size_t i) const {
    uint32_t a = data().addrs[i];
    for (const level &l : levels) {
      auto it = l.map.find(a & l.mask);
      if (it != l.map.end()) return it->second;
    }
    return nullptr;
  }
};

// Both must give the same answer to every lookup, or the comparison is void.
void check_agree(const radix_impl &r, const hash_lpm &h) {
  static bool done;
  if (done) return;
  size_t matched = 0;
  for (size_t i = 0; i < kLookups; i++) {
    const route *a = r.lookup(i), *b = h.lookup(i);
    if (a != b) {
      std::fprintf(stderr, "RadixLookup: implementations disagree at lookup %zu\n", i);
      std::abort();
    }
    matched += a != nullptr;
  }
  std::fprintf(stderr, "RadixLookup: %zu of %zu lookups match a prefix\n", matched, kLookups);
  done = true;
}

template <class Impl>
void run(benchmark::State &state, const Impl &impl) {
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(impl.lookup(i));
    if (++i == kLookups) i = 0;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void RadixLookupOurs(benchmark::State &state) {
  radix_impl r(data());
  { hash_lpm h(data()); check_agree(r, h); }
  run(state, r);
}

void RadixLookupHash(benchmark::State &state) {
  hash_lpm h(data());
  run(state, h);
}

BENCHMARK(RadixLookupOurs)->Name("RadixLookup/ours");
BENCHMARK(RadixLookupHash)->Name("RadixLookup/hashlpm");

}  // namespace
