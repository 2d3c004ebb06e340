// Children: task_fork and its child's start, reaping on SIGCHLD, and the
// re-execution of task_switch_mode.
#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "task/accounting.h"
#include "task/process.h"

namespace {

pid_t start_pid;
bool forked;
char pid_text[12];  // its six-digit text form
int saved_argc;
char **saved_argv;

const char *name_of_task(const void *tp) { return task_name(static_cast<task *>(const_cast<void *>(tp))); }

void kill_child(task *tp) {
  if (tp->task_pid > 0) kill(tp->task_pid, SIGTERM);
  task_delete(tp);
}

[[noreturn]] void child_sigterm(int) { _exit(0); }

// A child starts from a clean signal state: nothing blocked, default actions,
// and SIGTERM ends it at once (it has no loop of its own to read it).
void child_signals(void) {
  for (int s = 1; s < NSIG; s++) {
    if (s == SIGKILL || s == SIGSTOP) continue;
    signal(s, SIG_DFL);
  }
  signal(SIGTERM, child_sigterm);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

void task_process_ids_init(void) {
  start_pid = getpid();
  forked = false;
}

bool task_is_forked(void) { return forked || (start_pid && getpid() != start_pid); }

void task_set_argv(int argc, char **argv) {
  saved_argc = argc;
  saved_argv = argv;
}

void task_fork_close_fds(void) {
  // /proc/self/fd lists what is open; a loop to the limit can take long at a large one.
  DIR *d = opendir("/proc/self/fd");
  if (!d) return;
  int skip = dirfd(d);
  int fds[1024];
  size_t n = 0;
  while (dirent *de = readdir(d)) {
    if (de->d_name[0] < '0' || de->d_name[0] > '9') continue;
    int fd = atoi(de->d_name);
    if (fd == skip) continue;
    if (n < std::size(fds)) fds[n++] = fd;
  }
  closedir(d);
  for (size_t i = 0; i < n; i++) {
    int flags = fcntl(fds[i], F_GETFD);
    if (flags < 0) {
      TASK_TRACE(nullptr, TR_TASK, "%s: unable to get F_GETFD on %d because %m.", "task_fork_close_fds", fds[i]);
      continue;
    }
    if (!(flags & FD_CLOEXEC)) continue;
    TASK_TRACE(nullptr, TR_TASK, "%s: closing FD %d because of FD_CLOEXEC flag.", "task_fork_close_fds", fds[i]);
    close(fds[i]);
  }
}

pid_t task_fork(task *tp, task_method child_method, task_method exit_method) {
  tp->task_process = child_method;
  tp->task_child = exit_method;
  task_name_reset(tp);
  fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    logging_event(LOG_ERR, "ZTASK_TASK_FORK", "ZTASK_TASK_FORK: Unable to fork %s: %m", task_name(tp));
    task_delete(tp);
    return -1;
  }
  if (pid > 0) {
    tp->task_pid = pid;
    if (tp->task_terminate == task_delete) tp->task_terminate = kill_child;
    task_create(tp);
    return pid;
  }
  forked = true;
  child_signals();
  task_evq_close_after_fork();
  tp->task_pid = getpid();
  snprintf(pid_text, sizeof pid_text, "%d", static_cast<int>(tp->task_pid % 1000000));
  task_fork_close_fds();
  if (tp->task_process) {
    task_set_current(tp);
    if (task_accounting_on) task_accounting_overhead(TASK_ACCT_OTHER, "process");
    tp->task_process(tp);
    if (task_accounting_on) task_accounting_charge(tp, TASK_ACCT_OTHER, "process", name_of_task, tp);
  }
  __task_quit__(0);
}

void task_child(void) {
  for (;;) {
    int status;
    pid_t pid = waitpid(-1, &status, WNOHANG | WUNTRACED);
    if (pid < 0) {
      if (errno == EINTR) continue;
      if (errno != ECHILD) TASK_TRACE(nullptr, TR_TASK, "task_child: waitpid() error: %m");
      return;
    }
    if (pid == 0) return;
    task *head = task_get_head();
    task *tp = head->task_forw;
    for (; tp != head; tp = tp->task_forw)
      if (tp->task_pid == pid && !(tp->task_flags & TASK_FLAG_DELETE)) break;
    if (tp == head) continue;  // not a task's child
    const char *name = task_name(tp);
    if (WIFSTOPPED(status)) {
      logging_event(LOG_NOTICE, "ZTASK_TASK_CHILDSTOPPED", "ZTASK_TASK_CHILDSTOPPED: %s stopped by SIG%s", name,
                    sigabbrev_np(WSTOPSIG(status)) ? sigabbrev_np(WSTOPSIG(status)) : "?");
    } else if (WIFSIGNALED(status)) {
      logging_event(LOG_ERR, "ZTASK_TASK_CHILDKILLED", "ZTASK_TASK_CHILDKILLED: %s terminated by SIG%s%s", name,
                    sigabbrev_np(WTERMSIG(status)) ? sigabbrev_np(WTERMSIG(status)) : "?",
                    WCOREDUMP(status) ? " (core dumped)" : "");
    } else if (WEXITSTATUS(status) == 0) {
      TASK_TRACE(tp, TR_TASK, "task_child: %s terminated normally", name);
    } else {
      TASK_TRACE(tp, TR_TASK, "task_child: %s terminated abnormally with retcode %d", name, WEXITSTATUS(status));
    }
    if (tp->task_child) {
      task_set_current(tp);
      if (task_accounting_on) task_accounting_overhead(TASK_ACCT_OTHER, "child");
      tp->task_child(tp);
      if (task_accounting_on) task_accounting_charge(tp, TASK_ACCT_OTHER, "child", name_of_task, tp);
      task_set_current(nullptr);
    }
  }
}

void task_switch_mode(int bits, const char *path) {
  if (bits == 32 || !path || access(path, X_OK) != 0 || !saved_argv) return;
  close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
  task_app_ctx_t *app = task_get_task_app_ctx();
  if (app->app_switch_mode && !app->app_has_no_config) app->app_switch_mode();
  logging_event(LOG_NOTICE, "ZTASK_MODE_SWITCH", "ZTASK_MODE_SWITCH: Switching to %d-bit mode", 64);
  execv(path, saved_argv);
  char why[600];
  snprintf(why, sizeof why, "exec(\"%s\"): %s", path, strerror(errno));
  logging_event(LOG_ERR, "ZTASK_MODE_SWITCH_FAIL", "ZTASK_MODE_SWITCH_FAIL: Mode switch failed: %s", why);
  __task_quit__(0);
}
