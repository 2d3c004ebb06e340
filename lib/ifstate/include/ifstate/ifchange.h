// Change notification of the kernel-state mirrors: when an interface object
// (ifstate/ifobj.h) or a routing instance (ifstate/rt_instance.h) changes,
// every task that asked is told, through one broadcast per kind and one
// function that tells a single task.
//
//   task_set_ifachange(tp, my_address_changed);   // links tp into the list
//   task_set_ifa_filter(tp, only_inet);           // optional
//   ...
//   void my_address_changed(task *tp, if_address *ifa) {
//     if (ifa->ifa_change & IF_CHANGE_DELETE) ...  // still readable here
//   }
//
// A task hears a broadcast when it has been created (task_create) and not
// deleted, has the callback, its filter (if any) returns non-zero, and, for a
// broadcast marked replay, it has task_ifreplay_wanted set. A task allocated
// but not yet created has no identity yet and hears nothing. Lists are by
// kind and by task priority; task_rttchange walks every task instead.
//
// Every callback runs in the same frame: "Starting"/"Finished" trace lines
// under IF_TRACE_FLAG, the caller's flag in task_io_in_change() (a replay
// against a change), the task as the current task, and with accounting on
// the time charged to the task as the frame's name ("ifachange", ...). A
// callback may delete any task, its own included.
#pragma once

#include <cstdint>

#include "task/task.h"

struct trace_handle;

extern "C" {

// The lists, in task_notify_links.
enum : unsigned {
  IF_NOTIFY_ADDRESS = TASK_NOTIFY_IFA,
  IF_NOTIFY_FAMILY = TASK_NOTIFY_IFF,
  IF_NOTIFY_LOGICAL = TASK_NOTIFY_IFL,
  IF_NOTIFY_DEVICE = TASK_NOTIFY_IFD,
  IF_NOTIFY_FAMILY_FLAG = TASK_NOTIFY_IFF_FLAG,
};

// Lines of the mirrors and of notification go to this handle (the
// application's when null) under this flag.
constexpr uint32_t IF_TRACE_FLAG = 0x20000000;
void if_set_trace(trace_handle *th);
trace_handle *if_trace_handle(void);

// ---- Registration: set (null clears) and keep the task's list place ----------------
void task_set_iffreplay(task *tp, task_iffreplay_fn fn);
void task_set_ifachange(task *tp, task_ifachange_fn fn);
void task_set_iffchange(task *tp, task_iffchange_fn fn);
void task_set_iflchange(task *tp, task_iflchange_fn fn);
void task_set_ifdchange(task *tp, task_ifdchange_fn fn);
void task_set_iff_flag_change(task *tp, task_iff_flag_change_fn fn);
void task_set_ifl_agg_change(task *tp, task_ifl_agg_change_fn fn);
void task_set_rttchange(task *tp, task_rttchange_fn fn);
void task_set_ifa_filter(task *tp, task_ifa_filter_fn fn);
void task_set_iff_filter(task *tp, task_iff_filter_fn fn);
void task_set_ifl_filter(task *tp, task_ifl_filter_fn fn);
void task_set_ifd_filter(task *tp, task_ifd_filter_fn fn);
void task_set_ifreplay_wanted(task *tp, bool wanted);

// The flag of the broadcast in progress (0 outside a callback).
int task_io_in_change(void);

// ---- Broadcasts and single calls ----------------------------------------------------
// flag goes to task_io_in_change(); replay non-zero marks a replay.
void task_ifachange(if_address *ifa, int flag);
void task_ifachange_single(task *tp, if_address *ifa, int flag);
void task_ifdchange(if_device *ifd, void *arg, uint32_t extra, int flag, int replay);
void task_ifdchange_single(task *tp, if_device *ifd, void *arg, uint32_t extra, int flag);
// previous: the family's change word, 0 for a plain change (0x8000): new
// (0x2), delete (0x4) or 0; a flags change is told by task_iff_flag_change.
void task_iffchange(if_family *iff, uint32_t previous, void *arg, int number, int flag, int replay);
void task_iffchange_single(task *tp, if_family *iff, uint32_t previous, void *arg, int number, int flag);
void task_iffreplay_single(task *tp, void *object, void *arg, int flag, int number);
void task_iflchange(if_link *ifl, int flag, int replay);
void task_iflchange_single(task *tp, if_link *ifl, int flag);
void task_ifl_agg_change(if_link *ifl, const if_agg_member *member);
void task_ifl_agg_change_single(task *tp, const if_agg_member *member);
void task_iff_flag_change(if_family *iff, uint32_t old_flags, uint32_t new_flags, void *arg);
void task_rttchange(rt_instance *rti);
void task_rttchange_single(task *tp, rt_instance *rti);

}  // extern "C"
