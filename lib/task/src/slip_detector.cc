// The slip detector's timer, its signal handler and the dumping fork.
#include "task/slip.h"

#include <signal.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "evlog/evlog.h"
#include "task/evq.h"
#include "task/task.h"
#include "live_core.h"

namespace {

task_slip_detector sd = {4, 5, 5, TASK_SLIP_TIMER_REAL, 1, 1, 0, 0, 0, 0, 0, 0};
struct sigaction previous_action;
bool previous_installed;
bool was_signalfd_signal;

int slip_signal() { return sd.sd_which == TASK_SLIP_TIMER_VIRTUAL ? SIGVTALRM : SIGALRM; }
int slip_timer() { return sd.sd_which == TASK_SLIP_TIMER_VIRTUAL ? ITIMER_VIRTUAL : ITIMER_REAL; }

bool set_timer(uint32_t seconds) {
  itimerval v{};
  v.it_value.tv_sec = seconds;
  return setitimer(slip_timer(), &v, nullptr) == 0;
}

void on_slip_signal(int) {
  int saved = errno;
  task_slip_detector_fire();
  errno = saved;
}

}  // namespace

extern "C" {

void task_slip_detector_config(uint32_t max_dumps, uint32_t timeout, int which, bool backoff, bool skip_config) {
  sd.sd_max_dumps = std::clamp<uint32_t>(max_dumps, 1, 10);
  sd.sd_config_timeout = sd.sd_timeout = std::clamp<uint32_t>(timeout, 4, 60);
  sd.sd_which = which == TASK_SLIP_TIMER_VIRTUAL ? TASK_SLIP_TIMER_VIRTUAL : TASK_SLIP_TIMER_REAL;
  sd.sd_backoff = backoff;
  sd.sd_skip_config = skip_config;
}

void task_slip_detector_start(void) {
  if (sd.sd_started) return;
  // The timer's signal must interrupt a stuck pass: out of the signalfd set
  // and unblocked for as long as the detector runs.
  // SIGVTALRM is in the kernel's signal table, read from its signalfd.
  int sig = slip_signal();
  was_signalfd_signal = sig == SIGVTALRM;
  if (was_signalfd_signal) task_evq_signal_remove(sig);
  struct sigaction sa{};
  sa.sa_handler = on_slip_signal;
  sigemptyset(&sa.sa_mask);
  sigaddset(&sa.sa_mask, SIGABRT);
  sa.sa_flags = SA_RESTART;
  if (sigaction(sig, &sa, &previous_action) < 0) {
    logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "sigaction failed in slip detector");
    return;
  }
  previous_installed = true;
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, sig);
  sigprocmask(SIG_UNBLOCK, &one, nullptr);
  sd.sd_dumps = 0;
  sd.sd_started = 1;
  sd.sd_armed = 1;
  task_slip_detector_arm();
}

void task_slip_detector_stop(void) {
  if (!sd.sd_started) return;
  task_slip_detector_disarm();
  sd.sd_armed = 0;
  sd.sd_started = 0;
  int sig = slip_signal();
  if (previous_installed && sigaction(sig, &previous_action, nullptr) < 0)
    logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "Failed to restore sigaction in slip detector");
  previous_installed = false;
  if (was_signalfd_signal) task_evq_signal_add(sig);
}

void task_slip_detector_arm(void) {
  if (!sd.sd_armed) return;
  // A pass came back: whatever back-off the last dumps added is forgotten.
  sd.sd_timeout = sd.sd_config_timeout;
  if (!set_timer(sd.sd_timeout))
    logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "Failed to arm slip detector");
}

void task_slip_detector_disarm(void) {
  if (!sd.sd_armed) return;
  if (!set_timer(0))
    logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "Failed to disarm slip detector");
}

const task_slip_detector *task_slip_detector_state(void) { return &sd; }

// Runs in the signal handler: only this record, the timer and the fork.
void task_slip_detector_fire(void) {
  if (!sd.sd_armed) return;
  if (sd.sd_skip_config && (task_state & (TASKS_RECONFIG | TASKS_PARSECONFIG))) return;
  pid_t pid = _Fork();
  if (pid == 0) task_live_core_child(nullptr);
  if (pid < 0) {
    sd.sd_fork_failures = sd.sd_fork_failures + 1;
  } else {
    sd.sd_last_child = pid;
    sd.sd_dumps = sd.sd_dumps + 1;
    if (sd.sd_timeout > sd.sd_largest_timeout) sd.sd_largest_timeout = sd.sd_timeout;
  }
  if (sd.sd_dumps < sd.sd_max_dumps) {
    if (sd.sd_backoff) sd.sd_timeout = std::min<uint32_t>(sd.sd_timeout * 2, 3600);
    set_timer(sd.sd_timeout);
  } else {
    sd.sd_armed = 0;
  }
}

}  // extern "C"
