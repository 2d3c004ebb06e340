// Jobs: the foreground queue, the sorted background queue with its credit and
// starving rules, time slices and sub-jobs.
#include <cstring>

#include "internal.h"
#include "mem/block.h"
#include "mem/mem.h"
#include "task/accounting.h"
#include "trace/zevt.h"

namespace {

task_block *job_block;
task_block *subjob_block;
task_mem_cookie *subjob_cookie;
task_job_ctx *running_sub;  // the sub-job whose method runs now

inline task_jobs_var *jv() { return task_var_jobs(); }
inline task_job *bg_head() { return &jv()->taskjobs_bg_head; }
inline task_job *fg_head() { return &jv()->taskjobs_fg_head; }

void blocks() {
  if (job_block) return;
  job_block = task_block_init(sizeof(task_job), "task_job");
  subjob_block = task_block_init(sizeof(task_job_ctx), "task_job_subjob");
  subjob_cookie = task_mem_cookie_get("task_job_subjob_cookie");
}

inline void link_after(task_job *at, task_job *jp) {
  jp->task_job_back = at;
  jp->task_job_forw = at->task_job_forw;
  at->task_job_forw->task_job_back = jp;
  at->task_job_forw = jp;
}
inline void unlink(task_job *jp) {
  jp->task_job_back->task_job_forw = jp->task_job_forw;
  jp->task_job_forw->task_job_back = jp->task_job_back;
  jp->task_job_forw = jp->task_job_back = nullptr;
}

inline void ctx_link_before(task_job_ctx *at, task_job_ctx *c) {
  c->tjc_next = at;
  c->tjc_prev = at->tjc_prev;
  at->tjc_prev->tjc_next = c;
  at->tjc_prev = c;
}
inline void ctx_unlink(task_job_ctx *c) {
  c->tjc_prev->tjc_next = c->tjc_next;
  c->tjc_next->tjc_prev = c->tjc_prev;
  c->tjc_next = c->tjc_prev = nullptr;
}
inline task_job_ctx *ctx_head(task_job *jp) { return &jp->task_job_subjobs; }
task_job_ctx *first_real(task_job *jp) {
  for (task_job_ctx *c = ctx_head(jp)->tjc_next; c != ctx_head(jp); c = c->tjc_next)
    if (!c->tjc_marker) return c;
  return nullptr;
}
void ctx_free(task_job_ctx *c) {
  if (c->tjc_name) task_cookie_free(subjob_cookie, c->tjc_name);
  task_block_free(subjob_block, c);
}

inline bool thread_node_on_thread(const task_job_list *l) { return l->tjl_next != nullptr; }
void starve_unlink(task_job *jp) {
  task_job_list *l = &jp->task_job_starving;
  if (!l->tjl_next) return;
  l->tjl_prev->tjl_next = l->tjl_next;
  l->tjl_next->tjl_prev = l->tjl_prev;
  l->tjl_next = l->tjl_prev = nullptr;
}
void starve_append(task_job *jp) {
  task_job_list *h = &jv()->taskjobs_starving_list, *l = &jp->task_job_starving;
  l->tjl_next = h;
  l->tjl_prev = h->tjl_prev;
  h->tjl_prev->tjl_next = l;
  h->tjl_prev = l;
}
void starve_clear(task_job *jp) {
  if (jp->task_job_flags & TASK_JOB_STARVING) {
    jp->task_job_flags &= ~TASK_JOB_STARVING;
    jv()->taskjobs_starving--;
  }
  starve_unlink(jp);
}

void job_free(task_job *jp) {
  for (task_job_ctx *c = ctx_head(jp)->tjc_next; c && c != ctx_head(jp);) {
    task_job_ctx *n = c->tjc_next;
    ctx_free(c);
    c = n;
  }
  if (jp->task_job_timer && jp->task_job_timer->task_timer_job == jp) jp->task_job_timer->task_timer_job = nullptr;
  task_block_free(job_block, jp);
}

task_job *job_new(task *tp, int priority, const char *name, task_job_method method, void *data) {
  blocks();
  auto *jp = static_cast<task_job *>(task_block_alloc(job_block));
  jp->task_job_name = name;
  jp->task_job_task = tp;
  jp->task_job_priority = static_cast<uint8_t>(priority);
  jp->task_job_method = method;
  jp->task_job_data = data;
  jp->task_job_subjobs.tjc_next = jp->task_job_subjobs.tjc_prev = &jp->task_job_subjobs;
  jp->task_job_subjobs.tjc_job = jp;
  jp->task_job_time = task_now.ut_sec;
  return jp;
}

// After the last job whose priority value is not higher than its own.
void bg_insert(task_job *jp) {
  task_jobs_var *v = jv();
  task_job *at = bg_head();
  for (int p = jp->task_job_priority; p >= 0; p--) {
    if (v->taskjobs_last[p]) {
      at = v->taskjobs_last[p];
      break;
    }
  }
  link_after(at, jp);
  v->taskjobs_last[jp->task_job_priority] = jp;
  jp->task_job_credit = 0;
}

// Takes a background job out of the queue, keeping the "last" table right.
void bg_unlink(task_job *jp) {
  task_jobs_var *v = jv();
  uint8_t p = jp->task_job_priority;
  if (v->taskjobs_last[p] == jp) {
    task_job *b = jp->task_job_back;
    v->taskjobs_last[p] = (b != bg_head() && b->task_job_priority == p) ? b : nullptr;
  }
  unlink(jp);
}

void requeue_tail(task_job *jp) {
  if (jv()->taskjobs_last[jp->task_job_priority] == jp) return;
  bg_unlink(jp);
  uint32_t credit = jp->task_job_credit;
  bg_insert(jp);
  jp->task_job_credit = credit;
}

void add_marker(task_job *jp) {
  if (jp->task_job_subjob_marker) return;
  auto *m = static_cast<task_job_ctx *>(task_block_alloc(subjob_block));
  m->tjc_marker = 1;
  m->tjc_job = jp;
  ctx_link_before(ctx_head(jp), m);
  jp->task_job_subjob_marker = m;
}
void remove_marker(task_job *jp) {
  task_job_ctx *m = jp->task_job_subjob_marker;
  if (!m) return;
  ctx_unlink(m);
  ctx_free(m);
  jp->task_job_subjob_marker = nullptr;
}

inline task_utime ms(uint32_t n) { return task_utime_from_usec(uint64_t{n} * 1000); }

// Whether an event of "TASK-JOBS" asks for anything: read inline on every run.
inline bool evt_on(unsigned n) { return task_job_evt && task_job_evt->zs_events[n].ze_action; }

const char *job_name_of(const void *jp) { return static_cast<const task_job *>(jp)->task_job_name; }

// The common run step: one call of the method, with its bookkeeping.
void job_call(task_job *jp, task_job_ctx *sub, const char *text) {
  task *tp = jp->task_job_task;
  TASK_TRACE(tp, TR_TASK, "%s running job %s for task %s", text, jp->task_job_name, task_name(tp));
  if (__builtin_expect(evt_on(TASK_JOB_EVT_START), 0))
    zevt_record(task_job_evt, TASK_JOB_EVT_START, "%s for task %s by %s", jp->task_job_name, task_name(tp), text);
  task_utime start{};
  if (jp->task_job_max_quantum) {
    task_time_update();
    start = task_now;
    add_marker(jp);
  }
  jp->task_job_run_start = task_now;
  jp->task_job_flags |= TASK_JOB_ACTIVE;
  jp->task_job_runs++;
  if (sub) sub->tjc_flags |= 0x1;
  task_sched_var *sp = task_var_scheduler(nullptr);
  task *saved_current = sp->tasksched_current;
  task_job_ctx *saved_sub = running_sub;
  running_sub = sub;
  sp->tasksched_current = tp ? tp : &sp->tasksched_task_task;
  if (__builtin_expect(task_accounting_on, 0)) task_accounting_overhead(TASK_ACCT_OTHER, "job");
  jp->task_job_method(jp);
  // The job outlives its method: a job deleted there is freed by its dispatcher.
  if (__builtin_expect(task_accounting_on, 0))
    task_accounting_charge(tp, TASK_ACCT_OTHER, text, job_name_of, jp);
  sp->tasksched_current = saved_current;
  running_sub = saved_sub;
  if (jp->task_job_max_quantum) {
    task_time_update();
    task_utime used = task_utime_sub(task_now, start);
    jp->task_job_quantum_left = task_utime_sub(jp->task_job_quantum_left, used);
    jp->task_job_loop_left = task_utime_sub(jp->task_job_loop_left, used);
  }
  const char *outcome = jp->task_job_forw ? "returned" : "completed";
  TASK_TRACE(tp, TR_TASK, "%s %s job %s for task %s", text, outcome, jp->task_job_name, task_name(tp));
  if (__builtin_expect(evt_on(TASK_JOB_EVT_END), 0))
    zevt_record(task_job_evt, TASK_JOB_EVT_END, "%s for task %s by %s is %s", jp->task_job_name, task_name(tp), text,
                outcome);
  if (__builtin_expect(evt_on(TASK_JOB_EVT_QUEUE), 0)) task_job_evt_queue_log();
  task_timer_hiprio_check();
}

void bg_run(task_job *jp, const char *text) {
  task_assert(jp->task_job_priority != 128);
  if (task_utime_zero(&jp->task_job_quantum_left) && jp->task_job_max_quantum)
    jp->task_job_quantum_left = ms(jp->task_job_max_quantum);
  jp->task_job_loop_left = ms(jp->task_job_loop_quantum);
  for (;;) {
    task_job_ctx *sub = first_real(jp);
    job_call(jp, sub, text);
    if (jp->task_job_flags & TASK_JOB_SUBJOB_DELETED) {
      jp->task_job_flags &= ~TASK_JOB_SUBJOB_DELETED;
      sub = nullptr;
    } else if (sub) {
      sub->tjc_flags &= ~0x1;
    }
    if (!jp->task_job_forw) {
      jp->task_job_credit = 0;
      starve_clear(jp);
      task_assert(!thread_node_on_thread(&jp->task_job_starving));
      job_free(jp);
      return;
    }
    if (sub) {
      ctx_unlink(sub);
      ctx_link_before(ctx_head(jp), sub);
      sub->tjc_time = task_now.ut_sec;
    }
    if (task_job_ctx *m = jp->task_job_subjob_marker) {
      if (ctx_head(jp)->tjc_next == m) {
        remove_marker(jp);
        jp->task_job_quantum_left = task_utime{0, 0};
      } else {
        jp->task_job_credit = 0;
        starve_clear(jp);
      }
    }
    if (!jp->task_job_max_quantum || task_utime_zero(&jp->task_job_quantum_left)) break;
    if (!jp->task_job_loop_quantum || task_utime_zero(&jp->task_job_loop_left)) {
      jp->task_job_flags &= ~TASK_JOB_ACTIVE;
      task_sched_stat(SCHED_STAT_BG_RUNS);
      return;
    }
  }
  jp->task_job_time = task_now.ut_sec;
  requeue_tail(jp);
  starve_unlink(jp);
  if (jp->task_job_flags & TASK_JOB_STARVING) starve_append(jp);
  jp->task_job_flags &= ~TASK_JOB_ACTIVE;
  task_sched_stat(SCHED_STAT_BG_RUNS);
}

// Removes one real sub-job; true when others remain.
bool subjob_remove(task_job_ctx *c) {
  task_job *jp = c->tjc_job;
  if (c->tjc_flags & 0x1) jp->task_job_flags |= TASK_JOB_SUBJOB_DELETED;
  ctx_unlink(c);
  ctx_free(c);
  return first_real(jp) != nullptr;
}

}  // namespace

