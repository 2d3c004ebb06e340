// Change notification: the per-kind broadcasts and the frame of one callback.
#include "ifstate/ifchange.h"

#include "ifstate/ifobj.h"
#include "ifstate/rt_instance.h"
#include "task/accounting.h"
#include "task/sched.h"
#include "trace/trace.h"

namespace {

trace_handle *g_trace;
thread_local int io_in_change;

#define IF_TRACE(fmt, ...) ZTRACE(if_trace_handle(), IF_TRACE_FLAG, fmt __VA_OPT__(, ) __VA_ARGS__)

const char *name_of_task(const void *tp) { return task_name(static_cast<task *>(const_cast<void *>(tp))); }

// Created (on the task list) and not deleted: a task that may hear changes.
bool listening(const task *tp) { return tp->task_forw && !(tp->task_flags & TASK_FLAG_DELETE); }

// The frame around one callback; call() runs it. No memory step follows the
// call: allocations are charged to the task their caller names, and the memory
// library's checks (memory-high, leak sampling) are periodic or per allocation.
template <class Call>
void frame(task *tp, const char *what, int flag, Call call) {
  io_in_change = flag;
  if (__builtin_expect(task_accounting_on, 0)) task_accounting_overhead(TASK_ACCT_OTHER, what);
  task *saved = task_current();
  task_set_current(tp);
  call();
  task_set_current(saved);
  if (__builtin_expect(task_accounting_on, 0)) task_accounting_charge(tp, TASK_ACCT_OTHER, what, name_of_task, tp);
  io_in_change = 0;
}

// Walks a list; the next task is read before the visit, which may delete
// the current one (deletion only flags it until the record is collected).
template <class Visit>
void walk(unsigned list, Visit visit) {
  for (task *tp = task_notify_list_first(list), *next; tp; tp = next) {
    next = task_notify_list_next(tp, list);
    if (listening(tp)) visit(tp);
  }
}

bool replay_refused(const task *tp, int replay) { return replay && !tp->task_ifreplay_wanted; }

void relink(task *tp, unsigned list, bool wanted) {
  if (wanted) task_notify_list_add(tp, list);
  else task_notify_list_remove(tp, list);
}

}  // namespace

void if_set_trace(trace_handle *th) { g_trace = th; }
trace_handle *if_trace_handle(void) { return g_trace ? g_trace : task_get_task_app_ctx()->app_trace; }
int task_io_in_change(void) { return io_in_change; }

// ---- Registration ---------------------------------------------------------------------
void task_set_iffreplay(task *tp, task_iffreplay_fn fn) {
  tp->task_iffreplay = fn;
  relink(tp, IF_NOTIFY_FAMILY, tp->task_iffchange || tp->task_iffreplay);
}
void task_set_ifachange(task *tp, task_ifachange_fn fn) {
  tp->task_ifachange = fn;
  relink(tp, IF_NOTIFY_ADDRESS, fn);
}
void task_set_iffchange(task *tp, task_iffchange_fn fn) {
  tp->task_iffchange = fn;
  relink(tp, IF_NOTIFY_FAMILY, tp->task_iffchange || tp->task_iffreplay);
}
void task_set_iflchange(task *tp, task_iflchange_fn fn) {
  tp->task_iflchange = fn;
  relink(tp, IF_NOTIFY_LOGICAL, tp->task_iflchange || tp->task_ifl_agg_change);
}
void task_set_ifdchange(task *tp, task_ifdchange_fn fn) {
  tp->task_ifdchange = fn;
  relink(tp, IF_NOTIFY_DEVICE, fn);
}
void task_set_iff_flag_change(task *tp, task_iff_flag_change_fn fn) {
  tp->task_iff_flag_change = fn;
  relink(tp, IF_NOTIFY_FAMILY_FLAG, fn);
}
void task_set_ifl_agg_change(task *tp, task_ifl_agg_change_fn fn) {
  tp->task_ifl_agg_change = fn;
  relink(tp, IF_NOTIFY_LOGICAL, tp->task_iflchange || tp->task_ifl_agg_change);
}
void task_set_rttchange(task *tp, task_rttchange_fn fn) { tp->task_rttchange = fn; }
void task_set_ifa_filter(task *tp, task_ifa_filter_fn fn) { tp->task_ifa_filter = fn; }
void task_set_iff_filter(task *tp, task_iff_filter_fn fn) { tp->task_iff_filter = fn; }
void task_set_ifl_filter(task *tp, task_ifl_filter_fn fn) { tp->task_ifl_filter = fn; }
void task_set_ifd_filter(task *tp, task_ifd_filter_fn fn) { tp->task_ifd_filter = fn; }
void task_set_ifreplay_wanted(task *tp, bool wanted) { tp->task_ifreplay_wanted = wanted; }

