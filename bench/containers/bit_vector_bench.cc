// Bit vectors against boost::dynamic_bitset: set and test at random
// positions of a 65,536-bit set, and the scan for the first clear bit.
#include <benchmark/benchmark.h>

#include <boost/dynamic_bitset.hpp>
#include <cstdint>
#include <random>
#include <vector>

#include "containers/bit_vector.h"

namespace {

constexpr uint32_t kBits = 1 << 16;

const std::vector<uint32_t> &positions() {
  static std::vector<uint32_t> p = [] {
    std::mt19937 rng(777);
    std::vector<uint32_t> v(1 << 16);
    for (auto &x : v) x = rng() % kBits;
    return v;
  }();
  return p;
}

// Grown to its full size before timing, as the bitset is resized.
bit_vector *full_size_vector() {
  bit_vector *v = bit_vector_create();
  bit_vector_set(&v, kBits - 1);
  bit_vector_clear_bit(&v, kBits - 1);
  return v;
}

void SetOurs(benchmark::State &state) {
  bit_vector *v = full_size_vector();
  const auto &p = positions();
  size_t i = 0;
  for (auto _ : state) {
    bit_vector_set(&v, p[i]);
    i = (i + 1) & (p.size() - 1);
  }
  benchmark::DoNotOptimize(v->bv_bits[0]);
  bit_vector_free(v);
}

void SetBoost(benchmark::State &state) {
  boost::dynamic_bitset<uint64_t> bs(kBits);
  const auto &p = positions();
  size_t i = 0;
  for (auto _ : state) {
    bs.set(p[i]);
    i = (i + 1) & (p.size() - 1);
  }
  benchmark::DoNotOptimize(bs.count());
}

void TestOurs(benchmark::State &state) {
  bit_vector *v = full_size_vector();
  const auto &p = positions();
  for (size_t i = 0; i < p.size(); i += 2) bit_vector_set(&v, p[i]);
  size_t i = 0;
  uint32_t hits = 0;
  for (auto _ : state) {
    hits += bit_vector_test(v, p[i ^ 1]);
    i = (i + 1) & (p.size() - 1);
  }
  benchmark::DoNotOptimize(hits);
  bit_vector_free(v);
}

void TestBoost(benchmark::State &state) {
  boost::dynamic_bitset<uint64_t> bs(kBits);
  const auto &p = positions();
  for (size_t i = 0; i < p.size(); i += 2) bs.set(p[i]);
  size_t i = 0;
  uint32_t hits = 0;
  for (auto _ : state) {
    hits += bs.test(p[i ^ 1]);
    i = (i + 1) & (p.size() - 1);
  }
  benchmark::DoNotOptimize(hits);
}

// The first `arg` bits set, then a clear one: the scan crosses arg bits.
void FirstClearOurs(benchmark::State &state) {
  const auto k = static_cast<uint32_t>(state.range(0));
  bit_vector *v = full_size_vector();
  for (uint32_t b = 0; b < kBits; b++)
    if (b != k) bit_vector_set(&v, b);
  for (auto _ : state) {
    benchmark::DoNotOptimize(v);
    uint32_t r = bit_vector_first_clear(v);
    benchmark::DoNotOptimize(r);
  }
  if (bit_vector_first_clear(v) != k) state.SkipWithError("wrong answer");
  bit_vector_free(v);
}

// dynamic_bitset can only search for set bits, so it holds the complement:
// find_first over it is the same word scan.
void FirstClearBoost(benchmark::State &state) {
  const auto k = static_cast<size_t>(state.range(0));
  boost::dynamic_bitset<uint64_t> complement(kBits);
  complement.set(k);
  for (auto _ : state) {
    benchmark::DoNotOptimize(complement);
    size_t r = complement.find_first();
    benchmark::DoNotOptimize(r);
  }
  if (complement.find_first() != k) state.SkipWithError("wrong answer");
}

BENCHMARK(SetOurs)->Name("BitVectorSet/ours");
BENCHMARK(SetBoost)->Name("BitVectorSet/boost");
BENCHMARK(TestOurs)->Name("BitVectorTest/ours");
BENCHMARK(TestBoost)->Name("BitVectorTest/boost");
BENCHMARK(FirstClearOurs)->Name("BitVectorFirstClear/ours")->Arg(200)->Arg(20000);
BENCHMARK(FirstClearBoost)->Name("BitVectorFirstClear/boost")->Arg(200)->Arg(20000);

}  // namespace
