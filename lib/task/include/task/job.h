// Jobs: work a task wants done later, outside the callback that found it.
// Foreground jobs (priority 128) all run in the next pass, once each; jobs
// created during that dispatch wait for the pass after. Background jobs
// (priorities 0 to 7, 0 first, first come first served within a priority)
// run one per background dispatch; every run of a job credits the jobs of
// lower priority queued behind it with its weight (default 4^priority), and a
// job whose credit passes its own weight is "Starving" and then runs every
// second dispatch. A background job may ask for a time slice (max quantum)
// and may carry sub-jobs that share its place in the queue.
//
// A job may delete itself from its own method: "IsActive" keeps the record
// until the run returns.
#pragma once

#include <cstdint>
#include <cstdio>

#include "htimer/utime.h"
#include "task/task.h"

extern "C" {

enum { TASK_JOB_PRIO_MAX = 8, TASK_JOB_FOREGROUND = 128 };
enum : uint8_t {
  TASK_JOB_ACTIVE = 0x1,         // "IsActive"
  TASK_JOB_STARVING = 0x2,       // "Starving"
  TASK_JOB_SUBJOB = 0x4,         // "SubJob"
  TASK_JOB_SUBJOB_DELETED = 0x8, // the running sub-job deleted itself
};

struct task_job;
typedef void (*task_job_method)(task_job *jp);

struct task_job_list {
  task_job_list *tjl_next, *tjl_prev;
};

// A sub-job context; a marker entry separates sub-jobs that ran in this
// quantum from those that have not.
struct task_job_ctx {
  task_job_ctx *tjc_next, *tjc_prev;
  task_job *tjc_job;
  char *tjc_name;
  uint8_t tjc_marker;
  uint8_t tjc_flags;  // 0x1 running
  void *tjc_data;
  uint32_t tjc_time;
};

struct task_job {
  task_job *task_job_forw, *task_job_back;  // null once deleted
  const char *task_job_name;
  task *task_job_task;
  uint8_t task_job_priority;
  uint8_t task_job_flags;
  task_job_ctx task_job_subjobs;  // list head (a sentinel)
  task_job_method task_job_method;
  void *task_job_data;
  task_timer *task_job_timer;
  uint32_t task_job_runs;
  uint32_t task_job_credit;
  uint32_t task_job_time;
  uint32_t task_job_max_quantum, task_job_loop_quantum;  // ms, 0 for none
  task_utime task_job_quantum_left, task_job_loop_left;
  task_job_ctx *task_job_subjob_marker;
  task_job_list task_job_starving;
  task_utime task_job_run_start;  // the kernel's time when the current run began
};

// The jobs a foreground dispatch took off the queue and has still to run.
struct task_job_fg_list {
  task_job head;
  task_job_fg_list *outer;  // an enclosing dispatch's, when a job runs a nested pass
};

struct task_jobs_var {
  uint32_t taskjobs_bg_queued;
  uint32_t taskjobs_fg_queued;
  uint32_t taskjobs_starving;
  uint8_t taskjobs_starve_ok;  // the next dispatch may serve a starving job
  task_job_list taskjobs_starving_list;
  task_job *taskjobs_last[TASK_JOB_PRIO_MAX];
  task_job taskjobs_fg_head;  // "Job Foreground Queue"
  task_job taskjobs_bg_head;  // "Job Background Queue"
  uint32_t task_job_weight[TASK_JOB_PRIO_MAX];
  uint32_t taskjobs_weights_added;
  task_job_fg_list *taskjobs_fg_local;  // the innermost running foreground dispatch
};

task_jobs_var *task_var_jobs(void);

task_job *task_job_create(task *tp, int priority, const char *name, task_job_method method, void *data);
task_job *task_job_create_foreground(task *tp, const char *name, task_job_method method, void *data);
task_job *task_job_create_background(task *tp, int priority, const char *name, task_job_method method,
                                     void *data);
task_job_ctx *task_job_create_background_subjob(task *tp, int priority, const char *job_name,
                                                const char *subjob_name, task_job_method method,
                                                uint32_t max_quantum, uint32_t loop_quantum, void *data);
void task_job_delete(task_job *jp);
// For a job that loops over work: true once the current run has used the
// job's largest quantum, or 10 ms when it has none (the kernel's time, read
// afresh); never for a foreground job.
bool task_job_slice_over(task_job *jp);
void task_job_subjob_delete(task_job_ctx *jctx);
void task_job_delete_task(task *tp);
void task_job_force(task_job *jp);

void task_job_set_data(task_job *jp, void *data);
void *task_job_get_data(const task_job *jp);
const char *task_job_get_name(const task_job *jp);
task *task_job_get_task(const task_job *jp);
// The sub-job being run now (null outside a sub-job's run) and its data.
task_job_ctx *task_job_current_subjob(const task_job *jp);
void *task_job_subjob_data(const task_job_ctx *jctx);

// Replaces the default weights 4^p, up to 8 calls: each stores w at the next
// place and fills the rest of the table with it.
void task_job_weight_add(uint32_t w);

// The event system "TASK-JOBS" ("TASK JOBS Event System"), made by
// task_kernel_init. Its events are off until the trace-events configuration
// (or zevt_set_action) switches them on, "TASK-JOBS:1-2 memtrace" for
// example. While "jobs queue" (5) is on, every run is followed by the
// summary and a line per queued job, each as its own event (6 foreground, 7
// background), so "5-7" shows the whole queue; "Misses" is a background
// job's starvation credit.
enum {
  TASK_JOB_EVT_START = 1,         // "JOB for task TASK by DISPATCH" as a run begins
  TASK_JOB_EVT_END = 2,           // the same, "is returned" (still queued) or "is completed"
  TASK_JOB_EVT_STARVING = 3,      // "JOB is getting starved by JOB (or other)"
  TASK_JOB_EVT_STARVED_SELECTED = 4,  // "JOB for task TASK selected while starving"
  TASK_JOB_EVT_QUEUE = 5,         // "jobs queue: N foreground, N background, N starving"
  TASK_JOB_EVT_QUEUE_FG = 6,      // "Job Name : %s, Priority : %d, Flags : %s" ("None")
  TASK_JOB_EVT_QUEUE_BG = 7,      // "Job Name: %s, Priority : %d, Runs : %d, Misses : %d, Flags : <%s>"
  TASK_JOB_EVT_COUNT = 7,
};
// Finds or makes the system: 0, or -1 after logging
// ZTASK_JOBS_EVT_REGISTER_FAILED, and jobs run without events. Call it again
// after zevt_system_destroy_all.
int task_job_events_register(void);
struct zevt_system *task_job_events(void);

bool task_job_fg_queued(void);
bool task_job_bg_queued(void);
void task_job_fg_dispatch(void);
void task_job_bg_dispatch(void);

// The two queues, a line per job: name, task, priority, runs.
void task_job_dump(FILE *fp);

}  // extern "C"
