// Timers over the hierarchical timer tree: creation under per-task class
// parents, the setters, auto parents, deletion deferred around the method,
// and dispatch with phase-keeping catch-up.
#include <time.h>

#include <cstdio>
#include <cstring>

#include "format/task_fmt.h"
#include "internal.h"
#include "mem/block.h"
#include "platform/grand.h"
#include "task/accounting.h"

namespace {

task_block *timer_block;
task_block *auto_block;
constexpr task_utime kGap{0, 1};

void tree_now(const htimer *, task_utime *out) { *out = task_now; }
void tree_jitter(const htimer *, const task_utime *interval, uint32_t jitter, task_utime *r) {
  task_timer_jitter_reduction(interval, jitter, r);
}
constexpr hier_timers_link_personality kPersonality = {tree_now, tree_jitter};

inline htimer *node(task_timer *t) { return &t->task_hier_timer; }
inline const htimer *node(const task_timer *t) { return &t->task_hier_timer; }

void init_root(task_timer *t, task_timer *parent, const char *name, uint32_t flags) {
  memset(t, 0, sizeof *t);
  htimer_init_parent(node(t), parent ? node(parent) : nullptr, 0);
  t->task_timer_name = name;
  t->task_timer_flags = flags;
}

task_timer *class_root(uint32_t flags) {
  task_timer_var *tv = task_var_timers();
  if (flags & TIMERF_HIPRIO) return &tv->timer_high_root;
  if (flags & TIMERF_LOWPRIO) return &tv->timer_low_root;
  return &tv->timer_normal_root;
}
inline int class_index(uint32_t flags) {
  return flags & TIMERF_HIPRIO ? TASK_TIMER_CLASS_HIGH
                               : flags & TIMERF_LOWPRIO ? TASK_TIMER_CLASS_LOW : TASK_TIMER_CLASS_NORMAL;
}

task *owner_of(task_timer *tip) { return tip->task_timer_task ? tip->task_timer_task : task_get_head(); }

void owner_link(task_timer *tip) {
  task *o = owner_of(tip);
  tip->task_timer_prev = nullptr;
  tip->task_timer_next = o->task_timers;
  if (o->task_timers) o->task_timers->task_timer_prev = tip;
  o->task_timers = tip;
}
void owner_unlink(task_timer *tip) {
  task *o = owner_of(tip);
  if (tip->task_timer_prev)
    tip->task_timer_prev->task_timer_next = tip->task_timer_next;
  else if (o->task_timers == tip)
    o->task_timers = tip->task_timer_next;
  if (tip->task_timer_next) tip->task_timer_next->task_timer_prev = tip->task_timer_prev;
  tip->task_timer_next = tip->task_timer_prev = nullptr;
}

// The tree's relative set (now + interval, less jitter) on the kernel's own
// cached now; without jitter it needs neither of the personality's calls.
void set_rel(task_timer *tip, const task_utime *interval, uint32_t jitter) {
  if (jitter) {
    htimer_set_rel(node(tip), interval, jitter);
    return;
  }
  task_utime e = task_utime_add(task_now, *interval);
  htimer_set_abs(node(tip), &e);
}

void assert_settable(const task_timer *tip) {
  task_assert(htimer_is_leaf(&tip->task_hier_timer));
  task_assert(!tip->task_timer_auto_parent);
}

void drop_job(task_timer *tip) {
  if (task_job *jp = tip->task_timer_job) {
    tip->task_timer_job = nullptr;
    jp->task_job_timer = nullptr;
    task_job_delete(jp);
  }
}

void auto_release(task_timer *tip) {
  task_timer_auto_parent *parent_ref = tip->task_timer_auto_parent;
  if (!parent_ref) return;
  tip->task_timer_auto_parent = nullptr;
  task_assert(parent_ref->auto_parent_refcount > 0);
  if (--parent_ref->auto_parent_refcount) return;
  task_timer *ap = &parent_ref->auto_parent_timer;
  htimer_stop(node(ap));
  ap->task_hier_timer.ht_magic = 0;
  patricia_delete(&parent_ref->auto_parent_tree->tat_root, &parent_ref->auto_parent_node);
  task_block_free(auto_block, parent_ref);
}

// Moves a stopped leaf under another parent node.
void reparent(task_timer *tip, htimer *parent) {
  htimer_stop(node(tip));
  task_utime keep = tip->task_hier_timer.ht_expiry;
  htimer_init_leaf(node(tip), parent, 0);
  tip->task_hier_timer.ht_expiry = keep;
}

// Detaches and re-attaches: a running node keeps its expiry, a parent its
// running children.
void move_under(task_timer *tip, task_timer *parent) {
  htimer_detach(node(tip));
  htimer_attach(node(tip), node(parent));
}

// The parent a task's timer of these flags hangs under when none is given.
task_timer *home_of(task *tp, uint32_t flags) {
  if (!tp) return class_root(flags);
  if (flags & TIMERF_APPLROOT) {
    task_timer *tatr = tp->task_timer_root;
    task_assert(tatr);
    return tatr;
  }
  task_timer *&slot = tp->task_timer_parent[class_index(flags)];
  if (!slot) slot = task_timer_create_parent(tp, "Task parent", flags & 0x142, class_root(flags));
  return slot;
}

}  // namespace

