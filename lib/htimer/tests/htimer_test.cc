// The timer tree against its rules and, in seeded random runs, against a
// model of which leaves run and when they expire.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "htimer/htimer.h"

namespace {

task_utime fake_now;
void test_now(const htimer *, task_utime *out) { *out = fake_now; }
// Jitter as a plain number of microseconds, so tests can predict it.
void test_jitter(const htimer *, const task_utime *, uint32_t jitter, task_utime *r) {
  *r = task_utime_from_usec(jitter);
}
constexpr hier_timers_link_personality kTest = {test_now, test_jitter};

task_utime sec(double s) { return task_utime_from_usec(static_cast<uint64_t>(s * 1e6)); }

class Tree : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_now = sec(100);
    htimer_init_parent(&root, nullptr, 0);
    htimer_set_personality(&root, &kTest);
  }

  // The running children of p, first to last, checking the list's links.
  static std::vector<htimer *> children(const htimer *p) {
    std::vector<htimer *> v;
    if (!p->ht_first) return v;
    htimer *c = p->ht_first;
    do {
      EXPECT_EQ(c->ht_next->ht_prev, c);
      EXPECT_EQ(c->ht_parent, p);
      EXPECT_TRUE(htimer_running(c));
      v.push_back(c);
      c = c->ht_next;
    } while (c != p->ht_first && v.size() < 10000);
    return v;
  }
  // Every parent: sorted children, running iff it has some, its expiry its first's.
  static void check(const htimer *p) {
    auto v = children(p);
    for (size_t i = 1; i < v.size(); i++) ASSERT_FALSE(task_utime_lt(v[i]->ht_expiry, v[i - 1]->ht_expiry));
    if (htimer_is_leaf(p)) return;
    ASSERT_EQ(htimer_running(p), !v.empty());
    if (!v.empty()) {
      ASSERT_TRUE(task_utime_eq(p->ht_expiry, v[0]->ht_expiry));
    }
    for (htimer *c : v) {
      check(c);
    }
  }
  static void set(htimer *leaf, double at) {
    task_utime t = sec(at);
    htimer_set_abs(leaf, &t);
  }

  htimer root{};
};

TEST_F(Tree, EqualExpiriesKeepArrivalOrderAndAResetToTheSameTimeChangesNothing) {
  htimer a{}, b{}, c{};
  for (htimer *t : {&a, &b, &c}) htimer_init_leaf(t, &root, 0);
  set(&a, 105);
  set(&b, 105);
  set(&c, 105);
  EXPECT_EQ(children(&root), (std::vector<htimer *>{&a, &b, &c}));
  set(&a, 105);  // relinking would have moved it behind its equals
  EXPECT_EQ(children(&root), (std::vector<htimer *>{&a, &b, &c}));
  set(&a, 106);
  EXPECT_EQ(children(&root), (std::vector<htimer *>{&b, &c, &a}));
  set(&a, 104);
  EXPECT_EQ(children(&root), (std::vector<htimer *>{&a, &b, &c}));
  EXPECT_TRUE(task_utime_eq(root.ht_expiry, sec(104)));
  check(&root);

  fake_now = sec(105);
  std::vector<htimer *> fired;
  while (htimer *t = htimer_next_expired(&root)) {
    fired.push_back(t);
    htimer_stop(t);
    check(&root);
  }
  EXPECT_EQ(fired, (std::vector<htimer *>{&a, &b, &c}));
  EXPECT_FALSE(htimer_running(&root));
}

TEST_F(Tree, StoppingTheOnlyLeafOfAChainStopsEveryParent) {
  htimer mid{}, low{}, leaf{}, other{};
  htimer_init_parent(&mid, &root, 0);
  htimer_init_parent(&low, &mid, 0);
  htimer_init_leaf(&leaf, &low, 0);
  htimer_init_leaf(&other, &root, 0);
  set(&leaf, 110);
  set(&other, 120);
  EXPECT_TRUE(htimer_running(&mid) && htimer_running(&low));
  EXPECT_EQ(root.ht_first, &mid);
  htimer_stop(&leaf);
  EXPECT_FALSE(htimer_running(&low));
  EXPECT_FALSE(htimer_running(&mid));
  EXPECT_EQ(root.ht_first, &other);
  EXPECT_TRUE(task_utime_eq(root.ht_expiry, sec(120)));
  check(&root);
  // A parent stopped as a whole stops all beneath it.
  set(&leaf, 130);
  htimer_stop(&mid);
  EXPECT_FALSE(htimer_running(&leaf));
  EXPECT_EQ(children(&root), std::vector<htimer *>{&other});
}

