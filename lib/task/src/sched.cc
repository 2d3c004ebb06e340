// The scheduler's pass, the cached time and the kernel's bring-up.
#include <time.h>

#include <cerrno>
#include <cstring>

#include "clock.h"
#include "format/task_fmt.h"
#include "internal.h"
#include "mem/mem.h"
#include "mem/pool.h"
#include "platform/grand.h"
#include "task/accounting.h"
#include "task/slip.h"

namespace {

task_base_var main_base;
task_jobs_var main_jobs;
task_io_var main_io;
bool kernel_up, kernel_early;
task_utime last_wait;

constexpr task_utime kMaxWait{4, 0};
constexpr task_utime kStatsPeriod{5, 0};
constexpr task_utime kSlipKevent{4, 600000};

// The slip log: the last 64 slips.
struct slip_entry {
  time_t se_when;
  task_utime se_elapsed, se_user, se_sys;
};
slip_entry slip_log[64];
uint32_t slip_next;

task_job *pool_job;
void pool_cleaner(task_job *jp) {
  if (!task_mem_block_pool_age()) return;
  pool_job = nullptr;
  task_job_delete(jp);
}
void start_pool_cleaner(void) {
  if (pool_job) return;
  pool_job = task_job_create_background(task_scheduler_task(), 4, "memory pool cleaner", pool_cleaner, nullptr);
}
constexpr task_mem_pool_job_ops kPoolOps = {start_pool_cleaner};

// The trace library prepares a call site by asking how many arguments each
// %z extension takes; the formatter's registry knows. The non-asserting
// look-up: a letter nobody registered fails the site, not the process here.
int zext_lookup(int letter, int argcount, int *code, int *value2, int *family) {
  unsigned c = 0, v = 0, f = 0;
  if (argcount < 0 || task_fmt_zext_try(letter, static_cast<unsigned>(argcount), &c, &v, &f) != 0) return -1;
  *code = static_cast<int>(c);
  *value2 = static_cast<int>(v);
  *family = static_cast<int>(f);
  return 0;
}
int zgf_lookup(int gf, int *code, int *value) {
  unsigned c = 0, v = 0;
  if (gf < 0 || task_fmt_zgf(static_cast<unsigned>(gf), &c, &v) != 0) return -1;
  *code = static_cast<int>(c);
  *value = static_cast<int>(v);
  return 0;
}

}  // namespace

task_utime task_now;
task_sched_var task_main_sched;

task_sched_var *task_var_scheduler(const task *tp) {
  task_var_context *c = tp && tp->task_context ? tp->task_context : task_var_get_context();
  auto *sp = static_cast<task_sched_var *>(task_var_full(c)->tvcfull_scheduler);
  return sp ? sp : &task_main_sched;
}

task_io_var *task_var_io(const task *tp) {
  task_var_context *c = tp && tp->task_context ? tp->task_context : task_var_get_context();
  auto *io = static_cast<task_io_var *>(task_var_full(c)->tvcfull_io);
  task_assert(io);
  return io;
}

task *task_scheduler_task(void) { return &task_var_scheduler(nullptr)->tasksched_task_task; }
task *task_current(void) { return task_var_scheduler(nullptr)->tasksched_current; }
void task_set_current(task *tp) {
  task_sched_var *sp = task_var_scheduler(nullptr);
  sp->tasksched_current = tp ? tp : &sp->tasksched_task_task;
}

void task_sched_stat(int which, uint32_t n) { task_var_scheduler(nullptr)->sched_stats.ss[which] += n; }

task_utime task_scheduler_last_wait(void) { return last_wait; }

