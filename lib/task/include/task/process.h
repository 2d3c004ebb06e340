// The process around the task kernel: detaching, the PID lock, signals as
// events of a pass, the steps of termination on SIGTERM, and children.
//
// Signals of the signal table are blocked and read from the signalfd of
// queue 0, so their actions run between callbacks, never asynchronously:
//   SIGTERM termination (task_terminate)   SIGHUP  reconfiguration
//   SIGUSR1 trace toggle                   SIGUSR2 profiling flag
//   SIGURG  the low-memory pass            SIGCHLD task_child
//   SIGWINCH, SIGVTALRM, SIGINT, SIGIO     as docs/task.md says
//
// A child made by task_fork starts with the signal mask empty and default
// dispositions (SIGTERM ends it with _exit(0)), its inherited descriptors
// marked close-on-exec closed, runs the task's task_process and quits.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "task/task.h"

extern "C" {

// ---- Start ---------------------------------------------------------------------------
// Detaches unless "NoDetach"; forks into the background unless "Foreground".
void task_daemonize(task_app_ctx_t *ctx);
// The PID file: opened, locked, truncated and written. -1 after logging
// ZTASK_LOCK_LOCKED (the running pid), ZTASK_LOCK_FLOCKED or ZTASK_LOCK_OPEN.
int task_lockfile_open(const char *path);
int task_lockfile_writepid(int fd);
void task_lockfile_close(int fd, const char *path);
// The PID file the daemon holds ("" before the lock), and its descriptor.
const char *task_lockfile_path(void);
// "/var/run/<program>.version".
int task_version_file_write(void);
// -p: SIGTERM up to 4 times, then SIGKILL, 3 seconds of the cached clock
// apart, until the process is gone. Returns 0, or -1 if it stays.
int task_replace_predecessor(pid_t pid);
// How a wait of -p or -G passes its time; the default sleeps a little.
extern void (*task_daemon_nap)(void);
// 'D' or 'C' while -Gd or -Gc holds the start (at most 30 seconds); a
// debugger sets it to 0 to let the start go on.
extern volatile int task_debugger_hold;

// ---- Signals -----------------------------------------------------------------------------
typedef void (*task_signal_handler)(int signo);
void task_signal_block(int signo);
void task_signal_unblock(int signo);
// Takes signo out of the queue's mask and unblocks it; it is sent again
// with kill when the event still arrives.
void task_signal_disable(int signo);
// Puts it back, with handler replacing the table's action (null: the table's).
void task_signal_enable(int signo, task_signal_handler handler);
// SIG_IGN for signo; a failure logs ZTASK_TASK_SIGNALIGNORE and quits.
void task_signal_ignore(int signo);
// The count of signo handled so far.
uint32_t task_signal_count(int signo);

// ---- Termination ------------------------------------------------------------------------------
// One step per SIGTERM (see docs/task.md).
void task_terminate(void);
enum : uint32_t { TASK_TERMINATE_GUARD_SECONDS = 600, TASK_TERMINATE_REPEATS = 4 };

// ---- Low memory ------------------------------------------------------------------------------
// A task's low-memory method, run in rising priority by SIGURG.
void task_set_lowmem(task *tp, task_method method, uint32_t priority);
void task_lowmem_pass(void);

// ---- Children ------------------------------------------------------------------------------
// Forks for tp: the child runs child_method (kept as task_process) and quits;
// in the parent tp gets exit_method as its task_child, a default terminate
// method becomes "SIGTERM the child, delete the task", and tp is created.
// Returns the child's pid, or -1 (ZTASK_TASK_FORK logged, tp deleted).
pid_t task_fork(task *tp, task_method child_method, task_method exit_method);
void task_fork_close_fds(void);
// Reaps every child that changed state (SIGCHLD).
void task_child(void);
// True in a child made by task_fork.
bool task_is_forked(void);
// Re-executes path with the same arguments for a 64-bit mode.
void task_switch_mode(int bits, const char *path);
void task_set_argv(int argc, char **argv);

}  // extern "C"
