// CPU-time accounting of callbacks, cumulative reports and the slip dump.
#include "task/accounting.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "format/task_fmt.h"
#include "internal.h"
#include "mem/block.h"
#include "platform/path.h"

bool task_accounting_on;

namespace {

task_rusage_hook_fn rusage_hook;
// The last reading of the process's times: every charge takes what was used since.
task_utime last_user, last_sys;

bool tree_on;
hbt_root tree;
task_block *tree_block;
char dump_path[512];

struct sched_jobs_acc {
  hbt_node sja_node;
  task_utime sja_total;
  task_utime sja_max;
  long sja_runs;
  char sja_key[256];
};

int acc_compare(const hbt_node *a, const hbt_node *b) {
  return strcmp(HBT_ENTRY(a, sched_jobs_acc, sja_node)->sja_key, HBT_ENTRY(b, sched_jobs_acc, sja_node)->sja_key);
}

void tree_add(const char *what, const char *name, const task_utime &used) {
  sched_jobs_acc probe;
  snprintf(probe.sja_key, sizeof probe.sja_key, "%s:%s", what, name ? name : "");
  sched_jobs_acc *r;
  if (hbt_node *n = hbt_lookup(&tree, &probe.sja_node, acc_compare)) {
    r = HBT_ENTRY(n, sched_jobs_acc, sja_node);
  } else {
    if (!tree_block) tree_block = task_block_init(sizeof(sched_jobs_acc), "sched_jobs_acc");
    r = static_cast<sched_jobs_acc *>(task_block_alloc(tree_block));
    memcpy(r->sja_key, probe.sja_key, sizeof r->sja_key);
    hbt_insert(&tree, &r->sja_node, acc_compare);
  }
  r->sja_total = task_utime_add(r->sja_total, used);
  if (task_utime_lt(r->sja_max, used)) r->sja_max = used;
  r->sja_runs++;
}

task_utime tv_to_utime(const timeval &tv) {
  return task_utime{static_cast<uint32_t>(tv.tv_sec), static_cast<uint32_t>(tv.tv_usec)};
}

// What was used since the last reading; the reading becomes the last.
void take(task_utime *du, task_utime *ds) {
  task_utime u, s;
  task_process_times(&u, &s);
  *du = task_utime_sub(u, last_user);
  *ds = task_utime_sub(s, last_sys);
  last_user = u;
  last_sys = s;
}

void charge(task_accounting *rec, const char *what, task_accounting_name_fn name_of, const void *object) {
  task_utime du, ds;
  take(&du, &ds);
  task_utime used = task_utime_add(du, ds);
  const char *name = nullptr;
  // 1.5 seconds: two whole seconds, or one and half a million microseconds.
  if (used.ut_sec >= 2 || (used.ut_sec == 1 && used.ut_usec >= 500000)) {
    name = name_of(object);
    char text[512];
    task_fmt::snprintf(text, sizeof text,
                       "ZTASK_SCHED_TASK_LONGRUNTIME: %s ran for %.3#t (%.3#t user, %.3#t system) doing %s", name,
                       &used, &du, &ds, what);
    logging_event(LOG_WARNING, "ZTASK_SCHED_TASK_LONGRUNTIME", "%s", text);
  }
  rec->ta_calls++;
  rec->ta_user = task_utime_add(rec->ta_user, du);
  rec->ta_system = task_utime_add(rec->ta_system, ds);
  if (task_utime_lt(rec->ta_longest, used)) rec->ta_longest = used;
  if (tree_on) tree_add(what, name ? name : name_of(object), used);
}

const char *plain_name(const void *object) { return static_cast<const char *>(object); }

}  // namespace

void task_process_times(task_utime *user, task_utime *sys) {
  if (rusage_hook) {
    rusage_hook(user, sys);
    return;
  }
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  *user = tv_to_utime(ru.ru_utime);
  *sys = tv_to_utime(ru.ru_stime);
}

void task_set_rusage_hook(task_rusage_hook_fn hook) {
  rusage_hook = hook;
  task_process_times(&last_user, &last_sys);
}

void task_accounting_set(bool on) {
  if (on && !task_accounting_on) task_process_times(&last_user, &last_sys);
  task_accounting_on = on;
}

void task_update_runtime(const char *name, task_accounting *record, const char *what) {
  charge(record, what, plain_name, name);
}

void task_accounting_overhead(int kind, const char *what) {
  charge(&task_scheduler_task()->task_acct[kind], what, plain_name, "[overhead]");
}

void task_accounting_charge(task *tp, int kind, const char *what, task_accounting_name_fn name, const void *object) {
  if (!tp) tp = task_scheduler_task();
  charge(&tp->task_acct[kind], what, name, object);
}