void task_jobs_init(task_jobs_var *v) {
  blocks();
  for (task_job *h : {&v->taskjobs_fg_head, &v->taskjobs_bg_head}) {
    h->task_job_forw = h->task_job_back = h;
    h->task_job_priority = 128;
    h->task_job_subjobs.tjc_next = h->task_job_subjobs.tjc_prev = &h->task_job_subjobs;
  }
  v->taskjobs_fg_head.task_job_name = "Job Foreground Queue";
  v->taskjobs_bg_head.task_job_name = "Job Background Queue";
  v->taskjobs_starving_list.tjl_next = v->taskjobs_starving_list.tjl_prev = &v->taskjobs_starving_list;
  v->taskjobs_starve_ok = 1;
  for (int p = 0; p < TASK_JOB_PRIO_MAX; p++) v->task_job_weight[p] = 1u << (2 * p);
  task_job_events_register();
}

task_jobs_var *task_var_jobs(void) {
  auto *v = static_cast<task_jobs_var *>(task_var_full(task_var_get_context())->tvcfull_jobs);
  task_assert(v);
  return v;
}

void task_job_weight_add(uint32_t w) {
  task_jobs_var *v = jv();
  if (v->taskjobs_weights_added >= TASK_JOB_PRIO_MAX) return;
  for (uint32_t p = v->taskjobs_weights_added; p < TASK_JOB_PRIO_MAX; p++) v->task_job_weight[p] = w;
  v->taskjobs_weights_added++;
}

