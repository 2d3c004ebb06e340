// Signals as events of a pass: the signal table and its actions, and the
// termination steps a daemon takes on SIGTERM.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "platform/sysctl.h"
#include "task/accounting.h"
#include "task/lifecycle.h"
#include "task/process.h"

namespace {

struct task_signal_entry {
  int ts_signo;
  int ts_reserved;
  const char *ts_desc;
  task_signal_handler ts_handler;  // null: the table's action
  void *ts_installed;
  bool ts_resend;                  // disabled: an event that still comes is sent again
};

// Every signal here is blocked and read from the signalfd of queue 0.
task_signal_entry signal_table[] = {
    {SIGIO, 0, "socket I/O", nullptr, nullptr, false},
    {SIGTERM, 0, "Terminate", nullptr, nullptr, false},
    {SIGURG, 0, "Low Memory", nullptr, nullptr, false},
    {SIGUSR1, 0, "Toggle Tracing", nullptr, nullptr, false},
    {SIGINT, 0, "Status Dump", nullptr, nullptr, false},
    {SIGHUP, 0, "Reconfigure", nullptr, nullptr, false},
    {SIGUSR2, 0, "gprof on/off", nullptr, nullptr, false},
    {SIGVTALRM, 0, "Virtual Alarm", nullptr, nullptr, false},
    {SIGWINCH, 0, "dump gcov data", nullptr, nullptr, false},
    {SIGCHLD, 0, "Reap Children", nullptr, nullptr, false},
    {0, 0, nullptr, nullptr, nullptr, false},
};

uint32_t signal_counts[32];
bool profiling;

const char *const term_words[] = {"first", "second", "third", "fourth", "fifth", "sixth"};

task_signal_entry *entry_of(int signo) {
  for (task_signal_entry *e = signal_table; e->ts_signo; e++)
    if (e->ts_signo == signo) return e;
  return nullptr;
}

const char *sig_name(int signo) {
  const char *n = sigabbrev_np(signo);
  return n ? n : "?";
}

bool rebooting(void) {
  int v = 0;
  size_t len = sizeof v;
  return sysctlbyname("hw.re.tvx_rebooting", &v, &len, nullptr, 0) == 0 && v != 0;
}

// Names of the live tasks, ", " between them, in at most 128 bytes.
void active_list(char *out, size_t len) {
  out[0] = '\0';
  size_t used = 0;
  task *head = task_get_head();
  for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
    if (tp->task_flags & TASK_FLAG_DELETE) continue;
    int n = snprintf(out + used, len - used, "%s%s", used ? ", " : "", task_name(tp));
    if (n < 0 || used + n >= len) break;
    used += n;
  }
}

void exit_with_active(void) {
  if (task_count() == 0) return;
  char names[128];
  active_list(names, sizeof names);
  logging_event(LOG_NOTICE, "ZTASK_ACTIVE_TERMINATE", "ZTASK_ACTIVE_TERMINATE: Exiting with active tasks: %s", names);
}

void terminate_guard(task_timer *, uint32_t) {
  task_var_base(nullptr)->taskbase_term_timer = nullptr;
  bool active = task_count() != 0;
  exit_with_active();
  __task_quit__(active ? 16 : 0);
}

const char *name_of_task(const void *tp) { return task_name(static_cast<task *>(const_cast<void *>(tp))); }

// A task method with accounting of kind "other" under what.
void run_method(task *tp, task_method m, const char *what) {
  task_set_current(tp);
  if (task_accounting_on) task_accounting_overhead(TASK_ACCT_OTHER, what);
  m(tp);
  if (task_accounting_on) task_accounting_charge(tp, TASK_ACCT_OTHER, what, name_of_task, tp);
  task_set_current(nullptr);
}

void on_sighup(task_app_ctx_t *app) {
  task_milestone("SIGHUP received");
  TASK_TRACE(nullptr, TR_TASK, "%s: Received SIGHUP", task_daemon_name());
  if (app->app_signal_counts)
    logging_event(LOG_INFO, "ZTASK_SIGNAL_INFO", "ZTASK_SIGNAL_INFO: %s %d %s %d",
                  "INFO Signal Info: Signal Number = ", SIGHUP, " Consumed Count = ",
                  static_cast<int>(app->app_signal_counts[SIGHUP][1]));
  if (task_state & TASKS_NORECONFIG) {
    logging_event(LOG_NOTICE, "ZTASK_TASK_NOREINIT", "ZTASK_TASK_NOREINIT: Reinitialization not possible");
    return;
  }
  if (!(task_state & TASKS_PARSECONFIG)) {
    if (app->task_reconfigure) app->task_reconfigure(app, nullptr);
  } else if (app->app_hup_deferred) {
    task_newstate(TASKS_HUP_PENDING, 0);
  }
}

