// hier_timers: the tree beneath every timer. Not a slot wheel but a tree of
// sorted sibling lists, each parent carrying the earliest expiry of its
// running children, so the next expiry is one read at the root and timers of
// similar intervals (one task's, one auto parent's) are cheap to re-set.
//
// Nodes are embedded at the start of the user's timer record; nothing here
// allocates. Only running nodes are linked into their parent's circular list,
// ascending by expiry, equal expiries in arrival order. A fired leaf stays
// running until its owner stops or re-sets it.
//
// A parent whose list grows long enough that a walk from the back passes
// HTIMER_INDEX_WALK nodes also keeps an order index over it (a red-black tree
// threaded through the children's ht_order links), so that a set finds its
// place in O(log n); the list stays the order that dispatch and every rule
// read, and the index is dropped again when the parent falls below
// HTIMER_INDEX_DROP children. Timers of one interval under one parent, the
// tree's design case, never walk that far and never pay for the index.
//
// Time comes from a link personality, "now" and the jitter reduction, kept at
// the root of each tree: every tree has its own clock, so trees on different
// clocks (the task kernel's cached time, a stand-alone set's) can be worked on
// inside one another's callbacks. A root without one reads the monotonic
// clock and applies no jitter. Misuse ends the process with an assertion
// naming the broken condition.
#pragma once

#include <cstdint>

#include "htimer/utime.h"

extern "C" {

// A link of the order index; the colour lives in the parent word's low bit.
// The two child links come first: in a timer record that starts on a cache
// line they share it with ht_expiry, so a search reads one line per level.
struct htimer_order {
  htimer_order *ho_left;
  htimer_order *ho_right;
  uintptr_t ho_parent;
};

struct hier_timers_link_personality;

struct htimer {
  htimer *ht_parent;
  htimer *ht_first;  // earliest running child
  htimer *ht_next;   // running siblings, circular; null when not linked
  htimer *ht_prev;
  task_utime ht_expiry;
  uint16_t ht_user;
  uint8_t ht_magic;
  uint8_t ht_flags;
  uint32_t ht_children;  // running children linked under this node
  // A child's place in its parent's index, while the parent keeps one; a
  // root, in no parent's list, keeps its tree's clock in the same place.
  union {
    htimer_order ht_order;
    const hier_timers_link_personality *ht_clock;
  };
  htimer_order *ht_index_root;  // this parent's index (HTIMER_INDEXED)
};

enum { HTIMER_MAGIC = 'B', HTIMER_RUNNING = 0x1, HTIMER_LEAF = 0x2, HTIMER_INDEXED = 0x4 };
enum { HTIMER_INDEX_WALK = 32, HTIMER_INDEX_DROP = 16 };

// Both calls get the root of the tree they serve, so that one personality can
// serve several trees (a stand-alone set finds its own clock from its root).
struct hier_timers_link_personality {
  void (*now)(const htimer *root, task_utime *out);
  // How much earlier than base + interval a timer with this jitter fires.
  void (*jitter)(const htimer *root, const task_utime *interval, uint32_t jitter, task_utime *reduction);
};

// Gives the tree under root its clock (null: the default); re-initialising the
// root clears it. A detached node keeps the clock of the tree it left.
void htimer_set_personality(htimer *root, const hier_timers_link_personality *p);
// The personality of the tree that holds node.
const hier_timers_link_personality *htimer_personality(const htimer *node);

void htimer_init_parent(htimer *node, htimer *parent, uint16_t user);
void htimer_init_leaf(htimer *node, htimer *parent, uint16_t user);
void htimer_set_abs(htimer *leaf, const task_utime *expiry);
void htimer_set_rel(htimer *leaf, const task_utime *interval, uint32_t jitter);
void htimer_set_periodic(htimer *leaf, const task_utime *interval, uint32_t jitter);
void htimer_set_latest(htimer *leaf, const task_utime *interval, uint32_t jitter, const task_utime *gap,
                       bool from_latest);
void htimer_stop(htimer *node);
void htimer_attach(htimer *root, htimer *parent);
void htimer_detach(htimer *node);
void htimer_spread(htimer *parent);
htimer *htimer_next_expired(htimer *root);
// The same against a now the caller has read (a dispatcher that keeps its
// tree's time cached needs no walk to the root for its clock).
htimer *htimer_next_expired_at(htimer *root, const task_utime *now);
bool htimer_expired(const htimer *node);
void htimer_time_left(const htimer *node, task_utime *left);

// Checks a parent's list (links, order, count) and, when it keeps one, that
// its index holds the same nodes in the same order. For tests and debugging.
bool htimer_verify(const htimer *parent);

inline bool htimer_running(const htimer *t) { return t->ht_flags & HTIMER_RUNNING; }
inline bool htimer_is_leaf(const htimer *t) { return t->ht_flags & HTIMER_LEAF; }
inline bool htimer_initialized(const htimer *t) { return t->ht_magic == HTIMER_MAGIC; }
// The root above node (node itself when it has no parent).
inline const htimer *htimer_root(const htimer *node) {
  while (node->ht_parent) node = node->ht_parent;
  return node;
}

}  // extern "C"
