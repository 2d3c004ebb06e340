// The scheduler's pass: its wait, its fairness rules, the high-priority
// check, the slip monitor and the nested loop.
#include <cerrno>

#include "fixture.h"

namespace tt {
namespace {

double last_wait() { return secs(waits.back()); }

TEST_F(Kernel, WaitIsFourSecondsAtMostAndZeroWithJobs) {
  passes(1);
  EXPECT_DOUBLE_EQ(last_wait(), 4.0);  // idle: not forever
  task_timer *t = task_timer_ucreate(keeper, "t", 0, nullptr, nullptr, 0, nullptr, nullptr);
  task_utime off = sec(3.9);
  task_timer_uset(t, nullptr, &off, 0);
  passes(1);
  EXPECT_DOUBLE_EQ(last_wait(), 3.9);
  off = sec(4.1);
  task_timer_uset(t, nullptr, &off, 0);
  passes(1);
  EXPECT_DOUBLE_EQ(last_wait(), 4.0);
  task_job_create_foreground(keeper, "fg", [](task_job *) {}, nullptr);
  task_job_create_background(keeper, 3, "bg", [](task_job *jp) { task_job_delete(jp); }, nullptr);
  passes(1);
  EXPECT_DOUBLE_EQ(last_wait(), 0.0);  // the background job waits for the next pass
}

int pass_no;
std::vector<int> bg_runs, low_runs;
void count_pass() { pass_no++; }
void bg_forever(task_job *) { bg_runs.push_back(pass_no); }
void busy(task_timer *, uint32_t) {}
void low(task_timer *, uint32_t) { low_runs.push_back(pass_no); }

TEST_F(Kernel, BackgroundJobNeverFirstAndEveryTenthWhenBusy) {
  on_wait = count_pass;
  wait_advance_min_us = 1000;
  task_utime ms{0, 1000};
  task_timer_ucreate(keeper, "busy", 0, &ms, nullptr, 0, busy, nullptr);
  advance(0.001);
  task_job_create_background(keeper, 0, "bg", bg_forever, nullptr);
  passes(35);
  EXPECT_EQ(bg_runs, (std::vector<int>{10, 20, 30}));
}

TEST_F(Kernel, BackgroundJobRunsAtOnceWhenIdleButNotInFirstPass) {
  on_wait = count_pass;
  task_job_create_background(keeper, 0, "bg", bg_forever, nullptr);
  passes(4);
  EXPECT_EQ(bg_runs, (std::vector<int>{1, 2, 3}));
}

TEST_F(Kernel, LowTimersYieldToWorkEveryTenth) {
  on_wait = count_pass;
  wait_advance_min_us = 1000;
  task_utime ms{0, 1000};
  task_timer *b = task_timer_ucreate(keeper, "busy", 0, &ms, nullptr, 0, busy, nullptr);
  task_timer_ucreate(keeper, "low", TIMERF_LOWPRIO, &ms, nullptr, 0, low, nullptr);
  advance(0.001);
  passes(25);
  EXPECT_EQ(low_runs, (std::vector<int>{9, 19}));
  // Idle: a low timer runs in the pass it is due.
  low_runs.clear();
  task_timer_delete(b);
  passes(3);
  EXPECT_EQ(low_runs.size(), 3u);
}

int fired;
void count_fire(task_timer *, uint32_t) { fired++; }

TEST_F(Kernel, NormalTimersRunInBatchesOfTen) {
  for (int i = 0; i < 25; i++) task_timer_create(keeper, "n", TIMERF_DELETE, 0, 1, 0, count_fire, nullptr);
  advance(1);
  std::vector<int> per_pass;
  for (int i = 0; i < 3; i++) {
    int before = fired;
    passes(1);
    per_pass.push_back(fired - before);
  }
  EXPECT_EQ(per_pass, (std::vector<int>{10, 10, 5}));
}

std::vector<std::string> trail;
void slow(task_timer *t, uint32_t) {
  trail.push_back(t->task_timer_name);
  advance(0.5);
}
void hi(task_timer *t, uint32_t) { trail.push_back(t->task_timer_name); }

TEST_F(Kernel, HighTimersRunBetweenCallbacks) {
  task_timer_create(keeper, "A", TIMERF_DELETE, 0, 1, 0, slow, nullptr);
  task_timer_create(keeper, "B", TIMERF_DELETE, 0, 1, 0, slow, nullptr);
  task_utime at = sec(1.3);
  task_timer_ucreate(keeper, "H", TIMERF_HIPRIO | TIMERF_DELETE, nullptr, &at, 0, hi, nullptr);
  advance(1);
  passes(1);
  EXPECT_EQ(trail, (std::vector<std::string>{"A", "H", "B"}));
}

TEST_F(Kernel, SlipMonitorMessages) {
  evlog_capture &cap = evlog_capture_start();
  task_sched_var *sp = task_var_scheduler(nullptr);
  task_timer *st = task_timer_create_idle(task_scheduler_task(), "Scheduler slip timer", 0, nullptr, nullptr);
  sp->sched_slip_timer = st;
  sp->sched_last = task_now;
  advance(4.5);
  task_time_update();
  task_utime blocked = sec(4.5);
  task_monitor_slip(&blocked);
  EXPECT_TRUE(cap.records.empty());
  advance(4.7);
  task_time_update();
  blocked = sec(4.7);
  task_monitor_slip(&blocked);
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].text, "ZTASK_SCHED_SLIP_KEVENT: 4 sec 700000 usec kevent block");
  // A pass that took 4 seconds beyond a wait of 1.
  advance(5);
  task_time_update();
  blocked = sec(1);
  task_monitor_slip(&blocked);
  ASSERT_EQ(cap.records.size(), 2u);
  EXPECT_EQ(cap.records[1].tag, "ZTASK_SCHED_SLIP");
  EXPECT_EQ(cap.records[1].text.rfind("ZTASK_SCHED_SLIP: 5 sec scheduler slip, user: ", 0), 0u);
  task_utime left;
  EXPECT_TRUE(task_scheduler_slipped(&left));
  EXPECT_DOUBLE_EQ(secs(left), 5.0);
  advance(5);
  task_time_update();
  EXPECT_FALSE(task_scheduler_slipped(nullptr));
  evlog_capture_stop();
}

