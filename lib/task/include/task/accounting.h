// Accounting: how much CPU time (user and system, as getrusage reports it
// for the process) each task's callbacks use. One switch turns it on; while
// it is off every call site in the kernel costs one well-predicted branch.
//
// While on, the kernel reads the process's times around every method it
// runs: what was used since the previous reading, up to the method, is the
// kernel's own and goes to the scheduler task's record as "[overhead]"; what
// the method used goes to its task's record of that kind (task_acct[] of
// task/task.h: read, write, timer, other for jobs). A single charge of 1.5
// seconds or more logs ZTASK_SCHED_TASK_LONGRUNTIME.
//
//   task_accounting_set(true);
//   ...
//   const task_accounting &r = tp->task_acct[TASK_ACCT_READ];  // calls, user, system, longest
//
// Two optional pieces:
// - the slip dump: with task_accounting_slip_dump_set(true) every charge also
//   adds to a tree keyed "what:name" (total, longest, runs); when the slip
//   monitor sees a slipped pass, the tree is written to
//   "<log dir>/sched_slip_dump_<pid>_<slip number>.txt" and cleared, so the
//   file says what ran since the previous slip;
// - cumulative reports for a run of callbacks such as a reconfiguration:
//   task_accounting_report_start, then task_accounting_report_internal after
//   each callback (3-second limits, ZTASK_SCHED_MODULE_LONGRUNTIME and
//   ZTASK_SCHED_CUMU_LONGRUNTIME).
//
// Process times are process-wide, so is this state: the framework runs on
// one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "htimer/utime.h"
#include "task/task.h"

extern "C" {

// ---- The switch --------------------------------------------------------------------
// Read inline by the kernel's call sites; change it through task_accounting_set.
extern bool task_accounting_on;
// Turning accounting on takes a fresh reading, so the first charge covers
// only what ran after it.
void task_accounting_set(bool on);
inline bool task_accounting_enabled(void) { return task_accounting_on; }

// ---- The process's times -------------------------------------------------------------
// User and system time of the process: getrusage(RUSAGE_SELF), or the hook.
void task_process_times(task_utime *user, task_utime *sys);
typedef void (*task_rusage_hook_fn)(task_utime *user, task_utime *sys);
// Replaces the source of process times (tests); null restores getrusage.
// Takes a fresh reading from the new source.
void task_set_rusage_hook(task_rusage_hook_fn hook);

// ---- Charges -----------------------------------------------------------------------------
// The time used since the last reading goes to record as one call: calls,
// user, system, and longest (of user plus system). At 1.5 seconds or more it
// logs "ZTASK_SCHED_TASK_LONGRUNTIME: <name> ran for ... doing <what>".
void task_update_runtime(const char *name, task_accounting *record, const char *what);
// Before a method: the time since the last reading is the kernel's, charged
// as "[overhead]" to the scheduler task's record of kind (TASK_ACCT_*).
void task_accounting_overhead(int kind, const char *what);
// After a method: the charge of tp (the scheduler task for null) of kind,
// with the name made only when it is needed (a long run, the slip tree).
typedef const char *(*task_accounting_name_fn)(const void *object);
void task_accounting_charge(task *tp, int kind, const char *what, task_accounting_name_fn name, const void *object);

// ---- Cumulative reports ----------------------------------------------------------------------
enum : uint32_t { TASK_ACCT_REPORT_LIMIT_USEC = 3000000 };
struct task_accounting_cumulative {
  task_utime tac_total;      // user plus system of the runs so far
  uint32_t tac_callbacks;    // runs so far
  uint8_t tac_reported;      // ZTASK_SCHED_CUMU_LONGRUNTIME has been logged
  task_utime tac_last_user;  // reading at the end of the last run
  task_utime tac_last_sys;
};
// Zeroes the record and takes its first reading.
void task_accounting_report_start(task_accounting_cumulative *record);
// One run ended: the time since the record's last reading. A run of 3
// seconds or more logs ZTASK_SCHED_MODULE_LONGRUNTIME; the first time the
// total reaches 3 seconds, ZTASK_SCHED_CUMU_LONGRUNTIME.
void task_accounting_report_internal(task_accounting_cumulative *record, const char *name, const char *what);

// ---- The slip dump ---------------------------------------------------------------------------------
// Off by default. Turning it off clears the tree.
void task_accounting_slip_dump_set(bool on);
bool task_accounting_slip_dump_enabled(void);
// The slip monitor's record of a slip (with accounting on): with the dump on,
// writes the file and clears the tree.
void task_accounting_slip(const task_utime *elapsed, const task_utime *user, const task_utime *sys);
// The file the last slip wrote ("" before any).
const char *task_accounting_slip_dump_path(void);

// The tree, in key order (tests, diagnostics).
struct task_accounting_entry {
  const char *tae_key;  // "what:name", at most 255 bytes
  task_utime tae_total;
  task_utime tae_max;
  long tae_runs;
};
typedef void (*task_accounting_walk_fn)(const task_accounting_entry *entry, void *arg);
size_t task_accounting_tree_walk(task_accounting_walk_fn fn, void *arg);
void task_accounting_tree_clear(void);

// The switch, then every task's records that have calls.
void task_accounting_dump(FILE *fp);

}  // extern "C"
