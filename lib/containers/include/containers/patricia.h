// Tree of records keyed by byte strings (patricia_*), for the timers'
// auto-parent index, the leak detector and the name trees of interfaces and
// routing instances. Nodes live in the user's records and nothing is
// allocated; it is an ordered tree over Boost.Intrusive, so lookups cost
// O(log n) key comparisons.
//
// The key lies at a fixed offset from the node (PATRICIA_KEY_OFFSET), or,
// for a root made with key_is_ptr, that offset holds a pointer to the key.
// A root made with key_bytes 0 takes each node's length from
// patricia_node_init_length (names: length + 1 to include the terminator);
// otherwise every key has key_bytes bytes.
//
// Order: byte-wise, and a key that is a prefix of a longer one comes first.
// Roots must not be moved once used. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>

#include "containers/hbt.h"

extern "C" {

// Longest key the tree accepts.
enum { PATRICIA_MAX_KEY_BYTES = 0xffff };

struct patricia_node {
  hbt_node patricia_hnode;
  uint16_t patricia_length;  // key bytes, 0 until added or initialised
};

struct patricia_root {
  hbt_root patricia_tree;
  int32_t patricia_key_offset;  // from the node to the key (or key pointer)
  uint16_t patricia_key_bytes;  // 0: per-node lengths
  uint8_t patricia_key_is_ptr;
  size_t patricia_count;
};

// Offset of a record's key from its node, as patricia_root_init wants it.
#define PATRICIA_KEY_OFFSET(type, node_member, key_member) \
  ((int32_t)(offsetof(type, key_member) - offsetof(type, node_member)))
#define PATRICIA_ENTRY(node, type, member) \
  ((type *)((char *)(node) - offsetof(type, member)))

// Prepares root and returns it.
patricia_root *patricia_root_init(patricia_root *root, bool key_is_ptr, uint16_t key_bytes,
                                  int32_t key_offset);
// Retires an empty root; a root that still holds nodes is an assertion.
void patricia_root_delete(patricia_root *root);

// Sets the key length of a node for a root with per-node lengths (1 or more).
void patricia_node_init_length(patricia_node *node, uint16_t key_bytes);

// Adds node; false, with nothing changed, when its key is already present.
// Adding a node that is in a tree, or without a length on a per-node root,
// is an assertion.
bool patricia_add(patricia_root *root, patricia_node *node);

// Removes node; false when it is not in a tree.
bool patricia_delete(patricia_root *root, patricia_node *node);

// The node whose key is the key_bytes bytes at key, or null. key_bytes 0
// means the root's fixed length.
patricia_node *patricia_get(const patricia_root *root, uint16_t key_bytes, const void *key);

// The first node whose key orders after the given one (at or after when
// or_equal), which need not be present; null at the end.
patricia_node *patricia_getnext(const patricia_root *root, uint16_t key_bytes, const void *key,
                                bool or_equal);

// Walk in key order: the first node for null, else the one after node.
patricia_node *patricia_find_next(const patricia_root *root, const patricia_node *node);

// The key bytes of a node (its length is node->patricia_length once added).
const uint8_t *patricia_key(const patricia_root *root, const patricia_node *node);

bool patricia_isempty(const patricia_root *root);

// Checks the tree's links and order and the count; false on a fault.
bool patricia_verify(const patricia_root *root);

}  // extern "C"
