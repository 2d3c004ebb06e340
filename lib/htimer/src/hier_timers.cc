// The timer tree: set-and-carry, relink, stop, attach, spread.
#include <time.h>

#include <cstring>

#include "htimer/htimer.h"

extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *file, unsigned int line,
                                           const char *function) noexcept;
#define HT_ASSERT(cond) ((cond) ? (void)0 : __assert_fail(#cond, "hier_timers.cc", __LINE__, __func__))

namespace {

void monotonic_now(task_utime *out) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  *out = task_utime{static_cast<uint32_t>(ts.tv_sec), static_cast<uint32_t>(ts.tv_nsec / 1000)};
}
void no_jitter(const task_utime *, uint32_t, task_utime *reduction) { *reduction = task_utime{0, 0}; }

constexpr hier_timers_link_personality kDefault = {monotonic_now, no_jitter};
const hier_timers_link_personality *personality = &kDefault;

inline task_utime now() {
  task_utime t;
  personality->now(&t);
  return t;
}

// base + interval, brought forward by the jitter.
task_utime jittered(const task_utime &base, const task_utime *interval, uint32_t jitter) {
  task_utime e = task_utime_add(base, *interval);
  if (jitter) {
    task_utime r;
    personality->jitter(interval, jitter, &r);
    e = task_utime_sub(e, r);
  }
  return e;
}

inline void link_only_child(htimer *p, htimer *n) {
  p->ht_first = n;
  n->ht_next = n->ht_prev = n;
}

inline void link_after(htimer *at, htimer *n) {
  n->ht_prev = at;
  n->ht_next = at->ht_next;
  at->ht_next->ht_prev = n;
  at->ht_next = n;
}

// Takes a running node out of its parent's list; returns whether it was first.
bool unlink(htimer *n) {
  htimer *p = n->ht_parent;
  if (!p || !n->ht_next) return false;
  bool first = p->ht_first == n;
  if (n->ht_next == n) {
    p->ht_first = nullptr;
  } else {
    n->ht_prev->ht_next = n->ht_next;
    n->ht_next->ht_prev = n->ht_prev;
    if (first) p->ht_first = n->ht_next;
  }
  n->ht_next = n->ht_prev = nullptr;
  return first;
}

// Puts n at its place in its parent's list; returns whether the parent's
// first child changed.
bool relink(htimer *n, const task_utime &old, bool was_running) {
  htimer *p = n->ht_parent;
  bool was_first = false;
  if (was_running && n->ht_next) {
    if (task_utime_eq(n->ht_expiry, old)) return false;
    bool first = p->ht_first == n;
    bool must_move = !first && task_utime_lt(n->ht_expiry, n->ht_prev->ht_expiry);
    if (!must_move) {
      htimer *next = n->ht_next;
      if (next == p->ht_first || !task_utime_lt(next->ht_expiry, n->ht_expiry)) return first;
    }
    was_first = unlink(n);
  }
  if (!p->ht_first) {
    link_only_child(p, n);
    return true;
  }
  // From the back: new expiries are usually the latest.
  htimer *cur = p->ht_first->ht_prev;
  for (;;) {
    if (!task_utime_lt(n->ht_expiry, cur->ht_expiry)) {
      link_after(cur, n);
      return was_first;
    }
    if (cur == p->ht_first) {
      link_after(cur->ht_prev, n);
      p->ht_first = n;
      return true;
    }
    cur = cur->ht_prev;
  }
}

// Stores a node's expiry and carries a changed minimum up the tree.
void set_and_carry(htimer *n, task_utime expiry) {
  task_utime old = n->ht_expiry;
  bool was = htimer_running(n);
  n->ht_flags |= HTIMER_RUNNING;
  n->ht_expiry = expiry;
  while (n->ht_parent) {
    if (!relink(n, old, was)) return;
    htimer *timer = n->ht_parent;
    HT_ASSERT(!htimer_is_leaf(timer) && htimer_initialized(timer));
    old = timer->ht_expiry;
    was = htimer_running(timer);
    timer->ht_flags |= HTIMER_RUNNING;
    timer->ht_expiry = timer->ht_first->ht_expiry;
    n = timer;
  }
}

// After a child left p's list: a parent left empty stops and leaves its own
// parent in turn; a new first child carries its expiry upward.
void after_unlink(htimer *p, bool was_first) {
  while (p) {
    if (p->ht_first) {
      if (was_first) set_and_carry(p, p->ht_first->ht_expiry);
      return;
    }
    htimer *up = p->ht_parent;
    was_first = unlink(p);
    p->ht_flags &= ~HTIMER_RUNNING;
    p = up;
  }
}

void stop_leaf(htimer *n) {
  bool first = unlink(n);
  n->ht_flags &= ~HTIMER_RUNNING;
  after_unlink(n->ht_parent, first);
}

void init_node(htimer *timer, htimer *parent, uint16_t user, uint8_t flags) {
  if (htimer_initialized(timer)) HT_ASSERT(!htimer_running(timer));
  if (parent) HT_ASSERT(htimer_initialized(parent) && !htimer_is_leaf(parent));
  memset(timer, 0, sizeof *timer);
  timer->ht_parent = parent;
  timer->ht_user = user;
  timer->ht_magic = HTIMER_MAGIC;
  timer->ht_flags = flags;
}

}  // namespace