task_job *task_job_create(task *tp, int priority, const char *name, task_job_method method, void *data) {
  if (priority >= 0 && priority < TASK_JOB_PRIO_MAX) return task_job_create_background(tp, priority, name, method, data);
  task_assert(priority == 128);
  return task_job_create_foreground(tp, name, method, data);
}

task_job *task_job_create_foreground(task *tp, const char *name, task_job_method method, void *data) {
  task_job *jp = job_new(tp, TASK_JOB_FOREGROUND, name, method, data);
  link_after(fg_head()->task_job_back, jp);
  jv()->taskjobs_fg_queued++;
  TASK_TRACE(tp, TR_TASK, "task_job_create_foreground: create job %s for task %s", name, task_name(tp));
  return jp;
}

task_job *task_job_create_background(task *tp, int priority, const char *name, task_job_method method,
                                     void *data) {
  if (!tp || priority < 0 || priority >= TASK_JOB_PRIO_MAX) return nullptr;
  task_job *jp = job_new(tp, priority, name, method, data);
  bg_insert(jp);
  jv()->taskjobs_bg_queued++;
  TASK_TRACE(tp, TR_TASK, "task_job_create_background: create prio %d job %s%s%s for task %s", priority, name, "",
             "", task_name(tp));
  return jp;
}

