// Soft assertions: counted, logged, a rate-limited live core, and on we go.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "internal.h"
#include "live_core.h"
#include "task/process.h"
#include "platform/path.h"

namespace {

bool soft_mode = true;
bool cores_disabled;
uint32_t soft_count;
bool core_taken;
task_utime last_core;
pid_t last_core_child;

// The gcore task goes once its child has been reaped.
void gcore_done(task *tp) { task_delete(tp); }

// The child of a process-form core: the helper with the signal state of a
// fresh program, or the aborting child when the helper cannot be run.
[[noreturn]] void getcore_child(const char *helper, char *const argv[], const char *run_dir) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int s : {SIGPIPE, SIGTTOU, SIGTTIN, SIGTSTP}) signal(s, SIG_DFL);
  execv(helper, argv);
  task_live_core_child(run_dir);
}

// What the child of a live core needs, set before the fork.
std::string core_helper, core_run_dir;
char core_file[512], core_pid_text[16];
bool core_use_helper;

[[noreturn]] void live_core_child(void) {
  char *argv[] = {const_cast<char *>("getcore"), core_file, core_pid_text, nullptr};
  if (core_use_helper) getcore_child(core_helper.c_str(), argv, core_run_dir.c_str());
  task_live_core_child(core_run_dir.c_str());
}

void take_live_core(bool process) {
  core_run_dir = path_solvane_run_dir();
  core_helper = tvx_path("/usr/sbin/getcore");
  core_use_helper = process && access(core_helper.c_str(), X_OK) == 0;
  snprintf(core_file, sizeof core_file, "%s/%s.live.core", path_solvane_live_dump(), task_daemon_name());
  snprintf(core_pid_text, sizeof core_pid_text, "%d", static_cast<int>(getpid()));
  // With the kernel up the child is a task's, so that SIGCHLD reaps it.
  if (task_var_main_context.tvcfull_initialized) {
    task *tp = task_alloc("gcore", 10, nullptr);
    pid_t pid = task_fork(tp, [](task *) { live_core_child(); }, gcore_done);
    if (pid > 0) last_core_child = pid;
    return;
  }
  pid_t pid = _Fork();
  if (pid == 0) live_core_child();
  if (pid < 0) {
    logging_event(LOG_ERR, "ZTASK_TASK_FORK", "ZTASK_TASK_FORK: Unable to fork %s: %m", "gcore");
    return;
  }
  last_core_child = pid;
}

}  // namespace

void task_assert_soft_internal(const char *file, int line, const char *expression, bool process) {
  if (!soft_mode) task_assert_internal(file, line, expression);
  soft_count++;
  logging_event(LOG_ERR, "ZTASK_ASSERT_SOFT",
                "ZTASK_ASSERT_SOFT: Soft assertion failed %s[%d], Index %u(mod %u): file \"%s\", line %d: \"%s\", "
                "daemon continued running",
                task_daemon_name(), static_cast<int>(getpid()), soft_count % 256, 256u, file, line, expression);
  if (cores_disabled) return;
  task_time_update();
  if (core_taken && task_utime_lt(task_now, task_utime_add(last_core, task_utime{TASK_ASSERT_SOFT_CORE_PERIOD, 0})))
    return;
  core_taken = true;
  last_core = task_now;
  take_live_core(process);
}

void task_assert_soft_mode_set(bool on) { soft_mode = on; }
bool task_assert_soft_mode(void) { return soft_mode; }
void task_assert_soft_cores_disable(bool disable) { cores_disabled = disable; }
uint32_t task_assert_soft_count(void) { return soft_count; }
pid_t task_assert_soft_last_core(void) { return last_core_child; }
