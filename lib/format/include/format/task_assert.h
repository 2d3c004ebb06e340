// task_assert: the framework's assertion. A failed invariant writes one line,
//   ZTASK_ASSERT: Assertion failed PROGRAM[PID]: file "FILE", line N: "EXPR"
// to the event log and to standard error, and ends the process through
// __task_quit__(22).
//
// It lives here until the task kernel exists; the kernel takes the macro and
// task_assert_fail over, and defines the strong __task_quit__ (the one here
// is weak and only exits with the status).
#pragma once

extern "C" {
[[noreturn]] void task_assert_fail(const char *file, int line, const char *text);
[[noreturn]] void __task_quit__(int status);
}

#ifndef task_assert
#define task_assert(expr) \
  (__builtin_expect(!!(expr), 1) ? (void)0 : task_assert_fail(__FILE_NAME__, __LINE__, #expr))
#endif