void on_sigterm(task_app_ctx_t *app) {
  task_milestone("SIGTERM received");
  TASK_TRACE(nullptr, TR_TASK, "%s: Received SIGTERM", task_daemon_name());
  if (app->app_needs_terminate_wait) task_var_base(nullptr)->taskbase_rebooting = rebooting();
  if (app->app_quit_flag && *app->app_quit_flag && !app->app_is_master) __task_quit__(0);
  task_terminate();
}

}  // namespace

void task_signal_init(void) {
  for (int s : {SIGPIPE, SIGTTOU, SIGTTIN, SIGTSTP}) {
    struct sigaction sa{};
    sa.sa_handler = SIG_IGN;
    if (sigaction(s, &sa, nullptr) < 0) {
      int err = errno;
      logging_event(LOG_ERR, "ZTASK_TASK_SIGNALINIT", "ZTASK_TASK_SIGNALINIT: sigaction(SIG%s): %m", sig_name(s));
      __task_quit__(err);
    }
  }
  // Dispositions of the table's signals stay default: an ignored signal
  // would be dropped before the signalfd could read it.
  for (task_signal_entry *e = signal_table; e->ts_signo; e++) task_evq_signal_add(e->ts_signo);
}

void task_signal_event(int signo) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  if (app->app_signal_counts && signo > 0 && signo < 32) app->app_signal_counts[signo][1]++;
  if (signo > 0 && signo < 32) signal_counts[signo]++;
  if (app->app_signal_hook) app->app_signal_hook(signo);
  task_signal_entry *e = signo > 31 ? nullptr : entry_of(signo);
  if (!e) {
    logging_event(LOG_WARNING, "ZTASK_SIGNAL_UNKNOWN", "ZTASK_SIGNAL_UNKNOWN: Ignoring unknown signal SIG%s (%d)",
                  sig_name(signo), signo);
  } else if (e->ts_resend) {
    kill(getpid(), signo);
  } else if (e->ts_handler) {
    e->ts_handler(signo);
  } else {
    switch (signo) {
      case SIGTERM:
        on_sigterm(app);
        break;
      case SIGUSR1:
        if (!app->app_ignore_usr1) trace_toggle();
        break;
      case SIGUSR2:
        profiling = !profiling;
        TASK_TRACE(nullptr, TR_TASK, "%s: profiling %s", task_daemon_name(), profiling ? "on" : "off");
        break;
      case SIGHUP:
        on_sighup(app);
        break;
      case SIGURG:
        task_lowmem_pass();
        break;
      case SIGVTALRM:
        if (app->app_vtalrm) app->app_vtalrm(1);
        break;
      case SIGWINCH:
        fputs("Coverage analysis has not been enabled.\n", stdout);
        fflush(stdout);
        break;
      case SIGCHLD:
        task_child();
        break;
      default:
        break;  // counted only
    }
  }
  task_sched_stat(SCHED_STAT_SIGNALS);
}

uint32_t task_signal_count(int signo) { return signo > 0 && signo < 32 ? signal_counts[signo] : 0; }

void task_signal_block(int signo) {
  sigset_t s;
  sigemptyset(&s);
  sigaddset(&s, signo);
  sigprocmask(SIG_BLOCK, &s, nullptr);
}

void task_signal_unblock(int signo) {
  sigset_t s;
  sigemptyset(&s);
  sigaddset(&s, signo);
  sigprocmask(SIG_UNBLOCK, &s, nullptr);
}

void task_signal_disable(int signo) {
  task_signal_entry *e = entry_of(signo);
  if (!e) return;
  e->ts_resend = true;
  task_evq_signal_remove(signo);
}

void task_signal_enable(int signo, task_signal_handler handler) {
  task_signal_entry *e = entry_of(signo);
  if (!e) return;
  e->ts_handler = handler;
  e->ts_resend = false;
  task_evq_signal_add(signo);
}

void task_signal_ignore(int signo) {
  struct sigaction sa{};
  sa.sa_handler = SIG_IGN;
  if (sigaction(signo, &sa, nullptr) < 0) {
    int err = errno;
    logging_event(LOG_ERR, "ZTASK_TASK_SIGNALIGNORE", "ZTASK_TASK_SIGNALIGNORE: sigaction(SIG%s): %m", sig_name(signo));
    __task_quit__(err);
  }
}

// ---- Termination -----------------------------------------------------------------------