int outer_fired, nested_result = -1;
void exit_nested(task_timer *, uint32_t) { task_scheduler_exit(7); }
void outer(task_timer *, uint32_t) {
  outer_fired++;
  task_timer_create(task_current(), "exit", TIMERF_DELETE, 0, 2, 0, exit_nested, nullptr);
  nested_result = task_scheduler_run();
}

TEST_F(Kernel, NestedRunInsideATimerAndItsExit) {
  task_timer_create(keeper, "outer", 0, 1, 0, 0, outer, nullptr);  // repeating, 1 s
  advance(1);
  waits_left = 100;
  task_timer_dispatch(&task_var_timers()->timer_normal_root, false, 10);
  EXPECT_EQ(nested_result, 7);
  EXPECT_EQ(outer_fired, 1);  // not fired again by the nested passes
  EXPECT_DEATH(task_scheduler_exit(1), "ZTASK_ASSERT");
}

int eintr_once(int, task_kevent *, int, const task_utime *) {
  errno = EINTR;
  task_scheduler_stop();
  return -1;
}

TEST_F(Kernel, InterruptedWaitIsAPassWithoutEvents) {
  task_evq.wait = eintr_once;
  uint32_t before = task_var_scheduler(nullptr)->sched_stats.ss[SCHED_STAT_PASSES];
  task_scheduler_run();
  EXPECT_EQ(task_var_scheduler(nullptr)->sched_stats.ss[SCHED_STAT_PASSES], before + 1);
}

TEST_F(Kernel, SignalAndUnknownEvents) {
  evlog_capture &cap = evlog_capture_start();
  script.push_back({task_kevent{SIGUSR2, TASK_EVFILT_SIGNAL, 0, 0, 1, nullptr},
                    task_kevent{9, -8, 0, 0, 0, nullptr}});
  passes(1);
  EXPECT_EQ(task_var_scheduler(nullptr)->sched_stats.ss[SCHED_STAT_SIGNALS], 1u);
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].text, "ZTASK_UNKNOWN_EVENT: unknown event ignored -- disabling");
  evlog_capture_stop();
}

}  // namespace
}  // namespace tt
