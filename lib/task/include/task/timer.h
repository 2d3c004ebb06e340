// Timers: named, owned by tasks, in three classes (high, normal, low),
// one-shot or repeating, with a jitter in percent that only brings an expiry
// forward. They sit on the hierarchical timer tree: each task has one parent
// node per class ("Task parent"), so a task's timers form a small sorted list
// and the next expiry of the whole process is one read at the master root.
//
// Dispatch clears "Touched" before the method; the timer stays in the tree,
// running and expired, while its method runs, and a method that re-sets its
// own timer keeps what it set. A repeating timer held up for several periods fires
// once and keeps its phase. "Processing" and "Free" make deleting a timer from
// inside its own method safe: the record is freed when the method returns.
//
//   task_timer *t = task_timer_create(tp, "keepalive", 0, 10, 0, 0, my_method, nullptr);
//   task_timer_delete(t);
#pragma once

#include <cstdint>
#include <cstdio>

#include "containers/patricia.h"
#include "htimer/htimer.h"
#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"

extern "C" {

enum : uint32_t {
  TIMERF_DELETE = 0x001,      // "Delete" D: one-shot, deleted after firing
  TIMERF_HIPRIO = 0x002,      // "HiPrio" H
  TIMERF_TOUCHED = 0x004,     // "Touched" T
  TIMERF_FREE = 0x008,        // "Free" F: deleted while running
  TIMERF_PROCESSING = 0x010,  // "Processing" P: its method runs
  TIMERF_SPAWNJOB = 0x020,    // "SpawnJob" S
  TIMERF_LOWPRIO = 0x040,     // "LowPrio" L
  TIMERF_LATEST = 0x080,      // "Latest" ^
  TIMERF_APPLROOT = 0x100,    // "ApplRoot" A
  TIMERF_USER_MASK = 0x143,
  TIMERF_INTERNAL = 0x01C,
};

typedef void (*task_timer_method)(task_timer *tip, uint32_t interval);

struct task_timer_auto_parent;

struct task_timer {
  htimer task_hier_timer;
  const char *task_timer_name;  // not copied
  uint32_t task_timer_flags;
  task_timer_auto_parent *task_timer_auto_parent;
  task_utime task_timer_uinterval;
  uint32_t task_timer_jitter;
  void *task_timer_method;  // task_timer_method, or task_job_method for "SpawnJob"
  uint32_t task_timer_job_priority;
  task *task_timer_task;
  task_job *task_timer_job;
  void *task_timer_data;
  task_timer *task_timer_next, *task_timer_prev;
};

// An index of auto parents: timers of equal interval, jitter and class share
// one parent node, so they are kept in set order at low cost.
struct task_timer_auto_tree {
  patricia_root tat_root;
  task_timer *tat_timer_root;  // the root their parents hang under (null: by class)
};

struct task_timer_auto_parent {
  task_timer_auto_tree *auto_parent_tree;
  patricia_node auto_parent_node;
  uint8_t auto_parent_key[16];  // interval s, interval us, jitter, flags & 0x142
  task_timer auto_parent_timer;  // "Auto parent"
  uint32_t auto_parent_refcount;
  task_timer *auto_parent_root;
};

struct task_timer_var {
  task_timer timer_low_root;     // "Low prio root"
  task_timer timer_normal_root;  // "Normal prio root"
  task_timer timer_high_root;    // "High prio root"
  task_timer timer_master_root;
  task_timer_auto_tree timer_auto_tree;
  task_time_hook_fn timer_time_hook;  // replacement clock (tests, simulations)
};

task_timer_var *task_var_timers(void);

// ---- Creation ---------------------------------------------------------------------
task_timer *task_timer_create_internal(task *tp, const char *name, uint32_t flags, task_timer *parent,
                                       bool is_leaf, const task_utime *interval, const task_utime *offset,
                                       uint32_t jitter, task_timer_method method, void *data);
task_timer *task_timer_ucreate(task *tp, const char *name, uint32_t flags, const task_utime *interval,
                               const task_utime *offset, uint32_t jitter, task_timer_method method, void *data);
// Whole seconds; 0 means none.
task_timer *task_timer_create(task *tp, const char *name, uint32_t flags, uint32_t interval, uint32_t offset,
                              uint32_t jitter, task_timer_method method, void *data);
task_timer *task_timer_create_idle(task *tp, const char *name, uint32_t flags, task_timer_method method,
                                   void *data);
task_timer *task_timer_create_parent(task *tp, const char *name, uint32_t flags, task_timer *parent);
// Firing creates a job of job_priority (128: foreground) running method.
task_timer *task_timer_ucreate_job(task *tp, const char *name, uint32_t flags, const task_utime *interval,
                                   const task_utime *offset, uint32_t jitter, uint32_t job_priority,
                                   task_job_method method, void *data);

// ---- Setting ----------------------------------------------------------------------
void task_timer_uset(task_timer *tip, const task_utime *interval, const task_utime *offset, uint32_t jitter);
void task_timer_set(task_timer *tip, uint32_t interval, uint32_t offset, uint32_t jitter);
void task_timer_set_uinterval(task_timer *tip, const task_utime *interval);
void task_timer_reset(task_timer *tip);
void task_timer_force_delay(task_timer *tip, uint32_t seconds);
void task_timer_expire_immediately(task_timer *tip);
void task_timer_oneshot_adjust(task_timer *tip, const task_utime *old_period, const task_utime *new_period);
void task_timer_uset_oneshot_latest(task_timer *tip, const task_utime *offset, uint32_t jitter, bool from_latest);
void task_timer_uset_interval_latest(task_timer *tip, const task_utime *interval, uint32_t jitter,
                                     bool from_latest);
// Attaches the timer to the auto parent for (interval, jitter, class) in tree
// (null: the default tree, or the task's root for "ApplRoot") and sets it latest.
void task_timer_uset_latest_auto(task_timer_auto_tree *tree, task_timer *tip, const task_utime *interval,
                                 uint32_t jitter);
void task_timer_set_jitter(task_timer *tip, uint32_t jitter);
// Moves a timer, and what runs under it, under another parent timer: it keeps
// whether it runs and when, and a leaf takes the new parent's class (a parent
// timer keeps its own, as its children have it). Not for a timer on an auto
// parent, nor under itself.
void task_timer_set_parent(task_timer *tip, task_timer *parent);
// Gives a timer to another task (null: to the timers without a task). One
// that hung under its old task's class parent (or application root) moves to
// the new task's; one under a parent of its own stays there.
void task_timer_set_task(task_timer *tip, task *tp);
void task_timer_spread(task_timer *tip);

// ---- Deletion and queries --------------------------------------------------------------
void task_timer_delete(task_timer *tip);
bool task_timer_running(const task_timer *tip);
bool task_timer_expired(const task_timer *tip);
void task_timer_time_left(const task_timer *tip, task_utime *left);
uint32_t task_timer_seconds_left(const task_timer *tip);
task *task_timer_task(const task_timer *tip);
uint32_t task_timer_flags(const task_timer *tip);
bool task_timer_job_in_progress(const task_timer *tip);
void *task_timer_data(const task_timer *tip);
void task_timer_set_data(task_timer *tip, void *data);
// "%s_%s": task name and timer name ("NoName" for none), in a static buffer.
const char *task_timer_name(const task_timer *tip);

// ---- Dispatch --------------------------------------------------------------------------
int task_timer_dispatch(task_timer *root, bool is_high, int limit);
void task_timer_hiprio_dispatch(task_timer_var *tv, task_sched_stats *stats);
int task_timer_appl_dispatch(task_timer *root);

// The percent jitter of an expiry, as the reduction it brings.
void task_timer_jitter_reduction(const task_utime *interval, uint32_t percent, task_utime *reduction);

// Creates the class roots; the master root runs on the kernel's cached time.
void task_timer_init(void);

// Per task, its running timers by class (high, normal, low) in firing order,
// children under their parent timer indented by depth, then its stopped
// timers; "late" for an expired one; then the timers without a task.
void task_timer_dump(FILE *fp);

}  // extern "C"