void task_terminate(void) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  task_base_var *bp = task_var_base(nullptr);
  uint32_t n = bp->taskbase_term_count;
  logging_event(LOG_NOTICE, "ZTASK_SIGNAL_TERMINATE", "ZTASK_SIGNAL_TERMINATE: %s termination signal received",
                term_words[n < 6 ? n : 5]);
  if (task_is_forked()) exit(0);
  // One engine, always master: only the rebooting flag takes the quick way.
  if (bp->taskbase_rebooting) __task_quit__(0);
  task *head = task_get_head();
  if (n == 0) {
    bp->taskbase_term_remaining = app->app_term_remaining ? app->app_term_remaining() : 0;
    bp->taskbase_term_repeats = 0;
    TASK_TRACE(nullptr, TR_TASK, "no. of entries to be cleared = %d", static_cast<int>(bp->taskbase_term_remaining));
    for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
      if ((tp->task_flags & TASK_FLAG_DELETE) || !tp->task_pre_terminate) continue;
      syslog(LOG_WARNING, "task_pre_terminate_method in %s", task_name(tp));
      TASK_TRACE(tp, TR_TASK, "task_terminate: pre-terminating task %s", task_name(tp));
      run_method(tp, tp->task_pre_terminate, "pre-terminate");
    }
    if (!bp->taskbase_term_timer)
      bp->taskbase_term_timer = task_timer_create(task_scheduler_task(), "Task Terminate", TIMERF_DELETE, 0,
                                                  TASK_TERMINATE_GUARD_SECONDS, 0, terminate_guard, nullptr);
  } else {
    uint32_t left = app->app_term_remaining ? app->app_term_remaining() : 0;
    if (left == bp->taskbase_term_remaining) {
      if (++bp->taskbase_term_repeats >= TASK_TERMINATE_REPEATS) {
        TASK_TRACE(nullptr, TR_TASK, "Quitting with  no. of entries remaining = %d", static_cast<int>(left));
        exit_with_active();
        __task_quit__(0);
      }
    } else {
      bp->taskbase_term_remaining = left;
      bp->taskbase_term_repeats = 0;
      TASK_TRACE(nullptr, TR_TASK, "No. of entries remaining = %d", static_cast<int>(left));
    }
  }
  if (!app->app_needs_terminate_wait) __task_quit__(0);
  if (!(task_state & TASKS_TERMINATE_REQUEST) && app->app_term_veto && app->app_term_veto() == 1) __task_quit__(0);
  bp->taskbase_term_count = ++n;
  if (n > app->app_term_limit) {
    exit_with_active();
    __task_quit__(0);
  }
  task_newstate(TASKS_TERMINATE | TASKS_NORECONFIG | (app->app_term_mode == 1 ? uint32_t{TASKS_TERMINATE_REQUEST} : 0u),
                0);
  task_milestone("Task termination started");
  for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
    if ((tp->task_flags & TASK_FLAG_DELETE) || !tp->task_terminate) continue;
    TASK_TRACE(tp, TR_TASK, "task_terminate: terminating task %s", task_name(tp));
    run_method(tp, tp->task_terminate, "terminate");
  }
  task_milestone("Task termination ended");
  TASK_TRACE(nullptr, TR_TASK, "task_terminate: Exiting and waiting for completion");
}

// ---- Low memory ---------------------------------------------------------------------------------

namespace {
int task_lowmem_sort(const hbt_node *a, const hbt_node *b) {
  const task *x = HBT_ENTRY(a, task, task_lowmem_thread), *y = HBT_ENTRY(b, task, task_lowmem_thread);
  if (x->task_lowmem_priority != y->task_lowmem_priority)
    return x->task_lowmem_priority < y->task_lowmem_priority ? -1 : 1;
  return x < y ? -1 : x > y ? 1 : 0;
}
}  // namespace

void task_set_lowmem(task *tp, task_method method, uint32_t priority) {
  if (!tp) return;
  task_base_var *bp = task_var_base(tp);
  if (hbt_node_linked(&tp->task_lowmem_thread)) hbt_delete(&bp->task_lowmem_list, &tp->task_lowmem_thread);
  tp->task_lowmem = method;
  tp->task_lowmem_priority = priority;
  if (method) task_assert(hbt_insert(&bp->task_lowmem_list, &tp->task_lowmem_thread, task_lowmem_sort));
}

void task_lowmem_forget(task *tp) {
  if (hbt_node_linked(&tp->task_lowmem_thread)) hbt_delete(&task_var_base(tp)->task_lowmem_list, &tp->task_lowmem_thread);
}

void task_lowmem_pass(void) {
  task_base_var *bp = task_var_base(nullptr);
  task_newstate(TASKS_LOWMEM, 0);
  hbt_node *next = hbt_iterate_next(&bp->task_lowmem_list, nullptr);
  while (next && (task_state & TASKS_LOWMEM)) {
    task *tp = HBT_ENTRY(next, task, task_lowmem_thread);
    next = hbt_iterate_next(&bp->task_lowmem_list, next);  // the method may leave the tree
    if ((tp->task_flags & TASK_FLAG_DELETE) || !tp->task_lowmem) continue;
    TASK_TRACE(tp, TR_TASK, "%s: Start lowmem method for task %s", "task_lowmem", task_name(tp));
    run_method(tp, tp->task_lowmem, "lowmem");
    TASK_TRACE(tp, TR_TASK, "%s: Finished lowmem method for task %s", "task_lowmem", task_name(tp));
  }
  task_newstate(0, TASKS_LOWMEM);
}