// ---- Addresses ---------------------------------------------------------------------------
void task_ifachange_single(task *tp, if_address *ifa, int flag) {
  IF_TRACE("%s: Starting ifachange of %p for task %s", "task_ifachange", static_cast<void *>(ifa), task_name(tp));
  frame(tp, "ifachange", flag, [&] { tp->task_ifachange(tp, ifa); });
  IF_TRACE("%s: Finished ifachange of %p for task %s", "task_ifachange", static_cast<void *>(ifa), task_name(tp));
}

void task_ifachange(if_address *ifa, int flag) {
  IF_TRACE("task_ifachange: broadcast of %p", static_cast<void *>(ifa));
  walk(IF_NOTIFY_ADDRESS, [&](task *tp) {
    if (!tp->task_ifachange || (tp->task_ifa_filter && !tp->task_ifa_filter(tp, ifa))) return;
    task_ifachange_single(tp, ifa, flag);
  });
}

// ---- Devices ---------------------------------------------------------------------------------
void task_ifdchange_single(task *tp, if_device *ifd, void *arg, uint32_t extra, int flag) {
  IF_TRACE("%s: Starting ifdchange of %p for task %s", "task_ifdchange", static_cast<void *>(ifd), task_name(tp));
  frame(tp, "ifdchange", flag, [&] { tp->task_ifdchange(tp, ifd, arg, extra); });
  IF_TRACE("%s: Finished ifdchange of %p for task %s", "task_ifdchange", static_cast<void *>(ifd), task_name(tp));
}

void task_ifdchange(if_device *ifd, void *arg, uint32_t extra, int flag, int replay) {
  IF_TRACE("task_ifdchange: broadcast of %p%s", static_cast<void *>(ifd), replay ? " (replay)" : "");
  walk(IF_NOTIFY_DEVICE, [&](task *tp) {
    if (!tp->task_ifdchange || (tp->task_ifd_filter && !tp->task_ifd_filter(tp, ifd))) return;
    if (replay_refused(tp, replay)) return;
    task_ifdchange_single(tp, ifd, arg, extra, flag);
  });
}

// ---- Families ------------------------------------------------------------------------------
void task_iffchange_single(task *tp, if_family *iff, uint32_t previous, void *arg, int number, int flag) {
  IF_TRACE("task_iffchange: Starting iffchange of %p for task %s", static_cast<void *>(iff), task_name(tp));
  frame(tp, "iffchange", flag, [&] { tp->task_iffchange(tp, iff, previous, arg, number); });
  IF_TRACE("task_iffchange: Finished iffchange of %p for task %s", static_cast<void *>(iff), task_name(tp));
}

void task_iffchange(if_family *iff, uint32_t previous, void *arg, int number, int flag, int replay) {
  IF_TRACE("task_iffchange: broadcast of %p%s", static_cast<void *>(iff), replay ? " (replay)" : "");
  walk(IF_NOTIFY_FAMILY, [&](task *tp) {
    if (!tp->task_iffchange || (tp->task_iff_filter && !tp->task_iff_filter(tp, iff))) return;
    if (replay_refused(tp, replay)) return;
    task_iffchange_single(tp, iff, previous, arg, number, flag);
  });
}

