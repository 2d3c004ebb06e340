// Keyed lists (lfll_*) on which the memory library keeps its blocks and
// cookies. A node lives in the user's record and carries a 64-bit key; a list
// holds each key once, in rising key order. Nothing is allocated.
//
// Threads: the memory front door is called from any thread, so each list has
// its own lock (a recursive mutex), taken by every call. This is a locked
// list, not a lock-free one: a walk holds the lock while its callback runs, so
// callbacks must be short. A callback may delete the node it was given, or
// look the list up; other changes to the same list from a callback are not
// allowed.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

extern "C" {

// Zero means "not in a list"; lfll_list_delete zeroes the links.
struct lfll_node {
  lfll_node *lfll_next;
  lfll_node *lfll_prev;
  uint64_t lfll_key;
};

struct lfll_list {
  lfll_node lfll_head;  // sentinel of a circular list
  pthread_mutex_t lfll_lock;
  uint32_t lfll_count;
};

#define LFLL_ENTRY(node, type, member) \
  ((type *)((char *)(node) - offsetof(type, member)))

// Library set-up, kept for callers: lists need no shared state and nothing
// is allocated, so there is nothing to do. Returns 0.
int lfll_init(void);

// Prepares an empty list. Required before use; a list is not copyable.
void lfll_list_init(lfll_list *list);
// Releases the list's lock; the list must be empty (assertion).
void lfll_list_destroy(lfll_list *list);

// Links node under key. False, with nothing changed, when the key is taken.
// Inserting a node that is already linked is an assertion.
bool lfll_list_insert(lfll_list *list, lfll_node *node, uint64_t key);

// Unlinks node; false when it is not in this list.
bool lfll_list_delete(lfll_list *list, lfll_node *node);

// The node with that key, or null.
lfll_node *lfll_list_lookup(lfll_list *list, uint64_t key);

// Calls match on each node in key order until it returns true, and returns
// that node; null when none matched.
typedef bool (*lfll_match_fn)(lfll_node *node, void *arg);
lfll_node *lfll_walk(lfll_list *list, lfll_match_fn match, void *arg);

uint32_t lfll_list_count(lfll_list *list);

// Checks links, key order and count; false on a fault.
bool lfll_list_verify(lfll_list *list);

}  // extern "C"

// Calls f(node) for every node in key order (a walk that matches nothing).
template <typename F>
void lfll_each(lfll_list *list, F &&f) {
  using fn_t = std::remove_reference_t<F>;
  lfll_walk(
      list,
      [](lfll_node *n, void *a) {
        (*static_cast<fn_t *>(a))(n);
        return false;
      },
      &f);
}
