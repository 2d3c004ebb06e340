// Text dumps of the kernel's state: the task list, the job queues, the
// accounting records (the management channel's show commands; the timers'
// dump is timer_dump.cc).
#include <cstdio>

#include "internal.h"
#include "task/accounting.h"

namespace {

const char *const task_flag_words[] = {"Accept",  "Connect",      "Delete",
                                       "LowPrio", "MServer",      "ReadDisable",
                                       "WriteDisable", "SocketReplicationEnabled", "Destination-addresses-required",
                                       "appl-managed-timer-root", "automerge"};

bool live(const task *tp) { return !(tp->task_flags & TASK_FLAG_DELETE); }

void flag_words(FILE *fp, uint32_t flags) {
  for (unsigned i = 0; i < sizeof task_flag_words / sizeof task_flag_words[0]; i++)
    if (flags & (1u << i)) fprintf(fp, " %s", task_flag_words[i]);
}

void job_queue(FILE *fp, const char *title, task_job *head) {
  fprintf(fp, "%s:\n", title);
  for (task_job *jp = head->task_job_forw; jp && jp != head; jp = jp->task_job_forw)
    fprintf(fp, "\t%-32s task %-24s priority %3u runs %u\n", jp->task_job_name ? jp->task_job_name : "NoName",
            jp->task_job_task ? task_name(jp->task_job_task) : "-", jp->task_job_priority, jp->task_job_runs);
}

void acct_line(FILE *fp, const char *kind, const task_accounting &a) {
  if (!a.ta_calls) return;
  fprintf(fp, "\t%-6s calls %u user %u.%06u system %u.%06u longest %u.%06u\n", kind, a.ta_calls, a.ta_user.ut_sec,
          a.ta_user.ut_usec, a.ta_system.ut_sec, a.ta_system.ut_usec, a.ta_longest.ut_sec, a.ta_longest.ut_usec);
}

}  // namespace

void task_dump(FILE *fp) {
  char state[256];
  task_state_text(task_state, state, sizeof state);
  fprintf(fp, "Task State: %s\n", state[0] ? state : "none");
  fprintf(fp, "Tasks: %u\n", task_count());
  fprintf(fp, "\tPriority  Name                                Socket  Proto  Pid  Flags\n");
  for (task *tp = task_next(task_get_head()); tp && tp != task_get_head(); tp = task_next(tp)) {
    if (!live(tp)) continue;
    fprintf(fp, "\t%8d  %-34s %6d  %5d  %4d ", tp->task_priority, task_name(tp), tp->task_socket, tp->task_proto,
            static_cast<int>(tp->task_pid));
    flag_words(fp, tp->task_flags);
    fputc('\n', fp);
  }
}

void task_job_dump(FILE *fp) {
  task_jobs_var *jv = task_var_jobs();
  fprintf(fp, "Jobs queued: %u foreground, %u background\n", jv->taskjobs_fg_queued, jv->taskjobs_bg_queued);
  job_queue(fp, "Foreground", &jv->taskjobs_fg_head);
  job_queue(fp, "Background", &jv->taskjobs_bg_head);
}

void task_accounting_dump(FILE *fp) {
  fprintf(fp, "Accounting: %s\n", task_accounting_enabled() ? "on" : "off");
  static const char *const kinds[TASK_ACCT_KINDS] = {"read", "write", "timer", "other"};
  auto one = [&](const task *tp) {
    bool any = false;
    for (const auto &a : tp->task_acct) any |= a.ta_calls != 0;
    if (!any) return;
    fprintf(fp, "%s:\n", tp == task_scheduler_task() ? "Scheduler" : task_name(const_cast<task *>(tp)));
    for (int k = 0; k < TASK_ACCT_KINDS; k++) acct_line(fp, kinds[k], tp->task_acct[k]);
  };
  one(task_scheduler_task());
  for (task *tp = task_next(task_get_head()); tp && tp != task_get_head(); tp = task_next(tp))
    if (live(tp)) one(tp);
}
