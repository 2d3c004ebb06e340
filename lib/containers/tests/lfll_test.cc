#include "containers/lfll.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <thread>
#include <vector>

namespace {

struct item {
  int payload;
  lfll_node node;
};

TEST(Lfll, MatchesMapModel) {
  ASSERT_EQ(lfll_init(), 0);
  std::mt19937 rng(9);
  lfll_list list;
  lfll_list_init(&list);
  std::vector<item> items(200);
  std::map<uint64_t, item *> model;
  std::vector<uint64_t> key_of(items.size());
  for (int step = 0; step < 10000; step++) {
    size_t i = rng() % items.size();
    item &it = items[i];
    uint64_t key = rng() % 150;
    bool linked = it.node.lfll_next != nullptr;
    switch (rng() % 3) {
      case 0:
        if (linked) break;
        ASSERT_EQ(lfll_list_insert(&list, &it.node, key), !model.count(key)) << step;
        if (!model.count(key)) model[key] = &it, key_of[i] = key;
        break;
      case 1:
        ASSERT_EQ(lfll_list_delete(&list, &it.node), linked) << step;
        if (linked) model.erase(key_of[i]);
        break;
      case 2: {
        lfll_node *n = lfll_list_lookup(&list, key);
        ASSERT_EQ(n ? LFLL_ENTRY(n, item, node) : nullptr, model.count(key) ? model[key] : nullptr);
        break;
      }
    }
    ASSERT_TRUE(lfll_list_verify(&list)) << step;
    ASSERT_EQ(lfll_list_count(&list), model.size());
  }
  std::vector<uint64_t> walked;
  lfll_walk(&list, [](lfll_node *n, void *arg) {
    static_cast<std::vector<uint64_t> *>(arg)->push_back(n->lfll_key);
    return false;
  }, &walked);
  std::vector<uint64_t> expect;
  for (auto &kv : model) expect.push_back(kv.first);
  EXPECT_EQ(walked, expect);
}

// The block list's matcher returns the first match; a walk may also delete
// the node it is given. A node of another list is not deleted.
TEST(Lfll, WalkMatchesAndDeletes) {
  lfll_list list, other;
  lfll_list_init(&list);
  lfll_list_init(&other);
  std::vector<item> items(10);
  for (int i = 0; i < 10; i++) {
    items[i].payload = i * 10;
    ASSERT_TRUE(lfll_list_insert(&list, &items[i].node, 100 - i));
  }
  int want = 40;
  lfll_node *hit = lfll_walk(&list, [](lfll_node *n, void *arg) {
    return LFLL_ENTRY(n, item, node)->payload == *static_cast<int *>(arg);
  }, &want);
  EXPECT_EQ(hit, &items[4].node);

  struct ctx { lfll_list *list; int deleted; } c{&list, 0};
  EXPECT_EQ(lfll_walk(&list, [](lfll_node *n, void *arg) {
    auto *cx = static_cast<ctx *>(arg);
    if (n->lfll_key % 2 == 0) cx->deleted += lfll_list_delete(cx->list, n);
    return false;
  }, &c), nullptr);
  EXPECT_EQ(c.deleted, 5);
  EXPECT_TRUE(lfll_list_verify(&list));
  EXPECT_EQ(lfll_list_count(&list), 5u);

  item stranger{};
  ASSERT_TRUE(lfll_list_insert(&other, &stranger.node, 99));
  EXPECT_FALSE(lfll_list_delete(&list, &stranger.node));
  EXPECT_TRUE(lfll_list_delete(&other, &stranger.node));
  lfll_list_destroy(&other);
}

// Threads inserting and deleting on one list: the lock keeps it whole.
TEST(Lfll, ConcurrentUpdates) {
  lfll_list list;
  lfll_list_init(&list);
  constexpr int kThreads = 4, kPer = 300;
  std::vector<item> items(kThreads * kPer);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; round++)
        for (int i = 0; i < kPer; i++) {
          item &it = items[t * kPer + i];
          uint64_t key = static_cast<uint64_t>(i) * kThreads + t;
          if (round % 2 == 0) EXPECT_TRUE(lfll_list_insert(&list, &it.node, key));
          else EXPECT_TRUE(lfll_list_delete(&list, &it.node));
          (void)lfll_list_lookup(&list, key ^ 1);
        }
      for (int i = 0; i < kPer; i += 2)
        EXPECT_TRUE(lfll_list_insert(&list, &items[t * kPer + i].node,
                                     static_cast<uint64_t>(i) * kThreads + t));
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_TRUE(lfll_list_verify(&list));
  EXPECT_EQ(lfll_list_count(&list), static_cast<uint32_t>(kThreads * kPer / 2));
}

}  // namespace
