// What the kernel's source files share and do not export.
#pragma once

#include <syslog.h>

#include "evlog/evlog.h"
#include "task/evq.h"
#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"
#include "task/timer.h"
#include "trace/trace.h"

// Trace flags of the kernel's lines.
constexpr uint64_t TR_TASK = 0x8000000;   // tasks and I/O
constexpr uint64_t TR_TIMER = 0x4000000;  // timers

// The main context's records and the application record in use; read
// inline on the hot paths (every set, every callback).
extern task_sched_var task_main_sched;
extern task_timer_var task_main_timers;
extern task_app_ctx_t *task_app_current;
inline task_sched_var *task_sched_main(void) { return &task_main_sched; }
inline task_timer_var *task_timer_main(void) { return &task_main_timers; }

// A task's trace handle, else the scheduler task's, else the application's.
inline trace_handle *task_trace_of(const task *tp) {
  if (tp && tp->task_trace) return tp->task_trace;
  const task *st = &task_main_sched.tasksched_task_task;
  return st->task_trace ? st->task_trace : task_app_current->app_trace;
}

// Every trace line of the kernel goes through this one macro.
#define TASK_TRACE(tp, flag, fmt, ...) ZTRACE(task_trace_of(tp), (flag), fmt __VA_OPT__(, ) __VA_ARGS__)

// task.cc
// The words of the state word, blank-separated ("Init Foreground").
void task_state_text(uint32_t state, char *buf, size_t size);
void task_base_init(task_base_var *bp);
void task_collect_job(task_job *jp);
// The embedded records that are not blocks.
bool task_is_embedded(const task *tp);

// sched.cc
void task_sched_stat(int which, uint32_t n = 1);

// job.cc
void task_jobs_init(task_jobs_var *jv);

// job_events.cc: the event system "TASK-JOBS", null when its registration
// failed; the queue log after a run while "jobs queue" is on.
struct zevt_system;
extern zevt_system *task_job_evt;
void task_job_evt_queue_log(void);

// signal.cc
void task_signal_init(void);
void task_lowmem_forget(task *tp);

// module.cc
void task_module_state_alloc(task_app_ctx_t *ctx);
void task_module_state_reset(void);

// fork.cc: the start pid, taken again after detaching.
void task_process_ids_init(void);

// daemon.cc: the daemon's PID lock, taken at start and released by the exit
// path of the process that took it.
bool task_lock_take(const char *logical_path);
void task_lock_release(void);

// lifecycle.cc
const char *task_host_name(void);

// The block of records kept by the kernel, made on first use.
struct task_block;
task_block *task_block_of_tasks(void);