extern "C" {

const hier_timers_link_personality *htimer_set_personality(const hier_timers_link_personality *p) {
  const hier_timers_link_personality *old = personality;
  personality = p ? p : &kDefault;
  return old;
}

void htimer_init_parent(htimer *node, htimer *parent, uint16_t user) { init_node(node, parent, user, 0); }
void htimer_init_leaf(htimer *node, htimer *parent, uint16_t user) { init_node(node, parent, user, HTIMER_LEAF); }

void htimer_set_abs(htimer *timer, const task_utime *expiry) {
  HT_ASSERT(htimer_initialized(timer));
  HT_ASSERT(htimer_is_leaf(timer));
  set_and_carry(timer, *expiry);
}

void htimer_set_rel(htimer *leaf, const task_utime *interval, uint32_t jitter) {
  task_utime e = jittered(now(), interval, jitter);
  htimer_set_abs(leaf, &e);
}

void htimer_set_periodic(htimer *leaf, const task_utime *interval, uint32_t jitter) {
  task_utime base = htimer_running(leaf) ? leaf->ht_expiry : now();
  task_utime e = jittered(base, interval, jitter);
  htimer_set_abs(leaf, &e);
}

void htimer_set_latest(htimer *timer, const task_utime *interval, uint32_t jitter, const task_utime *gap,
                       bool from_latest) {
  HT_ASSERT(timer->ht_parent);
  task_utime t = now();
  task_utime e = jittered(t, interval, jitter);
  if (htimer *first = timer->ht_parent->ht_first) {
    const task_utime &l = first->ht_prev->ht_expiry;
    if (task_utime_lt(e, l)) {
      task_utime e0 = task_utime_add(t, *interval);
      e = !from_latest && !task_utime_lt(e0, l) ? e0 : task_utime_add(l, *gap);
    }
  }
  htimer_set_abs(timer, &e);
}

void htimer_stop(htimer *node) {
  if (!htimer_running(node)) return;
  if (htimer_is_leaf(node)) {
    stop_leaf(node);
    return;
  }
  // The leftmost deepest running node, until the parent itself has stopped.
  while (htimer_running(node)) {
    htimer *cur = node;
    while (cur->ht_first) cur = cur->ht_first;
    if (cur == node) {  // a running parent without children: only its own bit
      node->ht_flags &= ~HTIMER_RUNNING;
      after_unlink(node->ht_parent, unlink(node));
      break;
    }
    stop_leaf(cur);
  }
}

void htimer_attach(htimer *root, htimer *parent) {
  HT_ASSERT(root->ht_parent == NULL);
  HT_ASSERT(!htimer_is_leaf(parent) && htimer_initialized(parent));
  root->ht_parent = parent;
  if (!htimer_running(root)) return;
  if (relink(root, root->ht_expiry, false)) set_and_carry(parent, parent->ht_first->ht_expiry);
}

void htimer_detach(htimer *node) {
  htimer *p = node->ht_parent;
  if (!p) return;
  if (htimer_running(node)) after_unlink(p, unlink(node));
  node->ht_parent = nullptr;
}

void htimer_spread(htimer *parent) {
  htimer *c = parent->ht_first;
  if (!c) return;
  unsigned n = 0;
  htimer *cur_timer = c;
  do {
    HT_ASSERT(htimer_is_leaf(cur_timer));
    n++;
    cur_timer = cur_timer->ht_next;
  } while (cur_timer != c);
  if (n < 3) return;
  const task_utime last = c->ht_prev->ht_expiry;
  task_utime t = now();
  while (n > 1) {
    task_utime w = task_utime_div(task_utime_sub(last, t), n);
    task_utime p = task_utime_add(t, w);
    if (task_utime_lt(c->ht_expiry, p)) {
      p = c->ht_expiry;
      w = task_utime_div(task_utime_sub(last, p), n - 1);
    }
    if (task_utime_zero(&w)) break;
    // Moves only ever bring a timer earlier, so the order holds.
    while (!task_utime_lt(c->ht_expiry, p)) {
      c->ht_expiry = p;
      p = task_utime_add(p, w);
      c = c->ht_next;
      if (--n < 2) goto done;
    }
    t = c->ht_expiry;
  }
done:
  set_and_carry(parent, parent->ht_first->ht_expiry);
}

bool htimer_expired(const htimer *node) {
  return htimer_running(node) && !task_utime_lt(now(), node->ht_expiry);
}

void htimer_time_left(const htimer *node, task_utime *left) {
  *left = htimer_running(node) ? task_utime_sub(node->ht_expiry, now()) : task_utime{0, 0};
}

htimer *htimer_next_expired(htimer *root) {
  if (!htimer_expired(root)) return nullptr;
  htimer *cur_timer = root;
  while (!htimer_is_leaf(cur_timer)) {
    cur_timer = cur_timer->ht_first;
    HT_ASSERT(cur_timer != NULL);
  }
  return cur_timer;
}

}  // extern "C"
