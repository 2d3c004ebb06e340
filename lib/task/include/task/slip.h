// The slip detector: a watchdog on the scheduler's pass. While a pass runs,
// an interval timer is armed; if the pass never comes back before it fires,
// the signal handler forks and the child aborts, leaving a core of the stuck
// process while the process itself carries on. The loop disarms it around its
// wait and arms it again after. Off unless started.
//
// Values are limited on configuration: a timeout of 4 to 60 seconds (default
// 5), 1 to 10 dumps per start (default 4), the real or the virtual interval
// timer (SIGALRM or SIGVTALRM). With back-off each dump doubles the timeout;
// after the last dump the detector disarms itself. While armed, its signal
// is unblocked and outside the signalfd, so it interrupts a stuck pass.
#pragma once

#include <sys/types.h>

#include <cstdint>

extern "C" {

enum { TASK_SLIP_TIMER_REAL = 0, TASK_SLIP_TIMER_VIRTUAL = 1 };

struct task_slip_detector {
  uint32_t sd_max_dumps;
  uint32_t sd_config_timeout;  // seconds, as configured
  uint32_t sd_timeout;         // seconds, as in force (grows with back-off)
  uint8_t sd_which;            // TASK_SLIP_TIMER_*
  uint8_t sd_backoff;
  uint8_t sd_skip_config;      // no dump while "ReConfig" or "ParseConfig" is set
  uint8_t sd_started;
  volatile uint8_t sd_armed;
  volatile uint32_t sd_dumps;
  volatile uint32_t sd_fork_failures;
  volatile uint32_t sd_largest_timeout;
  volatile pid_t sd_last_child;  // the dumping child, for whoever reaps it
};

void task_slip_detector_config(uint32_t max_dumps, uint32_t timeout, int which, bool backoff, bool skip_config);
// Installs the handler (SIGABRT in its mask), zeroes the dump count, arms.
void task_slip_detector_start(void);
// Disarms and restores the signal's previous action and mask.
void task_slip_detector_stop(void);
void task_slip_detector_arm(void);
void task_slip_detector_disarm(void);
const task_slip_detector *task_slip_detector_state(void);
// The handler's work, as the signal runs it (tests call it directly).
void task_slip_detector_fire(void);

}  // extern "C"
