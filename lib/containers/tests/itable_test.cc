#include "containers/itable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>

#include "alloc_counting.h"

namespace {

void *ptr_of(uint32_t i) { return reinterpret_cast<void *>(uintptr_t{i} * 16 + 8); }

// One driver for both tables.
struct big {
  using table = itable_t;
  static constexpr uint32_t kSlots = 64;
  static table *create(uint32_t max) { return itable_create(max); }
  static void set(table *t, uint32_t i, void *p) { itable_set(t, i, p); }
  static void *get(table *t, uint32_t i) { return itable_get(t, i); }
  static void reset(table *t, uint32_t i) { itable_reset(t, i); }
  static void clear(table *t) { itable_clear(t); }
  static void free(table *t) { itable_free(t); }
  static uint32_t first_used(table *t) { return itable_find_first_used(t); }
  static uint32_t next_used(table *t, uint32_t i) { return itable_getnext_used(t, i); }
  static uint32_t first_free(table *t, int z) { return itable_find_first_free(t, z); }
  static uint32_t next_free(table *t, uint32_t i) { return itable_getnext_free(t, i); }
  static uint32_t maxentry(table *t) { return t->itab_maxentry; }
  static uint32_t maxindex(table *t) { return t->itab_maxindex; }
  static uint32_t indirsize(table *t) { return t->itab_indirsize; }
  // Each existing bucket is non-empty and its bit map matches its slots.
  static void check_buckets(table *t) {
    for (uint32_t b = 0; b < t->itab_indirsize; b++) {
      const itb *k = t->itab_indirect[b];
      if (!k) continue;
      ASSERT_LT(b * 64, t->itab_maxentry) << "bucket past the top " << b;
      ASSERT_TRUE(k->itb_bmask[0] || k->itb_bmask[1]) << "empty bucket " << b;
      for (unsigned s = 0; s < 64; s++)
        ASSERT_EQ(k->itb_slot[s] != nullptr, ((k->itb_bmask[s >> 5] >> (s & 31)) & 1) != 0);
    }
  }
};

struct small {
  using table = itable8_t;
  static constexpr uint32_t kSlots = 8;
  static table *create(uint32_t max) { return itable8_create(max); }
  static void set(table *t, uint32_t i, void *p) { itable8_set(t, i, p); }
  static void *get(table *t, uint32_t i) { return itable8_get(t, i); }
  static void reset(table *t, uint32_t i) { itable8_reset(t, i); }
  static void clear(table *t) { itable8_clear(t); }
  static void free(table *t) { itable8_free(t); }
  static uint32_t first_used(table *t) { return itable8_find_first_used(t); }
  static uint32_t next_used(table *t, uint32_t i) { return itable8_getnext_used(t, i); }
  static uint32_t first_free(table *t, int z) { return itable8_find_first_free(t, z); }
  static uint32_t next_free(table *t, uint32_t i) { return itable8_getnext_free(t, i); }
  static uint32_t maxentry(table *t) { return t->itab8_maxentry; }
  static uint32_t maxindex(table *t) { return t->itab8_maxindex; }
  static uint32_t indirsize(table *t) { return t->itab8_indirsize; }
  static void check_buckets(table *t) {
    for (uint32_t b = 0; b < t->itab8_indirsize; b++) {
      const itb8 *k = t->itab8_indirect[b];
      if (!k) continue;
      ASSERT_LT(b * 8, t->itab8_maxentry) << "bucket past the top " << b;
      ASSERT_NE(k->itb8_bmask, 0) << "empty bucket " << b;
      for (unsigned s = 0; s < 8; s++)
        ASSERT_EQ(k->itb8_slot[s] != nullptr, ((k->itb8_bmask >> s) & 1) != 0);
    }
  }
};

template <typename T>
struct Itables : ::testing::Test {};
using both = ::testing::Types<big, small>;
TYPED_TEST_SUITE(Itables, both);

// The smallest index >= from that the model lacks, within max; -1 otherwise.
uint32_t model_free(const std::map<uint32_t, void *> &m, uint64_t from, uint32_t max) {
  for (auto it = m.lower_bound(static_cast<uint32_t>(from)); it != m.end() && it->first == from; ++it)
    from++;
  return from <= max ? static_cast<uint32_t>(from) : ITAB_NONE;
}

// Seeded runs against a map: dense clusters where the free search has work,
// and sparse indexes that drive the array through its classes and back.
TYPED_TEST(Itables, RandomAgainstModel) {
  using T = TypeParam;
  const uint32_t max = T::kSlots == 64 ? 300000 : 255;
  const uint32_t dense = T::kSlots == 64 ? 400 : 90;
  for (uint64_t seed : {1, 2, 3}) {
    std::mt19937_64 rng(seed);
    auto *t = T::create(max);
    std::map<uint32_t, void *> model;
    auto random_index = [&]() -> uint32_t {
      return rng() % 4 ? static_cast<uint32_t>(rng() % dense) : static_cast<uint32_t>(rng() % (max + 1));
    };
    for (int step = 0; step < 6000; step++) {
      // Grow to a few hundred entries, then shrink to nothing, twice.
      bool grow = (step / 1500) % 2 == 0;
      uint32_t i = random_index();
      if (rng() % 3 != 0 && grow) {
        T::set(t, i, ptr_of(i));
        model[i] = ptr_of(i);
      } else if (!model.empty()) {
        if (rng() % 2) i = model.begin()->first;  // also empty the low buckets
        if (rng() % 2) i = model.rbegin()->first;
        T::reset(t, i);
        model.erase(i);
      }
      ASSERT_EQ(T::maxentry(t), model.empty() ? 0 : model.rbegin()->first + 1) << step;
      ASSERT_NO_FATAL_FAILURE(T::check_buckets(t)) << step;
      ASSERT_GE(uint64_t{T::indirsize(t)} * T::kSlots, T::maxentry(t));
      if (model.empty()) {
        ASSERT_EQ(T::indirsize(t), 1u) << "array shrinks back";
      }

      uint32_t probe = random_index();
      auto it = model.find(probe);
      ASSERT_EQ(T::get(t, probe), it == model.end() ? nullptr : it->second);
      ASSERT_EQ(T::first_used(t), model.empty() ? ITAB_NONE : model.begin()->first);
      auto up = model.upper_bound(probe);
      ASSERT_EQ(T::next_used(t, probe), up == model.end() ? ITAB_NONE : up->first);
      ASSERT_EQ(T::first_free(t, 1), model_free(model, 0, max)) << step;
      ASSERT_EQ(T::first_free(t, 0), model_free(model, 1, max)) << step;
      ASSERT_EQ(T::next_free(t, probe), model_free(model, uint64_t{probe} + 1, max)) << step;
    }
    // A full walk by getnext_used sees exactly the model.
    std::map<uint32_t, void *> walked;
    for (uint32_t i = T::next_used(t, ITAB_NONE); i != ITAB_NONE; i = T::next_used(t, i))
      walked[i] = T::get(t, i);
    ASSERT_EQ(walked, model);
    T::clear(t);
    EXPECT_EQ(T::maxentry(t), 0u);
    EXPECT_EQ(T::indirsize(t), 1u);
    EXPECT_EQ(T::first_used(t), ITAB_NONE);
    T::free(t);
  }
}

// The index allocator's pattern: take the lowest free index, give back random
// ones, so that the free hint is lowered and followed over full buckets.
TYPED_TEST(Itables, LowestFreeAllocation) {
  using T = TypeParam;
  const uint32_t max = T::kSlots == 64 ? 5000 : 255;
  const size_t population = T::kSlots == 64 ? 1500 : 200;
  std::mt19937_64 rng(77);
  auto *t = T::create(max);
  std::map<uint32_t, void *> model;
  for (int step = 0; step < 20000; step++) {
    int zero_ok = step % 5 == 0;
    uint32_t i = T::first_free(t, zero_ok);
    ASSERT_EQ(i, model_free(model, zero_ok ? 0 : 1, max)) << step;
    if (i != ITAB_NONE && model.size() < population + rng() % 64) {
      T::set(t, i, ptr_of(i));
      model[i] = ptr_of(i);
    } else {
      // Give back a few at random places.
      for (int k = 0; k < 3 && !model.empty(); k++) {
        auto it = model.lower_bound(static_cast<uint32_t>(rng() % (max + 1)));
        if (it == model.end()) --it;
        T::reset(t, it->first);
        model.erase(it);
      }
    }
    ASSERT_EQ(T::maxentry(t), model.empty() ? 0 : model.rbegin()->first + 1) << step;
  }
  T::clear(t);
  T::free(t);
}

TYPED_TEST(Itables, FreeSearchLimits) {
  using T = TypeParam;
  auto *t = T::create(63);
  EXPECT_EQ(T::first_free(t, 1), 0u);
  EXPECT_EQ(T::first_free(t, 0), 1u);
  EXPECT_EQ(T::get(t, 40), nullptr);
  EXPECT_EQ(T::first_used(t), ITAB_NONE);
  for (uint32_t i = 0; i <= 63; i++) T::set(t, i, ptr_of(i));
  EXPECT_EQ(T::first_free(t, 1), ITAB_NONE);
  EXPECT_EQ(T::next_free(t, 10), ITAB_NONE);
  T::reset(t, 63);
  EXPECT_EQ(T::first_free(t, 0), 63u);
  T::set(t, 5, nullptr);  // a null store resets
  EXPECT_EQ(T::first_free(t, 0), 5u);
  EXPECT_EQ(T::maxentry(t), 63u);
  T::clear(t);
  T::free(t);

  // A maximum inside a bucket: the free bits above it do not count.
  t = T::create(10);
  for (uint32_t i = 0; i <= 10; i++) T::set(t, i, ptr_of(i));
  EXPECT_EQ(T::first_free(t, 1), ITAB_NONE);
  EXPECT_EQ(T::next_free(t, 3), ITAB_NONE);
  T::clear(t);
  T::free(t);
}

TEST(Itable, ArrayClassesComeAndGo) {
  itable_init_blocks();
  long buckets = counting::live("itable_bucket");
  long mem = counting::cookie_live("itable_indirect");
  itable_t *t = itable_create(ITAB_MAXINDEX);
  EXPECT_EQ(t->itab_maxindex, ITAB_MAXINDEX - 1);
  itable_set(t, 1000, ptr_of(1000));  // bucket 15: class 2
  EXPECT_EQ(t->itab_indirsize, 16u);
  EXPECT_EQ(counting::live("itable_indirect_16"), 1);
  itable_reset(t, 1000);
  EXPECT_EQ(t->itab_maxentry, 0u);
  EXPECT_EQ(t->itab_indirsize, 1u);
  EXPECT_EQ(t->itab_indirect, &t->itab_bucket0);
  EXPECT_EQ(counting::live("itable_indirect_16"), 0);
  EXPECT_EQ(counting::live("itable_bucket"), buckets);

  // Need 1023 buckets stays in the block; 1024 goes to the cookie, 2047 wide.
  itable_set(t, 1022 * 64, ptr_of(1));
  EXPECT_EQ(t->itab_indirsize, 1023u);
  itable_set(t, 1023 * 64 + 5, ptr_of(2));
  EXPECT_EQ(t->itab_indirsize, 2047u);
  EXPECT_EQ(counting::cookie_live("itable_indirect"), mem + 1);
  EXPECT_EQ(counting::live("itable_indirect_1023"), 0);
  itable_set(t, 3, ptr_of(3));
  itable_reset(t, 1023 * 64 + 5);  // top falls to bucket 1022: class 5 again
  EXPECT_EQ(t->itab_indirsize, 1023u);
  EXPECT_EQ(counting::cookie_live("itable_indirect"), mem);
  EXPECT_EQ(t->itab_maxentry, 1022u * 64 + 1);
  itable_reset(t, 1022 * 64);
  EXPECT_EQ(t->itab_maxentry, 4u);
  EXPECT_EQ(t->itab_indirsize, 1u);
  EXPECT_EQ(itable_get(t, 3), ptr_of(3));
  itable_reset(t, 3);
  itable_free(t);
  EXPECT_EQ(counting::live("itable_bucket"), buckets);
}

TEST(Itable8, AlternativeAllocatorServesTablesAndArrays) {
  static long live = 0;
  itable8_set_allocator(
      [](size_t n) -> void * {
        live++;
        return std::malloc(n);
      },
      [](void *p) {
        live--;
        std::free(p);
      });
  itable8_t *t = itable8_create(1000);
  EXPECT_EQ(t->itab8_maxindex, 255u);
  EXPECT_EQ(live, 1);
  itable8_set(t, 255, ptr_of(255));
  EXPECT_EQ(t->itab8_indirsize, 32u);
  EXPECT_EQ(live, 2);
  itable8_set(t, 17, ptr_of(17));
  itable8_reset(t, 255);
  EXPECT_EQ(t->itab8_indirsize, 4u);  // need 3: class 2
  EXPECT_EQ(t->itab8_maxentry, 18u);
  EXPECT_EQ(live, 2);
  itable8_reset(t, 17);
  EXPECT_EQ(live, 1);
  itable8_free(t);
  EXPECT_EQ(live, 0);
  itable8_set_allocator(nullptr, nullptr);
}

TEST(ItableDeathTest, MisuseIsFatal) {
  itable_t *t = itable_create(100);
  EXPECT_DEATH(itable_set(t, 101, ptr_of(1)),
               "itp->itab_indirsize && idx != ITAB_MAXINDEX && idx <= itp->itab_maxindex");
  itable_set(t, 7, ptr_of(7));
  EXPECT_DEATH(itable_free(t), "itp->itab_maxentry == 0");
  itable_t dead{};
  EXPECT_DEATH(itable_get(&dead, 1), "Assertion failed: \\(itp->itab_indirsize\\)");
  itable_clear(t);
  itable_free(t);

  itable8_t *s = itable8_create(20);
  EXPECT_DEATH(itable8_set(s, 21, ptr_of(1)), "idx <= itp->itab8_maxindex");
  itable8_free(s);
}

}  // namespace
