// ztimers: a stand-alone timer set on the same tree, for code that runs
// outside the task kernel's timers. Records are allocated with malloc; each
// set has its own root and its own clock, given at creation (what the clock
// is and how often the set is dispatched is up to its user).
//
// Timers of equal interval and jitter can share an auto parent: one parent
// node per (interval, jitter), kept in a patricia tree and counted, so that
// many like timers cost one small sorted list. The dispatcher runs at most
// ZTIMERS_BATCH expired timers per call. A method may stop, re-set or delete
// its own timer; a deletion inside the method is deferred to its return.
#pragma once

#include <cstdint>

#include "containers/patricia.h"
#include "htimer/htimer.h"

extern "C" {

struct ztimer;
struct ztimer_set;
typedef void (*ztimer_method)(ztimer *timer, void *data);
typedef void (*ztimer_clock)(void *arg, task_utime *now);

enum {
  ZTIMER_REPEAT = 0x1,
  ZTIMER_STOPPED = 0x2,
  ZTIMER_DELETE = 0x4,  // deletion requested while the method runs
  ZTIMER_RUNNING = 0x8,
  ZTIMERS_BATCH = 10,
};

struct ztimer_auto_parent {
  htimer zap_node;  // the parent of its timers
  patricia_node zap_pnode;
  uint8_t zap_key[12];  // interval seconds, microseconds, jitter
  uint32_t zap_count;
};

struct ztimer {
  htimer zt_node;
  void *zt_data;
  ztimer_set *zt_set;
  ztimer_auto_parent *zt_auto;
  ztimer_method zt_method;
  uint8_t zt_jitter;  // percent, at most 50 applies
  uint8_t zt_flags;
  task_utime zt_interval;  // of a repeating timer
};

struct ztimer_set {
  htimer zs_root;
  patricia_root zs_autoparents;
  ztimer_clock zs_clock;
  void *zs_clock_arg;
};

ztimer_set *ztimer_set_create(ztimer_clock clock, void *clock_arg);
// The set must hold no timers any more.
void ztimer_set_destroy(ztimer_set *set);

// A timer under parent (a parent timer of the same set), or the set's root.
ztimer *ztimer_create(ztimer_set *set, ztimer *parent, bool is_leaf, ztimer_method method, void *data);
void ztimer_delete(ztimer *timer);
// Starts a leaf: first expiry now + interval, brought forward by the jitter.
void ztimer_start(ztimer *timer, const task_utime *interval, uint8_t jitter, bool repeat);
void ztimer_stop(ztimer *timer);
// Moves a stopped leaf under the auto parent of (interval, jitter) and starts it.
void ztimer_autoparent(ztimer *timer, const task_utime *interval, uint8_t jitter, bool repeat);
// Runs up to ZTIMERS_BATCH expired timers; returns how many ran.
int ztimer_dispatch(ztimer_set *set);
// Time until the set's next expiry, zero when due or when nothing runs.
bool ztimer_next(ztimer_set *set, task_utime *left);

}  // extern "C"