bool task_timer_is_task_parent(const task_timer *tip) {
  const task *tp = tip->task_timer_task;
  if (!tp) return false;
  for (task_timer *slot : tp->task_timer_parent)
    if (slot == tip) return true;
  return false;
}

task_timer_var task_main_timers;

task_timer_var *task_var_timers(void) {
  auto *tv = static_cast<task_timer_var *>(task_var_full(task_var_get_context())->tvcfull_timers);
  return tv ? tv : &task_main_timers;
}

void task_timer_init(void) {
  if (!timer_block) {
    timer_block = task_block_init(sizeof(task_timer), "task_timer");
    auto_block = task_block_init(sizeof(task_timer_auto_parent), "Timer auto parent ref");
  }
  task_timer_var *tv = &task_main_timers;
  task_time_hook_fn hook = tv->timer_time_hook;
  init_root(&tv->timer_master_root, nullptr, "Master root", 0);
  init_root(&tv->timer_low_root, &tv->timer_master_root, "Low prio root", TIMERF_LOWPRIO);
  init_root(&tv->timer_normal_root, &tv->timer_master_root, "Normal prio root", 0);
  init_root(&tv->timer_high_root, &tv->timer_master_root, "High prio root", TIMERF_HIPRIO);
  patricia_root_init(&tv->timer_auto_tree.tat_root, false, 16,
                     PATRICIA_KEY_OFFSET(task_timer_auto_parent, auto_parent_node, auto_parent_key));
  tv->timer_time_hook = hook;
  htimer_set_personality(node(&tv->timer_master_root), &kPersonality);
  // %t prints a time of the cached (monotonic) clock as a time of day.
  timespec real, mono;
  clock_gettime(CLOCK_REALTIME, &real);
  clock_gettime(CLOCK_MONOTONIC, &mono);
  int64_t ns = (int64_t{real.tv_sec} - mono.tv_sec) * 1'000'000'000 + (real.tv_nsec - mono.tv_nsec);
  task_fmt_set_time_offset(ns / 1'000'000'000, static_cast<int32_t>(ns % 1'000'000'000 / 1000));
}

void task_timer_jitter_reduction(const task_utime *interval, uint32_t percent, task_utime *reduction) {
  if (percent > 50) percent = 50;
  uint32_t s = interval->ut_sec, u = interval->ut_usec;
  if (s <= 41) {
    *reduction = task_utime_from_usec(grand(percent * (s * 1000000 + u) / 100));
  } else if (s <= 42948) {
    *reduction = task_utime_from_usec(uint64_t{grand(percent * (u / 1000 + s * 1000) / 100)} * 1000);
  } else {
    // The microseconds, not the seconds: a long whole-second interval gets none.
    *reduction = task_utime{grand(percent * u / 100), 0};
  }
}

