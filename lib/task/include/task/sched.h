// The scheduler: the loop a daemon enters and never leaves. Each pass runs,
// in a fixed order with fixed fairness rules, what is due among normal
// timers, background jobs, low-priority timers and foreground jobs; then it
// sleeps in one wait on the event queues (never longer than 4 seconds) and
// runs what the queues reported. High-priority timers run after the wait and
// between any two callbacks. A slip monitor logs when the loop was late.
//
// Time is a cached monotonic "now" (task_utime), refreshed by
// task_time_update and after every callback; a replacement time hook lets
// tests and simulations drive it. Where the TSC is invariant (CPUID, or
// constant_tsc and nonstop_tsc) and the kernel keeps it as its clock source,
// a refresh reads the TSC, calibrated against CLOCK_MONOTONIC and re-anchored
// to it each second, never running backwards; elsewhere, or with TVX_TSC=0,
// clock_gettime (docs/task.md, "Time"). task_scheduler_once / task_scheduler_run are
// the nested form for a daemon that must wait synchronously for a result.
#pragma once

#include <cstdint>

#include "htimer/utime.h"
#include "task/task.h"

extern "C" {

enum { SCHED_STAT_PASSES, SCHED_STAT_BG_DISPATCH, SCHED_STAT_BG_RUNS, SCHED_STAT_BG_STARVING,
       SCHED_STAT_FG_RUNS, SCHED_STAT_HI_TIMERS, SCHED_STAT_TIMERS, SCHED_STAT_LOW_TIMERS,
       SCHED_STAT_SIGNALS, SCHED_STAT_READS0, SCHED_STAT_READS1, SCHED_STAT_WRITES, SCHED_STAT_SPARE,
       SCHED_STATS };

struct task_sched_stats {
  uint32_t ss[SCHED_STATS];
};

// What task_var_scheduler reaches: the current task and the embedded
// scheduler task, then the loop's controls and statistics.
struct task_sched_var {
  task *tasksched_current;
  task tasksched_task_task;  // "Scheduler": owner of the kernel's own timers and jobs
  uint32_t sched_timer_batch;
  uint32_t sched_bg_interval;
  uint32_t sched_low_interval;
  task_utime sched_last;
  task_timer *sched_slip_timer;
  uint8_t run_scheduler;
  int32_t sched_exit_value;
  task_sched_stats sched_stats;
  task_sched_stats sched_stats_prev;
  task_utime sched_stats_next;
  task_utime sched_last_user, sched_last_sys;
  uint32_t sched_slip_log_count;  // slips logged since start
};

task_sched_var *task_var_scheduler(const task *tp);
// The task a callback runs for (the scheduler task outside callbacks).
task *task_current(void);
void task_set_current(task *tp);
task *task_scheduler_task(void);

// ---- Time -------------------------------------------------------------------------
// The cached monotonic now, refreshed by task_time_update.
extern task_utime task_now;
void task_time_update(void);
typedef void (*task_time_hook_fn)(task_utime *now);
// Replaces the clock (null restores the monotonic clock).
void task_set_time_hook(task_time_hook_fn hook);

// ---- Bring-up ------------------------------------------------------------------------
// Sets up the main context's kernel state: task list, scheduler record, jobs,
// timers, time and the event queues with the signal table. Idempotent.
void task_kernel_init(void);
// The two halves: the task list and the scheduler task (no descriptors), then
// jobs, timers, time and the queues with the signalfd. A daemon detaches
// between them (task_daemon_init), so that the sweep of inherited
// descriptors comes before the kernel opens its own.
void task_kernel_init_early(void);
void task_kernel_init_late(void);
void task_scheduler_init(task_var_context *context);

// ---- The loop --------------------------------------------------------------------------
[[noreturn]] void task_scheduler(void);
void task_scheduler_once(void);
int task_scheduler_run(void);
void task_scheduler_exit(int value);
void task_scheduler_stop(void);
// The loop itself: what task_scheduler and the nested forms call.
void task_scheduler_internal(bool monitor_slip, bool run_forever);
// True while "Scheduler slip timer" runs; tv receives the time left.
bool task_scheduler_slipped(task_utime *tv);

// Run after every callback: refresh the time, run due high-priority timers
// (unless a configuration read is open), roll the statistics over.
void task_timer_hiprio_check(void);
// The slip monitor, with the time the wait blocked.
void task_monitor_slip(const task_utime *blocked);

// The wait the last pass computed (for tests and diagnostics).
task_utime task_scheduler_last_wait(void);

}  // extern "C"