task_job_ctx *task_job_create_background_subjob(task *tp, int priority, const char *job_name,
                                                const char *subjob_name, task_job_method method,
                                                uint32_t max_quantum, uint32_t loop_quantum, void *data) {
  task_assert(loop_quantum <= max_quantum);
  if (!tp || priority < 0 || priority >= TASK_JOB_PRIO_MAX) return nullptr;
  task_job *jp = nullptr;
  for (task_job *j = bg_head()->task_job_forw; j != bg_head(); j = j->task_job_forw) {
    if (j->task_job_priority == priority && j->task_job_task == tp && j->task_job_method == method &&
        (j->task_job_flags & TASK_JOB_SUBJOB) && j->task_job_max_quantum == max_quantum &&
        j->task_job_loop_quantum == loop_quantum && strcmp(j->task_job_name, job_name) == 0) {
      jp = j;
      break;
    }
  }
  if (!jp) {
    jp = job_new(tp, priority, job_name, method, nullptr);
    jp->task_job_flags |= TASK_JOB_SUBJOB;
    jp->task_job_max_quantum = max_quantum;
    jp->task_job_loop_quantum = loop_quantum;
    bg_insert(jp);
    jv()->taskjobs_bg_queued++;
  }
  auto *c = static_cast<task_job_ctx *>(task_block_alloc(subjob_block));
  c->tjc_job = jp;
  c->tjc_name = subjob_name ? task_cookie_strdup(subjob_cookie, subjob_name) : nullptr;
  c->tjc_data = data;
  c->tjc_time = task_now.ut_sec;
  ctx_link_before(ctx_head(jp), c);
  TASK_TRACE(tp, TR_TASK, "task_job_create_background: create prio %d job %s%s%s for task %s", priority, job_name,
             subjob_name ? "/" : "", subjob_name ? subjob_name : "", task_name(tp));
  return c;
}

