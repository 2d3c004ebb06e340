// Timers: phase-keeping catch-up, deletion around methods, jitter, "latest",
// auto parents, and random runs against a model.
#include <map>
#include <random>
#include <set>

#include "fixture.h"
#include "htimer/ztimers.h"
#include "platform/grand.h"

namespace tt {
namespace {

std::vector<double> fire_times;
void note(task_timer *, uint32_t) { fire_times.push_back(secs(task_now)); }
void dispatch_normal() {
  task_time_update();
  task_timer_dispatch(&task_var_timers()->timer_normal_root, false, 1000);
}

TEST_F(Kernel, HeldUpFivePeriodsFiresOnceAndKeepsPhase) {
  task_timer *t = task_timer_create(keeper, "p", 0, 10, 0, 0, note, nullptr);
  advance(55);  // due at 1010, five periods late
  dispatch_normal();
  EXPECT_EQ(fire_times.size(), 1u);
  EXPECT_DOUBLE_EQ(secs(t->task_hier_timer.ht_expiry), 1060.0);
  advance(5);
  dispatch_normal();
  EXPECT_EQ(fire_times, (std::vector<double>{1055, 1060}));
}

task_timer *other;
int deleted_runs;
void delete_self_and_other(task_timer *t, uint32_t) {
  deleted_runs++;
  task_timer_delete(t);
  task_timer_delete(other);
  EXPECT_TRUE(t->task_timer_flags & TIMERF_FREE);  // still readable
  EXPECT_STREQ(t->task_timer_name, "self");
}

TEST_F(Kernel, DeletingTimersFromAMethod) {
  task_timer_create(keeper, "self", 0, 1, 0, 0, delete_self_and_other, nullptr);
  other = task_timer_create(keeper, "other", 0, 1, 0, 0, note, nullptr);
  advance(1);
  dispatch_normal();
  EXPECT_EQ(deleted_runs, 1);
  EXPECT_TRUE(fire_times.empty());
  EXPECT_EQ(keeper->task_timers, keeper->task_timer_parent[TASK_TIMER_CLASS_NORMAL]);
}

void reset_to_three(task_timer *t, uint32_t) { task_timer_set(t, 0, 3, 0); }
void delete_owner(task_timer *t, uint32_t) { task_delete(task_timer_task(t)); }

TEST_F(Kernel, MethodsThatResetTheirTimerOrDeleteTheirTask) {
  task_timer *t = task_timer_create(keeper, "r", 0, 10, 0, 0, reset_to_three, nullptr);
  advance(10);
  dispatch_normal();
  EXPECT_TRUE(task_timer_running(t));
  EXPECT_EQ(task_timer_seconds_left(t), 3u);  // as the method left it, not the interval
  task *tp = task_alloc("doomed", 5, nullptr);
  task_create(tp);
  task_timer_create(tp, "a", 0, 1, 0, 0, delete_owner, nullptr);
  task_timer_create(tp, "b", 0, 1, 0, 0, delete_owner, nullptr);
  advance(1);
  dispatch_normal();
  EXPECT_TRUE(task_flag_test(tp, TASK_FLAG_DELETE));
  EXPECT_EQ(tp->task_timers, nullptr);
}

TEST_F(Kernel, SettersAndOneShots) {
  task_timer *d = task_timer_create(keeper, "d", TIMERF_DELETE, 10, 0, 0, note, nullptr);
  EXPECT_FALSE(task_timer_running(d));  // the interval of a one-shot is ignored
  EXPECT_TRUE(task_utime_zero(&d->task_timer_uinterval));
  task_timer *t = task_timer_create(keeper, "t", 0, 10, 0, 0, note, nullptr);
  EXPECT_TRUE(task_timer_running(t));
  task_timer_uset(t, nullptr, nullptr, 0);
  EXPECT_FALSE(task_timer_running(t));
  task_timer_set(t, 0, 7, 0);
  task_utime iv{4, 0};
  task_timer_set_uinterval(t, &iv);  // no interval before: from now
  EXPECT_EQ(task_timer_seconds_left(t), 4u);
  task_timer_set_uinterval(t, &iv);  // running with an interval: from its expiry
  EXPECT_EQ(task_timer_seconds_left(t), 8u);
  task_timer_force_delay(t, 20);
  EXPECT_EQ(task_timer_seconds_left(t), 20u);
  task_timer_expire_immediately(t);
  EXPECT_TRUE(task_timer_expired(t));
  task_timer *o = task_timer_create(keeper, "o", 0, 0, 10, 0, note, nullptr);
  task_utime p10{10, 0}, p4{4, 0}, p1{1, 0};
  task_timer_oneshot_adjust(o, &p10, &p4);
  EXPECT_EQ(task_timer_seconds_left(o), 4u);
  advance(3.5);
  task_timer_oneshot_adjust(o, &p4, &p1);  // 0.5 s left, a cut of 3: at once
  EXPECT_TRUE(task_timer_expired(o));
  EXPECT_DEATH(task_timer_oneshot_adjust(t, &p4, &p1), "task_utime_zero");
}

TEST_F(Kernel, JitterBounds) {
  grand_seed(7);
  task_utime ten{10, 0}, r;
  uint64_t lo = ~0ull, hi = 0;
  for (int i = 0; i < 2000; i++) {
    task_timer_jitter_reduction(&ten, 20, &r);
    lo = std::min(lo, task_utime_to_usec(r));
    hi = std::max(hi, task_utime_to_usec(r));
  }
  EXPECT_LT(hi, 2000000u);  // fires between 8 and 10 seconds
  EXPECT_GT(hi, 1900000u);
  EXPECT_LT(lo, 100000u);
  for (int i = 0; i < 2000; i++) {
    task_timer_jitter_reduction(&ten, 80, &r);  // acts as 50
    hi = std::max(hi, task_utime_to_usec(r));
  }
  EXPECT_LT(hi, 5000000u);
  EXPECT_GT(hi, 4500000u);
  task_utime longer{50000, 0};
  for (int i = 0; i < 100; i++) {
    task_timer_jitter_reduction(&longer, 50, &r);
    EXPECT_TRUE(task_utime_zero(&r));
  }
  task_utime mid{1000, 0};  // milliseconds
  task_timer_jitter_reduction(&mid, 50, &r);
  EXPECT_EQ(r.ut_usec % 1000, 0u);
  // A timer with jitter is set from now, earlier by at most the jitter.
  task_timer *t = task_timer_create(keeper, "j", 0, 10, 0, 20, note, nullptr);
  EXPECT_GE(secs(t->task_hier_timer.ht_expiry), 1008.0);
  EXPECT_LE(secs(t->task_hier_timer.ht_expiry), 1010.0);
}

std::string fired_names;
void name_note(task_timer *t, uint32_t) { fired_names += t->task_timer_name; }

TEST_F(Kernel, LatestKeepsSetOrderDespiteJitter) {
  grand_seed(3);
  task_utime iv{10, 0};
  for (const char *n : {"a", "b", "c", "d"}) {
    task_timer *t = task_timer_create_idle(keeper, n, 0, name_note, nullptr);
    task_timer_uset_oneshot_latest(t, &iv, 40, false);
  }
  advance(10);
  dispatch_normal();
  EXPECT_EQ(fired_names, "abcd");
}

TEST_F(Kernel, AutoParentsShareOneNodePerKey) {
  task_utime iv{30, 0}, iv2{31, 0};
  task_timer *a = task_timer_create_idle(keeper, "a", 0, name_note, nullptr);
  task_timer *b = task_timer_create_idle(keeper, "b", 0, name_note, nullptr);
  task_timer *c = task_timer_create_idle(keeper, "c", 0, name_note, nullptr);
  task_timer_uset_latest_auto(nullptr, a, &iv, 0);
  advance(1);
  task_timer_uset_latest_auto(nullptr, b, &iv, 0);
  task_timer_uset_latest_auto(nullptr, c, &iv2, 0);
  ASSERT_NE(a->task_timer_auto_parent, nullptr);
  EXPECT_EQ(a->task_timer_auto_parent, b->task_timer_auto_parent);
  EXPECT_NE(a->task_timer_auto_parent, c->task_timer_auto_parent);
  EXPECT_EQ(a->task_timer_auto_parent->auto_parent_refcount, 2u);
  EXPECT_DEATH(task_timer_set_jitter(a, 5), "task_timer_auto_parent == \\(\\(void \\*\\)0\\)");
  advance(40);
  dispatch_normal();
  EXPECT_EQ(fired_names.substr(0, 3), "abc");
  task_timer_delete(a);
  task_timer_delete(b);
  task_timer_delete(c);
  EXPECT_TRUE(patricia_isempty(&task_var_timers()->timer_auto_tree.tat_root));
}

void spawn_job(task_job *jp) { fired_names += task_job_get_name(jp); }

TEST_F(Kernel, SpawnJobTimerQueuesAJob) {
  task_utime iv{2, 0};
  task_timer *t = task_timer_ucreate_job(keeper, "J", 0, &iv, nullptr, 0, 128, spawn_job, nullptr);
  advance(2);
  dispatch_normal();
  EXPECT_TRUE(task_timer_job_in_progress(t));
  task_job_fg_dispatch();
  EXPECT_EQ(fired_names, "J");
  EXPECT_FALSE(task_timer_job_in_progress(t));
}

// Random runs against a model: which timers fire at each step and in what
// order of expiry, with one-shots, repeating timers, resets and deletes.
struct model_timer {
  task_timer *t;
  bool running;
  uint64_t expiry, interval;
};
std::map<int, model_timer> model;
std::vector<int> fired_ids;
void model_fire(task_timer *t, uint32_t) {
  fired_ids.push_back(static_cast<int>(reinterpret_cast<intptr_t>(task_timer_data(t))));
}

TEST_F(Kernel, RandomRunsAgainstAModel) {
  std::mt19937 rng(12345);
  std::vector<task *> tasks{keeper};
  for (int i = 0; i < 4; i++) {
    task *tp = task_alloc("m", i, nullptr);
    task_create(tp);
    tasks.push_back(tp);
  }
  auto now_us = [] { return task_utime_to_usec(fake_now); };
  int next_id = 0;
  for (int step = 0; step < 3000; step++) {
    int op = rng() % 10;
    if (op < 3 || model.empty()) {
      int id = next_id++;
      uint64_t off = 1 + rng() % 5000000, iv = rng() % 2 ? 1000 + rng() % 3000000 : 0;
      task_utime o = task_utime_from_usec(off), i = task_utime_from_usec(iv);
      task_timer *t = task_timer_ucreate(tasks[rng() % tasks.size()], "m", 0, iv ? &i : nullptr, &o, 0, model_fire,
                                         reinterpret_cast<void *>(static_cast<intptr_t>(id)));
      model[id] = model_timer{t, true, now_us() + off, iv};
    } else {
      auto it = model.begin();
      std::advance(it, rng() % model.size());
      model_timer &m = it->second;
      if (op == 3) {
        task_timer_delete(m.t);
        model.erase(it);
      } else if (op == 4) {
        task_timer_reset(m.t);
        m.running = false;
        m.interval = 0;
      } else if (op == 5) {
        uint64_t off = 1 + rng() % 2000000;
        task_utime o = task_utime_from_usec(off);
        task_timer_uset(m.t, nullptr, &o, 0);
        m.running = true;
        m.expiry = now_us() + off;
        m.interval = 0;
      } else {
        advance((rng() % 1500000) / 1e6);
        std::multimap<uint64_t, int> due;
        for (auto &[id, mt] : model)
          if (mt.running && mt.expiry <= now_us()) due.emplace(mt.expiry, id);
        fired_ids.clear();
        dispatch_normal();
        ASSERT_EQ(fired_ids.size(), due.size()) << "step " << step;
        uint64_t prev = 0;
        for (int id : fired_ids) {
          model_timer &mt = model.at(id);
          ASSERT_TRUE(mt.running && mt.expiry <= now_us());
          ASSERT_GE(mt.expiry, prev);  // earliest first
          prev = mt.expiry;
          if (mt.interval) {
            uint64_t e = mt.expiry + mt.interval;
            if (e <= now_us()) e += ((now_us() - e) / mt.interval + 1) * mt.interval;
            mt.expiry = e;
          } else {
            mt.running = false;
          }
        }
        for (auto &[id, mt] : model) {
          ASSERT_EQ(task_timer_running(mt.t), mt.running) << id;
          if (mt.running) {
            ASSERT_EQ(task_utime_to_usec(mt.t->task_hier_timer.ht_expiry), mt.expiry) << id;
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace tt

namespace tt {
namespace {

// A stand-alone timer set whose clock reads far behind the kernel's: what a
// method of the set does to kernel timers must still use the kernel's clock.
uint64_t set_clock_us;
void set_clock(void *, task_utime *now) { *now = task_utime_from_usec(set_clock_us); }
task_timer *kernel_timer;
bool kernel_timer_expired_inside;
uint32_t kernel_timer_left_inside;
void set_kernel_timer(ztimer *, void *) {
  task_utime ten{10, 0}, twenty{20, 0};
  task_timer_uset(kernel_timer, &ten, nullptr, 20);  // with jitter: the tree's own relative set
  task_timer_set_uinterval(kernel_timer, &twenty);   // from its present expiry
  kernel_timer_expired_inside = task_timer_expired(kernel_timer);
  kernel_timer_left_inside = task_timer_seconds_left(kernel_timer);
}

TEST_F(Kernel, KernelTimersSetInsideAStandAloneSetKeepTheKernelsClock) {
  set_clock_us = 5'000'000;  // the kernel's clock reads 1000 s
  ztimer_set *set = ztimer_set_create(set_clock, nullptr);
  ztimer *z = ztimer_create(set, nullptr, true, set_kernel_timer, nullptr);
  task_utime one{1, 0};
  ztimer_start(z, &one, 0, false);
  kernel_timer = task_timer_create_idle(keeper, "k", 0, note, nullptr);
  set_clock_us += 1'000'000;
  ASSERT_EQ(ztimer_dispatch(set), 1);
  EXPECT_FALSE(kernel_timer_expired_inside);
  // 1000 + 10, then 20 more, each less up to a fifth for the jitter
  EXPECT_GE(kernel_timer_left_inside, 23u);
  double at = secs(kernel_timer->task_hier_timer.ht_expiry);
  EXPECT_GE(at, 1024.0);
  EXPECT_LE(at, 1030.0);
  dispatch_normal();
  EXPECT_TRUE(fire_times.empty()) << "fired at once on the set's clock";
  ztimer_delete(z);
  ztimer_set_destroy(set);
}

// The other way round: a stand-alone timer started from a kernel timer's
// method runs on its set's clock.
ztimer_set *started_set;
ztimer *started;
void start_set_timer(task_timer *, uint32_t) {
  task_utime one{1, 0};
  ztimer_start(started, &one, 50, false);
}

TEST_F(Kernel, AStandAloneTimerStartedFromAKernelMethodKeepsItsSetsClock) {
  set_clock_us = 5'000'000;
  started_set = ztimer_set_create(set_clock, nullptr);
  started = ztimer_create(started_set, nullptr, true, nullptr, nullptr);
  task_timer_create(keeper, "s", TIMERF_DELETE, 0, 1, 0, start_set_timer, nullptr);
  advance(1);
  dispatch_normal();
  uint64_t at = task_utime_to_usec(started->zt_node.ht_expiry);
  EXPECT_GE(at, 5'500'000u);
  EXPECT_LE(at, 6'000'000u);
  task_utime left;
  EXPECT_TRUE(ztimer_next(started_set, &left));
  EXPECT_EQ(task_utime_to_usec(left), at - set_clock_us);
  ztimer_delete(started);
  ztimer_set_destroy(started_set);
}

// A firing timer stays in the tree while its method runs: it is
// running and expired, and a time-left query says zero.
bool running_inside, expired_inside;
uint32_t left_inside = 99;
void look_at_self(task_timer *t, uint32_t) {
  running_inside = task_timer_running(t);
  expired_inside = task_timer_expired(t);
  left_inside = task_timer_seconds_left(t);
}

TEST_F(Kernel, AFiringTimerStaysRunningWhileItsMethodRuns) {
  task_timer *t = task_timer_create(keeper, "self", 0, 10, 0, 0, look_at_self, nullptr);
  task_timer *o = task_timer_create(keeper, "once", 0, 0, 5, 0, look_at_self, nullptr);
  advance(5);
  dispatch_normal();
  EXPECT_TRUE(running_inside);
  EXPECT_TRUE(expired_inside);
  EXPECT_EQ(left_inside, 0u);
  EXPECT_FALSE(task_timer_running(o));  // a one-shot stops after its method
  running_inside = expired_inside = false;
  advance(5);
  dispatch_normal();
  EXPECT_TRUE(running_inside && expired_inside);
  EXPECT_EQ(task_timer_seconds_left(t), 10u);  // and a repeating one keeps its phase
}

}  // namespace
}  // namespace tt

namespace tt {
namespace {

std::string moved_fired;
void moved_note(task_timer *t, uint32_t) { moved_fired += t->task_timer_name; }
void run_class(task_timer *root) {
  task_time_update();
  task_timer_dispatch(root, root == &task_var_timers()->timer_high_root, 1000);
}

TEST_F(Kernel, AMovedTimerKeepsItsExpiryAndTakesItsNewParentsClass) {
  task_timer_var *tv = task_var_timers();
  task_timer *t = task_timer_create(keeper, "t", 0, 0, 5, 0, moved_note, nullptr);  // normal, due 1005
  task_timer *hi = task_timer_create_parent(keeper, "hi", TIMERF_HIPRIO, nullptr);
  task_timer *old_parent = keeper->task_timer_parent[TASK_TIMER_CLASS_NORMAL];
  task_timer_set_parent(t, hi);
  EXPECT_EQ(task_timer_flags(t) & (TIMERF_HIPRIO | TIMERF_LOWPRIO), uint32_t{TIMERF_HIPRIO});
  EXPECT_EQ(task_timer_seconds_left(t), 5u);
  EXPECT_FALSE(task_timer_running(old_parent)) << "its old parent has nothing left to run";
  EXPECT_TRUE(task_timer_running(&tv->timer_high_root));
  EXPECT_FALSE(task_timer_running(&tv->timer_normal_root));
  advance(5);
  run_class(&tv->timer_normal_root);
  EXPECT_EQ(moved_fired, "");
  run_class(&tv->timer_high_root);
  EXPECT_EQ(moved_fired, "t");
}

TEST_F(Kernel, AMovedParentCarriesItsRunningChildren) {
  task_timer_var *tv = task_var_timers();
  task *other = task_alloc("other", 1, nullptr);
  task_create(other);
  task_timer *group = task_timer_create_parent(keeper, "group", 0, nullptr);
  task_utime two{2, 0}, nine{9, 0};
  task_timer_create_internal(keeper, "a", 0, group, true, nullptr, &nine, 0, moved_note, nullptr);
  task_timer_create_internal(keeper, "b", 0, group, true, nullptr, &two, 0, moved_note, nullptr);
  task_timer *late = task_timer_create(other, "late", 0, 0, 20, 0, moved_note, nullptr);
  task_timer *other_parent = other->task_timer_parent[TASK_TIMER_CLASS_NORMAL];
  task_timer_set_parent(group, other_parent);
  EXPECT_EQ(task_timer_task(group), keeper) << "moving under a parent leaves the owner alone";
  task_utime left;
  task_timer_time_left(other_parent, &left);
  EXPECT_EQ(left.ut_sec, 2u) << "the earliest child now sets the other task's parent";
  EXPECT_FALSE(task_timer_running(keeper->task_timer_parent[TASK_TIMER_CLASS_NORMAL]));
  advance(30);
  run_class(&tv->timer_normal_root);
  EXPECT_EQ(moved_fired, "balate");
  (void)late;
}

TEST_F(Kernel, ATimerGivenToAnotherTaskLivesAndDiesWithIt) {
  task_timer_var *tv = task_var_timers();
  task *a = task_alloc("a", 1, nullptr), *b = task_alloc("b", 2, nullptr);
  task_create(a);
  task_create(b);
  task_timer *t = task_timer_create(a, "t", TIMERF_LOWPRIO, 10, 0, 0, moved_note, nullptr);
  task_timer_set_task(t, b);
  EXPECT_EQ(task_timer_task(t), b);
  auto owns = [](task *tp, task_timer *x) {
    for (task_timer *y = tp->task_timers; y; y = y->task_timer_next)
      if (y == x) return true;
    return false;
  };
  EXPECT_TRUE(owns(b, t));
  EXPECT_FALSE(owns(a, t));
  EXPECT_EQ(t->task_hier_timer.ht_parent, &b->task_timer_parent[TASK_TIMER_CLASS_LOW]->task_hier_timer);
  EXPECT_EQ(task_timer_seconds_left(t), 10u);
  task_delete(a);
  advance(10);
  run_class(&tv->timer_low_root);
  EXPECT_EQ(moved_fired, "t") << "it outlives its first task";
  task_timer_set_task(t, nullptr);  // to the timers without a task, under the class root
  EXPECT_EQ(task_timer_task(t), nullptr);
  EXPECT_EQ(t->task_hier_timer.ht_parent, &tv->timer_low_root.task_hier_timer);
  task_timer_set_task(t, b);
  task_delete(b);
  EXPECT_EQ(b->task_timers, nullptr);
  EXPECT_FALSE(task_timer_running(&tv->timer_low_root)) << "and is deleted with its last";
}

TEST_F(Kernel, MovesThatWouldBreakTheTreeAssert) {
  task_utime iv{30, 0};
  task_timer *a = task_timer_create_idle(keeper, "a", 0, moved_note, nullptr);
  task_timer *group = task_timer_create_parent(keeper, "group", 0, nullptr);
  task_timer *inner = task_timer_create_parent(keeper, "inner", 0, group);
  task_timer_uset_latest_auto(nullptr, a, &iv, 0);
  EXPECT_DEATH(task_timer_set_parent(a, group), "timer->task_timer_auto_parent == \\(\\(void \\*\\)0\\)");
  EXPECT_DEATH(task_timer_set_parent(group, inner), "ZTASK_ASSERT");  // under its own child
  EXPECT_DEATH(task_timer_set_parent(group, task_timer_create_parent(keeper, "h", TIMERF_HIPRIO, nullptr)),
               "ZTASK_ASSERT");  // a parent keeps its class: its children are of it
  EXPECT_DEATH(task_timer_set_task(keeper->task_timer_parent[TASK_TIMER_CLASS_NORMAL], nullptr), "ZTASK_ASSERT");
}

}  // namespace
}  // namespace tt