// ---- Cumulative reports ----------------------------------------------------------------------

void task_accounting_report_start(task_accounting_cumulative *record) {
  *record = task_accounting_cumulative{};
  task_process_times(&record->tac_last_user, &record->tac_last_sys);
}

void task_accounting_report_internal(task_accounting_cumulative *record, const char *name, const char *what) {
  constexpr uint64_t limit = TASK_ACCT_REPORT_LIMIT_USEC;
  task_utime u, s;
  task_process_times(&u, &s);
  task_utime run = task_utime_add(task_utime_sub(u, record->tac_last_user), task_utime_sub(s, record->tac_last_sys));
  record->tac_last_user = u;
  record->tac_last_sys = s;
  char text[512];
  if (task_utime_to_usec(run) >= limit) {
    task_fmt::snprintf(text, sizeof text, "ZTASK_SCHED_MODULE_LONGRUNTIME: %s: excessive runtime %#.3t during %s of %s",
                       task_daemon_name(), &run, what, name);
    logging_event(LOG_WARNING, "ZTASK_SCHED_MODULE_LONGRUNTIME", "%s", text);
  }
  record->tac_total = task_utime_add(record->tac_total, run);
  record->tac_callbacks++;
  if (!record->tac_reported && task_utime_to_usec(record->tac_total) >= limit) {
    record->tac_reported = 1;
    task_fmt::snprintf(text, sizeof text,
                       "ZTASK_SCHED_CUMU_LONGRUNTIME: %s: excessive runtime (total of %#.3t in %d callbacks) after "
                       "%s of %s",
                       task_daemon_name(), &record->tac_total, static_cast<int>(record->tac_callbacks), what, name);
    logging_event(LOG_WARNING, "ZTASK_SCHED_CUMU_LONGRUNTIME", "%s", text);
  }
}

// ---- The slip dump ----------------------------------------------------------------------------------

void task_accounting_slip_dump_set(bool on) {
  tree_on = on;
  if (!on) task_accounting_tree_clear();
}

bool task_accounting_slip_dump_enabled(void) { return tree_on; }

const char *task_accounting_slip_dump_path(void) { return dump_path; }

size_t task_accounting_tree_walk(task_accounting_walk_fn fn, void *arg) {
  size_t n = 0;
  for (hbt_node *p = hbt_iterate_next(&tree, nullptr); p; p = hbt_iterate_next(&tree, p)) {
    const sched_jobs_acc *r = HBT_ENTRY(p, sched_jobs_acc, sja_node);
    task_accounting_entry e{r->sja_key, r->sja_total, r->sja_max, r->sja_runs};
    fn(&e, arg);
    n++;
  }
  return n;
}

void task_accounting_tree_clear(void) {
  while (hbt_node *p = hbt_iterate_next(&tree, nullptr)) {
    hbt_delete(&tree, p);
    task_block_free(tree_block, HBT_ENTRY(p, sched_jobs_acc, sja_node));
  }
}

void task_accounting_slip(const task_utime *elapsed, const task_utime *user, const task_utime *sys) {
  if (!tree_on) return;
  static uint32_t slips;
  const char *dir = path_solvane_log_dir();
  snprintf(dump_path, sizeof dump_path, "%s/sched_slip_dump_%d_%d.txt", dir, static_cast<int>(getpid()),
           static_cast<int>(++slips));
  tvx_mkdirs(dir, 0755);
  FILE *f = fopen(dump_path, "w");
  if (!f) {
    logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", dump_path);
    task_accounting_tree_clear();
    return;
  }
  fprintf(f, "%d sec scheduler slip, user: %d sec %d usec, system: %d sec, %d usec\n",
          static_cast<int>(elapsed->ut_sec), static_cast<int>(user->ut_sec), static_cast<int>(user->ut_usec),
          static_cast<int>(sys->ut_sec), static_cast<int>(sys->ut_usec));
  char thread[32] = "";
  pthread_getname_np(pthread_self(), thread, sizeof thread);
  fprintf(f, "%-35s %8s Thr:%s\n", "Task Job Name", "Runtime", thread);
  task_accounting_tree_walk(
      [](const task_accounting_entry *e, void *arg) {
        fprintf(static_cast<FILE *>(arg), "%-35s TOT:%08d.%08d MAX:%08d.%08d RUNS:%8ld\n", e->tae_key,
                static_cast<int>(e->tae_total.ut_sec), static_cast<int>(e->tae_total.ut_usec),
                static_cast<int>(e->tae_max.ut_sec), static_cast<int>(e->tae_max.ut_usec), e->tae_runs);
      },
      f);
  fclose(f);
  task_accounting_tree_clear();
}