task_timer *task_timer_create_internal(task *tp, const char *name, uint32_t flags, task_timer *parent,
                                       bool is_leaf, const task_utime *interval, const task_utime *offset,
                                       uint32_t jitter, task_timer_method method, void *data) {
  if (tp) task_verify(tp);
  auto *tip = static_cast<task_timer *>(task_block_alloc(timer_block));
  tip->task_timer_name = name;
  tip->task_timer_flags = flags & ~TIMERF_INTERNAL;
  tip->task_timer_method = reinterpret_cast<void *>(method);
  tip->task_timer_data = data;
  tip->task_timer_task = tp;
  if (!parent) parent = home_of(tp, flags);
  task_assert((tip->task_timer_flags & 0x02ul) == (parent->task_timer_flags & 0x02ul));
  task_assert((tip->task_timer_flags & 0x40ul) == (parent->task_timer_flags & 0x40ul));
  if (is_leaf)
    htimer_init_leaf(node(tip), node(parent), 0);
  else
    htimer_init_parent(node(tip), node(parent), 0);
  owner_link(tip);
  if (is_leaf && ((interval && !task_utime_zero(interval)) || (offset && !task_utime_zero(offset)))) {
    bool once = tip->task_timer_flags & TIMERF_DELETE;
    if (!once || (offset && !task_utime_zero(offset))) task_timer_uset(tip, once ? nullptr : interval, offset, jitter);
  }
  return tip;
}

task_timer *task_timer_ucreate(task *tp, const char *name, uint32_t flags, const task_utime *interval,
                               const task_utime *offset, uint32_t jitter, task_timer_method method, void *data) {
  return task_timer_create_internal(tp, name, flags, nullptr, true, interval, offset, jitter, method, data);
}

task_timer *task_timer_create(task *tp, const char *name, uint32_t flags, uint32_t interval, uint32_t offset,
                              uint32_t jitter, task_timer_method method, void *data) {
  task_utime i{interval, 0}, o{offset, 0};
  return task_timer_create_internal(tp, name, flags & TIMERF_USER_MASK, nullptr, true, interval ? &i : nullptr,
                                    offset ? &o : nullptr, jitter, method, data);
}

task_timer *task_timer_create_idle(task *tp, const char *name, uint32_t flags, task_timer_method method,
                                   void *data) {
  return task_timer_create_internal(tp, name, flags & TIMERF_USER_MASK, nullptr, true, nullptr, nullptr, 0, method,
                                    data);
}

task_timer *task_timer_create_parent(task *tp, const char *name, uint32_t flags, task_timer *parent) {
  return task_timer_create_internal(tp, name, flags & TIMERF_USER_MASK, parent, false, nullptr, nullptr, 0, nullptr,
                                    nullptr);
}

task_timer *task_timer_ucreate_job(task *tp, const char *name, uint32_t flags, const task_utime *interval,
                                   const task_utime *offset, uint32_t jitter, uint32_t job_priority,
                                   task_job_method method, void *data) {
  task_timer *tip = task_timer_create_internal(tp, name, (flags & TIMERF_USER_MASK) | TIMERF_SPAWNJOB, nullptr, true,
                                               nullptr, nullptr, jitter, nullptr, data);
  tip->task_timer_method = reinterpret_cast<void *>(method);
  tip->task_timer_job_priority = job_priority;
  if ((interval && !task_utime_zero(interval)) || (offset && !task_utime_zero(offset)))
    task_timer_uset(tip, (tip->task_timer_flags & TIMERF_DELETE) ? nullptr : interval, offset, jitter);
  return tip;
}

void task_timer_uset(task_timer *tip, const task_utime *interval, const task_utime *offset, uint32_t jitter) {
  assert_settable(tip);
  tip->task_timer_flags |= TIMERF_TOUCHED;
  tip->task_timer_jitter = jitter;
  static constexpr task_utime kNone{0, 0};
  if (interval && !task_utime_zero(interval)) {
    tip->task_timer_uinterval = *interval;
    set_rel(tip, offset ? offset : interval, jitter);
    if (offset)
      TASK_TRACE(tip->task_timer_task, TR_TIMER,
                 "task_timer_uset: timer %s <%s> set to interval %#t offset %#t with jitter %d at %t",
                 task_timer_name(tip), tip->task_timer_name ? tip->task_timer_name : "NoName", interval, offset,
                 static_cast<int>(jitter), &tip->task_hier_timer.ht_expiry);
    else
      TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_uset: timer %s <%s> set to interval %#t with jitter %d at %t",
                 task_timer_name(tip), tip->task_timer_name ? tip->task_timer_name : "NoName", interval,
                 static_cast<int>(jitter), &tip->task_hier_timer.ht_expiry);
  } else if (offset && !task_utime_zero(offset)) {
    tip->task_timer_uinterval = task_utime{0, 0};
    set_rel(tip, offset, jitter);
    TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_uset: timer %s <%s> set to interval %#t offset %#t with jitter %d at %t",
               task_timer_name(tip), tip->task_timer_name ? tip->task_timer_name : "NoName", &kNone, offset,
               static_cast<int>(jitter), &tip->task_hier_timer.ht_expiry);
  } else {
    TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_uset: resetting %s", task_timer_name(tip));
    task_timer_reset(tip);
  }
}