TEST_F(Tree, NextExpiredOnlyWhenTheRootHasExpired) {
  htimer a{};
  htimer_init_leaf(&a, &root, 0);
  EXPECT_EQ(htimer_next_expired(&root), nullptr);
  set(&a, 100.5);
  EXPECT_EQ(htimer_next_expired(&root), nullptr);
  task_utime left;
  htimer_time_left(&a, &left);
  EXPECT_TRUE(task_utime_eq(left, sec(0.5)));
  fake_now = sec(101);
  EXPECT_EQ(htimer_next_expired(&root), &a);
  htimer_time_left(&a, &left);
  EXPECT_TRUE(task_utime_zero(&left)) << "time left never goes negative";
  EXPECT_TRUE(htimer_expired(&a));
  htimer_stop(&a);
  htimer_time_left(&a, &left);
  EXPECT_TRUE(task_utime_zero(&left));
}

TEST_F(Tree, RelativePeriodicAndLatestSets) {
  htimer a{}, b{}, c{};
  for (htimer *t : {&a, &b, &c}) htimer_init_leaf(t, &root, 0);
  task_utime ten = sec(10), gap = sec(0.000001);
  htimer_set_rel(&a, &ten, 250000);  // jitter brings it 0.25 s forward
  EXPECT_TRUE(task_utime_eq(a.ht_expiry, sec(109.75)));
  htimer_set_periodic(&a, &ten, 0);  // running: from its expiry, not now
  EXPECT_TRUE(task_utime_eq(a.ht_expiry, sec(119.75)));
  htimer_stop(&a);
  htimer_set_periodic(&a, &ten, 0);
  EXPECT_TRUE(task_utime_eq(a.ht_expiry, sec(110)));

  set(&b, 130);
  // Latest: now + 10 would be before the last sibling, so it queues behind it.
  htimer_set_latest(&c, &ten, 0, &gap, true);
  EXPECT_TRUE(task_utime_eq(c.ht_expiry, sec(130.000001)));
  htimer_stop(&c);
  // Jittered before the last, but the jitter-free expiry is not: take that one.
  set(&b, 110);
  htimer_stop(&a);
  htimer_set_latest(&c, &ten, 500000, &gap, false);
  EXPECT_TRUE(task_utime_eq(c.ht_expiry, sec(110)));
  EXPECT_EQ(children(&root).back(), &c);
  htimer_stop(&c);
  htimer_set_latest(&c, &ten, 500000, &gap, true);
  EXPECT_TRUE(task_utime_eq(c.ht_expiry, sec(110.000001)));
  check(&root);
}

TEST_F(Tree, SpreadOnlyBringsTimersEarlierAndKeepsOrder) {
  htimer t[4]{};
  for (auto &x : t) htimer_init_leaf(&x, &root, 0);
  set(&t[0], 10);
  set(&t[1], 30);
  fake_now = sec(0);
  htimer_spread(&root);  // two children: nothing
  EXPECT_TRUE(task_utime_eq(t[0].ht_expiry, sec(10)));
  EXPECT_TRUE(task_utime_eq(t[1].ht_expiry, sec(30)));

  set(&t[1], 10);
  set(&t[2], 10);
  set(&t[3], 30);
  fake_now = sec(10);
  htimer_spread(&root);
  for (int i = 0; i < 3; i++) EXPECT_TRUE(task_utime_eq(t[i].ht_expiry, sec(10))) << i;
  EXPECT_TRUE(task_utime_eq(t[3].ht_expiry, sec(30)));

  // Bunched late timers are moved onto even slots between now and the last.
  // (t[3] moved from 30 to 40 stays ahead of the equals already queued.)
  set(&t[0], 40);
  set(&t[1], 40);
  set(&t[2], 40);
  set(&t[3], 40);
  fake_now = sec(0);
  auto before = children(&root);
  htimer_spread(&root);
  EXPECT_EQ(children(&root), before);
  for (int i = 0; i < 4; i++) EXPECT_TRUE(task_utime_eq(before[i]->ht_expiry, sec(10 * (i + 1)))) << i;
  EXPECT_TRUE(task_utime_eq(root.ht_expiry, sec(10)));
  check(&root);
}