namespace {

[[gnu::cold, gnu::noinline]] void clock_failed(void) {
  TASK_TRACE(nullptr, TR_TASK, "%s: gettimeofday() failed: %m", "task_time_update");
  task_assert(0 == "clock_gettime");
}

// The refresh, inlined into the check that runs after every callback.
inline void refresh_time(void) {
  task_time_hook_fn hook = task_timer_main()->timer_time_hook;
  if (__builtin_expect(hook != nullptr, 0)) {
    hook(&task_now);
    return;
  }
  uint64_t ns;
  if (__builtin_expect(!task_clock_ns(&ns), 0)) clock_failed();
  task_now = task_utime_from_ns(ns);
}

}  // namespace

void task_time_update(void) { refresh_time(); }

void task_set_time_hook(task_time_hook_fn hook) {
  task_timer_main()->timer_time_hook = hook;
  task_time_update();
}

void task_kernel_init(void) {
  task_kernel_init_early();
  task_kernel_init_late();
}

void task_kernel_init_early(void) {
  if (kernel_early) return;
  kernel_early = true;
  // The kernel's trace lines are checked against the framework's directives
  // when compiled (%t, %A, ...): they are rendered by its formatter too.
  ztrace_set_printf(task_fmt_snprintf, task_fmt_fprintf, task_fmt_sprintf, task_fmt_vsprintf, task_fmt_vsnprintf,
                    task_fmt_vfprintf);
  ztrace_set_format_lookups(zext_lookup, zgf_lookup);
  if (!task_memory_is_up()) task_memory_init(nullptr);
  tvcfull *full = &task_var_main_context;
  full->tvcfull_tasks = &main_base;
  full->tvcfull_scheduler = &task_main_sched;
  full->tvcfull_jobs = &main_jobs;
  full->tvcfull_io = &main_io;
  full->tvcfull_timers = task_timer_main();
  task_block_of_tasks();
  task_base_init(&main_base);
  task *st = &task_main_sched.tasksched_task_task;
  st->task_forw = st->task_back = nullptr;
  st->task_addrfamily = -1;
  st->task_socket = -1;
  st->task_context = task_main_context;
  strcpy(st->task_name, "Scheduler");
  task_main_sched.tasksched_current = st;
}

void task_kernel_init_late(void) {
  if (kernel_up) return;
  task_kernel_init_early();
  kernel_up = true;
  tvcfull *full = &task_var_main_context;
  task_jobs_init(&main_jobs);
  task_timer_init();
  task_tsc_init(&task_tsc, task_tsc_usable());
  task_time_update();
  grand_seed(task_now.ut_sec ^ task_now.ut_usec);
  task_evq_init();
  task_signal_init();
  task_mem_set_pool_job_ops(&kPoolOps);
  full->tvcfull_initialized = true;
  task_scheduler_init(task_main_context);
}

void task_scheduler_init(task_var_context *context) {
  task_sched_var *sp = static_cast<task_sched_var *>(task_var_full(context)->tvcfull_scheduler);
  sp->sched_timer_batch = sp->sched_bg_interval = sp->sched_low_interval = 10;
  sp->run_scheduler = 1;
  sp->tasksched_current = &sp->tasksched_task_task;
  task *st = &sp->tasksched_task_task;
  trace_handle *app_trace = task_get_task_app_ctx()->app_trace;
  if (!st->task_trace && app_trace) st->task_trace = trace_alloc(app_trace);
  sp->sched_stats_next = task_utime_add(task_now, kStatsPeriod);
  task_process_times(&sp->sched_last_user, &sp->sched_last_sys);
}

// Runs after every callback, so it reads the context once and looks at the
// high root's running bit before asking whether it has expired.
void task_timer_hiprio_check(void) {
  refresh_time();
  tvcfull *full = task_var_full(task_var_get_context());
  auto *tv = static_cast<task_timer_var *>(full->tvcfull_timers);
  if (!tv) tv = task_timer_main();
  auto *sp = static_cast<task_sched_var *>(full->tvcfull_scheduler);
  if (!sp) sp = &task_main_sched;
  const htimer *high = &tv->timer_high_root.task_hier_timer;
  if (htimer_running(high) && !(task_state & TASKS_PARSECONFIG) && htimer_expired(high))
    task_timer_hiprio_dispatch(tv, &sp->sched_stats);
  if (!task_utime_lt(task_now, sp->sched_stats_next)) {
    sp->sched_stats_prev = sp->sched_stats;
    sp->sched_stats = {};
    sp->sched_stats_next = task_utime_add(task_now, kStatsPeriod);
  }
}