void task_timer_set(task_timer *tip, uint32_t interval, uint32_t offset, uint32_t jitter) {
  task_utime i{interval, 0}, o{offset, 0};
  task_timer_uset(tip, interval ? &i : nullptr, offset ? &o : nullptr, jitter);
}

void task_timer_set_uinterval(task_timer *tip, const task_utime *interval) {
  assert_settable(tip);
  if (!interval || task_utime_zero(interval)) {
    if (!task_utime_zero(&tip->task_timer_uinterval)) {
      TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_uinterval: resetting %s", task_timer_name(tip));
      task_timer_reset(tip);
    } else {
      TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_uinterval: no interval set on %s", task_timer_name(tip));
    }
    return;
  }
  bool had = !task_utime_zero(&tip->task_timer_uinterval);
  tip->task_timer_uinterval = *interval;
  tip->task_timer_flags |= TIMERF_TOUCHED;
  if (had && htimer_running(node(tip)))
    htimer_set_periodic(node(tip), interval, tip->task_timer_jitter);
  else
    set_rel(tip, interval, tip->task_timer_jitter);
  TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_uinterval: timer %s interval set to %#t", task_timer_name(tip),
             interval);
}

void task_timer_reset(task_timer *tip) {
  tip->task_timer_flags |= TIMERF_TOUCHED;
  htimer_stop(node(tip));
  tip->task_timer_uinterval = task_utime{0, 0};
  tip->task_timer_jitter = 0;
  drop_job(tip);
  TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_reset: reset %s", task_timer_name(tip));
}

void task_timer_force_delay(task_timer *tip, uint32_t seconds) {
  task_assert(htimer_is_leaf(&tip->task_hier_timer));
  tip->task_timer_flags |= TIMERF_TOUCHED;
  task_utime d{seconds, 0};
  set_rel(tip, &d, 0);
  TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_force_delay: timer %s set to expire in %d",
             task_timer_name(tip), static_cast<int>(seconds));
}

void task_timer_expire_immediately(task_timer *tip) {
  task_assert(htimer_is_leaf(&tip->task_hier_timer));
  tip->task_timer_flags |= TIMERF_TOUCHED;
  htimer_set_abs(node(tip), &task_now);
  TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_expire_immediately: timer %s set to expire now",
             task_timer_name(tip));
}

void task_timer_oneshot_adjust(task_timer *tip, const task_utime *old_period, const task_utime *new_period) {
  task_assert(task_utime_zero(&tip->task_timer_uinterval));
  if (!htimer_running(node(tip))) return;
  tip->task_timer_flags |= TIMERF_TOUCHED;
  task_utime e = tip->task_hier_timer.ht_expiry;
  if (task_utime_lt(*new_period, *old_period)) {
    task_utime cut = task_utime_sub(*old_period, *new_period), left;
    htimer_time_left(node(tip), &left);
    e = task_utime_lt(cut, left) ? task_utime_sub(e, cut) : task_now;
  } else {
    e = task_utime_add(e, task_utime_sub(*new_period, *old_period));
  }
  htimer_set_abs(node(tip), &e);
}

void task_timer_uset_oneshot_latest(task_timer *tip, const task_utime *offset, uint32_t jitter, bool from_latest) {
  tip->task_timer_flags |= TIMERF_TOUCHED;
  tip->task_timer_uinterval = task_utime{0, 0};
  tip->task_timer_jitter = jitter;
  htimer_set_latest(node(tip), offset, jitter, &kGap, from_latest);
  TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_set_oneshot_latest: timer %s interval set to %#t",
             task_timer_name(tip), offset);
}