void task_iffreplay_single(task *tp, void *object, void *arg, int flag, int number) {
  if (!tp->task_iffreplay) return;
  IF_TRACE("%s: Starting iffreplay for task %s", "task_iffreplay", task_name(tp));
  frame(tp, "iffreplay", flag, [&] { tp->task_iffreplay(tp, object, arg, flag, number); });
  IF_TRACE("%s: Finished iffreplay for task %s", "task_iffreplay", task_name(tp));
}

void task_iff_flag_change(if_family *iff, uint32_t old_flags, uint32_t new_flags, void *arg) {
  walk(IF_NOTIFY_FAMILY_FLAG, [&](task *tp) {
    if (!tp->task_iff_flag_change || (tp->task_iff_filter && !tp->task_iff_filter(tp, iff))) return;
    IF_TRACE("%s: Starting iff flag change for task %s", "task_iff_flag_change", task_name(tp));
    frame(tp, "iff_flags_change", 0, [&] { tp->task_iff_flag_change(tp, iff, old_flags, new_flags, arg); });
    IF_TRACE("%s: Finished iff flag change for task %s", "task_iff_flag_change", task_name(tp));
  });
}

// ---- Logical interfaces -----------------------------------------------------------------------
void task_iflchange_single(task *tp, if_link *ifl, int flag) {
  IF_TRACE("task_iflchange: Starting iflchange of %p for task %s", static_cast<void *>(ifl), task_name(tp));
  frame(tp, "iflchange", flag, [&] { tp->task_iflchange(tp, ifl); });
  IF_TRACE("task_iflchange: Finished iflchange of %p for task %s", static_cast<void *>(ifl), task_name(tp));
}

void task_iflchange(if_link *ifl, int flag, int replay) {
  IF_TRACE("task_iflchange: broadcast of %p%s", static_cast<void *>(ifl), replay ? " (replay)" : "");
  walk(IF_NOTIFY_LOGICAL, [&](task *tp) {
    if (!tp->task_iflchange || (tp->task_ifl_filter && !tp->task_ifl_filter(tp, ifl))) return;
    if (replay_refused(tp, replay)) return;
    task_iflchange_single(tp, ifl, flag);
  });
}

void task_ifl_agg_change_single(task *tp, const if_agg_member *member) {
  IF_TRACE("%s: Starting ifl_agg_change for task %s", "task_ifl_agg_change", task_name(tp));
  frame(tp, "ifl_agg_change", 0, [&] { tp->task_ifl_agg_change(tp, member); });
  IF_TRACE("%s: Finished ifl_agg_change for task %s", "task_ifl_agg_change", task_name(tp));
}

void task_ifl_agg_change(if_link *ifl, const if_agg_member *member) {
  walk(IF_NOTIFY_LOGICAL, [&](task *tp) {
    if (!tp->task_ifl_agg_change || (tp->task_ifl_filter && !tp->task_ifl_filter(tp, ifl))) return;
    task_ifl_agg_change_single(tp, member);
  });
}

// ---- Routing instances: every task, not a list ------------------------------------------------
void task_rttchange_single(task *tp, rt_instance *rti) {
  IF_TRACE("task_rttchange: Starting rttchange of %p for task %s", static_cast<void *>(rti), task_name(tp));
  frame(tp, "rttchange", 0, [&] { tp->task_rttchange(tp, rti); });
  IF_TRACE("task_rttchange: Finished rttchange of %p for task %s", static_cast<void *>(rti), task_name(tp));
}

void task_rttchange(rt_instance *rti) {
  task *head = task_get_head();
  for (task *tp = task_next(head), *next; tp && tp != head; tp = next) {
    next = task_next(tp);
    if (listening(tp) && tp->task_rttchange) task_rttchange_single(tp, rti);
  }
}
