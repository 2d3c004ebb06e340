// Running the results of a wait: reads, writes and signals, queue 0 first,
// then queue 1 when queue 0 reported it ready.
#include <algorithm>

#include "internal.h"
#include "io_internal.h"
#include "task/accounting.h"

namespace {

const char *name_of_task(const void *tp) { return task_name(static_cast<task *>(const_cast<void *>(tp))); }

task *task_of(void *udata) {
  return reinterpret_cast<task *>(static_cast<char *>(udata) - offsetof(task, task_kevent_udata));
}

void run_io(task_sched_stats *stats, task_io_var *io_var, const task_kevent &ev, int level) {
  if (!ev.udata || *static_cast<int32_t *>(ev.udata) != TASK_KEVENT_TASK) return;
  task *tp = task_of(ev.udata);
  task_verify(tp);
  task_assert(task_var_io(tp) == io_var);
  // A task deleted by an earlier entry of this list: its socket is gone.
  if ((tp->task_flags & TASK_FLAG_DELETE) || tp->task_socket < 0) return;
  bool rd = ev.filter == TASK_EVFILT_READ;
  task_method m = rd ? ((tp->task_flags & TASK_FLAG_ACCEPT) ? tp->task_accept : tp->task_recv)
                     : ((tp->task_flags & TASK_FLAG_CONNECT) ? tp->task_connect : tp->task_write);
  if (!m) {
    if (rd)
      logging_event(LOG_ERR, "ZTASK_NO_SOCKACCEPT", "ZTASK_NO_SOCKACCEPT: %s: no read/accept method for %s socket %d",
                    "task_process_events", task_name(tp), tp->task_socket);
    else
      logging_event(LOG_ERR, "ZTASK_NO_SOCKCONNECT",
                    "ZTASK_NO_SOCKCONNECT: %s: no write/connect method for %s socket %d", "task_process_events",
                    task_name(tp), tp->task_socket);
    task_evq_set(tp, ev.filter, false);
    return;
  }
  if (tp->task_flags & (rd ? TASK_FLAG_READDISABLE : TASK_FLAG_WRITEDISABLE)) return;
  TASK_TRACE(tp, TR_TASK, "%s: %s ready for %s", "task_process_events", task_name(tp), rd ? "read" : "write");
  task *saved = task_current();
  task_set_current(tp);
  int kind = rd ? TASK_ACCT_READ : TASK_ACCT_WRITE;
  if (__builtin_expect(task_accounting_on, 0)) task_accounting_overhead(kind, rd ? "read" : "write");
  m(tp);
  if (__builtin_expect(task_accounting_on, 0))
    task_accounting_charge(tp, kind, rd ? "read processing" : "write processing", name_of_task, tp);
  task_set_current(saved);
  if (rd) {
    stats->ss[level ? SCHED_STAT_READS1 : SCHED_STAT_READS0]++;
    tp->task_recv_count++;
  } else {
    stats->ss[SCHED_STAT_WRITES]++;
    tp->task_write_count++;
  }
  task_timer_hiprio_check();
}

// The completion and acknowledgement events: the task's own method, run as
// the current task, never for a task already deleted by an earlier entry.
void run_method(task *tp, task_method m) {
  if (!tp || !m || (tp->task_flags & TASK_FLAG_DELETE)) return;
  task *saved = task_current();
  task_set_current(tp);
  m(tp);
  task_set_current(saved);
  task_timer_hiprio_check();
}

void run_aio(const task_kevent &ev) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  if (!app || !app->app_aio_lookup) return;
  task *tp = app->app_aio_lookup(ev.udata);
  if (tp) run_method(tp, tp->task_aio);
}

void run_ack(const task_kevent &ev) {
  if (!ev.udata || *static_cast<int32_t *>(ev.udata) != TASK_KEVENT_TASK) return;
  task *tp = task_of(ev.udata);
  task_verify(tp);
  if (!tp->task_ack_stopped) run_method(tp, tp->task_ack);
}

}  // namespace

const char *task_evfilt_name(int filter) {
  switch (filter) {
    case TASK_EVFILT_READ: return "descriptor read";
    case TASK_EVFILT_WRITE: return "descriptor write";
    case TASK_EVFILT_AIO: return "async I/O";
    case TASK_EVFILT_VNODE: return "vnode";
    case TASK_EVFILT_PROC: return "process";
    case TASK_EVFILT_SIGNAL: return "signal";
    case TASK_EVFILT_ACK: return "route/nh acknowledgement";
    default: return "unknown";
  }
}

void task_process_events_internal(task_sched_stats *stats, task_io_var *io_var, int count) {
  int next_level = -1;
  // A method may run a nested pass, which reuses the queue's list.
  task_kevent list[TASK_EVENTLIST_SIZE];
  for (int level = 0;; level = 1) {
    std::copy(io_var->task_eventlist, io_var->task_eventlist + count, list);
    for (int i = 0; i < count; i++) {
      task_kevent &ev = list[i];
      switch (ev.filter) {
        case TASK_EVFILT_READ:
          if (!ev.udata) {
            next_level = static_cast<int>(ev.ident);
            task_assert(level < (TASK_EVQ_N_PRIO - 1) && next_level == io_var->task_eventQ[level + 1]);
            break;
          }
          if (*static_cast<int32_t *>(ev.udata) == TASK_KEVENT_IO_HOOK) {
            task_io_hook_dispatch(static_cast<task_io_hook *>(ev.udata));
            break;
          }
          run_io(stats, io_var, ev, level);
          break;
        case TASK_EVFILT_WRITE:
          run_io(stats, io_var, ev, level);
          break;
        case TASK_EVFILT_SIGNAL:
          task_signal_event(static_cast<int>(ev.ident));
          task_timer_hiprio_check();
          break;
        case TASK_EVFILT_AIO:
          run_aio(ev);
          break;
        case TASK_EVFILT_ACK:
          run_ack(ev);
          break;
        default:
          logging_event(LOG_ERR, "ZTASK_UNKNOWN_EVENT", "ZTASK_UNKNOWN_EVENT: %s event ignored -- disabling",
                        task_evfilt_name(ev.filter));
          task_evq_disable(level, &ev);
          break;
      }
    }
    if (level == 1 || next_level < 0) return;
    task_utime zero{0, 0};
    count = task_evq.wait(1, io_var->task_eventlist, io_var->task_eventlist_size, &zero);
    if (count <= 0) return;
  }
}