TEST_F(Tree, AttachAndDetachCarryMinima) {
  htimer sub{}, leaf{}, other{};
  htimer_init_parent(&sub, nullptr, 0);
  htimer_init_leaf(&leaf, &sub, 0);
  htimer_init_leaf(&other, &root, 0);
  set(&other, 150);
  set(&leaf, 120);  // running, but its tree is not attached
  EXPECT_TRUE(task_utime_eq(root.ht_expiry, sec(150)));
  htimer_attach(&sub, &root);
  EXPECT_TRUE(task_utime_eq(root.ht_expiry, sec(120)));
  EXPECT_EQ(root.ht_first, &sub);
  check(&root);
  htimer_detach(&sub);
  EXPECT_TRUE(htimer_running(&sub)) << "detaching keeps the node's own state";
  EXPECT_TRUE(task_utime_eq(root.ht_expiry, sec(150)));
  htimer_stop(&other);
  EXPECT_FALSE(htimer_running(&root));
  check(&root);
}

// A second clock, an hour ahead, that reads its offset from its root.
struct offset_root {
  htimer root;
  uint64_t ahead_us;
};
void offset_now(const htimer *root, task_utime *out) {
  auto *r = reinterpret_cast<const offset_root *>(root);
  *out = task_utime_from_usec(task_utime_to_usec(fake_now) + r->ahead_us);
}
constexpr hier_timers_link_personality kOffset = {offset_now, test_jitter};

TEST_F(Tree, EachTreeRunsOnItsOwnClock) {
  offset_root other{};
  other.ahead_us = 3600'000'000;
  htimer_init_parent(&other.root, nullptr, 0);
  htimer_set_personality(&other.root, &kOffset);
  htimer sub{}, mine{}, theirs{}, moved{};
  htimer_init_parent(&sub, &other.root, 0);
  htimer_init_leaf(&theirs, &sub, 0);
  htimer_init_leaf(&mine, &root, 0);
  htimer_init_leaf(&moved, &sub, 0);
  task_utime ten = sec(10), twenty = sec(20);
  htimer_set_rel(&mine, &ten, 0);
  htimer_set_rel(&theirs, &twenty, 0);
  EXPECT_TRUE(task_utime_eq(mine.ht_expiry, sec(110)));
  EXPECT_TRUE(task_utime_eq(theirs.ht_expiry, sec(3720)));
  htimer_set_periodic(&moved, &twenty, 5);  // not running: from its tree's now, less the jitter
  EXPECT_TRUE(task_utime_eq(moved.ht_expiry, task_utime_from_usec(3720'000'000 - 5)));
  fake_now = sec(111);
  EXPECT_TRUE(htimer_expired(&mine));
  EXPECT_FALSE(htimer_expired(&theirs));
  EXPECT_EQ(htimer_next_expired(&root), &mine);
  EXPECT_EQ(htimer_next_expired(&other.root), nullptr);
  task_utime left;
  htimer_time_left(&theirs, &left);
  EXPECT_TRUE(task_utime_eq(left, sec(9)));
  EXPECT_EQ(htimer_personality(&theirs), &kOffset);
  // A sub-tree takes the clock of the tree it hangs in, and keeps it when
  // it is let go.
  htimer_detach(&sub);
  EXPECT_EQ(htimer_personality(&theirs), &kOffset);
  htimer_attach(&sub, &root);
  EXPECT_EQ(htimer_personality(&theirs), &kTest);
  EXPECT_TRUE(htimer_expired(&mine));
  htimer_time_left(&theirs, &left);
  EXPECT_TRUE(task_utime_eq(left, sec(3609)));  // its expiry stays; only the clock reading it changed
  check(&root);
  htimer_detach(&sub);
  htimer_init_parent(&other.root, nullptr, 0);  // re-initialising a root clears its clock
  EXPECT_NE(htimer_personality(&other.root), &kOffset);
}