void task_timer_uset_interval_latest(task_timer *tip, const task_utime *interval, uint32_t jitter,
                                     bool from_latest) {
  tip->task_timer_flags |= TIMERF_TOUCHED | TIMERF_LATEST;
  tip->task_timer_uinterval = *interval;
  tip->task_timer_jitter = jitter;
  htimer_set_latest(node(tip), interval, jitter, &kGap, from_latest);
  TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_uset_interval_latest: timer %s interval set to %#t",
             task_timer_name(tip), interval);
}

void task_timer_uset_latest_auto(task_timer_auto_tree *tree, task_timer *timer, const task_utime *interval,
                                 uint32_t jitter) {
  task_assert(htimer_is_leaf(&timer->task_hier_timer));
  task_timer *root;
  if (timer->task_timer_flags & TIMERF_APPLROOT) {
    task_assert(timer->task_timer_task && timer->task_timer_task->task_timer_root);
    root = timer->task_timer_task->task_timer_root;
  } else {
    root = class_root(timer->task_timer_flags);
  }
  if (!tree) tree = &task_var_timers()->timer_auto_tree;
  task_assert(!timer->task_timer_auto_parent || (timer->task_timer_auto_parent->auto_parent_root == root));
  uint32_t key[4] = {interval->ut_sec, interval->ut_usec, jitter, timer->task_timer_flags & 0x142};
  task_timer_auto_parent *ref = nullptr;
  if (patricia_node *pn = patricia_get(&tree->tat_root, 16, key))
    ref = PATRICIA_ENTRY(pn, task_timer_auto_parent, auto_parent_node);
  if (!ref) {
    ref = static_cast<task_timer_auto_parent *>(task_block_alloc(auto_block));
    ref->auto_parent_tree = tree;
    memcpy(ref->auto_parent_key, key, sizeof key);
    ref->auto_parent_root = root;
    init_root(&ref->auto_parent_timer, root, "Auto parent", timer->task_timer_flags & 0x142);
    patricia_add(&tree->tat_root, &ref->auto_parent_node);
  }
  if (timer->task_timer_auto_parent != ref) {
    auto_release(timer);
    reparent(timer, node(&ref->auto_parent_timer));
    timer->task_timer_auto_parent = ref;
    ref->auto_parent_refcount++;
  }
  task_timer_uset_interval_latest(timer, interval, jitter, false);
}

void task_timer_set_jitter(task_timer *timer, uint32_t jitter) {
  task_assert(timer->task_timer_auto_parent == ((void *)0));
  timer->task_timer_jitter = jitter;
}

void task_timer_set_parent(task_timer *timer, task_timer *parent) {
  task_assert(timer->task_timer_auto_parent == ((void *)0));
  task_assert(htimer_initialized(&parent->task_hier_timer) && !htimer_is_leaf(&parent->task_hier_timer));
  for (const htimer *h = &parent->task_hier_timer; h; h = h->ht_parent) task_assert(h != &timer->task_hier_timer);
  if (!htimer_is_leaf(&timer->task_hier_timer))
    task_assert((timer->task_timer_flags & 0x142ul) == (parent->task_timer_flags & 0x142ul));
  timer->task_timer_flags = (timer->task_timer_flags & ~0x142ul) | (parent->task_timer_flags & 0x142ul);
  move_under(timer, parent);
}

void task_timer_set_task(task_timer *tip, task *tp) {
  task *old = tip->task_timer_task;
  if (old == tp) return;
  task_assert(!task_timer_is_task_parent(tip));
  if (tp) task_verify(tp);
  bool at_home = tip->task_hier_timer.ht_parent == node(home_of(old, tip->task_timer_flags));
  owner_unlink(tip);
  tip->task_timer_task = tp;
  owner_link(tip);
  if (at_home) move_under(tip, home_of(tp, tip->task_timer_flags));
}

void task_timer_spread(task_timer *tip) {
  if (htimer *p = tip->task_hier_timer.ht_parent) htimer_spread(p);
}