void task_job_delete(task_job *jp) {
  if (!jp) return;
  task *tp = jp->task_job_task;
  bool fg = jp->task_job_priority == TASK_JOB_FOREGROUND;
  if (!jp->task_job_forw) {
    TASK_TRACE(tp, TR_TASK, "task_job_delete: %s job %s for task %s already deleted", fg ? "foreground" : "background",
               jp->task_job_name, task_name(tp));
    return;
  }
  TASK_TRACE(tp, TR_TASK, "task_job_delete: delete %s job %s for task %s", fg ? "foreground" : "background",
             jp->task_job_name, task_name(tp));
  if (fg) {
    jv()->taskjobs_fg_queued--;
    unlink(jp);
  } else {
    if (task_job_ctx *c = first_real(jp))
      if (subjob_remove(c)) return;
    starve_clear(jp);
    jv()->taskjobs_bg_queued--;
    bg_unlink(jp);
  }
  if (!(jp->task_job_flags & TASK_JOB_ACTIVE)) job_free(jp);
}

void task_job_subjob_delete(task_job_ctx *c) {
  if (!c || c->tjc_marker) return;
  task_job *jp = c->tjc_job;
  if (!subjob_remove(c)) task_job_delete(jp);
}

namespace {
int delete_queued(task *tp, task_job *h) {
  int n = 0;
  for (task_job *j = h->task_job_forw; j != h;) {
    task_job *next = j->task_job_forw;
    if (j->task_job_task == tp) {
      // A sub-job job goes one sub-job per delete; the last takes the job.
      int calls = 0;
      for (task_job_ctx *c = ctx_head(j)->tjc_next; c != ctx_head(j); c = c->tjc_next) calls += !c->tjc_marker;
      for (int i = 0; i < (calls ? calls : 1); i++) task_job_delete(j);
      n++;
    }
    j = next;
  }
  return n;
}
}  // namespace

void task_job_delete_task(task *tp) {
  int n = delete_queued(tp, fg_head()) + delete_queued(tp, bg_head());
  // Foreground jobs taken off the queue by a dispatch that is still running
  // (nested dispatches each hold their own list).
  for (task_job_fg_list *l = jv()->taskjobs_fg_local; l; l = l->outer) n += delete_queued(tp, &l->head);
  if (n) TASK_TRACE(tp, TR_TASK, "task_job_delete_task: deleted %d jobs of task %s", n, task_name(tp));
}

void task_job_force(task_job *jp) {
  task_assert(!(((jp->task_job_flags) & (0x01)) != 0));
  if (jp->task_job_priority == TASK_JOB_FOREGROUND) {
    job_call(jp, nullptr, "forcing foreground");
    jp->task_job_flags &= ~TASK_JOB_ACTIVE;
    if (!jp->task_job_forw) {
      job_free(jp);
      return;
    }
    unlink(jp);
    link_after(fg_head()->task_job_back, jp);
    return;
  }
  job_call(jp, first_real(jp), "forcing background");
  jp->task_job_flags &= ~(TASK_JOB_ACTIVE | TASK_JOB_SUBJOB_DELETED);
  if (!jp->task_job_forw) {
    starve_clear(jp);
    job_free(jp);
    return;
  }
  requeue_tail(jp);
}

void task_job_set_data(task_job *jp, void *data) {
  if (jp) jp->task_job_data = data;
}
void *task_job_get_data(const task_job *jp) { return jp ? jp->task_job_data : nullptr; }
const char *task_job_get_name(const task_job *jp) { return jp ? jp->task_job_name : nullptr; }
task *task_job_get_task(const task_job *jp) { return jp ? jp->task_job_task : nullptr; }
task_job_ctx *task_job_current_subjob(const task_job *jp) {
  return running_sub && running_sub->tjc_job == jp ? running_sub : nullptr;
}
void *task_job_subjob_data(const task_job_ctx *c) { return c ? c->tjc_data : nullptr; }

bool task_job_fg_queued(void) { return jv()->taskjobs_fg_queued != 0; }
bool task_job_bg_queued(void) { return jv()->taskjobs_bg_queued != 0; }

