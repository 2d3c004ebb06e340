// Signals as events of a pass: the signal table, and the termination steps a
// daemon needs to stop cleanly.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace {

struct task_signal_entry {
  int ts_signo;
  const char *ts_desc;
};

// Every signal here is blocked and read from the signalfd of queue 0.
const task_signal_entry signal_table[] = {
    {SIGIO, "socket I/O"},        {SIGTERM, "Terminate"},          {SIGURG, "Low Memory"},
    {SIGUSR1, "Toggle Tracing"},  {SIGINT, "Status Dump"},         {SIGHUP, "Reconfigure"},
    {SIGUSR2, "gprof on/off"},    {SIGVTALRM, "Virtual Alarm"},    {SIGWINCH, "dump gcov data"},
    {SIGCHLD, "Reap Children"},   {0, nullptr},
};

pid_t start_pid;

const char *const term_words[] = {"first", "second", "third", "fourth", "fifth", "sixth"};

void reap_children() {
  for (;;) {
    int status;
    pid_t pid = waitpid(-1, &status, WNOHANG | WUNTRACED);
    if (pid < 0 && errno == EINTR) continue;
    if (pid <= 0) return;
    task *head = task_get_head();
    for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
      if (tp->task_pid != pid || (tp->task_flags & TASK_FLAG_DELETE)) continue;
      if (tp->task_child) tp->task_child(tp);
      break;
    }
  }
}

}  // namespace

void task_signal_init(void) {
  start_pid = getpid();
  for (int s : {SIGPIPE, SIGTTOU, SIGTTIN, SIGTSTP}) signal(s, SIG_IGN);
  for (const task_signal_entry *e = signal_table; e->ts_signo; e++) task_evq_signal_add(e->ts_signo);
}

void task_signal_event(int signo) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  if (app->app_signal_counts && signo > 0 && signo < 32) app->app_signal_counts[signo][1]++;
  if (app->app_signal_hook) app->app_signal_hook(signo);
  const task_signal_entry *e = signal_table;
  while (e->ts_signo && e->ts_signo != signo) e++;
  if (!e->ts_signo || signo > 31) {
    logging_event(LOG_WARNING, "ZTASK_SIGNAL_UNKNOWN", "ZTASK_SIGNAL_UNKNOWN: Ignoring unknown signal SIG%s (%d)",
                  sigabbrev_np(signo) ? sigabbrev_np(signo) : "?", signo);
  } else {
    switch (signo) {
      case SIGTERM:
        if (app->app_milestone) app->app_milestone("SIGTERM received");
        TASK_TRACE(nullptr, TR_TASK, "%s: Received SIGTERM", task_daemon_name());
        if (app->app_quit_flag && *app->app_quit_flag && !app->app_is_master) __task_quit__(0);
        task_terminate();
        break;
      case SIGUSR1:
        if (!app->app_ignore_usr1) trace_toggle();
        break;
      case SIGHUP:
        TASK_TRACE(nullptr, TR_TASK, "%s: Received SIGHUP", task_daemon_name());
        if (task_state & TASKS_NORECONFIG)
          logging_event(LOG_NOTICE, "ZTASK_TASK_NOREINIT", "ZTASK_TASK_NOREINIT: Reinitialization not possible");
        break;
      case SIGVTALRM:
        if (app->app_vtalrm) app->app_vtalrm(1);
        break;
      case SIGCHLD:
        reap_children();
        break;
      default:
        break;  // counted only
    }
  }
  task_sched_stat(SCHED_STAT_SIGNALS);
}

void task_terminate(void) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  task_base_var *bp = task_var_base(nullptr);
  uint32_t n = bp->taskbase_term_count;
  logging_event(LOG_NOTICE, "ZTASK_SIGNAL_TERMINATE", "ZTASK_SIGNAL_TERMINATE: %s termination signal received",
                term_words[n < 6 ? n : 5]);
  if (getpid() != start_pid) exit(0);
  task *head = task_get_head();
  if (n == 0) {
    for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
      if ((tp->task_flags & TASK_FLAG_DELETE) || !tp->task_pre_terminate) continue;
      syslog(LOG_WARNING, "task_pre_terminate_method in %s", task_name(tp));
      TASK_TRACE(tp, TR_TASK, "task_terminate: pre-terminating task %s", task_name(tp));
      task_set_current(tp);
      tp->task_pre_terminate(tp);
      task_set_current(nullptr);
    }
  }
  if (!app->app_needs_terminate_wait) __task_quit__(0);
  bp->taskbase_term_count = ++n;
  if (n > app->app_term_limit) __task_quit__(0);
  task_newstate(TASKS_TERMINATE | TASKS_NORECONFIG | (app->app_term_mode == 1 ? uint32_t{TASKS_TERMINATE_REQUEST} : 0u), 0);
  if (app->app_milestone) app->app_milestone("Task termination started");
  for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
    if ((tp->task_flags & TASK_FLAG_DELETE) || !tp->task_terminate) continue;
    TASK_TRACE(tp, TR_TASK, "task_terminate: terminating task %s", task_name(tp));
    task_set_current(tp);
    tp->task_terminate(tp);
    task_set_current(nullptr);
  }
  if (app->app_milestone) app->app_milestone("Task termination ended");
  TASK_TRACE(nullptr, TR_TASK, "task_terminate: Exiting and waiting for completion");
}