void task_timer_delete(task_timer *tip) {
  if (!tip) return;
  TASK_TRACE(tip->task_timer_task, TR_TIMER, "task_timer_delete: %s <%s>", task_timer_name(tip),
             tip->task_timer_name ? tip->task_timer_name : "NoName");
  tip->task_timer_flags |= TIMERF_FREE;
  htimer_stop(node(tip));
  auto_release(tip);
  tip->task_hier_timer.ht_magic = 0;
  owner_unlink(tip);
  if (task *tp = tip->task_timer_task) {
    for (task_timer *&slot : tp->task_timer_parent)
      if (slot == tip) slot = nullptr;
  }
  tip->task_timer_task = nullptr;
  if (tip->task_timer_flags & TIMERF_DELETE) {
    if (tip->task_timer_job) tip->task_timer_job->task_job_timer = nullptr;
    tip->task_timer_job = nullptr;
  } else {
    drop_job(tip);
  }
  if (!(tip->task_timer_flags & TIMERF_PROCESSING)) task_block_free(timer_block, tip);
}

bool task_timer_running(const task_timer *tip) { return htimer_running(node(tip)); }
bool task_timer_expired(const task_timer *tip) { return htimer_expired(node(tip)); }
void task_timer_time_left(const task_timer *tip, task_utime *left) { htimer_time_left(node(tip), left); }
uint32_t task_timer_seconds_left(const task_timer *tip) {
  task_utime l;
  htimer_time_left(node(tip), &l);
  return l.ut_sec;
}
task *task_timer_task(const task_timer *tip) { return tip->task_timer_task; }
uint32_t task_timer_flags(const task_timer *tip) { return tip->task_timer_flags; }
bool task_timer_job_in_progress(const task_timer *tip) { return tip->task_timer_job != nullptr; }
void *task_timer_data(const task_timer *tip) { return tip->task_timer_data; }
void task_timer_set_data(task_timer *tip, void *data) { tip->task_timer_data = data; }

const char *task_timer_name(const task_timer *tip) {
  static char buf[128];
  const task *tp = tip->task_timer_task;
  snprintf(buf, sizeof buf, "%s_%s", tp ? const_cast<task *>(tp)->task_name_base : "NoName",
           tip->task_timer_name ? tip->task_timer_name : "NoName");
  return buf;
}