void task_job_fg_dispatch(void) {
  task_jobs_var *v = jv();
  task_job *h = fg_head();
  if (h->task_job_forw == h) return;
  // Jobs created from here on go to the fresh queue and wait a pass.
  task_job_fg_list l;
  task_job &local = l.head;
  local.task_job_forw = h->task_job_forw;
  local.task_job_back = h->task_job_back;
  local.task_job_forw->task_job_back = &local;
  local.task_job_back->task_job_forw = &local;
  h->task_job_forw = h->task_job_back = h;
  l.outer = v->taskjobs_fg_local;
  v->taskjobs_fg_local = &l;
  while (local.task_job_forw != &local) {
    task_job *jp = local.task_job_forw;
    // Still counted and linked while it runs, so that a delete from any
    // method (its own included) finds it queued and only unlinks it.
    task_sched_stat(SCHED_STAT_FG_RUNS);
    job_call(jp, nullptr, "foreground dispatch");
    jp->task_job_flags &= ~TASK_JOB_ACTIVE;
    if (jp->task_job_forw) {
      unlink(jp);
      v->taskjobs_fg_queued--;
    }
    job_free(jp);
  }
  v->taskjobs_fg_local = l.outer;
  if (h->task_job_forw != h)
    TASK_TRACE(nullptr, TR_TASK, "task_job_fg_dispatch: %u foreground jobs queued for the next pass",
               v->taskjobs_fg_queued);
}

void task_job_bg_dispatch(void) {
  task_jobs_var *jobs_var = jv();
  task_job *head = &jobs_var->taskjobs_bg_head;
  task_job *jp = nullptr;
  if (jobs_var->taskjobs_starving && jobs_var->taskjobs_starve_ok) {
    task_job_list *l = jobs_var->taskjobs_starving_list.tjl_next;
    jp = l != &jobs_var->taskjobs_starving_list
             ? reinterpret_cast<task_job *>(reinterpret_cast<char *>(l) - offsetof(task_job, task_job_starving))
             : nullptr;
    task_assert(!jp || (jp && (((jp->task_job_flags) & (0x02)) != 0)));
    if (jp && evt_on(TASK_JOB_EVT_STARVED_SELECTED))
      zevt_record(task_job_evt, TASK_JOB_EVT_STARVED_SELECTED, "%s for task %s selected while starving",
                  jp->task_job_name, task_name(jp->task_job_task));
    task_sched_stat(SCHED_STAT_BG_STARVING);
    jobs_var->taskjobs_starve_ok = 0;
  }
  if (!jp) {
    jp = head->task_job_forw;
    jobs_var->taskjobs_starve_ok = 1;
    if (jp == head) {
      task_assert(jobs_var->taskjobs_bg_queued == 0);
      return;
    }
  }
  uint32_t w = jobs_var->task_job_weight[jp->task_job_priority];
  task_job *last = jobs_var->taskjobs_last[jp->task_job_priority];
  for (task_job *j = last ? last->task_job_forw : head; j != head; j = j->task_job_forw) {
    j->task_job_credit += w;
    if (j->task_job_credit > jobs_var->task_job_weight[j->task_job_priority] &&
        !(j->task_job_flags & TASK_JOB_STARVING)) {
      j->task_job_flags |= TASK_JOB_STARVING;
      starve_append(j);
      jobs_var->taskjobs_starving++;
      if (evt_on(TASK_JOB_EVT_STARVING))
        zevt_record(task_job_evt, TASK_JOB_EVT_STARVING, "%s is getting starved by %s (or other)", j->task_job_name,
                    jp->task_job_name);
    }
  }
  task_sched_stat(SCHED_STAT_BG_DISPATCH);
  bg_run(jp, "background dispatch");
}

bool task_job_slice_over(task_job *jp) {
  if (!jp || jp->task_job_priority == TASK_JOB_FOREGROUND) return false;
  task_time_update();
  task_utime quantum = ms(jp->task_job_max_quantum ? jp->task_job_max_quantum : 10);
  return !task_utime_lt(task_utime_sub(task_now, jp->task_job_run_start), quantum);
}
