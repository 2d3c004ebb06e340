#include "containers/iheap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "alloc_counting.h"

namespace {

struct item {
  uint64_t key;
  uint32_t pos;
  uint32_t seq;
};

int cmp_items(const void *a, const void *b) {
  uint64_t ka = static_cast<const item *>(a)->key, kb = static_cast<const item *>(b)->key;
  return ka < kb ? -1 : ka > kb ? 1 : 0;
}

struct Iheap : ::testing::Test {
  iheap *heap = iheap_create(offsetof(item, pos), cmp_items);
  ~Iheap() override {
    if (heap->iheap_entries == 0) iheap_free(heap);  // a failed test may leave entries
  }

  // Every position word matches its slot and no child sorts before its parent.
  void check_heap() const {
    uint32_t n = heap->iheap_entries;
    for (uint32_t p = 1; p <= n; p++) {
      auto *e = static_cast<item *>(iheap_at(heap, p));
      ASSERT_NE(e, nullptr);
      ASSERT_EQ(e->pos, p);
      if (p > 1) {
        ASSERT_LE(static_cast<item *>(iheap_at(heap, p / 2))->key, e->key) << p;
      }
    }
    ASSERT_EQ(iheap_at(heap, n + 1), nullptr);
  }
  // Buckets in use for n entries: positions 1..n in buckets of 64.
  static long buckets_for(uint32_t n) { return n ? n / 64 + 1 : 0; }
};

TEST_F(Iheap, AddDeleteReturnsBuckets) {
  long base = counting::live("iheap_bucket");
  item a{7, 0, 0};
  iheap_add(heap, &a);
  EXPECT_EQ(a.pos, 1u);
  EXPECT_EQ(counting::live("iheap_bucket"), base + 1);
  iheap_delete(heap, &a);
  EXPECT_EQ(a.pos, 0u);
  EXPECT_EQ(heap->iheap_entries, 0u);
  EXPECT_EQ(iheap_first(heap), nullptr);
  EXPECT_EQ(counting::live("iheap_bucket"), base);

  // Position 64 opens the second bucket, which lasts until position 64 is
  // the last one removed. Ascending keys stay where they were added.
  std::vector<item> items(65);
  for (uint32_t i = 0; i < items.size(); i++) {
    items[i].key = i;
    iheap_add(heap, &items[i]);
    EXPECT_EQ(counting::live("iheap_bucket"), base + buckets_for(i + 1));
  }
  iheap_delete(heap, &items[64]);
  EXPECT_EQ(counting::live("iheap_bucket"), base + 2);
  iheap_delete(heap, &items[63]);
  EXPECT_EQ(counting::live("iheap_bucket"), base + 1);
  iheap_delete(heap, &items[0]);  // the last entry moves to the root
  check_heap();
  for (auto &it : items)
    if (it.pos) iheap_delete(heap, &it);
  EXPECT_EQ(counting::live("iheap_bucket"), base);
}

TEST_F(Iheap, EqualKeysKeepArrivalOrderAtTheTop) {
  std::vector<item> items(200);
  for (uint32_t i = 0; i < items.size(); i++) {
    items[i] = {5, 0, i};
    iheap_add(heap, &items[i]);
    ASSERT_EQ(iheap_first(heap), &items[0]);
  }
  item low{4, 0, 999};
  iheap_add(heap, &low);
  EXPECT_EQ(iheap_first(heap), &low);
  iheap_delete(heap, &low);
  for (auto &it : items) iheap_delete(heap, &it);
}

// Against a multiset, with many equal keys, checking the heap after each step.
TEST_F(Iheap, RandomAgainstModel) {
  std::mt19937_64 rng(12345);
  std::vector<item> items(300);
  std::vector<item *> in, out;
  for (auto &it : items) out.push_back(&it);
  std::multiset<uint64_t> model;
  auto pick = [&](std::vector<item *> &v) {
    size_t i = rng() % v.size();
    std::swap(v[i], v.back());
    item *e = v.back();
    v.pop_back();
    return e;
  };
  for (int step = 0; step < 20000; step++) {
    unsigned op = rng() % 10;
    if ((op < 4 && !out.empty()) || in.empty()) {
      item *e = pick(out);
      e->key = rng() % 64;
      iheap_add(heap, e);
      model.insert(e->key);
      in.push_back(e);
    } else if (op < 7) {
      item *e = pick(in);
      model.erase(model.find(e->key));
      iheap_delete(heap, e);
      ASSERT_EQ(e->pos, 0u);
      out.push_back(e);
    } else {
      item *e = in[rng() % in.size()];
      model.erase(model.find(e->key));
      e->key = rng() % 64;
      model.insert(e->key);
      iheap_change(heap, e);
    }
    ASSERT_EQ(heap->iheap_entries, model.size());
    if (!model.empty()) {
      ASSERT_EQ(static_cast<item *>(iheap_first(heap))->key, *model.begin());
    }
    ASSERT_NO_FATAL_FAILURE(check_heap()) << "step " << step;
  }
  for (item *e : in) iheap_delete(heap, e);
}

TEST_F(Iheap, SortLeavesKeyOrderAndAValidHeap) {
  std::mt19937_64 rng(7);
  std::vector<item> items(1000);
  for (auto &it : items) {
    it.key = rng() % 500;
    iheap_add(heap, &it);
  }
  iheap_sort(heap);
  ASSERT_NO_FATAL_FAILURE(check_heap());
  for (uint32_t p = 2; p <= heap->iheap_entries; p++)
    ASSERT_LE(static_cast<item *>(iheap_at(heap, p - 1))->key,
              static_cast<item *>(iheap_at(heap, p))->key);
  // Still usable as a heap: drain it in order.
  uint64_t last = 0;
  while (auto *e = static_cast<item *>(iheap_first(heap))) {
    ASSERT_GE(e->key, last);
    last = e->key;
    iheap_delete(heap, e);
  }
}

// Past 65,536 entries the directory leaves the block ladder for its cookie,
// and it goes back to the allocator when the heap is released.
TEST_F(Iheap, GrowsPastTheBlockLadder) {
  long buckets = counting::live("iheap_bucket");
  long dir1024 = counting::live("iheap_indirect_1024");
  long mem = counting::cookie_live("iheap_indirect");
  iheap own{};
  iheap_init(&own, offsetof(item, pos), cmp_items);
  std::mt19937_64 rng(99);
  const uint32_t n = 140000;
  std::vector<item> items(n);
  std::vector<uint32_t> seen_sizes;
  for (auto &it : items) {
    it.key = rng();
    iheap_add(&own, &it);
    if (seen_sizes.empty() || seen_sizes.back() != own.iheap_dirsize)
      seen_sizes.push_back(own.iheap_dirsize);
  }
  EXPECT_EQ(seen_sizes, (std::vector<uint32_t>{1, 4, 16, 64, 256, 1024, 2046, 4094}));
  EXPECT_EQ(counting::live("iheap_bucket"), buckets + n / 64 + 1);
  EXPECT_EQ(counting::live("iheap_indirect_1024"), dir1024);
  EXPECT_EQ(counting::cookie_live("iheap_indirect"), mem + 1);
  for (uint32_t p = 2; p <= n; p++)
    ASSERT_LE(static_cast<item *>(iheap_at(&own, p / 2))->key,
              static_cast<item *>(iheap_at(&own, p))->key);

  std::vector<uint64_t> keys;
  for (auto &it : items) keys.push_back(it.key);
  std::sort(keys.begin(), keys.end());
  for (uint64_t k : keys) {
    auto *e = static_cast<item *>(iheap_first(&own));
    ASSERT_EQ(e->key, k);
    iheap_delete(&own, e);
  }
  EXPECT_EQ(counting::live("iheap_bucket"), buckets);
  iheap_release(&own);
  EXPECT_EQ(counting::cookie_live("iheap_indirect"), mem);
  EXPECT_EQ(own.iheap_magic, 0);
  iheap_init(&own, offsetof(item, pos), cmp_items);  // may be initialised anew
  iheap_release(&own);
}

using IheapDeathTest = Iheap;

TEST_F(IheapDeathTest, MisuseIsFatal) {
  item a{1, 0, 0}, b{2, 0, 0};
  iheap_add(heap, &a);
  EXPECT_DEATH(iheap_add(heap, &a), "Assertion failed: \\(\\*pos == 0\\)");
  EXPECT_DEATH(iheap_delete(heap, &b), "Assertion failed: \\(i != 0\\)");
  EXPECT_DEATH(iheap_change(heap, &b), "Assertion failed: \\(i && i <= n_entries\\)");
  b.pos = 1;  // claims a's position
  EXPECT_DEATH(iheap_change(heap, &b), "Assertion failed: \\(\\*loc == entry\\)");
  b.pos = 0;
  EXPECT_DEATH(iheap_free(heap),
               "iheap->iheap_magic == IHEAP_MAGIC && iheap->iheap_entries == 0");
  EXPECT_DEATH(iheap_init(heap, 0, cmp_items), "iheap->iheap_magic != IHEAP_MAGIC");
  iheap_delete(heap, &a);
}

}  // namespace