TEST_F(Tree, MisuseAsserts) {
  htimer a{}, p{};
  htimer_init_leaf(&a, &root, 0);
  set(&a, 101);
  EXPECT_DEATH(htimer_init_leaf(&a, &root, 0), "!htimer_running\\(timer\\)");
  EXPECT_DEATH(htimer_init_leaf(&p, &a, 0), "htimer_initialized\\(parent\\) && !htimer_is_leaf\\(parent\\)");
  htimer_init_parent(&p, &root, 0);
  task_utime t = sec(1);
  EXPECT_DEATH(htimer_set_abs(&p, &t), "htimer_is_leaf\\(timer\\)");
  htimer loose{};
  htimer_init_leaf(&loose, nullptr, 0);
  EXPECT_DEATH(htimer_set_latest(&loose, &t, 0, &t, false), "timer->ht_parent");
  EXPECT_DEATH(htimer_attach(&a, &root), "root->ht_parent == NULL");
  loose.ht_magic = 0;  // a deleted timer
  EXPECT_DEATH(htimer_set_abs(&loose, &t), "htimer_initialized\\(timer\\)");
}

// Random sets, stops and firings over a three-level tree, against a model of
// running leaves and their expiries.
TEST_F(Tree, RandomRunsMatchTheModel) {
  std::mt19937 rng(2024);
  constexpr int kParents = 6, kLeaves = 60;
  htimer parents[kParents]{}, leaves[kLeaves]{};
  for (int i = 0; i < kParents; i++) htimer_init_parent(&parents[i], i < 2 ? &root : &parents[i % 2], 0);
  for (int i = 0; i < kLeaves; i++) {
    htimer_init_leaf(&leaves[i], i % 7 == 0 ? &root : &parents[i % kParents], 0);
  }
  std::map<htimer *, uint64_t> model;  // running leaf -> expiry in microseconds
  uint64_t now_us = 100'000'000;
  for (int step = 0; step < 20000; step++) {
    fake_now = task_utime_from_usec(now_us);
    htimer *l = &leaves[rng() % kLeaves];
    switch (rng() % 6) {
      case 0:
      case 1: {
        uint64_t at = now_us + rng() % 5'000'000;
        task_utime t = task_utime_from_usec(at);
        htimer_set_abs(l, &t);
        model[l] = at;
        break;
      }
      case 2:
        htimer_stop(l);
        model.erase(l);
        break;
      case 3: {
        task_utime iv = task_utime_from_usec(rng() % 3'000'000);
        htimer_set_periodic(l, &iv, 0);
        model[l] = (model.count(l) ? model[l] : now_us) + task_utime_to_usec(iv);
        break;
      }
      case 4: {  // fire whatever is due
        while (htimer *t = htimer_next_expired(&root)) {
          ASSERT_TRUE(model.count(t));
          uint64_t min = UINT64_MAX;
          for (auto &[k, v] : model) min = std::min(min, v);
          ASSERT_EQ(model[t], min) << "the next expired leaf is the earliest";
          ASSERT_LE(model[t], now_us);
          htimer_stop(t);
          model.erase(t);
        }
        break;
      }
      case 5:
        if (rng() % 20 == 0) {  // a whole subtree stops
          htimer *p = &parents[rng() % kParents];
          htimer_stop(p);
          for (int i = 0; i < kLeaves; i++) {
            for (htimer *up = leaves[i].ht_parent; up; up = up->ht_parent) {
              if (up == p) model.erase(&leaves[i]);
            }
          }
        }
        now_us += rng() % 400'000;
        break;
    }
    if (step % 97 == 0) {
      ASSERT_NO_FATAL_FAILURE(check(&root));
    }
    for (int i = 0; i < kLeaves; i++) ASSERT_EQ(htimer_running(&leaves[i]), model.count(&leaves[i]) == 1) << step;
  }
}