void task_monitor_slip(const task_utime *blocked) {
  task_sched_var *sp = task_var_scheduler(nullptr);
  if (task_utime_lt(kSlipKevent, *blocked))
    logging_event(LOG_ERR, "ZTASK_SCHED_SLIP_KEVENT", "ZTASK_SCHED_SLIP_KEVENT: %d sec %d usec kevent block",
                  static_cast<int>(blocked->ut_sec), static_cast<int>(blocked->ut_usec));
  task_utime elapsed = task_utime_sub(task_now, sp->sched_last);
  sp->sched_last = task_now;
  task_utime user, sys;
  task_process_times(&user, &sys);
  if (!task_utime_lt(elapsed, task_utime_add(kMaxWait, *blocked))) {
    task_utime du = task_utime_sub(user, sp->sched_last_user), ds = task_utime_sub(sys, sp->sched_last_sys);
    slip_entry &e = slip_log[slip_next++ % 64];
    e = slip_entry{time(nullptr), elapsed, du, ds};
    sp->sched_slip_log_count++;
    logging_event(LOG_ERR, "ZTASK_SCHED_SLIP",
                  "ZTASK_SCHED_SLIP: %d sec scheduler slip, user: %d sec %d usec, system: %d sec, %d usec",
                  static_cast<int>(elapsed.ut_sec), static_cast<int>(du.ut_sec), static_cast<int>(du.ut_usec),
                  static_cast<int>(ds.ut_sec), static_cast<int>(ds.ut_usec));
    if (task_accounting_on) task_accounting_slip(&elapsed, &du, &ds);
    task_timer *st = sp->sched_slip_timer;
    if (st) {
      task_utime left;
      task_timer_time_left(st, &left);
      if (!(task_timer_running(st) && task_utime_lt(elapsed, left))) {
        task_timer_reset(st);
        task_timer_uset(st, nullptr, &elapsed, 0);
      }
    }
  }
  sp->sched_last_user = user;
  sp->sched_last_sys = sys;
}

bool task_scheduler_slipped(task_utime *tv) {
  task_timer *st = task_var_scheduler(nullptr)->sched_slip_timer;
  bool running = st && task_timer_running(st) && !task_timer_expired(st);
  if (tv) {
    if (running)
      task_timer_time_left(st, tv);
    else
      *tv = task_utime{0, 0};
  }
  return running;
}

