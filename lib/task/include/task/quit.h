// How the task kernel ends a process. Every fatal path ends in __task_quit__,
// which writes one line and exits:
//   status 0 or 129   ZTASK_EXIT   (notice), then exit(status)
//   status 28         ZTASK_TERMINATE_DISK_SPACE with a backtrace, then exit
//   any other         ZTASK_ABORT  (error), then abort() for a core
// task_assert refreshes the cached time and logs ZTASK_ASSERT before
// __task_quit__(22). The kernel owns both; the format library's minimal
// assertion (format/task_assert.h) is the line writer behind them.
//
// Soft assertions check what a caller got wrong but the process survives:
//   if (!task_assert_soft(tp && callback)) return nullptr;
// The expression's truth is the macro's value. A failure is counted and logs
//   ZTASK_ASSERT_SOFT: Soft assertion failed PROG[PID], Index N(mod 256): ...
// (N the count so far, modulo 256), and takes a live core at most once per
// TASK_ASSERT_SOFT_CORE_PERIOD seconds: a forked task "gcore" whose child
// aborts in the run directory, or, for task_assert_soft_process, runs
// "/usr/sbin/getcore <live dump dir>/<program>.live.core <pid>" when that
// program exists. With soft mode off a soft assertion is a hard one.
#pragma once

#include <sys/types.h>

#include <cstdint>

#define task_assert(expr) \
  (__builtin_expect(!!(expr), 1) ? (void)0 : task_assert_internal(__FILE_NAME__, __LINE__, #expr))

// The same with its text written out, for the few checks whose published
// text names records laid out differently here.
#define task_assert_text(expr, text) \
  (__builtin_expect(!!(expr), 1) ? (void)0 : task_assert_internal(__FILE_NAME__, __LINE__, text))

#define task_assert_soft(expr) \
  (__builtin_expect(!!(expr), 1) ? true : (task_assert_soft_internal(__FILE_NAME__, __LINE__, #expr, false), false))
#define task_assert_soft_process(expr) \
  (__builtin_expect(!!(expr), 1) ? true : (task_assert_soft_internal(__FILE_NAME__, __LINE__, #expr, true), false))

#include "format/task_assert.h"

extern "C" {
// The failure path of task_assert.
[[noreturn]] void task_assert_internal(const char *file, int line, const char *expression);
// The status __task_quit__ was entered with, or -1 (for tests of the exit hook).
int task_quit_status(void);

// The failure path of the soft assertions; returns unless soft mode is off.
void task_assert_soft_internal(const char *file, int line, const char *expression, bool process);
// Soft mode, on by default; off makes every soft assertion a hard one.
void task_assert_soft_mode_set(bool on);
bool task_assert_soft_mode(void);
// Live cores of soft assertions, taken by default; tests switch them off.
void task_assert_soft_cores_disable(bool disable);
enum : uint32_t { TASK_ASSERT_SOFT_CORE_PERIOD = 300 };  // seconds of the cached clock
// Soft assertions failed so far.
uint32_t task_assert_soft_count(void);
// The child of the last live core (0 before any), for whoever waits for it.
pid_t task_assert_soft_last_core(void);
}