namespace {

// What follows a method: free, delete, or the next expiry. A repeating timer
// without jitter keeps its phase: the missed periods are skipped at once.
void after_fire(task_timer *tip, const task_utime &fired_at) {
  if (tip->task_timer_flags & TIMERF_FREE) {
    TASK_TRACE(nullptr, TR_TIMER, "task_timer_dispatch: returned from %s, deletion requested",
               tip->task_timer_name ? tip->task_timer_name : "NoName");
    task_block_free(timer_block, tip);
    return;
  }
  if (tip->task_timer_flags & TIMERF_DELETE) {
    task_timer_delete(tip);
    return;
  }
  if (tip->task_timer_flags & TIMERF_TOUCHED) return;
  const task_utime &iv = tip->task_timer_uinterval;
  if (task_utime_zero(&iv)) {
    htimer_stop(node(tip));
  } else if (tip->task_timer_jitter == 0) {
    uint64_t e = task_utime_to_usec(fired_at) + task_utime_to_usec(iv);
    uint64_t now = task_utime_to_usec(task_now), step = task_utime_to_usec(iv);
    if (e <= now) e += ((now - e) / step + 1) * step;
    task_utime next = task_utime_from_usec(e);
    htimer_set_abs(node(tip), &next);
  } else if (tip->task_timer_flags & TIMERF_LATEST) {
    htimer_set_latest(node(tip), &iv, tip->task_timer_jitter, &kGap, true);
  } else {
    set_rel(tip, &iv, tip->task_timer_jitter);
  }
}

const char *timer_name_of(const void *tip) { return task_timer_name(static_cast<const task_timer *>(tip)); }

// A timer whose method is already running further up the stack, met again
// by a nested pass: it is stopped, not run twice; the dispatch that runs its
// method decides its next expiry when the method returns.
inline bool nested(task_timer *tip) {
  if (!(tip->task_timer_flags & TIMERF_PROCESSING)) return false;
  htimer_stop(node(tip));
  return true;
}

// One timer: its method or its job. The leaf stays in the tree, running and
// expired, while its method runs. The method runs as its task's (sp: the
// dispatching context's scheduler record).
void fire(task_timer *tip, task_sched_var *sp) {
  task_utime fired_at = tip->task_hier_timer.ht_expiry;
  tip->task_timer_flags &= ~TIMERF_TOUCHED;
  task *saved = sp->tasksched_current;
  if (tip->task_timer_task) sp->tasksched_current = tip->task_timer_task;
  if (tip->task_timer_flags & TIMERF_SPAWNJOB) {
    if (tip->task_timer_method) {
      task *owner = tip->task_timer_task ? tip->task_timer_task : task_scheduler_task();
      if (tip->task_timer_job) tip->task_timer_job->task_job_timer = nullptr;
      task_job *jp = task_job_create(owner, static_cast<int>(tip->task_timer_job_priority), tip->task_timer_name,
                                     reinterpret_cast<task_job_method>(tip->task_timer_method), tip->task_timer_data);
      if (jp) {
        jp->task_job_timer = tip;
        tip->task_timer_job = jp;
      }
    }
  } else if (tip->task_timer_method) {
    // A delete inside the method clears the timer's task, not the task record.
    task *owner = tip->task_timer_task;
    if (__builtin_expect(task_accounting_on, 0)) task_accounting_overhead(TASK_ACCT_TIMER, "timer");
    tip->task_timer_flags |= TIMERF_PROCESSING;
    reinterpret_cast<task_timer_method>(tip->task_timer_method)(tip, tip->task_timer_uinterval.ut_sec);
    tip->task_timer_flags &= ~TIMERF_PROCESSING;
    if (__builtin_expect(task_accounting_on, 0))
      task_accounting_charge(owner, TASK_ACCT_TIMER, "timer processing", timer_name_of, tip);
  }
  sp->tasksched_current = saved;
  after_fire(tip, fired_at);
}

}  // namespace

int task_timer_dispatch(task_timer *root, bool is_high, int limit) {
  task_assert(limit != 0);
  task_sched_var *sp = task_var_scheduler(nullptr);
  int count = 0;
  while (htimer *next = htimer_next_expired_at(node(root), &task_now)) {
    task_timer *tip = reinterpret_cast<task_timer *>(next);
    task_assert(!(((tip->task_timer_flags) & (0x100ul)) != 0));
    if (nested(tip)) continue;
    fire(tip, sp);
    count++;
    if (count == limit) break;
    if (!is_high) task_timer_hiprio_check();
  }
  return count;
}

void task_timer_hiprio_dispatch(task_timer_var *tv, task_sched_stats *stats) {
  TASK_TRACE(nullptr, TR_TIMER, "task_timer_hiprio_dispatch: running high priority timer queue");
  int n = task_timer_dispatch(&tv->timer_high_root, true, -1);
  if (stats) stats->ss[SCHED_STAT_HI_TIMERS] += n;
  TASK_TRACE(nullptr, TR_TIMER, "task_timer_hiprio_dispatch: ran %d timer%s", n, n == 1 ? "" : "s");
}

int task_timer_appl_dispatch(task_timer *root) {
  int count = 0;
  while (htimer *next = htimer_next_expired_at(node(root), &task_now)) {
    task_timer *tip = reinterpret_cast<task_timer *>(next);
    if (nested(tip)) continue;
    task_utime fired_at = tip->task_hier_timer.ht_expiry;
    tip->task_timer_flags &= ~TIMERF_TOUCHED;
    if (tip->task_timer_method) {
      tip->task_timer_flags |= TIMERF_PROCESSING;
      reinterpret_cast<task_timer_method>(tip->task_timer_method)(tip, tip->task_timer_uinterval.ut_sec);
      tip->task_timer_flags &= ~TIMERF_PROCESSING;
    }
    task_assert(!(((tip->task_timer_flags) & (0x08ul)) != 0));
    task_assert(!(((tip->task_timer_flags) & (0x01ul)) != 0));
    after_fire(tip, fired_at);
    count++;
  }
  return count;
}
