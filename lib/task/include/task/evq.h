// The event queues under the scheduler: two readiness queues on epoll, queue 1
// registered in queue 0 (with null user data) so that the loop sleeps on
// queue 0 alone, and signals on a signalfd in queue 0. Results come back as
// kevent-shaped records (descriptor, filter, user data), so that event
// processing can be fed synthetic events in tests.
//
// One epoll registration per (queue, descriptor) carries the union of read
// and write interest; disabling the last interest deletes the registration
// (an empty mask would still report hang-ups and spin the loop). A result
// with both is split into a read event, then a write event.
//
// The wait goes through a table of operations so that tests can drive passes
// without sleeping.
#pragma once

#include <cstdint>

#include "htimer/utime.h"
#include "task/task.h"

extern "C" {

enum : int16_t {
  TASK_EVFILT_READ = -1,
  TASK_EVFILT_WRITE = -2,
  TASK_EVFILT_AIO = -3,
  TASK_EVFILT_VNODE = -4,
  TASK_EVFILT_PROC = -5,
  TASK_EVFILT_SIGNAL = -6,
  TASK_EVFILT_ACK = -10,  // route/nh acknowledgement
};
enum : uint16_t { TASK_EV_EOF = 0x8000, TASK_EV_ERROR = 0x4000 };

struct task_kevent {
  uintptr_t ident;  // descriptor, or signal number
  int16_t filter;
  uint16_t flags;
  uint32_t fflags;
  intptr_t data;    // for a signal: how many arrived
  void *udata;      // points at a tag word; null for queue 1 in queue 0
};

enum { TASK_EVQ_N_PRIO = 2, TASK_EVENTLIST_SIZE = 100 };

struct task_recv_info;
struct task_io_hook;
struct task_io_var {
  int task_eventQ[TASK_EVQ_N_PRIO];
  int task_signal_fd;
  task_kevent task_eventlist[TASK_EVENTLIST_SIZE];
  int task_eventlist_size;
  // Socket I/O (task/io.h): the shared buffers, made on first use.
  uint8_t *task_recv_buffer;
  uint32_t task_recv_buffer_size;
  uint8_t *task_send_buffer;
  uint32_t task_send_buffer_size;
  uint8_t *taskio_send_msg_ctrl_buf;
  uint32_t taskio_send_msg_ctrl_len;
  task_recv_info *task_recv_results;
  task_io_hook *task_hook_collect_list;
  struct task_job *task_hook_collect_job;
};

task_io_var *task_var_io(const task *tp);

// Creates the two queues; a failure ends the process with its errno.
void task_evq_init(void);
// The child side of a fork: closes the queues without touching registrations.
void task_evq_close_after_fork(void);

// Interest of a task's socket. Read interest is on queue 1 for a "LowPrio"
// task, on queue 0 otherwise; write interest is always on queue 1. Returns 0
// or an errno (reported through the task's kevent error hook).
int task_evq_set(task *tp, int16_t filter, bool enable);
// Drops both interests of the task's socket (before close).
void task_evq_forget(task *tp);
// Disables the event that ev reports on queue `level`, the queue it came
// from: the descriptor's registration there is deleted, whatever interests
// it carried. A task's failure goes through its kevent error hook (code 2);
// other failures are ignored (the event may never have been registered).
void task_evq_disable(int level, const task_kevent *ev);
// Read interest of an I/O hook's descriptor, on queue 0.
int task_evq_hook_set(task_io_hook *hp, bool enable);

// Signals delivered as events (blocked, read from the signalfd).
void task_evq_signal_add(int signo);
void task_evq_signal_remove(int signo);

// Waits on queue `level` for at most *timeout (null: forever, zero: poll) and
// fills up to max records. Returns the count, or -1 with errno.
struct task_evq_ops {
  int (*wait)(int level, task_kevent *out, int max, const task_utime *timeout);
};
extern task_evq_ops task_evq;
extern const task_evq_ops task_evq_default;

// Runs the results of a wait: reads, writes, signals; then queue 1's events
// when queue 0 reported it ready.
void task_process_events_internal(struct task_sched_stats *stats, task_io_var *io, int count);

// The filter's name in messages.
const char *task_evfilt_name(int filter);

// The handler of EVFILT_SIGNAL: the signal table's action for signo.
void task_signal_event(int signo);

}  // extern "C"
