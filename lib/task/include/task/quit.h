// How the task kernel ends a process. Every fatal path ends in __task_quit__,
// which writes one line and exits:
//   status 0 or 129   ZTASK_EXIT   (notice), then exit(status)
//   status 28         ZTASK_TERMINATE_DISK_SPACE with a backtrace, then exit
//   any other         ZTASK_ABORT  (error), then abort() for a core
// task_assert refreshes the cached time and logs ZTASK_ASSERT before
// __task_quit__(22). The kernel owns both; the format library's minimal
// assertion (format/task_assert.h) is the line writer behind them.
#pragma once

#define task_assert(expr) \
  (__builtin_expect(!!(expr), 1) ? (void)0 : task_assert_internal(__FILE_NAME__, __LINE__, #expr))

#include "format/task_assert.h"

extern "C" {
// The failure path of task_assert.
[[noreturn]] void task_assert_internal(const char *file, int line, const char *expression);
// The status __task_quit__ was entered with, or -1 (for tests of the exit hook).
int task_quit_status(void);
}
