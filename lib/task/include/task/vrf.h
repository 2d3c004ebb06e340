// Routing-table ids of ingress interfaces, for the receive path's table index.
//
// Linux hands a datagram no routing-table index. An interface that is a VRF
// device, or is enslaved to one, belongs to that VRF's table; any other
// interface belongs to the default instance, table 0. The answers come from
// rtnetlink (RTM_GETLINK) and are cached; a task that asks for the table
// index ("RecvRtb") also watches the link notifications through an I/O hook,
// and any link change empties the cache. A change therefore applies from the
// first datagram whose read event comes after the notification's.
#pragma once

#include <cstdint>

#include "task/task.h"

extern "C" {

// What one link message says about an interface.
struct task_vrf_link {
  int32_t tvl_ifindex;
  int32_t tvl_master;     // 0 when not enslaved
  uint8_t tvl_is_vrf;     // the interface is a VRF device ...
  uint32_t tvl_table;     // ... with this table
  uint8_t tvl_vrf_port;   // the interface is enslaved to a VRF ...
  uint32_t tvl_port_table;  // ... with this table
};

// Parses an RTM_NEWLINK message of len bytes. Returns 0, or EINVAL when it is
// not a well-formed link message; unknown attributes are skipped.
int task_vrf_parse_link(const void *msg, size_t len, task_vrf_link *out);

// The table id of ifindex: its own if it is a VRF device, its VRF's if it is
// enslaved to one, else 0. Failures to ask the kernel also give 0 (and are
// not cached).
uint32_t task_vrf_table(int ifindex);

// Starts (on) or stops watching link changes for tp; the receive path reports
// table ids for the tasks that watch, and 0xFFFFFFFF (no table information)
// for the others. Returns 0 or an errno.
int task_vrf_watch(task *tp, bool on);
bool task_vrf_watching(const task *tp);
// How many tasks watch: the receive path asks about its task only when some do.
extern uint32_t task_vrf_n_watching;

// Link lookups by index: rtnetlink unless replaced (tests). Returns 0 and
// fills *out, or an errno.
typedef int (*task_vrf_fetch_fn)(int ifindex, task_vrf_link *out);
void task_vrf_set_fetch(task_vrf_fetch_fn fn);

struct task_vrf_stats {
  uint64_t tvs_lookups;   // task_vrf_table calls
  uint64_t tvs_fetches;   // link messages asked of the kernel
  uint64_t tvs_flushes;   // caches emptied by a link change
};
task_vrf_stats task_vrf_get_stats(void);
// Empties the cache (as a link notification does).
void task_vrf_flush(void);

}  // extern "C"
