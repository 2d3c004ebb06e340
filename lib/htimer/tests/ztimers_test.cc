// The stand-alone timer set on a test clock: repeats and their phase, the
// batch limit, deletion and re-setting from inside a method, auto parents.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "htimer/ztimers.h"

namespace {

uint64_t clock_us;
void test_clock(void *, task_utime *now) { *now = task_utime_from_usec(clock_us); }
task_utime us(uint64_t v) { return task_utime_from_usec(v); }

struct Log {
  std::vector<std::pair<std::string, uint64_t>> fired;
};
Log *active;

void record(ztimer *t, void *data) {
  (void)t;
  active->fired.push_back({static_cast<const char *>(data), clock_us});
}

class ZTimers : public ::testing::Test {
 protected:
  void SetUp() override {
    clock_us = 1'000'000;
    active = &log;
    set = ztimer_set_create(test_clock, nullptr);
  }
  void TearDown() override { ztimer_set_destroy(set); }
  void run_until(uint64_t end, uint64_t step) {
    for (; clock_us <= end; clock_us += step) ztimer_dispatch(set);
  }
  Log log;
  ztimer_set *set;
};

TEST_F(ZTimers, RepeatKeepsItsPhaseAndAHeldUpTimerFiresOnce) {
  ztimer *t = ztimer_create(set, nullptr, true, record, const_cast<char *>("r"));
  task_utime iv = us(100);
  ztimer_start(t, &iv, 0, true);  // due at 1'000'100, then every 100
  run_until(1'000'350, 10);
  ASSERT_EQ(log.fired.size(), 3u);
  EXPECT_EQ(log.fired[2].second, 1'000'300u);
  // Held up five periods: one firing, and the next stays on the grid.
  clock_us = 1'000'880;
  EXPECT_EQ(ztimer_dispatch(set), 1);
  EXPECT_TRUE(task_utime_eq(t->zt_node.ht_expiry, us(1'000'900)));
  task_utime left;
  EXPECT_TRUE(ztimer_next(set, &left));
  EXPECT_TRUE(task_utime_eq(left, us(20)));
  ztimer_delete(t);
  EXPECT_FALSE(ztimer_next(set, &left));
}

TEST_F(ZTimers, DispatchRunsAtMostTenAndOneShotsStop) {
  std::vector<ztimer *> v;
  task_utime iv = us(5);
  for (int i = 0; i < 25; i++) {
    v.push_back(ztimer_create(set, nullptr, true, record, const_cast<char *>("o")));
    ztimer_start(v.back(), &iv, 0, false);
  }
  clock_us += 5;
  EXPECT_EQ(ztimer_dispatch(set), 10);
  EXPECT_EQ(ztimer_dispatch(set), 10);
  EXPECT_EQ(ztimer_dispatch(set), 5);
  EXPECT_EQ(ztimer_dispatch(set), 0);
  for (ztimer *t : v) {
    EXPECT_TRUE(t->zt_flags & ZTIMER_STOPPED);
    ztimer_delete(t);
  }
}

ztimer *victim;
void delete_self(ztimer *t, void *) { ztimer_delete(t); }
void delete_other_and_reset_self(ztimer *t, void *) {
  ztimer_delete(victim);
  victim = nullptr;
  task_utime later = us(1000);
  ztimer_start(t, &later, 0, true);
}

TEST_F(ZTimers, MethodsMayDeleteAndResetTheirTimers) {
  ztimer *self = ztimer_create(set, nullptr, true, delete_self, nullptr);
  ztimer *resetter = ztimer_create(set, nullptr, true, delete_other_and_reset_self, nullptr);
  victim = ztimer_create(set, nullptr, true, record, const_cast<char *>("v"));
  task_utime a = us(10), b = us(20), c = us(30);
  ztimer_start(self, &a, 0, true);
  ztimer_start(resetter, &b, 0, true);
  ztimer_start(victim, &c, 0, true);
  clock_us += 40;
  EXPECT_EQ(ztimer_dispatch(set), 2) << "the deleted victim never fires";
  EXPECT_TRUE(log.fired.empty());
  // The resetter's own re-set stands: 1000 from when it ran, not 20 more.
  EXPECT_TRUE(task_utime_eq(resetter->zt_node.ht_expiry, us(clock_us + 1000)));
  ztimer_delete(resetter);
}

TEST_F(ZTimers, AutoParentsAreSharedCountedAndFreed) {
  task_utime iv = us(50), other = us(70);
  ztimer *a = ztimer_create(set, nullptr, true, record, const_cast<char *>("a"));
  ztimer *b = ztimer_create(set, nullptr, true, record, const_cast<char *>("b"));
  ztimer *c = ztimer_create(set, nullptr, true, record, const_cast<char *>("c"));
  ztimer_autoparent(a, &iv, 0, false);
  clock_us += 1;
  ztimer_autoparent(b, &iv, 0, false);
  ztimer_autoparent(c, &other, 0, false);
  ASSERT_EQ(a->zt_auto, b->zt_auto);
  EXPECT_NE(a->zt_auto, c->zt_auto);
  EXPECT_EQ(a->zt_auto->zap_count, 2u);
  EXPECT_EQ(set->zs_autoparents.patricia_count, 2u);
  clock_us += 100;
  ztimer_dispatch(set);
  ASSERT_EQ(log.fired.size(), 3u);
  EXPECT_EQ(log.fired[0].first + log.fired[1].first + log.fired[2].first, "abc");
  ztimer_delete(a);
  EXPECT_EQ(b->zt_auto->zap_count, 1u);
  ztimer_delete(b);
  ztimer_delete(c);
  EXPECT_EQ(set->zs_autoparents.patricia_count, 0u) << "the last reference frees the auto parent";

  ztimer *p = ztimer_create(set, nullptr, false, nullptr, nullptr);
  EXPECT_DEATH(ztimer_autoparent(p, &iv, 0, false), "autoparenting non-leaf timer");
  ztimer *child = ztimer_create(set, p, true, record, const_cast<char *>("child"));
  ztimer_start(child, &iv, 0, false);
  EXPECT_TRUE(htimer_running(&p->zt_node));
  ztimer_delete(child);
  EXPECT_FALSE(htimer_running(&p->zt_node));
  ztimer_delete(p);
}

TEST_F(ZTimers, JitterOnlyBringsATimerForward) {
  task_utime iv = us(1'000'000);
  for (int i = 0; i < 200; i++) {
    ztimer *t = ztimer_create(set, nullptr, true, record, nullptr);
    ztimer_start(t, &iv, 80, false);  // acts as 50
    uint64_t at = task_utime_to_usec(t->zt_node.ht_expiry) - clock_us;
    EXPECT_GE(at, 500'000u);
    EXPECT_LE(at, 1'000'000u);
    ztimer_delete(t);
  }
}

}  // namespace
