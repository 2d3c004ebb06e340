#include "containers/sparse_table.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>

namespace {

void *val(uint32_t k) { return reinterpret_cast<void *>(uintptr_t{k} * 8 + 8); }

// Allocator context: counts live allocations and can be told to fail.
struct arena {
  long live = 0;
  long fail_after = -1;  // allocations left before failures; -1 never fails

  static void *alloc(void *ctx, size_t size) {
    auto *a = static_cast<arena *>(ctx);
    if (a->fail_after == 0) return nullptr;
    if (a->fail_after > 0) a->fail_after--;
    a->live++;
    void *p = std::malloc(size);
    std::memset(p, 0xa5, size);  // the tables must zero their own blocks
    return p;
  }
  static void free(void *ctx, void *p) {
    static_cast<arena *>(ctx)->live--;
    std::free(p);
  }
};

// `high`, the root counts and the presence of root blocks against the model.
void check16(const sparse_table16 *t, const std::map<uint32_t, void *> &m) {
  ASSERT_EQ(t->high, m.empty() ? 0u : m.rbegin()->first + 1);
  unsigned count[16] = {};
  for (auto &[k, v] : m) count[k >> 12]++;
  for (unsigned r = 0; r < 16; r++) {
    ASSERT_EQ(t->root_count[r], count[r]) << "root " << r;
    ASSERT_EQ(t->root[r] != nullptr, count[r] != 0) << "root " << r;
  }
}

void check32(const sparse_table32 *t, const std::map<uint32_t, void *> &m) {
  ASSERT_EQ(t->high, m.empty() ? 0u : uint64_t{m.rbegin()->first} + 1);
  std::set<uint32_t> halves;
  for (auto &[k, v] : m) halves.insert(k >> 16);
  ASSERT_EQ(t->top->high, halves.empty() ? 0u : *halves.rbegin() + 1);
  unsigned inner = 0;
  for (unsigned r = 0; r < 16; r++) inner += t->top->root_count[r];
  ASSERT_EQ(inner, halves.size()) << "an inner table per high half in use";
}

TEST(SparseTable16, RandomAgainstModel) {
  arena a;
  sparse_table16 *t = sparse_table16_create(arena::alloc, arena::free, &a);
  ASSERT_NE(t, nullptr);
  std::mt19937 rng(2024);
  std::map<uint32_t, void *> m;
  // Keys in two crowded root slots and across the whole range.
  auto key = [&]() -> uint32_t {
    switch (rng() % 3) {
      case 0: return 0x3000 + rng() % 200;
      case 1: return 0xF000 + rng() % 4096;
      default: return rng() % 65536;
    }
  };
  for (int step = 0; step < 30000; step++) {
    uint32_t k = key();
    // Phases that fill and that drain, so that root slots empty and refill.
    bool fill = (step / 3000) % 2 == 0;
    if (rng() % 4 != 0 && fill) {
      ASSERT_EQ(sparse_table16_insert(t, val(k), &k), 0);
      m[k] = val(k);
    } else if (!m.empty()) {
      if (rng() % 2) k = m.rbegin()->first;  // the highest, so `high` is searched for
      sparse_table16_delete(t, &k);
      m.erase(k);
    }
    ASSERT_NO_FATAL_FAILURE(check16(t, m)) << step;
    uint32_t probe = key();
    auto it = m.find(probe);
    ASSERT_EQ(sparse_table16_lookup(t, &probe), it == m.end() ? nullptr : it->second);
    uint32_t out = 0;
    auto up = m.upper_bound(probe);
    void *v = sparse_table16_next(t, &probe, &out);
    ASSERT_EQ(v, up == m.end() ? nullptr : up->second) << step;
    if (v) {
      ASSERT_EQ(out, up->first);
    }
  }
  std::map<uint32_t, void *> walked;
  uint32_t k;
  for (void *v = sparse_table16_next(t, nullptr, &k); v; v = sparse_table16_next(t, &k, &k))
    walked[k] = v;
  EXPECT_EQ(walked, m);
  sparse_table16_destroy(t);
  EXPECT_EQ(a.live, 0);
}

TEST(SparseTable16, HighFollowsTheHighestKeyAcrossRootSlots) {
  sparse_table16 *t = sparse_table16_create(nullptr, nullptr, nullptr);
  uint32_t zero = 0, low = 0x0105, mid = 0x7fff, top = 0xffff, over = 0x10000;
  EXPECT_EQ(sparse_table16_insert(t, val(1), &over), 1);
  EXPECT_EQ(sparse_table16_lookup(t, &over), nullptr);
  ASSERT_EQ(sparse_table16_insert(t, val(0), &zero), 0);
  uint32_t out = 99;
  EXPECT_EQ(sparse_table16_next(t, &zero, &out), nullptr);  // nothing above the only key
  EXPECT_EQ(sparse_table16_next(t, nullptr, &out), val(0));
  EXPECT_EQ(out, 0u);
  sparse_table16_insert(t, val(low), &low);
  sparse_table16_insert(t, val(mid), &mid);
  sparse_table16_insert(t, val(top), &top);
  EXPECT_EQ(t->high, 0x10000u);
  sparse_table16_delete(t, &top);
  EXPECT_EQ(t->high, mid + 1);
  sparse_table16_insert(t, nullptr, &mid);  // a null store deletes
  EXPECT_EQ(t->high, low + 1);
  EXPECT_EQ(t->root_count[7], 0);
  sparse_table16_delete(t, &low);
  sparse_table16_delete(t, &low);  // absent: nothing happens
  EXPECT_EQ(t->high, 1u);
  sparse_table16_delete(t, &zero);
  EXPECT_EQ(t->high, 0u);
  EXPECT_EQ(sparse_table16_next(t, nullptr, &out), nullptr);
  sparse_table16_destroy(t);
}

TEST(SparseTable16, BlocksFreedWithTheirLastKeyAndAllocatedAgain) {
  arena a;
  sparse_table16 *t = sparse_table16_create(arena::alloc, arena::free, &a);
  EXPECT_EQ(a.live, 1);
  uint32_t k1 = 0x2001, k2 = 0x2fc0;  // one root slot, two level-two blocks
  sparse_table16_insert(t, val(k1), &k1);
  sparse_table16_insert(t, val(k2), &k2);
  EXPECT_EQ(a.live, 4);
  sparse_table16_delete(t, &k1);
  EXPECT_EQ(a.live, 4) << "blocks stay while the root slot has keys";
  sparse_table16_delete(t, &k2);
  EXPECT_EQ(a.live, 1);
  EXPECT_EQ(t->root[2], nullptr);
  sparse_table16_insert(t, val(k1), &k1);
  EXPECT_EQ(a.live, 3);
  EXPECT_EQ(sparse_table16_lookup(t, &k1), val(k1));
  EXPECT_EQ(sparse_table16_lookup(t, &k2), nullptr) << "the new blocks are zeroed";

  // Out of memory for either level leaves the table as it was.
  uint32_t k3 = 0x9123;
  for (long budget : {0L, 1L}) {
    a.fail_after = budget;
    EXPECT_EQ(sparse_table16_insert(t, val(k3), &k3), ENOMEM);
    EXPECT_EQ(a.live, 3);
    EXPECT_EQ(t->root[9], nullptr);
    EXPECT_EQ(t->high, k1 + 1);
  }
  a.fail_after = -1;
  sparse_table16_destroy(t);
  EXPECT_EQ(a.live, 0);
  a.fail_after = 0;
  EXPECT_EQ(sparse_table16_create(arena::alloc, arena::free, &a), nullptr);
}

TEST(SparseTable32, RandomAgainstModel) {
  arena a;
  sparse_table32 *t = sparse_table32_create(arena::alloc, arena::free, &a);
  ASSERT_NE(t, nullptr);
  std::mt19937 rng(4242);
  std::map<uint32_t, void *> m;
  // Full-range keys, keys sharing a few high halves, and the extremes.
  auto key = [&]() -> uint32_t {
    switch (rng() % 4) {
      case 0: return static_cast<uint32_t>(rng());
      case 1: return (rng() % 4) << 16 | rng() % 300;
      case 2: return 0xFFFFFFFFu - rng() % 100;
      default: return 0x12340000u + rng() % 70000;
    }
  };
  for (int step = 0; step < 20000; step++) {
    uint32_t k = key();
    bool fill = (step / 2500) % 2 == 0;
    if (rng() % 4 != 0 && fill) {
      ASSERT_EQ(sparse_table32_insert(t, val(k), &k), 0);
      m[k] = val(k);
    } else if (!m.empty()) {
      if (rng() % 2) k = m.rbegin()->first;
      sparse_table32_delete(t, &k);
      m.erase(k);
    }
    ASSERT_NO_FATAL_FAILURE(check32(t, m)) << step;
    uint32_t probe = key();
    auto it = m.find(probe);
    ASSERT_EQ(sparse_table32_lookup(t, &probe), it == m.end() ? nullptr : it->second);
    uint32_t out = 0;
    auto up = m.upper_bound(probe);
    void *v = sparse_table32_next(t, &probe, &out);
    ASSERT_EQ(v, up == m.end() ? nullptr : up->second) << step;
    if (v) {
      ASSERT_EQ(out, up->first);
    }
  }
  std::map<uint32_t, void *> walked;
  uint32_t k;
  for (void *v = sparse_table32_next(t, nullptr, &k); v; v = sparse_table32_next(t, &k, &k))
    walked[k] = v;
  EXPECT_EQ(walked, m);
  for (auto &[key_in, v] : m) sparse_table32_delete(t, &key_in);
  EXPECT_EQ(t->high, 0u);
  EXPECT_EQ(a.live, 2) << "the two records and no block";
  sparse_table32_destroy(t);
  EXPECT_EQ(a.live, 0);
}

TEST(SparseTable32, FailedInnerTableLeavesNothingBehind) {
  arena a;
  sparse_table32 *t = sparse_table32_create(arena::alloc, arena::free, &a);
  uint32_t k = 0xABCD0001;
  for (long budget = 0; budget < 5; budget++) {
    a.fail_after = budget;
    EXPECT_EQ(sparse_table32_insert(t, val(k), &k), ENOMEM) << budget;
    EXPECT_EQ(a.live, 2);
    EXPECT_EQ(t->high, 0u);
    EXPECT_EQ(t->top->high, 0u);
  }
  a.fail_after = -1;
  uint32_t last = 0xFFFFFFFF;
  EXPECT_EQ(sparse_table32_insert(t, val(last), &last), 0);
  EXPECT_EQ(t->high, 0x100000000u);
  EXPECT_EQ(sparse_table32_lookup(t, &last), val(last));
  sparse_table32_destroy(t);
  EXPECT_EQ(a.live, 0);
}

}  // namespace