void task_scheduler_internal(bool monitor_slip, bool run_forever) {
  task_sched_var *sp = task_var_scheduler(nullptr);
  task_timer_var *tv = task_var_timers();
  task_io_var *io = task_var_io(nullptr);
  task_base_var *bp = task_var_base(nullptr);
  task_jobs_var *jobs = task_var_jobs();
  task_app_ctx_t *app = task_get_task_app_ctx();
  uint32_t work = 0;
  bool first_pass = true;
  uint32_t bg_left = sp->sched_bg_interval, low_left = sp->sched_low_interval;
  sp->sched_last = task_now;
  if (!sp->sched_slip_timer)
    sp->sched_slip_timer = task_timer_create_idle(task_scheduler_task(), "Scheduler slip timer", 0, nullptr, nullptr);
  uint8_t *run_scheduler = &sp->run_scheduler;
  task_assert(*run_scheduler);
  for (;;) {
    if (!run_forever && (!sp->run_scheduler || bp->taskbase_count == 0)) return;
    // The running bits are read inline: an idle pass makes no tree calls.
    const htimer *normal = &tv->timer_normal_root.task_hier_timer, *low = &tv->timer_low_root.task_hier_timer;
    if (htimer_running(normal) && htimer_expired(normal)) {
      TASK_TRACE(nullptr, TR_TIMER, "main: running normal priority timer queue");
      int n = task_timer_dispatch(&tv->timer_normal_root, false, static_cast<int>(sp->sched_timer_batch));
      sp->sched_stats.ss[SCHED_STAT_TIMERS] += n;
      TASK_TRACE(nullptr, TR_TIMER, "main: ran %d timers", n);
      work++;
    }
    if (jobs->taskjobs_bg_queued && !first_pass) {
      if (--bg_left == 0 || work == 0) {
        task_job_bg_dispatch();
        work++;
        bg_left = sp->sched_bg_interval;
      }
    }
    if (htimer_running(low) && htimer_expired(low)) {
      bool lowprio_ok = work == 0;
      if (--low_left == 0 || lowprio_ok) {
        TASK_TRACE(nullptr, TR_TIMER, "main: running low priority timer queue, skips %d, lowprio_ok %d",
                   static_cast<int>(sp->sched_low_interval - low_left), lowprio_ok ? 1 : 0);
        int n = task_timer_dispatch(&tv->timer_low_root, false, static_cast<int>(sp->sched_timer_batch));
        sp->sched_stats.ss[SCHED_STAT_LOW_TIMERS] += n;
        TASK_TRACE(nullptr, TR_TIMER, "main: ran %d timer", n);
        low_left = sp->sched_low_interval;
      }
    }
    if (jobs->taskjobs_fg_queued) task_job_fg_dispatch();
    sp->sched_stats.ss[SCHED_STAT_PASSES]++;

    task_utime wait{0, 0};
    if (jobs->taskjobs_fg_queued || jobs->taskjobs_bg_queued) {
      wait = task_utime{0, 0};
    } else if (htimer_running(&tv->timer_master_root.task_hier_timer)) {
      task_time_update();
      task_timer_time_left(&tv->timer_master_root, &wait);
      if (wait.ut_sec > 3) wait = kMaxWait;
    } else {
      if (bp->taskbase_count == 0 && (task_state & TASKS_TERMINATE) &&
          task_var_get_context() != task_main_context)
        return;
      wait = kMaxWait;
    }
    last_wait = wait;
    if (app->app_pre_wait) app->app_pre_wait();
    if (monitor_slip) task_slip_detector_disarm();
    task_utime before = task_now;
    int n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &wait);
    if (n < 0) {
      if (errno != EINTR) {
        int err = errno;
        logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "kevent");
        __task_quit__(err);
      }
      n = 0;
    }
    if (monitor_slip) task_slip_detector_arm();
    if (app->app_post_wait) app->app_post_wait();
    task_time_update();
    task_utime blocked = task_utime_sub(task_now, before);
    const htimer *high = &tv->timer_high_root.task_hier_timer;
    if (htimer_running(high) && htimer_expired(high)) task_timer_hiprio_dispatch(tv, &sp->sched_stats);
    if (monitor_slip) task_monitor_slip(&blocked);
    work = 0;
    if (n > 0) {
      work = 1;
      task_process_events_internal(&sp->sched_stats, io, n);
    }
    first_pass = false;
  }
}

void task_scheduler(void) {
  task_scheduler_internal(true, true);
  task_assert(0 == "task_scheduler returned");
  __builtin_unreachable();
}

void task_scheduler_once(void) { task_scheduler_internal(false, false); }

int task_scheduler_run(void) {
  task_sched_var *sp = task_var_scheduler(nullptr);
  if (!sp->run_scheduler) sp->run_scheduler = 1;
  task_scheduler_once();
  return sp->sched_exit_value;
}

void task_scheduler_exit(int value) {
  task_sched_var *sp = task_var_scheduler(nullptr);
  task_assert(sp->run_scheduler);
  sp->run_scheduler = 0;
  sp->sched_exit_value = value;
}

void task_scheduler_stop(void) { task_var_scheduler(nullptr)->run_scheduler = 0; }