// Long sibling lists: a parent grows past the walk limit (and keeps an order
// index), shrinks below the drop mark and grows again, under sets, stops and
// firings with many equal expiries. The model is each parent's list as the
// plain walk from the back would leave it, so the index must find exactly
// the places the walk finds, ties in arrival order included.
TEST_F(Tree, LongSiblingListsKeepTheWalksOrder) {
  std::mt19937 rng(7);
  constexpr int kParents = 3, kLeaves = 900;
  htimer parents[kParents]{}, leaves[kLeaves]{};
  for (auto &p : parents) htimer_init_parent(&p, &root, 0);
  for (int i = 0; i < kLeaves; i++) htimer_init_leaf(&leaves[i], &parents[i % kParents], 0);
  std::map<const htimer *, std::vector<htimer *>> model;

  auto model_set = [&](htimer *l, uint64_t at) {
    auto &v = model[l->ht_parent];
    auto it = std::find(v.begin(), v.end(), l);
    if (it != v.end()) {
      size_t i = it - v.begin();
      bool in_order = (i == 0 || task_utime_to_usec(v[i - 1]->ht_expiry) <= at) &&
                      (i + 1 == v.size() || at <= task_utime_to_usec(v[i + 1]->ht_expiry));
      if (in_order) return;  // stays where it is
      v.erase(it);
    }
    size_t pos = v.size();
    while (pos > 0 && at < task_utime_to_usec(v[pos - 1]->ht_expiry)) pos--;
    v.insert(v.begin() + pos, l);
  };
  auto model_stop = [&](htimer *l) {
    auto &v = model[l->ht_parent];
    v.erase(std::remove(v.begin(), v.end(), l), v.end());
  };

  uint64_t now_us = 100'000'000;
  bool saw_index = false, saw_drop = false;
  for (int round = 0; round < 6; round++) {
    // Grow: most leaves run, on a coarse grid so that equal expiries abound.
    int live = round % 2 == 0 ? kLeaves : kLeaves / 10;
    for (int step = 0; step < 6000; step++) {
      fake_now = task_utime_from_usec(now_us);
      htimer *l = &leaves[rng() % live];
      int op = rng() % 10;
      if (op < 7) {
        uint64_t at = now_us + (rng() % 400) * 10'000;
        model_set(l, at);  // before the set: the model reads the old expiries
        task_utime t = task_utime_from_usec(at);
        htimer_set_abs(l, &t);
      } else if (op < 9) {
        htimer_stop(l);
        model_stop(l);
      } else {
        now_us += rng() % 30'000;
        fake_now = task_utime_from_usec(now_us);
        for (int n = 0; n < 5; n++) {
          htimer *t = htimer_next_expired(&root);
          if (!t) break;
          htimer_stop(t);
          model_stop(t);
        }
      }
      for (auto &p : parents) {
        saw_index |= (p.ht_flags & HTIMER_INDEXED) != 0;
        if (step % 50 == 0) {
          ASSERT_TRUE(htimer_verify(&p)) << round << "/" << step;
          ASSERT_EQ(children(&p), model[&p]) << round << "/" << step;
        }
      }
    }
    // Shrink: stop all but a few, which drops every index.
    for (int i = kLeaves / 50; i < kLeaves; i++) {
      htimer_stop(&leaves[i]);
      model_stop(&leaves[i]);
    }
    for (auto &p : parents) {
      saw_drop |= !(p.ht_flags & HTIMER_INDEXED);
      ASSERT_TRUE(htimer_verify(&p));
      ASSERT_EQ(children(&p), model[&p]);
    }
    ASSERT_NO_FATAL_FAILURE(check(&root));
  }
  EXPECT_TRUE(saw_index && saw_drop) << "the run must cross the index thresholds both ways";
}

// The intended case: one interval per parent, each set goes last; the list never
// walks and never pays for an index, however long it is.
TEST_F(Tree, OneIntervalPerParentNeverIndexes) {
  std::vector<htimer> leaves(2000);
  for (auto &l : leaves) {
    l = htimer{};
    htimer_init_leaf(&l, &root, 0);
  }
  task_utime iv = sec(30);
  for (int pass = 0; pass < 3; pass++) {
    for (auto &l : leaves) {
      fake_now = task_utime_add(fake_now, sec(0.001));
      htimer_set_rel(&l, &iv, 0);
    }
  }
  EXPECT_FALSE(root.ht_flags & HTIMER_INDEXED);
  EXPECT_EQ(root.ht_children, 2000u);
  EXPECT_TRUE(htimer_verify(&root));
  EXPECT_EQ(root.ht_first, &leaves[0]);
}

}  // namespace
