#include "containers/hbt.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

namespace {

struct rec {
  int key;
  hbt_node hnode;
};

int rec_cmp(const hbt_node *a, const hbt_node *b) {
  int x = HBT_ENTRY(a, rec, hnode)->key, y = HBT_ENTRY(b, rec, hnode)->key;
  return x < y ? -1 : x > y;
}

int key_of(const hbt_node *n) { return HBT_ENTRY(n, rec, hnode)->key; }

rec probe(int key) { return rec{key, {}}; }

// Seeded random inserts, deletes and lookups against std::set, with the
// tree's own check after every step.
TEST(Hbt, MatchesSetModel) {
  std::mt19937 rng(4242);
  constexpr int kKeys = 300;
  std::vector<rec> recs(2 * kKeys);  // two records per key: duplicates must be refused
  for (int i = 0; i < 2 * kKeys; i++) recs[i].key = i % kKeys;
  hbt_root root{};
  std::set<int> model;
  std::vector<rec *> holder(kKeys, nullptr);

  for (int step = 0; step < 20000; step++) {
    rec &r = recs[rng() % recs.size()];
    switch (rng() % 4) {
      case 0:
      case 1: {
        if (hbt_node_linked(&r.hnode)) break;
        bool fresh = model.insert(r.key).second;
        ASSERT_EQ(hbt_insert(&root, &r.hnode, rec_cmp), fresh) << step;
        if (fresh) {
          holder[r.key] = &r;
        } else {
          EXPECT_FALSE(hbt_node_linked(&r.hnode));
        }
        break;
      }
      case 2: {
        bool linked = holder[r.key] == &r;
        ASSERT_EQ(hbt_delete(&root, &r.hnode), linked) << step;
        if (linked) {
          model.erase(r.key);
          holder[r.key] = nullptr;
          EXPECT_FALSE(hbt_node_linked(&r.hnode));
        }
        break;
      }
      case 3: {
        rec p = probe(static_cast<int>(rng() % (kKeys + 2)) - 1);
        hbt_node *found = hbt_lookup(&root, &p.hnode, rec_cmp);
        ASSERT_EQ(found != nullptr, model.count(p.key) == 1) << step;
        if (found) {
          EXPECT_EQ(found, &holder[p.key]->hnode);
        }
        auto up = model.upper_bound(p.key);
        hbt_node *next = hbt_getnext(&root, &p.hnode, rec_cmp);
        ASSERT_EQ(next != nullptr, up != model.end()) << step;
        if (next) {
          EXPECT_EQ(key_of(next), *up);
        }
        break;
      }
    }
    size_t count = 0;
    ASSERT_TRUE(hbt_verify(&root, rec_cmp, &count)) << step;
    ASSERT_EQ(count, model.size()) << step;
    ASSERT_EQ(hbt_empty(&root), model.empty());
    hbt_node *mx = hbt_max_element(&root);
    ASSERT_EQ(mx != nullptr, !model.empty());
    if (mx) {
      ASSERT_EQ(key_of(mx), *model.rbegin());
    }
  }
  std::vector<int> walked;
  for (hbt_node *n = hbt_iterate_next(&root, nullptr); n; n = hbt_iterate_next(&root, n))
    walked.push_back(key_of(n));
  EXPECT_EQ(walked, std::vector<int>(model.begin(), model.end()));
}

// A zeroed root reads as empty; a sole element is linked although it has no
// children, and deleting an unlinked node is refused.
TEST(Hbt, ZeroRootAndLinkState) {
  hbt_root root{};
  rec a = probe(1), b = probe(1);
  EXPECT_TRUE(hbt_empty(&root));
  EXPECT_EQ(hbt_iterate_next(&root, nullptr), nullptr);
  EXPECT_EQ(hbt_max_element(&root), nullptr);
  EXPECT_EQ(hbt_lookup(&root, &a.hnode, rec_cmp), nullptr);
  EXPECT_FALSE(hbt_delete(&root, &a.hnode));
  EXPECT_FALSE(hbt_node_linked(&a.hnode));

  ASSERT_TRUE(hbt_insert(&root, &a.hnode, rec_cmp));
  EXPECT_TRUE(hbt_node_linked(&a.hnode));
  EXPECT_EQ(a.hnode.hbt_left, nullptr);
  EXPECT_EQ(a.hnode.hbt_right, nullptr);
  EXPECT_FALSE(hbt_insert(&root, &b.hnode, rec_cmp));
  EXPECT_EQ(hbt_max_element(&root), &a.hnode);
  EXPECT_TRUE(hbt_delete(&root, &a.hnode));
  EXPECT_TRUE(hbt_empty(&root));
  EXPECT_FALSE(hbt_delete(&root, &a.hnode));
  // Re-inserting after delete works: the node was reset.
  EXPECT_TRUE(hbt_insert(&root, &a.hnode, rec_cmp));
  EXPECT_TRUE(hbt_verify(&root, rec_cmp, nullptr));
}

// The walk survives deleting the node it stands on when the successor is
// taken first, the way callers tear a tree down.
TEST(Hbt, DeleteWhileWalking) {
  std::vector<rec> recs(100);
  hbt_root root{};
  for (int i = 0; i < 100; i++) {
    recs[i].key = (i * 37) % 100;
    ASSERT_TRUE(hbt_insert(&root, &recs[i].hnode, rec_cmp));
  }
  int seen = 0;
  for (hbt_node *n = hbt_iterate_next(&root, nullptr), *next; n; n = next) {
    next = hbt_iterate_next(&root, n);
    EXPECT_EQ(key_of(n), seen++);
    if (key_of(n) % 3) {
      ASSERT_TRUE(hbt_delete(&root, n));
    }
  }
  EXPECT_EQ(seen, 100);
  size_t count = 0;
  ASSERT_TRUE(hbt_verify(&root, rec_cmp, &count));
  EXPECT_EQ(count, 34u);
}

}  // namespace
