// Balanced ordered tree with the node inside the user's record (hbt_*), for
// the task kernel's low-memory list, trace handles, database and interface
// lists. A red-black tree over Boost.Intrusive: nothing is allocated, order
// comes from a compare function given with each call.
//
//   struct my_rec { int key; hbt_node hnode; };
//   static int my_cmp(const hbt_node *a, const hbt_node *b) {
//     return HBT_ENTRY(a, my_rec, hnode)->key - HBT_ENTRY(b, my_rec, hnode)->key;
//   }
//   static hbt_root list;                       // zero is an empty tree
//   assert(hbt_insert(&list, &rec->hnode, my_cmp));
//
// Lookups take a probe: a node inside a record on the caller's stack whose key
// fields are filled in, compared with the same function.
// A root must not be moved or copied once used: the tree points back into it.
// Not thread-safe: one thread, or the caller's lock.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

// Zero (or after hbt_delete) means "not in a tree"; see hbt_node_linked.
struct hbt_node {
  hbt_node *hbt_parent;
  hbt_node *hbt_left;
  hbt_node *hbt_right;
  unsigned hbt_color;
};

// An all-zero root is a valid empty tree.
struct hbt_root {
  hbt_node hbt_header;
};

// Negative, zero or positive as a orders before, equal to or after b.
typedef int (*hbt_compare_fn)(const hbt_node *a, const hbt_node *b);

// The record that holds a node.
#define HBT_ENTRY(node, type, member) \
  ((type *)((char *)(node) - offsetof(type, member)))

// Makes an empty tree; the same as zero-filling the root.
void hbt_root_init(hbt_root *root);
bool hbt_empty(const hbt_root *root);

// Links node, which must not be in a tree. False, with nothing changed, when
// an equal node is already there.
bool hbt_insert(hbt_root *root, hbt_node *node, hbt_compare_fn compare);

// Unlinks node and zeroes it; false when the node was not linked.
bool hbt_delete(hbt_root *root, hbt_node *node);

// The node equal to probe, or null.
hbt_node *hbt_lookup(const hbt_root *root, const hbt_node *probe, hbt_compare_fn compare);

// The first node ordered strictly after probe (which need not be in the
// tree), or null.
hbt_node *hbt_getnext(const hbt_root *root, const hbt_node *probe, hbt_compare_fn compare);

// In-order walk: the first node for a null node, else the one after node;
// null at the end. The node returned may be deleted before the next call only
// if the caller fetched its successor first.
hbt_node *hbt_iterate_next(const hbt_root *root, const hbt_node *node);

// The last node, or null.
hbt_node *hbt_max_element(const hbt_root *root);

// True while the node is in some tree. Nodes start zeroed; hbt_delete zeroes.
bool hbt_node_linked(const hbt_node *node);

// Checks order (strictly rising under compare), links, colours and the
// cached first and last; counts the nodes into *count when not null. False
// on the first fault found. For tests and debugging: walks the whole tree.
bool hbt_verify(const hbt_root *root, hbt_compare_fn compare, size_t *count);

}  // extern "C"
